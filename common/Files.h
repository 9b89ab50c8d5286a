/// Files as the tools read and write them: whole, or not at all.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <span>
#include <string>
#include <utility>

#include "src/BraidGeneral.h"

namespace tools {

/// Throws the system's last error, a std::system_error that says `what` failed.
[[noreturn]] void ThrowSystemError(const std::string& what);

/// Owns a file descriptor; none where it is negative.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : _fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_fd, other._fd);
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return _fd; }
  bool IsOpen() const { return _fd >= 0; }
  void Close() {
    if (_fd >= 0) close(_fd);
    _fd = -1;
  }

 private:
  int _fd;
};

/// All bytes of a file. Throws std::runtime_error when it cannot be read whole, or is no regular
/// file.
DataVec ReadFile(const std::filesystem::path& path);

/// A file that gets its name only when it is complete: until then, and for good where Keep is never
/// called, whatever bore the name stays as it was. It has the mode of what it replaces. All
/// operations throw std::runtime_error.
class NewFile {
 public:
  /// Makes a file beside `path` that ends in the same extension.
  explicit NewFile(const std::filesystem::path& path);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();

  void Write(std::span<const char> bytes);
  /// Ends the writing, with all bytes on the disk, so that the file can be read under the name that
  /// it has for now.
  const std::string& Close();
  /// Gives the file its name.
  void Keep();

 private:
  [[noreturn]] void Throw() const;

  std::filesystem::path _path;
  std::string _temporary;
  int _fd = -1;
};

/// Writes a whole file.
void WriteFile(const std::filesystem::path& path, const DataVec& bytes);

/// A folder for scratch files, removed with all that is in it.
class ScratchFolder {
 public:
  ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder();

  std::string operator/(const std::string& name) const { return _path / name; }

 private:
  std::filesystem::path _path;
};

}  // namespace tools
