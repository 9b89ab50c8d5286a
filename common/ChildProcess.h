/// Child processes, and the pipes and terminals that connect to them.
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
  int signal = 0;                       ///< the signal that ended it; 0 where none did
  std::chrono::duration<double> cpu{};  ///< user and system time
};

/// A program to start. Descriptors are borrowed until it runs; where one is negative, the child
/// inherits that of this process.
struct Launch {
  std::vector<std::string> words = {};  ///< the program and its arguments
  /// Search PATH for a program without a slash in its name, and run a file of unknown format as a
  /// shell script, like a shell.
  bool is_searched = false;
  int input = -1;
  int output = -1;
  int errors = -1;
  /// The name of a terminal to use for all three, as the leader of a new session; empty for none.
  std::string terminal = {};
  /// Start it in a new process group, like a job of a shell, so that Ctrl-Z can stop it.
  bool is_job = false;
  /// Signals to reset to their default action: this process may have inherited them as ignored.
  std::vector<int> default_signals = {};
  const sigset_t* blocked_signals = nullptr;  ///< those of this process where null
};

/// A child process. The destructor kills it (SIGKILL) if it still runs.
class ChildProcess {
 public:
  /// Throws std::system_error, "can't run PROGRAM: REASON".
  explicit ChildProcess(const Launch& launch);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t Pid() const { return _pid; }
  /// Sends a signal. Does nothing once the child has been waited for.
  void Signal(int number) const;

  /// Waits for its end. May be called again.
  Ending Wait();
  /// The same without waiting; nothing where it still runs.
  std::optional<Ending> TryWait() { return Reap(false); }
  /// The same; nothing where it still runs at the deadline.
  std::optional<Ending> WaitUntil(std::chrono::steady_clock::time_point deadline);

  /// A descriptor that becomes readable when the child ends. Owned by this object.
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
/// A terminal with the settings of the one on standard output, but in raw mode: it passes all bytes
/// on unchanged.
Channel MakeRawTerminal();

}  // namespace common
