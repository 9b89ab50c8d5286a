#include "rehearse/InterruptionPoint.h"

#include <charconv>
#include <string_view>

namespace rehearse {

namespace {

/// The text before the number.
std::string_view HeadOf(Interruption kind) {
  switch (kind) {
    case Interruption::POWER:
      return "";
    case Interruption::KILLED:
      return "killed:";
    case Interruption::DROPPED:
      return "dropped:";
  }
  return "";
}

}  // namespace

std::string Describe(const InterruptionPoint& at) {
  return std::string(HeadOf(at.kind)) + std::to_string(at.place);
}

std::optional<InterruptionPoint> ParseInterruptionPoint(const std::string& text) {
  InterruptionPoint at;
  std::string_view number = text;
  for (const Interruption kind : {Interruption::KILLED, Interruption::DROPPED}) {
    if (!text.starts_with(HeadOf(kind))) continue;
    at.kind = kind;
    number.remove_prefix(HeadOf(kind).size());
  }
  const char* const end = number.data() + number.size();
  const auto parsed = std::from_chars(number.data(), end, at.place);
  if (number.empty() || parsed.ec != std::errc() || parsed.ptr != end) return {};
  return at;
}

const char* Name(Interruption kind) {
  switch (kind) {
    case Interruption::POWER:
      return "power lost";
    case Interruption::KILLED:
      return "burner killed";
    case Interruption::DROPPED:
      return "connection dropped";
  }
  return "?";
}

}  // namespace rehearse
