/// Images and memories made up for the judge's tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "device/Boot.h"
#include "device/Burn.h"
#include "device/Crc.h"
#include "device/Image.h"
#include "device/Memory.h"

namespace device {

inline void AddSection(Image& image, std::uint32_t addr, Bytes data) {
  const Section* known = image.SectionAt(addr);
  if (known == nullptr) {
    image.sections.push_back({"S" + std::to_string(image.sections.size()), addr, std::move(data)});
    known = &image.sections.back();
  }
  image.order.push_back(static_cast<std::size_t>(known - image.sections.data()));
}

inline Bytes Joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline Bytes Word(std::uint32_t word) {
  Bytes bytes;
  AppendWord(bytes, word);
  return bytes;
}

inline void Put(Bytes& bytes, std::size_t at, const Bytes& part) {
  std::ranges::copy(part, bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

inline Identity SomeDevice() {
  return {.node = 0x1122334455667788,
          .ports = {0xA1, 0xA2},
          .system = 0x5F,
          .declared_ports = 2,
          .vsd = Bytes(208, 0xD5),
          .bsn = Bytes(64, 0xB5)};
}

// ---- A flash of 16 sectors of 0x200 bytes: invariant sector, pointer sectors at 0x200 and 0x400,
// slots at 0x600 and 0x1000

constexpr std::uint32_t SECTOR = 0x200;
constexpr std::uint32_t PS[] = {0x200, 0x400};
constexpr std::uint32_t SLOT[] = {0x600, 0x1000};

inline Bytes Invariant(std::uint8_t content) {
  return Joined({Bytes(FAILSAFE_MARKER, content), Word(VALID_SIGNATURE)});
}

/// An image of `size` bytes in each slot, with no fields but the signatures, nor CRCs but the
/// records'.
inline Image FlashImage(std::uint8_t content, std::uint32_t size = 0x10) {
  Image image;
  image.type = FindDeviceType("RV52100");
  AddSection(image, 0, Invariant(0x77));
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    AddSection(
        image, PS[slot],
        Joined({Word(SLOT[slot]), Word(size), Word(0x12345678), Bytes(248, content), Word(0)}));
    image.slots[slot] = {SLOT[slot], PS[slot], PS[slot] + 8};
    image.fields.push_back({FieldType::SIGNATURE, PS[slot] + 8});
    image.crcs.push_back({PS[slot], 260, PS[slot] + 260});
  }
  AddSection(image, SLOT[0], Bytes(size, content));
  return image;
}

/// What a pointer sector's record is when its image is valid.
inline Bytes ValidRecord(std::uint32_t addr, std::uint32_t size, std::uint8_t content) {
  Bytes record = Joined({Word(addr), Word(size), Word(VALID_SIGNATURE), Bytes(248, content)});
  return Joined({record, Word(CrcOf(record))});
}

/// A flash with its invariant sector, and EE elsewhere.
inline Memory PreparedFlash() {
  Memory memory{Bytes(16 * SECTOR, 0xEE), SECTOR};
  Put(memory.bytes, 0, Bytes(SECTOR, 0xFF));
  Put(memory.bytes, 0, Invariant(0x77));
  return memory;
}

// ---- An EEPROM with slots at 0 and 0x80, each of a record and 16 bytes more

inline Bytes RecordAndMore(std::uint8_t content) {
  Bytes data(32, content);
  Put(data, 0, Bytes(16, 0));
  data[3] = 0xAB;
  return data;
}

inline Image RecordImage(std::uint8_t content) {
  Image image;
  image.type = FindDeviceType("RV61300");
  image.slots[0].image = 0;
  image.slots[1].image = 0x80;
  AddSection(image, 0, RecordAndMore(content));
  return image;
}

}  // namespace device
