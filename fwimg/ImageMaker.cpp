#include "fwimg/ImageMaker.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "common/OutputFile.h"
#include "common/ScratchFolder.h"
#include "device/Boot.h"
#include "device/Crc.h"
#include "fwimg/ImageCheck.h"
#include "fwimg/ImageSource.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

namespace fs = std::filesystem;

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
  std::uint32_t LayoutLine(std::uint32_t image_line) const {
    return image_line == 0 || image_line > _lines.size() ? 0 : _lines[image_line - 1];
  }

 private:
  void Add(std::uint32_t layout_line, const std::string& lines) {
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
    for (const device::MappedChip& chip : _layout.map) {
      Add(0, Text("DEVMAP ", std::hex, std::uppercase, chip.size, " ", std::uint32_t{chip.chip},
                  "\n"));
    }
    for (std::uint32_t i = 0; i < device::SLOTS; ++i) {
      const Layout::Slot& slot = _layout.slots[i];
      const auto place = [&](const char* directive, const std::optional<std::uint32_t>& addr) {
        if (addr) Add(slot.line, Text(directive, " ", i, Location(*addr), "\n"));
      };
      place("PS", slot.pointer_sector);
      place("SIGNATURE", slot.signature);
      place("IMAGE", slot.image);
    }
    for (const Layout::Field& field : _layout.fields) {
      Add(field.line, "REPLACE " + std::string(device::RowOf(field.type).keyword) +
                          Location(field.addr) + "\n");
    }
    for (const Layout::Crc& crc : _layout.crcs) {
      // The second location is the last word covered.
      Add(crc.line, "REPLACE CRC" + Location(crc.from) + Location(crc.from + crc.size - WORD_SIZE) +
                        Location(crc.addr) + "\n");
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

  std::string Location(std::uint32_t addr) const {
    const device::ChipPlace place = _layout.PlaceOf(addr).value();
    return Text(std::hex, std::uppercase, " ", place.offset, " ", std::uint32_t{place.chip});
  }

  const Layout& _layout;
  std::string _text;
  std::vector<std::uint32_t> _lines;  ///< of the layout, by those of the text
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
    std::uint32_t line = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), line);
    if (error != std::errc()) continue;
    result += std::to_string(image.LayoutLine(line));
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  }
}

/// The problems of an image that was made of `layout`, for now under another name.
std::vector<Problem> ProblemsOf(const std::string& file, const Layout& layout) {
  try {
    return Check(file, {.sector_size = layout.sector_size, .log2_chunk = layout.log2_chunk});
  } catch (const device::ImageError& error) {
    const std::string name = file + ": ";
    const std::string text = error.what();
    throw LayoutError(layout.At(0) + (text.starts_with(name) ? text.substr(name.size()) : text));
  }
}

/// What `fwimg check` says of an image, at the lines of its layout: throws the errors, returns the
/// warnings.
std::vector<std::string> CheckMadeImage(const std::string& file, const ImageText& text,
                                        const Layout& layout) {
  using Told = std::pair<std::uint32_t, std::string>;
  std::array<std::set<Told>, 2> told;  // warnings, errors
  for (const Problem& problem : ProblemsOf(file, layout)) {
    const std::string_view kind = problem.kind->word;
    if (layout.device_type.empty() && kind == "no-device-type") continue;
    const bool is_error = problem.kind->severity == Severity::ERROR;
    const std::uint32_t line = text.LayoutLine(problem.line);
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

/// Throws where a file does not say what its layout does: that would be a mistake of ours.
void CheckHoldsLayout(const device::Image& image, const Layout& layout) {
  std::vector<device::Field> fields;
  for (const Layout::Slot& slot : layout.slots) {
    if (slot.signature) fields.push_back({device::FieldType::SIGNATURE, *slot.signature});
  }
  fields.insert(fields.end(), layout.fields.begin(), layout.fields.end());
  const std::vector<device::CrcField> crcs(layout.crcs.begin(), layout.crcs.end());
  std::vector<std::size_t> order(layout.sections.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  const auto is_section = [](const device::Section& a, const device::Section& b) {
    return a.name == b.name && a.addr == b.addr && a.data == b.data;
  };
  const auto is_slot = [](const device::Slot& a, const device::Slot& b) { return a == b; };
  const bool says_it = image.type == device::FindDeviceType(layout.device_type) &&
                       image.map == layout.map && image.order == order &&
                       std::ranges::equal(image.sections, layout.sections, is_section) &&
                       std::ranges::equal(image.slots, layout.slots, is_slot) &&
                       image.fields == fields && image.crcs == crcs;
  if (!says_it) {
    throw std::logic_error(layout.At(0) + "internal error: the image does not match its layout");
  }
}

/// The section that holds all that a CRC covers, and its word, or null.
Layout::Section* SectionOf(Layout& layout, const device::CrcField& crc) {
  const auto section = std::ranges::find_if(layout.sections, [&crc](const auto& candidate) {
    return candidate.addr <= std::min(crc.from, crc.addr) && crc.End() <= candidate.End() &&
           crc.addr + std::uint64_t{WORD_SIZE} <= candidate.End();
  });
  return section == layout.sections.end() ? nullptr : &*section;
}

}  // namespace

void FillIn(Layout& layout) {
  // The records first: a CRC may cover the byte that is filled in.
  for (Layout::Section& section : layout.sections) {
    if (!section.has_boot_record) continue;
    const auto last = section.data.begin() + device::BOOT_RECORD_SIZE - 1;
    *last = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM -
                                      device::BootRecordSum(View(section.data.begin(), last)));
  }
  for (const Layout::Crc& crc : layout.crcs) {
    // The second slot need not be in the file: a burn puts the first one's sections there.
    Layout::Section* section = SectionOf(layout, crc);
    if (!crc.is_filled || section == nullptr) continue;
    const View covered = View(section->data).subspan(crc.from - section->addr, crc.size);
    std::ranges::copy(device::WordBytes(device::CrcOf(covered)),
                      section->data.begin() + (crc.addr - section->addr));
  }
}

std::vector<std::string> WriteImage(const Layout& layout, const fs::path& path) {
  if (!IsImageName(path)) {
    throw std::runtime_error("the name of an image file ends in .img or .IMG: " + path.string());
  }
  const ImageText text(layout);
  common::OutputFile file(path);
  // Read it before it can replace anything.
  const common::ScratchFolder scratch("fwimg");
  const std::string made = scratch.Write("made.img", text.Get());
  std::vector<std::string> warnings = CheckMadeImage(made, text, layout);
  CheckHoldsLayout(device::ReadImage(made), layout);
  file.Write(text.Get());
  file.Keep();
  return warnings;
}

}  // namespace fwimg
