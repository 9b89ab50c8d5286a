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
  std::size_t place = 0;  ///< POWER: a cut (OperationLog.h), from 0; else a request, from 1
};

// The text of an InterruptionPoint: "1234", "killed:28" or "dropped:28". Parsing returns nothing
// for any other.
std::string Describe(const InterruptionPoint& at);
std::optional<InterruptionPoint> ParseInterruptionPoint(const std::string& text);

/// "power lost"
const char* Name(Interruption kind);

}  // namespace rehearse
