#include "trials/search/MutatedImage.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <span>

#include "common/Text.h"
#include "device/Boot.h"
#include "trials/soak/ImageText.h"

namespace search {

using common::Text;
using device::Bytes;
using device::Image;
using device::Section;
using soak::Random;

namespace {

/// A mistake in what the image means. Returns false where this image has no place for it.
struct ImageMistake {
  const char* name;
  std::function<bool(Image&, Random&)> make;
};

/// A mistake in the lines of the file, likewise.
struct TextMistake {
  const char* name;
  std::function<bool(std::vector<std::string>&, Random&)> make;
};

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

/// A distance that matters: a byte, a word, a chunk, a sector, or any.
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

/// The same place in the other slot; where there is none, this one.
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

bool IsDirective(const std::string& line) {
  return !line.empty() && line[0] >= 'A' && line[0] <= 'Z' && !line.starts_with("END");
}

/// The index of a random line of that sort; nothing where there is none.
std::optional<std::size_t> PickLine(const std::vector<std::string>& lines, Random& random,
                                    const std::function<bool(const std::string&)>& is_wanted) {
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (is_wanted(lines[i])) found.push_back(i);
  }
  if (found.empty()) return {};
  return found[random.Below(found.size())];
}

TextMistake AtDirective(const char* name,
                        std::function<bool(std::vector<std::string>&, std::size_t, Random&)> make) {
  return {name, [make = std::move(make)](std::vector<std::string>& lines, Random& random) {
            const auto at = PickLine(lines, random, IsDirective);
            return at && make(lines, *at, random);
          }};
}

TextMistake AtData(const char* name,
                   std::function<bool(std::vector<std::string>&, std::size_t, Random&)> make) {
  return {name, [make = std::move(make)](std::vector<std::string>& lines, Random& random) {
            const auto at = PickLine(lines, random, [](const std::string& line) {
              return !line.empty() && isxdigit(static_cast<unsigned char>(line[0])) != 0 &&
                     !IsDirective(line);
            });
            return at && make(lines, *at, random);
          }};
}

TextMistake Inserted(const char* name, std::vector<std::string> texts) {
  return {name, [texts = std::move(texts)](std::vector<std::string>& lines, Random& random) {
            // Before a directive, so that it does not come into a section.
            const auto at = PickLine(lines, random, IsDirective);
            if (!at) return false;
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(*at),
                         texts[random.Below(texts.size())]);
            return true;
          }};
}

