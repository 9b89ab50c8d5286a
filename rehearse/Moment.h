/// Where the plug is pulled, and how else a burn is interrupted.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace rehearse {

/// How a burn is interrupted that must be recovered from.
enum class Interruption {
  POWER,    ///< a device loses power at a cut
  KILLED,   ///< the burner is killed
  DROPPED,  ///< the connection drops after a request was executed, before its answer
};

/// A moment of a burn at which it is interrupted.
struct Moment {
  Interruption kind = Interruption::POWER;
  std::size_t place = 0;  ///< POWER: a point, from 0; else a request, from 1
};

/// "1234", "killed:28", "dropped:28", and back. Parsing gives nothing for any other text.
std::string Describe(const Moment& moment);
std::optional<Moment> ParseMoment(const std::string& text);

/// "power lost"
const char* Name(Interruption kind);

}  // namespace rehearse
