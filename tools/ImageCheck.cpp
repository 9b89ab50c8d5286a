#include "ImageCheck.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <tuple>

#include "BurnAlgorithm.h"
#include "LocalRom.h"

namespace tools {

namespace {

constexpr u_int32_t WORD = 4;
constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;
constexpr u_int32_t MARKER_ADDR = 0x24;
constexpr u_int32_t RECORD_SIZE = 264;  ///< of a pointer sector
constexpr u_int32_t RECORD_CRC = 260;
constexpr u_int32_t RECORD_SIGNATURE = 8;
constexpr u_int32_t BOOT_RECORD = 16;
constexpr u_int32_t HELD_BACK = 4;    ///< of a boot record: written last, as the image has them
constexpr u_int32_t SPOILT_BYTE = 3;  ///< of them: raised while the slot is written
constexpr std::size_t MARK_BYTE = 7;  ///< 1 here makes the first record invalid

constexpr auto E = Severity::ERROR;
constexpr auto W = Severity::WARNING;
constexpr auto KINDS = std::to_array<ProblemKind>({
    // What the loader refuses, and what it takes without a word.
    {"refused", E, "fwpush refuses the file before it connects"},
    {"unknown-directive", W, "the line is ignored"},
    {"misspelt-directive", E, "the line is ignored, and what it asks for is not done"},
    {"version-words", W, "nothing: versions are not burnt"},
    {"stray-data", E, "the bytes are not burnt"},
    {"stray-end", W, "the line is ignored"},
    {"long-line", W, "the line is read as several, each on its own"},
    {"nul", E, "what follows on the line is not burnt"},
    {"data-cut", E, "only the low 8 bits of the word are burnt"},
    {"number-cut", E, "another address than the one written is used"},
    {"device-cut", E, "the section is burnt into another EEPROM than the one written"},
    {"start-not-read-whole", W, "the rest of the line is ignored"},
    {"section-not-closed", W,
     "the section goes on to the end of the file, whatever was lost there"},
    {"duplicate-section", E,
     "its bytes are burnt nowhere; the first section of that address is "
     "burnt twice"},
    {"section-empty", W, "nothing is burnt for it"},
    {"section-overlap", E, "the section burnt later overwrites the other's bytes"},
    {"no-sections", E, "nothing is burnt, and the burn succeeds"},
    {"slot-twice", W, "the last of them counts"},
    // Device type and map.
    {"no-device-type", E, "fwpush ends: device RV0 has no ROM interface"},
    {"unknown-device-type", E, "fwpush ends: device RV0 has no ROM interface"},
    {"device-type-twice", W, "the last of them counts"},
    {"device-type-late", E, "the field, which an RV61100 does not have, is asked for and written"},
    {"bsn-ignored", W, "the bytes are burnt as the image has them"},
    {"devmap-late", E, "the location means another place than the whole device map gives it"},
    {"devmap-twice", W,
     "its locations mean the first entry; the second is reached by linear "
     "address only"},
    {"devmap-empty", W, "nothing can be burnt into a device of no bytes"},
    {"devmap-wraps", E, "addresses wrap around: bytes go into the wrong device"},
    {"past-device", E, "the location lies in the next device of the map"},
    {"past-map", E, "the burn ends: no mapping for the address"},
    // Fields and CRCs.
    {"field-outside", E, "the device's own value is never written there"},
    {"field-crosses", E, "the burn ends when it comes to the section; devices are left half burnt"},
    {"field-overlap", E, "values are programmed over each other"},
    {"field-twice", W, "the value is written twice"},
    {"crc-outside", E, "the CRC is never computed"},
    {"crc-crosses", E, "the burn ends when it comes to the section; devices are left half burnt"},
    {"crc-place", E,
     "the CRC's place is not blanked before it is written: a flash keeps the AND "
     "of the old and the new bits"},
    {"crc-not-words", E, "fwpush aborts on an assertion in the middle of the burn"},
    {"crc-empty", W, "a CRC over no bytes is written"},
    {"crc-over-crc", E,
     "the CRC is computed with FF in the other's place, in whatever order they "
     "stand, and does not fit what is burnt"},
    {"crc-over-itself", W, "the CRC is computed with FF in its own place"},
    {"crc-stored", W, "the burn computes it anew, over bytes that may be damaged"},
    {"not-word-aligned", W, "memory is read and written in words of 4 bytes"},
    {"one-slot-only", E, "in the other slot the bytes are another device's values, or stale"},
    // Slots.
    {"slot-unset", E, "the failsafe burn ends before it writes"},
    {"slot-order", E,
     "the image has no bytes between its slots: the burn ends, or misjudges what "
     "fits"},
    {"no-first-section", E, "the failsafe burn ends before it writes"},
    {"slots-overlap", E, "burning one slot destroys what the other burns need"},
    {"image-section-outside", E,
     "it is burnt as a part of the image, moved along with it for the "
     "second slot"},
    {"section-not-burnt", W, "a failsafe burn leaves it out; a burn with -n writes it"},
    {"image-gaps", W,
     "a second image may lie in a gap and be overwritten while it is the only "
     "valid one"},
    // Pointer sectors and the invariant sector.
    {"ps-without-section", E, "the failsafe burn ends before it writes"},
    {"ps-short", E, "the record is not burnt whole: the slot does not boot"},
    {"ps-record", E, "the boot code looks for the image elsewhere"},
    {"ps-size", W, "moving the image copies another number of bytes than it has"},
    {"ps-crc", E, "the record keeps a CRC for another signature: the slot does not boot"},
    {"signature-place", E, "the boot code looks for the signature 8 bytes into the pointer sector"},
    {"signature-elsewhere", W,
     "a failsafe burn leaves FF there: only the slots' signatures are "
     "written"},
    {"signature-shipped", W, "after a burn with -n the slot counts as valid, and has no image"},
    {"invariant-not-first", E, "it is neither compared nor burnt by a failsafe burn"},
    {"marker-missing", E,
     "once the invariant sector is burnt, no failsafe burn accepts the device"},
    {"marker-blanked", E, "the marker is left blank: no failsafe burn accepts the device any more"},
    {"field-in-invariant", W,
     "the invariant sector always differs from the image: each burn "
     "rewrites it, which is not failsafe"},
    {"first-slot-place", W,
     "a second image in the way is moved to 3 sectors, not to where the "
     "first slot is"},
    {"erase-unaligned", E,
     "the burn ends when it comes to the section, whose start is no sector's"},
    {"erase-spoils", E,
     "erasing for the section destroys bytes that were burnt before, or that a "
     "valid image needs"},
    // Boot records.
    {"record-short", E, "the image does not begin with a whole boot record"},
    {"record-sum", E, "no slot becomes valid, and both are overwritten"},
    {"record-marked", E,
     "the first slot never becomes valid: while the second is written the "
     "device has none"},
    {"crc-over-spoilt", E, "the CRC is computed while the byte is spoilt, and stays wrong"},
    {"field-in-held-back", E,
     "the first 4 bytes are written last, as the image has them: the "
     "device's own value is lost"},
    {"field-in-record", E,
     "the sum of the record depends on the device's value: it is right by "
     "chance only"},
});

const ProblemKind& KindOf(std::string_view id) {
  const auto found = std::ranges::find(KINDS, id, &ProblemKind::id);
  ASSERT_ALWAYS(found != KINDS.end());
  return *found;
}

/// [from, end), in 64 bits so that nothing wraps.
struct Range {
  u_int64_t from;
  u_int64_t end;

