#include "hardware/VirtualLoop.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace hardware {

namespace {

/// Far more than a test has at one time: a server that tries again at once, for ever.
constexpr std::size_t MOST_EVENTS_WITHOUT_TIME = 1'000'000;

/// Even where the step throws, the clock goes back to the time of the loop.
class RunningStep {
 public:
  explicit RunningStep(VirtualClock& clock) : _clock(clock) { _clock.BeginStep(); }
  RunningStep(const RunningStep&) = delete;
  RunningStep& operator=(const RunningStep&) = delete;
  ~RunningStep() { _clock.EndStep(); }

 private:
  VirtualClock& _clock;
};

}  // namespace

void VirtualLoop::Run(serve::WireId wire, std::unique_ptr<serve::WireWork> work,
                      std::function<void(std::unique_ptr<serve::WireWork>)> done) {
  RefuseInStep();
  auto& jobs = _wires[wire];
  jobs.push_back({std::move(work), std::move(done)});
  if (jobs.size() == 1) AddEvent(Now(), [this, wire] { Step(wire); });
}

serve::Loop::TimerId VirtualLoop::CallAt(Time when, std::function<void()> call) {
  RefuseInStep();
  return AddEvent(when, std::move(call));
}

void VirtualLoop::Cancel(TimerId timer) {
  RefuseInStep();
  const auto found = _times.find(timer);
  if (found == _times.end()) return;
  _events.erase({found->second, timer});
  _times.erase(found);
}

void VirtualLoop::RunUntilIdle() {
  while (!_events.empty()) RunNextEvent();
}

void VirtualLoop::RunUntil(Time when) {
  while (!_events.empty() && _events.begin()->first.first <= when) RunNextEvent();
  _clock.AdvanceTo(when);
}

bool VirtualLoop::RunUntil(const std::function<bool()>& is_reached) {
  while (!is_reached()) {
    if (_events.empty()) return false;
    RunNextEvent();
  }
  return true;
}

serve::Loop::TimerId VirtualLoop::AddEvent(Time when, std::function<void()> call) {
  const TimerId id = ++_last_event;
  // What is late happens now, after what is due now already.
  const Time due = std::max(when, Now());
  _events.emplace(EventKey{due, id}, std::move(call));
  _times.emplace(id, due);
  return id;
}

void VirtualLoop::RefuseInStep() const {
  if (_clock.IsInStep()) throw std::logic_error("a step of a wire may not use the loop");
}

void VirtualLoop::RunNextEvent() {
  const auto first = _events.begin();
  const auto [when, id] = first->first;
  _events_without_time = when > Now() ? 0 : _events_without_time + 1;
  if (_events_without_time > MOST_EVENTS_WITHOUT_TIME) {
    throw std::runtime_error("a million events, and no time has passed");
  }
  const auto call = std::move(first->second);
  _times.erase(id);
  _events.erase(first);
  _clock.AdvanceTo(when);
  call();
}

void VirtualLoop::Step(serve::WireId wire) {
  std::optional<Time> again;
  Time end;
  {
    const RunningStep step(_clock);
    again = _wires[wire].front().work->Step(_system);
    end = _clock.Now();
  }
  if (again) {
    AddEvent(std::max(end, *again), [this, wire] { Step(wire); });
  } else {
    AddEvent(end, [this, wire] { End(wire); });
  }
}

void VirtualLoop::End(serve::WireId wire) {
  auto& jobs = _wires[wire];
  Job ended = std::move(jobs.front());
  jobs.pop_front();
  // A worker takes its next work without waiting for the loop.
  if (!jobs.empty()) AddEvent(Now(), [this, wire] { Step(wire); });
  ended.done(std::move(ended.work));
}

}  // namespace hardware
