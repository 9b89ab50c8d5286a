#include "Verify.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

#include "Boot.h"
#include "LocalRom.h"
#include "RomInterface.h"

namespace tools {

namespace {

constexpr std::size_t MOST_DIFFERENCES = 10;
/// Bytes of one read: an answer's line has its limit, and so has the patience for one.
constexpr u_int32_t READ_SIZE = 64 * 1024;
constexpr u_int32_t CHUNK = 5;  // nothing is written

/// A device that cannot be read, with the server's words.
struct Failure {
  Finding::State state;
  std::string reason;
};

/// The only requests that may leave this program.
bool OnlyReads(std::string_view request) {
  constexpr std::string_view HEADS[] = {"vsMultiMaxGet",    "IfcVersion",     "NsGetDeviceByType",
                                        "vsFlashReadMulti", "vsI2cReadMulti", "vsFlashGetAttrMulti",
                                        "vsGetVsdMulti",    "crBSNGet"};
  return std::ranges::find(HEADS, request.substr(0, request.find(' '))) != std::end(HEADS);
}

/// What is needed of the interface to a device's memory, whichever it is.
class Reader {
 public:
  virtual ~Reader() = default;
  virtual RemoteRomInterface& Rom() = 0;
  virtual const RomInterface::DeviceData& Record(Guid guid) = 0;
  /// Why the device failed; "" when it did not.
  virtual std::string Reason(Guid guid) = 0;
  virtual u_int32_t FlashSize() = 0;   ///< 0 for a memory that is no flash
  virtual u_int32_t SectorSize() = 0;  ///< likewise
};

template <typename Remote>
class ReaderOf : public Reader, private Remote {
 public:
  ReaderOf() : Remote(CHUNK) {}

  RemoteRomInterface& Rom() override { return *this; }
  const RomInterface::DeviceData& Record(Guid guid) override { return *this->_devs_data.at(guid); }
  std::string Reason(Guid guid) override {
    const auto found = this->_error_des.find(guid);
    return found == this->_error_des.end() ? "" : found->second;
  }
  u_int32_t FlashSize() override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_flash_size;
    return 0;
  }
  u_int32_t SectorSize() override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_sector_size;
    return 0;
  }

 protected:
  BraidConn::Response Exchange(const std::string& request) override {
    ASSERT_ALWAYS(OnlyReads(request));
    return Remote::Exchange(request);
  }
  BraidConn::Response ExchangeText(const std::string&) override {
    ASSERT_ALWAYS(false && "an image would be sent");
  }
};

/// One device: its memory as far as it was read, and what a burn would have made of it.
class Device {
 public:
  Device(const FwImage& image, const std::string& image_file, Reader& reader, Guid guid)
      : _image(image), _image_file(image_file), _reader(reader), _guid(guid) {
    _memory.resize(MemorySize(), 0xFF);
  }

