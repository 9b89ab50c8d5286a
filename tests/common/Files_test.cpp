/// Files that get their name when they are complete.
#include "common/Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "common/ScratchFolder.h"

namespace {

/// What reached the disk for good, and what bore the name at that moment.
struct Synced {
  ino_t inode;
  off_t size;
  ino_t named;
};
std::vector<Synced> g_synced;
std::string g_watched;

ino_t InodeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

}  // namespace

/// Takes the place of the C library's.
extern "C" int fsync(int fd) {
  struct stat status {};
  fstat(fd, &status);
  g_synced.push_back({status.st_ino, status.st_size, InodeOf(g_watched)});
  return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

class FilesTest : public testing::Test {
 protected:
  FilesTest() : _path(_folder.Write("fw.img", "before")) {
    g_watched = _path;
    g_synced.clear();
  }

  common::ScratchFolder _folder;
  std::string _path;
};

TEST_F(FilesTest, FileKeepsTheModeOfWhatItReplaces) {
  std::filesystem::create_symlink("fw.img", _folder / "link.img");
  for (const mode_t mode : {0600u, 0640u, 0444u, 0755u, 0666u}) {
    for (const std::string& name : {_path, _folder / "link.img"}) {
      SCOPED_TRACE(mode);
      ASSERT_EQ(chmod(_path.c_str(), mode), 0);
      const ino_t before = InodeOf(_path);
      common::WriteFile(name, {1, 2, 3});
      EXPECT_NE(InodeOf(_path), before);  // it is a new one
      EXPECT_EQ(ModeOf(_path), mode);
      EXPECT_EQ(common::ReadFile(_path), (common::Bytes{1, 2, 3}));
    }
  }
}

TEST_F(FilesTest, FileThatReplacesNothingHasTheModeOfAnyNewOne) {
  common::WriteFile(_folder / "new", {1});
  std::ofstream(_folder / "plain") << "x";
  EXPECT_EQ(ModeOf(_folder / "new"), ModeOf(_folder / "plain"));
}

TEST_F(FilesTest, FileIsOnTheDiskBeforeItGetsItsName) {
  const ino_t before = InodeOf(_path);
  common::WriteFile(_path, common::Bytes(1000, 0x55));
  ASSERT_EQ(g_synced.size(), 1u);
  EXPECT_EQ(g_synced[0].inode, InodeOf(_path));
  EXPECT_EQ(g_synced[0].size, 1000);
  EXPECT_EQ(g_synced[0].named, before);
}

}  // namespace