  bool Overlaps(const Range& other) const {
    return std::max(from, other.from) < std::min(end, other.end);
  }
  bool Contains(const Range& other) const { return from <= other.from && other.end <= end; }
};

/// Bytes that a burn writes as one region.
struct Region : Range {
  const SectionView* section;
};

/// Regions that one burn writes one after the other.
using Sequence = std::vector<Region>;

std::string Name(const SectionView& section) { return "section " + Printable(section.name); }
std::string At(u_int64_t addr) { return "at " + HexText(addr); }
std::string Line(LineNumber line) { return "line " + std::to_string(line); }

class Checker {
 public:
  Checker(const ImageView& view, u_int32_t sector_size)
      : _view(view),
        _sector(sector_size),
        _family(view.DeviceFamily()),
        _has_slots(view.HasSlots()) {}

  std::vector<Problem> Run() {
    for (const Finding& finding : _view.Findings()) {
      Report(finding.kind, finding.line, finding.text);
    }
    // What the scan has no line for: the file's name, say.
    const bool is_told = std::ranges::any_of(
        _problems, [](const Problem& problem) { return problem.kind->id == "refused"; });
    if (!_view.Refusal().empty() && !is_told) Report("refused", 0, Printable(_view.Refusal()));

    CheckDeviceType();
    CheckMap();
    CheckSections();
    CheckSlots();
    FindRegions();
    CheckFields();
    CheckCrcs();
    CheckPlacesAgainstEachOther();
    CheckSlotsAgainstEachOther();
    if (_family == Family::POINTER_SECTORS) CheckPointerSectors();
    if (_family == Family::POINTER_SECTORS) CheckInvariantSector();
    if (_family == Family::BOOT_RECORDS) CheckBootRecord();
    if (IsFlash()) CheckErases();
    std::ranges::stable_sort(_problems, {}, &Problem::line);
    return std::move(_problems);
  }

 private:
  void Report(std::string_view kind, LineNumber line, std::string text) {
    const ProblemKind& row = KindOf(kind);
    if (!_told.emplace(line, row.id, text).second) return;
    _problems.push_back({line, &row, std::move(text)});
  }

  bool IsFlash() const { return _family == Family::POINTER_SECTORS; }

