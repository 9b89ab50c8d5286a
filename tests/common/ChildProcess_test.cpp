#include "common/ChildProcess.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>

#include "common/ScratchFolder.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

std::vector<std::string> Shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

/// All that comes out of a channel whose other end the children have.
std::string Drain(Channel& channel) {
  channel.in.Close();
  std::string text;
  char block[4096];
  for (ssize_t got; (got = read(channel.out.Get(), block, sizeof(block))) > 0;) {
    text.append(block, static_cast<std::size_t>(got));
  }
  return text;
}

/// What a program that runs as `launch` says, on standard output.
std::string Output(Launch launch) {
  Channel output = MakePipe();
  launch.output = output.in.Get();
  ChildProcess child(launch);
  std::string text = Drain(output);
  EXPECT_EQ(child.Wait().status, 0);
  return text;
}

/// Why a program cannot be run.
std::string Refusal(const Launch& launch) {
  try {
    ChildProcess child(launch);
    child.Wait();
  } catch (const std::system_error& error) {
    return error.what();
  }
  return "(it runs)";
}

bool IsThere(pid_t pid) { return kill(pid, 0) == 0; }

TEST(ChildProcessTest, ExitStatusAndSignalAreTold) {
  ChildProcess ended({.words = Shell("exit 7")});
  EXPECT_EQ(ended.Wait().status, 7);
  EXPECT_EQ(ended.Wait().signal, 0);
  ChildProcess killed({.words = Shell("kill -9 $$")});
  EXPECT_EQ(killed.Wait().status, -1);
  EXPECT_EQ(killed.Wait().signal, SIGKILL);
}

TEST(ChildProcessTest, TimeOfTheProcessorIsTold) {
  ChildProcess busy({.words = Shell("i=0; while [ $i -lt 20000 ]; do i=$((i+1)); done")});
  EXPECT_GT(busy.Wait().cpu.count(), 0);
}

TEST(ChildProcessTest, DescriptorsTakeThePlacesOfTheStandardOnes) {
  Channel input = MakePipe();
  Channel output = MakePipe();
  Channel errors = MakePipe();
  ASSERT_EQ(write(input.in.Get(), "word\n", 5), 5);
  ChildProcess child({.words = Shell("read w; echo out $w; echo err $w >&2"),
                      .input = input.out.Get(),
                      .output = output.in.Get(),
                      .errors = errors.in.Get()});
  EXPECT_EQ(Drain(output), "out word\n");
  EXPECT_EQ(Drain(errors), "err word\n");
  EXPECT_EQ(child.Wait().status, 0);
}

TEST(ChildProcessTest, ChildHasNoOtherDescriptorOfAChannel) {
  const Channel other = MakePipe();
  const std::string script =
      "[ -e /proc/self/fd/" + std::to_string(other.in.Get()) + " ] && echo open; echo done";
  EXPECT_EQ(Output({.words = Shell(script)}), "done\n");
}

TEST(ChildProcessTest, ProgramThatCannotBeRunIsToldByReason) {
  const ScratchFolder folder;
  const std::string file = folder.Write("file", "exit 0\n");
  EXPECT_EQ(Refusal({.words = {"/nonexistent/program"}}),
            "can't run /nonexistent/program: No such file or directory");
  EXPECT_EQ(Refusal({.words = {file}}), "can't run " + file + ": Permission denied");
  std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  EXPECT_EQ(Refusal({.words = {file}}), "can't run " + file + ": Exec format error");
  EXPECT_EQ(Refusal({.words = {"sh", "-c", "exit"}}), "can't run sh: No such file or directory");
}

TEST(ChildProcessTest, SearchedProgramIsFoundAsAShellFindsIt) {
  const ScratchFolder folder;
  const std::string script = folder.Write("script", "echo \"$1\"\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  EXPECT_EQ(Output({.words = {"sh", "-c", "echo found"}, .is_searched = true}), "found\n");
  EXPECT_EQ(Output({.words = {script, "a word"}, .is_searched = true}), "a word\n");
  EXPECT_EQ(Refusal({.words = {"nonexistent-program"}, .is_searched = true}),
            "can't run nonexistent-program: No such file or directory");
}

TEST(ChildProcessTest, ChildDoesNotOutliveItsOwner) {
  pid_t pid = 0;
  {
    const ChildProcess child({.words = Shell("sleep 60")});
    pid = child.Pid();
    EXPECT_TRUE(IsThere(pid));
  }
  EXPECT_FALSE(IsThere(pid));
}

TEST(ChildProcessTest, WaitEndsAtItsDeadline) {
  ChildProcess child({.words = Shell("sleep 60")});
  EXPECT_EQ(child.TryWait(), std::nullopt);
  EXPECT_EQ(child.WaitUntil(steady_clock::now() + milliseconds(20)), std::nullopt);
  child.Signal(SIGTERM);
  const auto ending = child.WaitUntil(steady_clock::now() + seconds(20));
  ASSERT_TRUE(ending.has_value());
  EXPECT_EQ(ending->signal, SIGTERM);
  EXPECT_EQ(child.TryWait()->signal, SIGTERM);
  child.Signal(SIGTERM);  // its number may be another's by now
}

TEST(ChildProcessTest, IgnoredAndBlockedSignalsAreRestored) {
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigset_t before;
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const auto fields = [](const Launch& launch) {
    Launch reading = launch;
    reading.words = {"/bin/grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"};
    return Output(reading);
  };
  const auto has = [](const std::string& text, const std::string& field, int number) {
    const std::size_t at = text.find(field + ":\t");
    const auto mask = std::stoull(text.substr(at + field.size() + 2, 16), nullptr, 16);
    return (mask >> (number - 1) & 1) == 1;
  };
  const std::string as_here = fields({});
  EXPECT_TRUE(has(as_here, "SigIgn", SIGUSR1));
  EXPECT_TRUE(has(as_here, "SigBlk", SIGUSR2));
  const std::string restored = fields({.default_signals = {SIGUSR1}, .blocked_signals = &before});
  EXPECT_FALSE(has(restored, "SigIgn", SIGUSR1));
  EXPECT_FALSE(has(restored, "SigBlk", SIGUSR2));
  sigprocmask(SIG_SETMASK, &before, nullptr);
  signal(SIGUSR1, SIG_DFL);
}

TEST(ChildProcessTest, JobHasAProcessGroupOfItsOwn) {
  const ChildProcess job({.words = Shell("sleep 60"), .is_job = true});
  EXPECT_EQ(getpgid(job.Pid()), job.Pid());
  const ChildProcess other({.words = Shell("sleep 60")});
  EXPECT_EQ(getpgid(other.Pid()), getpgrp());
}

TEST(ChildProcessTest, TerminalIsTheChildsOwn) {
  Channel terminal = MakeTerminal();
  ChildProcess child({.words = Shell("test -t 0 && test -t 2 && echo yes > /dev/tty"),
                      .terminal = ttyname(terminal.in.Get())});
  EXPECT_EQ(child.Wait().status, 0);
  EXPECT_EQ(Drain(terminal), "yes\r\n");
}

TEST(ChildProcessTest, RawTerminalChangesNothing) {
  Channel terminal = MakeRawTerminal();
  ChildProcess child({.words = Shell("test -t 1 && printf 'a\\nb'"), .output = terminal.in.Get()});
  EXPECT_EQ(child.Wait().status, 0);
  EXPECT_EQ(Drain(terminal), "a\nb");
}

}  // namespace
}  // namespace common
