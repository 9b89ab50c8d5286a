/// What burns of two images leave, compared byte by byte.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "device/Image.h"

namespace fwimg {

/// Is told where burns of the images a and b leave different devices.
class BurnListener {
 public:
  virtual ~BurnListener() = default;
  /// A burn of one or both does not come to its end; empty for the one that does. `burn`: which,
  /// such as "a burn of slot 0".
  virtual void Ends(const std::string& burn, const std::string& a, const std::string& b) = 0;
  /// `a` and `b` are as long; some of their bytes differ.
  virtual void Leaves(const std::string& burn, std::uint64_t addr, device::View a,
                      device::View b) = 0;
};

/// Burns both images in every way that their device type has, each time into the same memory, and
/// tells where the results differ. Both must be of one type, which is known. `sector_size`: of a
/// flash, in bytes.
void CompareBurns(const device::Image& a, const device::Image& b, std::uint32_t sector_size,
                  BurnListener& listener);

}  // namespace fwimg
