#include "serve/ThreadLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <set>
#include <thread>

#include "serve/ChipWork.h"
#include "serve/LinuxSystem.h"

namespace serve {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

/// Work that is what a function does.
class FunctionWork : public WireWork {
 public:
  explicit FunctionWork(std::function<std::optional<Time>(System&)> step)
      : _step(std::move(step)) {}
  std::optional<Time> Step(System& system) override { return _step(system); }

 private:
  std::function<std::optional<Time>(System&)> _step;
};

/// A memory that fails in the middle of everything, as where there is no memory left.
class BrokenMemory : public Memory {
 public:
  std::string Open(System&, Access) override {
    is_open = true;
    return "";
  }
  bool IsOpen(Access) const override { return is_open; }
  void Close(System&) override { is_open = false; }
  std::unique_ptr<JobSteps> Begin(Job&) override { throw std::runtime_error("no memory is left"); }

  bool is_open = false;
};

class ThreadLoopTest : public testing::Test {
 protected:
  using Done = std::function<void(std::unique_ptr<WireWork>)>;

  void Run(WireId wire, std::function<std::optional<Time>(System&)> step, Done done) {
    _loop->Run(wire, std::make_unique<FunctionWork>(std::move(step)), std::move(done));
  }

  /// Work whose second step is for a time 50 ms after the first.
  void RunWithPause(WireId wire, Done done) {
    Run(
        wire,
        [this](System& system) -> std::optional<Time> {
          if (_asked == Time()) return _asked = system.Now() + milliseconds(50);
          _called = system.Now();
          return std::nullopt;
        },
        std::move(done));
  }

