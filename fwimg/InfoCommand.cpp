/// fwimg info: what is in an image file, and what it means for a burn.
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "common/Json.h"
#include "common/OutputFile.h"
#include "fwimg/CheckTarget.h"
#include "fwimg/Commands.h"
#include "fwimg/ImageFacts.h"
#include "fwimg/ImageSource.h"
#include "fwimg/Layout.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

struct Options {
  std::string file;
  std::string sector_size = HexText(USUAL_SECTOR_SIZE);
  bool as_json = false;
};

// The map: a label and a bar.
constexpr std::size_t LABEL = 8;
constexpr std::uint64_t COLUMNS = 64;
constexpr std::size_t MOST_BARS = 24;  ///< of sections; more are drawn together only

/// What a device type means for the burn.
struct Burning {
  std::string memory = "unknown: fwpush cannot burn this device type";
  std::string failsafe;  ///< algorithm of a plain burn
  std::string with_n;    ///< and of one with -n
  std::string slots = "none";
};

Burning BurningOf(const ImageFile& file) {
  Burning burning;
  if (file.image.type == nullptr) return burning;
  burning.memory =
      IsFlash(file.image) ? "serial flash, one device a run" : "I2C EEPROM, many devices at once";
  burning.failsafe = burning.with_n = "GenericBurn";
  switch (file.image.Slots()) {
    case SlotKind::NONE:
      break;
    case SlotKind::POINTER_SECTORS:
      burning.failsafe = "RV52100FailsafeBurn";
      burning.slots = "two, valid by their pointer sectors";
      break;
    case SlotKind::BOOT_RECORDS:
      burning.failsafe = "RV61300FailsafeBurn";
      burning.slots = "two, valid by their boot records";
      break;
  }
  return burning;
}

/// In 32 bits, as the burner adds them up.
std::uint32_t BytesOf(const ImageFile& file) {
  std::uint32_t sum = 0;
  for (const device::Section& section : file.image.sections) {
    sum += static_cast<std::uint32_t>(section.data.size());
  }
  return sum;
}

std::string Hex8(std::uint64_t number) {
  return Text(std::hex, std::setfill('0'), std::setw(8), number);
}

std::string Padded(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

/// What the bytes from `addr` on belong to: "invariant sector", "pointer sector 0", "slot 1".
std::string PlaceName(const ImageFile& file, std::uint64_t addr, std::uint32_t sector_size) {
  const SlotKind kind = file.image.Slots();
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const SlotLines& slot = file.slots[idx];
    if (slot.pointer_sector && kind == SlotKind::POINTER_SECTORS) {
      const SectionLines* ps = file.SectionAt(slot.pointer_sector->addr);
      const std::uint64_t size = ps == nullptr ? sector_size : ps->size;
      if (slot.pointer_sector->addr <= addr && addr < slot.pointer_sector->addr + size) {
        return Text("pointer sector ", idx);
      }
    }
    if (slot.image && slot.image->addr <= addr && addr < slot.image->addr + SlotExtent(file)) {
      return Text("slot ", idx);
    }
  }
  if (kind == SlotKind::POINTER_SECTORS && addr < sector_size) return "invariant sector";
  return "-";
}

std::string Shown(const std::string& text) { return text.empty() ? "-" : text; }

struct Bar {
  std::string label;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;  ///< from and end
};

class AddressMap {
 public:
  explicit AddressMap(const std::vector<Bar>& bars) {
    for (const Bar& bar : bars) {
      for (const auto& [from, end] : bar.ranges) {
        _from = std::min(_from, from);
        _end = std::max(_end, end);
      }
    }
    if (_end > _from) _column = (_end - _from + COLUMNS - 1) / COLUMNS;
  }

  bool IsEmpty() const { return _end <= _from; }

  std::string Scale() const {
    return Text(HexText(_from), " to ", HexText(_end), ", a column is ", HexText(_column),
                " bytes");
  }

