/// What a service manager and a server tell each other, by the environment and a socket. Without a
/// service manager nothing is there, and nothing happens.
#pragma once

#include <optional>
#include <string>

#include "serve/System.h"

namespace serve {

/// The socket that this process was started with, which listens already; nothing where there is
/// none. Later programs do not inherit it, nor the variables that announce it. Throws
/// std::runtime_error where there are several.
std::optional<int> TakePassedSocket();

/// Tells the service manager how the server is. Later programs do not inherit the variables.
class ServiceManager {
 public:
  ServiceManager();

  /// Such as "READY=1" or "STATUS=...", several lines where they are one message.
  void Tell(const std::string& text) const;
  /// How often it must be told "WATCHDOG=1", or it takes the server for hung: half of what it
  /// allows. Nothing where it does not watch.
  std::optional<Time> WatchdogInterval() const { return _watchdog; }

 private:
  std::string _address;  ///< of its socket; empty: none
  std::optional<Time> _watchdog;
};

/// As in syslog.
enum class Priority { ERROR = 3, WARNING = 4, NOTICE = 5, INFO = 6 };

/// Writes texts for people to standard error, a line at a time. Where that leads to the journal,
/// each line begins with its priority, and without the name of the program, which the journal
/// knows.
class Log {
 public:
  explicit Log(const std::string& program);

  void Write(Priority priority, const std::string& text) const;

 private:
  std::string _program;
  bool _is_journal;
};

}  // namespace serve
