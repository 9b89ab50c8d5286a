#include "common/ScratchFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace common {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder(const std::string& prefix) {
  std::error_code error;
  const fs::path parent = fs::temp_directory_path(error);
  if (error) throw std::runtime_error("can't make files in TMPDIR: " + error.message());
  std::string name = parent / (prefix + "-XXXXXX");
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("can't make " + name + ": " + strerror(errno));
  }
  _path = name;
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  fs::remove_all(_path, ignored);
}

std::string ScratchFolder::Write(const std::string& name, std::string_view content) const {
  const fs::path path = _path / name;
  std::ofstream file(path, std::ios::binary);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("can't write " + path.string());
  return path;
}

}  // namespace common
