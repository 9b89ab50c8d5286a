#include "ImageMaker.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>
#include <numeric>
#include <set>
#include <span>
#include <sstream>
#include <utility>

#include "BurnAlgorithm.h"
#include "Files.h"
#include "utils.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr u_int32_t CRC_SIZE = 4;
constexpr u_int32_t BOOT_RECORD_SIZE = 16;
constexpr u_int8_t BOOT_RECORD_SUM = 0xAB;  ///< of all its bytes, modulo 256
constexpr std::size_t LONGEST_NAME = 64;
constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;

/// Addresses [from, to).
struct Span {
  u_int64_t from;
  u_int64_t to;

  bool Holds(u_int64_t addr) const { return from <= addr && addr < to; }
  bool Holds(const Span& other) const { return from <= other.from && other.to <= to; }
  bool Meets(const Span& other) const { return from < other.to && other.from < to; }
};

Span SpanOf(const Layout::Section& section) {
  return {section.addr, section.addr + u_int64_t{section.data.size()}};
}
Span SpanOf(const Layout::Field& field) {
  return {field.place.from, field.place.from + u_int64_t{field.place.size}};
}
Span Covered(const Layout::Crc& crc) {
  return {crc.place.from, crc.place.from + u_int64_t{crc.place.size}};
}
Span WordOf(const Layout::Crc& crc) {
  return {crc.place.crc_addr, crc.place.crc_addr + u_int64_t{CRC_SIZE}};
}

/// The rules of CheckLayout, one by one.
class Checker {
 public:
  explicit Checker(const Layout& layout) : _layout(layout) {
    const std::vector<EeLoc>& devmap = layout.conv._devmap;
    if (devmap.empty()) return;
    _end = 0;
    for (const EeLoc& dev : devmap) _end += dev.offset;
  }

  void Check() {
    for (const Layout::Section& section : _layout.sections) CheckSection(section);
    CheckOverlaps();
    for (u_int32_t i = 0; i < FwImage::SLOTS; ++i) CheckSlot(i);
    FindRegions();
    for (const Layout::Field& field : _layout.fields) CheckField(field);
    for (const Layout::Crc& crc : _layout.crcs) CheckCrc(crc);
    CheckUniqueBytes();
    for (const Layout::Section& section : _layout.sections) {
      if (section.has_boot_record) CheckBootRecord(section);
    }
  }

 private:
  /// Bytes that a burn writes as one: a section where it stands, or where the second slot has it.
  struct Region {
    Span span;
    const Layout::Section* section;
  };
  /// Bytes that a burn writes by themselves.
  struct Place {
    Span span;
    std::string what;
    u_int32_t line;
  };

  void CheckSection(const Layout::Section& section) {
    const auto is_good = [](unsigned char c) {
      return (std::isalnum(c) != 0 && c < 0x80) || c == '_' || c == '.' || c == '-';
    };
    const std::string& name = section.name;
    if (name.empty() || name.size() > LONGEST_NAME || !std::ranges::all_of(name, is_good)) {
      _layout.Throw(section.line, Text("a section's name is 1 to ", LONGEST_NAME,
                                       " letters, digits, '_', '.' and '-'"));
    }
    if (!_names.insert(name).second) {
      _layout.Throw(section.line, "there are two sections " + name);
    }
    if (section.data.empty()) _layout.Throw(section.line, "the section " + name + " has no bytes");
    if (section.data.size() % 4 != 0) {
      _layout.Throw(section.line,
                    Text("the section ", name, " has ", section.data.size(),
                         " bytes, not whole words of 4; 'pad' fills the last one up"));
    }
    if (SpanOf(section).to > _end) {
      _layout.Throw(section.line, Text("the section ", name, " reaches past the last ",
                                       _layout.conv._devmap.empty() ? "address" : "device"));
    }
  }

