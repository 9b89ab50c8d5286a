/// fwimg make: an image file from a layout. fwimg extract: the bytes of an image file's sections.
#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "common/Files.h"
#include "common/Json.h"
#include "common/OutputFile.h"
#include "fwimg/Commands.h"
#include "fwimg/ImageMaker.h"
#include "fwimg/ImageSource.h"
#include "fwimg/LayoutFile.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

namespace fs = std::filesystem;
using common::NamedFile;
using common::RefuseSameFiles;
using nlohmann::ordered_json;

void Print(const ordered_json& json) { std::cout << common::DumpJson(json) << std::endl; }

struct MakeOptions {
  std::string layout;
  std::string output;
  std::string parts;
  int log2_chunk = USUAL_LOG2_CHUNK;
  bool as_json = false;
};

int Make(const MakeOptions& options) {
  const fs::path parts =
      options.parts.empty() ? fs::path(options.layout).parent_path() : fs::path(options.parts);
  Layout layout = ReadLayout(options.layout, parts, LayoutKind::WHOLE);
  std::vector<NamedFile> inputs{{"LAYOUT", options.layout}};
  for (const fs::path& part : layout.parts) inputs.push_back({"the layout's", part});
  RefuseSameFiles(inputs, {{"--output", options.output}});
  layout.log2_chunk = static_cast<unsigned>(options.log2_chunk);
  CheckLayout(layout);
  FillIn(layout);
  for (const std::string& warning : WriteImage(layout, options.output)) {
    std::cerr << "fwimg: " << Printable(warning) << "\n";
  }

  ordered_json json{{"version", 1},
                    {"command", "make"},
                    {"image", options.output},
                    {"device_type", layout.device_type},
                    {"sections", ordered_json::array()}};
  std::size_t total = 0;
  for (const Layout::Section& section : layout.sections) {
    const device::ChipPlace place = layout.PlaceOf(section.addr).value();
    json["sections"].push_back({{"name", section.name},
                                {"address", section.addr},
                                {"device", place.chip},
                                {"offset", place.offset},
                                {"size", section.data.size()}});
    total += section.data.size();
  }
  if (options.as_json) {
    Print(json);
  } else {
    std::cout << Printable(options.output) << ": " << layout.device_type << ", "
              << layout.sections.size()
              << (layout.sections.size() == 1 ? " section, " : " sections, ") << total
              << " bytes\n";
  }
  return ALL_WELL;
}

struct ExtractOptions {
  std::string image;
  std::string section;
  std::string output;
  std::string all;
  bool as_json = false;
};

/// Throws for an address past the device map.
device::ChipPlace PlaceOf(const device::Image& image, std::uint32_t addr) {
  const auto place = image.PlaceOf(addr);
  if (place) return *place;
  throw std::runtime_error(
      Text("Addr2OffsetDev: No mapping for the given addr (", std::hex, addr, ")."));
}

/// A file name for a section, whose own may be anything: nothing may land outside the folder.
std::string FileName(const device::Section& section, std::set<std::string>& taken) {
  constexpr std::size_t LONGEST = 64;
  std::string name = section.name.substr(0, LONGEST);
  std::ranges::replace_if(
      name,
      [](unsigned char c) {
        return c >= 0x80 || (std::isalnum(c) == 0 && c != '_' && c != '.' && c != '-');
      },
      '_');
  if (name.empty() || name[0] == '.') name.insert(0, "_");
  if (!taken.insert(name).second) {
    name += Text("@", std::hex, std::setfill('0'), std::setw(8), section.addr);
    taken.insert(name);
  }
  return name + ".bin";
}

/// The sections to extract: all, or the one of the given name. Throws where that is none or
/// several.
std::vector<const device::Section*> SelectSections(const device::Image& image,
                                                   const ExtractOptions& options) {
  std::vector<const device::Section*> sections;
  for (const device::Section& section : image.sections) {
    if (options.section.empty() || section.name == options.section) sections.push_back(&section);
  }
  if (options.section.empty()) return sections;
  if (sections.empty()) {
    throw std::runtime_error(options.image + ": no section " + options.section);
  }
  if (sections.size() > 1) {
    throw std::runtime_error(Text(options.image, ": ", sections.size(), " sections are named ",
                                  options.section, "; --all DIR writes each"));
  }
  return sections;
}

