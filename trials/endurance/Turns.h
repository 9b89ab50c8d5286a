/// Threads that run one at a time in virtual time, so that code which waits for its answers can
/// stand for many clients at once.
#pragma once

#include <semaphore.h>

#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "hardware/VirtualLoop.h"

namespace endurance {

using hardware::Time;

/// The thread that made it, which runs the loop, and others that it was given. Whoever has the turn
/// may use everything; the others wait. The order of turns depends on the loop and the threads
/// alone, not on the scheduler of the machine.
class Turns {
 public:
  using Id = std::size_t;

  /// `loop` is borrowed.
  explicit Turns(hardware::VirtualLoop& loop) : _loop(loop) {}
  Turns(const Turns&) = delete;
  Turns& operator=(const Turns&) = delete;
  /// Ends all threads: what they wait for throws.
  ~Turns();

  /// Has a thread of its own do `work`, from the next Run on.
  void Add(std::function<void()> work);
  /// Goes on until all threads have ended and the loop has nothing left to do. Throws what a thread
  /// has thrown, and std::logic_error where one waits for what never happens.
  void Run();

  // --- For the thread that has the turn.

  Id Current() const { return *_current; }
  /// Returns after a Wake of this thread that no other Wait has taken.
  void Wait();
  void Sleep(Time time);
  /// Also for callbacks of the loop.
  void Wake(Id id) { _ready.push_back(id); }

 private:
  /// Ends a thread that waits. Not a std::exception: nobody shall handle it.
  struct Ended {};

  /// POSIX's, which costs one system call for each side.
  class Signal {
   public:
    Signal() { sem_init(&_semaphore, 0, 0); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal() { sem_destroy(&_semaphore); }

    void Give() { sem_post(&_semaphore); }
    void Take();

   private:
    sem_t _semaphore;
  };

  struct Thread {
    std::function<void()> work;
    Signal turn;
    bool is_over = false;
    std::thread thread;
  };

  void HandOver(Id id);
  void Do(Id id);

  hardware::VirtualLoop& _loop;
  Signal _turn_of_loop;
  std::optional<Id> _current;  ///< none: the thread of the loop
  std::vector<std::unique_ptr<Thread>> _threads;
  std::deque<Id> _ready;
  bool _is_ending = false;
  std::exception_ptr _failure;
};

}  // namespace endurance
