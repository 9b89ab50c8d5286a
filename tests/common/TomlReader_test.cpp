#include "common/TomlReader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>

#include "common/ScratchFolder.h"

namespace common {
namespace {

class TomlReaderTest : public testing::Test {
 protected:
  TomlReader Reader(const std::string& text) { return TomlReader(_folder.Write("a.toml", text)); }

  /// What is wrong with a file, without its path; "" where nothing is.
  std::string Refusal(const std::string& text, const std::function<void(TomlReader&)>& read) {
    try {
      TomlReader reader = Reader(text);
      read(reader);
    } catch (const TomlError& error) {
      const std::string what = error.what();
      const std::string file = _folder / "a.toml";
      return what.starts_with(file) ? what.substr(file.size()) : what;
    }
    return "";
  }

  ScratchFolder _folder;
};

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
