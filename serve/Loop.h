/// What runs the server: one loop that calls back, and a worker for each wire. With threads, or in
/// virtual time on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "serve/System.h"

namespace serve {

/// A wire that is used by one transfer at a time: a root I2C adapter with everything behind its
/// muxes, a flash, or a file. Numbered from 0.
using WireId = std::size_t;

/// Work on one wire, cut into steps. Only the worker of the wire calls it.
class WireWork {
 public:
  WireWork() = default;
  WireWork(const WireWork&) = delete;
  WireWork& operator=(const WireWork&) = delete;
  virtual ~WireWork() = default;

  /// Does the next step. Returns when to call again, AT_ONCE or another time that is over to go on
  /// without a pause; nothing when the work is done.
  virtual std::optional<Time> Step(System& system) = 0;
  /// A step has thrown, or none can be made: no other one follows.
  virtual void Fail(System&, const std::string&) {}
  /// Whether no step waits for anything: the loop may do them itself.
  virtual bool IsQuick() const { return false; }
};

/// Its callbacks are called one at a time.
class Loop {
 public:
  using TimerId = std::uint64_t;

  Loop() = default;
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  virtual ~Loop() = default;

  virtual Time Now() const = 0;
  /// Has the worker of `wire` do `work` after what it was given before, and then calls `done`; for
  /// quick work perhaps before this returns.
  virtual void Run(WireId wire, std::unique_ptr<WireWork> work,
                   std::function<void(std::unique_ptr<WireWork>)> done) = 0;
  virtual TimerId CallAt(Time when, std::function<void()> call) = 0;
  /// A timer that has called is ignored.
  virtual void Cancel(TimerId timer) = 0;
};

}  // namespace serve