  void CheckOverlaps() const {
    std::vector<const Layout::Section*> sections;
    for (const Layout::Section& section : _layout.sections) sections.push_back(&section);
    std::ranges::sort(sections, {}, &Layout::Section::addr);
    for (std::size_t i = 1; i < sections.size(); ++i) {
      const auto [first, second] =
          std::minmax(sections[i - 1], sections[i],
                      [](const auto* a, const auto* b) { return a->line < b->line; });
      if (!SpanOf(*first).Meets(SpanOf(*second))) continue;
      _layout.Throw(second->line,
                    "the section " + second->name + " overlaps the section " + first->name);
    }
  }

  const Layout::Section* SectionAt(u_int32_t addr) const {
    const auto section = std::ranges::find(_layout.sections, addr, &Layout::Section::addr);
    return section == _layout.sections.end() ? nullptr : &*section;
  }

  void CheckSlot(u_int32_t idx) const {
    const Layout::Slot& slot = _layout.slots[idx];
    const auto refuse = [&](const std::string& text) {
      _layout.Throw(slot.line, Text("slot ", idx, ": ", text));
    };
    // A burn looks for the section of a pointer sector, and for the first of the image, by their
    // addresses.
    if (slot.ps && SectionAt(*slot.ps) == nullptr) {
      refuse("no section begins at " + _layout.Where(*slot.ps) + ", its pointer sector");
    }
    if (slot.signature) {
      const Span word{*slot.signature, u_int64_t{*slot.signature} + 4};
      if (std::ranges::none_of(_layout.sections,
                               [&](const auto& section) { return SpanOf(section).Holds(word); })) {
        refuse("its signature lies in no section");
      }
    }
    if (!slot.image) return;
    if (idx == 0 && SectionAt(*slot.image) == nullptr) {
      refuse("no section begins at " + _layout.Where(*slot.image) + ", its image");
    }
    if (idx == 1 && (!_layout.slots[0].image || *slot.image <= *_layout.slots[0].image)) {
      refuse("its image must lie above the one of slot 0");
    }
  }

  /// Where a burn writes what: it takes the sections from the first slot's image on, in file order,
  /// for the image, and puts them into either slot.
  void FindRegions() {
    for (const Layout::Section& section : _layout.sections) {
      _regions.push_back({SpanOf(section), &section});
    }
    const auto [image0, image1] = std::pair(_layout.slots[0].image, _layout.slots[1].image);
    if (!image0 || !image1) return;
    const Span slot0{*image0, *image1};
    const u_int64_t distance = *image1 - *image0;
    auto section = std::ranges::find(_layout.sections, *image0, &Layout::Section::addr);
    for (; section != _layout.sections.end() && section->addr != *image1; ++section) {
      const Span span = SpanOf(*section);
      if (!slot0.Holds(span)) {
        _layout.Throw(section->line,
                      "the section " + section->name +
                          (slot0.Holds(section->addr)
                               ? " reaches into the second slot"
                               : " would be burnt as a part of the image, but does not lie in the "
                                 "first slot; sections that are no part of it come before it"));
      }
      if (span.to + distance > _end) {
        _layout.Throw(section->line,
                      "the section " + section->name + " does not fit into the second slot");
      }
      _regions.push_back({{span.from + distance, span.to + distance}, &*section});
    }
  }

  /// Refuses a place that a burn would not find, or would find to cross a region.
  void CheckPlace(const Span& span, const std::string& what, u_int32_t line) const {
    bool is_inside = false;
    for (const Region& region : _regions) {
      if (!region.span.Holds(span.from)) continue;
      is_inside = true;
      if (!region.span.Holds(span)) {
        _layout.Throw(line, what + " reaches past the section " + region.section->name);
      }
    }
    if (!is_inside) _layout.Throw(line, what + " lies in no section");
  }

  std::string Name(const Layout::Field& field) const {
    return "the field " + field.keyword + " at " + _layout.Where(field.place.from);
  }
  std::string Name(const Layout::Crc& crc) const {
    return "the CRC at " + _layout.Where(crc.place.crc_addr);
  }