  static Range RangeOf(const SectionView& section) { return {section.addr, section.End()}; }
  static Range RangeOf(const FwImage::FieldReplace& field) {
    return {field.from, u_int64_t{field.from} + field.size};
  }
  static Range Covered(const CrcView& crc) { return {crc.from, crc.End()}; }
  static Range PlaceOf(const CrcView& crc) {
    return {crc.crc_addr, u_int64_t{crc.crc_addr} + WORD};
  }

  std::vector<const SectionView*> Kept() const {
    std::vector<const SectionView*> kept;
    for (const SectionView& section : _view.Sections()) {
      if (section.is_kept) kept.push_back(&section);
    }
    return kept;
  }

  void CheckDeviceType() {
    const LineNumber line = _view.DeviceTypeLine();
    if (line == 0) {
      Report("no-device-type", 0, "no DEVICE_TYPE");
    } else if (_family == Family::UNKNOWN) {
      Report("unknown-device-type", line,
             "unknown device type \"" + Printable(_view.DeviceTypeWord()) + "\"");
    }
    if (_view.Image().DevType() != RV61100) return;
    for (const FieldView& field : _view.Fields()) {
      if (field.type != BSN) continue;
      Report("device-type-late", field.line,
             "REPLACE BSN stands before DEVICE_TYPE RV61100 on " + Line(line));
    }
  }

  void CheckMap() {
    const auto& devices = _view.Devices();
    u_int64_t total = 0;
    std::map<u_int8_t, LineNumber> seen;
    for (const MappedDevice& device : devices) {
      const auto [first, is_new] = seen.try_emplace(device.dev, device.line);
      if (!is_new) {
        Report(
            "devmap-twice", device.line,
            "device " + HexText(device.dev) + " is mapped on " + Line(first->second) + " already");
      }
      if (device.size == 0) Report("devmap-empty", device.line, "the device has no bytes");
      if (total <= ADDRESS_SPACE && total + device.size > ADDRESS_SPACE) {
        Report("devmap-wraps", device.line, "the mapped devices have more than 4 GiB");
      }
      total += device.size;
    }
    for (const Location& location : _view.Locations()) {
      std::optional<u_int32_t> addr;
      try {
        addr = _view.Map().Convert(location.loc);
      } catch (const BraidError&) {
        if (!location.addr) continue;  // refused already
      }
      if (addr != location.addr) {
        Report("devmap-late", location.line,
               "the DEVMAP of device " + HexText(location.loc.dev) +
                   " stands after this location, which needs it");
      }
      const auto mapped = std::ranges::find(devices, location.loc.dev, &MappedDevice::dev);
      if (mapped != devices.end() && location.loc.offset >= mapped->size) {
        Report("past-device", location.line,
               "offset " + HexText(location.loc.offset) + " lies past the " +
                   HexText(mapped->size) + " bytes of device " + HexText(location.loc.dev));
      }
    }
    if (devices.empty()) return;
    for (const SectionView* section : Kept()) {
      if (section->End() > total) {
        Report("past-map", section->line,
               Name(*section) + " ends " + At(section->End()) + ", past the " + HexText(total) +
                   " bytes of the device map");
      }
    }
    if (!_has_slots) return;
    const u_int64_t end = _view.Slots()[1].image->addr + _view.ImageExtent();
    if (end > total) {
      Report("past-map", _view.Slots()[1].image->line,
             "the second slot's image ends " + At(end) + ", past the " + HexText(total) +
                 " bytes of the device map");
    }
  }

  void CheckSections() {
    const auto& sections = _view.Sections();
    if (sections.empty()) Report("no-sections", 0, "no section");
    for (const SectionView& section : sections) {
      if (!section.is_kept) {
        const SectionView* first = _view.SectionAt(section.addr);
        if (first != nullptr && first->line < section.line && !IsRefused(section.line)) {
          Report("duplicate-section", section.line,
                 Name(section) + " starts " + At(section.addr) + ", as " + Name(*first) + " of " +
                     Line(first->line) + " does");
        }
        continue;
      }
      if (section.size == 0 && section.is_whole) {
        Report("section-empty", section.line, Name(section) + " has no bytes");
      }
      CheckAligned(section.line, Name(section), section.addr);
    }
    std::vector<const SectionView*> kept = Kept();
    std::ranges::stable_sort(kept, {}, [](const SectionView* section) { return section->addr; });
    const SectionView* furthest = nullptr;
    for (const SectionView* section : kept) {
      if (furthest != nullptr && section->addr < furthest->End() && section->size > 0) {
        const SectionView& later = section->line > furthest->line ? *section : *furthest;
        const SectionView& other = section->line > furthest->line ? *furthest : *section;
        Report("section-overlap", later.line,
               Name(later) + " overlaps " + Name(other) + " of " + Line(other.line) + " from " +
                   HexText(section->addr) + " to " +
                   HexText(std::min(section->End(), furthest->End())));
      }
      if (furthest == nullptr || section->End() > furthest->End()) furthest = section;
    }
  }

