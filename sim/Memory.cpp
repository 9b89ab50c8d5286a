#include "sim/Memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace sim {

namespace {

constexpr u_int8_t ERASED = 0xFF;
constexpr std::size_t WORD_SIZE = 4;

[[noreturn]] void ThrowFileError(const std::filesystem::path& path, const std::string& reason) {
  throw std::runtime_error(path.string() + ": " + reason);
}

struct Descriptor {
  explicit Descriptor(int number) : fd(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  const int fd;
};

}  // namespace

Cells::Cells(u_int32_t size) : _own(size, ERASED), _bytes(_own) {}

Cells::Cells(u_int32_t size, const std::filesystem::path& path)
    : _kept(std::filesystem::exists(path)), _path(path) {
  // A run that ends before the first contents are complete must leave nothing that looks kept.
  const std::filesystem::path name = _kept ? path : _new = path.string() + ".new";
  const int create = _kept ? 0 : O_CREAT | O_TRUNC;
  const Descriptor file(open(name.c_str(), O_RDWR | O_CLOEXEC | create, 0666));
  struct stat status {};
  if (file.fd < 0 || fstat(file.fd, &status) < 0) ThrowFileError(name, strerror(errno));
  if (_kept && static_cast<u_int64_t>(status.st_size) != size) {
    ThrowFileError(name, Text("has ", status.st_size, " bytes, the memory has ", size));
  }
  // All of it on the disk now: a disk that fills up later would end the simulator.
  if (const int failure = posix_fallocate(file.fd, 0, size)) {
    ThrowFileError(name, strerror(failure));
  }
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
  if (map == MAP_FAILED) ThrowFileError(name, strerror(errno));
  _mapped = true;
  _bytes = std::span(static_cast<u_int8_t*>(map), size);
  if (!_kept) std::ranges::fill(_bytes, ERASED);
}

Cells::~Cells() {
  if (_mapped) munmap(_bytes.data(), _bytes.size());
  if (!_new.empty()) unlink(_new.c_str());
}

void Cells::Settle() {
  if (_new.empty()) return;
  if (rename(_new.c_str(), _path.c_str()) < 0) ThrowFileError(_path, strerror(errno));
  _new.clear();
}

Chip::Chip(std::unique_ptr<Cells> cells, u_int32_t sector_size)
    : _cells(std::move(cells)),
      _sector_size(sector_size),
      _erase_counts(sector_size == 0 ? 0 : Size() / sector_size) {
  ASSERT_ALWAYS(sector_size == 0 || Size() % sector_size == 0);
}

void Chip::Load(u_int32_t offset, std::span<const u_int8_t> bytes) {
  ASSERT_ALWAYS(Holds(offset, bytes.size()));
  std::ranges::copy(bytes, _cells->Bytes().begin() + offset);
}

void Chip::Program(u_int32_t offset, std::span<const u_int8_t> bytes) {
  ASSERT_ALWAYS(Holds(offset, bytes.size()));
  const std::span<u_int8_t> cells = _cells->Bytes().subspan(offset, bytes.size());
  if (!IsFlash()) {
    std::ranges::copy(bytes, cells.begin());
    return;
  }
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if ((cells[i] & bytes[i]) != bytes[i]) {
      _violations.push_back({static_cast<u_int32_t>(offset + i), cells[i], bytes[i]});
    }
    cells[i] &= bytes[i];
  }
}

std::span<u_int8_t> Chip::Sector(u_int32_t offset) {
  ASSERT_ALWAYS(IsFlash() && Holds(offset, 1));
  return _cells->Bytes().subspan(offset - offset % _sector_size, _sector_size);
}

void Chip::EraseSector(u_int32_t offset) {
  std::ranges::fill(Sector(offset), ERASED);
  ++_erase_counts[offset / _sector_size];
}

void Chip::ProgramPart(u_int32_t offset, std::span<const u_int8_t> bytes, Rng& rng) {
  ASSERT_ALWAYS(Holds(offset, bytes.size()));
  if (bytes.empty()) return;
  const std::size_t words = (bytes.size() + WORD_SIZE - 1) / WORD_SIZE;
  const std::size_t torn = rng() % words * WORD_SIZE;
  Program(offset, bytes.first(torn));
  const auto wanted = bytes.subspan(torn, std::min(WORD_SIZE, bytes.size() - torn));
  std::vector<u_int8_t> mix;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    const u_int8_t held = Bytes()[offset + torn + i];
    const auto done = static_cast<u_int8_t>(rng());
    mix.push_back(static_cast<u_int8_t>((held & ~done) | (wanted[i] & done)));
  }
  Program(static_cast<u_int32_t>(offset + torn), mix);
}

void Chip::ErasePart(u_int32_t offset, Rng& rng) {
  for (u_int8_t& cell : Sector(offset)) {
    if (rng() % 2 != 0) cell = ERASED;
  }
}

}  // namespace sim
