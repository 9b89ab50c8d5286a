/// Files that get their name when they are complete, and logs.
#include "common/OutputFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>
#include <set>

#include "common/CommandLine.h"
#include "common/Files.h"
#include "common/ScratchFolder.h"

namespace {

namespace fs = std::filesystem;
using common::NamedFile;

class OutputFileTest : public testing::Test {
 protected:
  std::string Content(const std::string& name) const {
    const common::Bytes bytes = common::ReadFile(_folder / name);
    return {bytes.begin(), bytes.end()};
  }

  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(_folder.Path())) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  common::ScratchFolder _folder;
};

TEST_F(OutputFileTest, FileIsReplacedWhenItIsKeptAndNotBefore) {
  _folder.Write("a", "before");
  for (const bool is_kept : {false, true}) {
    {
      common::OutputFile file(_folder / "a");
      EXPECT_EQ(Names(), std::set<std::string>{"a"});
      file.Write(std::string_view("new "));
      file.Write(std::string_view("text"));
      EXPECT_EQ(Content("a"), "before");
      if (is_kept) file.Keep();
    }
    EXPECT_EQ(Content("a"), is_kept ? "new text" : "before");
    EXPECT_EQ(Names(), std::set<std::string>{"a"});
  }
}

TEST_F(OutputFileTest, LinkLeadsToTheNewFileWhetherThereWasOneOrNot) {
  _folder.Write("a", "before");
  fs::create_symlink("a", _folder / "link");
  fs::create_symlink("fresh", _folder / "dangling");
  for (const std::string name : {"link", "dangling"}) {
    common::OutputFile file(_folder / name);
    file.Write(std::string_view("new"));
    file.Keep();
    EXPECT_TRUE(fs::is_symlink(_folder / name));
    EXPECT_EQ(Content(name), "new");
  }
  EXPECT_EQ(Names(), (std::set<std::string>{"a", "link", "fresh", "dangling"}));
}

TEST_F(OutputFileTest, FileWithoutTextIsEmpty) {
  _folder.Write("a", "before");
  common::OutputFile(_folder / "a").Keep();
  EXPECT_EQ(Content("a"), "");
}

TEST_F(OutputFileTest, DescriptorsOfTheProgramItselfCannotBeNamed) {
  const std::string file = _folder.Write("a", "before");
  const common::Descriptor own(open(file.c_str(), O_WRONLY | O_CLOEXEC));
  const common::Descriptor inherited(open(file.c_str(), O_WRONLY | O_APPEND));
  const common::Descriptor for_reading(open(file.c_str(), O_RDONLY));
  const auto name = [](const common::Descriptor& fd) {
    return "/dev/fd/" + std::to_string(fd.Get());
  };
  EXPECT_THROW(common::OutputFile{name(own)}, std::runtime_error);
  EXPECT_THROW(common::OutputFile{name(for_reading)}, std::runtime_error);
  EXPECT_THROW(common::OutputFile{"/dev/fd/999"}, std::runtime_error);
  EXPECT_THROW(common::OutputFile{"/dev/fd/x"}, std::runtime_error);
  EXPECT_EQ(Content("a"), "before");
  common::OutputFile output(name(inherited));
  output.Write(std::string_view(" and after"));
  output.Keep();
  EXPECT_EQ(Content("a"), "before and after");
  EXPECT_GE(fcntl(inherited.Get(), F_GETFD), 0);  // it stays open
}

TEST_F(OutputFileTest, LogReplacesWhatTheFileHeldAtItsFirstText) {
  _folder.Write("log", "a long text of before");
  {
    common::LogFile log(_folder / "log");
    EXPECT_EQ(Content("log"), "a long text of before");
    log.Write("one\n");
    EXPECT_EQ(Content("log"), "one\n");
    log.Write("two\n");
    EXPECT_EQ(Content("log"), "one\ntwo\n");
    log.Finish();
  }
  {
    common::LogFile empty(_folder / "log");
    empty.Finish();
  }
  EXPECT_EQ(Content("log"), "");
}

