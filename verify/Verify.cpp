#include "verify/Verify.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include "common/Files.h"
#include "common/QuietConsole.h"
#include "common/Text.h"
#include "sim/Family.h"
#include "src/RomInterface.h"
#include "verify/Prediction.h"

namespace tools {

namespace {

constexpr std::size_t MOST_DIFFERENCES = 10;
/// Bytes of one read: an answer's line has its limit, and so has the patience for one.
constexpr u_int32_t READ_SIZE = 64 * 1024;
constexpr u_int32_t CHUNK = 5;  // nothing is written

/// Why a device that answers cannot be judged.
struct Unreadable {
  std::string reason;
};

/// Why a device's memory cannot be kept. Says nothing of what was compared before.
struct SaveFailure {
  std::string reason;
};

/// As image files have it.
std::string_view Keyword(FieldType type) {
  for (const std::string_view keyword : {"SIGNATURE", "GUIDS", "GUID", "SYSGUID", "BSN", "VSD"}) {
    if (FwImage::Str2FieldType(std::string(keyword)) == type) return keyword;
  }
  return "?";
}

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
  /// Whether the server has told of the device.
  virtual bool Knows(Guid guid) const = 0;
  virtual Guid NodeGuid(Guid guid) const = 0;
  /// Why the device, or a request to it, failed; "" when none did.
  virtual std::string Reason(Guid guid) const = 0;
  virtual u_int32_t FlashSize() const = 0;   ///< 0 for a memory that is no flash
  virtual u_int32_t SectorSize() const = 0;  ///< likewise
};

template <typename Remote>
class ReaderOf : public Reader, private Remote {
 public:
  ReaderOf() : Remote(CHUNK) {}

  RemoteRomInterface& Rom() override { return *this; }
  bool Knows(Guid guid) const override { return this->_devs_data.contains(guid); }
  Guid NodeGuid(Guid guid) const override { return this->_devs_data.at(guid)->node_guid; }
  std::string Reason(Guid guid) const override {
    for (const Guid failed : {guid, Guid{0}}) {  // 0: all that the request named
      const auto found = this->_error_des.find(failed);
      if (found != this->_error_des.end()) return found->second;
    }
    return "";
  }
  u_int32_t FlashSize() const override {
    if constexpr (std::is_same_v<Remote, RemoteFlashInterface>) return this->_flash_size;
    return 0;
  }
  u_int32_t SectorSize() const override {
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

std::size_t CountDifferences(const ComparedRegion& region) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < region.expected.size(); ++i) {
    if (region.expected[i] != region.found[i]) ++count;
  }
  return count;
}

std::size_t CountDifferences(std::span<const ComparedRegion> regions) {
  std::size_t count = 0;
  for (const ComparedRegion& region : regions) count += CountDifferences(region);
  return count;
}

/// A field or a CRC that an image marks: the field's type, or 0 for a CRC; where it starts in the
/// slot; its size; where the CRC is stored, or 0.
using Mark = std::array<u_int32_t, 4>;

/// The marks that lie in one slot.
std::multiset<Mark> MarksOf(const FwImage& image, u_int32_t slot) {
  std::multiset<Mark> marks;
  std::vector<u_int32_t> addrs;
  image.GetImageSectionsAddr(addrs);
  const u_int32_t start = image.GetImageAddr(slot);
  for (const u_int32_t addr : addrs) {
    const u_int32_t at = addr - image.GetImageAddr(0) + start;
    const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
    for (const auto& field : image.GetFieldsInRange(at, size)) {
      marks.insert({field.type, field.from - start, field.size, 0});
    }
    for (const auto& crc : image.GetCrcsInRange(at, size)) {
      marks.insert({UNKNOWN_FIELD, crc.from - start, crc.size, crc.crc_addr - start});
    }
  }
  return marks;
}

/// Whether a failsafe burn finds all that it needs in the image.
bool CanBeBurntIntoSlots(const FwImage& image) {
  const sim::Family family = sim::FamilyOf(image.DevType());
  if (family != sim::Family::BOOT_RECORDS && family != sim::Family::POINTER_SECTORS) return false;
  try {
    std::vector<u_int32_t> addrs;
    image.GetImageSectionsAddr(addrs);
    if (addrs.empty()) return false;
    if (family == sim::Family::BOOT_RECORDS) {
      return image.GetSection(addrs.front())->data.size() >= sim::BOOT_RECORD_HELD_BACK;
    }
    for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
      image.GetSignatureAddr(slot);
      if (image.GetSection(image.GetPsAddr(slot)) == nullptr) return false;
    }
    return true;
  } catch (const BraidError&) {
    return false;  // an address that the image does not set
  }
}

