// Mistakes of which few images have the kind by chance.
#include <algorithm>

#include "device/Boot.h"
#include "device/Burn.h"
#include "trials/search/ImageEdits.h"
#include "trials/search/Mistakes.h"

namespace search {

using device::Bytes;
using device::Image;
using device::Section;
using device::SlotKind;
using soak::Random;

namespace {

constexpr std::uint32_t WORD = device::WORD_SIZE;

std::uint32_t SizeOf(const Section& section) {
  return static_cast<std::uint32_t>(section.data.size());
}

/// Divides the mapped chip that has `addr` there: what follows is another chip. False where nothing
/// is mapped, or the chip begins there.
bool EndChipAt(Image& image, std::uint32_t addr) {
  std::uint64_t from = 0;
  for (auto chip = image.map.begin(); chip != image.map.end(); ++chip) {
    const std::uint64_t end = from + chip->size;
    if (addr > from && addr < end) {
      chip->size = static_cast<std::uint32_t>(addr - from);
      image.map.insert(chip + 1, {0x77, static_cast<std::uint32_t>(end - addr)});
      return true;
    }
    from = end;
  }
  return false;
}

bool HasBootRecords(const Image& image) {
  return image.Slots() == SlotKind::BOOT_RECORDS && image.slots[0].image && image.slots[1].image;
}

bool HasPointerSectors(const Image& image) {
  return image.Slots() == SlotKind::POINTER_SECTORS && image.slots[0].image &&
         image.slots[1].image && image.slots[0].pointer_sector && image.slots[1].pointer_sector;
}

/// The section of a pointer sector; null where the image has none.
Section* PickRecord(Image& image, Random& random) {
  if (!HasPointerSectors(image)) return nullptr;
  Section* section = SectionAt(image, image.slots[random.Below(device::SLOTS)].pointer_sector);
  return section == nullptr || section->data.size() < device::POINTER_RECORD_SIZE ? nullptr
                                                                                  : section;
}

/// The section of the invariant sector that has the failsafe marker.
Section* MarkedSection(Image& image) {
  if (!HasPointerSectors(image)) return nullptr;
  Section* section = SectionAt(image, 0);
  return section == nullptr || section->data.size() < device::FAILSAFE_MARKER + WORD ? nullptr
                                                                                     : section;
}

/// A CRC, and the same of the other slot.
void AddCrc(Image& image, const device::CrcField& crc) {
  image.crcs.push_back(crc);
  const std::uint32_t other = Mirrored(image, crc.from);
  if (other != crc.from) image.crcs.push_back({other, crc.size, crc.addr + (other - crc.from)});
}

bool EraseCrcsOver(Image& image, std::uint32_t addr) {
  return std::erase_if(image.crcs, [&](const device::CrcField& crc) {
           return crc.from <= addr && addr < crc.End();
         }) > 0;
}

}  // namespace

const std::vector<ImageMistake>& AimedImageMistakes() {
  static const std::vector<ImageMistake> mistakes = {
      {"record-crosses-device",
       [](Image& image, Random& random) {
         if (!HasBootRecords(image)) return false;
         return EndChipAt(image, *image.slots[random.Below(2)].image + 1 +
                                     random.Below(device::BOOT_RECORD_SIZE - 1));
       }},
      {"slot-crosses-device",
       [](Image& image, Random& random) {
         if (!HasBootRecords(image) || image.SlotBytes() <= device::BOOT_RECORD_SIZE) return false;
         return EndChipAt(image, *image.slots[random.Below(2)].image + device::BOOT_RECORD_SIZE +
                                     random.Below(image.SlotBytes() - device::BOOT_RECORD_SIZE));
       }},
      {"chunk-crosses-device",
       [](Image& image, Random& random) {
         const Section& section = PickSection(image, random);
         const std::uint32_t end = section.addr + 1 + random.Below(section.data.size());
         // Some chunks end there, larger ones do not.
         return EndChipAt(image, random.Chance(60) ? end / 32 * 32 : end);
       }},
      {"devmap-wraps",
       [](Image& image, Random& random) {
         if (image.map.empty()) return false;
         image.map.push_back({0x76, 0 - 4 * (1 + random.Below(16))});
         return true;
       }},
      {"devmap-empty",
       [](Image& image, Random& random) {
         if (image.map.empty()) return false;
         image.map.insert(image.map.begin() + random.Below(image.map.size() + 1), {0x76, 0});
         return true;
       }},
      {"devmap-twice",
       [](Image& image, Random& random) {
         if (image.map.empty()) return false;
         image.map.push_back(image.map[random.Below(image.map.size())]);
         return true;
       }},
      {"flash-device",
       [](Image& image, Random& random) {
         if (!image.IsFlash()) return false;
         const auto size = random.OneOf<std::uint32_t>({0x20, 0x400, 0x1000});
         if (random.Chance(50)) image.map.push_back({0, size});
         image.map.push_back({0x50, 0x100000});
         return true;
       }},
      {"past-eeprom",
       [](Image& image, Random& random) {
         if (image.type == nullptr || image.IsFlash()) return false;
         if (!image.map.empty()) image.map.back().size += 0x20000;
         image.sections.push_back({"FAR", 0x10000 + 4 * random.Below(0x800),
                                   random.Bytes(WORD * (1 + random.Below(8)))});
         return true;
       }},
      {"past-flash",
       [](Image& image, Random& random) {
         if (!image.IsFlash()) return false;
         const auto far = random.OneOf<std::uint32_t>({0x1000000, 0x40000, 0xFFFF0000});
         image.sections.push_back({"FAR", far, random.Bytes(WORD * (1 + random.Below(8)))});
         return true;
       }},
      {"slot-wraps",
       [](Image& image, Random& random) {
         if (image.Slots() == SlotKind::NONE || !image.slots[1].image ||
             image.SlotBytes() < 2 * WORD)
           return false;
         image.map.clear();
         image.slots[1].image = 0 - WORD * (1 + random.Below(image.SlotBytes() / WORD - 1));
         return true;
       }},
      {"crc-empty",
       [](Image& image, Random& random) {
         const Section& section = PickSection(image, random);
         if (section.data.size() < 2 * WORD) return false;
         const std::uint32_t from =
             section.addr + WORD * random.Below(section.data.size() / WORD - 1);
         AddCrc(image, {from, 0, from});
         return true;
       }},
      {"crc-not-words",
       [](Image& image, Random& random) {
         const Section& section = PickSection(image, random);
         if (section.data.size() < 4 * WORD) return false;
         const std::uint32_t size = 1 + random.Below(2 * WORD - 1);
         if (size % WORD == 0) return false;
         AddCrc(image, {section.addr, size, section.addr + SizeOf(section) - WORD});
         return true;
       }},
      {"crc-over-signature",
       [](Image& image, Random& random) {
         const Section& section = PickSection(image, random);
         if (section.data.size() < 4 * WORD) return false;
         image.fields.push_back({device::FieldType::SIGNATURE, section.addr + WORD});
         image.crcs.push_back({section.addr, 3 * WORD, section.addr + 3 * WORD});
         return true;
       }},
      {"guids-ports",
       [](Image& image, Random& random) {
         const Section& section = PickSection(image, random);
         if (section.data.size() < 32) return false;
         const std::uint32_t addr =
             section.addr + WORD * random.Below((section.data.size() - 32) / WORD + 1);
         image.fields.push_back({device::FieldType::GUIDS, addr});
         const std::uint32_t other = Mirrored(image, addr);
         if (other != addr) image.fields.push_back({device::FieldType::GUIDS, other});
         return true;
       }},
      {"field-in-held-back",
       [](Image& image, Random& random) {
         if (!HasBootRecords(image)) return false;
         const std::uint32_t addr = *image.slots[0].image + random.Below(device::DEFERRED_BYTES);
         image.fields.push_back({device::FieldType::GUID, addr});
         image.fields.push_back({device::FieldType::GUID, Mirrored(image, addr)});
         return true;
       }},
      {"record-short",
       [](Image& image, Random& random) {
         if (!HasBootRecords(image)) return false;
         Section* section = SectionAt(image, image.slots[0].image);
         if (section == nullptr || section->data.size() < device::BOOT_RECORD_SIZE) return false;
         const std::uint32_t size = 1 + random.Below(device::BOOT_RECORD_SIZE - 1);
         Section rest{"REST", section->addr + size,
                      Bytes(section->data.begin() + size, section->data.end())};
         section->data.resize(size);
         // Some of them without a gap: the bytes are there, in two sections.
         if (random.Chance(25)) {
           image.sections.insert(image.sections.begin() + (section - image.sections.data()) + 1,
                                 std::move(rest));
         }
         return true;
       }},
      {"record-sum",
       [](Image& image, Random& random) {
         if (!HasBootRecords(image)) return false;
         Section* section = SectionAt(image, image.slots[0].image);
         if (section == nullptr || section->data.size() < device::BOOT_RECORD_SIZE) return false;
         std::uint8_t& byte = section->data[random.Below(device::BOOT_RECORD_SIZE)];
         byte = static_cast<std::uint8_t>(byte + random.OneOf<int>({1, 10, 128}));
         return true;
       }},
      {"image-section-left-out",
       [](Image& image, Random& random) {
         if (image.Slots() == SlotKind::NONE) return false;
         Section* section = SectionAt(image, image.slots[0].image);
         if (section == nullptr || section->data.size() < 2 * WORD) return false;
         // Some without the rest of the boot record.
         const std::uint32_t size = HasBootRecords(image) && random.Chance(50)
                                        ? WORD * (1 + random.Below(3))
                                        : WORD * (1 + random.Below(SizeOf(*section) / WORD - 1));
         if (size >= section->data.size()) return false;
         Section rest{"REST", section->addr + size,
                      Bytes(section->data.begin() + size, section->data.end())};
         section->data.resize(size);
         image.sections.insert(image.sections.begin(), std::move(rest));
         return true;
       }},
      {"duplicate-section",
       [](Image& image, Random& random) {
         // At the end of the file, where it counts among the image's sections.
         Section copy =
             image.sections[random.Below(std::min<std::size_t>(image.sections.size(), 3))];
         copy.name += "2";
         copy.data = random.Bytes(copy.data.size());
         image.sections.push_back(std::move(copy));
         return true;
       }},
      {"record-marked",
       [](Image& image, Random&) {
         if (!HasBootRecords(image)) return false;
         Section* section = SectionAt(image, image.slots[0].image);
         if (section == nullptr || section->data.size() < device::BOOT_RECORD_SIZE) return false;
         section->data[device::FIRST_INVALID_MARK] = 1;
         return true;
       }},
      {"ps-short",
       [](Image& image, Random& random) {
         Section* section = PickRecord(image, random);
         if (section == nullptr) return false;
         section->data.resize(WORD * (1 + random.Below(device::POINTER_RECORD_SIZE / WORD - 1)));
         return true;
       }},
      {"ps-in-image",
       [](Image& image, Random& random) {
         Section* section = PickRecord(image, random);
         if (section == nullptr) return false;
         const bool is_second = section->addr == image.slots[1].pointer_sector;
         device::Slot& slot = image.slots[is_second ? 1 : 0];
         section->addr = *slot.image + WORD * random.Below(image.SlotBytes() / WORD);
         slot.pointer_sector = section->addr;
         slot.signature = section->addr + device::RECORD_SIGNATURE;
         return true;
       }},
      {"ps-record",
       [](Image& image, Random& random) {
         return SetWord(PickRecord(image, random), 0, 0x1000 * random.Below(64));
       }},
      {"ps-size",
       [](Image& image, Random& random) {
         return SetWord(PickRecord(image, random), device::RECORD_IMAGE_SIZE,
                        random.Below(image.SlotBytes()));
       }},
      {"ps-past-flash",
       [](Image& image, Random& random) {
         return SetWord(PickRecord(image, random), device::RECORD_IMAGE_SIZE,
                        random.OneOf<std::uint32_t>({0x1000000, 0xFFFFFF00}));
       }},
      {"ps-crc",
       [](Image& image, Random& random) {
         Section* section = PickRecord(image, random);
         if (section == nullptr) return false;
         EraseCrcsOver(image, section->addr);
         return SetWord(section, device::RECORD_CRC, random.Chance(50) ? 0xFFFFFFFF : 0x12345678);
       }},
      {"signature-place",
       [](Image& image, Random& random) {
         if (!HasPointerSectors(image)) return false;
         auto& signature = image.slots[random.Below(2)].signature;
         if (signature) *signature += WORD;
         return signature.has_value();
       }},
      {"signature-shipped",
       [](Image& image, Random&) {
         if (!HasPointerSectors(image)) return false;
         return SetWord(SectionAt(image, image.slots[1].pointer_sector), device::RECORD_SIGNATURE,
                        device::VALID_SIGNATURE);
       }},
      {"none-shipped-signed",
       [](Image& image, Random&) {
         if (!HasPointerSectors(image)) return false;
         return SetWord(SectionAt(image, image.slots[0].pointer_sector), device::RECORD_SIGNATURE,
                        0xFFFFFFFF) &&
                SetWord(SectionAt(image, image.slots[1].pointer_sector), device::RECORD_SIGNATURE,
                        0xFFFFFFFF);
       }},
      {"invariant-changes",
       [](Image& image, Random& random) {
         const Section* section = MarkedSection(image);
         if (section == nullptr) return false;
         const std::uint32_t size = WORD * (1 + random.Below(device::FAILSAFE_MARKER / WORD - 1));
         image.crcs.push_back({0, size, size});
         return true;
       }},
      {"invariant-not-first",
       [](Image& image, Random& random) {
         if (MarkedSection(image) == nullptr) return false;
         const auto section = std::ranges::find(image.sections, 0u, &Section::addr);
         std::rotate(section, section + 1, image.sections.end());
         if (random.Chance(50)) {  // a second one at the end
           image.sections.back().name += "2";
           image.sections.back().addr += SizeOf(image.sections.back());
         }
         return true;
       }},
      {"field-in-invariant",
       [](Image& image, Random& random) {
         const Section* section = MarkedSection(image);
         if (section == nullptr) return false;
         image.fields.push_back({device::FieldType::GUID, WORD * random.Below(7)});
         return true;
       }},
      {"marker-blanked",
       [](Image& image, Random& random) {
         const Section* section = MarkedSection(image);
         if (section == nullptr) return false;
         if (random.Chance(50)) {
           image.fields.push_back(
               {device::FieldType::GUID, device::FAILSAFE_MARKER - random.Below(8)});
         } else {
           image.crcs.push_back({0, WORD, device::FAILSAFE_MARKER});
         }
         return true;
       }},
      {"erase-spoils",
       [](Image& image, Random& random) {
         if (!image.IsFlash()) return false;
         const Section& section = PickSection(image, random);
         image.sections.push_back(
             {"MORE", section.addr + (SizeOf(section) + 3) / WORD * WORD + WORD * random.Below(8),
              random.Bytes(WORD)});
         return true;
       }},
      {"image-gaps",
       [](Image& image, Random&) {
         Section* section = SectionAt(image, image.slots[0].image);
         if (!image.IsFlash() || section == nullptr || section->data.size() < 2 * WORD)
           return false;
         section->data.resize(section->data.size() - WORD);
         return true;
       }},
      {"slot-unset",
       [](Image& image, Random& random) {
         device::Slot& slot = image.slots[random.Below(device::SLOTS)];
         if (!image.map.empty() || !slot.image) return false;
         slot.image = device::UNSET_ADDR;
         return true;
       }},
      {"slot-order",
       [](Image& image, Random& random) {
         if (!image.slots[0].image || !image.slots[1].image) return false;
         image.slots[1].image = *image.slots[0].image - WORD * random.Below(3);
         return true;
       }},
  };
  return mistakes;
}

namespace {

using Lines = std::vector<std::string>;

/// A random line that begins so; the end where there is none.
Lines::iterator PickLine(Lines& lines, Random& random, const std::string& begin) {
  std::vector<Lines::iterator> found;
  for (auto line = lines.begin(); line != lines.end(); ++line) {
    if (line->starts_with(begin)) found.push_back(line);
  }
  return found.empty() ? lines.end() : found[random.Below(found.size())];
}

/// Where the last word of a line begins, or the one before it, and so on; npos where there is none.
std::size_t WordFromEnd(const std::string& line, int before_last) {
  std::size_t begin = line.size();
  for (int i = 0; i <= before_last; ++i) {
    const std::size_t end = begin == 0 ? begin : line.find_last_not_of(" \t", begin - 1);
    if (begin == 0 || end == std::string::npos) return std::string::npos;
    begin = line.find_last_of(" \t", end) + 1;
  }
  return begin;
}

}  // namespace

const std::vector<TextMistake>& AimedTextMistakes() {
  static const std::vector<TextMistake> mistakes = {
      {"slot-twice",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, random.OneOf<const char*>({"IMAGE ", "PS "}));
         if (line == lines.end()) return false;
         const std::string again = *line;
         lines.insert(line, again);
         return true;
       }},
      {"device-cut",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, "START");
         if (line == lines.end()) return false;
         const std::size_t word = WordFromEnd(*line, 0);
         std::string number = line->substr(word);
         if (number.starts_with("0x")) number.erase(0, 2);
         line->replace(word, std::string::npos, (number.size() < 2 ? "10" : "1") + number);
         return true;
       }},
      {"start-not-read-whole",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, "START");
         if (line != lines.end()) *line += random.Chance(50) ? " 7" : "h";
         return line != lines.end();
       }},
      {"number-cut",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, "START");
         if (line == lines.end()) return false;
         line->insert(WordFromEnd(*line, 1), "1000000000");
         return true;
       }},
      {"long-line-rest",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random,
                                    random.OneOf<const char*>({"REPLACE", "IMAGE", "DEVICE_TYPE"}));
         if (line == lines.end()) return false;
         lines.insert(line, "#" + std::string(1022, '-') + *line);
         return true;
       }},
      {"version-words",
       [](Lines& lines, Random& random) {
         lines.insert(lines.begin(), random.OneOf<const char*>(
                                         {"MAJ_FW_VER 1 2", "MIN_FW_VER", "SUB_MIN_FW_VER x"}));
         return true;
       }},
      {"device-type-late",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, "DEVICE_TYPE RV61100");
         const auto section = PickLine(lines, random, "START");
         if (line == lines.end() || section == lines.end()) return false;
         lines.insert(line, "REPLACE BSN " + section->substr(WordFromEnd(*section, 1)));
         return true;
       }},
      {"devmap-late",
       [](Lines& lines, Random& random) {
         const auto line = PickLine(lines, random, "DEVMAP");
         if (line == lines.end()) return false;
         std::rotate(line, line + 1, lines.end());
         return true;
       }},
      {"misspelt-directive",
       [](Lines& lines, Random& random) {
         const auto line =
             PickLine(lines, random,
                      random.OneOf<const char*>({"IMAGE", "PS", "REPLACE", "SIGNATURE", "DEVMAP"}));
         if (line == lines.end()) return false;
         line->insert(1, 1, line->at(0));
         return true;
       }},
  };
  return mistakes;
}

}  // namespace search
