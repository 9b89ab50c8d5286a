#include "device/Image.h"

#include <algorithm>

namespace device {

std::span<const FieldRow> FieldRows() {
  static constexpr auto ROWS = std::to_array<FieldRow>({
      {FieldType::SIGNATURE, "SIGNATURE", 4},
      {FieldType::GUIDS, "GUIDS", 32},
      {FieldType::GUID, "GUID", 8},
      {FieldType::SYS_GUID, "SYSGUID", 8},
      {FieldType::BSN, "BSN", 64},
      {FieldType::VSD, "VSD", 208},
  });
  return ROWS;
}

const FieldRow& RowOf(FieldType type) {
  return FieldRows()[static_cast<std::size_t>(type)];  // the table stands in the enum's order
}

const FieldRow* FindField(std::string_view keyword) {
  const auto rows = FieldRows();
  const auto found = std::ranges::find(rows, keyword, &FieldRow::keyword);
  return found == rows.end() ? nullptr : &*found;
}

const Section* Image::SectionAt(std::uint32_t addr) const {
  const auto found = std::ranges::find(sections, addr, &Section::addr);
  return found == sections.end() ? nullptr : &*found;
}

std::vector<const Section*> Image::SlotSections() const {
  std::vector<const Section*> found;
  if (!slots[0].image || !slots[1].image) return found;
  const auto addr_of = [this](std::size_t index) { return sections[index].addr; };
  const auto first = std::ranges::find(order, *slots[0].image, addr_of);
  const auto last = std::ranges::find(first, order.end(), *slots[1].image, addr_of);
  for (auto index = first; index != last; ++index) found.push_back(&sections[*index]);
  return found;
}

std::uint32_t Image::SlotBytes() const {
  if (!slots[0].image || !slots[1].image) return 0;
  std::uint32_t sum = 0;
  for (const Section& section : sections) {
    if (*slots[0].image <= section.addr && section.addr < *slots[1].image) {
      sum += static_cast<std::uint32_t>(section.data.size());
    }
  }
  return sum;
}

std::optional<std::uint64_t> Image::MappedSize() const {
  if (map.empty()) return std::nullopt;
  std::uint64_t sum = 0;
  for (const MappedChip& mapped : map) sum += mapped.size;
  return sum;
}

std::optional<ChipPlace> Image::PlaceOf(std::uint32_t addr) const {
  if (map.empty()) return ChipPlace{0, addr};
  std::uint32_t rest = addr;
  for (const MappedChip& mapped : map) {
    if (rest < mapped.size) return ChipPlace{mapped.chip, rest};
    rest -= mapped.size;
  }
  return std::nullopt;
}

std::uint64_t Image::LeftInChip(std::uint32_t addr) const {
  if (map.empty()) return ADDRESS_SPACE - addr;
  std::uint64_t end = 0;
  for (const MappedChip& mapped : map) {
    end += mapped.size;
    if (addr < end) return end - addr;
  }
  return 0;
}

std::optional<std::uint32_t> Image::AddressOf(ChipPlace place) const {
  if (map.empty()) return place.chip == 0 ? std::optional(place.offset) : std::nullopt;
  std::uint32_t base = 0;
  for (const MappedChip& mapped : map) {
    if (mapped.chip == place.chip) return base + place.offset;
    base += mapped.size;
  }
  return std::nullopt;
}

std::optional<std::uint32_t> Image::AddressWithin(ChipPlace place, std::uint64_t size) const {
  const auto addr = AddressOf(place);
  if (!addr || map.empty()) return addr;
  // The map may go on past the last address.
  const bool is_there = PlaceOf(*addr) == place && LeftInChip(*addr) >= size;
  return is_there ? addr : std::nullopt;
}

}  // namespace device
