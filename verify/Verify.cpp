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
#include "device/ImageFile.h"
#include "verify/Expectation.h"

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

/// A field or a CRC that an image marks: the field's type from 1, or 0 for a CRC; where it starts
/// in the slot; its size; where the CRC is stored, or 0.
using Mark = std::array<std::uint32_t, 4>;

/// The marks that lie in one slot.
std::multiset<Mark> MarksOf(const device::Image& image, std::uint32_t slot) {
  std::multiset<Mark> marks;
  const std::uint32_t start = image.slots[slot].image.value();
  for (const device::Section* section : image.SlotSections()) {
    const std::uint32_t at = section->addr - image.slots[0].image.value() + start;
    const device::Range range{at, static_cast<std::uint32_t>(section->data.size())};
    for (const device::Field& field : image.fields) {
      if (!range.Holds(field.addr, 1)) continue;
      const auto type = static_cast<std::uint32_t>(field.type) + 1;
      marks.insert({type, field.addr - start, field.Size(), 0});
    }
    for (const device::CrcField& crc : image.crcs) {
      if (range.Holds(crc.from, 1)) marks.insert({0, crc.from - start, crc.size, crc.addr - start});
    }
  }
  return marks;
}

/// Whether a failsafe burn finds all that it needs in the image.
bool CanBeBurntIntoSlots(const device::Image& image) {
  if (image.Slots() == device::SlotKind::NONE) return false;
  constexpr std::uint32_t ANY_SECTOR_SIZE = 1;  // that of the device counts when it is known
  try {
    device::Burn(image, device::BurnKind::FAILSAFE, device::Burn::FieldValues{})
        .CheckImage(ANY_SECTOR_SIZE);
    return true;
  } catch (const device::BurnError&) {
    return false;
  }
}

/// The image's device map, for the interface that reads.
class MapConvertor : public AddressConvertor {
 public:
  explicit MapConvertor(const device::Image& image) : _image(image) {}

  u_int32_t Convert(const EeLoc& loc) const override {
    const auto addr = _image.AddressOf({loc.dev, loc.offset});
    if (!addr) ThrowError("The device map lacks the chip");
    return *addr;
  }
  EeLoc Convert(u_int32_t addr) const override {
    const auto place = _image.PlaceOf(addr);
    if (!place) {
      ThrowError(Text("Addr2OffsetDev: No mapping for the given addr (", std::hex, addr, ")."));
    }
    return {place->offset, place->chip};
  }

 private:
  const device::Image& _image;
};

/// As the interface that reads has it.
FieldType InterfaceType(device::FieldType type) {
  switch (type) {
    case device::FieldType::SIGNATURE:
      return SIGNATURE;
    case device::FieldType::GUIDS:
      return GUIDS;
    case device::FieldType::GUID:
      return GUID;
    case device::FieldType::SYS_GUID:
      return SYS_GUID;
    case device::FieldType::BSN:
      return BSN;
    case device::FieldType::VSD:
      return VSD;
  }
  return UNKNOWN_FIELD;
}

