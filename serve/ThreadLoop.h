/// The loop of the server that people run: a thread for each wire, and an event loop for the rest.
#pragma once

#include <map>
#include <memory>

#include "protocol/EventLoop.h"
#include "serve/Loop.h"

namespace serve {

/// Used, and destroyed, by the thread that runs the event loop; it calls back from there.
class ThreadLoop : public Loop {
 public:
  /// Both are borrowed. `system` is used by all workers at once.
  ThreadLoop(protocol::EventLoop& loop, System& system);
  ~ThreadLoop() override;

  /// Waits for the step that each worker is doing. Work that is not done then is dropped, as is
  /// further work, and nothing is called any more. Whoever owns what work uses calls this before it
  /// goes; otherwise the destructor does.
  void Stop();

  Time Now() const override;
  void Run(WireId wire, std::unique_ptr<WireWork> work,
           std::function<void(std::unique_ptr<WireWork>)> done) override;
  TimerId CallAt(Time when, std::function<void()> call) override;
  void Cancel(TimerId timer) override;

 private:
  class Worker;
  struct Wire {
    std::unique_ptr<Worker> worker;  ///< null before the first work that is not quick
    std::size_t works = 0;           ///< that it was given and has not given back
  };

  /// Throws std::system_error where there can be no further thread.
  void StartWorker(WireId wire);

  protocol::EventLoop& _loop;
  System& _system;
  std::map<WireId, Wire> _wires;  ///< those that were used
  std::shared_ptr<bool> _alive;   ///< what is called back later holds a weak pointer to it
};

}  // namespace serve
