/// Interruptions of a burn: how, and where.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace rehearse {

/// How a burn is interrupted.
enum class Interruption {
  POWER,    ///< a device loses power at a cut
  KILLED,   ///< the burner is killed
  DROPPED,  ///< the connection drops after a request was executed, before its answer
};

/// Where a burn is interrupted.
struct InterruptionPoint {
  Interruption kind = Interruption::POWER;
  std::size_t place = 0;         ///< POWER: a cut (OperationLog.h), from 0; else a request, from 1
  bool is_of_next_burn = false;  ///< a cut of the burn after this one; only POWER
  std::optional<std::size_t> second = {};  ///< a cut of the burn that recovers; only POWER
  /// How that tears, if not as the rehearsal's seed has it.
  std::optional<unsigned> second_seed = {};

  /// Of the burn that is rehearsed itself.
  bool IsOfThisBurn() const { return !is_of_next_burn && !second; }
};

// The text of an InterruptionPoint: "1234", "killed:28", "dropped:28", "next:1234", "1234+567"
// or "1234+567@8". Parsing returns nothing for any other.
std::string Describe(const InterruptionPoint& at);
std::optional<InterruptionPoint> ParseInterruptionPoint(const std::string& text);

/// "power lost"
const char* Name(Interruption kind);

}  // namespace rehearse
