#include "trials/endurance/Firmware.h"

#include <algorithm>
#include <vector>

#include "common/Text.h"
#include "device/Boot.h"
#include "device/Bytes.h"
#include "device/Crc.h"

namespace endurance {

using common::Text;
using device::Bytes;

namespace {

constexpr std::uint32_t EEPROM_CHIP = 0x50;
constexpr std::uint32_t INVARIANT_BYTES = 64;

class FirmwareText {
 public:
  explicit FirmwareText(std::uint32_t chip) : _chip(Text(" ", std::hex, chip)) {}

  void Add(const std::string& line) { _text += line + "\n"; }
  std::string At(std::uint32_t addr) const { return Text(" ", std::hex, addr) + _chip; }

  void AddSection(const std::string& name, std::uint32_t addr, device::View data) {
    constexpr char DIGITS[] = "0123456789abcdef";
    constexpr std::size_t A_LINE = 16;
    Add("START " + name + At(addr));
    for (std::size_t i = 0; i < data.size(); ++i) {
      _text += DIGITS[data[i] >> 4];
      _text += DIGITS[data[i] & 0xF];
      _text += i % A_LINE == A_LINE - 1 || i + 1 == data.size() ? '\n' : ' ';
    }
    Add("END " + name);
  }

  /// A field and a CRC behind it in the section [addr, addr + size), and the same `distance` bytes
  /// further. Neither touches the first `kept` bytes.
  void AddFields(std::uint32_t addr, std::uint32_t size, std::uint32_t kept, std::uint32_t distance,
                 Random& random) {
    const bool has_port = random.Chance(50);
    const std::uint32_t field_size = has_port ? 32 : 8;
    // The CRC is the last word of the section.
    const std::uint32_t end = size - 4;
    if (end < kept + field_size + 4) return;
    const std::uint32_t field = addr + kept + 4 * random.Below((end - kept - field_size) / 4 + 1);
    const std::uint32_t from = addr + kept + 4 * random.Below((end - kept) / 4);
    for (const std::uint32_t slot : {0u, distance}) {
      Add(Text("REPLACE ", has_port ? "GUIDS" : "GUID", At(field + slot)));
      Add(Text("REPLACE CRC", At(from + slot), At(addr + end - 4 + slot), At(addr + end + slot)));
    }
  }

  std::string Take() { return std::move(_text); }

 private:
  std::string _chip;
  std::string _text;
};

/// Mostly long firmware.
std::uint32_t RandomSize(std::uint32_t least, std::uint32_t most, Random& random) {
  const std::uint32_t limit = random.Chance(20) ? std::max(least, most / 8) : most;
  if (limit == most && random.Chance(50)) least = most / 2;
  return least + 4 * random.Below((limit - least) / 4 + 1);
}

std::string EepromFirmware(const Shape& shape, Random& random) {
  const std::uint32_t distance = shape.size / 2;
  const std::uint32_t size = RandomSize(64, shape.most, random);
  Bytes data = random.Bytes(size);
  // The record's sum is right, and byte 7 does not mark it invalid.
  data[device::FIRST_INVALID_MARK] = 0;
  const auto sum = device::BootRecordSum(device::View(data).first(device::BOOT_RECORD_SIZE - 1));
  data[device::BOOT_RECORD_SIZE - 1] = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM - sum);

  FirmwareText text(EEPROM_CHIP);
  text.Add("DEVICE_TYPE RV61300");
  text.Add(Text("DEVMAP ", std::hex, shape.size, " ", EEPROM_CHIP));
  text.Add("IMAGE 0" + text.At(0));
  text.Add("IMAGE 1" + text.At(distance));
  const std::uint32_t first = 4 * random.Between(8, size / 4 - 1);
  const bool is_split = size >= 128 && random.Chance(50);
  text.AddFields(0, is_split ? first : size, device::BOOT_RECORD_SIZE, distance, random);
  const device::View all(data);
  text.AddSection("FIRST", 0, is_split ? all.first(first) : all);
  if (is_split) text.AddSection("SECOND", first, all.subspan(first));
  return text.Take();
}

Bytes PointerRecord(std::uint32_t image, std::uint32_t size, bool is_valid, Random& random) {
  Bytes record;
  device::AppendWord(record, image);
  device::AppendWord(record, size);
  device::AppendWord(record, is_valid ? device::VALID_SIGNATURE : 0xFFFFFFFF);
  const Bytes more = random.Bytes(device::RECORD_CRC - record.size());
  record.insert(record.end(), more.begin(), more.end());
  device::AppendWord(record, device::CrcOf(record));
  return record;
}

std::string FlashFirmware(const Shape& shape, Random& random) {
  const std::uint32_t sector = shape.sector_size;
  const std::uint32_t slot_size = (shape.most + sector - 1) / sector * sector;
  const std::uint32_t image[] = {device::FIRST_IMAGE_SECTOR * sector,
                                 device::FIRST_IMAGE_SECTOR * sector + slot_size};
  const std::uint32_t size = RandomSize(256, shape.most, random);
  const Bytes data = random.Bytes(size);
  Bytes invariant(INVARIANT_BYTES, 0x77);
  std::ranges::copy(device::WordBytes(device::VALID_SIGNATURE),
                    invariant.begin() + device::FAILSAFE_MARKER);

  FirmwareText text(0);
  text.Add("DEVICE_TYPE RV52100");
  for (const std::uint32_t i : {0u, 1u}) {
    const std::uint32_t record = sector * (1 + i);
    text.Add(Text("PS ", i) + text.At(record));
    text.Add(Text("SIGNATURE ", i) + text.At(record + device::RECORD_SIGNATURE));
    text.Add(Text("IMAGE ", i) + text.At(image[i]));
    text.Add("REPLACE CRC" + text.At(record) + text.At(record + device::RECORD_CRC - 4) +
             text.At(record + device::RECORD_CRC));
  }
  // A section begins where a sector does.
  const std::uint32_t first = size > sector && random.Chance(50) ? sector : size;
  text.AddFields(image[0], first, 0, slot_size, random);
  text.AddSection("INVARIANT", 0, invariant);
  for (const std::uint32_t i : {0u, 1u}) {
    text.AddSection(Text("PS", i), sector * (1 + i), PointerRecord(image[i], size, i == 0, random));
  }
  const device::View all(data);
  text.AddSection("FIRST", image[0], all.first(first));
  if (first < size) text.AddSection("SECOND", image[0] + first, all.subspan(first));
  return text.Take();
}

}  // namespace

std::string RandomFirmware(const Shape& shape, Random& random) {
  return shape.IsFlash() ? FlashFirmware(shape, random) : EepromFirmware(shape, random);
}

}  // namespace endurance
