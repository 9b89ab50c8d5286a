#include "verify/Expectation.h"

#include <algorithm>

#include "device/Chip.h"

namespace verify {

namespace {

/// Applies a burn to the expected bytes of the regions. Ignores writes outside of them.
class RegionTarget : public device::BurnTarget {
 public:
  RegionTarget(std::span<ComparedRegion> regions, bool is_flash)
      : _regions(regions),
        _kind(is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM) {}

  void Erase(std::uint32_t addr, std::uint64_t size) override {
    ForEachPart(addr, size, [](device::Cells cells, std::uint64_t) { device::Erase(cells); });
  }
  void Program(std::uint32_t addr, device::View bytes) override {
    ForEachPart(addr, bytes.size(), [&](device::Cells cells, std::uint64_t offset) {
      device::Program(_kind, cells, bytes.subspan(static_cast<std::size_t>(offset), cells.size()));
    });
  }

 private:
  /// Calls `change` for each region that overlaps [addr, addr + size), with the cells in that range
  /// and their distance from `addr`.
  template <typename Change>
  void ForEachPart(std::uint32_t addr, std::uint64_t size, const Change& change) {
    for (ComparedRegion& region : _regions) {
      const std::uint64_t start = std::max(addr, region.addr);
      const std::uint64_t end = std::min(addr + size, region.End());
      if (start >= end) continue;
      change(device::Cells(region.expected)
                 .subspan(static_cast<std::size_t>(start - region.addr),
                          static_cast<std::size_t>(end - start)),
             start - addr);
    }
  }

  std::span<ComparedRegion> _regions;
  device::MemoryKind _kind;
};

}  // namespace

bool CanBeBurntIntoSlots(const device::Image& image) {
  if (image.Slots() == device::SlotKind::NONE) return false;
  constexpr std::uint32_t ANY_SECTOR_SIZE = 1;  // that of the device is not known yet
  try {
    device::Burn(image, device::BurnKind::FAILSAFE, device::Burn::FieldValues{})
        .CheckImage(ANY_SECTOR_SIZE);
    return true;
  } catch (const device::BurnError&) {
    return false;
  }
}

void Expectation::Write(std::span<ComparedRegion> regions, device::BurnKind kind,
                        const device::Plan& plan) const {
  RegionTarget target(regions, _sector_size != 0);
  try {
    device::Burn(_image, kind, _values).Write(target, _sector_size, plan);
  } catch (const device::BurnError& error) {
    throw CannotPredict{error.what()};
  }
}

namespace {

void Blank(std::span<ComparedRegion> regions) {
  for (ComparedRegion& region : regions) {
    region.expected.assign(region.section->data.size(), device::ERASED);
  }
}

}  // namespace

void Expectation::PlainBurn(std::span<ComparedRegion> regions) const {
  Blank(regions);
  Write(regions, device::BurnKind::PLAIN, {});
}

void Expectation::PointerSectorBurn(std::span<ComparedRegion> regions, std::uint32_t slot,
                                    bool keeps_invariant) const {
  Blank(regions);
  for (ComparedRegion& region : regions) {
    if (!keeps_invariant || region.addr >= _sector_size) break;
    region.expected = region.section->data;
  }
  Write(regions, device::BurnKind::FAILSAFE,
        {.rewrites_invariant = !keeps_invariant, .slots = {slot}});
}

void Expectation::BootRecordBurn(std::span<ComparedRegion> regions, std::uint32_t first) const {
  Blank(regions);
  Write(regions, device::BurnKind::FAILSAFE, {.slots = {first, 1 - first}});
}

}  // namespace verify
