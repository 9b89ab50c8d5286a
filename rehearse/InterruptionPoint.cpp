#include "rehearse/InterruptionPoint.h"

#include <charconv>
#include <string_view>

namespace rehearse {

namespace {

constexpr std::string_view NEXT = "next:";

/// Takes a number from the front of `text`. False if there is none.
template <typename Number>
bool TakeNumber(std::string_view& text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (text.empty() || parsed.ec != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()));
  return true;
}

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
  return std::string(at.is_of_next_burn ? NEXT : HeadOf(at.kind)) + std::to_string(at.place) +
         (at.second ? "+" + std::to_string(*at.second) : "") +
         (at.second_seed ? "@" + std::to_string(*at.second_seed) : "");
}

std::optional<InterruptionPoint> ParseInterruptionPoint(const std::string& text) {
  InterruptionPoint at;
  std::string_view number = text;
  for (const Interruption kind : {Interruption::KILLED, Interruption::DROPPED}) {
    if (!text.starts_with(HeadOf(kind))) continue;
    at.kind = kind;
    number.remove_prefix(HeadOf(kind).size());
  }
  if (number.starts_with(NEXT) && at.kind == Interruption::POWER) {
    at.is_of_next_burn = true;
    number.remove_prefix(NEXT.size());
  }
  if (!TakeNumber(number, at.place)) return {};
  if (number.starts_with('+') && at.kind == Interruption::POWER && !at.is_of_next_burn) {
    number.remove_prefix(1);
    if (!TakeNumber(number, at.second.emplace())) return {};
    if (number.starts_with('@')) {
      number.remove_prefix(1);
      if (!TakeNumber(number, at.second_seed.emplace())) return {};
    }
  }
  if (!number.empty()) return {};
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
