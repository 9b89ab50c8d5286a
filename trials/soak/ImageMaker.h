/// Makes up images that a burn must take.
#pragma once

#include <optional>

#include "trials/soak/Image.h"

namespace soak {

/// Where an image has to fit.
struct Ground {
  u_int32_t log2_chunk = 5;
  u_int32_t sector_size = 0;  ///< 0 for EEPROMs
  u_int32_t size = 0;         ///< bytes
  u_int32_t image_end = 0;    ///< where pointer sectors stand behind the images
  std::vector<Mapped> map;
  bool may_have_guids = true;  ///< devices have one or two ports
  u_int32_t ImageEnd() const { return image_end == 0 ? size : image_end; }
  bool IsFlash() const { return sector_size != 0; }
  u_int32_t RoundUp(u_int32_t addr) const {
    return (addr + sector_size - 1) / sector_size * sector_size;
  }
};

/// Flash or EEPROMs of a size that keeps a burn short.
Ground MakeFlash(Dice& dice, u_int32_t sectors);
Ground MakeEeproms(Dice& dice);

/// What two images of one device share.
struct Slots {
  u_int32_t ps[2] = {UNPLACED, UNPLACED};
  u_int32_t slot[2] = {UNPLACED, UNPLACED};
  bool may_overlap = false;  ///< pointer sectors: the second slot may begin within the first
};

/// Each returns none where what was made up does not fit: try again.
std::optional<Image> MakeGeneric(const Ground& ground, Dice& dice);
/// Two slots with pointer sectors `ps`; the invariant sector is `invariant`.
std::optional<Image> MakePointers(const Ground& ground, const Slots& slots,
                                  const std::vector<Section>& invariant, Dice& dice);
/// Two slots with boot records, at `slots`.
std::optional<Image> MakeRecords(const Ground& ground, const Slots& slots, Dice& dice);
std::vector<Section> MakeInvariant(const Ground& ground, Dice& dice);

}  // namespace soak