const std::vector<TextMistake>& TextMistakes() {
  using Lines = std::vector<std::string>;
  static const std::vector<TextMistake> mistakes = {
      AtDirective("a line missing",
                  [](Lines& lines, std::size_t at, Random&) {
                    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
                    return true;
                  }),
      AtDirective("a line twice",
                  [](Lines& lines, std::size_t at, Random& random) {
                    const std::string line = lines[at];
                    if (line.starts_with("START")) return false;
                    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(random.Below(at + 1)),
                                 line);
                    return true;
                  }),
      AtDirective("a line moved to the end",
                  [](Lines& lines, std::size_t at, Random&) {
                    if (lines[at].starts_with("START")) return false;
                    std::rotate(lines.begin() + static_cast<std::ptrdiff_t>(at),
                                lines.begin() + static_cast<std::ptrdiff_t>(at) + 1, lines.end());
                    return true;
                  }),
      AtDirective("a directive misspelt",
                  [](Lines& lines, std::size_t at, Random& random) {
                    std::string& line = lines[at];
                    if (random.Chance(50)) {
                      line[0] = static_cast<char>(line[0] + ('a' - 'A'));
                    } else {
                      line.erase(1, 1);
                    }
                    return true;
                  }),
      AtDirective("a number changed",
                  [](Lines& lines, std::size_t at, Random& random) {
                    std::string& line = lines[at];
                    const std::size_t digit = line.find_last_of("0123456789abcdef");
                    if (digit == std::string::npos || digit < 4) return false;
                    line[digit] = "0123456789abcdefg"[random.Below(17)];
                    return true;
                  }),
      AtDirective("a number too large",
                  [](Lines& lines, std::size_t at, Random& random) {
                    const std::size_t last = lines[at].rfind(' ');
                    const std::size_t before = lines[at].rfind(' ', last - 1);
                    const std::size_t place = random.Chance(50) ? before : last;
                    if (last == std::string::npos || place == std::string::npos) return false;
                    lines[at].insert(place + 1, random.Chance(70) ? "1000000000" : "-");
                    return true;
                  }),
      AtDirective("words too many",
                  [](Lines& lines, std::size_t at, Random&) {
                    lines[at] += " 7";
                    return true;
                  }),
      {"an END missing",
       [](Lines& lines, Random& random) {
         const auto at = PickLine(lines, random,
                                  [](const std::string& line) { return line.starts_with("END"); });
         if (at) lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*at));
         return at.has_value();
       }},
      AtData("a line of data missing",
             [](Lines& lines, std::size_t at, Random&) {
               lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
               return true;
             }),
      AtData("more than a byte",
             [](Lines& lines, std::size_t at, Random&) {
               lines[at].insert(0, "1f");
               return true;
             }),
      AtData("a NUL in a line",
             [](Lines& lines, std::size_t at, Random&) {
               lines[at] += std::string(" ") + '\0' + " 1 2 3 4";
               return true;
             }),
      AtData("a line that is too long",
             [](Lines& lines, std::size_t at, Random& random) {
               lines[at] += std::string(1024, ' ') + (random.Chance(50) ? "1 2 3 4" : "");
               return true;
             }),
      Inserted("a comment that is too long",
               {"#" + std::string(1022, ' ') + "1 2 3 4", "#" + std::string(1100, '-')}),
      Inserted("an unknown directive", {"PRODUCT 7", "NOTE something", "LICENCE none"}),
      Inserted("a version of words", {"MAJ_FW_VER", "MIN_FW_VER 1 2", "SUB_MIN_FW_VER x"}),
      Inserted("data outside of sections", {"1 2 3 4"}),
      Inserted("an END outside of sections", {"END"}),
      Inserted("a device type twice", {"DEVICE_TYPE RV61100", "DEVICE_TYPE RV52100"}),
      Inserted("a device type that nobody knows", {"DEVICE_TYPE RV99999"}),
      {"no device type",
       [](Lines& lines, Random&) {
         return std::erase_if(lines, [](const std::string& line) {
                  return line.starts_with("DEVICE_TYPE");
                }) > 0;
       }},
      {"a map behind what needs it",
       [](Lines& lines, Random& random) {
         const auto at = PickLine(
             lines, random, [](const std::string& line) { return line.starts_with("DEVMAP"); });
         if (!at) return false;
         const std::string line = lines[*at];
         lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*at));
         lines.insert(lines.begin() + random.Below(lines.size() + 1), line);
         return true;
       }},
      {"the line ends of another system",
       [](Lines& lines, Random&) {
         for (std::string& line : lines) line += '\r';
         return true;
       }},
      {"no sections",
       [](Lines& lines, Random&) {
         const auto first = std::ranges::find_if(
             lines, [](const std::string& line) { return line.starts_with("START"); });
         lines.erase(first, lines.end());
         return true;
       }},
  };
  return mistakes;
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

/// Tries mistakes until one fits. A mistake may not fit any more once it has begun: each gets a
/// copy.
template <typename Mistakes, typename Thing>
void MakeOne(const Mistakes& mistakes, Thing& thing, Random& random,
             std::vector<std::string>& names) {
  for (int i = 0; i < 20; ++i) {
    const auto& mistake = mistakes[random.Below(mistakes.size())];
    Thing copy = thing;
    if (!mistake.make(copy, random)) continue;
    thing = std::move(copy);
    names.emplace_back(mistake.name);
    return;
  }
}

}  // namespace

MutatedImage Mutate(const soak::Scenario& scenario, Random& random) {
  MutatedImage mutated{scenario.text, {}};
  const auto count = random.OneOf<std::uint32_t>({0, 0, 1, 1, 1, 2});
  soak::RandomImage image;
  image.image = scenario.image;
  image.type = std::string(scenario.image.type->keyword);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (random.Chance(35)) continue;
    MakeOne(ImageMistakes(), image.image, random, mutated.mistakes);
  }
  if (!mutated.mistakes.empty()) {
    if (image.image.type != nullptr) image.type = std::string(image.image.type->keyword);
    soak::OrderSections(image.image);
    mutated.text = soak::TextOf(image, random);
  }
  if (count > mutated.mistakes.size()) {
    std::vector<std::string> lines = LinesOf(mutated.text);
    MakeOne(TextMistakes(), lines, random, mutated.mistakes);
    mutated.text.clear();
    for (const std::string& line : lines) mutated.text += line + "\n";
  }
  return mutated;
}

}  // namespace search
