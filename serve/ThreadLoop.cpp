#include "serve/ThreadLoop.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "common/Text.h"

namespace serve {

namespace {

using Clock = std::chrono::steady_clock;

/// What a step throws, such as std::bad_alloc, is the error of its work, not the end of the server.
std::optional<Time> StepOrFail(WireWork& work, System& system) {
  try {
    return work.Step(system);
  } catch (const std::exception& error) {
    work.Fail(system, error.what());
    return {};
  }
}

/// An erase may keep a processor busy for seconds. Clients that are kept waiting come first.
constexpr int NICENESS = 5;
/// A chip is polled every quarter of a millisecond; the kernel may be 50 microseconds late unless
/// it is told otherwise.
constexpr unsigned long TIMER_SLACK = 1000;  ///< nanoseconds

/// Signals are for the thread of the loop: in a worker they would only interrupt system calls.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

 private:
  sigset_t _before{};
};

Clock::time_point At(Time when) {
  return Clock::time_point(std::chrono::duration_cast<Clock::duration>(when));
}

/// Takes one system call to wake a thread, and one to wait. A condition variable takes two to wait:
/// it leaves its mutex as if others waited for that, too.
class Semaphore {
 public:
  Semaphore() { sem_init(&_semaphore, 0, 0); }
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;
  ~Semaphore() { sem_destroy(&_semaphore); }

  void Post() { sem_post(&_semaphore); }
  void Wait() {
    while (sem_wait(&_semaphore) != 0 && errno == EINTR) {
    }
  }
  /// False when the time came before a post.
  bool WaitUntil(Time when) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(when);
    const timespec end{static_cast<time_t>(seconds.count()),
                       static_cast<long>((when - seconds).count())};
    while (sem_clockwait(&_semaphore, CLOCK_MONOTONIC, &end) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }

 private:
  sem_t _semaphore{};
};

}  // namespace

/// The thread of one wire.
class ThreadLoop::Worker {
 public:
  /// Work, and what is called when it is done.
  struct Job {
    std::unique_ptr<WireWork> work;
    std::function<void(std::unique_ptr<WireWork>)> done;
  };
  /// Takes a job that is done. Called by the worker's thread.
  using TakeBack = std::function<void(std::shared_ptr<Job>)>;

  Worker(WireId wire, System& system, TakeBack take_back)
      : _system(system), _take_back(std::move(take_back)) {
    const BlockedSignals blocked;
    _thread = std::thread([this] { Work(); });
    pthread_setname_np(_thread.native_handle(), common::Text("wire-", wire).substr(0, 15).c_str());
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() {
    _is_stopping = true;
    _wake_ups.Post();
    _thread.join();
  }

  void Add(Job job) {
    {
      const std::lock_guard lock(_mutex);
      _jobs.push_back(std::make_shared<Job>(std::move(job)));
    }
    _wake_ups.Post();
  }

 private:
  void Work() {
    // On Linux this is for the calling thread alone.
    setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + NICENESS);
    prctl(PR_SET_TIMERSLACK, TIMER_SLACK);
    while (std::shared_ptr<Job> job = NextJob()) {
      while (const std::optional<Time> next = StepOrFail(*job->work, _system)) {
        if (*next != AT_ONCE && At(*next) > Clock::now()) Pause(*next);
        if (_is_stopping) return;
      }
      _take_back(std::move(job));
    }
  }

  /// Waits for a job; null when it is to stop.
  std::shared_ptr<Job> NextJob() {
    while (!_is_stopping) {
      {
        const std::lock_guard lock(_mutex);
        if (!_jobs.empty()) {
          std::shared_ptr<Job> job = std::move(_jobs.front());
          _jobs.pop_front();
          return job;
        }
      }
      _wake_ups.Wait();
    }
    return nullptr;
  }

  /// Until `when`, or until it is to stop.
  void Pause(Time when) {
    while (!_is_stopping && _wake_ups.WaitUntil(when)) {
    }
  }

  System& _system;
  TakeBack _take_back;
  std::mutex _mutex;
  /// Posted for each job, and to stop. There may be more posts than jobs left: jobs are looked for
  /// before it is waited for, so that a wait then ends early and no job is found.
  Semaphore _wake_ups;
  std::deque<std::shared_ptr<Job>> _jobs;  ///< guarded by _mutex
  std::atomic<bool> _is_stopping = false;
  std::thread _thread;
};

ThreadLoop::ThreadLoop(protocol::EventLoop& loop, System& system)
    : _loop(loop), _system(system), _alive(std::make_shared<bool>(true)) {}

ThreadLoop::~ThreadLoop() = default;

void ThreadLoop::Stop() {
  _alive.reset();
  _wires.clear();
}

Time ThreadLoop::Now() const { return Clock::now().time_since_epoch(); }

void ThreadLoop::Run(WireId wire, std::unique_ptr<WireWork> work,
                     std::function<void(std::unique_ptr<WireWork>)> done) {
  if (!_alive) return;
  Wire& used = _wires[wire];
  // To hand it to a thread and back would take longer than the work itself.
  if (used.works == 0 && work->IsQuick()) {
    while (const std::optional<Time> next = StepOrFail(*work, _system)) {
      if (*next > Now()) std::this_thread::sleep_until(At(*next));
    }
    return done(std::move(work));
  }
  try {
    StartWorker(wire);
  } catch (const std::system_error& error) {
    // No thread is to be had now. The next work tries again.
    work->Fail(_system, error.what());
    return done(std::move(work));
  }
  used.worker->Add({std::move(work), std::move(done)});
  ++used.works;
}

void ThreadLoop::StartWorker(WireId wire) {
  auto& worker = _wires[wire].worker;
  if (!worker) {
    worker = std::make_unique<Worker>(
        wire, _system,
        [this, wire, alive = std::weak_ptr(_alive)](std::shared_ptr<Worker::Job> job) {
          // The worker keeps nothing of it: what it holds belongs to the thread of the loop.
          _loop.Post([this, wire, alive, job = std::move(job)] {
            if (alive.expired()) return;
            --_wires[wire].works;
            job->done(std::move(job->work));
          });
        });
  }
}

Loop::TimerId ThreadLoop::CallAt(Time when, std::function<void()> call) {
  return _loop.CallAt(At(when), [alive = std::weak_ptr(_alive), call = std::move(call)] {
    if (!alive.expired()) call();
  });
}

void ThreadLoop::Cancel(TimerId timer) { _loop.Cancel(timer); }

}  // namespace serve
