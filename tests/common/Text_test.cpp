#include "common/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
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
  EXPECT_EQ(Printable("\x1b[2J\x7f\n"), "\\x1b[2J\\x7f\\x0a");
  EXPECT_EQ(Printable("\xc2\x9b"), "\\xc2\\x9b");  // begins a command, as ESC [ does
}

TEST(TextTest, Utf8IsShownAsItIs) {
  const std::string text = "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x94\xa5 \xc2\xa0 \xf4\x8f\xbf\xbf";
  EXPECT_EQ(Printable(text), text);
}

TEST(TextTest, WhatIsNoUtf8IsShownInDigits) {
  EXPECT_EQ(Printable("\xe4 \xc3"), "\\xe4 \\xc3");  // Latin-1, and cut short
  EXPECT_EQ(Printable("\xc1\x81\xe0\x81\x81"), "\\xc1\\x81\\xe0\\x81\\x81");  // longer than needed
  EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");                    // a surrogate
  EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");           // past the last one
  EXPECT_EQ(Printable("\xff\xc3\xa4\xc3"), "\\xff\xc3\xa4\\xc3");             // beside a good one
}

/// The text with every byte that is escaped put back.
std::string Unescaped(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_escaped = text.compare(i, 2, "\\x") == 0;
    result +=
        is_escaped ? static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)) : text[i];
    i += is_escaped ? 3 : 0;
  }
  return result;
}

TEST(TextTest, OfAnyBytesNoControlCharacterIsLeftAndNoByteLost) {
  std::mt19937 random(1);
  std::size_t shown = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    while (text.size() < 1 + static_cast<std::size_t>(i) % 8) {
      const auto byte = static_cast<char>(random());
      if (byte != '\\') text += byte;
    }
    const std::string printed = Printable(text);
    EXPECT_EQ(Unescaped(printed), text);
    EXPECT_EQ(Printable(printed), printed);
    for (std::size_t at = 0; at < printed.size(); ++at) {
      const auto byte = static_cast<unsigned char>(printed[at]);
      EXPECT_TRUE(byte >= 0x20 && byte != 0x7F) << printed;
      const bool is_c1 = byte == 0xC2 && static_cast<unsigned char>(printed.at(at + 1)) < 0xA0;
      EXPECT_FALSE(is_c1) << printed;
      shown += byte >= 0xC2 ? 1 : 0;
    }
  }
  EXPECT_GT(shown, 100u);
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

TEST(TextTest, AddressIsSplitAtItsLastColon) {
  using Address = std::pair<std::string, std::uint16_t>;
  EXPECT_EQ(ParseHostPort("127.0.0.1:26519"), Address("127.0.0.1", 26519));
  EXPECT_EQ(ParseHostPort("localhost:0"), Address("localhost", 0));
  EXPECT_EQ(ParseHostPort("a:b:65535"), Address("a:b", 65535));
  for (const char* text : {"", "a", ":1", "a:", "a:-1", "a:+1", "a:65536", "a:1x", "a: 1"}) {
    EXPECT_EQ(ParseHostPort(text), std::nullopt) << text;
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