/// One device, and what a burn would have made of it.
class Device {
 public:
  Device(const device::Image& image, Reader& reader, Guid guid)
      : _image(image),
        _reader(reader),
        _guid(guid),
        _is_flash(image.type->memory == device::MemoryKind::FLASH) {}

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
    std::vector<ComparedRegion> regions;
    for (const device::Section& section : _image.sections) Add(regions, section, section.addr);
    ReadInto(regions);
    Expected().PlainBurn(regions);
    Tell(regions, finding);
  }

  void CompareSlots(DeviceFinding& finding) {
    if (finding.slots.empty()) return;
    if (_image.Slots() == device::SlotKind::BOOT_RECORDS) {
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
    if (_is_flash || _image.map.empty()) {
      SaveChip(folder / (head + (_is_flash ? ".flash" : ".0.i2c")), 0, size);
      return;
    }
    u_int64_t start = 0;
    for (const device::MappedChip& mapped : _image.map) {
      SaveChip(folder / Text(head, ".", std::hex, u_int32_t{mapped.chip}, ".i2c"), start,
               mapped.size);
      start += mapped.size;
    }
  }

  Expectation Expected() {
    if (_is_flash && _reader.SectorSize() == 0) throw Unreadable{"the flash has no sector size"};
    return {_image, _reader.SectorSize(), [this](device::FieldType type) { return Field(type); }};
  }

  const DataVec& Field(device::FieldType type) {
    const auto [known, is_new] = _fields.try_emplace(type);
    DataVec& bytes = known->second;
    if (!is_new) return bytes;
    try {
      _reader.Rom().GetField(_guid, InterfaceType(type), bytes);
    } catch (const BraidError& error) {
      // These two are asked for; the others came with the device's record.
      if (type == device::FieldType::BSN || type == device::FieldType::VSD) throw;
      throw Unreadable{error.Des()};
    }
    const device::FieldRow& row = device::RowOf(type);
    if (bytes.size() != row.size) {
      throw Unreadable{Text("the device's ", row.keyword, " has ", bytes.size(),
                            " bytes, the image needs ", row.size)};
    }
    return bytes;
  }

  void CompareBootRecordSlots(DeviceFinding& finding) {
    std::vector<ComparedRegion> regions;
    for (const u_int32_t slot : finding.slots) AddImage(regions, slot);
    ReadInto(regions);
    Expected().BootRecordBurn(regions, 0);
    if (const std::size_t different = CountDifferences(regions); different > 0) {
      // Which slot came first depends on what was valid before the burn.
      std::vector<DataVec> expected;
      expected.reserve(regions.size());
      for (const ComparedRegion& region : regions) expected.push_back(region.expected);
      Expected().BootRecordBurn(regions, 1);
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
    const device::Burn burn(_image, device::BurnKind::FAILSAFE, device::Burn::FieldValues{});
    for (const std::size_t index : burn.InvariantSections(_reader.SectorSize())) {
      Add(invariant, _image.sections[index], _image.sections[index].addr);
    }
    ReadInto(invariant);
    const bool keeps_invariant = std::ranges::all_of(invariant, [](const ComparedRegion& region) {
      return region.found == region.section->data;
    });
    bool is_told = false;
    for (const u_int32_t slot : finding.slots) {
      std::vector<ComparedRegion> regions = invariant;
      const std::uint32_t pointer_sector = _image.slots[slot].pointer_sector.value();
      Add(regions, *_image.SectionAt(pointer_sector), pointer_sector);
      AddImage(regions, slot);
      const auto own = std::span(regions).subspan(invariant.size());
      ReadInto(own);
      Expected().PointerSectorBurn(regions, slot, keeps_invariant);
      Tell(is_told ? own : std::span(regions), finding);
      is_told = true;
    }
  }

  /// Adds a section; one that starts where another did is never burnt.
  static void Add(std::vector<ComparedRegion>& regions, const device::Section& section,
                  std::uint32_t destination) {
    const auto is_there = [&](const ComparedRegion& region) { return region.addr == destination; };
    if (std::ranges::any_of(regions, is_there)) return;
    regions.push_back({.section = &section, .addr = destination});
  }

  void AddImage(std::vector<ComparedRegion>& regions, std::uint32_t slot) const {
    const std::uint32_t distance = _image.slots[slot].image.value() - _image.slots[0].image.value();
    for (const device::Section* section : _image.SlotSections()) {
      Add(regions, *section, section->addr + distance);
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
    const auto mapped = _image.MappedSize();
    if (!mapped) return end;
    return std::min(end.value_or(*mapped), *mapped);
  }

  /// Bytes; as far as the image reaches where the end is not known.
  u_int64_t MemorySize() const {
    if (const auto end = KnownEnd()) return *end;
    std::vector<ComparedRegion> regions;
    for (const device::Section& section : _image.sections) Add(regions, section, section.addr);
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
    const std::uint64_t left = std::min<std::uint64_t>(_image.LeftInChip(at), READ_SIZE);
    return left == 0 ? READ_SIZE : static_cast<u_int32_t>(left);
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

  const device::Image& _image;
  Reader& _reader;
  Guid _guid;
  bool _is_flash;
  std::map<device::FieldType, DataVec> _fields;  ///< those asked for so far
  std::vector<u_int32_t> _valid;
  std::vector<u_int32_t> _marked;
};

/// Throws what the burner refuses, and keeps what it warns of.
class ImageWarnings : public device::ImageListener {
 public:
  void Refused(const device::Refusal& refusal) override { ThrowError(refusal.message); }
  void Remarked(const device::Remark& remark) override {
    if (remark.kind != device::RemarkKind::BSN_IGNORED) return;
    text += Text("-W- *** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE ",
                 device::FindDeviceType("RV61100")->number, " ***\n");
  }
  std::string text;
};

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
  try {
    ImageWarnings warnings;
    _image = device::ReadImageFile(image_file, warnings).image;
    _warnings = warnings.text;
  } catch (const device::ImageError& error) {
    ThrowError(error.what());
  }
  if (_image.type == nullptr) ThrowError("The image names no device type");
  _layout = device::LayoutOf(_image, 0);
  _has_slots = CanBeBurntIntoSlots(_image);
}

DeviceFinding Verifier::Verify(Guid guid) {
  const common::QuietConsole quiet;
  std::unique_ptr<Reader> reader;
  if (_image.type->memory == device::MemoryKind::FLASH) {
    reader = std::make_unique<ReaderOf<RemoteFlashInterface>>();
  } else {
    reader = std::make_unique<ReaderOf<RemoteI2cInterface>>();
  }
  MapConvertor convertor(_image);
  DeviceFinding finding;
  finding.guid = guid;
  const auto cannot_read = [&](const std::string& reason) {
    finding.state = DeviceFinding::UNREADABLE;
    finding.reason = reason;
  };
  try {
    RemoteRomInterface& rom = reader->Rom();
    rom.SetAddressConvertor(&convertor);
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
