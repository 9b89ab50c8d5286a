/// The jobs of one request on one wire.
#pragma once

#include <memory>
#include <vector>

#include "serve/Loop.h"
#include "serve/Memory.h"

namespace serve {

/// Makes the next step of whichever job is ready, so that the time in which one chip is busy is
/// used for another. Memories that a job opened for reading are closed in the end; those that are
/// open for writing stay open.
class ChipWork : public WireWork {
 public:
  struct Item {
    std::shared_ptr<Memory> memory;  ///< each is in one item
    Job job;
    std::size_t element = 0;  ///< of the answer
  };

  explicit ChipWork(std::vector<Item> items);

  std::optional<Time> Step(System& system) override;
  void Fail(System& system, const std::string& why) override;
  bool IsQuick() const override;
  /// Valid when the work is done.
  std::vector<Item>& Items() { return _items; }

 private:
  struct Progress {
    std::unique_ptr<JobSteps> steps;  ///< null before the job has begun, and when it is over
    bool is_over = false;
    Time ready = AT_ONCE;  ///< for its next step
    bool is_to_be_closed = false;
  };

  void Begin(System& system, std::size_t index);
  /// Whether the time matters to any job that goes on.
  bool IsAnyWaiting() const;
  /// The job to go on with at `now`; nothing where all are over.
  std::optional<std::size_t> Choose(Time now) const;
  void EndAll(const std::string& error);
  void CloseAll(System& system);

  std::vector<Item> _items;
  std::vector<Progress> _progress;  ///< of each item
  std::size_t _begun = 0;
  std::size_t _last = 0;  ///< the item that had the last step
};

}  // namespace serve
