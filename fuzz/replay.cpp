// Runs a target once over every input in the named files and folders.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

void Replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  fuzz::Must(file.good() || file.eof(), path.string() + " can be read");
  // The last line on standard error names the input that ended the process.
  std::cerr << path.string() << std::endl;
  LLVMFuzzerTestOneInput(reinterpret_cast<const u_int8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char* argv[]) {
  LLVMFuzzerInitialize(&argc, &argv);
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      Replay(argv[i]);
      ++count;
      continue;
    }
    for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      Replay(entry.path());
      ++count;
    }
  }
  std::cerr << "replayed: " << count << std::endl;
  return count == 0 ? 1 : 0;
}
