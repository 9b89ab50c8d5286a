#include "device/Chip.h"

#include <gtest/gtest.h>

namespace device {
namespace {

TEST(ProgramTest, AnEepromTakesBitsAsTheyCome) {
  Bytes cells = {0x00, 0xFF, 0x0F};
  Program(MemoryKind::EEPROM, cells, Bytes{0xA5, 0x5A, 0xF0});
  EXPECT_EQ(cells, (Bytes{0xA5, 0x5A, 0xF0}));
}

TEST(ProgramTest, AFlashOnlyClearsBits) {
  Bytes cells = {0x00, 0xFF, 0x0F};
  Program(MemoryKind::FLASH, cells, Bytes{0xA5, 0x5A, 0x3C});
  EXPECT_EQ(cells, (Bytes{0x00, 0x5A, 0x0C}));
}

TEST(ProgramTest, IsTornInsideOneWord) {
  const Bytes before(12, 0xFF);
  const Bytes wanted(12, 0x00);
  Bytes cells = before;
  ProgramTorn(MemoryKind::FLASH, cells, wanted, {.word = 1, .done = {0xFF, 0x0F, 0x01, 0x00}});
  EXPECT_EQ(cells, (Bytes{0, 0, 0, 0, 0x00, 0xF0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(ProgramTest, ATornWordOfAFlashSetsNoBit) {
  Bytes cells = {0x00, 0x00, 0x00, 0x00};
  ProgramTorn(MemoryKind::FLASH, cells, Bytes(4, 0xFF), {.word = 0, .done = {255, 255, 255, 255}});
  EXPECT_EQ(cells, Bytes(4, 0x00));
  ProgramTorn(MemoryKind::EEPROM, cells, Bytes(4, 0xFF), {.word = 0, .done = {0x81, 0, 0, 0}});
  EXPECT_EQ(cells, (Bytes{0x81, 0x00, 0x00, 0x00}));
}

TEST(ProgramTest, TheLastWordMayBeShort) {
  EXPECT_EQ(WordsIn(0), 0u);
  EXPECT_EQ(WordsIn(4), 1u);
  EXPECT_EQ(WordsIn(5), 2u);
  Bytes cells(5, 0xFF);
  ProgramTorn(MemoryKind::FLASH, cells, Bytes(5, 0x00), {.word = 1, .done = {0x0F, 0, 0, 0}});
  EXPECT_EQ(cells, (Bytes{0, 0, 0, 0, 0xF0}));
}

TEST(ChipTest, WithoutSectorsItIsAnEeprom) {
  Bytes cells(8, 0x11);
  Chip chip(cells, 0);
  EXPECT_EQ(chip.Kind(), MemoryKind::EEPROM);
  chip.Program(2, Bytes{0xEE, 0xFF});
  EXPECT_EQ(cells, (Bytes{0x11, 0x11, 0xEE, 0xFF, 0x11, 0x11, 0x11, 0x11}));
}

TEST(ChipTest, EraseSetsTheSectorThatHoldsTheOffset) {
  Bytes cells(12, 0x11);
  Chip chip(cells, 4);
  EXPECT_EQ(chip.Kind(), MemoryKind::FLASH);
  chip.EraseSector(6);
  EXPECT_EQ(cells, (Bytes{0x11, 0x11, 0x11, 0x11, 255, 255, 255, 255, 0x11, 0x11, 0x11, 0x11}));
  chip.Program(4, Bytes{0x0F});
  chip.Program(4, Bytes{0xF3});
  EXPECT_EQ(cells[4], 0x03);
}

TEST(ChipTest, AnEraseCutShortLeavesTheOtherCells) {
  Bytes cells(8, 0x11);
  Chip(cells, 4).EraseSectorTorn(4, [](std::size_t cell) { return cell % 2 == 1; });
  EXPECT_EQ(cells, (Bytes{0x11, 0x11, 0x11, 0x11, 0x11, 255, 0x11, 255}));
}

TEST(ChipTest, ContentsAreLoadedPastItsRules) {
  Bytes cells(4, 0x00);
  Chip chip(cells, 4);
  chip.Load(1, Bytes{0xFF});
  EXPECT_EQ(cells, (Bytes{0x00, 0xFF, 0x00, 0x00}));
}

TEST(ChipTest, HoldsWhatLiesInside) {
  Bytes cells(8);
  const Chip chip(cells, 4);
  EXPECT_TRUE(chip.Holds(8, 0));
  EXPECT_TRUE(chip.Holds(4, 4));
  EXPECT_FALSE(chip.Holds(5, 4));
  EXPECT_FALSE(chip.Holds(std::uint64_t{1} << 32, 1));
}

}  // namespace
}  // namespace device
