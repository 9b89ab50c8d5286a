#include "src/utils.h"

#include <cstring>

#include "tests/support/support.h"

namespace {

using Pieces = std::vector<std::string>;

class UtilsTest : public ConsoleTest {};

std::string Printed(char* text) {
  const std::string copy = text;
  delete[] text;
  return copy;
}

TEST_F(UtilsTest, SplitWithoutEmptyPiecesTreatsRunsOfDelimitersAsOne) {
  EXPECT_EQ(splitv("a,b", ",", false), (Pieces{"a", "b"}));
  EXPECT_EQ(splitv(",a,,b,", ",", false), (Pieces{"a", "b"}));
  EXPECT_EQ(splitv("a b,c", ", ", false), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(splitv("", ",", false), Pieces{});
  EXPECT_EQ(splitv(",,,", ",", false), Pieces{});
}

TEST_F(UtilsTest, SplitWithEmptyPiecesGivesOnePieceForEachDelimiterAndOneMore) {
  EXPECT_EQ(splitv("a,,b", ",", true), (Pieces{"a", "", "b"}));
  EXPECT_EQ(splitv("a,", ",", true), (Pieces{"a", ""}));
  EXPECT_EQ(splitv("a,,", ",", true), (Pieces{"a", "", ""}));
  EXPECT_EQ(splitv(",a", ",", true), (Pieces{"", "a"}));
  EXPECT_EQ(splitv("a", ",", true), (Pieces{"a"}));
}

TEST_F(UtilsTest, SplitOfDelimitersOnlyGivesAnEmptyPieceForEach) {
  EXPECT_EQ(splitv("", ",", true), Pieces{});
  EXPECT_EQ(splitv(",,", ",", true), (Pieces{"", ""}));
}

TEST_F(UtilsTest, SplitWithoutDelimitersCutsIntoCharacters) {
  EXPECT_EQ(splitv("ab", "", false), (Pieces{"a", "b"}));
  EXPECT_EQ(splitv("ab", "", true), (Pieces{"a", "b"}));
  EXPECT_EQ(splitv("", "", true), Pieces{});
}

TEST_F(UtilsTest, SplitIntoAListFollowsTheSameRule) {
  EXPECT_EQ(splitl(",a,,b,", ",", false), (std::list<std::string>{"a", "b"}));
  EXPECT_EQ(splitl("a,,b", ",", true), (std::list<std::string>{"a", "", "b"}));
}

TEST_F(UtilsTest, SplitOfRandomTextsAgreesWithACharacterwiseCount) {
  TestRng rng(20240501);
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (std::size_t i = rng() % 12; i > 0; --i) text += "ab,;"[rng() % 4];
    SCOPED_TRACE(text);
    Pieces all{""};  // one piece for each delimiter and one more
    for (const char c : text) {
      if (c == ',' || c == ';') {
        all.emplace_back();
      } else {
        all.back() += c;
      }
    }
    Pieces full = all;
    std::erase(full, "");
    EXPECT_EQ(splitv(text, ",;", false), full);
    if (full.empty()) all.pop_back();  // a text of delimiters only has no piece after the last
    EXPECT_EQ(splitv(text, ",;", true), all);
  }
}

TEST_F(UtilsTest, NextTokenLeavesTheDelimiterForTheNextCall) {
  std::string text = "  x y";
  EXPECT_EQ(next_token(text, " "), "x");
  EXPECT_EQ(text, " y");
  EXPECT_EQ(next_token(text, " "), "y");
  EXPECT_EQ(text, "");
  EXPECT_EQ(next_token(text, " "), "");
}

TEST_F(UtilsTest, NextTokenOfDelimitersOnlyLeavesTheTextAlone) {
  std::string text = ",,";
  EXPECT_EQ(next_token(text, ","), "");
  EXPECT_EQ(text, ",,");
}

TEST_F(UtilsTest, NextTokenWithoutDelimitersTakesOneCharacter) {
  std::string text = "ab";
  EXPECT_EQ(next_token(text, ""), "a");
  EXPECT_EQ(text, "b");
}

TEST_F(UtilsTest, NumberMustUseUpItsWord) {
  u_int32_t value = 0;
  EXPECT_TRUE(ParseNumber("1f", 16, value));
  EXPECT_EQ(value, 0x1Fu);
  EXPECT_TRUE(ParseNumber("0X1F", 16, value));
  EXPECT_EQ(value, 0x1Fu);
  EXPECT_TRUE(ParseNumber("-1", 16, value));
  EXPECT_EQ(value, 0xFFFFFFFFu);
  EXPECT_TRUE(ParseNumber("100000005", 16, value));  // cut to 32 bits
  EXPECT_EQ(value, 5u);
  EXPECT_TRUE(ParseNumber("", 16, value));
  EXPECT_EQ(value, 0u);
  EXPECT_FALSE(ParseNumber("1g", 16, value));
  EXPECT_FALSE(ParseNumber("0x", 16, value));
  EXPECT_FALSE(ParseNumber("-", 16, value));
  EXPECT_FALSE(ParseNumber("1 ", 10, value));
}

TEST_F(UtilsTest, PrintFormatsIntoATextOfItsOwn) {
  EXPECT_EQ(OutputOf([] { EXPECT_EQ(Printed(print("%s=%d", "x", 5)), "x=5"); }), "");
}

TEST_F(UtilsTest, PrintTakesTextsAroundAndPastItsFirstBuffer) {
  for (const std::size_t size : {0u, 1021u, 1022u, 1023u, 1024u, 2046u, 2047u, 100000u}) {
    const std::string text(size, 'x');
    EXPECT_EQ(Printed(print("%s", text.c_str())), text) << size;
  }
}

TEST_F(UtilsTest, ErrmsgStoresItsTextNotesItAndReturnsFalse) {
  ErrMsg holder;
  EXPECT_EQ(holder.err(), nullptr);
  const std::string output =
      OutputOf([&] { EXPECT_FALSE(holder.errmsg("bad %s %d", "thing", 7)); });
  EXPECT_STREQ(holder.err(), "bad thing 7");
  char address[32];
  std::snprintf(address, sizeof(address), "%p", static_cast<void*>(&holder));
  EXPECT_EQ(output, std::string("-D- Error set for ") + address + ": bad thing 7\n");
  holder.err_clear();
  EXPECT_EQ(holder.err(), nullptr);
}

TEST_F(UtilsTest, RegexpStoresTheWholeMatchAndItsCaptures) {
  Regexp regexp("([a-z]+)=([0-9]+)", 0);
  EXPECT_TRUE(regexp.match("  key=42;"));
  EXPECT_EQ(regexp.nmatches(), 3);
  EXPECT_EQ(regexp.cap(0), "key=42");
  EXPECT_EQ(regexp.cap(1), "key");
  EXPECT_EQ(regexp.cap(2), "42");
  EXPECT_EQ(regexp.cap(3), "");
}

TEST_F(UtilsTest, RegexpStopsAtTheFirstSubExpressionThatTookNoPart) {
  Regexp regexp("(a)|(b)(c)", 0);
  EXPECT_TRUE(regexp.match("bc"));
  EXPECT_EQ(regexp.nmatches(), 1);
  EXPECT_EQ(regexp.cap(0), "bc");
  EXPECT_EQ(regexp.cap(2), "");
}

TEST_F(UtilsTest, RegexpForgetsItsCapturesWhenNothingMatches) {
  Regexp regexp("a", 0);
  EXPECT_TRUE(regexp.match("a"));
  EXPECT_FALSE(regexp.match("b"));
  EXPECT_EQ(regexp.nmatches(), 0);
}

TEST_F(UtilsTest, RegexpHonoursItsFlags) {
  Regexp regexp("ABC", REG_ICASE);
  EXPECT_TRUE(regexp.match("xabcx"));
}

TEST_F(UtilsTest, RegexpThatDoesNotCompileIsNotValid) {
  Regexp regexp("[", 0);
  ASSERT_NE(regexp.err(), nullptr);
  regex_t plain;
  const int failure = regcomp(&plain, "[", REG_EXTENDED);
  char reason[256];
  regerror(failure, &plain, reason, sizeof(reason));
  EXPECT_STREQ(regexp.err(), reason);
  EXPECT_FALSE(regexp.match("x"));
  EXPECT_EQ(regexp.cap(0), "");
  EXPECT_EQ(regexp.splitv("x"), Pieces{"x"});
  EXPECT_EQ(regexp.splitl("x"), std::list<std::string>{"x"});
  regexp.err_clear();
  EXPECT_EQ(regexp.err(), nullptr);
}

TEST_F(UtilsTest, RegexpThatWasNeverCompiledMatchesNothingAndKeepsItsCaptures) {
  Regexp regexp;
  EXPECT_FALSE(regexp.match("x"));
  EXPECT_EQ(regexp.nmatches(), 0);
  EXPECT_EQ(regexp.splitv("x"), Pieces{"x"});
}

TEST_F(UtilsTest, RegexpCanBeCompiledAnew) {
  Regexp regexp("[", 0);
  EXPECT_TRUE(regexp.compile("b+", 0));
  EXPECT_EQ(regexp.err(), nullptr);
  EXPECT_TRUE(regexp.match("abbc"));
  EXPECT_EQ(regexp.cap(0), "bb");
}

TEST_F(UtilsTest, RegexpSplitGivesNoEmptyPieces) {
  const Regexp regexp(",+", 0);
  EXPECT_EQ(regexp.splitv(",a,,b,"), (Pieces{"a", "b"}));
  EXPECT_EQ(regexp.splitv("ab"), Pieces{"ab"});
  EXPECT_EQ(regexp.splitl("a,b"), (std::list<std::string>{"a", "b"}));
}

TEST_F(UtilsTest, RegexpSplitHandsBackATextWithoutAnyMatch) {
  const Regexp regexp(",+", REG_NOSUB);  // which takes no captures away
  EXPECT_EQ(regexp.splitv(""), Pieces{""});
  EXPECT_EQ(regexp.splitv("ab"), Pieces{"ab"});
  EXPECT_EQ(regexp.splitv("a,b"), (Pieces{"a", "b"}));
  EXPECT_EQ(regexp.splitv(",,"), Pieces{});
}

TEST_F(UtilsTest, IntegersAreAppendedMostSignificantByteFirst) {
  DataVec out;
  out << u_int32_t{0x12345678};
  EXPECT_EQ(out, Hex("12345678"));
  out << 0x0011223344556677ul << u_int8_t{0xAB};
  EXPECT_EQ(out, Hex("12345678 0011223344556677 ab"));
}

TEST_F(UtilsTest, NumberOf64BitsIsAppendedWhicheverIntegerTypeTheHostHasForIt) {
  DataVec out;
  out << u_int64_t{0x0011223344556677};
  EXPECT_EQ(out, Hex("0011223344556677"));
  out.clear();
  out << 0x8899AABBul << 0xCCDDEEFF00112233ull;
  EXPECT_EQ(out, Hex("000000008899aabb ccddeeff00112233"));
}

TEST_F(UtilsTest, VectorsAreAppendedInOrder) {
  DataVec out{1};
  out << DataVec{2, 3} << std::vector<u_int32_t>{4, 0x05060708};
  EXPECT_EQ(out, Hex("010203 00000004 05060708"));
  out << out;
  EXPECT_EQ(out, Hex("010203 00000004 05060708 010203 00000004 05060708"));
}

TEST_F(UtilsTest, HexDigitsAreSmallOrCapital) {
  int found = 0;
  for (int c = 0; c < 256; ++c) {
    const std::size_t at = std::string("0123456789abcdefABCDEF").find(static_cast<char>(c));
    if (at == std::string::npos) {
      EXPECT_GT(HexDigit(static_cast<char>(c)), 15) << c;
      continue;
    }
    ++found;
    EXPECT_EQ(HexDigit(static_cast<char>(c)), at < 16 ? at : at - 6) << c;
  }
  EXPECT_EQ(found, 22);
}

TEST_F(UtilsTest, KmapTellsWhichKeysExistWithoutMakingThem) {
  kmap<int, std::string> map;
  map[3] = "c";
  map[1] = "a";
  EXPECT_TRUE(map.exists(1));
  EXPECT_FALSE(map.exists(2));
  EXPECT_EQ(map.keys(), (std::vector<int>{1, 3}));
}

}  // namespace
