#include "report/BurnProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "common/Descriptor.h"
#include "common/SystemError.h"

namespace report {

namespace {

using common::Descriptor;
using common::ThrowSystemError;

constexpr std::size_t BLOCK_SIZE = 65536;
/// How long the console may stay open after the burner's end, for what it started.
constexpr std::chrono::seconds MOST_PATIENCE{2};
/// More than a pipe or a terminal holds: what comes later did not come from the burner.
constexpr std::size_t MOST_HELD = std::size_t{1} << 20;

/// Signals that are read like a file instead of interrupting: the end of the burn, and those that
/// ask us to end, which are for the burn to obey.
class Signals {
 public:
  Signals() {
    signal(SIGPIPE, SIG_IGN);  // whoever reads the console may go away; the burn goes on
    signal(SIGCHLD, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      // One that is ignored, as nohup does, asks for nothing; the burn ignores it, too.
      struct sigaction action {};
      sigaction(number, nullptr, &action);
      if (action.sa_handler != SIG_IGN) sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, &_before);
    _fd = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    if (!_fd.IsOpen()) ThrowSystemError("can't receive signals");
  }

  /// Those that were blocked before.
  const sigset_t& Before() const { return _before; }
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

/// Made before the first burn: a signal that comes between two burns is kept for the second.
const Signals& OurSignals() {
  static const Signals signals;
  return signals;
}

}  // namespace

bool IsAskedToEnd() {
  bool is_asked = false;
  pollfd waiting{OurSignals().Fd(), POLLIN, 0};
  while (poll(&waiting, 1, 0) > 0) is_asked |= OurSignals().Next() != SIGCHLD;
  return is_asked;
}

BurnRun RunBurn(const std::vector<std::string>& words, bool is_terminal,
                const std::function<void(std::string_view)>& take) {
  const Signals& signals = OurSignals();
  common::Channel console = is_terminal ? common::MakeRawTerminal() : common::MakePipe();
  common::ChildProcess burn({.words = words,
                             .is_searched = true,
                             .output = console.in.Get(),
                             .default_signals = {SIGPIPE},
                             .blocked_signals = &signals.Before()});
  console.in.Close();

  std::optional<Ending> ending;
  bool is_asked_to_end = false;
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
      is_asked_to_end = true;
      if (ending) break;  // nobody is left to be asked
      burn.Signal(number);
    } else if (!ending && (ending = burn.TryWait())) {
      deadline = std::chrono::steady_clock::now() + MOST_PATIENCE;
    }
  }
  return {*ending, console.out.IsOpen(), is_asked_to_end};
}

}  // namespace report