  bool IsRefused(LineNumber line) const {
    return std::ranges::any_of(_problems, [line](const Problem& problem) {
      return problem.line == line && problem.kind->id == "refused";
    });
  }

  void CheckAligned(LineNumber line, const std::string& what, u_int32_t addr) {
    if (addr % WORD == 0) return;
    Report("not-word-aligned", line, what + " starts " + At(addr) + ", which is no word's address");
  }

  void CheckSlots() {
    if (_family != Family::POINTER_SECTORS && _family != Family::BOOT_RECORDS) return;
    const auto& slots = _view.Slots();
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      const auto need = [&](const std::optional<Place>& place, const char* directive) {
        if (!place) {
          Report("slot-unset", _view.DeviceTypeLine(),
                 Text("no ", directive, " ", idx, ", which this device type needs"));
        }
      };
      need(slots[idx].image, "IMAGE");
      if (_family == Family::BOOT_RECORDS) continue;
      need(slots[idx].ps, "PS");
      need(slots[idx].signature, "SIGNATURE");
    }
    if (!slots[0].image || !slots[1].image) return;
    const u_int32_t img0 = slots[0].image->addr;
    const u_int32_t img1 = slots[1].image->addr;
    if (img1 <= img0) {
      Report("slot-order", slots[1].image->line,
             "IMAGE 1 " + At(img1) + " does not lie behind IMAGE 0 " + At(img0));
    }
    const SectionView* first = _view.SectionAt(img0);
    if (first == nullptr) {
      Report("no-first-section", slots[0].image->line,
             "no section starts at IMAGE 0, " + HexText(img0));
    }
    CheckImageSections(img0, img1);
  }

  void CheckImageSections(u_int32_t img0, u_int32_t img1) {
    const auto sections = _view.ImageSections();
    u_int64_t bytes = 0;
    for (const SectionView* section : sections) {
      bytes += section->size;
      if (section->addr < img0 || section->addr >= std::max(img0, img1)) {
        Report("image-section-outside", section->line,
               Name(*section) + " " + At(section->addr) +
                   " stands after the first image section, " +
                   "but does not lie between the slots");
      } else if (section->End() > img1) {
        Report("slots-overlap", section->line,
               Name(*section) + " reaches to " + HexText(section->End()) +
                   ", into the second slot " + At(img1));
      }
    }
    if (_family == Family::POINTER_SECTORS && bytes < _view.ImageExtent()) {
      Report("image-gaps", sections.front()->line,
             Text("the image has ", bytes, " bytes on ", _view.ImageExtent()));
    }
  }

  /// What a failsafe burn and one with -n write, and in which order.
  void FindRegions() {
    Sequence all;
    for (const SectionView* section : Kept()) all.push_back({RangeOf(*section), section});
    if (_has_slots) {
      const auto image = _view.ImageSections();
      const u_int32_t base = image.front()->addr;
      if (_family == Family::POINTER_SECTORS) {
        Sequence invariant;
        for (const SectionView* section : Kept()) {
          if (section->addr >= _sector) break;
          invariant.push_back({RangeOf(*section), section});
        }
        _invariant = invariant;
        _sequences.push_back(std::move(invariant));
      }
      for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
        Sequence slot;
        for (const SectionView* section : image) {
          const u_int32_t to = _view.Slots()[idx].image->addr + (section->addr - base);
          slot.push_back({{to, u_int64_t{to} + section->size}, section});
        }
        _slot_images[idx] = slot;
        if (_family == Family::POINTER_SECTORS) {
          const SectionView* ps = _view.SectionAt(_view.Slots()[idx].ps->addr);
          if (ps != nullptr) slot.push_back({RangeOf(*ps), ps});
        }
        _sequences.push_back(std::move(slot));
      }
      CheckSequencesApart();
      for (const Region& region : all) {
        const bool is_burnt = std::ranges::any_of(_sequences, [&](const Sequence& sequence) {
          return std::ranges::any_of(
              sequence, [&](const Region& burnt) { return burnt.section == region.section; });
        });
        const bool is_misplaced = IsFlash() && region.from < _sector;  // has a kind of its own
        if (!is_burnt && !is_misplaced) {
          Report("section-not-burnt", region.section->line,
                 Name(*region.section) + " belongs to no slot");
        }
      }
    }
    for (const Sequence& sequence : _sequences) {
      _regions.insert(_regions.end(), sequence.begin(), sequence.end());
    }
    _regions.insert(_regions.end(), all.begin(), all.end());
    _sequences.push_back(std::move(all));  // -n
  }

  void CheckSequencesApart() {
    for (std::size_t i = 0; i < _sequences.size(); ++i) {
      for (std::size_t j = i + 1; j < _sequences.size(); ++j) {
        for (const Region& a : _sequences[i]) {
          for (const Region& b : _sequences[j]) {
            if (!a.Overlaps(b)) continue;
            Report("slots-overlap", b.section->line,
                   Name(*b.section) + ", burnt " + At(b.from) + " to " + HexText(b.end) +
                       ", overlaps " + Name(*a.section) + ", burnt " + At(a.from) + " to " +
                       HexText(a.end));
          }
        }
      }
    }
  }

