#include "protocol/EventLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

namespace protocol {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class EventLoopTest : public testing::Test {
 protected:
  EventLoop _loop;
  EventLoop::Clock::time_point _start = EventLoop::Clock::now();
};

TEST_F(EventLoopTest, TimersCallInTheOrderOfTheirTimes) {
  std::vector<int> called;
  for (const int number : {3, 1, 2}) {
    _loop.CallAt(_start + milliseconds(number), [&called, number] { called.push_back(number); });
  }
  _loop.CallAt(_start + milliseconds(20), [&] { _loop.Stop(); });
  _loop.Run();
  EXPECT_THAT(called, ElementsAre(1, 2, 3));
  EXPECT_GE(EventLoop::Clock::now() - _start, milliseconds(20));
}

TEST_F(EventLoopTest, CancelledTimerDoesNotCall) {
  std::vector<int> called;
  const auto first = _loop.CallAt(_start, [&] { called.push_back(1); });
  EventLoop::TimerId third = 0;
  _loop.CallAt(_start + milliseconds(1), [&] {
    called.push_back(2);
    _loop.Cancel(third);
  });
  third = _loop.CallAt(_start + milliseconds(2), [&] { called.push_back(3); });
  _loop.Cancel(first);
  _loop.Cancel(first);
  _loop.CallAt(_start + milliseconds(10), [&] { _loop.Stop(); });
  _loop.Run();
  EXPECT_THAT(called, ElementsAre(2));
}

TEST_F(EventLoopTest, RandomTimersCallOnceEachUnlessCancelled) {
  std::mt19937 rng(1);
  std::vector<int> calls(500);
  std::vector<EventLoop::TimerId> timers(calls.size());
  std::vector<bool> is_cancelled(calls.size());
  for (std::size_t i = 0; i < calls.size(); ++i) {
    timers[i] = _loop.CallAt(_start + milliseconds(rng() % 30), [&, i] {
      ++calls[i];
      const std::size_t other = rng() % calls.size();
      if (calls[other] == 0) is_cancelled[other] = true;
      _loop.Cancel(timers[other]);
    });
  }
  _loop.CallAt(_start + milliseconds(60), [&] { _loop.Stop(); });
  _loop.Run();
  std::size_t cancelled = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i], is_cancelled[i] ? 0 : 1) << i;
    if (is_cancelled[i]) ++cancelled;
  }
  EXPECT_GT(cancelled, 0u);
  EXPECT_LT(cancelled, calls.size());
}

TEST_F(EventLoopTest, TaskOfAnotherThreadRunsInTheLoop) {
  std::thread::id ran_in;
  std::thread other([&] {
    _loop.Post([&] {
      ran_in = std::this_thread::get_id();
      _loop.Stop();
    });
  });
  _loop.Run();
  other.join();
  EXPECT_EQ(ran_in, std::this_thread::get_id());
}

TEST_F(EventLoopTest, TasksOfManyThreadsAllRunOnceAndThoseOfOneThreadInTheirOrder) {
  constexpr int THREADS = 4;
  constexpr int TASKS = 2000;
  std::vector<std::vector<int>> ran(THREADS);
  int left = THREADS * TASKS;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 0; number < TASKS; ++number) {
        _loop.Post([&, thread, number] {
          ran[thread].push_back(number);
          if (--left == 0) _loop.Stop();
        });
      }
    });
  }
  _loop.Run();
  for (std::thread& thread : threads) thread.join();
  for (const std::vector<int>& numbers : ran) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(TASKS));
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  }
}

TEST_F(EventLoopTest, TaskOfTheLoopItselfRunsAfterTheOneThatPostsIt) {
  std::vector<int> ran;
  _loop.Post([&] {
    _loop.Post([&] {
      ran.push_back(2);
      _loop.Stop();
    });
    ran.push_back(1);
  });
  _loop.Run();
  EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST_F(EventLoopTest, TasksBehindTheOneThatStopsTheLoopAreForTheNextRun) {
  std::vector<int> ran;
  for (const int number : {1, 2, 3}) {
    _loop.Post([&, number] {
      ran.push_back(number);
      if (number != 2) _loop.Stop();
    });
  }
  _loop.Run();
  EXPECT_THAT(ran, ElementsAre(1));
  _loop.Run();
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST_F(EventLoopTest, TasksBehindOneThatThrowsAreForTheNextRunBeforeLaterOnes) {
  std::vector<int> ran;
  _loop.Post([&] {
    _loop.Post([&] {
      ran.push_back(3);
      _loop.Stop();
    });
    throw std::runtime_error("a task");
  });
  _loop.Post([&] { ran.push_back(2); });
  EXPECT_THROW(_loop.Run(), std::runtime_error);
  _loop.Run();
  EXPECT_THAT(ran, ElementsAre(2, 3));
}

TEST_F(EventLoopTest, StoppedLoopMayRunAgain) {
  _loop.Stop();
  _loop.Run();
  bool is_called = false;
  _loop.CallAt(_start, [&] {
    is_called = true;
    _loop.Stop();
  });
  _loop.Run();
  EXPECT_TRUE(is_called);
}

TEST_F(EventLoopTest, SignalCallsEachTimeAndEndsNothing) {
  int calls = 0;
  _loop.OnSignal(SIGHUP, [&] {
    if (++calls < 3) {
      raise(SIGHUP);
    } else {
      _loop.Stop();
    }
  });
  raise(SIGHUP);
  _loop.Run();
  EXPECT_EQ(calls, 3);
}

TEST_F(EventLoopTest, TimersThatAreDueFarAheadHoldNothingUp) {
  _loop.CallAt(_start + std::chrono::hours(1), [] { FAIL(); });
  _loop.CallAt(_start + milliseconds(1), [&] { _loop.Stop(); });
  _loop.Run();
  EXPECT_LT(EventLoop::Clock::now() - _start, std::chrono::minutes(1));
}

}  // namespace
}  // namespace protocol
