#include "rehearse/TornRecord.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>

#include "device/Boot.h"
#include "device/Chip.h"

namespace rehearse {
namespace {

/// Counts the same mix by mix.
MixCount CountOneByOne(const RecordWord& word) {
  std::uint32_t changed = 0;
  for (std::size_t i = 0; i < word.held.size(); ++i) {
    const std::ptrdiff_t place = word.at + static_cast<std::ptrdiff_t>(i);
    if (place < 0 || place >= static_cast<std::ptrdiff_t>(word.record.size())) continue;
    const auto target = device::Programmed(word.memory, word.held[i], word.wanted[i]);
    changed |= static_cast<std::uint32_t>(word.held[i] ^ target) << 8 * i;
  }
  MixCount count;
  for (std::uint32_t done = changed;; done = (done - 1) & changed) {
    device::Bytes record = word.record;
    for (std::size_t i = 0; i < word.held.size(); ++i) {
      const std::ptrdiff_t place = word.at + static_cast<std::ptrdiff_t>(i);
      if (place < 0 || place >= static_cast<std::ptrdiff_t>(record.size())) continue;
      record[static_cast<std::size_t>(place)] = device::Programmed(
          word.memory, word.held[i], word.wanted[i], static_cast<std::uint8_t>(done >> 8 * i));
    }
    if (done != 0 && done != changed) {
      ++count.mixes;
      if (device::RecordBoots(device::SlotKind::BOOT_RECORDS, word.slot, record)) ++count.valid;
    }
    if (done == 0) return count;
  }
}

TEST(TornRecordTest, MixesAreCountedAsOneByOne) {
  const unsigned seed = 11;
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  std::uint64_t valid = 0;
  for (int i = 0; i < 400; ++i) {
    RecordWord word;
    word.slot = rng() % 2;
    word.memory = rng() % 4 == 0 ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
    for (std::size_t n = 0; n < device::BOOT_RECORD_SIZE; ++n) {
      word.record.push_back(static_cast<std::uint8_t>(rng()));
    }
    if (rng() % 3 == 0) word.record[device::FIRST_INVALID_MARK] = 1;
    // Often the record is valid before, and the word may begin before it and end behind it.
    if (rng() % 2 == 0) {
      word.record[15] = static_cast<std::uint8_t>(word.record[15] + device::BOOT_RECORD_SUM -
                                                  device::BootRecordSum(word.record));
    }
    word.at = static_cast<std::ptrdiff_t>(rng() % 19) - 3;
    for (std::ptrdiff_t n = 0; n < 4; ++n) {
      const std::ptrdiff_t place = word.at + n;
      const bool is_in = place >= 0 && place < 16;
      const auto held =
          is_in ? word.record[static_cast<std::size_t>(place)] : static_cast<std::uint8_t>(rng());
      word.held.push_back(held);
      // Few bits change, so that they can be gone through.
      word.wanted.push_back(static_cast<std::uint8_t>(held ^ (rng() & rng() & 0xFF)));
    }
    const MixCount expected = CountOneByOne(word);
    const MixCount count = CountMixes(word);
    ASSERT_EQ(count.mixes, expected.mixes) << i;
    ASSERT_EQ(count.valid, expected.valid) << i;
    valid += count.valid;
  }
  EXPECT_GT(valid, 100u);
}

TEST(TornRecordTest, WordThatStaysAsItIsHasNoMix) {
  const device::Bytes word = {1, 2, 3, 4};
  const MixCount count = CountMixes({.record = device::Bytes(16, 1), .held = word, .wanted = word});
  EXPECT_EQ(count.mixes, 0u);
  EXPECT_EQ(count.valid, 0u);
}

TEST(TornRecordTest, BytesBesideTheRecordMakeNoMix) {
  // The record adds up before and after the word: all old and all new are no mixes.
  device::Bytes record(16, 0);
  record[0] = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM);
  RecordWord word{.record = record, .at = -2, .held = {0, 0, record[0], 0}, .wanted = {}};
  word.wanted = {0xFF, 0x0F, record[0], 0};
  EXPECT_EQ(CountMixes(word).mixes, 0u);
  EXPECT_EQ(CountMixes(word).valid, 0u);
  // Two bits within the record, twelve before it: two mixes, of which none adds up.
  word.wanted[3] = 3;
  EXPECT_EQ(CountMixes(word).mixes, 2u);
  EXPECT_EQ(CountMixes(word).valid, 0u);
  // The same behind it.
  record = device::Bytes(16, 0);
  record[0] = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM);
  word = {.record = record, .at = 14, .held = {0, 0, 0, 0}, .wanted = {0, 3, 0xFF, 0xFF}};
  EXPECT_EQ(CountMixes(word).mixes, 2u);
  EXPECT_EQ(CountMixes(word).valid, 0u);
}

TEST(TornRecordTest, MarkOfTheFirstSlotKeepsAMixFromBeingValid) {
  // Byte 7 goes from 0 to 3, byte 6 from 2 to 0: the sum is 0xAB with byte 7 at 1 and byte 6 at 2
  // or, all new, with byte 7 at 3 and byte 6 at 0.
  device::Bytes record(16, 0);
  record[0] = 0xA8;
  record[6] = 2;
  RecordWord word{
      .slot = 1, .record = record, .at = 4, .held = {0, 0, 2, 0}, .wanted = {0, 0, 0, 3}};
  EXPECT_EQ(CountMixes(word).mixes, 6u);
  EXPECT_EQ(CountMixes(word).valid, 1u);
  word.slot = 0;
  EXPECT_EQ(CountMixes(word).valid, 0u);
}

TEST(TornRecordTest, LikelihoodIsTheMeanOverWords) {
  TornRecords records;
  records.Add(MixCount{.mixes = 0, .valid = 0});
  EXPECT_EQ(records.words, 0u);
  records.Add(MixCount{.mixes = 100, .valid = 0});
  EXPECT_EQ(records.OneIn(), 0u);
  records.Add(MixCount{.mixes = 1000, .valid = 10});
  EXPECT_EQ(records.words, 2u);
  EXPECT_EQ(records.mixes, 1100u);
  EXPECT_EQ(records.OneIn(), 200u);
}

}  // namespace
}  // namespace rehearse
