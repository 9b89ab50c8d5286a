#include "sim/ChipMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "common/Descriptor.h"
#include "common/Text.h"

namespace sim {

namespace {

/// Aborts where a condition does not hold that callers must check first.
void Require(bool holds) {
  if (!holds) std::abort();
}

[[noreturn]] void ThrowFileError(const std::filesystem::path& path, const std::string& reason) {
  throw std::runtime_error(path.string() + ": " + reason);
}

}  // namespace

Cells::Cells(std::uint32_t size) : _own(size, device::ERASED), _bytes(_own) {}

Cells::Cells(std::uint32_t size, const std::filesystem::path& path)
    : _kept(std::filesystem::exists(path)), _path(path) {
  // If this run ends before the initial contents are complete, the next run must not take the file
  // for kept contents.
  const std::filesystem::path name = _kept ? path : _new = path.string() + ".new";
  // That of a run which was killed is replaced, not written to: the name may be a link.
  if (!_kept) unlink(name.c_str());
  const int create = _kept ? 0 : O_CREAT | O_EXCL;
  const common::Descriptor file(open(name.c_str(), O_RDWR | O_CLOEXEC | create, 0666));
  struct stat status {};
  if (!file.IsOpen() || fstat(file.Get(), &status) < 0) ThrowFileError(name, strerror(errno));
  if (_kept && static_cast<std::uint64_t>(status.st_size) != size) {
    ThrowFileError(name, common::Text("has ", status.st_size, " bytes, the memory has ", size));
  }
  // Reserve the disk space now: writing to a mapped file on a full disk raises SIGBUS.
  if (const int failure = posix_fallocate(file.Get(), 0, size)) {
    ThrowFileError(name, strerror(failure));
  }
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  if (map == MAP_FAILED) ThrowFileError(name, strerror(errno));
  _mapped = true;
  _bytes = std::span(static_cast<std::uint8_t*>(map), size);
  if (!_kept) std::ranges::fill(_bytes, device::ERASED);
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

Chip::Chip(std::unique_ptr<Cells> cells, std::uint32_t sector_size)
    : _cells(std::move(cells)),
      _chip(_cells->Bytes(), sector_size),
      _erase_counts(sector_size == 0 ? 0 : Size() / sector_size) {
  Require(sector_size == 0 || Size() % sector_size == 0);
}

void Chip::Load(std::uint32_t offset, device::View bytes) {
  Require(Holds(offset, bytes.size()));
  _chip.Load(offset, bytes);
}

void Chip::NoteViolations(std::uint32_t offset, device::View bytes) {
  if (!IsFlash()) return;
  const device::View held = Bytes().subspan(offset, bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if ((held[i] & bytes[i]) != bytes[i]) {
      _violations.push_back({static_cast<std::uint32_t>(offset + i), held[i], bytes[i]});
    }
  }
}

void Chip::Program(std::uint32_t offset, device::View bytes) {
  Require(Holds(offset, bytes.size()));
  NoteViolations(offset, bytes);
  _chip.Program(offset, bytes);
}

void Chip::EraseSector(std::uint32_t offset) {
  Require(IsFlash() && Holds(offset, 1));
  _chip.EraseSector(offset);
  ++_erase_counts[offset / SectorSize()];
}

void Chip::ProgramPart(std::uint32_t offset, device::View bytes, Rng& rng) {
  Require(Holds(offset, bytes.size()));
  if (bytes.empty()) return;
  device::Tear tear{.word = rng() % device::WordsIn(bytes.size())};
  const std::size_t torn = tear.word * device::WORD_SIZE;
  const std::size_t end = std::min<std::size_t>(torn + device::WORD_SIZE, bytes.size());
  // The data that the chip gets: in the torn word, bits that are not done keep the held value.
  device::Bytes arrived(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(end));
  for (std::size_t i = torn; i < end; ++i) {
    tear.done[i - torn] = static_cast<std::uint8_t>(rng());
    arrived[i] = device::Programmed(device::MemoryKind::EEPROM, Bytes()[offset + i], bytes[i],
                                    tear.done[i - torn]);
  }
  NoteViolations(offset, arrived);
  _chip.ProgramTorn(offset, bytes, tear);
}

void Chip::ErasePart(std::uint32_t offset, Rng& rng) {
  Require(IsFlash() && Holds(offset, 1));
  _chip.EraseSectorTorn(offset, [&rng](std::size_t) { return rng() % 2 != 0; });
}

}  // namespace sim
