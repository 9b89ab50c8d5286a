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

/// "can't save the memory of GUID: REASON"
SaveFailure CannotSave(device::Guid guid, const std::string& reason);

/// Writes the whole memory of one device to `folder`, one file for each chip. Throws SaveFailure
/// and ServerFailure.
void SaveMemory(const device::Image& image, DeviceReader& reader, device::Guid guid,
                const std::filesystem::path& folder);

/// Whether SaveMemory may give a file this name.
bool IsMemoryName(const std::filesystem::path& name);

}  // namespace verify
