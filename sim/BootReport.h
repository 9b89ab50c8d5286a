/// Verdicts on simulated devices: whether they boot, and whether the image that boots is whole
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
device::Image LoadImage(const std::string& file);

/// Where the boot code of the image's devices looks for its records. `file` is the name of the
/// image in messages. Throws JudgeError where the image does not place the records.
device::BootLayout LayoutOf(const device::Image& image, const std::string& file,
                            std::uint32_t sector_size);

/// Adds an image file to the images that `judge` knows: every result of burning it into `device`,
/// into either slot or by a plain burn, then counts as whole. Throws JudgeError when the file
/// cannot be read, or when its slots are not where the judge looks.
void AddKnownImageFile(device::Judge& judge, const Device& device, const std::string& file,
                       device::Whole whole, device::Origin origin = device::Origin::ANY);

/// One line for each device: whether it boots, or why that cannot be judged. Known are the images
/// that the device was filled with, and `images`: files that may have been burnt since. The last of
/// them is the new one.
std::string BootReport(const Fabric& fabric, const std::vector<std::string>& images);

}  // namespace sim
