/// A folder for files that nobody needs afterwards.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace common {

/// A folder of its own below the system's for temporary files, removed with all that is in it.
class ScratchFolder {
 public:
  /// Its name begins with `prefix`. Throws std::runtime_error when it cannot be made.
  explicit ScratchFolder(const std::string& prefix = "fwpush");
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder();

  const std::filesystem::path& Path() const { return _path; }
  std::string operator/(const std::string& name) const { return _path / name; }

  /// Writes a file and returns its path. Throws std::runtime_error when it cannot.
  std::string Write(const std::string& name, std::string_view content) const;

 private:
  std::filesystem::path _path;
};

}  // namespace common
