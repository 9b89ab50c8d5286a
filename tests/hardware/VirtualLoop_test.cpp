#include "hardware/VirtualLoop.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "hardware/VirtualSystem.h"

namespace hardware {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

/// Each step runs a program that takes its time, then waits.
class TimedWork : public serve::WireWork {
 public:
  struct Part {
    Time takes{};
    Time pause{};
  };

  TimedWork(std::string name, std::vector<Part> parts, Lines& log)
      : _name(std::move(name)), _parts(std::move(parts)), _log(log) {}

  std::optional<Time> Step(serve::System& system) override {
    _log.push_back(_name + " at " + std::to_string(system.Now() / 1s));
    system.RunProgram({"/bin/wait", std::to_string(_parts[_next].takes / 1s)}, 1h);
    const Time pause = _parts[_next].pause;
    if (++_next == _parts.size()) return std::nullopt;
    return system.Now() + pause;
  }

 private:
  std::string _name;
  std::vector<Part> _parts;
  std::size_t _next = 0;
  Lines& _log;
};

class VirtualLoopTest : public ::testing::Test {
 protected:
  VirtualLoopTest() {
    _system.AddProgram("/bin/wait", [](const std::vector<std::string>& words) {
      return ProgramResult{.status = 0, .takes = std::stoi(words[1]) * 1s};
    });
  }

  void Do(serve::WireId wire, const std::string& name, std::vector<TimedWork::Part> parts) {
    _loop.Run(wire, std::make_unique<TimedWork>(name, std::move(parts), _log),
              [this, name](std::unique_ptr<serve::WireWork> work) {
                EXPECT_NE(work, nullptr);
                Log(name + " done");
              });
  }
  void Log(const std::string& text) {
    _log.push_back(text + " at " + std::to_string(_loop.Now() / 1s));
  }
  serve::Loop::TimerId LogAt(Time when, const std::string& text) {
    return _loop.CallAt(when, [this, text] { Log(text); });
  }

  VirtualSystem _system;
  VirtualLoop _loop{_system, _system.Clock()};
  Lines _log;
};

TEST_F(VirtualLoopTest, TimersFireWhileAStepOf40SecondsBlocks) {
  Do(0, "erase", {{40s}});
  for (int i = 1; i <= 8; ++i) LogAt(i * 5s, "timer");
  LogAt(41s, "timer");
  _loop.RunUntilIdle();
  EXPECT_EQ(_log, (Lines{"erase at 0", "timer at 5", "timer at 10", "timer at 15", "timer at 20",
                         "timer at 25", "timer at 30", "timer at 35", "timer at 40",
                         "erase done at 40", "timer at 41"}));
}

TEST_F(VirtualLoopTest, WiresWorkSideBySideAndOneWireInOrder) {
  Do(0, "a", {{10s}});
  Do(0, "b", {{10s}});
  Do(1, "c", {{15s}});
  _loop.RunUntilIdle();
  EXPECT_EQ(_log,
            (Lines{"a at 0", "c at 0", "a done at 10", "b at 10", "c done at 15", "b done at 20"}));
}

TEST_F(VirtualLoopTest, AStepBeginsWhenItAskedToOrLater) {
  Do(0, "a", {{2s, 3s}, {1s, 0s}, {1s, -10s}, {1s}});
  _loop.RunUntilIdle();
  EXPECT_EQ(_log, (Lines{"a at 0", "a at 5", "a at 6", "a at 7", "a done at 8"}));
}

TEST_F(VirtualLoopTest, WorkBeginsWhenItIsPostedOrWhenTheWireIsFree) {
  _loop.CallAt(7s, [this] { Do(0, "a", {{10s}}); });
  _loop.CallAt(9s, [this] { Do(0, "b", {{1s}}); });
  _loop.CallAt(30s, [this] { Do(0, "c", {{1s}}); });
  _loop.RunUntilIdle();
  EXPECT_EQ(_log, (Lines{"a at 7", "a done at 17", "b at 17", "b done at 18", "c at 30",
                         "c done at 31"}));
}

TEST_F(VirtualLoopTest, WhatIsDueAtOneTimeHappensInTheOrderInWhichItWasAsked) {
  LogAt(3s, "second");
  LogAt(2s, "first");
  LogAt(3s, "third");
  _loop.RunUntilIdle();
  EXPECT_EQ(_log, (Lines{"first at 2", "second at 3", "third at 3"}));
}

TEST_F(VirtualLoopTest, ATimerIsCancelledOnceAndALateOneFiresNow) {
  const auto cancelled = LogAt(2s, "cancelled");
  const auto fired = LogAt(1s, "fired");
  _loop.CallAt(1s, [&, this] {
    _loop.Cancel(cancelled);
    _loop.Cancel(cancelled);
    _loop.Cancel(fired);
    LogAt(0s, "late");
  });
  _loop.RunUntilIdle();
  EXPECT_EQ(_log, (Lines{"fired at 1", "late at 1"}));
}

TEST_F(VirtualLoopTest, RunsUntilATimeOrUntilSomethingIsSo) {
  for (int i = 1; i <= 5; ++i) LogAt(i * 10s, "timer");
  _loop.RunUntil(25s);
  EXPECT_EQ(_log.size(), 2u);
  EXPECT_EQ(_loop.Now(), 25s);
  EXPECT_TRUE(_loop.RunUntil([this] { return _log.size() == 4; }));
  EXPECT_EQ(_loop.Now(), 40s);
  EXPECT_FALSE(_loop.RunUntil([this] { return _log.size() == 6; }));
  EXPECT_EQ(_log.size(), 5u);
}

TEST_F(VirtualLoopTest, AStepMayNotUseTheLoop) {
  class Wrong : public serve::WireWork {
   public:
    explicit Wrong(serve::Loop& loop) : _loop(loop) {}
    std::optional<Time> Step(serve::System&) override {
      _loop.CallAt(1s, [] {});
      return std::nullopt;
    }

   private:
    serve::Loop& _loop;
  };
  _loop.Run(0, std::make_unique<Wrong>(_loop), [](auto) {});
  EXPECT_THROW(_loop.RunUntilIdle(), std::logic_error);
}

TEST_F(VirtualLoopTest, EventsWithoutAnEndAndWithoutTimeAreAnError) {
  std::function<void()> again = [&] { _loop.CallAt(_loop.Now(), again); };
  again();
  EXPECT_THROW(_loop.RunUntilIdle(), std::runtime_error);
}

}  // namespace
}  // namespace hardware
