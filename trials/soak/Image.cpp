#include "trials/soak/Image.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "src/utils.h"

namespace soak {

namespace {

constexpr auto FIELD_ROWS = std::to_array<FieldRow>({
    {FieldType::SIGNATURE, "SIGNATURE", 4},
    {FieldType::GUIDS, "GUIDS", 32},
    {FieldType::GUID, "GUID", 8},
    {FieldType::SYS_GUID, "SYSGUID", 8},
    {FieldType::BSN, "BSN", 64},
    {FieldType::VSD, "VSD", 208},
});

std::string Number(u_int32_t value, Random& random) {
  std::string text = Text(std::hex, value);
  if (random.Chance(20)) {
    std::ranges::transform(text, text.begin(),
                           [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  }
  return (random.Chance(10) ? "0x" : random.Chance(10) ? "0" : "") + text;
}

/// "OFFSET CHIP". An offset past the end of a chip means the next one.
std::string Location(const Image& image, u_int32_t addr, Random& random) {
  Place place = PlaceOf(image, addr);
  if (!image.map.empty() && random.Chance(10)) place = {addr, image.map.front().chip};
  return Number(place.offset, random) + " " + Number(place.chip, random);
}

void Write(const Section& section, const Image& image, Random& random, bool is_open,
           std::string& text) {
  const std::string blank = random.Chance(10) ? "\t" : random.Chance(10) ? "  " : " ";
  std::string location = Location(image, section.addr, random);
  location.replace(location.find(' '), 1, blank);
  text += "START" + blank + section.name + blank + location + "\n";
  // A line may hold up to 1022 characters, 5 a byte at most.
  const std::size_t a_line = 4 * random.OneOf<std::size_t>({1, 4, 4, 8, 16, 50});
  for (std::size_t i = 0; i < section.data.size(); ++i) {
    text += (i % a_line == 0 ? "" : " ") + Number(section.data[i], random);
    if (i % a_line == a_line - 1 || i + 1 == section.data.size()) {
      text += "\n";
      if (random.Chance(3)) text += random.Chance(50) ? "\n" : "  # in a section 1 2 3\n";
    }
  }
  if (!is_open) text += "END " + section.name + "\n";
}

}  // namespace

const FieldRow& RowOf(FieldType type) {
  return *std::ranges::find(FIELD_ROWS, type, &FieldRow::type);
}

u_int32_t Image::MappedSize() const {
  return std::accumulate(map.begin(), map.end(), u_int32_t{0},
                         [](u_int32_t sum, const MappedChip& chip) { return sum + chip.size; });
}

std::vector<const Section*> Image::SlotSections() const {
  std::vector<const Section*> found;
  for (const Section& section : sections) {
    if (section.addr == slot[1] && !found.empty()) break;
    if (section.addr == slot[0] || !found.empty()) found.push_back(&section);
  }
  return found;
}

u_int32_t Image::Extent() const {
  u_int32_t end = slot[0];
  for (const Section* section : SlotSections()) end = std::max(end, section->End());
  return end - slot[0];
}

u_int32_t Image::SlotBytes() const {
  u_int32_t sum = 0;
  for (const Section* section : SlotSections()) sum += section->Size();
  return sum;
}

Place PlaceOf(const Image& image, u_int32_t addr) {
  if (image.map.empty()) return {addr, 0};
  u_int32_t rest = addr;
  for (const MappedChip& chip : image.map) {
    if (rest < chip.size) return {rest, chip.chip};
    rest -= chip.size;
  }
  // Just behind the last byte.
  return {rest + image.map.back().size, image.map.back().chip};
}

std::string TextOf(const Image& image, Random& random) {
  const auto location = [&](u_int32_t addr) { return " " + Location(image, addr, random); };
  std::vector<std::string> fields;
  for (const Field& field : image.fields) {
    const bool has_directive = std::ranges::any_of(image.ps, [&](u_int32_t ps) {
      return ps != UNPLACED && field.addr == ps + SIGNATURE_OFFSET;
    });
    if (has_directive) continue;
    fields.push_back(Text("REPLACE ", RowOf(field.type).keyword, location(field.addr)));
  }
  for (const CrcField& crc : image.crcs) {
    const std::string from = location(crc.from);
    fields.push_back(
        Text("REPLACE CRC", from, location(crc.from + crc.size - 4), location(crc.place)));
  }
  std::vector<std::string> slots;
  for (const u_int32_t i : {0u, 1u}) {
    if (image.ps[i] != UNPLACED) {
      slots.push_back(Text("PS ", i, location(image.ps[i])));
      slots.push_back(Text("SIGNATURE ", i, location(image.ps[i] + SIGNATURE_OFFSET)));
    }
    if (image.slot[i] != UNPLACED) slots.push_back(Text("IMAGE ", i, location(image.slot[i])));
  }
  random.Shuffle(slots);

  std::string text;
  const auto add = [&](const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      if (random.Chance(5)) text += random.Chance(50) ? "\n" : " \t# a comment\n";
      text += line + "\n";
    }
  };
  const std::vector<std::string> type = {"DEVICE_TYPE " + image.type};
  std::vector<std::string> head;
  for (const MappedChip& chip : image.map) {
    head.push_back(Text("DEVMAP ", Number(chip.size, random), " ", Number(chip.chip, random)));
  }
  if (random.Chance(30)) head.push_back("MAJ_FW_VER " + Number(random.Below(20), random));
  add(head);
  if (!image.bsn_first) add(type);
  // Where directives stand among sections does not matter, but for the type before a BSN.
  const bool fields_last = !image.bsn_first && random.Chance(30);
  const bool slots_last = random.Chance(30);
  if (!fields_last) add(fields);
  if (image.bsn_first) add(type);
  if (!slots_last) add(slots);
  const bool may_stay_open = !fields_last && !slots_last && image.spoilt.empty();
  for (std::size_t i = 0; i < image.sections.size(); ++i) {
    const bool is_last = i + 1 == image.sections.size();
    Write(image.sections[i], image, random, is_last && may_stay_open && random.Chance(10), text);
  }
  if (fields_last) add(fields);
  if (slots_last) add(slots);
  add(image.spoilt);
  return text;
}

}  // namespace soak
