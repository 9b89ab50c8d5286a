#include "serve/LinuxSystem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

#include "common/ChildProcess.h"
#include "common/ScratchFolder.h"

namespace serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

class LinuxSystemTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return (_folder.Path() / name).string(); }
  std::string MakeFile(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name)) << text;
    return Path(name);
  }
  std::string TextOf(const std::string& name) const {
    std::ifstream file(Path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  /// The descriptor of a file, which the test closes.
  int Opened(const std::string& path, Access access) {
    _opened.emplace_back(_system.Open(path, access));
    return _opened.back().Get();
  }

  common::ScratchFolder _folder;
  LinuxSystem _system;
  std::vector<common::Descriptor> _opened;
};

TEST_F(LinuxSystemTest, ClockIsMonotonicAndCountsNanoseconds) {
  const Time before = _system.Now();
  std::this_thread::sleep_for(milliseconds(5));
  EXPECT_GE(_system.Now() - before, milliseconds(5));
  EXPECT_GT(_system.WallSeconds(), 1'700'000'000);
}

TEST_F(LinuxSystemTest, FileIsReadAndWrittenInPlace) {
  const int fd = Opened(MakeFile("memory", "0123456789"), Access::WRITE);
  Bytes bytes(4);
  EXPECT_EQ(_system.Read(fd, 3, bytes), 4);
  EXPECT_EQ(bytes, (Bytes{'3', '4', '5', '6'}));
  EXPECT_EQ(_system.Write(fd, 8, Bytes{'a', 'b', 'c'}), 3);
  EXPECT_EQ(_system.Flush(fd), 0);
  EXPECT_EQ(TextOf("memory"), "01234567abc");
  EXPECT_EQ(_system.SizeOf(fd), 11);
  EXPECT_EQ(_system.Read(fd, 9, bytes), 2) << "fewer at the end";
  EXPECT_EQ(_system.Read(fd, 11, bytes), 0);
}

TEST_F(LinuxSystemTest, FileThatIsOpenForReadingCannotBeWritten) {
  const int fd = Opened(MakeFile("memory", "0123"), Access::READ);
  EXPECT_EQ(_system.Write(fd, 0, Bytes{1}), -EBADF);
  EXPECT_EQ(TextOf("memory"), "0123");
}

TEST_F(LinuxSystemTest, OnlyALockFileIsCreated) {
  EXPECT_EQ(_system.Open(Path("none"), Access::READ), -ENOENT);
  EXPECT_EQ(_system.Open(Path("none"), Access::WRITE), -ENOENT);
  EXPECT_GE(Opened(Path("lock"), Access::LOCK), 0);
  EXPECT_EQ(_system.Open(Path("none/lock"), Access::LOCK), -ENOENT);
  EXPECT_EQ(_system.Open(_folder.Path().string(), Access::WRITE), -EISDIR);
}

TEST_F(LinuxSystemTest, DescriptorIsNotInherited) {
  const int fd = Opened(MakeFile("memory", ""), Access::WRITE);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(Opened(Path("lock"), Access::LOCK), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LinuxSystemTest, LockIsForOneOpenFile) {
  const int first = Opened(Path("lock"), Access::LOCK);
  const int second = Opened(Path("lock"), Access::LOCK);
  EXPECT_EQ(_system.Lock(first), 0);
  EXPECT_EQ(_system.Lock(second), -EWOULDBLOCK);
  _system.Close(_opened[0].Release());
  EXPECT_EQ(_system.Lock(second), 0);
}

TEST_F(LinuxSystemTest, PipeHasNoPlacesAndHoldsNobodyUp) {
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  const int fd = Opened(Path("pipe"), Access::WRITE);
  ASSERT_GE(fd, 0);
  Bytes bytes(4);
  EXPECT_EQ(_system.Read(fd, 0, bytes), -ESPIPE);
  EXPECT_EQ(_system.Write(fd, 0, bytes), -ESPIPE);
  EXPECT_EQ(_system.SizeOf(fd), -EINVAL);
  EXPECT_GE(Opened(Path("pipe"), Access::READ), 0);
}

TEST_F(LinuxSystemTest, FullDeviceIsAnError) {
  const int fd = Opened("/dev/full", Access::WRITE);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(_system.Write(fd, 0, Bytes{1}), -ENOSPC);
  EXPECT_EQ(_system.SizeOf(fd), -EINVAL);
}

TEST_F(LinuxSystemTest, FileIsNeitherAdapterNorMtd) {
  const int fd = Opened(MakeFile("memory", "0123"), Access::WRITE);
  Bytes bytes{0, 1};
  const I2cMessage message{.address = 0x50, .is_read = false, .bytes = bytes};
  MtdFacts facts;
  EXPECT_EQ(_system.HasPlainI2c(fd), -ENOTTY);
  EXPECT_EQ(_system.CheckI2cAddress(fd, 0x50), -ENOTTY);
  EXPECT_EQ(_system.TransferI2c(fd, std::span(&message, 1)), -ENOTTY);
  EXPECT_EQ(_system.GetMtdFacts(fd, facts), -ENOTTY);
  EXPECT_EQ(facts, MtdFacts());
  EXPECT_EQ(_system.EraseMtd(fd, 0, 4096), -ENOTTY);
  EXPECT_EQ(TextOf("memory"), "0123");
}

TEST_F(LinuxSystemTest, TransferThatNoAdapterTakesIsRefused) {
  const int fd = Opened(MakeFile("memory", ""), Access::WRITE);
  Bytes bytes(8193);
  const std::vector<I2cMessage> many(43, {.address = 0x50, .bytes = std::span(bytes).first(1)});
  const I2cMessage too_long{.address = 0x50, .is_read = true, .bytes = bytes};
  EXPECT_EQ(_system.TransferI2c(fd, many), -EINVAL);
  EXPECT_EQ(_system.TransferI2c(fd, std::span(many).first(42)), -ENOTTY);
  EXPECT_EQ(_system.TransferI2c(fd, std::span(&too_long, 1)), -EINVAL);
  EXPECT_EQ(_system.TransferI2c(fd, {}), -EINVAL);
}

TEST_F(LinuxSystemTest, DescriptorThatIsNotOpenIsAnError) {
  Bytes bytes(1);
  MtdFacts facts;
  EXPECT_EQ(_system.Read(-1, 0, bytes), -EBADF);
  EXPECT_EQ(_system.Write(-1, 0, bytes), -EBADF);
  EXPECT_EQ(_system.Lock(-1), -EBADF);
  EXPECT_EQ(_system.Flush(-1), -EBADF);
  EXPECT_EQ(_system.SizeOf(-1), -EBADF);
  EXPECT_EQ(_system.HasPlainI2c(-1), -EBADF);
  EXPECT_EQ(_system.GetMtdFacts(-1, facts), -EBADF);
  EXPECT_EQ(_system.EraseMtd(-1, 0, 1), -EBADF);
}

TEST_F(LinuxSystemTest, SmallFileIsTextWithoutItsLineEnd) {
  EXPECT_EQ(_system.ReadText(MakeFile("a", "nor\n")), "nor");
  EXPECT_EQ(_system.ReadText(MakeFile("b", "")), "");
  EXPECT_EQ(_system.ReadText(MakeFile("c", "two\nlines\n\n")), "two\nlines\n");
  EXPECT_EQ(_system.ReadText(Path("none")), std::nullopt);
  EXPECT_EQ(_system.ReadText(_folder.Path().string()), std::nullopt);
  EXPECT_EQ(_system.ReadText(MakeFile("d", std::string(10000, 'x')))->size(), 10000u);
}

TEST_F(LinuxSystemTest, FolderIsListedInOrder) {
  MakeFile("b", "");
  MakeFile("a", "");
  MakeFile("c", "");
  EXPECT_THAT(_system.List(_folder.Path().string()), ElementsAre("a", "b", "c"));
  EXPECT_THAT(_system.List(Path("none")), IsEmpty());
  EXPECT_THAT(_system.List(Path("a")), IsEmpty());
}

TEST_F(LinuxSystemTest, LinkIsFollowed) {
  MakeFile("file", "");
  ASSERT_EQ(symlink("file", Path("link").c_str()), 0);
  EXPECT_EQ(_system.Resolve(Path("link")), _system.Resolve(Path("file")));
  EXPECT_NE(_system.Resolve(Path("link")), "");
  EXPECT_EQ(_system.Resolve(Path("none")), "");
}

TEST_F(LinuxSystemTest, TextReplacesAFileAsAWhole) {
  EXPECT_EQ(_system.WriteText(Path("lease"), "long text\n"), 0);
  EXPECT_EQ(_system.WriteText(Path("lease"), "short\n"), 0);
  EXPECT_EQ(TextOf("lease"), "short\n");
  EXPECT_THAT(_system.List(_folder.Path().string()), ElementsAre("lease"));
  EXPECT_EQ(_system.WriteText(Path("none/lease"), ""), -ENOENT);
  EXPECT_EQ(_system.Remove(Path("lease")), 0);
  EXPECT_EQ(_system.Remove(Path("lease")), -ENOENT);
}

TEST_F(LinuxSystemTest, TextIsNotWrittenThroughALink) {
  MakeFile("other", "precious");
  ASSERT_EQ(symlink("other", Path("lease.new").c_str()), 0);
  EXPECT_EQ(_system.WriteText(Path("lease"), "text"), -ELOOP);
  EXPECT_EQ(TextOf("other"), "precious");
}

TEST_F(LinuxSystemTest, ProgramEndsWithItsStatus) {
  EXPECT_EQ(_system.RunProgram({"/bin/true"}, seconds(20)), 0);
  EXPECT_EQ(_system.RunProgram({"/bin/sh", "-c", "exit 7"}, seconds(20)), 7);
  EXPECT_EQ(_system.RunProgram({"/bin/sh", "-c", "kill -9 $$"}, seconds(20)), 128 + SIGKILL);
  EXPECT_EQ(_system.RunProgram({Path("none")}, seconds(20)), -ENOENT);
  EXPECT_EQ(_system.RunProgram({MakeFile("text", "true\n")}, seconds(20)), -EACCES);
  EXPECT_EQ(_system.RunProgram({}, seconds(20)), -EINVAL);
}

TEST_F(LinuxSystemTest, WordsReachAProgramAsTheyAre) {
  const std::string script = "printf '%s|' \"$@\" > " + Path("words");
  EXPECT_EQ(
      _system.RunProgram({"/bin/sh", "-c", script, "sh", "a b", "$HOME", "", "*"}, seconds(20)), 0);
  EXPECT_EQ(TextOf("words"), "a b|$HOME||*|");
}

TEST_F(LinuxSystemTest, ProgramThatTakesTooLongEndsWithWhatItStarted) {
  const std::string script = "sleep 300 & echo $! > " + Path("pid") + "; wait";
  const Time start = _system.Now();
  EXPECT_EQ(_system.RunProgram({"/bin/sh", "-c", script}, milliseconds(500)), -ETIME);
  EXPECT_LT(_system.Now() - start, seconds(60));
  const pid_t pid = static_cast<pid_t>(std::stol(TextOf("pid")));
  // Somebody else must wait for it; until then it is a zombie.
  bool is_gone = false;
  for (int i = 0; i < 1000 && !is_gone; ++i) {
    const auto state = _system.ReadText("/proc/" + std::to_string(pid) + "/stat");
    is_gone = !state || state->find(") Z ") != std::string::npos;
    if (!is_gone) std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_TRUE(is_gone);
}

TEST_F(LinuxSystemTest, OutputOfAProgramGoesToStandardError) {
  const int before = dup(STDERR_FILENO);
  const common::Descriptor file(open(Path("told").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_GE(dup2(file.Get(), STDERR_FILENO), 0);
  const int status =
      _system.RunProgram({"/bin/sh", "-c", "echo out; echo err >&2; cat"}, seconds(20));
  ASSERT_GE(dup2(before, STDERR_FILENO), 0);
  close(before);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(TextOf("told"), "out\nerr\n");
}

TEST_F(LinuxSystemTest, ProgramHasNoSignalBlocked) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &all, &before), 0);
  const int status = _system.RunProgram(
      {"/bin/sh", "-c", "grep -q '^SigBlk:.0*$' /proc/self/status"}, seconds(20));
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace serve
