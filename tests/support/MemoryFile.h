/// Files in memory, for tests that write and load thousands of files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "common/Descriptor.h"
#include "common/SystemError.h"

/// A file in memory that this process can open by the name of a symbolic link.
class MemoryFile {
 public:
  /// Makes the link. Throws std::system_error.
  explicit MemoryFile(const std::string& link) : _file(memfd_create("test", MFD_CLOEXEC)) {
    if (!_file.IsOpen()) common::ThrowSystemError("can't make a file in memory");
    std::filesystem::create_symlink("/proc/self/fd/" + std::to_string(_file.Get()), link);
  }

  /// Replaces the contents. Throws std::system_error.
  void Set(std::string_view content) const {
    if (ftruncate(_file.Get(), 0) != 0 || pwrite(_file.Get(), content.data(), content.size(), 0) !=
                                              static_cast<ssize_t>(content.size())) {
      common::ThrowSystemError("can't write a file in memory");
    }
  }

 private:
  common::Descriptor _file;
};
