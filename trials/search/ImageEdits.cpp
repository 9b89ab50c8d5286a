#include "trials/search/ImageEdits.h"

#include <algorithm>

#include "device/Boot.h"
#include "device/Crc.h"

namespace search {

using device::Bytes;
using device::Image;
using device::Section;
using soak::Random;

Section* SectionAt(Image& image, std::optional<std::uint32_t> addr) {
  const auto found = std::ranges::find(
      image.sections, addr, [](const Section& section) { return std::optional(section.addr); });
  return found == image.sections.end() ? nullptr : &*found;
}

std::optional<std::uint32_t>& PickAddress(Image& image, Random& random) {
  device::Slot& slot = image.slots[random.Below(device::SLOTS)];
  if (!slot.pointer_sector) return slot.image;
  return *random.OneOf<std::optional<std::uint32_t>*>(
      {&slot.image, &slot.pointer_sector, &slot.signature});
}

std::uint32_t Distance(Random& random) {
  const auto step = random.OneOf<std::uint32_t>(
      {1, 4, 4, 32, 0x100, 0x200, 0x400, 0x800, 0x1000, random.Below(0x3000)});
  return random.Chance(50) ? step : 0 - step;
}

Section& PickSection(Image& image, Random& random) {
  return image.sections[random.Below(image.sections.size())];
}

std::uint32_t PickPlace(const Image& image, Random& random) {
  const Section& section = image.sections[random.Below(image.sections.size())];
  const std::uint32_t at = random.Below(section.data.size() + 8);
  return section.addr + (random.Chance(80) ? at / 4 * 4 : at);
}

std::uint32_t Mirrored(const Image& image, std::uint32_t addr) {
  if (!image.slots[0].image || !image.slots[1].image || addr < *image.slots[0].image) return addr;
  return addr - *image.slots[0].image + *image.slots[1].image;
}

bool SetWord(Section* section, std::uint32_t offset, std::uint32_t value) {
  if (section == nullptr || section->data.size() < offset + 4) return false;
  Bytes word;
  device::AppendWord(word, value);
  std::ranges::copy(word, section->data.begin() + offset);
  return true;
}

void SignRecord(Section& section) {
  Bytes record(section.data.begin(), section.data.begin() + device::RECORD_CRC);
  std::ranges::copy(device::WordBytes(device::VALID_SIGNATURE),
                    record.begin() + device::RECORD_SIGNATURE);
  SetWord(&section, device::RECORD_CRC, device::CrcOf(record));
}

}  // namespace search