/// One device, and what a burn would have made of it.
class Device {
 public:
  Device(FwImage& image, Reader& reader, Guid guid)
      : _image(image),
        _reader(reader),
        _guid(guid),
        _map(sim::MapOf(image)._devmap),
        _is_flash(sim::IsFlash(image.DevType())) {}

  /// Whether its slots boot, by records that lie where `layout` has them.
  void JudgeSlots(const device::BootLayout& layout) {
    const u_int32_t size = layout.RecordSize();
    for (u_int32_t slot = 0; slot < device::SLOTS; ++slot) {
      const u_int32_t addr = layout.records[slot];
      if (!Holds(addr, size)) continue;
      const DataVec record = Read(addr, size);
      const bool boots = device::RecordBoots(layout.kind, slot, record);
      if (boots) _valid.push_back(slot);
      const bool is_signed = layout.HasPointerSectors() && device::RecordIsSigned(record);
      if (boots || is_signed) _marked.push_back(slot);
    }
  }
  const std::vector<u_int32_t>& ValidSlots() const { return _valid; }
  /// Valid, or signed: a burn goes by the signature and takes them for valid.
  const std::vector<u_int32_t>& MarkedSlots() const { return _marked; }

  void CompareAll(DeviceFinding& finding) {
    std::vector<u_int32_t> addrs;
    _image.GetSectionsAddr(addrs);
    std::vector<ComparedRegion> regions;
    for (const u_int32_t addr : addrs) Add(regions, addr, addr);
    ReadInto(regions);
    Predict().GenericBurn(regions);
    Tell(regions, finding);
  }

  void CompareSlots(DeviceFinding& finding) {
    if (finding.slots.empty()) return;
    if (sim::FamilyOf(_image.DevType()) == sim::Family::BOOT_RECORDS) {
      CompareBootRecordSlots(finding);
    } else {
      ComparePointerSectorSlots(finding);
    }
  }

  /// Writes all of the memory to files, a chip each. Whatever fails throws SaveFailure: the bytes
  /// that nobody compares are no part of the verdict.
  void Save(const std::filesystem::path& folder) {
    const auto fail = [this](const std::string& reason) {
      throw SaveFailure{"can't save the memory of " + common::HexGuid(_guid) + ": " + reason};
    };
    try {
      SaveChips(folder);
    } catch (const Unreadable& failure) {
      fail(failure.reason);
    } catch (const BraidError& error) {
      const std::string reason = _reader.Reason(_guid);
      fail(reason.empty() ? error.Des() : reason);
    }
  }

 private:
  void SaveChips(const std::filesystem::path& folder) {
    const u_int64_t size = MemorySize();
    if (size > Verifier::MOST_SAVED) {
      throw SaveFailure{Text("the memory of ", common::HexGuid(_guid), " has ", size,
                             " bytes, and no more than ", Verifier::MOST_SAVED, " are saved")};
    }
    const std::string head = common::HexGuid(_reader.NodeGuid(_guid));
    if (_is_flash || _map.empty()) {
      SaveChip(folder / (head + (_is_flash ? ".flash" : ".0.i2c")), 0, size);
      return;
    }
    u_int64_t start = 0;
    for (const EeLoc& chip : _map) {
      SaveChip(folder / Text(head, ".", std::hex, u_int32_t{chip.dev}, ".i2c"), start, chip.offset);
      start += chip.offset;
    }
  }

  Predictor Predict() {
    if (_is_flash && _reader.SectorSize() == 0) throw Unreadable{"the flash has no sector size"};
    return {_image, _reader.SectorSize(), [this](FieldType type) { return Field(type); }};
  }

