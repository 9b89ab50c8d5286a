/// What a server waits in: connections, timers, signals and tasks of other threads, one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace protocol {

/// Calls back from the thread that runs it. Post and Stop may be called by any thread, everything
/// else by that thread, or by any while it does not run.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimerId = std::uint64_t;

  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Runs until Stop is called, also where there is nothing to wait for. It may run again then.
  void Run();
  void Stop();
  void Post(std::function<void()> task);

  /// Calls `task` once, not before `when`.
  TimerId CallAt(Clock::time_point when, std::function<void()> task);
  /// A timer that has called is ignored.
  void Cancel(TimerId timer);

  /// From now on the signal does not end the process, but calls `task` each time. A second task for
  /// a signal takes the place of the first.
  void OnSignal(int signal, std::function<void()> task);

  /// For the connections of a server.
  asio::io_context& Context();

 private:
  class Implementation;
  std::unique_ptr<Implementation> _implementation;
};

}  // namespace protocol
