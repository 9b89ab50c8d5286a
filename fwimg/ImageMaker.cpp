#include "fwimg/ImageMaker.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iostream>
#include <memory>
#include <numeric>
#include <set>
#include <span>
#include <sstream>
#include <utility>

#include "common/Files.h"
#include "fwimg/ImageCheck.h"
#include "sim/Family.h"
#include "src/utils.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr u_int32_t WORD = 4;
constexpr std::size_t LONGEST_NAME = 64;
constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;

u_int64_t EndOf(const Layout::Section& section) {
  return section.addr + u_int64_t{section.data.size()};
}

/// The rules of CheckLayout, one by one.
class Checker {
 public:
  explicit Checker(const Layout& layout) : _layout(layout) {}

  void Check() {
    for (const Layout::Section& section : _layout.sections) CheckSection(section);
    for (const Layout::Field& field : _layout.fields) CheckField(field);
    for (const Layout::Crc& crc : _layout.crcs) CheckCrc(crc);
  }

 private:
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
    if (section.data.size() % WORD != 0) {
      _layout.Throw(section.line,
                    Text("the section ", name, " has ", section.data.size(),
                         " bytes, not whole words of 4; 'pad' fills the last one up"));
    }
    if (EndOf(section) > ADDRESS_SPACE) {
      _layout.Throw(section.line, "the section " + name + " reaches past the last address");
    }
    if (section.has_boot_record && section.data.size() < sim::BOOT_RECORD_SIZE) {
      _layout.Throw(section.line,
                    Text("a boot record has ", sim::BOOT_RECORD_SIZE, " bytes, the section ", name,
                         " only ", section.data.size()));
    }
  }

  void CheckField(const Layout::Field& field) {
    // The loader drops it, and only warns.
    if (field.place.type == BSN && FwImage::Str2DeviceType(_layout.device_type) == RV61100) {
      _layout.Throw(field.line, "the field BSN is ignored for an RV61100");
    }
    const std::string what = "the field " + field.keyword;
    CheckMapped(field.place.from, what, field.line);
    if (!_fields.emplace(field.place.from, field.place.type).second) {
      _layout.Throw(field.line,
                    what + " at " + _layout.Where(field.place.from) + " is there already");
    }
  }

  void CheckCrc(const Layout::Crc& crc) const {
    const FwImage::CrcReplace& place = crc.place;
    const u_int64_t end = u_int64_t{place.from} + place.size;
    if (end > ADDRESS_SPACE) _layout.Throw(crc.line, "a CRC covers bytes past the last address");
    CheckMapped(place.from, "what a CRC covers", crc.line);
    CheckMapped(place.from + place.size - WORD, "what a CRC covers", crc.line);
    CheckMapped(place.crc_addr, "the word of a CRC", crc.line);
    // A burn computes it over its own place, still blank: seldom meant.
    if (place.from < u_int64_t{place.crc_addr} + WORD && place.crc_addr < end) {
      _layout.Throw(crc.line, "the CRC at " + _layout.Where(place.crc_addr) + " covers itself");
    }
  }

  /// A place counted from a slot may lie where no device is: an image file cannot name it.
  void CheckMapped(u_int32_t addr, const std::string& what, u_int32_t line) const {
    try {
      _layout.conv.Convert(addr);
    } catch (const BraidError&) {
      _layout.Throw(line, what + " lies past the last device");
    }
  }

  const Layout& _layout;
  std::set<std::string> _names;
  std::set<std::pair<u_int32_t, FieldType>> _fields;
};

/// The text of an image file, and which line of it comes from where.
class ImageText {
 public:
  explicit ImageText(const Layout& layout) : _layout(layout) {
    Title();
    Directives();
    for (const Layout::Section& section : _layout.sections) Section(section);
  }

  const std::string& Get() const { return _text; }

  /// The line of the layout that line `image_line` of the text, from 1, was made of; 0 where there
  /// is none.
  u_int32_t LayoutLine(u_int32_t image_line) const {
    return image_line == 0 || image_line > _lines.size() ? 0 : _lines[image_line - 1];
  }

