/// Files as the programs read and write them: whole, or not at all.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "common/Bytes.h"
#include "common/Descriptor.h"

namespace common {

/// All bytes of a file. Throws std::runtime_error when it cannot be read whole, or is no regular
/// file.
Bytes ReadFile(const std::filesystem::path& path);

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
  Descriptor _file;
};

/// Writes a whole file.
void WriteFile(const std::filesystem::path& path, const Bytes& bytes);

}  // namespace common
