#include "device/Crc.h"

#include <gtest/gtest.h>

namespace device {
namespace {

TEST(CrcTest, NothingLeavesWhatSixteenZeroBitsMakeOfTheStart) { EXPECT_EQ(CrcOf({}), 0x0955u); }

TEST(CrcTest, IsWhatItIsByHand) {
  EXPECT_EQ(CrcOf(Bytes{0, 0, 0, 0}), 0x0009u);
  EXPECT_EQ(CrcOf(Bytes{0xCB, 0x84, 0xCB, 0x84}), 0xB29Bu);
}

TEST(CrcTest, EveryBitCounts) {
  const Bytes plain(12, 0x5A);
  const std::uint32_t crc = CrcOf(plain);
  for (std::size_t bit = 0; bit < plain.size() * 8; ++bit) {
    Bytes other = plain;
    other[bit / 8] = static_cast<std::uint8_t>(other[bit / 8] ^ (1u << bit % 8));
    EXPECT_NE(CrcOf(other), crc) << "bit " << bit;
  }
}

TEST(CrcTest, TheOrderOfBytesCounts) {
  EXPECT_NE(CrcOf(Bytes{1, 2, 3, 4}), CrcOf(Bytes{2, 1, 3, 4}));
}

}  // namespace
}  // namespace device
