/// fwimg convert: image files from and to Intel HEX and Motorola S-records.
#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/Json.h"
#include "common/OutputFile.h"
#include "fwimg/Commands.h"
#include "fwimg/ImageMaker.h"
#include "fwimg/ImageSource.h"
#include "fwimg/LayoutFile.h"
#include "fwimg/Names.h"
#include "fwimg/Srecord.h"

namespace fwimg {

namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

struct ConvertOptions {
  std::string from;
  std::string to;
  std::string format;
  std::string layout;
  int pad = -1;  ///< the byte that fills up words; none when negative
  bool is_lax = false;
  bool as_json = false;
};

RecordFormat FormatOf(const ConvertOptions& options, const fs::path& path) {
  const auto format =
      ParseFormat(options.format.empty() ? path.extension().string() : options.format);
  if (!format) {
    throw std::runtime_error(path.string() +
                             ": unknown file extension; add --format intel or --format motorola");
  }
  return *format;
}

void Report(const ConvertOptions& options, const std::vector<RecordRange>& ranges) {
  std::size_t total = 0;
  ordered_json json = ordered_json::array();
  for (const RecordRange& range : ranges) {
    json.push_back({{"address", range.addr}, {"size", range.data.size()}});
    total += range.data.size();
  }
  if (options.as_json) {
    std::cout << common::DumpJson(ordered_json{{"version", 1},
                                               {"command", "convert"},
                                               {"from", options.from},
                                               {"to", options.to},
                                               {"ranges", std::move(json)}})
              << std::endl;
  } else {
    std::cout << Printable(options.to) << ": " << total << " bytes in " << ranges.size()
              << (ranges.size() == 1 ? " piece\n" : " pieces\n");
  }
}

/// The bytes of all sections, neighbours made one. Throws where two sections overlap: records can
/// not say what an image file can.
std::vector<RecordRange> RangesOf(const device::Image& image) {
  std::vector<const device::Section*> sections;
  for (const device::Section& section : image.sections) {
    if (!section.data.empty()) sections.push_back(&section);
  }
  if (sections.empty()) throw std::runtime_error("the image has no bytes");
  std::ranges::sort(sections, {}, &device::Section::addr);
  std::vector<RecordRange> ranges;
  const device::Section* before = nullptr;
  for (const device::Section* section : sections) {
    if (before != nullptr && section->addr < before->End()) {
      throw std::runtime_error("the sections " + Printable(before->name) + " and " +
                               Printable(section->name) + " overlap");
    }
    if (before == nullptr || section->addr != before->End()) ranges.push_back({section->addr, {}});
    Bytes& data = ranges.back().data;
    data.insert(data.end(), section->data.begin(), section->data.end());
    before = section;
  }
  return ranges;
}

int ToRecords(const ConvertOptions& options) {
  const RecordFormat format = FormatOf(options, options.to);
  const std::vector<RecordRange> ranges = RangesOf(LoadImage(options.from, PrintWarning));
  WriteRecords(ranges, format, options.to);
  Report(options, ranges);
  return ALL_WELL;
}

/// Fills up what follows the last whole word of each range, as far as the next range leaves room,
/// which then becomes a part of it.
void Pad(std::vector<RecordRange>& ranges, std::uint8_t pad) {
  std::vector<RecordRange> padded;
  for (RecordRange& range : ranges) {
    if (!padded.empty()) {
      RecordRange& last = padded.back();
      const std::uint64_t end = last.addr + std::uint64_t{last.data.size()};
      // The words of a range begin where it does, so the next one may begin inside one.
      const std::uint64_t whole = last.addr + (std::uint64_t{last.data.size()} + 3) / 4 * 4;
      if (range.addr < whole) {
        last.data.resize(last.data.size() + static_cast<std::size_t>(range.addr - end), pad);
        last.data.insert(last.data.end(), range.data.begin(), range.data.end());
        continue;
      }
      last.data.resize(static_cast<std::size_t>(whole - last.addr), pad);
    }
    padded.push_back(std::move(range));
  }
  RecordRange& last = padded.back();
  last.data.resize((last.data.size() + 3) / 4 * 4, pad);
  ranges = std::move(padded);
}

/// Cuts ranges where a burn looks for a section that begins there.
void CutAt(std::vector<RecordRange>& ranges, const Layout& layout) {
  for (const Layout::Slot& slot : layout.slots) {
    for (const auto& addr : {slot.pointer_sector, slot.image}) {
      if (!addr) continue;
      for (std::size_t i = 0; i < ranges.size(); ++i) {
        RecordRange& range = ranges[i];
        if (*addr <= range.addr || *addr - range.addr >= range.data.size()) continue;
        const auto cut = range.data.begin() + (*addr - range.addr);
        RecordRange rest{*addr, Bytes(cut, range.data.end())};
        range.data.erase(cut, range.data.end());
        ranges.insert(ranges.begin() + static_cast<std::ptrdiff_t>(i) + 1, std::move(rest));
        break;
      }
    }
  }
}

std::string SectionName(const Layout& layout, std::uint32_t addr) {
  for (std::uint32_t i = 0; i < device::SLOTS; ++i) {
    if (layout.slots[i].pointer_sector == addr) return Text("PS", i);
    if (layout.slots[i].image == addr) return Text("IMAGE", i);
  }
  return Text("DATA_", std::hex, std::uppercase, std::setfill('0'), std::setw(8), addr);
}

int FromRecords(const ConvertOptions& options) {
  const RecordFormat format = FormatOf(options, options.from);
  Layout layout;
  if (options.layout.empty()) {
    layout.file = options.from;
    std::cerr << "fwimg: without --layout the image names no device type, and cannot be burnt\n";
  } else {
    layout = ReadLayout(options.layout, fs::path(options.layout).parent_path(),
                        LayoutKind::WITHOUT_SECTIONS);
  }
  std::vector<RecordRange> ranges = ReadRecords(options.from, format, options.is_lax, PrintWarning);
  CutAt(ranges, layout);
  if (options.pad >= 0) Pad(ranges, static_cast<std::uint8_t>(options.pad));
  for (const RecordRange& range : ranges) {
    if (range.data.size() % 4 != 0) {
      throw std::runtime_error(Text(options.from, ": the ", range.data.size(), " bytes at 0x",
                                    std::hex, range.addr,
                                    " are not whole words of 4; --pad BYTE fills the last one up"));
    }
    layout.sections.push_back(
        {{SectionName(layout, range.addr), range.addr, range.data}, false, 0});
  }
  CheckLayout(layout);
  FillIn(layout);
  for (const std::string& warning : WriteImage(layout, options.to)) {
    std::cerr << "fwimg: " << Printable(warning) << "\n";
  }
  Report(options, ranges);
  return ALL_WELL;
}

}  // namespace

