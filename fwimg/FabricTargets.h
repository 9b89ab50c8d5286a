/// Devices of a fabric file as `fwimg check` looks at them.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <vector>

#include "device/DeviceType.h"
#include "fwimg/CheckTarget.h"

namespace fwimg {

/// A fabric has no device that an image could be checked against.
class NoTargetError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The kinds of devices of a fabric, each once.
class FabricTargets {
 public:
  /// Reads a fabric file as fwpush-sim does, the contents of its devices included, or a
  /// configuration of fwpush-serve, which has other keys. Throws std::runtime_error.
  FabricTargets(const std::filesystem::path& path, unsigned log2_chunk);

  /// The kinds of devices that have the memory of this type. Throws NoTargetError where there is
  /// none.
  std::vector<CheckTarget> For(const device::DeviceType& type) const;

 private:
  std::filesystem::path _path;
  std::vector<CheckTarget> _flashes;
  std::vector<CheckTarget> _eeproms;
};

}  // namespace fwimg