 private:
  void Add(u_int32_t layout_line, const std::string& lines) {
    _text += lines;
    _lines.insert(_lines.end(), static_cast<std::size_t>(std::ranges::count(lines, '\n')),
                  layout_line);
  }

  void Title() {
    std::istringstream lines(_layout.title);
    for (std::string line; std::getline(lines, line);) Add(0, "# " + line + "\n");
    Add(0, "# All numbers are hexadecimal.\n\n");
  }

  void Directives() {
    if (!_layout.device_type.empty()) {
      Add(_layout.device_type_line, "DEVICE_TYPE " + _layout.device_type + "\n");
    }
    if (_layout.version) {
      const Layout::Version& version = *_layout.version;
      Add(0, Text(std::hex, std::uppercase, "MAJ_FW_VER ", version.major_number, "\nMIN_FW_VER ",
                  version.minor_number, "\nSUB_MIN_FW_VER ", version.sub_minor_number, "\n"));
    }
    for (const EeLoc& dev : _layout.conv._devmap) {
      Add(0, Text("DEVMAP ", std::hex, std::uppercase, dev.offset, " ", u_int32_t{dev.dev}, "\n"));
    }
    for (u_int32_t i = 0; i < FwImage::SLOTS; ++i) {
      const Layout::Slot& slot = _layout.slots[i];
      const auto place = [&](const char* directive, const std::optional<u_int32_t>& addr) {
        if (addr) Add(slot.line, Text(directive, " ", i, Location(*addr), "\n"));
      };
      place("PS", slot.ps);
      place("SIGNATURE", slot.signature);
      place("IMAGE", slot.image);
    }
    for (const Layout::Field& field : _layout.fields) {
      Add(field.line, "REPLACE " + field.keyword + Location(field.place.from) + "\n");
    }
    for (const Layout::Crc& crc : _layout.crcs) {
      // The second location is the last word covered.
      Add(crc.line, "REPLACE CRC" + Location(crc.place.from) +
                        Location(crc.place.from + crc.place.size - WORD) +
                        Location(crc.place.crc_addr) + "\n");
    }
  }

  void Section(const Layout::Section& section) {
    constexpr std::size_t LINE = 16;
    constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string text = Text("\n# ", section.name, ": ", section.data.size(), " bytes\nSTART ",
                            section.name, Location(section.addr), "\n");
    for (std::size_t i = 0; i < section.data.size(); ++i) {
      text += DIGITS[section.data[i] >> 4];
      text += DIGITS[section.data[i] & 0xF];
      text += i % LINE == LINE - 1 || i + 1 == section.data.size() ? '\n' : ' ';
    }
    Add(section.line, text + "END " + section.name + "\n");
  }

  std::string Location(u_int32_t addr) const {
    const EeLoc loc = _layout.conv.Convert(addr);
    return Text(std::hex, std::uppercase, " ", loc.offset, " ", u_int32_t{loc.dev});
  }

  const Layout& _layout;
  std::string _text;
  std::vector<u_int32_t> _lines;  ///< of the layout, by those of the text
};

/// `text`, which speaks of lines of the image, with lines of the layout instead. Names of sections
/// have no blanks, so nothing else can look like one.
std::string InLayoutLines(std::string_view text, const ImageText& image) {
  constexpr std::string_view LINE = " line ";
  std::string result;
  while (true) {
    const std::size_t at = text.find(LINE);
    if (at == std::string_view::npos) return result.append(text);
    const std::size_t digits = at + LINE.size();
    result.append(text.substr(0, digits));
    text.remove_prefix(digits);
    u_int32_t line = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), line);
    if (error != std::errc()) continue;
    result += std::to_string(image.LayoutLine(line));
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  }
}

/// The view of an image that was made of `layout`, for now under another name.
std::unique_ptr<ImageView> ViewOf(const std::string& file, const Layout& layout) {
  try {
    return std::make_unique<ImageView>(file);
  } catch (const BraidError& error) {
    const std::string name = file + ": ";
    const std::string& text = error.Des();
    throw LayoutError(layout.At(0) + (text.starts_with(name) ? text.substr(name.size()) : text));
  }
}

