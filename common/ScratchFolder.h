/// Temporary folders.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace common {

/// A new folder in the system's folder for temporary files. The destructor removes it with its
/// contents.
class ScratchFolder {
 public:
  /// `prefix` begins its name. Throws std::runtime_error when it cannot be created.
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
