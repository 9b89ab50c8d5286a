#include "common/TomlReader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <map>

#include "tests/support/TomlTest.h"

namespace common {
namespace {

using TomlReaderTest = TomlTest;

TEST_F(TomlReaderTest, ValuesAreHandedOut) {
  TomlReader reader = Reader(
      "text = 'a'\nflag = true\nnumber = 0x10\nlist = ['x', 5]\n[table]\nkey = 1\n[[many]]\n"
      "[[many]]\nname = 'second'\n");
  EXPECT_EQ(reader.String("text"), "a");
  EXPECT_EQ(reader.Bool("flag"), true);
  EXPECT_EQ(reader.Number("number", 0, 16), 16u);
  const auto list = reader.Array("list");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].text, "x");
  EXPECT_EQ(list[1].text, "");
  EXPECT_EQ(list[1].line, 4u);
  EXPECT_TRUE(reader.IsTable("table"));
  EXPECT_FALSE(reader.IsTable("text"));
  EXPECT_EQ(reader.Table("table")->Number("key", 1, 1), 1u);
  auto many = reader.Tables("many");
  ASSERT_EQ(many.size(), 2u);
  EXPECT_EQ(many[1].String("name"), "second");
  EXPECT_EQ(many[1].Line(), 8u);
  EXPECT_EQ(reader.LineOf("number"), 3u);
  EXPECT_EQ(reader.Path("b.img"), _folder.Path() / "b.img");
  reader.Finish();
}

TEST_F(TomlReaderTest, TableLivesLongerThanItsFile) {
  TomlReader table = *Reader("[table]\nkey = 'kept'\n").Table("table");
  EXPECT_EQ(table.String("key"), "kept");
}

TEST_F(TomlReaderTest, WhatIsMissingIsHandedOutEmpty) {
  TomlReader reader = Reader("");
  EXPECT_EQ(reader.String("key"), std::nullopt);
  EXPECT_EQ(reader.Bool("key"), std::nullopt);
  EXPECT_EQ(reader.Number("key", 0, 1), std::nullopt);
  EXPECT_FALSE(reader.Any("key").has_value());
  EXPECT_TRUE(reader.Array("key").empty());
  EXPECT_TRUE(reader.Tables("key").empty());
  EXPECT_FALSE(reader.Table("key").has_value());
}

TEST_F(TomlReaderTest, WrongValueIsToldWithItsLine) {
  const std::string text = "\nkey = 'x'\n";
  EXPECT_EQ(Refusal(text, [](TomlReader& reader) { reader.Bool("key"); }),
            ":2: 'key' must be true or false");
  EXPECT_EQ(Refusal(text, [](TomlReader& reader) { reader.Number("key", 1, 7); }),
            ":2: 'key' must be a number from 1 to 7");
  EXPECT_EQ(Refusal("key = 8", [](TomlReader& reader) { reader.Number("key", 1, 7); }),
            ":1: 'key' must be a number from 1 to 7");
  EXPECT_EQ(Refusal(text, [](TomlReader& reader) { reader.Array("key"); }),
            ":2: 'key' must be an array");
  EXPECT_EQ(Refusal(text, [](TomlReader& reader) { reader.Tables("key"); }),
            ":2: 'key' must be an array");
  EXPECT_EQ(Refusal("key = [\n1]", [](TomlReader& reader) { reader.Tables("key"); }),
            ":2: 'key' must be tables, as [[key]]");
  EXPECT_EQ(Refusal(text, [](TomlReader& reader) { reader.Table("key"); }),
            ":2: 'key' must be a table");
  EXPECT_EQ(Refusal("key = 1", [](TomlReader& reader) { reader.String("key"); }),
            ":1: 'key' must be a string");
  EXPECT_EQ(Refusal("a = 1\n[table]\n",
                    [](TomlReader& reader) {
                      TomlReader table = *reader.Table("table");
                      table.Needed("key", table.String("key"));
                    }),
            ":2: 'key' is missing");
}

TEST_F(TomlReaderTest, LongNumbersAreHandedOut) {
  constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
  TomlReader reader = Reader("long = 0x123456789abcdef0\nnegative = -1\n");
  EXPECT_EQ(reader.LongNumber("long", 0, MOST), 0x123456789abcdef0u);
  EXPECT_EQ(reader.LongNumber("missing", 0, 1), std::nullopt);
  const auto refusal = [this](std::uint64_t min, std::uint64_t max) {
    return Refusal("a = 0x100000000\nnegative = -1\n", [&](TomlReader& other) {
      other.LongNumber("a", min, max);
      other.LongNumber("negative", 0, MOST);
    });
  };
  EXPECT_EQ(refusal(0, 0xFFFFFFFF), ":1: 'a' must be a number from 0 to 4294967295");
  EXPECT_EQ(refusal(0x100000001, 0x100000002),
            ":1: 'a' must be a number from 4294967297 to 4294967298");
  EXPECT_EQ(refusal(0, 0x100000000),
            ":2: 'negative' must be a number from 0 to 18446744073709551615");
}

