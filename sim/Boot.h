/// The verdicts on simulated devices: whether they boot, and whether what they boot is whole
/// (device/Boot.h, device/Whole.h).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "device/Image.h"
#include "device/Whole.h"
#include "sim/Fabric.h"

namespace sim {

/// A device cannot be judged.
class JudgeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads an image file. Throws JudgeError.
device::Image ReadImageFile(const std::string& file);

/// Where the devices of an image, which comes from `file`, keep what their boot code looks at.
/// Throws JudgeError where the image does not place it.
device::BootLayout LayoutOf(const device::Image& image, const std::string& file,
                            std::uint32_t sector_size);

/// Has `judge` know all that burning an image file can make of `device`, into either slot and by a
/// plain burn, for whole. Throws JudgeError when the file cannot be read, and when its image keeps
/// its slots elsewhere than the judge looks.
void KnowImageFile(device::Judge& judge, const Device& device, const std::string& file,
                   device::Whole whole);

/// A line for each device: whether it boots, judged by the images that it was filled with and by
/// `images`, files that may have been burnt since, the last of them the new one; or why that cannot
/// be told.
std::string BootReport(const Fabric& fabric, const std::vector<std::string>& images);

}  // namespace sim
