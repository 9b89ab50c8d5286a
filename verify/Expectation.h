/// Predicts what a burn leaves in the compared parts of a device's memory. Uses the judge's rules
/// of burns (device/Burn.h) and no code of the burner: otherwise a mistake of the burner would also
/// be in the prediction, and stay undetected.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "device/Burn.h"
#include "device/Image.h"
#include "verify/ComparedRegion.h"

namespace verify {

/// The result of a burn cannot be predicted, because the burn would fail.
struct CannotPredict {
  std::string reason;
};

/// Whether the image has all that a failsafe burn needs.
bool CanBeBurntIntoSlots(const device::Image& image);

/// Predicts for one device. The image is borrowed.
class Expectation {
 public:
  /// `sector_size` is 0 for a memory without sectors. What `values` throws is passed on.
  Expectation(const device::Image& image, std::uint32_t sector_size,
              device::Burn::FieldValues values)
      : _image(image), _sector_size(sector_size), _values(std::move(values)) {}

  // Each replaces `expected` of the regions. They throw CannotPredict.

  /// A burn of all sections to their addresses in the image.
  void PlainBurn(std::span<ComparedRegion> regions) const;
  /// A failsafe burn into a slot with a pointer sector. The regions of the invariant sector, if
  /// any, are first. `keeps_invariant`: the device held them as they are in the image, and the
  /// burn did not rewrite them.
  void PointerSectorBurn(std::span<ComparedRegion> regions, std::uint32_t slot,
                         bool keeps_invariant) const;
  /// A failsafe burn into both slots with boot records, `first` before the other one. The order
  /// matters where the image marks a field or a CRC in one slot only.
  void BootRecordBurn(std::span<ComparedRegion> regions, std::uint32_t first) const;

 private:
  void Write(std::span<ComparedRegion> regions, device::BurnKind kind,
             const device::Plan& plan) const;

  const device::Image& _image;
  std::uint32_t _sector_size;
  device::Burn::FieldValues _values;
};

}  // namespace verify
