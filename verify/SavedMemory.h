/// Saves a device's memory to files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "device/Image.h"
#include "verify/DeviceReader.h"

namespace verify {

/// Maximum size of a memory that is saved, in bytes: a device may claim to have more than fits on
/// the disk.
inline constexpr std::uint64_t MOST_SAVED = std::uint64_t{256} << 20;

/// A device's memory could not be saved.
struct SaveFailure {
  std::string reason;
};

/// Writes the whole memory to `folder`, one file for each chip. Throws only SaveFailure, whatever
/// fails: the bytes that are not compared do not change the verdict.
void SaveMemory(const device::Image& image, DeviceReader& reader,
                const std::filesystem::path& folder);

}  // namespace verify
