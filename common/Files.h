/// Reading and writing of whole files.
#pragma once

#include <filesystem>

#include "common/Bytes.h"

namespace common {

/// All bytes of a file. Throws std::runtime_error when it is not a regular file, or cannot be read
/// to its end.
Bytes ReadFile(const std::filesystem::path& path);

/// Writes a file as OutputFile does. Throws std::runtime_error.
void WriteFile(const std::filesystem::path& path, const Bytes& bytes);

}  // namespace common
