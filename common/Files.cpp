#include "common/Files.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <span>
#include <stdexcept>

#include "common/OutputFile.h"

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

void WriteFile(const fs::path& path, const Bytes& bytes) {
  OutputFile file(path);
  file.Write(std::span(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  file.Keep();
}

}  // namespace common