TEST_F(TomlReaderTest, NumberThatOnlyItsLowBitsPutInRangeIsRefused) {
  EXPECT_EQ(Refusal("a = 0x100000001", [](TomlReader& reader) { reader.Number("a", 0, 7); }),
            ":1: 'a' must be a number from 0 to 7");
}

TEST_F(TomlReaderTest, StringsAreHandedOut) {
  TomlReader reader = Reader("words = ['/bin/true', '']\nnone = []\n");
  EXPECT_EQ(reader.Strings("words"), (std::vector<std::string>{"/bin/true", ""}));
  EXPECT_EQ(reader.Strings("none"), std::vector<std::string>());
  EXPECT_EQ(reader.Strings("missing"), std::nullopt);
  for (const char* text : {"\nwords = 'x'", "words = ['x',\n5]"}) {
    EXPECT_EQ(Refusal(text, [](TomlReader& other) { other.Strings("words"); }),
              ":2: 'words' must be an array of strings");
  }
}

TEST_F(TomlReaderTest, RowsAreHandedOut) {
  TomlReader reader = Reader("rows = [[0x70, 0],\n[1, 0x100000000]]\nnone = []\n");
  const auto rows = reader.Rows("rows", 2, 0x100000000);
  ASSERT_TRUE(rows);
  ASSERT_EQ(rows->size(), 2u);
  EXPECT_EQ(rows->at(0).numbers, (std::vector<std::uint64_t>{0x70, 0}));
  EXPECT_EQ(rows->at(1).numbers, (std::vector<std::uint64_t>{1, 0x100000000}));
  EXPECT_EQ(rows->at(1).line, 2u);
  const auto none = reader.Rows("none", 2, 1);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
  EXPECT_FALSE(reader.Rows("missing", 2, 1).has_value());
  for (const char* text :
       {"\nrows = 5", "\nrows = [5]", "rows = [[1, 2],\n[1]]", "rows = [[1, 2],\n[1, 2, 3]]",
        "rows = [[1,\n 8]]", "rows = [[1,\n -1]]", "rows = [[1,\n 'x']]", "rows = [\n'x']"}) {
    EXPECT_EQ(Refusal(text, [](TomlReader& other) { other.Rows("rows", 2, 7); }),
              ":2: 'rows' must be an array of arrays of 2 numbers from 0 to 7")
        << text;
  }
}

TEST_F(TomlReaderTest, KeyThatNobodyAskedForIsRefused) {
  EXPECT_EQ(Refusal("known = 1\nunknwon = 2\n",
                    [](TomlReader& reader) {
                      reader.Any("known");
                      reader.Finish();
                    }),
            ":2: unknown key 'unknwon'");
}

TEST_F(TomlReaderTest, FileThatIsNoTomlIsRefused) {
  const auto parse = [this](const std::string& text) { return Refusal(text, [](TomlReader&) {}); };
  EXPECT_TRUE(parse("a = 1\nb = \n").starts_with(":2: "));
  EXPECT_EQ(parse("a = 1\nb\xC3\xA4 = 1\n"),
            ":2: only strings and comments may have characters outside ASCII");
  EXPECT_EQ(parse("a = '\xC3\xA4' # \xC3\xA4\nb = '''\n\xC3\xA4'''\nc = \"\\\"\xC3\xA4\"\n"), "");
  EXPECT_EQ(parse("\xEF\xBB\xBF a = 1\n"), "");
  EXPECT_TRUE(parse("a = 'x\n\xC3\xA4'\n").starts_with(":"));
}

TEST_F(TomlReaderTest, FileThatCannotBeReadIsRefused) {
  const std::string name = _folder / "name";
  std::filesystem::create_symlink(name, name);
  for (const auto& [file, reason] :
       std::map<std::string, std::string>{{_folder / "missing", "No such file or directory"},
                                          {_folder.Path().string(), "Is a directory"},
                                          {name, "Too many levels of symbolic links"}}) {
    try {
      const TomlReader reader(file);
      ADD_FAILURE() << file;
    } catch (const TomlError& error) {
      EXPECT_EQ(std::string(error.what()), "can't open " + file + ": " + reason);
    }
  }
}

}  // namespace
}  // namespace common