  /// The regions whose burn handles what starts at `from`.
  std::vector<Region> RegionsOf(u_int32_t from) const {
    std::vector<Region> found;
    std::ranges::copy_if(_regions, std::back_inserter(found), [from](const Region& region) {
      return region.from <= from && from < region.end;
    });
    return found;
  }

  /// Whether all that could hold something is known.
  bool AllIsWhole() const { return std::ranges::all_of(_view.Sections(), &SectionView::is_whole); }

  void CheckFields() {
    for (const FieldView& field : _view.Fields()) {
      const std::string what = FieldKeyword(field.type) + " " + At(field.from);
      CheckAligned(field.line, FieldKeyword(field.type), field.from);
      const auto regions = RegionsOf(field.from);
      if (regions.empty() && AllIsWhole()) {
        Report("field-outside", field.line, what + " starts in no section that is burnt");
      }
      for (const Region& region : regions) {
        if (RangeOf(field).end <= region.end || !region.section->is_whole) continue;
        Report("field-crosses", field.line,
               what + " reaches past " + Name(*region.section) + ", which ends " + At(region.end));
      }
      if (field.type != SIGNATURE || _family != Family::POINTER_SECTORS) continue;
      const bool is_slots = std::ranges::any_of(_view.Slots(), [&](const SlotView& slot) {
        return slot.signature && slot.signature->addr == field.from;
      });
      if (!is_slots) {
        Report("signature-elsewhere", field.line, what + " is no slot's signature");
      }
    }
  }

  void CheckCrcs() {
    for (const CrcView& crc : _view.Crcs()) {
      const std::string what = "the CRC over " + HexText(crc.from);
      CheckAligned(crc.line, "the CRC's range", crc.from);
      CheckAligned(crc.line, "the CRC's place", crc.crc_addr);
      if (crc.size % WORD != 0) {
        Report("crc-not-words", crc.line,
               what + " covers " + HexText(crc.size) + " bytes, which are no whole words");
      }
      if (crc.size == 0) Report("crc-empty", crc.line, what + " covers no bytes");
      const auto regions = RegionsOf(crc.from);
      if (regions.empty() && AllIsWhole()) {
        Report("crc-outside", crc.line, what + " starts in no section that is burnt");
      }
      for (const Region& region : regions) {
        if (!region.section->is_whole) continue;
        if (crc.End() > region.end || PlaceOf(crc).end > region.end) {
          Report("crc-crosses", crc.line,
                 (crc.End() > region.end ? what + " to " + HexText(crc.End())
                                         : "the CRC's place " + At(crc.crc_addr)) +
                     " reaches past " + Name(*region.section) + ", which ends " + At(region.end));
        } else if (crc.crc_addr < region.from) {
          Report("crc-place", crc.line,
                 "the CRC's place " + At(crc.crc_addr) + " lies before " + Name(*region.section) +
                     ", which it covers");
        }
      }
      CheckStoredCrc(crc);
    }
  }

  /// A CRC that covers no device's own bytes must be right as it is shipped, unless it is blank.
  void CheckStoredCrc(const CrcView& crc) {
    if (crc.size % WORD != 0 || crc.size == 0) return;
    for (const FieldView& field : _view.Fields()) {
      if (field.type != SIGNATURE && RangeOf(field).Overlaps(Covered(crc))) return;
    }
    if (Covered(crc).Overlaps(PlaceOf(crc))) return;
    auto bytes = _view.Bytes(crc.from, crc.size);
    const auto stored = _view.Bytes(crc.crc_addr, WORD);
    if (!bytes || !stored) return;
    if (*stored == DataVec(WORD, 0xFF) || *stored == DataVec(WORD, 0)) return;
    const auto crc_of = [](const DataVec& data) {
      Crc16 sum(false);
      sum.add(data);
      sum.finish();
      DataVec word;
      word << u_int32_t{sum.get()};
      return word;
    };
    const DataVec shipped = crc_of(*bytes);
    // As a burn makes it: signatures set.
    const DataVec signature{0xCB, 0x84, 0xCB, 0x84};
    for (const FieldView& field : _view.Fields()) {
      if (!Covered(crc).Contains(RangeOf(field))) continue;
      std::ranges::copy(signature, bytes->begin() + (field.from - crc.from));
    }
    const DataVec burnt = crc_of(*bytes);
    if (*stored == shipped || *stored == burnt) return;
    const auto number = [](const DataVec& word) {
      return HexText(u_int32_t{word[0]} << 24 | u_int32_t{word[1]} << 16 | u_int32_t{word[2]} << 8 |
                     word[3]);
    };
    Report("crc-stored", crc.line,
           "the file has the CRC " + number(*stored) + " " + At(crc.crc_addr) +
               "; that of its bytes is " + number(shipped));
  }

