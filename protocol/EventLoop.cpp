#include "protocol/EventLoop.h"

#include <asio.hpp>
#include <map>
#include <optional>
#include <utility>

namespace protocol {

class EventLoop::Implementation {
 public:
  /// Its timers, in the order in which they are due.
  using Due = std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>>;

  /// Waits for the first timer. A wait that is for an earlier time goes on: it costs less to wake
  /// up once for nothing than to begin a wait for each request that is answered in time.
  void Await() {
    if (due.empty()) return;
    const Clock::time_point first = due.begin()->first.first;
    if (awaited && *awaited <= first) return;
    awaited = first;
    timer.expires_at(first);
    timer.async_wait([this](const asio::error_code& error) {
      if (error) return;  // another wait has taken its place
      awaited.reset();
      CallDue();
      Await();
    });
  }

  void CallDue() {
    const Clock::time_point now = Clock::now();
    while (!due.empty() && due.begin()->first.first <= now) {
      const auto node = due.extract(due.begin());
      times.erase(node.key().second);
      node.mapped()();
    }
  }

  void AwaitSignal() {
    signals.async_wait([this](const asio::error_code& error, int signal) {
      if (error) return;
      AwaitSignal();
      const auto task = on_signal.at(signal);
      task();
    });
  }

  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  asio::steady_timer timer{context};
  std::optional<Clock::time_point> awaited;  ///< what the timer waits for
  Due due;
  std::map<TimerId, Clock::time_point> times;
  TimerId last_timer = 0;
  asio::signal_set signals{context};
  std::map<int, std::function<void()>> on_signal;
};

EventLoop::EventLoop() : _implementation(std::make_unique<Implementation>()) {}

EventLoop::~EventLoop() = default;

void EventLoop::Run() {
  _implementation->context.run();
  // Not before: it may have been stopped before it ran.
  _implementation->context.restart();
}

void EventLoop::Stop() { _implementation->context.stop(); }

void EventLoop::Post(std::function<void()> task) {
  asio::post(_implementation->context, std::move(task));
}

EventLoop::TimerId EventLoop::CallAt(Clock::time_point when, std::function<void()> task) {
  const TimerId id = ++_implementation->last_timer;
  _implementation->times.emplace(id, when);
  _implementation->due.emplace(std::pair(when, id), std::move(task));
  _implementation->Await();
  return id;
}

void EventLoop::Cancel(TimerId timer) {
  const auto found = _implementation->times.find(timer);
  if (found == _implementation->times.end()) return;
  _implementation->due.erase({found->second, timer});
  _implementation->times.erase(found);
}

void EventLoop::OnSignal(int signal, std::function<void()> task) {
  const bool is_first = _implementation->on_signal.empty();
  _implementation->on_signal[signal] = std::move(task);
  _implementation->signals.add(signal);
  if (is_first) _implementation->AwaitSignal();
}

asio::io_context& EventLoop::Context() { return _implementation->context; }

}  // namespace protocol