  /// '.' where nothing is, 'X' where two ranges share a byte, `mark` elsewhere.
  std::string Draw(const Bar& bar, char mark) const {
    std::string drawn(COLUMNS, '.');
    const auto fill = [&](std::uint64_t from, std::uint64_t end, char c) {
      if (from >= end) return;
      const auto first = static_cast<std::size_t>((from - _from) / _column);
      const auto last = static_cast<std::size_t>((end - 1 - _from) / _column);
      std::fill_n(drawn.begin() + static_cast<std::ptrdiff_t>(first), last - first + 1, c);
    };
    auto ranges = bar.ranges;
    std::ranges::sort(ranges);
    for (const auto& [from, end] : ranges) fill(from, end, mark);
    std::uint64_t furthest = 0;
    for (const auto& [from, end] : ranges) {
      fill(from, std::min(end, furthest), 'X');
      furthest = std::max(furthest, end);
    }
    return Padded(bar.label.substr(0, LABEL - 1), LABEL) + drawn;
  }

 private:
  std::uint64_t _from = ~std::uint64_t{0};
  std::uint64_t _end = 0;
  std::uint64_t _column = 1;
};

/// Sections, slots, fields and CRCs as bars over one range of addresses.
std::string MapText(const ImageFile& file) {
  std::vector<Bar> bars;
  Bar all{"all", {}};
  for (const SectionLines& section : file.sections) {
    if (!section.kept || section.size == 0) continue;
    bars.push_back({Printable(section.name), {{section.addr, section.End()}}});
    all.ranges.push_back(bars.back().ranges.front());
  }
  if (bars.size() > MOST_BARS) bars.clear();
  std::vector<Bar> slots;
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const auto& image = file.slots[idx].image;
    if (!image || SlotExtent(file) == 0) continue;
    Bar bar{Text("slot ", idx), {{image->addr, image->addr + SlotExtent(file)}}};
    if (const auto& ps = file.slots[idx].pointer_sector) {
      const SectionLines* section = file.SectionAt(ps->addr);
      bar.ranges.emplace_back(ps->addr,
                              section == nullptr ? std::uint64_t{ps->addr} + 4 : section->End());
    }
    slots.push_back(std::move(bar));
  }
  std::vector<Bar> every = bars;
  every.push_back(all);
  every.insert(every.end(), slots.begin(), slots.end());
  Bar both{"both", {}};  // where the slots are in each other's way
  for (const Bar& slot : slots) {
    both.ranges.insert(both.ranges.end(), slot.ranges.begin(), slot.ranges.end());
  }
  Bar fields{"fields", {}};
  for (const FieldLine& field : file.fields) {
    fields.ranges.emplace_back(field.addr, field.End());
  }
  Bar crcs{"CRCs", {}};
  for (const CrcLine& crc : file.crcs) crcs.ranges.emplace_back(crc.from, crc.End());
  if (!fields.ranges.empty()) every.push_back(fields);
  if (!crcs.ranges.empty()) every.push_back(crcs);

  const AddressMap map(every);
  if (map.IsEmpty()) return "";
  std::string text = "\nMap, " + map.Scale() + " (X: overlap)\n";
  const auto draw = [&](const Bar& bar, char mark) { text += map.Draw(bar, mark) + "\n"; };
  for (const Bar& bar : bars) draw(bar, '#');
  draw(all, '#');
  for (std::size_t i = 0; i < slots.size(); ++i) draw(slots[i], static_cast<char>('0' + i));
  if (slots.size() > 1) draw(both, '=');
  if (!fields.ranges.empty()) draw(fields, 'f');
  if (!crcs.ranges.empty()) draw(crcs, 'c');
  return text;
}

std::vector<const SectionLines*> ByAddress(const ImageFile& file) {
  std::vector<const SectionLines*> sections;
  for (const SectionLines& section : file.sections) {
    if (section.kept) sections.push_back(&section);
  }
  std::ranges::stable_sort(sections, {}, &SectionLines::addr);
  return sections;
}

std::vector<const FieldLine*> FieldsUnder(const ImageFile& file, const CrcLine& crc) {
  std::vector<const FieldLine*> fields;
  for (const FieldLine& field : file.fields) {
    if (field.addr < crc.End() && field.End() > crc.from) {
      fields.push_back(&field);
    }
  }
  return fields;
}

std::string SectionNameAt(const ImageFile& file, std::uint64_t addr) {
  for (const SectionLines& section : file.sections) {
    if (section.kept && section.addr <= addr && addr < section.End()) {
      return Printable(section.name);
    }
  }
  return "";
}