  void CheckField(const Layout::Field& field) const {
    if (field.place.type == BSN && FwImage::Str2DeviceType(_layout.device_type) == RV61100) {
      _layout.Throw(field.line, "the field BSN is ignored for an RV61100");
    }
    CheckPlace(SpanOf(field), Name(field), field.line);
  }

  void CheckCrc(const Layout::Crc& crc) const {
    const Span covered = Covered(crc);
    const Span word = WordOf(crc);
    CheckPlace(covered, "what is covered by " + Name(crc), crc.line);
    CheckPlace(word, Name(crc), crc.line);
    for (const Region& region : _regions) {
      if (region.span.Holds(covered) && !region.span.Holds(word)) {
        _layout.Throw(crc.line, Name(crc) + " does not lie in the section that it covers");
      }
    }
    // A burn computes CRCs over places of CRCs that are still blank.
    for (const Layout::Crc& other : _layout.crcs) {
      if (!covered.Meets(WordOf(other))) continue;
      _layout.Throw(crc.line, Name(crc) + (&other == &crc ? " covers itself"
                                                          : " covers another, " + Name(other)));
    }
    if (FwImage::Str2DeviceType(_layout.device_type) != RV61300) return;
    for (const Layout::Slot& slot : _layout.slots) {
      if (slot.image && covered.Meets({*slot.image, u_int64_t{*slot.image} + 4})) {
        _layout.Throw(crc.line, Name(crc) +
                                    " covers the first word of a boot record, which a "
                                    "failsafe burn holds back");
      }
    }
  }

  /// All that a burn writes by itself must have its own bytes: a flash cannot be written twice.
  void CheckUniqueBytes() const {
    std::vector<Place> places;
    for (u_int32_t i = 0; i < FwImage::SLOTS; ++i) {
      const Layout::Slot& slot = _layout.slots[i];
      if (!slot.signature) continue;
      places.push_back({{*slot.signature, u_int64_t{*slot.signature} + 4},
                        Text("the signature of slot ", i),
                        slot.line});
    }
    for (const Layout::Field& field : _layout.fields) {
      places.push_back({SpanOf(field), Name(field), field.line});
    }
    for (const Layout::Crc& crc : _layout.crcs) {
      places.push_back({WordOf(crc), Name(crc), crc.line});
    }
    std::ranges::sort(places, {}, [](const Place& place) { return place.span.from; });
    for (std::size_t i = 1; i < places.size(); ++i) {
      const Place& low = places[i - 1];
      const Place& high = places[i];
      if (!low.span.Meets(high.span)) continue;
      _layout.Throw(std::max(low.line, high.line), low.what + " overlaps " + high.what);
    }
    for (const Region& region : _regions) {
      if (!region.section->has_boot_record) continue;
      const Span record{region.span.from, region.span.from + BOOT_RECORD_SIZE};
      for (const Place& place : places) {
        if (!place.span.Meets(record)) continue;
        _layout.Throw(place.line,
                      place.what + " overlaps the boot record of " + region.section->name);
      }
    }
  }

  void CheckBootRecord(const Layout::Section& section) const {
    if (section.data.size() < BOOT_RECORD_SIZE) {
      _layout.Throw(section.line,
                    Text("a boot record has ", BOOT_RECORD_SIZE, " bytes, the section ",
                         section.name, " only ", section.data.size()));
    }
    if (section.data[7] == 1) {
      _layout.Throw(section.line, "a boot record with 1 in byte 7 is not valid in the first slot");
    }
  }

  const Layout& _layout;
  u_int64_t _end = ADDRESS_SPACE;  ///< of all devices
  std::set<std::string> _names;
  std::vector<Region> _regions;
};

/// The text of an image file.
class ImageText {
 public:
  explicit ImageText(const Layout& layout) : _layout(layout) {
    Title();
    Directives();
    for (const Layout::Section& section : _layout.sections) Section(section);
  }