TEST_F(OutputFileTest, LogThatIsNeverBegunLeavesNoFile) {
  _folder.Write("old", "before");
  {
    const common::LogFile fresh(_folder / "fresh");
    const common::LogFile old(_folder / "old");
    EXPECT_TRUE(fs::exists(_folder / "fresh"));
  }
  EXPECT_EQ(Names(), std::set<std::string>{"old"});
  EXPECT_EQ(Content("old"), "before");
}

TEST_F(OutputFileTest, LogTellsAtItsEndThatTextIsMissing) {
  common::LogFile log("/dev/full");
  log.Write("x");
  log.Write("y");
  EXPECT_THROW(log.Finish(), std::runtime_error);
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

/// Whether RefuseSameFiles takes an output.
bool IsTaken(const std::vector<NamedFile>& inputs, const std::vector<NamedFile>& outputs) {
  try {
    common::RefuseSameFiles(inputs, outputs);
  } catch (const common::UsageError&) {
    return false;
  }
  return true;
}

TEST_F(OutputFileTest, SameFilesAreRefusedByAnyName) {
  // Names of two files, of one that is not there, and of folders by way of links.
  const std::string a = _folder.Write("a", "a");
  const std::string b = _folder.Write("b", "a");
  fs::create_directory(_folder / "sub");
  fs::create_directory_symlink("..", _folder / "sub/up");
  fs::create_symlink("a", _folder / "link");
  fs::create_symlink("link", _folder / "link2");
  fs::create_hard_link(a, _folder / "hard");
  fs::create_symlink("fresh", _folder / "dangling");
  const std::vector<std::vector<std::string>> files{
      {"a", "./a", "sub/../a", "sub/up/a", "link", "link2", "hard", "sub/up/hard"},
      {"b", ".//b", "sub/up/b"},
      {"fresh", "./fresh", "sub/up/fresh", "dangling"}};
  std::mt19937 rng(7);
  for (int i = 0; i < 500; ++i) {
    const std::size_t one = rng() % files.size();
    const std::size_t other = rng() % files.size();
    const std::string name = _folder / files[one][rng() % files[one].size()];
    const std::string second = _folder / files[other][rng() % files[other].size()];
    SCOPED_TRACE(name + " " + second);
    EXPECT_EQ(IsTaken({{"FABRIC", name}}, {{"--json", second}}), one != other);
    EXPECT_EQ(IsTaken({}, {{"--log", ""}, {"--json", name}, {"--junit", second}}), one != other);
    EXPECT_TRUE(IsTaken({{"FABRIC", name}, {"--image", second}}, {{"--json", ""}}));
  }
  EXPECT_TRUE(IsTaken({}, {{"--json", "/dev/null"}, {"--junit", "/dev/null"}}));
}

TEST_F(OutputFileTest, ProgramThatRunsIsNoOutput) {
  const fs::path link = _folder / "program";
  fs::create_symlink(fs::read_symlink("/proc/self/exe"), link);
  for (const fs::path& name : {fs::path("/proc/self/exe"), fs::read_symlink(link), link}) {
    EXPECT_FALSE(IsTaken({}, {{"--json", name}})) << name;
  }
}

TEST_F(OutputFileTest, RefusalNamesBothFiles) {
  const std::string a = _folder.Write("a", "a");
  fs::create_hard_link(a, _folder / "b\x1b");
  try {
    common::RefuseSameFiles({{"FABRIC", a}}, {{"--json", _folder / "b\x1b"}});
    FAIL() << "the file is taken";
  } catch (const common::UsageError& error) {
    EXPECT_EQ(error.what(), "--json: " + (_folder / "b\\x1b") + " is the same file as FABRIC " + a +
                                "; give another one");
  }
}

}  // namespace