std::string HeadText(const ImageFile& file) {
  const Burning burning = BurningOf(file);
  const std::string version = FirmwareVersion(file);
  const std::string burn = burning.failsafe.empty() ? ""
                                                    : "burn         " + burning.failsafe +
                                                          ", with -n " + burning.with_n + "\n";
  return Text(Printable(file.name), "\n\n", "device type  ",
              file.device_type_line == 0 ? "none" : Printable(file.device_type_word), "\n",
              "firmware     ", version.empty() ? "no version" : version, "\n", "memory       ",
              burning.memory, "\n", burn, "slots        ", burning.slots, "\n", "bytes        ",
              BytesOf(file), " in ", ByAddress(file).size(), " sections\n");
}

// The tables: each begins with an empty line, and is empty where the image has nothing for it.

std::string SlotTable(const ImageFile& file) {
  const bool has_slots = std::ranges::any_of(file.slots, [](const SlotLines& slot) {
    return slot.image || slot.pointer_sector || slot.signature;
  });
  if (!has_slots) return "";
  const auto addr = [](const std::optional<AddrLine>& place) {
    return place ? Hex8(place->addr) : std::string("-");
  };
  std::string table = "\nSlot  Image     ends      Pointer sector  Signature\n";
  for (std::uint32_t idx = 0; idx < device::SLOTS; ++idx) {
    const SlotLines& slot = file.slots[idx];
    const std::string end = slot.image ? Hex8(slot.image->addr + SlotExtent(file)) : "-";
    table += Text(idx, "     ", Padded(addr(slot.image), 10), Padded(end, 10),
                  Padded(addr(slot.pointer_sector), 16), addr(slot.signature), "\n");
  }
  return table;
}

std::string SectionTable(const ImageFile& file, std::uint32_t sector_size) {
  std::string table = "\n" + Padded("Section", 24) + "  Address   Dev:Offset   Size      Lies in\n";
  for (const SectionLines* section : ByAddress(file)) {
    const auto loc = file.image.PlaceOf(section->addr);
    const std::string place = loc ? Text(std::hex, std::setfill('0'), std::setw(2),
                                         std::uint32_t{loc->chip}, ":", std::setw(8), loc->offset)
                                  : "unmapped";
    table += Text(Padded(Printable(section->name), 24), "  ", Hex8(section->addr), "  ",
                  Padded(place, 11), "  ", Hex8(section->size), "  ",
                  PlaceName(file, section->addr, sector_size), "\n");
  }
  return table;
}

std::string ChipTable(const ImageFile& file) {
  if (file.chips.empty()) return "";
  std::string table = "\nDevice  Size      Addresses\n";
  std::uint64_t base = 0;
  for (const ChipLine& chip : file.chips) {
    table += Text(Padded(HexText(chip.chip), 8), Hex8(chip.size), "  ", Hex8(base), " to ",
                  Hex8(base + chip.size), "\n");
    base += chip.size;
  }
  return table;
}

std::string FieldTable(const ImageFile& file, std::uint32_t sector_size) {
  if (file.fields.empty()) return "";
  std::string table = "\nField      Address   Size  Section                   Lies in\n";
  for (const FieldLine& field : file.fields) {
    table += Text(Padded(std::string(device::RowOf(field.type).keyword), 11), Hex8(field.addr),
                  "  ", Padded(std::to_string(field.Size()), 6),
                  Padded(Shown(SectionNameAt(file, field.addr)), 24), "  ",
                  PlaceName(file, field.addr, sector_size),
                  IsReplaced(file.image, field) ? "" : ", not replaced", "\n");
  }
  return table;
}

std::string CrcTable(const ImageFile& file, std::uint32_t sector_size) {
  if (file.crcs.empty()) return "";
  std::string table = "\nCRC at    covers                Lies in           Fields covered\n";
  for (const CrcLine& crc : file.crcs) {
    table += Text(Hex8(crc.addr), "  ", Hex8(crc.from), " to ", Hex8(crc.End()), "  ",
                  Padded(PlaceName(file, crc.from, sector_size), 16));
    for (const FieldLine* field : FieldsUnder(file, crc)) {
      table += Text("  ", device::RowOf(field->type).keyword);
    }
    table += "\n";
  }
  return table;
}

