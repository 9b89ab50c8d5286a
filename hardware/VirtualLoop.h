/// A server's loop in virtual time, on one thread.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "hardware/VirtualClock.h"
#include "serve/Loop.h"

namespace hardware {

/// Steps, ends of work and timers are events. They happen in the order of their times, those of one
/// time in the order in which they were made. A step is done in one go; its system calls advance
/// the time of its wire alone, so that timers and other wires go on while it lasts. Nothing happens
/// but in the methods whose names begin with RunUntil; these pass on what callbacks and steps
/// throw.
class VirtualLoop : public serve::Loop {
 public:
  /// `clock` is that of `system`. Borrows both.
  VirtualLoop(serve::System& system, VirtualClock& clock) : _system(system), _clock(clock) {}

  /// In a step: the time of its wire.
  Time Now() const override { return _clock.Now(); }
  /// Throws std::logic_error in a step, as CallAt and Cancel do: steps belong to other threads.
  void Run(serve::WireId wire, std::unique_ptr<serve::WireWork> work,
           std::function<void(std::unique_ptr<serve::WireWork>)> done) override;
  TimerId CallAt(Time when, std::function<void()> call) override;
  void Cancel(TimerId timer) override;

  /// Returns when there is no event left. All three throw std::runtime_error where events go on
  /// without an end and no time passes.
  void RunUntilIdle();
  /// Returns at `when`: what is due then has happened.
  void RunUntil(Time when);
  /// Returns after the first event after which `is_reached`; false where no event is left before.
  bool RunUntil(const std::function<bool()>& is_reached);

 private:
  struct Job {
    std::unique_ptr<serve::WireWork> work;
    std::function<void(std::unique_ptr<serve::WireWork>)> done;
  };
  using EventKey = std::pair<Time, TimerId>;

  TimerId AddEvent(Time when, std::function<void()> call);
  void RefuseInStep() const;
  void RunNextEvent();
  void Step(serve::WireId wire);
  void End(serve::WireId wire);

  serve::System& _system;
  VirtualClock& _clock;
  std::map<EventKey, std::function<void()>> _events;
  std::map<TimerId, Time> _times;                   ///< of all events
  std::map<serve::WireId, std::deque<Job>> _wires;  ///< the first one is under way
  TimerId _last_event = 0;
  std::size_t _events_without_time = 0;
};

}  // namespace hardware
