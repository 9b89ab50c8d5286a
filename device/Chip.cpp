#include "device/Chip.h"

#include <algorithm>

namespace device {

void Program(MemoryKind kind, Cells cells, View wanted) {
  for (std::size_t i = 0; i < wanted.size(); ++i) cells[i] = Programmed(kind, cells[i], wanted[i]);
}

void ProgramTorn(MemoryKind kind, Cells cells, View wanted, const Tear& tear) {
  const std::size_t torn = tear.word * WORD_SIZE;
  Program(kind, cells, wanted.first(torn));
  const std::size_t end = std::min<std::size_t>(torn + WORD_SIZE, wanted.size());
  for (std::size_t i = torn; i < end; ++i) {
    cells[i] = Programmed(kind, cells[i], wanted[i], tear.done[i - torn]);
  }
}

void Erase(Cells cells) { std::ranges::fill(cells, ERASED); }

void EraseTorn(Cells cells, const std::function<bool(std::size_t cell)>& done) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (done(i)) cells[i] = ERASED;
  }
}

void Chip::Load(std::uint32_t offset, View bytes) {
  std::ranges::copy(bytes, Part(offset, bytes.size()).begin());
}

void Chip::Program(std::uint32_t offset, View bytes) {
  device::Program(Kind(), Part(offset, bytes.size()), bytes);
}

void Chip::ProgramTorn(std::uint32_t offset, View bytes, const Tear& tear) {
  device::ProgramTorn(Kind(), Part(offset, bytes.size()), bytes, tear);
}

void Chip::EraseSector(std::uint32_t offset) { Erase(Sector(offset)); }

void Chip::EraseSectorTorn(std::uint32_t offset,
                           const std::function<bool(std::size_t cell)>& done) {
  EraseTorn(Sector(offset), done);
}

}  // namespace device
