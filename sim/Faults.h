/// Faults that are injected into a simulated fabric, and the requests at which they fire.
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

/// One fault. It matches requests that name `command` and `device`, if these are given, and fires
/// at the `nth` match.
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
  std::uint32_t seed = 1;  ///< of the random choices of CUT and WRITE_WRONG
  std::uint32_t seen = 0;  ///< matching requests so far
};

struct FaultName {
  std::string_view name;  ///< as fabric files and the log have it
  Fault::Kind kind;
};
/// Every kind of fault by its name.
std::span<const FaultName> FaultNames();

/// The faults that are set up.
class FaultLayer {
 public:
  void Add(const Fault& fault) { _faults.push_back(fault); }

  /// Counts the request and returns the fault that fires at it, or null. The pointer is valid until
  /// the next call. `guids` are the devices that the request names.
  const Fault* Match(const std::string& command, const std::vector<Guid>& guids);

  /// Called with a line for every fault that fires; may be empty.
  std::function<void(const std::string& line)> log;

 private:
  std::list<Fault> _faults;
};

}  // namespace sim