  const std::string& Get() const { return _text; }

 private:
  void Title() {
    std::istringstream lines(_layout.title);
    for (std::string line; std::getline(lines, line);) _text += "# " + line + "\n";
    _text += "# All numbers are hexadecimal.\n\n";
  }

  void Directives() {
    if (!_layout.device_type.empty()) _text += "DEVICE_TYPE " + _layout.device_type + "\n";
    if (_layout.version) {
      const Layout::Version& version = *_layout.version;
      _text += Text(std::hex, std::uppercase, "MAJ_FW_VER ", version.major_number, "\nMIN_FW_VER ",
                    version.minor_number, "\nSUB_MIN_FW_VER ", version.sub_minor_number, "\n");
    }
    for (const EeLoc& dev : _layout.conv._devmap) {
      _text += Text("DEVMAP ", std::hex, std::uppercase, dev.offset, " ", u_int32_t{dev.dev}, "\n");
    }
    for (u_int32_t i = 0; i < FwImage::SLOTS; ++i) {
      const Layout::Slot& slot = _layout.slots[i];
      const auto place = [&](const char* directive, const std::optional<u_int32_t>& addr) {
        if (addr) _text += Text(directive, " ", i, Location(*addr), "\n");
      };
      place("PS", slot.ps);
      place("SIGNATURE", slot.signature);
      place("IMAGE", slot.image);
    }
    for (const Layout::Field& field : _layout.fields) {
      _text += "REPLACE " + field.keyword + Location(field.place.from) + "\n";
    }
    for (const Layout::Crc& crc : _layout.crcs) {
      // The second location is the last word covered.
      _text += "REPLACE CRC" + Location(crc.place.from) +
               Location(crc.place.from + crc.place.size - 4) + Location(crc.place.crc_addr) + "\n";
    }
  }

  void Section(const Layout::Section& section) {
    constexpr std::size_t LINE = 16;
    constexpr char DIGITS[] = "0123456789ABCDEF";
    _text += Text("\n# ", section.name, ": ", section.data.size(), " bytes\nSTART ", section.name,
                  Location(section.addr), "\n");
    for (std::size_t i = 0; i < section.data.size(); ++i) {
      _text += DIGITS[section.data[i] >> 4];
      _text += DIGITS[section.data[i] & 0xF];
      _text += i % LINE == LINE - 1 || i + 1 == section.data.size() ? '\n' : ' ';
    }
    _text += "END " + section.name + "\n";
  }

  std::string Location(u_int32_t addr) const {
    const EeLoc loc = _layout.conv.Convert(addr);
    return Text(std::hex, std::uppercase, " ", loc.offset, " ", u_int32_t{loc.dev});
  }

  const Layout& _layout;
  std::string _text;
};

/// Bytes from `addr` to the end of the address space, as far as 32 bits can tell.
u_int32_t Above(u_int32_t addr) { return addr == 0 ? 0xFFFFFFFF : 0 - addr; }