  /// Fields and CRC words that lie on each other, and CRCs that cover CRC words.
  void CheckPlacesAgainstEachOther() {
    struct Written : Range {
      LineNumber line;
      std::string what;
      bool is_field;
      FieldType type;
    };
    std::vector<Written> places;
    for (const FieldView& field : _view.Fields()) {
      places.push_back({RangeOf(field), field.line, FieldKeyword(field.type), true, field.type});
    }
    for (const CrcView& crc : _view.Crcs()) {
      places.push_back({PlaceOf(crc), crc.line, "a CRC's place", false, UNKNOWN_FIELD});
    }
    std::ranges::stable_sort(places, {}, &Written::from);
    for (std::size_t i = 0; i < places.size(); ++i) {
      for (std::size_t j = i + 1; j < places.size() && places[j].from < places[i].end; ++j) {
        const bool in_order = places[i].line <= places[j].line;
        const Written& later = in_order ? places[j] : places[i];
        const Written& first = in_order ? places[i] : places[j];
        const bool is_same = first.is_field && later.is_field && first.type == later.type &&
                             first.from == later.from;
        Report(is_same ? "field-twice" : "field-overlap", later.line,
               later.what + " " + At(later.from) + " lies on " + first.what + " " + At(first.from) +
                   " of " + Line(first.line));
      }
    }
    for (const CrcView& crc : _view.Crcs()) {
      for (const CrcView& other : _view.Crcs()) {
        if (!Covered(crc).Overlaps(PlaceOf(other))) continue;
        if (&crc == &other) {
          Report("crc-over-itself", crc.line, "the CRC covers its own place");
        } else {
          Report("crc-over-crc", crc.line,
                 "the CRC over " + HexText(crc.from) + " to " + HexText(crc.End()) +
                     " covers the place " + At(other.crc_addr) + " of the CRC of " +
                     Line(other.line));
        }
      }
    }
  }

