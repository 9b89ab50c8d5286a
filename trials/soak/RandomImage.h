/// Random images that a burn must accept, and the memories that they fit.
#pragma once

#include <optional>

#include "trials/soak/ImageText.h"

namespace soak {

/// The memory that an image has to fit.
struct MemoryLayout {
  std::uint32_t log2_chunk = 5;
  std::uint32_t sector_size = 0;  ///< 0 for EEPROMs
  std::uint32_t size = 0;         ///< bytes
  std::uint32_t image_end =
      0;  ///< where pointer sectors stand behind the images; 0: at the end of the memory
  std::vector<MappedChip> map;
  bool may_have_guids = true;  ///< devices have one or two ports
  std::uint32_t ImageEnd() const { return image_end == 0 ? size : image_end; }
  bool IsFlash() const { return sector_size != 0; }
  std::uint32_t RoundUp(std::uint32_t addr) const {
    return (addr + sector_size - 1) / sector_size * sector_size;
  }
};

/// Flash or EEPROMs of a size that keeps a burn short.
MemoryLayout MakeFlash(Random& random, std::uint32_t sectors);
MemoryLayout MakeEeproms(Random& random);

/// The slots that the old and the new image of a device share.
struct SlotPlaces {
  std::uint32_t ps[2] = {0, 0};    ///< addresses of the pointer sectors
  std::uint32_t slot[2] = {0, 0};  ///< addresses of slots with boot records
  bool may_overlap = false;        ///< pointer sectors: the second slot may begin within the first
};

/// Each returns an image without a type, or nothing where the random choices do not fit: try again.
std::optional<Image> MakeGeneric(const MemoryLayout& layout, Random& random);
/// Two slots with pointer sectors `ps`; the invariant sector is `invariant`.
std::optional<Image> MakePointers(const MemoryLayout& layout, const SlotPlaces& slots,
                                  const std::vector<Section>& invariant, Random& random);
/// Two slots with boot records, at `slots`.
std::optional<Image> MakeRecords(const MemoryLayout& layout, const SlotPlaces& slots,
                                 Random& random);
std::vector<Section> MakeInvariant(const MemoryLayout& layout, Random& random);

}  // namespace soak
