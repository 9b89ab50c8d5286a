#include "common/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace common {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(TextTest, PartsFollowEachOtherAsAStreamWritesThem) {
  EXPECT_EQ(Text("chip ", 0x50u, ", 0x", std::hex, 0x50u), "chip 80, 0x50");
}

TEST(TextTest, WhatATerminalWouldActOnIsShownInDigits) {
  EXPECT_EQ(Printable("plain ~ text"), "plain ~ text");
  EXPECT_EQ(Printable("\x1b[2J\x7f\n\xc3\xa4"), "\\x1b[2J\\x7f\\x0a\\xc3\\xa4");
}

TEST(TextTest, NumbersAndGuidsAreHexadecimal) {
  EXPECT_EQ(HexText(0x1F000), "0x1f000");
  EXPECT_EQ(HexText(0), "0x0");
  EXPECT_EQ(HexGuid(0xAA5500000000FFu), "0x00aa5500000000ff");
}

TEST(TextTest, ADigitIsWorthWhatItIsWorthInEitherCase) {
  const std::string_view digits = "0123456789abcdef";
  for (std::size_t i = 0; i < digits.size(); ++i) EXPECT_EQ(HexDigit(digits[i]), i);
  EXPECT_EQ(HexDigit('A'), 10);
  EXPECT_EQ(HexDigit('F'), 15);
  for (const char c : {'/', ':', '@', 'G', '`', 'g', ' ', '\0', '\xff'}) {
    EXPECT_EQ(HexDigit(c), std::nullopt) << c;
  }
}

TEST(TextTest, GuidsOfAListAreHexadecimal) {
  std::set<std::uint64_t> guids;
  ParseGuids("0x1234,abcd,,10,", guids);
  EXPECT_THAT(guids, ElementsAre(0x10, 0x1234, 0xABCD));
  try {
    ParseGuids("20,x,30", guids);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Error parsing guid #1 in the given list.");
  }
  EXPECT_THAT(guids, ElementsAre(0x10, 0x20, 0x1234, 0xABCD));
}

TEST(TextTest, AByteCountIsDecimalHexadecimalOrOctal) {
  EXPECT_EQ(ParseByteCount("65536"), 65536u);
  EXPECT_EQ(ParseByteCount("0x10000"), 0x10000u);
  EXPECT_EQ(ParseByteCount("010"), 8u);
  EXPECT_EQ(ParseByteCount("0xffffffff"), 0xFFFFFFFFu);
  EXPECT_EQ(ByteCountCheck("0x10000"), "");
}

TEST(TextTest, WhatIsNoByteCountIsRefused) {
  for (const char* text : {"", "0", "-1", "4k", "0x", "0x100000000", "99999999999999999999"}) {
    EXPECT_EQ(ParseByteCount(text), std::nullopt) << text;
    EXPECT_EQ(ByteCountCheck(text), "must be a number of bytes, such as 0x10000") << text;
  }
}

TEST(TextTest, WordsAreNeverEmpty) {
  EXPECT_THAT(Words("  a \t b"), ElementsAre("a", "b"));
  EXPECT_THAT(Words("a,b,", ","), ElementsAre("a", "b"));
  EXPECT_THAT(Words(" \t "), IsEmpty());
  EXPECT_THAT(Words(""), IsEmpty());
}

TEST(TextTest, LinesMayBeEmpty) {
  EXPECT_THAT(Lines("a\n\nb"), ElementsAre("a", "", "b"));
  EXPECT_THAT(Lines("a\n"), ElementsAre("a"));
  EXPECT_THAT(Lines("\n"), ElementsAre(""));
  EXPECT_THAT(Lines(""), IsEmpty());
}

}  // namespace
}  // namespace common
