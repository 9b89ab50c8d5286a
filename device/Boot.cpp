#include "device/Boot.h"

#include <numeric>

#include "device/Crc.h"

namespace device {

namespace {

/// The record of a slot; empty where the memory does not hold it.
View RecordOf(const BootLayout& layout, std::uint32_t slot, View memory) {
  const std::size_t start = layout.records.at(slot);
  if (start > memory.size() || layout.RecordSize() > memory.size() - start) return {};
  return memory.subspan(start, layout.RecordSize());
}

}  // namespace

std::optional<BootLayout> LayoutOf(const Image& image, std::uint32_t sector_size) {
  if (image.Slots() == SlotKind::NONE) return std::nullopt;
  BootLayout layout{.kind = image.Slots(), .records = {}, .sector_size = sector_size};
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    const Slot& placed = image.slots[slot];
    const auto record = layout.HasPointerSectors() ? placed.pointer_sector : placed.image;
    if (!record) return std::nullopt;
    layout.records[slot] = *record;
  }
  return layout;
}

bool RecordIsSigned(View record) { return WordAt(record, RECORD_SIGNATURE) == VALID_SIGNATURE; }

std::uint32_t BootRecordSum(View record) {
  return std::accumulate(record.begin(), record.end(), std::uint32_t{0}) % 256;
}

bool RecordBoots(SlotKind kind, std::uint32_t slot, View record) {
  if (kind == SlotKind::POINTER_SECTORS) {
    return RecordIsSigned(record) && WordAt(record, RECORD_CRC) == CrcOf(record.first(RECORD_CRC));
  }
  const View bytes = record.first(BOOT_RECORD_SIZE);
  if (slot == 0 && bytes[FIRST_INVALID_MARK] == 1) return false;
  return BootRecordSum(bytes) == BOOT_RECORD_SUM;
}

bool SlotBoots(const BootLayout& layout, std::uint32_t slot, View memory) {
  const View record = RecordOf(layout, slot, memory);
  return !record.empty() && RecordBoots(layout.kind, slot, record);
}

bool SlotIsSigned(const BootLayout& layout, std::uint32_t slot, View memory) {
  const View record = RecordOf(layout, slot, memory);
  return layout.HasPointerSectors() && !record.empty() && RecordIsSigned(record);
}

std::optional<std::uint32_t> SlotThatBoots(const BootLayout& layout, View memory) {
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    if (SlotBoots(layout, slot, memory)) return slot;
  }
  return std::nullopt;
}

}  // namespace device