  Time _asked{};
  Time _called{};
  LinuxSystem _system;
  protocol::EventLoop _events;
  std::optional<ThreadLoop> _loop{std::in_place, _events, _system};
};

TEST_F(ThreadLoopTest, WorkIsDoneByAThreadOfItsWireAndTakenBackByTheLoop) {
  std::thread::id worker;
  std::thread::id taker;
  WireWork* returned = nullptr;
  auto work = std::make_unique<FunctionWork>([&](System& system) -> std::optional<Time> {
    EXPECT_EQ(&system, &_system);
    worker = std::this_thread::get_id();
    return std::nullopt;
  });
  WireWork* const given = work.get();
  _loop->Run(0, std::move(work), [&](std::unique_ptr<WireWork> done) {
    taker = std::this_thread::get_id();
    returned = done.get();
    _events.Stop();
  });
  _events.Run();
  EXPECT_EQ(returned, given);
  EXPECT_EQ(taker, std::this_thread::get_id());
  EXPECT_NE(worker, taker);
}

TEST_F(ThreadLoopTest, WhatThrowsIsNotDone) {
  for (const auto kind : {Job::READ, Job::WRITE, Job::ERASE}) {
    const auto memory = std::make_shared<BrokenMemory>();
    std::vector<ChipWork::Item> items(1);
    items[0].memory = memory;
    items[0].job.kind = kind;
    std::string error;
    _loop->Run(0, std::make_unique<ChipWork>(std::move(items)),
               [&](const std::unique_ptr<WireWork>& work) {
                 error = static_cast<ChipWork&>(*work).Items()[0].job.error;
                 _events.Stop();
               });
    _events.Run();
    EXPECT_EQ(error, "no memory is left");
    // What was opened for reading is closed; a lease keeps what it writes to.
    EXPECT_EQ(memory->is_open, kind != Job::READ);
  }
}

TEST_F(ThreadLoopTest, WorkOfOneWireIsDoneInTurn) {
  std::vector<int> steps;  // by one worker, and read when it is done
  for (const int number : {1, 2, 3}) {
    Run(
        5,
        [&, number, count = 0](System& system) mutable -> std::optional<Time> {
          steps.push_back(number);
          if (++count == 2) return std::nullopt;
          return system.Now() + milliseconds(1);
        },
        [&, number](auto) {
          if (number == 3) _events.Stop();
        });
  }
  _events.Run();
  EXPECT_THAT(steps, ElementsAre(1, 1, 2, 2, 3, 3));
}

TEST_F(ThreadLoopTest, WiresWorkSideBySide) {
  // Each waits for the other one.
  std::promise<void> first;
  std::promise<void> second;
  int done = 0;
  const auto take = [&](auto) {
    if (++done == 2) _events.Stop();
  };
  Run(
      1,
      [&](System&) -> std::optional<Time> {
        first.set_value();
        EXPECT_EQ(second.get_future().wait_for(std::chrono::seconds(20)),
                  std::future_status::ready);
        return std::nullopt;
      },
      take);
  Run(
      2,
      [&](System&) -> std::optional<Time> {
        second.set_value();
        EXPECT_EQ(first.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
        return std::nullopt;
      },
      take);
  _events.Run();
}

TEST_F(ThreadLoopTest, NextStepIsNotMadeBeforeItsTime) {
  RunWithPause(0, [&](auto) { _events.Stop(); });
  _events.Run();
  EXPECT_GE(_called, _asked);
}

TEST_F(ThreadLoopTest, FurtherWorkDoesNotCutAPauseShort) {
  RunWithPause(0, [](auto) {});
  for (int further = 0; further < 3; ++further) {
    Run(
        0, [](System&) { return std::optional<Time>(); },
        [&, further](auto) {
          if (further == 2) _events.Stop();
        });
  }
  _events.Run();
  EXPECT_GE(_called, _asked);
}

TEST_F(ThreadLoopTest, StepWhoseTimeIsOverIsMadeAtOnce) {
  int steps = 0;
  Run(
      0, [&](System&) { return ++steps < 1000 ? std::optional(AT_ONCE) : std::nullopt; },
      [&](auto) { _events.Stop(); });
  _events.Run();
  EXPECT_EQ(steps, 1000);
}

TEST_F(ThreadLoopTest, LoopGoesOnWhileAWorkerIsBusy) {
  std::promise<void> go_on;
  auto waited = go_on.get_future().share();
  bool is_called = false;
  Run(
      0,
      [waited](System&) -> std::optional<Time> {
        waited.wait();
        return std::nullopt;
      },
      [&](auto) { _events.Stop(); });
  _loop->CallAt(_loop->Now(), [&] {
    is_called = true;
    go_on.set_value();
  });
  _events.Run();
  EXPECT_TRUE(is_called);
}

TEST_F(ThreadLoopTest, TimersCallUnlessCancelled) {
  std::vector<int> called;
  const Time now = _loop->Now();
  _loop->CallAt(now + milliseconds(2), [&] { called.push_back(2); });
  const auto cancelled = _loop->CallAt(now + milliseconds(1), [&] { called.push_back(1); });
  _loop->Cancel(cancelled);
  _loop->CallAt(now + milliseconds(10), [&] { _events.Stop(); });
  _events.Run();
  EXPECT_THAT(called, ElementsAre(2));
}

TEST_F(ThreadLoopTest, WorkersAreNicerThanTheLoop) {
  int niceness = 0;
  Run(
      0,
      [&](System&) -> std::optional<Time> {
        niceness = getpriority(PRIO_PROCESS, 0);
        return std::nullopt;
      },
      [&](auto) { _events.Stop(); });
  _events.Run();
  EXPECT_TRUE(niceness > getpriority(PRIO_PROCESS, 0) || niceness == 19) << niceness;
}

TEST_F(ThreadLoopTest, WorkThatIsLeftAtTheEndIsDroppedAndNothingIsCalled) {
  struct Counted {
    explicit Counted(std::atomic<int>& count_of_them) : count(count_of_them) { ++count; }
    ~Counted() { --count; }
    std::atomic<int>& count;
  };
  std::atomic<int> works = 0;
  std::promise<void> started;
  bool is_called = false;
  for (int i = 0; i < 5; ++i) {
    Run(
        0,
        [&, counted = std::make_shared<Counted>(works), i](System& system) -> std::optional<Time> {
          if (i == 0) started.set_value();
          return system.Now() + std::chrono::hours(1);
        },
        [&](auto) { is_called = true; });
  }
  Run(
      1, [](System&) { return std::optional<Time>(); }, [&](auto) { is_called = true; });
  _loop->CallAt(_loop->Now(), [&] { is_called = true; });
  started.get_future().wait();
  EXPECT_EQ(works, 5);
  _loop.reset();
  EXPECT_EQ(works, 0);
  _events.CallAt(protocol::EventLoop::Clock::now() + milliseconds(20), [&] { _events.Stop(); });
  _events.Run();
  EXPECT_FALSE(is_called);
}

TEST_F(ThreadLoopTest, StoppedLoopDropsFurtherWork) {
  bool is_called = false;
  _loop->Stop();
  Run(
      0,
      [&](System&) -> std::optional<Time> {
        is_called = true;
        return std::nullopt;
      },
      [&](auto) { is_called = true; });
  _loop->CallAt(_loop->Now(), [&] { is_called = true; });
  _events.CallAt(protocol::EventLoop::Clock::now() + milliseconds(20), [&] { _events.Stop(); });
  _events.Run();
  EXPECT_FALSE(is_called);
}

TEST_F(ThreadLoopTest, RandomWorkOnManyWiresIsAllDoneOnce) {
  std::mt19937 rng(1);
  constexpr int WORKS = 500;
  std::vector<std::vector<int>> order(8);  // by wire
  std::vector<std::vector<int>> expected(8);
  int done = 0;
  for (int i = 0; i < WORKS; ++i) {
    const WireId wire = rng() % order.size();
    expected[wire].push_back(i);
    Run(
        wire,
        [left = rng() % 4, pause = std::chrono::microseconds(rng() % 200)](
            System& system) mutable -> std::optional<Time> {
          if (left-- == 0) return std::nullopt;
          return system.Now() + pause;
        },
        [&, wire, i](auto) {
          order[wire].push_back(i);
          if (++done == WORKS) _events.Stop();
        });
  }
  _events.Run();
  EXPECT_EQ(order, expected);
}

}  // namespace
}  // namespace serve