/// The file for each of `sections`.
std::vector<std::string> FilesFor(const std::vector<const device::Section*>& sections,
                                  const ExtractOptions& options) {
  if (!options.section.empty()) return {options.output};
  std::vector<std::string> files;
  files.reserve(sections.size());
  std::set<std::string> taken;
  for (const device::Section* section : sections) {
    files.push_back((fs::path(options.all) / FileName(*section, taken)).string());
  }
  return files;
}

/// Writes the bytes of each section to its file, and prints what was written.
void WriteSections(const device::Image& image, const std::vector<const device::Section*>& sections,
                   const std::vector<std::string>& files, const ExtractOptions& options) {
  ordered_json written = ordered_json::array();
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const device::Section* section = sections[i];
    const std::string& file = files[i];
    common::WriteFile(file, section->data);
    const device::ChipPlace place = PlaceOf(image, section->addr);
    written.push_back({{"section", section->name},
                       {"address", section->addr},
                       {"device", place.chip},
                       {"offset", place.offset},
                       {"size", section->data.size()},
                       {"file", file}});
    if (!options.as_json) {
      std::cout << Printable(file) << ": " << Printable(section->name) << ", "
                << section->data.size() << " bytes from " << Where(place) << "\n";
    }
  }
  if (options.as_json) {
    Print({{"version", 1},
           {"command", "extract"},
           {"image", options.image},
           {"written", std::move(written)}});
  }
}

void MakeFolder(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (!error) return;
  throw std::runtime_error("can't make the folder \"" + path + "\": " + error.message());
}

int Extract(const ExtractOptions& options) {
  RefuseSameFiles({{"FILE", options.image}}, {});
  const device::Image image = LoadImage(options.image, PrintWarning);
  const std::vector<const device::Section*> sections = SelectSections(image, options);
  if (!options.section.empty() && options.output == "-") {
    const Bytes& data = sections[0]->data;
    std::cout.write(reinterpret_cast<const char*>(data.data()),
                    static_cast<std::streamsize>(data.size()));
    return ALL_WELL;
  }
  const std::vector<std::string> files = FilesFor(sections, options);
  std::vector<NamedFile> outputs;
  outputs.reserve(files.size());
  for (const std::string& file : files) {
    outputs.push_back({options.section.empty() ? "--all" : "--output", file});
  }
  RefuseSameFiles({{"FILE", options.image}}, outputs);
  if (options.section.empty()) MakeFolder(options.all);
  WriteSections(image, sections, files, options);
  return ALL_WELL;
}

}  // namespace

void AddMake(CommandLine& program) {
  const auto options = std::make_shared<MakeOptions>();
  CommandLine& make = program.AddCommand("make", "Make an image file from a layout and raw files");
  make.Add("LAYOUT", options->layout, "The layout file (TOML)").Required();
  make.Add("-o,--output", options->output, "The image file to write").Required();
  make.Add("--parts", options->parts, "Where the layout's files lie (default: beside the layout)");
  make.Add("-m", options->log2_chunk,
           "The check is for burns whose chunks have 2 to the power of this bytes")
      .ShowDefault()
      .InRange(MIN_LOG2_CHUNK, MAX_LOG2_CHUNK);
  make.AddFlag("--json", options->as_json, "Print a JSON object");
  make.SetWork([options] { return Make(*options); });
}

void AddExtract(CommandLine& program) {
  const auto options = std::make_shared<ExtractOptions>();
  CommandLine& extract = program.AddCommand("extract", "Write the bytes of sections to raw files");
  extract.Add("FILE", options->image, "The image file").Required();
  Option section = extract.Add("--section", options->section, "The section's name");
  Option output =
      extract.Add("-o,--output", options->output, "The file to write; - for the output");
  Option all = extract.Add("--all", options->all, "Write every section into this folder");
  const Option json = extract.AddFlag("--json", options->as_json, "Print a JSON object");
  section.Needs(output);
  output.Needs(section);
  all.Excludes(section);
  extract.SetWork([options, section, all, json] {
    if (section.IsGiven() == all.IsGiven()) {
      throw UsageError("extract", "--section NAME -o FILE or --all DIR is needed");
    }
    if (options->output == "-" && json.IsGiven()) {
      throw UsageError("extract", "-o - and --json exclude each other");
    }
    return Extract(*options);
  });
}

}  // namespace fwimg
