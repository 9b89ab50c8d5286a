#include "report/BurnProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <optional>
#include <utility>

#include "common/Descriptor.h"
#include "common/ExitStatus.h"
#include "common/SystemError.h"

namespace tools {

namespace {

using common::Descriptor;
using common::ThrowSystemError;

constexpr std::size_t BLOCK_SIZE = 65536;
/// How long the console may stay open after the burner's end, for what it started.
constexpr std::chrono::seconds MOST_PATIENCE{2};
/// More than a pipe or a terminal holds: what comes later did not come from the burner.
constexpr std::size_t MOST_HELD = std::size_t{1} << 20;

/// The two ends of a pipe or of a terminal: what is written to `in` comes out of `out`.
struct Channel {
  Descriptor out;
  Descriptor in;
};

Channel Pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ThrowSystemError("can't make a pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// A terminal like the one on standard output, but one that changes nothing of what passes: that is
/// left to the other.
Channel Terminal() {
  termios settings{};
  winsize size{};
  tcgetattr(STDOUT_FILENO, &settings);
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  cfmakeraw(&settings);
  int out = -1;
  int in = -1;
  if (openpty(&out, &in, nullptr, &settings, &size) != 0) ThrowSystemError("can't make a terminal");
  Channel channel{Descriptor(out), Descriptor(in)};
  fcntl(out, F_SETFD, FD_CLOEXEC);
  fcntl(in, F_SETFD, FD_CLOEXEC);
  return channel;
}

/// Signals that are read like a file instead of interrupting: the end of the burn, and those that
/// ask us to end, which are for the burn to obey.
class Signals {
 public:
  Signals() {
    signal(SIGPIPE, SIG_IGN);  // whoever reads the console may go away; the burn goes on
    signal(SIGCHLD, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, &_before);
    _fd = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    if (!_fd.IsOpen()) ThrowSystemError("can't receive signals");
  }

  /// For the child, before it becomes another program.
  void Restore() const {
    signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_SETMASK, &_before, nullptr);
  }

  int Fd() const { return _fd.Get(); }

  /// The number of the next one; waits for it.
  int Next() const {
    signalfd_siginfo info{};
    return read(_fd.Get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo)
                                                                : 0;
  }

 private:
  sigset_t _before{};
  Descriptor _fd;
};

/// Becomes the program `av`, which ends with a null pointer. Returns only where that cannot be run:
/// the error.
int Become(std::vector<char*> av) {
  execvp(av[0], av.data());
  return errno;
}

/// Starts `words` with its standard output going into `console`. Throws when it cannot be run.
pid_t Start(const std::vector<std::string>& words, const Signals& signals,
            const Descriptor& console) {
  Channel trouble = Pipe();
  std::vector<char*> av;
  av.reserve(words.size() + 1);
  for (const std::string& word : words) av.push_back(const_cast<char*>(word.c_str()));
  av.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) ThrowSystemError("can't start a process");
  if (pid == 0) {
    signals.Restore();
    dup2(console.Get(), STDOUT_FILENO);
    const int reason = Become(std::move(av));
    [[maybe_unused]] const ssize_t told = write(trouble.in.Get(), &reason, sizeof(reason));
    _exit(common::CANNOT);
  }
  trouble.in.Close();
  int reason = 0;
  if (read(trouble.out.Get(), &reason, sizeof(reason)) == sizeof(reason)) {
    waitpid(pid, nullptr, 0);
    errno = reason;
    ThrowSystemError("can't run " + words[0]);
  }
  return pid;
}

}  // namespace

Ending RunBurn(const std::vector<std::string>& words, bool is_terminal,
               const std::function<void(std::string_view)>& take) {
  const Signals signals;
  Channel console = is_terminal ? Terminal() : Pipe();
  const pid_t pid = Start(words, signals, console.in);
  console.in.Close();

  std::optional<Ending> ending;
  std::chrono::steady_clock::time_point deadline;
  std::size_t since_end = 0;  // bytes
  std::vector<char> block(BLOCK_SIZE);
  // What it started may go on printing after its own end.
  while (!ending || console.out.IsOpen()) {
    int patience = -1;
    if (ending) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 && since_end > MOST_HELD) break;
      patience = std::max(0, static_cast<int>(left.count()));
    }
    pollfd waiting[] = {{signals.Fd(), POLLIN, 0}, {console.out.Get(), POLLIN, 0}};
    const int ready = poll(waiting, 2, patience);
    if (ready < 0 && errno != EINTR) ThrowSystemError("can't wait for the burn");
    if (ready == 0) break;
    if (waiting[1].revents != 0) {
      const ssize_t got = read(console.out.Get(), block.data(), block.size());
      if (got > 0) {
        take({block.data(), static_cast<std::size_t>(got)});
        if (ending) since_end += static_cast<std::size_t>(got);
      } else if (got == 0 || errno != EINTR) {
        console.out.Close();  // a terminal ends with an error
      }
    }
    if (waiting[0].revents == 0) continue;
    const int number = signals.Next();
    if (number != SIGCHLD) {
      if (ending) break;  // nobody is left to be asked
      kill(pid, number);
    } else if (int status = 0; !ending && waitpid(pid, &status, WNOHANG) == pid) {
      ending = WIFSIGNALED(status) ? Ending{0, WTERMSIG(status)} : Ending{WEXITSTATUS(status), 0};
      deadline = std::chrono::steady_clock::now() + MOST_PATIENCE;
    }
  }
  if (console.out.IsOpen()) {
    std::cerr << "fwpush-report: the burner has ended; what it started goes on without the console"
              << std::endl;
  }
  return *ending;
}

}  // namespace tools
