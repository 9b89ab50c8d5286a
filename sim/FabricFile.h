/// Fabrics described in files.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/Fabric.h"

namespace sim {

/// A fabric file is wrong; the text names file, line and key.
class FabricFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The other files of a run with a fabric file.
struct FabricFiles {
  std::vector<std::filesystem::path> read;  ///< images and raw files that fill devices
  std::vector<std::string> memories;        ///< names of the memories in a state folder
};

/// The files that the fabric file `path` names. Opens none of them. Throws FabricFileError, but
/// does not find every error.
FabricFiles FilesOf(const std::filesystem::path& path);

/// Builds the fabric that the TOML file `path` describes. If a `state` folder is given, it is
/// created where needed and keeps the devices' memories in files; existing files keep their
/// contents. Throws FabricFileError.
void LoadFabric(const std::filesystem::path& path,
                const std::optional<std::filesystem::path>& state, Fabric& fabric);

}  // namespace sim
