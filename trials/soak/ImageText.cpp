#include "trials/soak/ImageText.h"

#include <algorithm>

#include "common/Text.h"

namespace soak {

using common::Text;

namespace {

std::string Number(std::uint32_t value, Random& random) {
  std::string text = Text(std::hex, value);
  if (random.Chance(20)) {
    std::ranges::transform(text, text.begin(),
                           [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  }
  return (random.Chance(10) ? "0x" : random.Chance(10) ? "0" : "") + text;
}

/// "OFFSET CHIP". An offset past the end of a chip means the next one.
std::string Location(const Image& image, std::uint32_t addr, Random& random) {
  device::ChipPlace place = PlaceOf(image, addr);
  if (!image.map.empty() && random.Chance(10)) place = {image.map.front().chip, addr};
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

device::ChipPlace PlaceOf(const Image& image, std::uint32_t addr) {
  if (const auto place = image.PlaceOf(addr)) return *place;
  const MappedChip& last = image.map.back();
  const auto behind = addr - static_cast<std::uint32_t>(*image.MappedSize());
  return {last.chip, behind + last.size};
}

std::string TextOf(const RandomImage& of, Random& random) {
  const Image& image = of.image;
  const auto location = [&](std::uint32_t addr) { return " " + Location(image, addr, random); };
  std::vector<std::string> fields;
  for (const Field& field : image.fields) {
    const bool has_directive = std::ranges::any_of(
        image.slots, [&](const device::Slot& slot) { return slot.signature == field.addr; });
    if (has_directive) continue;
    fields.push_back(Text("REPLACE ", device::RowOf(field.type).keyword, location(field.addr)));
  }
  for (const CrcField& crc : image.crcs) {
    const std::string from = location(crc.from);
    fields.push_back(
        Text("REPLACE CRC", from, location(crc.from + crc.size - 4), location(crc.addr)));
  }
  std::vector<std::string> slots;
  for (const std::uint32_t i : {0u, 1u}) {
    const device::Slot& slot = image.slots[i];
    if (slot.pointer_sector) slots.push_back(Text("PS ", i, location(*slot.pointer_sector)));
    if (slot.signature) slots.push_back(Text("SIGNATURE ", i, location(*slot.signature)));
    if (slot.image) slots.push_back(Text("IMAGE ", i, location(*slot.image)));
  }
  random.Shuffle(slots);

  std::string text;
  const auto add = [&](const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      if (random.Chance(5)) text += random.Chance(50) ? "\n" : " \t# a comment\n";
      text += line + "\n";
    }
  };
  const std::vector<std::string> type = {"DEVICE_TYPE " + of.type};
  std::vector<std::string> head;
  for (const MappedChip& chip : image.map) {
    head.push_back(Text("DEVMAP ", Number(chip.size, random), " ", Number(chip.chip, random)));
  }
  if (random.Chance(30)) head.push_back("MAJ_FW_VER " + Number(random.Below(20), random));
  add(head);
  if (!of.type_after_fields) add(type);
  // Where directives stand among sections does not matter, but for the type before a BSN.
  const bool fields_last = !of.type_after_fields && random.Chance(30);
  const bool slots_last = random.Chance(30);
  if (!fields_last) add(fields);
  if (of.type_after_fields) add(type);
  if (!slots_last) add(slots);
  const bool may_stay_open = !fields_last && !slots_last && of.bad_lines.empty();
  for (std::size_t i = 0; i < image.sections.size(); ++i) {
    const bool is_last = i + 1 == image.sections.size();
    Write(image.sections[i], image, random, is_last && may_stay_open && random.Chance(10), text);
  }
  if (fields_last) add(fields);
  if (slots_last) add(slots);
  add(of.bad_lines);
  return text;
}

}  // namespace soak
