#include "fwimg/ImageFacts.h"

#include <algorithm>

#include "fwimg/Names.h"

namespace fwimg {

bool IsFlash(const device::Image& image) { return image.IsFlash(); }

bool IsReplaced(const device::Image& image, const device::Field& field) {
  const bool is_generic = image.type != nullptr && image.type->slots == SlotKind::NONE;
  return !is_generic || !device::IsLeftByPlainBurn(field.type);
}

bool HasSlots(const device::ImageFile& file) {
  const SlotKind kind = file.image.Slots();
  if (kind == SlotKind::NONE) return false;
  for (const device::Slot& slot : file.image.slots) {
    if (!slot.image) return false;
    const bool has_record = slot.pointer_sector && slot.signature;
    if (kind == SlotKind::POINTER_SECTORS && !has_record) return false;
  }
  return !file.SlotSections().empty();
}

std::uint64_t SlotExtent(const device::ImageFile& file) {
  std::uint64_t end = 0;
  const auto sections = file.SlotSections();
  for (const device::SectionLines* section : sections) end = std::max(end, section->End());
  return sections.empty() ? 0 : end - std::min<std::uint64_t>(end, sections.front()->addr);
}

std::string FirmwareVersion(const device::ImageFile& file) {
  const auto& parts = file.version;
  if (std::ranges::none_of(parts, [](const auto& part) { return part.has_value(); })) return "";
  std::string version;
  for (const auto& part : parts) {
    version += (version.empty() ? "" : ".") + common::Printable(part.value_or("?"));
  }
  return version;
}

}  // namespace fwimg
