/// Programs that run as processes of their own, and what connects us to them.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/Descriptor.h"

namespace common {

/// How a process ended.
struct Ending {
  int status = -1;                      ///< exit status; -1 where a signal ended it
  int signal = 0;                       ///< that ended it; 0 where none did
  std::chrono::duration<double> cpu{};  ///< user and system time
};

/// What to run, and how. Descriptors are borrowed until it runs; where one is negative the child
/// has that of this process.
struct Launch {
  std::vector<std::string> words = {};  ///< the program and its arguments
  /// Look for the program in PATH where its name has no slash, and take a file of no known form
  /// for a shell script, as a shell does.
  bool is_searched = false;
  int input = -1;
  int output = -1;
  int errors = -1;
  /// The name of a terminal that it has for all three, as the first process of a session of its
  /// own; empty for none.
  std::string terminal = {};
  /// A process group of its own, which Ctrl-Z can stop: what a shell makes of a command line.
  bool is_job = false;
  /// Signals that do again what they do by default: whoever runs us may have them ignored.
  std::vector<int> default_signals = {};
  const sigset_t* blocked_signals = nullptr;  ///< this process' own where null
};

/// A child, which is ended by SIGKILL where it outlives its owner.
class ChildProcess {
 public:
  /// Throws a std::system_error, "can't run PROGRAM", of the reason.
  explicit ChildProcess(const Launch& launch);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t Pid() const { return _pid; }
  /// Nothing happens where it has been waited for.
  void Signal(int number) const;

  /// Waits for its end. It can be asked again.
  Ending Wait();
  /// The same, but nothing where it still runs.
  std::optional<Ending> TryWait() { return Reap(false); }
  /// The same, but nothing where it still runs at the deadline.
  std::optional<Ending> WaitUntil(std::chrono::steady_clock::time_point deadline);

  /// A descriptor that can be read from when it has ended; lives as long as this does.
  int EndDescriptor();

 private:
  std::optional<Ending> Reap(bool is_patient);

  pid_t _pid = -1;
  std::optional<Ending> _ending;
  Descriptor _end;
};

/// The two ends of a pipe or of a terminal: what is written to `in` comes out of `out`.
struct Channel {
  Descriptor out;
  Descriptor in;
};

// Each throws std::system_error.
Channel MakePipe();
Channel MakeTerminal();
/// A terminal like the one on standard output, but one that changes nothing of what passes: that is
/// left to the other.
Channel MakeRawTerminal();

/// Waits until one of two descriptors can be read from; the second may be negative. False when the
/// deadline comes first.
bool WaitUntilReadable(int fd, int other, std::chrono::steady_clock::time_point deadline);

}  // namespace common
