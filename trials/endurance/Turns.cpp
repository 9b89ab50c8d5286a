#include "trials/endurance/Turns.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace endurance {

Turns::~Turns() {
  _is_ending = true;
  for (Id id = 0; id < _threads.size(); ++id) {
    if (!_threads[id]->is_over) HandOver(id);
    _threads[id]->thread.join();
  }
}

void Turns::Add(std::function<void()> work) {
  const Id id = _threads.size();
  _threads.push_back(std::make_unique<Thread>());
  _threads.back()->work = std::move(work);
  _threads.back()->thread = std::thread([this, id, thread = _threads.back().get()] {
    thread->turn.Take();
    Do(id);
    thread->is_over = true;
    _current.reset();
    _turn_of_loop.Give();
  });
  Wake(id);
}

void Turns::Do(Id id) {
  if (_is_ending) return;
  try {
    _threads[id]->work();
  } catch (const Ended&) {
  } catch (...) {
    if (!_failure) _failure = std::current_exception();
  }
}

void Turns::Run() {
  do {
    while (!_ready.empty()) {
      const Id id = _ready.front();
      _ready.pop_front();
      if (!_threads[id]->is_over) HandOver(id);
      if (_failure) std::rethrow_exception(std::exchange(_failure, nullptr));
    }
  } while (_loop.RunUntil([this] { return !_ready.empty(); }));
  if (!std::ranges::all_of(_threads, &Thread::is_over)) {
    throw std::logic_error("a client waits for something that never happens");
  }
}

void Turns::HandOver(Id id) {
  _current = id;
  _threads[id]->turn.Give();
  _turn_of_loop.Take();
}

void Turns::Wait() {
  const Id id = Current();
  // While a thread is ended, its destructors may not wait.
  if (_is_ending) return;
  _current.reset();
  _turn_of_loop.Give();
  _threads[id]->turn.Take();
  if (_is_ending) throw Ended();
}

void Turns::Signal::Take() {
  while (sem_wait(&_semaphore) != 0) {  // a signal handler has run
  }
}

void Turns::Sleep(Time time) {
  _loop.CallAt(_loop.Now() + time, [this, id = Current()] { Wake(id); });
  Wait();
}

}  // namespace endurance