void AddConvert(CommandLine& program) {
  const auto options = std::make_shared<ConvertOptions>();
  CommandLine& convert = program.AddCommand(
      "convert", "Turn an image file into Intel HEX or Motorola S-records, or back");
  convert.Add("FROM", options->from, "The file to read").Required();
  convert.Add("TO", options->to, "The file to write").Required();
  convert
      .Add("--format", options->format,
           "Of the records: intel or motorola (default: as the name of the file says)")
      .OneOf({"intel", "motorola"});
  convert.Add("--layout", options->layout,
              "To an image: a layout without sections, for everything but the bytes");
  convert.Add("--pad", options->pad, "To an image: fill up words with this byte").InRange(0, 255);
  convert.AddFlag("--lax", options->is_lax, "To an image: accept records for which srec_cat warns");
  convert.AddFlag("--json", options->as_json, "Print a JSON object");
  convert.SetWork([options] {
    if (IsImageName(options->from) == IsImageName(options->to)) {
      throw UsageError("convert", "one of FROM and TO must be an image file (.img)");
    }
    const bool has_image_options = !options->layout.empty() || options->pad >= 0 || options->is_lax;
    if (IsImageName(options->from) && has_image_options) {
      throw UsageError("convert", "--layout, --pad and --lax are for making images");
    }
    common::RefuseSameFiles({{"FROM", options->from}, {"--layout", options->layout}},
                            {{"TO", options->to}});
    return IsImageName(options->from) ? ToRecords(*options) : FromRecords(*options);
  });
}

}  // namespace fwimg
