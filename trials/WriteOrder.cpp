#include "trials/WriteOrder.h"

#include <algorithm>

#include "common/Text.h"

namespace trials {

namespace {

/// The address of what the image does not map: behind all others.
constexpr std::uint64_t NOT_MAPPED = device::ADDRESS_SPACE;

/// The linear address of a change; NOT_MAPPED where the image does not map all of it.
std::uint64_t AddressOf(const MemoryChange& change, const device::Image& image) {
  const auto addr = image.AddressWithin({change.chip, change.offset}, change.size);
  return addr ? std::uint64_t{*addr} : NOT_MAPPED;
}

}  // namespace

MemoryChange ChangeOf(const sim::Operation& operation) {
  return {operation.kind, operation.device, operation.chip, operation.offset, operation.size};
}

std::string OrderError(const device::Image& image, const std::vector<device::Step>& steps,
                       device::Guid node, const std::vector<MemoryChange>& changes) {
  auto step = steps.begin();
  for (const MemoryChange& change : changes) {
    if (change.node != node) continue;
    const std::uint64_t addr = AddressOf(change, image);
    const bool is_erase = change.kind == sim::Operation::ERASE;
    const auto allows = [&](const device::Step& of) {
      return std::ranges::any_of(of.ranges, [&](const device::Range& range) {
        return is_erase ? range.Meets(addr, change.size) : range.Holds(addr, change.size);
      });
    };
    const auto next = std::find_if(step, steps.end(), allows);
    if (next == steps.end()) {
      const bool is_over = std::any_of(steps.begin(), step, allows);
      return common::Text(is_erase ? "erases " : "writes ", change.size, " bytes at ", std::hex,
                          addr,
                          is_over ? OUT_OF_ORDER + step->name : " that are no part of the image");
    }
    step = next;
  }
  return "";
}

}  // namespace trials
