/// fwimg info: what is in an image file, and what it means for a burn.
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "fwimg/Commands.h"
#include "fwimg/ImageView.h"
#include "src/main.h"
#include "src/utils.h"

namespace tools {

namespace {

struct Options {
  std::string file;
  std::string sector_size = "0x10000";
  bool as_json = false;
};

// The map: a label and a bar.
constexpr std::size_t LABEL = 8;
constexpr u_int64_t COLUMNS = 64;
constexpr std::size_t MOST_BARS = 24;  ///< of sections; more are drawn together only

/// What a device type means for the burn.
struct Burning {
  std::string memory = "unknown: fwpush cannot burn this device type";
  std::string failsafe;  ///< algorithm of a plain burn
  std::string with_n;    ///< and of one with -n
  std::string slots = "none";
};

Burning BurningOf(const ImageView& view) {
  Burning burning;
  const DeviceType type = view.Image().DevType();
  const Family family = view.DeviceFamily();
  if (family == Family::UNKNOWN) return burning;
  const auto memory = GetRomInterface(type, 0, false, false);
  const bool is_flash = sim::IsFlash(type);
  burning.memory = is_flash ? "serial flash, one device a run" : "I2C EEPROM, many devices at once";
  burning.failsafe = GetBurnAlgorithm(type, memory.get(), true, false, false)->GetName();
  burning.with_n = GetBurnAlgorithm(type, memory.get(), false, false, false)->GetName();
  if (family == Family::POINTER_SECTORS) burning.slots = "two, valid by their pointer sectors";
  if (family == Family::BOOT_RECORDS) burning.slots = "two, valid by their boot records";
  return burning;
}

std::string Hex8(u_int64_t number) {
  return Text(std::hex, std::setfill('0'), std::setw(8), number);
}

std::string Padded(const std::string& text, std::size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

/// What the bytes from `addr` on belong to: "invariant sector", "pointer sector 0", "slot 1".
std::string PlaceName(const ImageView& view, u_int64_t addr, u_int32_t sector_size) {
  const Family family = view.DeviceFamily();
  for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
    const SlotView& slot = view.Slots()[idx];
    if (slot.ps && family == Family::POINTER_SECTORS) {
      const SectionView* ps = view.SectionAt(slot.ps->addr);
      const u_int64_t size = ps == nullptr ? sector_size : ps->size;
      if (slot.ps->addr <= addr && addr < slot.ps->addr + size) {
        return Text("pointer sector ", idx);
      }
    }
    if (slot.image && slot.image->addr <= addr && addr < slot.image->addr + view.ImageExtent()) {
      return Text("slot ", idx);
    }
  }
  if (family == Family::POINTER_SECTORS && addr < sector_size) return "invariant sector";
  return "-";
}

std::string Shown(const std::string& text) { return text.empty() ? "-" : text; }

struct Bar {
  std::string label;
  std::vector<std::pair<u_int64_t, u_int64_t>> ranges;  ///< from and end
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
    const auto fill = [&](u_int64_t from, u_int64_t end, char c) {
      if (from >= end) return;
      const std::size_t first = (from - _from) / _column;
      const std::size_t last = (end - 1 - _from) / _column;
      std::fill_n(drawn.begin() + static_cast<std::ptrdiff_t>(first), last - first + 1, c);
    };
    auto ranges = bar.ranges;
    std::ranges::sort(ranges);
    for (const auto& [from, end] : ranges) fill(from, end, mark);
    u_int64_t furthest = 0;
    for (const auto& [from, end] : ranges) {
      fill(from, std::min(end, furthest), 'X');
      furthest = std::max(furthest, end);
    }
    return Padded(bar.label.substr(0, LABEL - 1), LABEL) + drawn;
  }

