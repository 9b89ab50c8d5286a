/// Running a burn as a process of its own.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "report/BurnLog.h"

namespace report {

/// How a burn ended.
struct BurnRun {
  Ending ending;
  bool has_left_processes = false;  ///< that it started, and that still hold its console
  bool is_asked_to_end = false;     ///< this process was, by a signal, while the burn ran
};

/// Whether this process has been asked to end since its last burn, by a signal that RunBurn would
/// pass on. Forgets these signals: there is no burn to obey them.
bool IsAskedToEnd();

/// Runs the burn `words`, program and arguments, to its end, and hands its console over to `take`
/// as it comes; through a terminal like the one on standard output where `is_terminal`. Signals
/// that ask this process to end are passed on to the burn meanwhile. Throws std::system_error, when
/// the burn cannot be started above all.
BurnRun RunBurn(const std::vector<std::string>& words, bool is_terminal,
                const std::function<void(std::string_view)>& take);

}  // namespace report
