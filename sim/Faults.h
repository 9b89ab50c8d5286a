/// Faults of the simulated fabric: what goes wrong, and at which request.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "device/Bytes.h"

namespace sim {

using device::Guid;

/// One fault. It concerns the requests that name `command` and `device` where these are given, and
/// fires at the `nth` of them.
struct Fault {
  enum Kind {
    ANSWER,         ///< `text` is the whole answer; nothing is executed
    DEVICE_ERROR,   ///< the device answers an error, described by `text`, and does nothing
    DROP_ELEMENT,   ///< the answer lacks its last element
    EXTRA_ELEMENT,  ///< the answer has one element too many
    SILENCE,        ///< nothing is answered, nor executed
    DELAY,          ///< the answer comes `milliseconds` late
    CLOSE_BEFORE,   ///< the connection closes instead of the answer, after it was executed
    CLOSE_INSIDE,   ///< the connection closes in the middle of the answer
    CLOSE_AFTER,    ///< the connection closes after the answer
    RESET,          ///< the connection is reset instead of the answer
    POWER_OFF,      ///< the device loses power before the request
    CUT,            ///< the device loses power in the middle of its program or erase operation
    WRITE_WRONG,    ///< the device programs a wrong bit somewhere
  };

  Kind kind = ANSWER;
  std::string command;         ///< part of the command word; empty for any
  std::optional<Guid> device;  ///< as the request names it; the first one named when not given
  std::uint32_t nth = 1;       ///< from 1
  bool from_then_on = false;   ///< fires again at every later request that matches
  std::string text;
  std::uint32_t milliseconds = 0;
  std::uint32_t seed = 1;  ///< of what CUT and WRITE_WRONG leave to chance
  std::uint32_t seen = 0;  ///< matching requests so far
};

struct FaultName {
  std::string_view name;  ///< as fabric files and the log have it
  Fault::Kind kind;
};
/// Every kind of fault by its name.
std::span<const FaultName> FaultNames();

/// The faults that lie in wait.
class FaultLayer {
 public:
  void Add(const Fault& fault) { _faults.push_back(fault); }

  /// Counts the request and returns the fault that fires at it, valid until the next call; null
  /// when none does. `guids` are the devices that the request names.
  const Fault* Match(const std::string& command, const std::vector<Guid>& guids);

  /// Told of every fault that fires; may be empty.
  std::function<void(const std::string& line)> log;

 private:
  std::list<Fault> _faults;
};

}  // namespace sim