/// What `fwimg check` says of an image, at the lines of its layout: throws the errors, returns the
/// warnings.
std::vector<std::string> Judge(const ImageView& view, const ImageText& text, const Layout& layout) {
  using Told = std::pair<u_int32_t, std::string>;
  std::array<std::set<Told>, 2> told;  // warnings, errors
  for (const Problem& problem : Check(view, layout.sector_size)) {
    const std::string_view kind = problem.kind->word;
    if (layout.device_type.empty() && kind == "no-device-type") continue;
    const bool is_error = problem.kind->severity == Severity::ERROR;
    const u_int32_t line = text.LayoutLine(problem.line);
    told[is_error].emplace(line, layout.At(line) + (is_error ? "" : "warning: ") +
                                     InLayoutLines(problem.text, text) + " [" + std::string(kind) +
                                     "]");
  }
  const auto& [warnings, errors] = told;
  if (errors.empty()) {
    std::vector<std::string> texts;
    for (const Told& warning : warnings) texts.push_back(warning.second);
    return texts;
  }
  std::string all;
  for (const Told& error : errors) all += (all.empty() ? "" : "\n") + error.second;
  throw LayoutError(all);
}

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

/// The section that holds all that a CRC covers, and its word, or null.
Layout::Section* SectionOf(Layout& layout, const FwImage::CrcReplace& crc) {
  const auto section = std::ranges::find_if(layout.sections, [&crc](const auto& candidate) {
    return candidate.addr <= std::min(crc.from, crc.crc_addr) &&
           crc.from + u_int64_t{crc.size} <= EndOf(candidate) &&
           crc.crc_addr + u_int64_t{WORD} <= EndOf(candidate);
  });
  return section == layout.sections.end() ? nullptr : &*section;
}

}  // namespace

std::string Layout::At(u_int32_t line) const {
  return file.string() + (line == 0 ? "" : Text(":", line)) + ": ";
}

void Layout::Throw(u_int32_t line, const std::string& text) const {
  throw LayoutError(At(line) + text);
}

std::string Where(const EeLoc& loc) {
  return Text(std::hex, std::setfill('0'), std::setw(2), u_int32_t{loc.dev}, ":", std::setw(8),
              loc.offset);
}

std::string Layout::Where(u_int32_t addr) const { return tools::Where(conv.Convert(addr)); }

void CheckLayout(const Layout& layout) { Checker(layout).Check(); }

void FillIn(Layout& layout) {
  // The records first: a CRC may cover the byte that is filled in.
  for (Layout::Section& section : layout.sections) {
    if (!section.has_boot_record) continue;
    const auto last = section.data.begin() + sim::BOOT_RECORD_SIZE - 1;
    *last = static_cast<u_int8_t>(sim::BOOT_RECORD_SUM -
                                  std::accumulate(section.data.begin(), last, u_int32_t{0}));
  }
  for (const Layout::Crc& crc : layout.crcs) {
    // The second slot need not be in the file: a burn puts the first one's sections there.
    Layout::Section* section = SectionOf(layout, crc.place);
    if (!crc.is_filled || section == nullptr) continue;
    DataVec word;
    word << sim::CrcOf(
        std::span(section->data).subspan(crc.place.from - section->addr, crc.place.size));
    std::ranges::copy(word, section->data.begin() + (crc.place.crc_addr - section->addr));
  }
}

std::vector<std::string> WriteImage(const Layout& layout, const fs::path& path) {
  if (!IsImageName(path)) {
    throw std::runtime_error("the name of an image file ends in .img or .IMG: " + path.string());
  }
  const ImageText text(layout);
  common::NewFile file(path);
  file.Write(text.Get());
  std::vector<std::string> warnings = Judge(*ViewOf(file.Close(), layout), text, layout);
  FwImage image;
  LoadImage(image, file.Close());
  ASSERT_ALWAYS(Matches(image, layout));
  file.Keep();
  return warnings;
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
