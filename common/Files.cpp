#include "common/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace common {

namespace fs = std::filesystem;

Bytes ReadFile(const fs::path& path) {
  std::error_code error;
  if (fs::exists(path, error) && !fs::is_regular_file(path, error)) {
    throw std::runtime_error("can't read " + path.string() + ": not a file");
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  Bytes bytes(file ? static_cast<std::size_t>(file.tellg()) : 0);
  file.seekg(0);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!file) {
    throw std::runtime_error("can't read " + path.string() + ": " +
                             (errno != 0 ? strerror(errno) : "it changes"));
  }
  return bytes;
}

NewFile::NewFile(const fs::path& path) : _path(path) {
  std::error_code error;
  // Replace the target of a symbolic link, not the link. Never replace a device.
  if (fs::is_symlink(path, error)) _path = fs::weakly_canonical(path, error);
  if (fs::exists(_path, error) && !fs::is_regular_file(_path, error)) {
    throw std::runtime_error("can't write " + path.string() + ": not a file");
  }
  const std::string extension = _path.extension();
  _temporary = (_path.parent_path() / (_path.stem().string() + ".XXXXXX" + extension)).string();
  _file = Descriptor(mkostemps(_temporary.data(), static_cast<int>(extension.size()), O_CLOEXEC));
  if (!_file.IsOpen()) Throw();
  // mkostemps makes the file private. Give it the mode of the old file, or that of any new file.
  const mode_t mask = umask(0);
  umask(mask);
  struct stat before {};
  const bool is_replaced = stat(_path.c_str(), &before) == 0;
  if (fchmod(_file.Get(), is_replaced ? before.st_mode & 0777 : 0666 & ~mask) != 0) {
    const int reason = errno;
    unlink(_temporary.c_str());
    errno = reason;
    Throw();
  }
}

NewFile::~NewFile() {
  if (!_temporary.empty()) unlink(_temporary.c_str());
}

void NewFile::Write(std::span<const char> bytes) {
  if (!WriteAll(_file.Get(), bytes)) Throw();
}

const std::string& NewFile::Close() {
  // Without fsync, a power cut after the rename may leave an empty file.
  if (_file.IsOpen() && (fsync(_file.Get()) != 0 || close(_file.Release()) != 0)) Throw();
  return _temporary;
}

void NewFile::Keep() {
  Close();
  if (rename(_temporary.c_str(), _path.c_str()) != 0) Throw();
  _temporary.clear();
}

void NewFile::Throw() const {
  throw std::runtime_error("can't write " + _path.string() + ": " + strerror(errno));
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
  NewFile file(path);
  file.Write(std::span(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  file.Keep();
}

}  // namespace common