  const DataVec& Field(FieldType type) {
    const auto [known, is_new] = _fields.try_emplace(type);
    DataVec& bytes = known->second;
    if (!is_new) return bytes;
    try {
      _reader.Rom().GetField(_guid, type, bytes);
    } catch (const BraidError& error) {
      if (type == BSN || type == VSD) throw;  // which are asked for
      throw Unreadable{error.Des()};          // the others came with the device's record
    }
    const u_int32_t size = FwImage::ReplaceFieldSize(type);
    if (bytes.size() != size) {
      throw Unreadable{Text("the device's ", Keyword(type), " has ", bytes.size(),
                            " bytes, the image needs ", size)};
    }
    return bytes;
  }

  void CompareBootRecordSlots(DeviceFinding& finding) {
    std::vector<ComparedRegion> regions;
    for (const u_int32_t slot : finding.slots) AddImage(regions, slot);
    ReadInto(regions);
    Predict().BootRecordBurn(regions, 0);
    if (const std::size_t different = CountDifferences(regions); different > 0) {
      // Which slot came first depends on what was valid before the burn.
      std::vector<DataVec> expected;
      expected.reserve(regions.size());
      for (const ComparedRegion& region : regions) expected.push_back(region.expected);
      Predict().BootRecordBurn(regions, 1);
      if (different <= CountDifferences(regions)) {
        for (std::size_t i = 0; i < regions.size(); ++i) {
          regions[i].expected = std::move(expected[i]);
        }
      }
    }
    Tell(regions, finding);
    if (finding.different > 0 && MarksOf(_image, 0) != MarksOf(_image, 1)) {
      finding.reason =
          "the image marks fields or CRCs in one slot only: in the other one they hold what other "
          "devices of the same burn have left there";
    }
  }

