/// What a burn must have left in the parts of a device's memory that are compared. Told by the
/// judge of burns (device/Burn.h), and not by the burner: a mistake of the burner must not acquit
/// itself.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "device/Burn.h"
#include "device/Image.h"

namespace tools {

/// Bytes of a device's memory that one section of an image fills.
struct ComparedRegion {
  const device::Section* section = nullptr;  ///< borrowed from the image
  std::uint32_t addr = 0;                    ///< linear, where the burn puts it
  device::Bytes expected{};                  ///< what the burn leaves there; as long as the section
  device::Bytes found{};                     ///< what the device holds there

  std::uint64_t End() const { return addr + section->data.size(); }
};

/// Why nobody can tell what a burn would leave: it would fail by itself.
struct CannotPredict {
  std::string reason;
};

/// Tells of one device. The image is borrowed.
class Expectation {
 public:
  /// `sector_size` is 0 for a memory without sectors. What `values` throws passes through.
  Expectation(const device::Image& image, std::uint32_t sector_size,
              device::Burn::FieldValues values)
      : _image(image), _sector_size(sector_size), _values(std::move(values)) {}

  // Each sets `expected` of the regions, whatever was there. They throw CannotPredict.

  /// All sections where they stand.
  void PlainBurn(std::span<ComparedRegion> regions) const;
  /// A slot with a pointer sector. `keeps_invariant`: the sections of the invariant sector, which
  /// stand first, were found as the image has them, and then a burn leaves them so.
  void PointerSectorBurn(std::span<ComparedRegion> regions, std::uint32_t slot,
                         bool keeps_invariant) const;
  /// Both slots with boot records, `first` before the other. The order matters where the image
  /// marks a field or a CRC in one slot only.
  void BootRecordBurn(std::span<ComparedRegion> regions, std::uint32_t first) const;

 private:
  void Write(std::span<ComparedRegion> regions, device::BurnKind kind,
             const device::Plan& plan) const;

  const device::Image& _image;
  std::uint32_t _sector_size;
  device::Burn::FieldValues _values;
};

}  // namespace tools