/// Whether a loaded image is what the layout says.
bool Matches(const FwImage& image, const Layout& layout) {
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  if (image.DevType() != FwImage::Str2DeviceType(layout.device_type)) return false;
  if (!std::ranges::equal(addrs, layout.sections, {}, {}, &Layout::Section::addr)) return false;
  for (const Layout::Section& section : layout.sections) {
    const FwImage::Section& loaded = *image.GetSection(section.addr);
    if (loaded.name != section.name || loaded.data != section.data) return false;
  }
  // Ranges of 32 bits cannot be the whole address space: each is asked for from its own place on.
  for (const Layout::Field& field : layout.fields) {
    const auto same = [&](const auto& loaded) { return loaded.type == field.place.type; };
    const auto fields = image.GetFieldsInRange(field.place.from, field.place.size);
    if (std::ranges::count_if(fields, same) != 1) return false;
  }
  for (const Layout::Crc& crc : layout.crcs) {
    const auto same = [&](const FwImage::CrcReplace& loaded) {
      return loaded.from == crc.place.from && loaded.size == crc.place.size &&
             loaded.crc_addr == crc.place.crc_addr;
    };
    const auto crcs = image.GetCrcsInRange(crc.place.from, Above(crc.place.from));
    if (std::ranges::count_if(crcs, same) != 1) return false;
  }
  for (u_int32_t i = 0; i < FwImage::SLOTS; ++i) {
    const Layout::Slot& slot = layout.slots[i];
    if ((slot.ps && image.GetPsAddr(i) != *slot.ps) ||
        (slot.signature && image.GetSignatureAddr(i) != *slot.signature) ||
        (slot.image && image.GetImageAddr(i) != *slot.image)) {
      return false;
    }
  }
  return true;
}

/// The section that holds the byte at `addr`, or null.
Layout::Section* SectionOver(Layout& layout, u_int32_t addr) {
  const auto section = std::ranges::find_if(
      layout.sections,
      [addr](const Layout::Section& candidate) { return SpanOf(candidate).Holds(addr); });
  return section == layout.sections.end() ? nullptr : &*section;
}

}  // namespace

void Layout::Throw(u_int32_t line, const std::string& text) const {
  throw LayoutError(line == 0 ? file.string() + ": " + text
                              : Text(file.string(), ":", line, ": ", text));
}

std::string Layout::Where(u_int32_t addr) const {
  const EeLoc loc = conv.Convert(addr);
  return Text(std::hex, std::setfill('0'), std::setw(2), u_int32_t{loc.dev}, ":", std::setw(8),
              loc.offset);
}

void CheckLayout(const Layout& layout) {
  try {
    Checker(layout).Check();
  } catch (const BraidError& error) {  // a place past the last device
    throw LayoutError(layout.file.string() + ": " + error.Des());
  }
}

void FillIn(Layout& layout) {
  // The records first: a CRC may cover the byte that is filled in.
  for (Layout::Section& section : layout.sections) {
    if (!section.has_boot_record) continue;
    const auto last = section.data.begin() + BOOT_RECORD_SIZE - 1;
    *last = static_cast<u_int8_t>(BOOT_RECORD_SUM -
                                  std::accumulate(section.data.begin(), last, u_int32_t{0}));
  }
  for (const Layout::Crc& crc : layout.crcs) {
    // The second slot need not be in the file: a burn puts the first one's sections there.
    Layout::Section* section = SectionOver(layout, crc.place.from);
    if (!crc.is_filled || section == nullptr) continue;
    Crc16 sum(false);
    sum.add(std::span(section->data).subspan(crc.place.from - section->addr, crc.place.size));
    sum.finish();
    DataVec word;
    word << u_int32_t{sum.get()};
    std::ranges::copy(word, section->data.begin() + (crc.place.crc_addr - section->addr));
  }
}

void WriteImage(const Layout& layout, const fs::path& path) {
  if (!IsImageName(path)) {
    throw std::runtime_error("the name of an image file ends in .img or .IMG: " + path.string());
  }
  NewFile file(path);
  file.Write(ImageText(layout).Get());
  FwImage image;
  LoadImage(image, file.Close());
  ASSERT_ALWAYS(Matches(image, layout));
  file.Keep();
}

bool IsImageName(const fs::path& path) {
  return path.extension() == ".img" || path.extension() == ".IMG";
}

void LoadImage(FwImage& image, const std::string& file) {
  // Gives the console its buffer back, however the loading ends.
  const auto restore = [](std::streambuf* console) { std::cout.rdbuf(console); };
  const std::unique_ptr<std::streambuf, decltype(restore)> console(
      std::cout.rdbuf(std::cerr.rdbuf()), restore);
  image.Open(file.c_str(), READ);
}

}  // namespace tools
