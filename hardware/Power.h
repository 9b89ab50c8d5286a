/// The power of a virtual machine: every change of a memory goes through here, so that any of them
/// can be the last one.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "device/Chip.h"
#include "hardware/VirtualClock.h"

namespace hardware {

/// Counts the changes of all memories of a machine: programs, page writes, erases. Where the power
/// goes, changes that still last are torn: those that other memories began before, and those that
/// a step which ran ahead would only have begun later are undone. What is torn depends on the seed
/// alone.
class Power {
 public:
  using Random = std::mt19937_64;

  explicit Power(VirtualClock& clock) : _clock(clock) {}
  Power(const Power&) = delete;
  Power& operator=(const Power&) = delete;

  bool IsOn() const { return _is_on; }
  /// Since the machine was built. Changes that a memory ignores are none.
  std::uint64_t Changes() const { return _changes; }

  /// The power goes after the `n`th change from now, from 1: that one is whole.
  void CutAfter(std::uint64_t n, std::uint64_t seed = 1) { Plan(n, false, seed); }
  /// The power goes inside the `n`th change from now: that one is torn.
  void CutInside(std::uint64_t n, std::uint64_t seed = 1) { Plan(n, true, seed); }
  void CutNow(std::uint64_t seed = 1);
  /// Calls where the power goes, before the last change is made.
  void WhenCut(std::function<void(Random& random)> call) { _when_cut = std::move(call); }
  /// Forgets a planned cut, too.
  void TurnOn();

  /// A change that a memory is asked for, before any of it is made.
  struct Request {
    device::View cells;  ///< of the page or the sector, as they are
    bool is_erase;
    std::size_t at;      ///< in `cells`, of the first byte; the others may wrap at their end
    device::View bytes;  ///< to be programmed; empty for an erase
  };
  /// Calls before each change that is made, whole or torn.
  void BeforeChange(std::function<void(const Request& request)> call) {
    _before_change = std::move(call);
  }

  /// Programs `bytes` into `page` from `at`, wrapping at its end; at most as many as the page has.
  /// It begins now; the caller lets the time pass that it `takes`. What takes no time is never
  /// undone; the cells of anything else must live as long as the power.
  void Program(device::MemoryKind kind, device::Cells page, std::size_t at, device::View bytes,
               Time takes);
  void Erase(device::Cells sector, Time takes);

 private:
  struct Change {
    device::Cells cells;
    Time begin;
    Time end;
    std::function<void(device::Cells cells)> whole;
    std::function<void(device::Cells cells, Random& random)> torn;
    device::Bytes before;
  };

  void Plan(std::uint64_t n, bool is_inside, std::uint64_t seed);
  void Do(Change change);
  void Cut();

  VirtualClock& _clock;
  Random _random;
  std::function<void(Random& random)> _when_cut;
  std::function<void(const Request& request)> _before_change;
  std::vector<Change> _lasting;  ///< in the order in which they began
  std::uint64_t _changes = 0;
  std::uint64_t _last_change = 0;  ///< by the count of changes; 0: no cut is planned
  bool _is_cut_inside = false;
  bool _is_on = true;
};

}  // namespace hardware
