#include "sim/Faults.h"

#include <algorithm>
#include <array>
#include <span>

#include "common/Text.h"

namespace sim {

namespace {

constexpr auto NAMES = std::to_array<FaultName>({
    {"answer", Fault::ANSWER},
    {"device-error", Fault::DEVICE_ERROR},
    {"drop-element", Fault::DROP_ELEMENT},
    {"extra-element", Fault::EXTRA_ELEMENT},
    {"silence", Fault::SILENCE},
    {"delay", Fault::DELAY},
    {"close-before", Fault::CLOSE_BEFORE},
    {"close-inside", Fault::CLOSE_INSIDE},
    {"close-after", Fault::CLOSE_AFTER},
    {"reset", Fault::RESET},
    {"power-off", Fault::POWER_OFF},
    {"cut", Fault::CUT},
    {"write-wrong", Fault::WRITE_WRONG},
});

bool Concerns(const Fault& fault, const std::string& command, const std::vector<Guid>& guids) {
  return command.find(fault.command) != std::string::npos &&
         (!fault.device || std::ranges::find(guids, *fault.device) != guids.end());
}

}  // namespace

std::span<const FaultName> FaultNames() { return NAMES; }

const Fault* FaultLayer::Match(const std::string& command, const std::vector<Guid>& guids) {
  const Fault* firing = nullptr;
  for (Fault& fault : _faults) {
    if (!Concerns(fault, command, guids)) continue;
    ++fault.seen;
    const bool fires = fault.from_then_on ? fault.seen >= fault.nth : fault.seen == fault.nth;
    if (fires && firing == nullptr) firing = &fault;
  }
  if (firing && log) {
    const auto name = std::ranges::find(NAMES, firing->kind, &FaultName::kind)->name;
    log(common::Text("fault ", name, " at ", command, " (match ", firing->seen, ", seed ",
                     firing->seed, ")"));
  }
  return firing;
}

}  // namespace sim