  /// What is marked in one slot must be marked in the other.
  void CheckSlotsAgainstEachOther() {
    if (!_has_slots) return;
    const u_int64_t extent = _view.ImageExtent();
    const auto& slots = _view.Slots();
    const bool has_ps = _family == Family::POINTER_SECTORS;
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      const u_int32_t other = 1 - idx;
      Compare(slots[idx].image->addr, slots[other].image->addr, extent, idx);
      if (!has_ps) continue;
      const SectionView* ps = _view.SectionAt(slots[idx].ps->addr);
      Compare(slots[idx].ps->addr, slots[other].ps->addr, ps == nullptr ? RECORD_SIZE : ps->size,
              idx);
    }
  }

  void Compare(u_int32_t base, u_int32_t other_base, u_int64_t extent, u_int32_t idx) {
    const Range slot{base, base + extent};
    const u_int32_t delta = other_base - base;
    const auto tell = [&](LineNumber line, const std::string& what, u_int32_t from) {
      Report("one-slot-only", line,
             Text(what, " ", At(from), " is marked in slot ", idx, " only, not ",
                  At(u_int32_t{from + delta}), " in slot ", 1 - idx));
    };
    for (const FieldView& field : _view.Fields()) {
      if (field.type == SIGNATURE || field.from < slot.from || field.from >= slot.end) continue;
      const bool is_twin = std::ranges::any_of(_view.Fields(), [&](const FieldView& twin) {
        return twin.type == field.type && twin.from == field.from + delta;
      });
      if (!is_twin) tell(field.line, FieldKeyword(field.type), field.from);
    }
    for (const CrcView& crc : _view.Crcs()) {
      if (crc.from < slot.from || crc.from >= slot.end) continue;
      const bool is_twin = std::ranges::any_of(_view.Crcs(), [&](const CrcView& twin) {
        return twin.from == crc.from + delta && twin.size == crc.size &&
               twin.crc_addr == crc.crc_addr + delta;
      });
      if (!is_twin) tell(crc.line, "the CRC", crc.from);
    }
  }

  u_int32_t WordAt(u_int64_t addr) const {
    const auto bytes = _view.Bytes(addr, WORD);
    if (!bytes) return 0;
    return u_int32_t{(*bytes)[0]} << 24 | u_int32_t{(*bytes)[1]} << 16 |
           u_int32_t{(*bytes)[2]} << 8 | (*bytes)[3];
  }

  void CheckPointerSectors() {
    constexpr u_int32_t VALID = 0xCB84CB84;
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      const SlotView& slot = _view.Slots()[idx];
      if (!slot.ps) continue;
      if (slot.signature && slot.signature->addr != slot.ps->addr + RECORD_SIGNATURE) {
        Report("signature-place", slot.signature->line,
               Text("SIGNATURE ", idx, " ", At(slot.signature->addr), " is not at PS ", idx,
                    " + 8, ", HexText(u_int64_t{slot.ps->addr} + RECORD_SIGNATURE)));
      }
      const SectionView* ps = _view.SectionAt(slot.ps->addr);
      if (ps == nullptr) {
        Report("ps-without-section", slot.ps->line,
               Text("no section starts at PS ", idx, ", ", HexText(slot.ps->addr)));
        continue;
      }
      if (!ps->is_whole) continue;
      if (ps->size < RECORD_SIZE) {
        Report("ps-short", ps->line,
               Text(Name(*ps), " has ", ps->size, " bytes, a pointer sector record ", RECORD_SIZE));
        continue;
      }
      CheckRecord(idx, slot, *ps);
      if (WordAt(u_int64_t{ps->addr} + RECORD_SIGNATURE) == VALID && slot.image &&
          !_view.Bytes(slot.image->addr, WORD)) {
        Report("signature-shipped", ps->line,
               Name(*ps) + " is shipped with a valid signature, but the file has no bytes " +
                   At(slot.image->addr));
      }
    }
  }

  void CheckRecord(u_int32_t idx, const SlotView& slot, const SectionView& ps) {
    const u_int32_t image_addr = WordAt(ps.addr);
    if (slot.image && image_addr != slot.image->addr) {
      Report("ps-record", ps.line,
             Text(Name(ps), " points to ", HexText(image_addr), "; IMAGE ", idx, " is ",
                  At(slot.image->addr)));
    }
    const u_int32_t size = WordAt(u_int64_t{ps.addr} + WORD);
    if (_has_slots && size != _view.ImageExtent()) {
      Report("ps-size", ps.line,
             Text(Name(ps), " gives the image ", HexText(size), " bytes; it has ",
                  HexText(_view.ImageExtent())));
    }
    const bool is_recomputed = std::ranges::any_of(_view.Crcs(), [&](const CrcView& crc) {
      return crc.from == ps.addr && crc.size == RECORD_CRC && crc.crc_addr == ps.addr + RECORD_CRC;
    });
    if (is_recomputed) return;
    // Not computed at the burn: it must fit the signature that the burn sets.
    auto record = _view.Bytes(ps.addr, RECORD_CRC);
    if (!record) return;
    const DataVec signature{0xCB, 0x84, 0xCB, 0x84};
    std::ranges::copy(signature, record->begin() + RECORD_SIGNATURE);
    Crc16 sum(false);
    sum.add(*record);
    sum.finish();
    if (WordAt(u_int64_t{ps.addr} + RECORD_CRC) != sum.get()) {
      Report("ps-crc", ps.line,
             "no CRC is marked over the record of " + Name(ps) +
                 ", and the one it has does not fit the record once it is signed");
    }
  }

  void CheckInvariantSector() {
    bool is_past = false;
    bool covers_marker = false;
    for (const SectionView* section : Kept()) {
      if (section->addr >= _sector) {
        is_past = true;
      } else if (is_past) {
        Report("invariant-not-first", section->line,
               Name(*section) + " " + At(section->addr) +
                   " lies in the invariant sector, but "
                   "stands behind a section that does not");
      }
      covers_marker |= RangeOf(*section).Contains({MARKER_ADDR, MARKER_ADDR + WORD});
    }
    constexpr u_int32_t MARKER = 0xCB84CB84;
    const auto first = _view.Bytes(MARKER_ADDR, WORD);
    if (covers_marker && first && WordAt(MARKER_ADDR) != MARKER) {
      const SectionView* section = SectionOver(MARKER_ADDR);
      Report("marker-missing", section->line,
             Name(*section) + " has no failsafe marker CB 84 CB 84 at 0x24");
    }
    const Range marker{MARKER_ADDR, MARKER_ADDR + WORD};
    const auto look = [&](LineNumber line, const std::string& what, const Range& range,
                          bool is_signature) {
      if (range.from >= _sector) return;
      if (range.Overlaps(marker)) {
        Report("marker-blanked", line,
               what + " " + At(range.from) + " lies on the failsafe marker at 0x24");
      } else if (!is_signature && SectionOver(range.from) != nullptr) {
        Report("field-in-invariant", line,
               what + " " + At(range.from) + " lies in the invariant sector");
      }
    };
    for (const FieldView& field : _view.Fields()) {
      look(field.line, FieldKeyword(field.type), RangeOf(field), false);
    }
    for (const CrcView& crc : _view.Crcs()) {
      // A CRC over bytes that are the same for all is as good as any other byte.
      const bool is_constant = std::ranges::none_of(_view.Fields(), [&](const FieldView& field) {
        return RangeOf(field).Overlaps(Covered(crc));
      });
      look(crc.line, "a CRC's place", PlaceOf(crc), is_constant);
    }
    const auto& image = _view.Slots()[0].image;
    if (image && image->addr != u_int64_t{3} * _sector) {
      Report("first-slot-place", image->line,
             "IMAGE 0 is " + At(image->addr) + ", not at 3 sectors, " +
                 HexText(u_int64_t{3} * _sector));
    }
  }

  const SectionView* SectionOver(u_int64_t addr) const {
    for (const SectionView* section : Kept()) {
      if (section->addr <= addr && addr < section->End()) return section;
    }
    return nullptr;
  }

  void CheckBootRecord() {
    if (!_has_slots) return;
    const auto sections = _view.ImageSections();
    const SectionView& first = *sections.front();
    if (!first.is_whole) return;
    const auto record = _view.Bytes(first.addr, BOOT_RECORD);
    if (first.size < HELD_BACK || !record) {
      Report("record-short", first.line,
             Text(Name(first), " has ", first.size, " bytes, a boot record ", BOOT_RECORD));
      return;
    }
    {
      const sim::QuietConsole quiet;
      if (!RV61300FailsafeBurn::VerifyPllBootRecordChecksum(*record, *record)) {
        const u_int32_t sum = std::accumulate(record->begin(), record->end(), u_int32_t{0}) % 256;
        Report("record-sum", first.line,
               "the boot record of " + Name(first) + " adds up to " + HexText(sum) + ", not 0xab");
      }
    }
    if ((*record)[MARK_BYTE] == 1) {
      Report("record-marked", first.line,
             "the boot record of " + Name(first) + " has 1 in byte 7, which marks it invalid");
    }
    for (const Sequence& slot : _slot_images) CheckRecordPlaces(slot.front().from);
  }

  void CheckRecordPlaces(u_int64_t base) {
    const Range spoilt{base + SPOILT_BYTE, base + SPOILT_BYTE + 1};
    const auto look = [&](LineNumber line, const std::string& what, const Range& range) {
      if (range.Overlaps({base, base + HELD_BACK})) {
        Report("field-in-held-back", line,
               what + " " + At(range.from) + " lies in the first 4 bytes of the slot " + At(base));
      } else if (range.Overlaps({base, base + BOOT_RECORD})) {
        Report("field-in-record", line,
               what + " " + At(range.from) + " lies in the boot record of the slot " + At(base));
      }
    };
    for (const FieldView& field : _view.Fields()) {
      look(field.line, FieldKeyword(field.type), RangeOf(field));
    }
    for (const CrcView& crc : _view.Crcs()) {
      look(crc.line, "a CRC's place", PlaceOf(crc));
      if (!Covered(crc).Overlaps(spoilt)) continue;
      Report("crc-over-spoilt", crc.line,
             "the CRC over " + HexText(crc.from) + " covers byte 3 of the slot " + At(base) +
                 ", which is spoilt while the slot is written");
    }
  }

  /// Follows the erases of each burn, sector by sector.
  void CheckErases() {
    for (std::size_t i = 0; i < _sequences.size(); ++i) {
      const bool is_failsafe = i + 1 < _sequences.size();
      CheckErasesOf(_sequences[i], is_failsafe);
    }
  }

  void CheckErasesOf(const Sequence& sequence, bool is_failsafe) {
    std::optional<u_int64_t> last;  // the sector that was erased last
    for (std::size_t i = 0; i < sequence.size(); ++i) {
      const Region& region = sequence[i];
      if (region.from == region.end) continue;
      const u_int64_t first_sector = region.from / _sector;
      const u_int64_t last_sector = (region.end - 1) / _sector;
      const bool goes_on = last == first_sector;
      last = last_sector;
      if (!goes_on && region.from % _sector != 0) {
        Report("erase-unaligned", region.section->line,
               Name(*region.section) + ", burnt " + At(region.from) + ", starts no sector of " +
                   HexText(_sector) + " bytes");
        continue;
      }
      const Range erased{(goes_on ? first_sector + 1 : first_sector) * _sector,
                         (last_sector + 1) * _sector};
      const auto spoils = [&](const Region& other) {
        if (other.section == region.section && other.from == region.from) return;
        if (!other.Overlaps(erased) || other.Overlaps(region)) return;  // that is told as overlap
        Report("erase-spoils", region.section->line,
               Name(*region.section) + ", burnt " + At(region.from) + ", shares a sector with " +
                   Name(*other.section) + " " + At(other.from));
      };
      for (std::size_t j = 0; j < i; ++j) spoils(sequence[j]);
      if (!is_failsafe) continue;
      for (const Sequence& other : _sequences) {
        if (&other == &sequence || &other == &_sequences.back()) continue;
        for (const Region& needed : other) spoils(needed);
      }
    }
  }

  const ImageView& _view;
  u_int32_t _sector;
  Family _family;
  bool _has_slots;
  Sequence _invariant;
  std::array<Sequence, FwImage::SLOTS> _slot_images;
  std::vector<Sequence> _sequences;  ///< of failsafe burns, and last that of one with -n
  std::vector<Region> _regions;
  std::vector<Problem> _problems;
  std::set<std::tuple<LineNumber, std::string_view, std::string>> _told;
};

}  // namespace

std::span<const ProblemKind> ProblemKinds() { return KINDS; }

std::vector<Problem> Check(const ImageView& view, u_int32_t sector_size) {
  return Checker(view, sector_size).Run();
}

}  // namespace tools
