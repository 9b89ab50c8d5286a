#include <algorithm>
#include <utility>

#include "device/Boot.h"
#include "trials/search/ImageEdits.h"
#include "trials/search/Mistakes.h"

namespace search {

using device::Bytes;
using device::Image;
using device::Section;
using soak::Random;

const std::vector<ImageMistake>& ImageMistakes() {
  static const std::vector<ImageMistake> mistakes = {
      {"a slot's address moved",
       [](Image& image, Random& random) {
         auto& addr = PickAddress(image, random);
         if (addr) *addr += Distance(random);
         return addr.has_value();
       }},
      {"a slot's address missing",
       [](Image& image, Random& random) {
         auto& addr = PickAddress(image, random);
         return std::exchange(addr, {}).has_value();
       }},
      {"a slot's address unset",
       [](Image& image, Random& random) {
         auto& addr = PickAddress(image, random);
         if (addr) addr = device::UNSET_ADDR;
         return addr.has_value();
       }},
      {"the second image far away",
       [](Image& image, Random& random) {
         if (!image.slots[1].image) return false;
         image.slots[1].image = random.OneOf<std::uint32_t>({0xFFFFF000, 0x100000, 0x20000});
         return true;
       }},
      {"the slots exchanged",
       [](Image& image, Random&) {
         std::swap(image.slots[0], image.slots[1]);
         return image.slots[0].image.has_value();
       }},
      {"a section moved",
       [](Image& image, Random& random) {
         PickSection(image, random).addr += Distance(random);
         return true;
       }},
      {"a section cut short",
       [](Image& image, Random& random) {
         Section& section = PickSection(image, random);
         if (section.data.size() <= 4) return false;
         section.data.resize(4 * (1 + random.Below(section.data.size() / 4 - 1)));
         return true;
       }},
      {"a section of a pointer sector or of the invariant sector cut short",
       [](Image& image, Random& random) {
         Section* section =
             SectionAt(image, random.Chance(50) ? image.slots[random.Below(2)].pointer_sector
                                                : std::optional<std::uint32_t>(0));
         if (section == nullptr || section->data.size() <= 8) return false;
         section->data.resize(4 * (1 + random.Below(section->data.size() / 4 - 1)));
         return true;
       }},
      {"a section made longer",
       [](Image& image, Random& random) {
         Bytes& data = PickSection(image, random).data;
         const Bytes more =
             random.Bytes(4 * (1 + random.Below(random.OneOf<std::uint32_t>({2, 64, 600}))));
         data.insert(data.end(), more.begin(), more.end());
         return true;
       }},
      {"a section emptied",
       [](Image& image, Random& random) {
         PickSection(image, random).data.clear();
         return true;
       }},
      {"a section missing",
       [](Image& image, Random& random) {
         image.sections.erase(image.sections.begin() + random.Below(image.sections.size()));
         return !image.sections.empty();
       }},
      {"sections in another order",
       [](Image& image, Random& random) {
         random.Shuffle(image.sections);
         return image.sections.size() > 1;
       }},
      {"two sections at one address",
       [](Image& image, Random& random) {
         Section copy = PickSection(image, random);
         copy.name += "2";
         if (random.Chance(70)) copy.data = random.Bytes(copy.data.size());
         image.sections.insert(image.sections.begin() + random.Below(image.sections.size() + 1),
                               copy);
         return true;
       }},
      {"a section for the second slot",
       [](Image& image, Random& random) {
         const Section* first = SectionAt(image, image.slots[0].image);
         if (first == nullptr || !image.slots[1].image) return false;
         Section copy = *first;
         copy.name += "2";
         copy.addr = *image.slots[1].image;
         if (random.Chance(40)) copy.data = random.Bytes(copy.data.size());
         image.sections.push_back(copy);
         return true;
       }},
      {"another section",
       [](Image& image, Random& random) {
         image.sections.insert(
             image.sections.begin() + random.Below(image.sections.size() + 1),
             {"MORE", PickPlace(image, random) + random.OneOf<std::uint32_t>({0, 0x400, 0x1000}),
              random.Bytes(4 * (1 + random.Below(20)))});
         return true;
       }},
      {"a byte changed",
       [](Image& image, Random& random) {
         Bytes& data = PickSection(image, random).data;
         if (data.empty()) return false;
         data[random.Below(data.size())] = random.Byte();
         return true;
       }},
      {"a byte of a record changed",
       [](Image& image, Random& random) {
         const device::Slot& slot = image.slots[random.Below(device::SLOTS)];
         Section* section =
             SectionAt(image, slot.pointer_sector ? slot.pointer_sector : image.slots[0].image);
         if (section == nullptr || section->data.size() < device::BOOT_RECORD_SIZE) return false;
         section->data[random.Below(device::BOOT_RECORD_SIZE)] = random.Byte();
         return true;
       }},
      {"a record marked invalid",
       [](Image& image, Random&) {
         Section* section = SectionAt(image, image.slots[0].image);
         if (section == nullptr || section->data.size() < device::BOOT_RECORD_SIZE) return false;
         Bytes& data = section->data;
         data[9] = static_cast<std::uint8_t>(data[9] + data[device::FIRST_INVALID_MARK] - 1);
         data[device::FIRST_INVALID_MARK] = 1;
         return true;
       }},
      {"another size in a record",
       [](Image& image, Random& random) {
         Section* section = SectionAt(image, image.slots[random.Below(2)].pointer_sector);
         return SetWord(section, device::RECORD_IMAGE_SIZE,
                        random.OneOf<std::uint32_t>(
                            {0, 0x800, 0x10000, image.SlotBytes() - 4, image.SlotBytes() + 4}));
       }},
      {"another signature in a record",
       [](Image& image, Random& random) {
         Section* section = SectionAt(image, image.slots[random.Below(2)].pointer_sector);
         return SetWord(section, device::RECORD_SIGNATURE,
                        random.OneOf<std::uint32_t>({device::VALID_SIGNATURE, 0, 0xFFFFFFFF}));
       }},
      {"the failsafe marker changed",
       [](Image& image, Random& random) {
         Section* section = SectionAt(image, 0);
         return SetWord(section, device::FAILSAFE_MARKER, random.Chance(50) ? 0xFFFFFFFF : 0);
       }},
      {"a hole in the invariant sector",
       [](Image& image, Random& random) {
         Section* section = SectionAt(image, 0);
         if (section == nullptr || section->data.size() < device::FAILSAFE_MARKER + 12)
           return false;
         const std::uint32_t from = 4 * (1 + random.Below(device::FAILSAFE_MARKER / 4));
         const std::uint32_t to = from + 4 * (1 + random.Below(4));
         Bytes rest(section->data.begin() + to, section->data.end());
         section->data.resize(from);
         image.sections.insert(image.sections.begin() + 1, {"REST", to, std::move(rest)});
         return true;
       }},
      {"a field more",
       [](Image& image, Random& random) {
         const auto rows = device::FieldRows();
         const device::Field field{rows[random.Below(rows.size())].type, PickPlace(image, random)};
         image.fields.push_back(field);
         const std::uint32_t other = Mirrored(image, field.addr);
         if (other != field.addr && random.Chance(70)) image.fields.push_back({field.type, other});
         return true;
       }},
      {"a field twice",
       [](Image& image, Random& random) {
         if (image.fields.empty()) return false;
         image.fields.push_back(image.fields[random.Below(image.fields.size())]);
         return true;
       }},
      {"a field less",
       [](Image& image, Random& random) {
         if (image.fields.empty()) return false;
         image.fields.erase(image.fields.begin() + random.Below(image.fields.size()));
         return true;
       }},
      {"a field in a boot record",
       [](Image& image, Random& random) {
         if (!image.slots[0].image || image.slots[0].pointer_sector) return false;
         const std::uint32_t addr = *image.slots[0].image + random.Below(device::BOOT_RECORD_SIZE);
         image.fields.push_back({device::FieldType::GUID, addr});
         image.fields.push_back({device::FieldType::GUID, Mirrored(image, addr)});
         return true;
       }},
      {"a field or a CRC in the records",
       [](Image& image, Random& random) {
         const bool is_marked = random.Chance(50);
         const std::uint32_t at = 4 * random.Below(device::POINTER_RECORD_SIZE / 4);
         const auto rows = device::FieldRows();
         const device::FieldType type = rows[random.Below(rows.size())].type;
         const bool is_crc = random.Chance(30);
         const std::uint32_t size = 4 * (1 + random.Below(device::RECORD_CRC / 4));
         for (const device::Slot& slot : image.slots) {
           Section* section = SectionAt(image, slot.pointer_sector);
           if (section == nullptr || section->data.size() < device::POINTER_RECORD_SIZE)
             return false;
           const std::uint32_t base = section->addr;
           if (!is_marked) {
             std::erase_if(image.crcs,
                           [&](const device::CrcField& crc) { return crc.from == base; });
             SignRecord(*section);
           }
           if (is_crc) {
             image.crcs.push_back({base, size, base + at});
           } else {
             image.fields.push_back({type, base + at});
           }
         }
         return true;
       }},
      {"a section in two, in any order",
       [](Image& image, Random& random) {
         const std::size_t index = random.Below(image.sections.size());
         Section& section = image.sections[index];
         if (section.data.size() < 8) return false;
         const std::uint32_t size = 4 * (1 + random.Below(section.data.size() / 4 - 1));
         Section rest{section.name + "2", section.addr + size,
                      Bytes(section.data.begin() + size, section.data.end())};
         section.data.resize(size);
         const std::size_t place = random.Chance(50) ? index + 1 : random.Below(index + 1);
         image.sections.insert(image.sections.begin() + static_cast<std::ptrdiff_t>(place),
                               std::move(rest));
         return true;
       }},
      {"a field or a CRC in the invariant sector",
       [](Image& image, Random& random) {
         const Section* section = SectionAt(image, 0);
         if (section == nullptr || section->data.size() < 12) return false;
         const auto size = static_cast<std::uint32_t>(section->data.size());
         if (random.Chance(50)) {
           image.fields.push_back({device::FieldType::GUID, 4 * random.Below(size / 4)});
         } else {
           image.crcs.push_back({0, 4 * (1 + random.Below(size / 4)), 4 * random.Below(size / 4)});
         }
         return true;
       }},
      {"a CRC more",
       [](Image& image, Random& random) {
         const std::uint32_t from = PickPlace(image, random);
         const auto size = random.OneOf<std::uint32_t>({0, 4, 4, 8, 16, 40, 41, 0x400});
         const std::uint32_t addr = random.Chance(70) ? from + size : PickPlace(image, random);
         image.crcs.push_back({from, size, addr});
         const std::uint32_t other = Mirrored(image, from);
         if (other != from && random.Chance(70)) {
           image.crcs.push_back({other, size, addr + (other - from)});
         }
         return true;
       }},
      {"a CRC over a record",
       [](Image& image, Random& random) {
         const device::Slot& slot = image.slots[random.Below(2)];
         const auto at = slot.pointer_sector ? slot.pointer_sector : slot.image;
         if (!at) return false;
         const std::uint32_t size = 4 * (1 + random.Below(70));
         image.crcs.push_back({*at, size, *at + size + 4 * random.Below(3)});
         return true;
       }},
      {"a CRC over another CRC",
       [](Image& image, Random& random) {
         if (image.crcs.empty()) return false;
         const device::CrcField crc = image.crcs[random.Below(image.crcs.size())];
         image.crcs.push_back({crc.addr, 4, crc.addr + 4});
         return true;
       }},
      {"a CRC less",
       [](Image& image, Random& random) {
         if (image.crcs.empty()) return false;
         image.crcs.erase(image.crcs.begin() + random.Below(image.crcs.size()));
         return true;
       }},
      {"a mapped device of another size",
       [](Image& image, Random& random) {
         if (image.map.empty()) return false;
         device::MappedChip& chip = image.map[random.Below(image.map.size())];
         chip.size = random.Chance(25)   ? 0
                     : random.Chance(15) ? 0xFFFFFFF0
                                         : chip.size + Distance(random);
         return true;
       }},
      {"a mapped device twice, or another one",
       [](Image& image, Random& random) {
         if (image.map.empty() && image.IsFlash()) {
           image.map.push_back({static_cast<std::uint8_t>(random.OneOf<int>({0, 0x50})), 0x10000});
         } else {
           image.map.push_back(
               {static_cast<std::uint8_t>(0x50 + random.Below(4)), 64 * (1 + random.Below(40))});
         }
         return true;
       }},
      {"another device type",
       [](Image& image, Random& random) {
         image.type = device::FindDeviceType(
             random.OneOf<const char*>({"RV61100", "RV61300", "RV52100", "RV52400"}));
         return true;
       }},
  };
  return mistakes;
}

}  // namespace search
