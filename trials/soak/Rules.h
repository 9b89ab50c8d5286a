/// What a run must be like, whatever goes wrong in it: how it ends, whom it tells, what it asks,
/// what it writes and in what order, and what every device holds and boots from.
#pragma once

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "trials/soak/Account.h"
#include "trials/soak/Story.h"
#include "trials/soak/Trouble.h"

namespace soak {

/// All memory of a device, by chip.
using Chips = std::map<u_int8_t, DataVec>;

/// What is known of a device that is given to the burner, before a run.
struct Before {
  Guid node = 0;
  bool is_there = false;
  Memory memory;
  View view;
  std::string refusal;  ///< why it will not be burnt
  std::size_t violations = 0;
};

/// A change of a device's memory while a run goes on.
struct Change {
  sim::Operation::Kind kind;
  Guid node;
  u_int8_t chip;
  u_int32_t offset;
  u_int32_t size;
};

/// One run of the burner.
struct Run {
  std::map<Guid, Before> targets;  ///< by name
  std::map<Guid, Chips> chips;     ///< of all devices before, by node
  faults::Outcome outcome;
  std::vector<Fired> fired;
  std::vector<Change> changes;  ///< in the order made

  // What the rules make of it.
  std::vector<Guid> told;                 ///< as failed
  std::map<Guid, std::size_t> failed_at;  ///< the request whose answer tells so, by name
  bool is_well = false;
  std::string end;  ///< a column of the table
};

/// For people.
std::string DeviceName(Guid guid);
/// What is said of a write that belongs to a step that is over; the step follows.
inline const std::string OUT_OF_ORDER = ", when the burn is at ";

/// Holds the runs of one story against what they must be.
class Rules {
 public:
  /// Counts in `account`, and takes down there what is wrong. `out` is told more where it is given.
  Rules(const Story& story, Account& account, std::ostream* out)
      : _story(story), _account(account), _out(out) {}

  /// A run that is about to begin.
  Run Begin() const;
  /// One that is over. Behind the last one all devices that boot hold the new image.
  void Check(Run& run, bool is_last);
  /// One that must change nothing.
  void CheckRefusal(const Run& run);

 private:
  void CheckOutcome(const faults::Outcome& outcome);
  std::string EndByItself(const Run& run) const;
  void CheckEnd(Run& run);
  void FindFailures(Run& run) const;
  void CheckTold(const Run& run);
  void CheckRequests(const Run& run);
  void CheckChanges(const Run& run);
  u_int64_t AddressOf(const Change& change) const;
  void CheckOrder(const Run& run, Guid name, const Before& before);
  void CheckOthers(const Run& run);
  View Seen(const Run& run, Guid name, const Before& before) const;
  std::optional<Memory> MemoryAfter(const Run& run, Guid name, const Before& before);
  void CheckMemories(const Run& run);
  void CheckBoot(const Run& run);
  std::string RowOf(const Run& run, Guid node, const BootRule& rule,
                    const BootRule::Verdict& verdict, const Memory& memory) const;
  void CheckLast(const Run& run);
  void Fail(const std::string& text) { _account.Fail(text); }
  Oracle OracleOf(Guid node) const {
    return Oracle(_story.image, _story.burn, *_story.fabric.Find(node));
  }

  const Story& _story;
  Account& _account;
  std::ostream* _out;
  GuidSet _wrong;    ///< nodes that once took a wrong bit
  GuidSet _excused;  ///< nodes that need not boot any more
};

}  // namespace soak
