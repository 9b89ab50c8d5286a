#include "common/ChildProcess.h"

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "common/SystemError.h"

namespace common {

namespace {

using std::chrono::steady_clock;

/// What posix_spawn does in the child before it executes the program.
class Actions {
 public:
  Actions() {
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
  }
  Actions(const Actions&) = delete;
  Actions& operator=(const Actions&) = delete;
  ~Actions() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
  }

  void Take(const Launch& launch) {
    int flags = 0;
    if (!launch.terminal.empty()) {
      flags |= POSIX_SPAWN_SETSID;
      // The first terminal that a session leader opens becomes its controlling terminal.
      posix_spawn_file_actions_addopen(&files, STDIN_FILENO, launch.terminal.c_str(), O_RDWR, 0);
      posix_spawn_file_actions_adddup2(&files, STDIN_FILENO, STDOUT_FILENO);
      posix_spawn_file_actions_adddup2(&files, STDIN_FILENO, STDERR_FILENO);
    }
    Replace(STDIN_FILENO, launch.input);
    Replace(STDOUT_FILENO, launch.output);
    Replace(STDERR_FILENO, launch.errors);
    if (launch.is_job) flags |= POSIX_SPAWN_SETPGROUP;  // 0 by default: the child's own
    if (!launch.default_signals.empty()) {
      flags |= POSIX_SPAWN_SETSIGDEF;
      sigset_t signals;
      sigemptyset(&signals);
      for (const int number : launch.default_signals) sigaddset(&signals, number);
      posix_spawnattr_setsigdefault(&attributes, &signals);
    }
    if (launch.blocked_signals != nullptr) {
      flags |= POSIX_SPAWN_SETSIGMASK;
      posix_spawnattr_setsigmask(&attributes, launch.blocked_signals);
    }
    posix_spawnattr_setflags(&attributes, static_cast<short>(flags));
  }

  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;

 private:
  void Replace(int standard, int fd) {
    if (fd >= 0) posix_spawn_file_actions_adddup2(&files, fd, standard);
  }
};

Ending EndingOf(int status, const rusage& usage) {
  const auto time = [](const timeval& value) {
    return std::chrono::seconds(value.tv_sec) + std::chrono::microseconds(value.tv_usec);
  };
  Ending ending;
  if (WIFEXITED(status)) ending.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) ending.signal = WTERMSIG(status);
  ending.cpu = time(usage.ru_utime) + time(usage.ru_stime);
  return ending;
}

}  // namespace

ChildProcess::ChildProcess(const Launch& launch) {
  Actions actions;
  actions.Take(launch);
  const auto run = [&](std::vector<std::string> words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const auto spawn = launch.is_searched ? posix_spawnp : posix_spawn;
    return spawn(&_pid, argv[0], &actions.files, &actions.attributes, argv.data(), environ);
  };
  int error = run(launch.words);
  if (error == ENOEXEC && launch.is_searched) {
    std::vector<std::string> words = launch.words;
    words.insert(words.begin(), "/bin/sh");
    error = run(std::move(words));
  }
  if (error == 0) return;
  _pid = -1;
  errno = error;
  ThrowSystemError("can't run " + launch.words.front());
}

ChildProcess::~ChildProcess() {
  if (_ending) return;
  Signal(SIGKILL);
  Reap(true);
}

void ChildProcess::Signal(int number) const {
  // Once it has been waited for, its number may belong to another process.
  if (!_ending) kill(_pid, number);
}

Ending ChildProcess::Wait() { return Reap(true).value_or(Ending()); }

std::optional<Ending> ChildProcess::WaitUntil(steady_clock::time_point deadline) {
  if (!_ending && !WaitUntilReadable(EndDescriptor(), -1, deadline)) return {};
  return Wait();
}

int ChildProcess::EndDescriptor() {
  if (!_end.IsOpen()) {
    // The header of glibc 2.36 declares pidfd_open without C linkage for C++.
    _end = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, _pid, 0)));
    if (!_end.IsOpen()) ThrowSystemError("can't watch a process");
  }
  return _end.Get();
}

std::optional<Ending> ChildProcess::Reap(bool is_patient) {
  while (!_ending) {
    int status = 0;
    rusage usage{};
    const pid_t ended = wait4(_pid, &status, is_patient ? 0 : WNOHANG, &usage);
    if (ended == 0) return {};
    if (ended < 0 && errno == EINTR) continue;
    // ECHILD: where SIGCHLD is ignored, the status of a child is lost.
    _ending = ended < 0 ? Ending() : EndingOf(status, usage);
  }
  return _ending;
}

Channel MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ThrowSystemError("can't make a pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Channel MakeTerminal() {
  int out = -1;
  int in = -1;
  if (openpty(&out, &in, nullptr, nullptr, nullptr) != 0) {
    ThrowSystemError("can't make a terminal");
  }
  Channel channel{Descriptor(out), Descriptor(in)};
  fcntl(out, F_SETFD, FD_CLOEXEC);
  fcntl(in, F_SETFD, FD_CLOEXEC);
  return channel;
}

Channel MakeRawTerminal() {
  Channel channel = MakeTerminal();
  termios settings{};
  winsize size{};
  tcgetattr(STDOUT_FILENO, &settings);
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  cfmakeraw(&settings);
  if (tcsetattr(channel.in.Get(), TCSANOW, &settings) != 0 ||
      ioctl(channel.in.Get(), TIOCSWINSZ, &size) != 0) {
    ThrowSystemError("can't make a terminal");
  }
  return channel;
}

}  // namespace common