  void ComparePointerSectorSlots(DeviceFinding& finding) {
    std::vector<ComparedRegion> invariant;
    std::vector<u_int32_t> addrs;
    _image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      if (addr >= _reader.SectorSize()) break;
      Add(invariant, addr, addr);
    }
    ReadInto(invariant);
    const bool keeps_invariant = std::ranges::all_of(invariant, [](const ComparedRegion& region) {
      return region.found == region.section->data;
    });
    bool is_told = false;
    for (const u_int32_t slot : finding.slots) {
      std::vector<ComparedRegion> regions = invariant;
      Add(regions, _image.GetPsAddr(slot), _image.GetPsAddr(slot));
      AddImage(regions, slot);
      const auto own = std::span(regions).subspan(invariant.size());
      ReadInto(own);
      Predict().PointerSectorBurn(regions, slot, keeps_invariant);
      Tell(is_told ? own : std::span(regions), finding);
      is_told = true;
    }
  }

  /// Adds a section; one that starts where another did is never burnt.
  void Add(std::vector<ComparedRegion>& regions, u_int32_t addr, u_int32_t destination) const {
    const auto is_there = [&](const ComparedRegion& region) { return region.addr == destination; };
    if (std::ranges::any_of(regions, is_there)) return;
    const FwImage::Section* section = _image.GetSection(addr);
    regions.push_back({section, destination, DataVec(section->data.size()), {}});
  }

  void AddImage(std::vector<ComparedRegion>& regions, u_int32_t slot) const {
    std::vector<u_int32_t> addrs;
    _image.GetImageSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      Add(regions, addr, addr - _image.GetImageAddr(0) + _image.GetImageAddr(slot));
    }
  }

  static void Tell(std::span<const ComparedRegion> regions, DeviceFinding& finding) {
    for (const ComparedRegion& region : regions) {
      finding.compared += region.expected.size();
      for (u_int32_t i = 0; i < region.expected.size(); ++i) {
        const u_int8_t expected = region.expected[i];
        const u_int8_t found = region.found[i];
        if (expected == found) continue;
        ++finding.different;
        if (finding.differences.size() >= MOST_DIFFERENCES) continue;
        finding.differences.push_back({region.section->name, i, region.addr + i, expected, found});
      }
    }
  }

  /// Where the memory is known to end; nothing is known of one EEPROM without a device map.
  std::optional<u_int64_t> KnownEnd() const {
    std::optional<u_int64_t> end;
    if (_is_flash && _reader.FlashSize() != 0) end = _reader.FlashSize();
    if (_map.empty()) return end;
    u_int64_t mapped = 0;
    for (const EeLoc& chip : _map) mapped += chip.offset;
    return std::min(end.value_or(mapped), mapped);
  }

  /// Bytes; as far as the image reaches where the end is not known.
  u_int64_t MemorySize() const {
    if (const auto end = KnownEnd()) return *end;
    std::vector<ComparedRegion> regions;
    std::vector<u_int32_t> addrs;
    _image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) Add(regions, addr, addr);
    if (CanBeBurntIntoSlots(_image)) AddImage(regions, 1);
    u_int64_t size = 0;
    for (const ComparedRegion& region : regions) size = std::max(size, region.End());
    return size;
  }

  bool Holds(u_int32_t start, u_int64_t size) const {
    return start + size <= KnownEnd().value_or(u_int64_t{1} << 32);
  }

  void ReadInto(std::span<ComparedRegion> regions) {
    for (ComparedRegion& region : regions) {
      region.found = Read(region.addr, static_cast<u_int32_t>(region.section->data.size()));
    }
  }

  DataVec Read(u_int32_t start, u_int32_t size) {
    DataVec bytes;
    bytes.reserve(size);
    ReadPieces(start, size, [&](std::span<const u_int8_t> piece) {
      bytes.insert(bytes.end(), piece.begin(), piece.end());
    });
    return bytes;
  }

  void ReadPieces(u_int32_t start, u_int32_t size,
                  const std::function<void(std::span<const u_int8_t>)>& take) {
    if (!Holds(start, size)) {
      throw Unreadable{"the image reaches past the device's memory"};
    }
    for (u_int32_t done = 0; done < size;) {
      const u_int32_t at = start + done;
      const u_int32_t piece = std::min({size - done, READ_SIZE, LeftInChip(at)});
      _reader.Rom().Read(at, piece);
      const RomInterface::Result* result = _reader.Rom().LastActionResult(_guid);
      if (result == nullptr || result->_data.size() < piece) {
        throw Unreadable{Text("read ", result == nullptr ? 0 : result->_data.size(), " bytes of ",
                              piece, " at address ", std::hex, at)};
      }
      take(std::span(result->_data).first(piece));  // answers come in whole words
      done += piece;
    }
  }

  u_int32_t LeftInChip(u_int32_t at) const {
    u_int64_t end = 0;
    for (const EeLoc& chip : _map) {
      end += chip.offset;
      if (at < end) return static_cast<u_int32_t>(std::min<u_int64_t>(end - at, READ_SIZE));
    }
    return READ_SIZE;
  }

  void SaveChip(const std::filesystem::path& path, u_int64_t start, u_int64_t size) {
    const auto keep = [](const auto& action) {
      try {
        action();
      } catch (const std::runtime_error& error) {
        throw SaveFailure{error.what()};
      }
    };
    std::optional<common::NewFile> file;
    keep([&] { file.emplace(path); });
    ReadPieces(
        static_cast<u_int32_t>(start), static_cast<u_int32_t>(size),
        [&](std::span<const u_int8_t> piece) {
          keep([&] { file->Write({reinterpret_cast<const char*>(piece.data()), piece.size()}); });
        });
    keep([&] { file->Keep(); });
  }

  FwImage& _image;
  Reader& _reader;
  Guid _guid;
  const std::vector<EeLoc>& _map;  ///< each {size, address}
  bool _is_flash;
  std::map<FieldType, DataVec> _fields;  ///< those asked for so far
  std::vector<u_int32_t> _valid;
  std::vector<u_int32_t> _marked;
};

/// Nothing where it places no slots.
std::optional<device::BootLayout> LayoutOf(const FwImage& image) {
  device::BootLayout layout;
  const sim::Family family = sim::FamilyOf(image.DevType());
  const bool has_pointer_sectors = family == sim::Family::POINTER_SECTORS;
  if (!has_pointer_sectors && family != sim::Family::BOOT_RECORDS) return std::nullopt;
  layout.kind =
      has_pointer_sectors ? device::SlotKind::POINTER_SECTORS : device::SlotKind::BOOT_RECORDS;
  try {
    for (u_int32_t slot = 0; slot < device::SLOTS; ++slot) {
      layout.records[slot] = has_pointer_sectors ? image.GetPsAddr(slot) : image.GetImageAddr(slot);
    }
  } catch (const BraidError&) {
    return std::nullopt;
  }
  return layout;
}

}  // namespace

