#include "device/WriteOrder.h"

#include <algorithm>
#include <sstream>

namespace device {

namespace {

/// The bytes of `change` that lie in `range` are those of `wanted`, which starts with the range.
bool Holds(const MemoryChange& change, const Range& range, View wanted) {
  for (std::size_t i = 0; i < change.bytes.size(); ++i) {
    const std::uint64_t at = change.addr + i;
    if (!range.Holds(at, 1)) continue;
    if (change.bytes[i] != wanted[static_cast<std::size_t>(at - range.addr)]) return false;
  }
  return true;
}

bool Allows(const Step& step, const MemoryChange& change) {
  const auto holds_place = [&change](const Range& range) {
    return change.is_erase ? range.Meets(change.addr, change.size)
                           : range.Holds(change.addr, change.size);
  };
  if (std::ranges::none_of(step.ranges, holds_place)) return false;
  if (change.is_erase) return true;
  const auto is_blank = [&change](const Range& range) {
    return Holds(change, range, Bytes(range.size, ERASED));
  };
  return std::ranges::all_of(step.blank, is_blank) &&
         (step.bytes.empty() || Holds(change, step.ranges.front(), step.bytes));
}

}  // namespace

std::string OrderError(const std::vector<Step>& steps, const std::vector<MemoryChange>& changes) {
  auto step = steps.begin();
  for (const MemoryChange& change : changes) {
    const auto allows = [&change](const Step& of) { return Allows(of, change); };
    const auto next = std::find_if(step, steps.end(), allows);
    if (next == steps.end()) {
      const bool is_over = std::any_of(steps.begin(), step, allows);
      std::ostringstream text;
      text << (change.is_erase ? "erases " : "writes ") << change.size << " bytes at " << std::hex
           << change.addr
           << (is_over ? OUT_OF_ORDER + step->name : " that are no part of the burn");
      return text.str();
    }
    step = next;
  }
  return "";
}

}  // namespace device
