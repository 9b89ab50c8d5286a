/// Whether a simulated device would boot: its boot code's own test, and one more question that only
/// a simulator can ask, whether the image it would boot is whole.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "sim/Fabric.h"
#include "sim/Family.h"
#include "src/FwImage.h"

namespace sim {

/// What one image slot of a device is worth.
enum class SlotState {
  INVALID,  ///< not marked valid: the boot code passes it over
  OLD,      ///< valid, and wholly an image that the device had before
  NEW,      ///< valid, and wholly the image that is burnt
  BROKEN,   ///< marked valid, but its bytes are no whole image
};

/// What a device's memory is worth at one moment.
struct BootVerdict {
  std::array<SlotState, FwImage::SLOTS> slots{};
  bool invariant_is_whole = true;  ///< a torn invariant sector boots nothing

  /// Some slot is valid and whole.
  bool Boots() const;
  /// Some slot is valid and wholly new.
  bool BootsNew() const;
  bool operator==(const BootVerdict&) const = default;
};

/// In words: "boots old: slot 0 old, slot 1 invalid".
std::string Describe(const BootVerdict& verdict);

/// Where an image's device keeps what its boot code looks at.
struct BootLayout {
  bool has_pointer_sectors = false;  ///< else a boot record at the start of each slot
  std::array<u_int32_t, FwImage::SLOTS> records{};  ///< addresses, of the one or the other
  u_int32_t sector_size = 0;                        ///< of a flash

  /// Throws BraidError when the image does not place what its device type needs. `sector_size` is 0
  /// for a memory without sectors.
  BootLayout(const FwImage& image, u_int32_t sector_size);
  bool operator==(const BootLayout&) const = default;
};

/// The device's chips end to end, as an image's device map has them.
DataVec LinearMemory(const Device& device, const FwImage::Conv& conv);

/// Follows one device's memory byte by byte and judges it at any moment, at the cost of the bytes
/// that changed.
class BootJudge {
 public:
  BootJudge(const BootLayout& layout, DataVec memory);

  /// Takes every slot that is valid now for a whole old image. A second image that was moved into
  /// the first slot is as whole as it was, here and below.
  void KnowPresentImages();
  /// Takes the invariant sector as it is now for whole.
  void KnowPresentInvariantSector();
  /// Takes what `memory` holds in `slot` at the places of `image`'s sections, and in the invariant
  /// sector, for whole. Throws BraidError when the memory does not reach that far.
  void KnowImage(const FwImage& image, const DataVec& memory, u_int32_t slot, SlotState state);
  /// All that burning an image file can make of the device: into either slot, and as a burn that is
  /// not failsafe leaves it. What does not fit is never whole. Throws BraidError when the image
  /// keeps its slots elsewhere than this judge looks.
  void KnowImageFile(const Device& device, const std::string& file, SlotState state);

  const DataVec& Memory() const { return _memory; }
  void Set(u_int32_t addr, u_int8_t byte);

  BootVerdict Verdict() const;
  /// Whether the boot code would take the slot for valid.
  bool IsValid(u_int32_t slot) const;
  /// Whether its pointer sector bears a signature, which is all that a burn looks at.
  bool IsSigned(u_int32_t slot) const;

 private:
  /// Bytes that together are one whole image in one slot.
  struct Known {
    u_int32_t slot;
    SlotState state;
    u_int32_t addr;  ///< as a pointer sector has them
    u_int32_t size;
    std::vector<std::pair<u_int32_t, DataVec>> ranges;  ///< by start address
    std::size_t wrong = 0;                              ///< bytes that differ now
  };

  static constexpr u_int32_t INVARIANT = FwImage::SLOTS;  ///< in the place of a slot

  void Add(Known known);
  void AddMoved(SlotState state, const DataVec& memory, u_int32_t addr, u_int32_t size);
  bool Fits(u_int64_t addr, u_int64_t size) const { return addr + size <= _memory.size(); }
  static DataVec Part(const DataVec& memory, u_int64_t addr, u_int64_t size);
  u_int32_t Word(const DataVec& memory, u_int32_t addr) const;

  BootLayout _layout;
  DataVec _memory;
  std::vector<Known> _known;
  // A pointer sector's CRC is computed anew only after its bytes have changed.
  mutable std::array<bool, FwImage::SLOTS> _is_judged{};
  mutable std::array<bool, FwImage::SLOTS> _is_valid{};
};

/// A line for each device: whether it boots, judged by the images that it was filled with and by
/// `images`, files that may have been burnt since, the last of them the new one; or why that cannot
/// be told.
std::string BootReport(const Fabric& fabric, const std::vector<std::string>& images);

}  // namespace sim
