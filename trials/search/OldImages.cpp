#include "trials/search/OldImages.h"

#include <algorithm>

#include "device/Boot.h"
#include "device/Burn.h"
#include "trials/search/ImageEdits.h"
#include "trials/soak/ImageText.h"

namespace search {

using device::Image;
using device::Section;
using soak::Random;

Image WithOtherSizes(Image image, Random& random) {
  for (const device::Slot& slot : image.slots) {
    Section* section = SectionAt(image, slot.pointer_sector);
    if (section == nullptr || section->data.size() < device::POINTER_RECORD_SIZE) continue;
    SetWord(section, device::RECORD_IMAGE_SIZE,
            device::WORD_SIZE * random.Below(image.SlotBytes() / 2));
    SignRecord(*section);
  }
  return image;
}

std::optional<Image> ImageToMove(const Image& next, std::uint32_t sector_size, Random& random) {
  if (next.Slots() != device::SlotKind::POINTER_SECTORS || !next.slots[0].image) return {};
  const std::uint32_t from = *next.slots[0].image;
  const std::uint32_t moved_to = device::FIRST_IMAGE_SECTOR * sector_size;
  const std::uint32_t most_sectors = next.SlotBytes() / sector_size;
  if (most_sectors == 0) return {};
  const std::uint32_t sectors = 1 + random.Below(most_sectors);
  const std::uint32_t size =
      (sectors - 1) * sector_size +
      device::WORD_SIZE * (1 + random.Below(sector_size / device::WORD_SIZE));

  Image old = next;
  std::erase_if(old.sections, [&](const Section& section) {
    return section.addr >= sector_size && section.addr != next.slots[0].pointer_sector &&
           section.addr != next.slots[1].pointer_sector;
  });
  old.sections.push_back({"OLD", from, random.Bytes(size)});
  old.fields.clear();
  old.crcs.clear();
  // Behind the first slot, and behind the place that the image is moved to.
  old.slots[1].image = std::max(from, moved_to) + sectors * sector_size;
  const bool is_cut = random.Chance(60);
  for (const device::Slot& slot : old.slots) {
    Section* record = SectionAt(old, slot.pointer_sector);
    if (record == nullptr || record->data.size() < device::POINTER_RECORD_SIZE) return {};
    SetWord(record, 0, *slot.image);
    SetWord(record, device::RECORD_IMAGE_SIZE, is_cut ? random.Below(size) : size);
    SignRecord(*record);
  }
  soak::OrderSections(old);
  return old;
}

}  // namespace search