  /// Fills in the slots that are valid.
  void FindValidSlots(Finding& finding) {
    const sim::BootLayout layout(_image, _reader.SectorSize());
    const u_int32_t size = layout.has_pointer_sectors ? sim::PS_RECORD_SIZE : sim::BOOT_RECORD_SIZE;
    for (const u_int32_t record : layout.records) Read(record, size);
    const sim::BootJudge judge(layout, _memory);
    for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
      if (judge.IsValid(slot)) finding.valid_slots.push_back(slot);
    }
  }

  /// Compares the image in one slot, or all sections.
  void Compare(std::optional<u_int32_t> slot, Finding& finding) {
    const auto places = Places(slot);
    for (const auto& [section, at] : places) {
      Read(at, static_cast<u_int32_t>(section->data.size()));
    }
    const DataVec expected = Expected(slot);
    for (const auto& [section, at] : places) {
      const auto size = static_cast<u_int32_t>(section->data.size());
      finding.compared += size;
      for (u_int32_t i = 0; i < size; ++i) {
        if (_memory[at + i] == expected[at + i]) continue;
        ++finding.different;
        if (finding.differences.size() >= MOST_DIFFERENCES) continue;
        finding.differences.push_back(
            {section->name, i, at + i, expected[at + i], _memory[at + i]});
      }
    }
  }

  /// Reads all of the memory and writes it to files, a chip each.
  void Save(const std::filesystem::path& folder) {
    Read(0, static_cast<u_int32_t>(_memory.size()));
    const std::string head = sim::HexGuid(_reader.Record(_guid).node_guid);
    const auto write = [&](const std::string& name, std::size_t start, std::size_t size) {
      std::ofstream file(folder / name, std::ios::binary);
      file.write(reinterpret_cast<const char*>(_memory.data() + start),
                 static_cast<std::streamsize>(size));
      file.close();
      if (!file) ThrowError("Can't write " + (folder / name).string());
    };
    if (_reader.FlashSize() != 0) {
      write(head + ".flash", 0, _memory.size());
      return;
    }
    std::size_t start = 0;
    for (const auto& [address, size] : Chips()) {
      write(Text(head, ".", std::hex, u_int32_t{address}, ".i2c"), start, size);
      start += size;
    }
  }

 private:
  const std::vector<EeLoc>& DeviceMap() const {
    return static_cast<const FwImage::Conv*>(const_cast<FwImage&>(_image).GetAddressConvertor())
        ->_devmap;
  }

  /// EEPROMs in the order of the linear address space, each {address, size}.
  std::vector<std::pair<u_int8_t, u_int32_t>> Chips() const {
    std::vector<std::pair<u_int8_t, u_int32_t>> chips;
    for (const EeLoc& mapped : DeviceMap()) chips.emplace_back(mapped.dev, mapped.offset);
    if (chips.empty()) chips.emplace_back(u_int8_t{0}, static_cast<u_int32_t>(_memory.size()));
    return chips;
  }

  std::size_t MemorySize() const {
    if (_reader.FlashSize() != 0) return _reader.FlashSize();
    std::size_t size = 0;
    for (const EeLoc& mapped : DeviceMap()) size += mapped.offset;
    if (!DeviceMap().empty()) return size;
    // Nothing tells how large the one EEPROM is: as large as the image needs it.
    std::vector<u_int32_t> addrs;
    _image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      size = std::max(size, addr + _image.GetSection(addr)->data.size());
    }
    if (HasSlots()) size = std::max(size, 2 * std::size_t{_image.GetImageAddr(1)});
    return size;
  }

  bool HasSlots() const { return _image.DevType() != RV61100; }

  void Read(u_int32_t start, u_int32_t size) {
    if (u_int64_t{start} + size > _memory.size()) {
      throw Failure{Finding::UNREADABLE, "the image reaches past the device's memory"};
    }
    for (u_int32_t done = 0; done < size;) {
      const u_int32_t at = start + done;
      const u_int32_t piece = std::min({size - done, READ_SIZE, LeftInChip(at)});
      _reader.Rom().Read(at, piece);
      const RomInterface::Result* result = _reader.Rom().LastActionResult(_guid);
      if (result == nullptr || result->_data.size() < piece) {
        throw Failure{Finding::UNREADABLE,
                      Text("read ", result == nullptr ? 0 : result->_data.size(), " bytes of ",
                           piece, " at address ", std::hex, at)};
      }
      std::copy_n(result->_data.begin(), piece, _memory.begin() + at);
      done += piece;
    }
  }

  u_int32_t LeftInChip(u_int32_t at) const {
    u_int32_t end = 0;
    for (const EeLoc& mapped : DeviceMap()) {
      end += mapped.offset;
      if (at < end) return end - at;
    }
    return READ_SIZE;
  }

  /// The sections that belong to a slot, each with the address where a burn puts it.
  std::vector<std::pair<const FwImage::Section*, u_int32_t>> Places(
      std::optional<u_int32_t> slot) const {
    std::vector<std::pair<const FwImage::Section*, u_int32_t>> places;
    std::vector<u_int32_t> all;
    _image.GetSectionsAddr(all);
    if (!slot) {
      for (const u_int32_t addr : all) places.emplace_back(_image.GetSection(addr), addr);
      return places;
    }
    if (_image.DevType() != RV61300) {
      for (const u_int32_t addr : all) {
        if (addr >= _reader.SectorSize()) break;
        places.emplace_back(_image.GetSection(addr), addr);
      }
      const u_int32_t record = _image.GetPsAddr(*slot);
      if (_image.GetSection(record) == nullptr) {
        throw Failure{Finding::UNREADABLE, "the image has no section at its pointer sector"};
      }
      places.emplace_back(_image.GetSection(record), record);
    }
    std::vector<u_int32_t> addrs;
    _image.GetImageSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      places.emplace_back(_image.GetSection(addr),
                          addr - _image.GetImageAddr(0) + _image.GetImageAddr(*slot));
    }
    return places;
  }

  /// The memory that a burn leaves, fields and CRCs of this device included: burnt into a simulated
  /// device that has the same.
  DataVec Expected(std::optional<u_int32_t> slot) {
    const RomInterface::DeviceData& record = _reader.Record(_guid);
    sim::Device twin;
    twin.node_guid = record.node_guid;
    twin.port_guids = record.port_guids;
    twin.sys_guid = record.sys_guid;
    twin.declared_ports = record.ports_num;
    if (Has(VSD) && slot) twin.vsd = Bytes(VSD, sim::VSD_SIZE);
    if (Has(BSN)) twin.bsn = Bytes(BSN, sim::BSN_SIZE);
    if (_reader.FlashSize() != 0) {
      twin.kind = sim::MemoryKind::FLASH;
      if (_reader.SectorSize() == 0 || _reader.FlashSize() % _reader.SectorSize() != 0) {
        throw Failure{Finding::UNREADABLE, "the flash has no sector size"};
      }
      twin.chips.try_emplace(
          u_int8_t{0},
          sim::Chip(std::make_unique<sim::Cells>(_reader.FlashSize()), _reader.SectorSize()));
    } else {
      for (const auto& [address, size] : Chips()) {
        twin.chips.try_emplace(address, sim::Chip(std::make_unique<sim::Cells>(size), 0));
      }
    }
    sim::Fabric fabric;
    const Guid guid = fabric.Add(std::move(twin)).node_guid;
    sim::BurnInto(fabric, guid, _image_file, {.slot = slot, .is_valid = true});
    DataVec expected = sim::LinearMemory(
        *fabric.Find(guid),
        *static_cast<const FwImage::Conv*>(const_cast<FwImage&>(_image).GetAddressConvertor()));
    expected.resize(_memory.size(), 0xFF);
    return expected;
  }

  bool Has(FieldType type) const {
    return std::ranges::any_of(_image.GetFieldsInRange(0, 0xFFFFFFFF),
                               [type](const auto& field) { return field.type == type; });
  }

  DataVec Bytes(FieldType type, std::size_t size) {
    DataVec bytes;
    _reader.Rom().GetField(_guid, type, bytes);
    if (bytes.size() != size) {
      throw Failure{Finding::UNREADABLE, Text("the device's ", type == VSD ? "VSD" : "BSN", " has ",
                                              bytes.size(), " bytes, the image needs ", size)};
    }
    return bytes;
  }

  const FwImage& _image;
  const std::string& _image_file;
  Reader& _reader;
  Guid _guid;
  DataVec _memory;  ///< linear; FF where it was not read
};

}  // namespace