const char* Name(DeviceFinding::State state) {
  switch (state) {
    case DeviceFinding::IDENTICAL:
      return "identical";
    case DeviceFinding::DIFFERENT:
      return "different";
    case DeviceFinding::UNREACHABLE:
      return "unreachable";
    case DeviceFinding::UNREADABLE:
      return "unreadable";
  }
  return "?";
}

void CheckServerForm(const std::string& server) {
  // The interface looks at the form before it connects, which this one does not.
  struct Unconnected : RemoteI2cInterface {
    Unconnected() : RemoteI2cInterface(CHUNK) {}
    BraidResult Connect() override { return BRAID_ERROR; }
  };
  Unconnected().Open(server.c_str());
}

Verifier::Verifier(const std::string& image_file, const std::string& server, SlotChoice choice,
                   const std::optional<std::string>& save)
    : _server(server), _choice(choice), _save(save) {
  const common::QuietConsole quiet;
  _image.Open(image_file.c_str(), READ);
  _warnings = quiet.Swallowed();
  if (sim::FamilyOf(_image.DevType()) == sim::Family::UNKNOWN) {
    ThrowError("The image names no device type");
  }
  _layout = LayoutOf(_image);
  _has_slots = CanBeBurntIntoSlots(_image);
}

DeviceFinding Verifier::Verify(Guid guid) {
  const common::QuietConsole quiet;
  std::unique_ptr<Reader> reader;
  if (sim::IsFlash(_image.DevType())) {
    reader = std::make_unique<ReaderOf<RemoteFlashInterface>>();
  } else {
    reader = std::make_unique<ReaderOf<RemoteI2cInterface>>();
  }
  DeviceFinding finding;
  finding.guid = guid;
  const auto cannot_read = [&](const std::string& reason) {
    finding.state = DeviceFinding::UNREADABLE;
    finding.reason = reason;
  };
  try {
    RemoteRomInterface& rom = reader->Rom();
    rom.SetAddressConvertor(_image.GetAddressConvertor());
    rom.SetAccessDevices({guid});
    rom.Open(_server.c_str());

    Device device(_image, *reader, guid);
    if (_layout) {
      device.JudgeSlots(*_layout);
      finding.knows_slots = true;
      finding.valid_slots = device.ValidSlots();
    }
    const bool takes_all = _choice == SlotChoice::NONE || !_has_slots;
    if (takes_all) {
      device.CompareAll(finding);
    } else {
      if (_choice != SlotChoice::AUTO) {
        finding.slots = {_choice == SlotChoice::FIRST ? 0u : 1u};
      } else if (_layout->HasPointerSectors()) {
        finding.slots = device.MarkedSlots();
      } else {
        finding.slots = {0, 1};
      }
      device.CompareSlots(finding);
    }
    if (_choice != SlotChoice::NONE && _layout && finding.valid_slots.empty()) {
      finding.reason =
          "no slot is marked valid" + (finding.reason.empty() ? "" : "; " + finding.reason);
    }
    finding.state = finding.different == 0 && finding.reason.empty() ? DeviceFinding::IDENTICAL
                                                                     : DeviceFinding::DIFFERENT;
    if (_save) device.Save(*_save);
  } catch (const SaveFailure& failure) {
    finding.failure = failure.reason;
  } catch (const Unreadable& failure) {
    cannot_read(failure.reason);
  } catch (const CannotPredict& failure) {
    cannot_read("cannot predict: " + failure.reason);
  } catch (const BraidError& error) {
    const std::string reason = reader->Reason(guid);
    cannot_read(reason.empty() ? error.Des() : reason);
    if (!reader->Knows(guid)) finding.state = DeviceFinding::UNREACHABLE;
    if (reason.empty()) finding.failure = error.Des();
  }
  return finding;
}

}  // namespace tools