 private:
  u_int64_t _from = ~u_int64_t{0};
  u_int64_t _end = 0;
  u_int64_t _column = 1;
};

void PrintMap(const ImageView& view) {
  std::vector<Bar> bars;
  Bar all{"all", {}};
  for (const SectionView& section : view.Sections()) {
    if (!section.is_kept || section.size == 0) continue;
    bars.push_back({Printable(section.name), {{section.addr, section.End()}}});
    all.ranges.push_back(bars.back().ranges.front());
  }
  if (bars.size() > MOST_BARS) bars.clear();
  std::vector<Bar> slots;
  for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
    const auto& image = view.Slots()[idx].image;
    if (!image || view.ImageExtent() == 0) continue;
    Bar bar{Text("slot ", idx), {{image->addr, image->addr + view.ImageExtent()}}};
    if (const auto& ps = view.Slots()[idx].ps) {
      const SectionView* section = view.SectionAt(ps->addr);
      bar.ranges.emplace_back(ps->addr,
                              section == nullptr ? u_int64_t{ps->addr} + 4 : section->End());
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
  for (const FieldView& field : view.Fields()) {
    fields.ranges.emplace_back(field.from, u_int64_t{field.from} + field.size);
  }
  Bar crcs{"CRCs", {}};
  for (const CrcView& crc : view.Crcs()) crcs.ranges.emplace_back(crc.from, crc.End());
  if (!fields.ranges.empty()) every.push_back(fields);
  if (!crcs.ranges.empty()) every.push_back(crcs);

  const AddressMap map(every);
  if (map.IsEmpty()) return;
  std::cout << "\nMap, " << map.Scale() << " (X: overlap)\n";
  for (const Bar& bar : bars) std::cout << map.Draw(bar, '#') << "\n";
  std::cout << map.Draw(all, '#') << "\n";
  for (std::size_t i = 0; i < slots.size(); ++i) {
    std::cout << map.Draw(slots[i], static_cast<char>('0' + i)) << "\n";
  }
  if (slots.size() > 1) std::cout << map.Draw(both, '=') << "\n";
  if (!fields.ranges.empty()) std::cout << map.Draw(fields, 'f') << "\n";
  if (!crcs.ranges.empty()) std::cout << map.Draw(crcs, 'c') << "\n";
}

std::vector<const SectionView*> ByAddress(const ImageView& view) {
  std::vector<const SectionView*> sections;
  for (const SectionView& section : view.Sections()) {
    if (section.is_kept) sections.push_back(&section);
  }
  std::ranges::stable_sort(sections, {}, &SectionView::addr);
  return sections;
}

/// Where an address is on the devices; none where no device has it.
std::optional<EeLoc> LocationOf(const ImageView& view, u_int32_t addr) {
  try {
    return view.Map().Convert(addr);
  } catch (const BraidError&) {
    return std::nullopt;
  }
}

std::vector<const FieldView*> FieldsUnder(const ImageView& view, const CrcView& crc) {
  std::vector<const FieldView*> fields;
  for (const FieldView& field : view.Fields()) {
    if (field.from < crc.End() && u_int64_t{field.from} + field.size > crc.from) {
      fields.push_back(&field);
    }
  }
  return fields;
}

std::string SectionNameAt(const ImageView& view, u_int64_t addr) {
  for (const SectionView& section : view.Sections()) {
    if (section.is_kept && section.addr <= addr && addr < section.End()) {
      return Printable(section.name);
    }
  }
  return "";
}

void Print(const ImageView& view, u_int32_t sector_size) {
  const Burning burning = BurningOf(view);
  const std::string version = view.FirmwareVersion();
  std::cout << Printable(view.Path()) << "\n\n"
            << "device type  "
            << (view.DeviceTypeLine() == 0 ? "none" : Printable(view.DeviceTypeWord())) << "\n"
            << "firmware     " << (version.empty() ? "no version" : version) << "\n"
            << "memory       " << burning.memory << "\n";
  if (!burning.failsafe.empty()) {
    std::cout << "burn         " << burning.failsafe << ", with -n " << burning.with_n << "\n";
  }
  std::cout << "slots        " << burning.slots << "\n"
            << "bytes        " << view.Image().GetTotalSize() << " in " << ByAddress(view).size()
            << " sections\n";

  const bool has_slots = std::ranges::any_of(
      view.Slots(), [](const SlotView& slot) { return slot.image || slot.ps || slot.signature; });
  if (has_slots) {
    std::cout << "\nSlot  Image     ends      Pointer sector  Signature\n";
    for (u_int32_t idx = 0; idx < FwImage::SLOTS; ++idx) {
      const SlotView& slot = view.Slots()[idx];
      const auto addr = [](const std::optional<MarkedAddr>& place) {
        return place ? Hex8(place->addr) : std::string("-");
      };
      std::cout << idx << "     " << Padded(addr(slot.image), 10)
                << Padded(slot.image ? Hex8(slot.image->addr + view.ImageExtent()) : "-", 10)
                << Padded(addr(slot.ps), 16) << addr(slot.signature) << "\n";
    }
  }
  std::cout << "\n" << Padded("Section", 24) << "  Address   Dev:Offset   Size      Lies in\n";
  for (const SectionView* section : ByAddress(view)) {
    const auto loc = LocationOf(view, section->addr);
    const std::string place = loc ? Text(std::hex, std::setfill('0'), std::setw(2),
                                         u_int32_t{loc->dev}, ":", std::setw(8), loc->offset)
                                  : "unmapped";
    std::cout << Padded(Printable(section->name), 24) << "  " << Hex8(section->addr) << "  "
              << Padded(place, 11) << "  " << Hex8(section->size) << "  "
              << PlaceName(view, section->addr, sector_size) << "\n";
  }
  if (!view.Devices().empty()) {
    std::cout << "\nDevice  Size      Addresses\n";
    u_int64_t base = 0;
    for (const MappedDevice& device : view.Devices()) {
      std::cout << Padded(HexText(device.dev), 8) << Hex8(device.size) << "  " << Hex8(base)
                << " to " << Hex8(base + device.size) << "\n";
      base += device.size;
    }
  }
  if (!view.Fields().empty()) {
    std::cout << "\nField      Address   Size  Section                   Lies in\n";
    for (const FieldView& field : view.Fields()) {
      std::cout << Padded(FieldKeyword(field.type), 11) << Hex8(field.from) << "  "
                << Padded(std::to_string(field.size), 6)
                << Padded(Shown(SectionNameAt(view, field.from)), 24) << "  "
                << PlaceName(view, field.from, sector_size)
                << (view.IsReplaced(field) ? "" : ", not replaced") << "\n";
    }
  }
  if (!view.Crcs().empty()) {
    std::cout << "\nCRC at    covers                Lies in           Fields covered\n";
    for (const CrcView& crc : view.Crcs()) {
      std::cout << Hex8(crc.crc_addr) << "  " << Hex8(crc.from) << " to " << Hex8(crc.End()) << "  "
                << Padded(PlaceName(view, crc.from, sector_size), 16);
      for (const FieldView* field : FieldsUnder(view, crc)) {
        std::cout << "  " << FieldKeyword(field->type);
      }
      std::cout << "\n";
    }
  }
  PrintMap(view);
}

nlohmann::ordered_json Json(const ImageView& view, u_int32_t sector_size) {
  using Value = nlohmann::ordered_json;
  const Burning burning = BurningOf(view);
  const auto address = [](const std::optional<MarkedAddr>& place) {
    return place ? Value(place->addr) : Value(nullptr);
  };
  const auto text = [](const std::string& s) { return s.empty() ? Value(nullptr) : Value(s); };
  Value slots = Value::array();
  for (const SlotView& slot : view.Slots()) {
    slots.push_back({{"image", address(slot.image)},
                     {"size", view.ImageExtent()},
                     {"pointer_sector", address(slot.ps)},
                     {"signature", address(slot.signature)}});
  }
  Value sections = Value::array();
  for (const SectionView* section : ByAddress(view)) {
    const auto loc = LocationOf(view, section->addr);
    sections.push_back({{"name", section->name},
                        {"address", section->addr},
                        {"device", loc ? Value(loc->dev) : Value(nullptr)},
                        {"offset", loc ? Value(loc->offset) : Value(nullptr)},
                        {"size", section->size},
                        {"line", section->line},
                        {"lies_in", PlaceName(view, section->addr, sector_size)}});
  }
  Value devices = Value::array();
  u_int64_t base = 0;
  for (const MappedDevice& device : view.Devices()) {
    devices.push_back({{"device", device.dev}, {"size", device.size}, {"address", base}});
    base += device.size;
  }
  Value fields = Value::array();
  for (const FieldView& field : view.Fields()) {
    fields.push_back({{"type", FieldKeyword(field.type)},
                      {"address", field.from},
                      {"size", field.size},
                      {"line", field.line},
                      {"section", text(SectionNameAt(view, field.from))},
                      {"lies_in", PlaceName(view, field.from, sector_size)},
                      {"replaced", view.IsReplaced(field)}});
  }
  Value crcs = Value::array();
  for (const CrcView& crc : view.Crcs()) {
    Value covered = Value::array();
    for (const FieldView* field : FieldsUnder(view, crc)) {
      covered.push_back({{"type", FieldKeyword(field->type)}, {"address", field->from}});
    }
    crcs.push_back({{"address", crc.crc_addr},
                    {"from", crc.from},
                    {"size", crc.size},
                    {"line", crc.line},
                    {"lies_in", PlaceName(view, crc.from, sector_size)},
                    {"fields", std::move(covered)}});
  }
  return {{"version", 1},
          {"command", "info"},
          {"file", view.Path()},
          {"device_type", text(view.DeviceTypeWord())},
          {"firmware", text(view.FirmwareVersion())},
          {"memory", burning.memory},
          {"burn", text(burning.failsafe)},
          {"burn_with_n", text(burning.with_n)},
          {"bytes", view.Image().GetTotalSize()},
          {"slots", std::move(slots)},
          {"sections", std::move(sections)},
          {"devices", std::move(devices)},
          {"fields", std::move(fields)},
          {"crcs", std::move(crcs)}};
}

int Run(const Options& options) {
  const ImageView view(options.file);
  view.RequireImage();
  const u_int32_t sector_size = ParseByteCount(options.sector_size).value();
  if (options.as_json) {
    std::cout
        << Json(view, sector_size).dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
        << "\n";
  } else {
    Print(view, sector_size);
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
      .Check(ByteCountCheck);
  command.AddFlag("--json", options->as_json, "Prints one JSON object");
  command.SetWork(Told([options] { return Run(*options); }));
}

}  // namespace tools