const char* Name(Finding::State state) {
  switch (state) {
    case Finding::IDENTICAL:
      return "identical";
    case Finding::DIFFERENT:
      return "different";
    case Finding::UNREACHABLE:
      return "unreachable";
    case Finding::UNREADABLE:
      return "unreadable";
  }
  return "?";
}

Verifier::Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
                   const std::optional<std::string>& save)
    : _image_file(image_file), _server(server), _choice(choice), _save(save) {
  const sim::QuietConsole quiet;
  _image.Open(image_file.c_str(), READ);
  _warnings = quiet.Swallowed();
}

Finding Verifier::Verify(Guid guid) const {
  const sim::QuietConsole quiet;
  std::unique_ptr<Reader> reader;
  if (_image.DevType() == RV61100 || _image.DevType() == RV61300) {
    reader = std::make_unique<ReaderOf<RemoteI2cInterface>>();
  } else if (_image.DevType() != DEV_UNKNOWN) {
    reader = std::make_unique<ReaderOf<RemoteFlashInterface>>();
  } else {
    ThrowError("The image names no device type");
  }
  Finding finding;
  finding.guid = guid;
  bool is_open = false;
  try {
    RemoteRomInterface& rom = reader->Rom();
    rom.SetAddressConvertor(const_cast<FwImage&>(_image).GetAddressConvertor());
    rom.SetAccessDevices({guid});
    rom.Open(_server.c_str());
    is_open = true;

    Device device(_image, _image_file, *reader, guid);
    const bool has_slots = _image.DevType() != RV61100;
    if (has_slots) device.FindValidSlots(finding);
    if (_choice == SlotChoice::FIRST || _choice == SlotChoice::SECOND) {
      if (!has_slots) throw Failure{Finding::UNREADABLE, "its type has no image slots"};
      finding.slots = {_choice == SlotChoice::FIRST ? 0u : 1u};
    } else if (_choice == SlotChoice::AUTO && _image.DevType() == RV61300) {
      finding.slots = {0, 1};
    } else if (_choice == SlotChoice::AUTO) {
      finding.slots = finding.valid_slots;
    }
    const bool takes_all = _choice == SlotChoice::NONE || !has_slots;
    if (takes_all) device.Compare({}, finding);
    for (const u_int32_t slot : finding.slots) device.Compare(slot, finding);
    if (!takes_all && finding.slots.empty()) finding.reason = "no slot is marked valid";
    if (_save) device.Save(*_save);
    finding.state =
        finding.different == 0 && finding.reason.empty() ? Finding::IDENTICAL : Finding::DIFFERENT;
  } catch (const Failure& failure) {
    finding.state = failure.state;
    finding.reason = failure.reason;
  } catch (const BraidError& error) {
    const std::string reason = reader->Reason(guid);
    constexpr std::string_view NOT_THERE = "Device not accessible by server";
    if (!is_open && reason.empty()) throw;  // the server, and no fault of the device
    finding.reason = reason.empty() ? error.Des() : reason;
    finding.state = reason.starts_with(NOT_THERE) ? Finding::UNREACHABLE : Finding::UNREADABLE;
  }
  return finding;
}

}  // namespace tools
