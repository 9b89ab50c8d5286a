/// The clock of a virtual machine. It stands still until something says that it takes time.
#pragma once

#include <algorithm>
#include <utility>

#include "serve/System.h"

namespace hardware {

using serve::Time;

/// Outside of a step there is one time. A step of a wire has a time of its own, which runs ahead of
/// the time of the loop until the step is over.
class VirtualClock {
 public:
  Time Now() const { return _now; }
  /// Before this time nothing happens any more.
  Time LoopTime() const { return _is_in_step ? _loop_time : _now; }
  bool IsInStep() const { return _is_in_step; }

  void Advance(Time by) { _now += by; }
  /// The clock never goes back.
  void AdvanceTo(Time when) { _now = std::max(_now, when); }

  void BeginStep() {
    _loop_time = _now;
    _is_in_step = true;
  }
  /// Goes back to the time of the loop. Returns when the step ended.
  Time EndStep() {
    _is_in_step = false;
    return std::exchange(_now, _loop_time);
  }

 private:
  Time _now{};
  Time _loop_time{};
  bool _is_in_step = false;
};

}  // namespace hardware
