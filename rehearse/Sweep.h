/// Cuts the power at every point of a burn, and checks that the device still boots.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "rehearse/Options.h"
#include "rehearse/RehearsedDevices.h"
#include "rehearse/Report.h"
#include "rehearse/UninterruptedBurn.h"

namespace rehearse {

/// The states in which the cuts of a burn leave a device, and one cut for each kind of state: by
/// the part of the memory that is being changed, how the cut changes it, and the verdict on the
/// device. Only safe states are kept.
class Situations {
 public:
  /// What makes two states alike.
  struct Kind {
    std::string part;
    sim::Operation::Kind operation = sim::Operation::PROGRAM;
    CutKind cut = CutKind::AFTER_WORD;
    bool is_boot_record = false;
    std::array<std::pair<bool, device::Whole>, device::SLOTS> slots{};
    std::array<bool, device::SLOTS> is_signed{};
    bool operator<(const Kind& other) const {
      return std::tie(part, operation, cut, is_boot_record, slots, is_signed) <
             std::tie(other.part, other.operation, other.cut, other.is_boot_record, other.slots,
                      other.is_signed);
    }
  };

  explicit Situations(unsigned seed) : _seed(seed) {}

  /// The number of a kind.
  std::size_t NumberOf(const Kind& kind);
  /// Notes a cut of the kind with that number.
  void Add(std::size_t number, std::size_t point);
  /// Up to `count` cuts, each of another kind, spread over the burn. Which cut of its kind, the
  /// seed chooses.
  std::vector<std::size_t> Choose(std::size_t count) const;

 private:
  struct Group {
    std::size_t seen = 0;
    std::size_t point = 0;
  };
  unsigned _seed;
  std::map<Kind, std::size_t> _groups_by_kind;
  std::vector<Group> _groups;  ///< by the first cut of each
};

/// Judges every device that booted before the burn, at each cut of its log or only at the one in
/// the options. Notes the safe states in `situations`.
void Sweep(const RehearsalOptions& options, const RehearsedDevices& devices,
           const UninterruptedBurn& burn, const RehearsalProgress& progress,
           RehearsalReport& report, Situations& situations);

/// Throws std::runtime_error where --at names a point that the burn does not have, or one at which
/// no device is looked at, because it did not boot before the burn.
void RefusePointWithoutVerdict(const RehearsalOptions& options, const RehearsedDevices& devices,
                               const UninterruptedBurn& burn);

}  // namespace rehearse