/// The result as text.
std::string Description(const ImageFile& file, std::uint32_t sector_size) {
  return HeadText(file) + SlotTable(file) + SectionTable(file, sector_size) + ChipTable(file) +
         FieldTable(file, sector_size) + CrcTable(file, sector_size) + MapText(file);
}

nlohmann::ordered_json Json(const ImageFile& file, std::uint32_t sector_size) {
  using Value = nlohmann::ordered_json;
  const Burning burning = BurningOf(file);
  const auto address = [](const std::optional<AddrLine>& place) {
    return place ? Value(place->addr) : Value(nullptr);
  };
  const auto text = [](const std::string& s) { return s.empty() ? Value(nullptr) : Value(s); };
  Value slots = Value::array();
  for (const SlotLines& slot : file.slots) {
    slots.push_back({{"image", address(slot.image)},
                     {"size", SlotExtent(file)},
                     {"pointer_sector", address(slot.pointer_sector)},
                     {"signature", address(slot.signature)}});
  }
  Value sections = Value::array();
  for (const SectionLines* section : ByAddress(file)) {
    const auto loc = file.image.PlaceOf(section->addr);
    sections.push_back({{"name", section->name},
                        {"address", section->addr},
                        {"device", loc ? Value(loc->chip) : Value(nullptr)},
                        {"offset", loc ? Value(loc->offset) : Value(nullptr)},
                        {"size", section->size},
                        {"line", section->line},
                        {"lies_in", PlaceName(file, section->addr, sector_size)}});
  }
  Value devices = Value::array();
  std::uint64_t base = 0;
  for (const ChipLine& chip : file.chips) {
    devices.push_back({{"device", chip.chip}, {"size", chip.size}, {"address", base}});
    base += chip.size;
  }
  Value fields = Value::array();
  for (const FieldLine& field : file.fields) {
    fields.push_back({{"type", device::RowOf(field.type).keyword},
                      {"address", field.addr},
                      {"size", field.Size()},
                      {"line", field.line},
                      {"section", text(SectionNameAt(file, field.addr))},
                      {"lies_in", PlaceName(file, field.addr, sector_size)},
                      {"replaced", IsReplaced(file.image, field)}});
  }
  Value crcs = Value::array();
  for (const CrcLine& crc : file.crcs) {
    Value covered = Value::array();
    for (const FieldLine* field : FieldsUnder(file, crc)) {
      covered.push_back({{"type", device::RowOf(field->type).keyword}, {"address", field->addr}});
    }
    crcs.push_back({{"address", crc.addr},
                    {"from", crc.from},
                    {"size", crc.size},
                    {"line", crc.line},
                    {"lies_in", PlaceName(file, crc.from, sector_size)},
                    {"fields", std::move(covered)}});
  }
  return {{"version", 1},
          {"command", "info"},
          {"file", file.name},
          {"device_type", text(file.device_type_word)},
          {"firmware", text(FirmwareVersion(file))},
          {"memory", burning.memory},
          {"burn", text(burning.failsafe)},
          {"burn_with_n", text(burning.with_n)},
          {"bytes", BytesOf(file)},
          {"slots", std::move(slots)},
          {"sections", std::move(sections)},
          {"devices", std::move(devices)},
          {"fields", std::move(fields)},
          {"crcs", std::move(crcs)}};
}

int Run(const Options& options) {
  common::RefuseSameFiles({{"FILE", options.file}}, {});
  const ImageFile file = LoadImageFile(options.file);
  const std::uint32_t sector_size = common::ParseByteCount(options.sector_size).value();
  if (options.as_json) {
    std::cout << common::DumpJson(Json(file, sector_size)) << "\n";
  } else {
    std::cout << Description(file, sector_size);
  }
  return ALL_WELL;
}

}  // namespace

void AddInfo(CommandLine& program) {
  const auto options = std::make_shared<Options>();
  CommandLine& command =
      program.AddCommand("info", "Shows what is in an image file, and what it means for a burn");
  command.Add("FILE", options->file, "Image file").Required();
  command
      .Add("--sector-size", options->sector_size,
           "Bytes of a sector of the flash that the image is for")
      .ShowDefault()
      .Check(SectorSizeCheck);
  command.AddFlag("--json", options->as_json, "Prints one JSON object");
  command.SetWork([options] { return Run(*options); });
}

}  // namespace fwimg
