/// Reading and writing of whole files.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "common/Bytes.h"
#include "common/Descriptor.h"

namespace common {

/// All bytes of a file. Throws std::runtime_error when it is not a regular file, or cannot be read
/// to its end.
Bytes ReadFile(const std::filesystem::path& path);

/// A file that replaces another one only when it is complete: it has a temporary name until Keep is
/// called, and is removed if that is never done. It gets the mode of the file that it replaces. All
/// operations throw std::runtime_error.
class NewFile {
 public:
  /// Creates a temporary file beside `path`, with the same extension.
  explicit NewFile(const std::filesystem::path& path);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();

  void Write(std::span<const char> bytes);
  /// Writes all bytes to the disk and closes the file. Returns its temporary name, under which it
  /// can be read.
  const std::string& Close();
  /// Closes the file and renames it to `path`.
  void Keep();

 private:
  [[noreturn]] void Throw() const;

  std::filesystem::path _path;
  std::string _temporary;
  Descriptor _file;
};

/// Writes a file, or replaces it, as a whole. Throws std::runtime_error.
void WriteFile(const std::filesystem::path& path, const Bytes& bytes);

}  // namespace common
