#include "device/Boot.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace device {
namespace {

/// A pointer sector's record of zeros with the signature. Its CRC is worked out by hand below.
Bytes SignedRecord(std::uint32_t crc) {
  Bytes record(RECORD_SIGNATURE, 0);
  AppendWord(record, VALID_SIGNATURE);
  record.resize(RECORD_CRC);
  AppendWord(record, crc);
  return record;
}

/// The CRC of that record, by a register of another make: the bytes and two zeros, divided byte by
/// byte.
std::uint32_t RightCrc() {
  Bytes message = SignedRecord(0);
  message.resize(RECORD_CRC);
  message.resize(RECORD_CRC + 2);
  std::uint32_t rest = 0xFFFF;
  for (const std::uint8_t byte : message) {
    rest = rest << 8 | byte;
    for (int bit = 23; bit >= 16; --bit) {
      if ((rest >> bit & 1) != 0) rest ^= 0x1100Bu << (bit - 16);
    }
  }
  return rest ^ 0xFFFF;
}

TEST(PointerRecordTest, BootsWithItsSignatureAndItsCrc) {
  EXPECT_TRUE(RecordBoots(SlotKind::POINTER_SECTORS, 0, SignedRecord(RightCrc())));
  EXPECT_FALSE(RecordBoots(SlotKind::POINTER_SECTORS, 0, SignedRecord(RightCrc() + 1)));
}

TEST(PointerRecordTest, BootsInEitherSlotAlike) {
  const Bytes record = SignedRecord(RightCrc());
  EXPECT_TRUE(RecordBoots(SlotKind::POINTER_SECTORS, 1, record));
}

TEST(PointerRecordTest, DoesNotBootWithoutTheSignature) {
  Bytes record = SignedRecord(RightCrc());
  EXPECT_TRUE(RecordIsSigned(record));
  record[RECORD_SIGNATURE + 3] = 0;
  EXPECT_FALSE(RecordIsSigned(record));
  EXPECT_FALSE(RecordBoots(SlotKind::POINTER_SECTORS, 0, record));
}

TEST(PointerRecordTest, DoesNotBootWithAChangedByte) {
  const Bytes right = SignedRecord(RightCrc());
  for (std::size_t at = 0; at < POINTER_RECORD_SIZE; ++at) {
    Bytes record = right;
    record[at] ^= 0x10;
    EXPECT_FALSE(RecordBoots(SlotKind::POINTER_SECTORS, 0, record)) << at;
  }
}

TEST(PointerRecordTest, TheUpperHalfOfTheCrcWordCounts) {
  EXPECT_FALSE(RecordBoots(SlotKind::POINTER_SECTORS, 0, SignedRecord(RightCrc() | 1u << 16)));
}

TEST(BootRecordTest, BootsWhenItsBytesAddUp) {
  Bytes record(16, 0);
  record[3] = 0xAB;
  EXPECT_TRUE(RecordBoots(SlotKind::BOOT_RECORDS, 0, record));
  EXPECT_TRUE(RecordBoots(SlotKind::BOOT_RECORDS, 1, record));
  record[0] = 1;
  EXPECT_FALSE(RecordBoots(SlotKind::BOOT_RECORDS, 1, record));
  record[0] = 0xFF;
  record[15] = 1;  // 1AB
  EXPECT_TRUE(RecordBoots(SlotKind::BOOT_RECORDS, 1, record));
}

TEST(BootRecordTest, AMarkMakesTheRecordOfTheFirstSlotInvalid) {
  Bytes record(16, 0);
  record[7] = 1;
  record[3] = 0xAA;
  EXPECT_FALSE(RecordBoots(SlotKind::BOOT_RECORDS, 0, record));
  EXPECT_TRUE(RecordBoots(SlotKind::BOOT_RECORDS, 1, record));
}

Image RecordsAt(const char* type, std::uint32_t first, std::uint32_t second) {
  Image image;
  image.type = FindDeviceType(type);
  image.slots[0].image = first;
  image.slots[1].image = second;
  return image;
}

TEST(BootLayoutTest, RecordsLieWhereTheTypeHasThem) {
  Image image = RecordsAt("RV61300", 0x10, 0x200);
  image.slots[0].pointer_sector = 0x1000;
  image.slots[1].pointer_sector = 0x2000;
  EXPECT_EQ(LayoutOf(image, 0)->records, (std::array{0x10u, 0x200u}));
  EXPECT_EQ(LayoutOf(image, 0)->RecordSize(), 16u);
  image.type = FindDeviceType("RV52100");
  EXPECT_EQ(LayoutOf(image, 0x100)->records, (std::array{0x1000u, 0x2000u}));
  EXPECT_EQ(LayoutOf(image, 0x100)->RecordSize(), 264u);
  EXPECT_EQ(LayoutOf(image, 0x100)->sector_size, 0x100u);
}

TEST(BootLayoutTest, AnImageThatPlacesNoSlotsHasNone) {
  Image image = RecordsAt("RV61300", 0x10, 0x200);
  image.slots[1].image.reset();
  EXPECT_EQ(LayoutOf(image, 0), std::nullopt);
  image = RecordsAt("RV61100", 0x10, 0x200);
  EXPECT_EQ(LayoutOf(image, 0), std::nullopt);
  image.type = nullptr;
  EXPECT_EQ(LayoutOf(image, 0), std::nullopt);
}

TEST(BootTest, TheFirstSlotBootsWhereBothCould) {
  const BootLayout layout = *LayoutOf(RecordsAt("RV61300", 4, 0x20), 0);
  Bytes memory(0x30, 0);
  EXPECT_EQ(SlotThatBoots(layout, memory), std::nullopt);
  memory[0x20] = 0xAB;
  EXPECT_EQ(SlotThatBoots(layout, memory), 1u);
  memory[4] = 0xAB;
  EXPECT_EQ(SlotThatBoots(layout, memory), 0u);
  EXPECT_FALSE(SlotIsSigned(layout, 0, memory));
}

TEST(BootTest, ARecordThatReachesPastTheMemoryBootsNothing) {
  Bytes memory(0x2F, 0);
  memory[0x20] = 0xAB;
  EXPECT_FALSE(SlotBoots(*LayoutOf(RecordsAt("RV61300", 0, 0x20), 0), 1, memory));
}

TEST(BootTest, OfAFlashTheSignatureAndTheCrcCount) {
  Image image = RecordsAt("RV52100", 0, 0);
  image.slots[0].pointer_sector = 4;
  image.slots[1].pointer_sector = 0x200;
  const BootLayout layout = *LayoutOf(image, 0x200);
  Bytes memory(0x400, 0xFF);
  std::ranges::copy(SignedRecord(RightCrc()), memory.begin() + 0x200);
  EXPECT_TRUE(SlotBoots(layout, 1, memory));
  EXPECT_TRUE(SlotIsSigned(layout, 1, memory));
  EXPECT_FALSE(SlotIsSigned(layout, 0, memory));
  memory[0x280] ^= 1;
  EXPECT_FALSE(SlotBoots(layout, 1, memory));
  EXPECT_TRUE(SlotIsSigned(layout, 1, memory));
}

}  // namespace
}  // namespace device
