#include "protocol/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <asio.hpp>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

namespace protocol {

namespace {

int NewEvent() {
  const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

}  // namespace

class EventLoop::Implementation {
 public:
  Implementation() { AwaitTasks(); }

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

  void Post(std::function<void()> task) {
    bool is_first = false;
    {
      const std::lock_guard lock(tasks_mutex);
      is_first = tasks.empty();
      tasks.push_back(std::move(task));
    }
    // Without the lock. asio::post wakes the loop while it has one that the loop takes next: on one
    // processor they would take turns twice for each task.
    if (is_first) TellOfTasks();
  }

  void TellOfTasks() {
    const std::uint64_t one = 1;
    // The counter is far from its end, so that this cannot fail. Else the loop would sleep for
    // ever.
    if (write(event.native_handle(), &one, sizeof one) < 0) std::abort();
  }

  void AwaitTasks() {
    event.async_read_some(asio::buffer(event_count), [this](const asio::error_code& error, auto) {
      if (error == asio::error::operation_aborted) return;
      if (error) std::abort();  // as in TellOfTasks
      AwaitTasks();
      RunTasks();
    });
  }

  /// Those of now. Where one stops the loop or throws, the others are for the next run.
  void RunTasks() {
    std::deque<std::function<void()>> now;
    {
      const std::lock_guard lock(tasks_mutex);
      now.swap(tasks);
    }
    const auto keep_rest = [&](void*) {
      if (now.empty()) return;
      const std::lock_guard lock(tasks_mutex);
      tasks.insert(tasks.begin(), std::make_move_iterator(now.begin()),
                   std::make_move_iterator(now.end()));
      TellOfTasks();
    };
    const std::unique_ptr<void, decltype(keep_rest)> at_end(this, keep_rest);
    while (!now.empty() && !context.stopped()) {
      const std::function<void()> task = std::move(now.front());
      now.pop_front();
      task();
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
  asio::posix::stream_descriptor event{context, NewEvent()};  ///< there are tasks
  std::array<std::uint8_t, 8> event_count{};
  std::mutex tasks_mutex;
  std::deque<std::function<void()>> tasks;  ///< of other threads; guarded by tasks_mutex
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

void EventLoop::Post(std::function<void()> task) { _implementation->Post(std::move(task)); }

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
