#include "common/GuidList.h"

#include "tests/support/support.h"

namespace common {
namespace {

class GuidListTest : public testing::Test {
 protected:
  std::string ErrorOfFile(const std::string& text) {
    std::set<std::uint64_t> guids;
    const std::string file = _folder.Write("guids", text);
    const std::string error = ErrorOf([&] { AddGuids("@" + file, guids); });
    return error.starts_with(file) ? error.substr(file.size()) : error;
  }

  ScratchFolder _folder;
};

TEST_F(GuidListTest, FileHasOneGuidOnEachLine) {
  std::set<std::uint64_t> guids = {1};
  const std::string file = _folder.Write("guids",
                                         "\xEF\xBB\xBF# rack 1\r\n0x00AA550000000010\r\n\r\n"
                                         "  aa550000000020 \t# spare\n\n0X10\n"
                                         "ffffffffffffffff");
  AddGuids("@" + file, guids);
  AddGuids("2,0x3", guids);
  EXPECT_EQ(guids, (std::set<std::uint64_t>{1, 2, 3, 0x10, 0xAA550000000010, 0xAA550000000020,
                                            0xFFFFFFFFFFFFFFFF}));
}

TEST_F(GuidListTest, WrongLineIsNamed) {
  EXPECT_EQ(ErrorOfFile("10\n\nzz\n"), ":3: not a GUID: zz");
  for (const std::string line : {"10,20", "10 20", "0x", "-1", "10000000000000000"}) {
    EXPECT_EQ(ErrorOfFile(line + "\n"), ":1: not a GUID: " + line);
  }
}

TEST_F(GuidListTest, FileWithoutAGuidIsRefused) {
  EXPECT_EQ(ErrorOfFile(""), ": no GUID in this file");
  EXPECT_EQ(ErrorOfFile("# none\n\r\n"), ": no GUID in this file");
}

TEST_F(GuidListTest, FileThatCannotBeReadIsNamed) {
  std::set<std::uint64_t> guids;
  EXPECT_EQ(ErrorOf([&] { AddGuids("@" + (_folder / "none"), guids); }),
            "can't read " + (_folder / "none") + ": No such file or directory");
}

}  // namespace
}  // namespace common
