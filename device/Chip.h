/// The rules of memory chips. A write sets and clears bits of an EEPROM. It only clears bits of a
/// flash; an erase sets all bits of a sector. Writes and erases that lose power are here, too: the
/// caller says which bits are done, so that nothing here is random.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "device/Bytes.h"
#include "device/DeviceType.h"

namespace device {

using Cells = std::span<std::uint8_t>;  ///< of a chip; somebody else owns them

/// What a cell holds after `wanted` was programmed over `held`. `done` has the bits that were
/// reached before the power went.
constexpr std::uint8_t Programmed(MemoryKind kind, std::uint8_t held, std::uint8_t wanted,
                                  std::uint8_t done = 0xFF) {
  const int target = kind == MemoryKind::FLASH ? held & wanted : wanted;
  return static_cast<std::uint8_t>((held & ~done) | (target & done));
}

/// How many words a write of `size` bytes has. The last one may be short.
constexpr std::size_t WordsIn(std::size_t size) { return (size + WORD_SIZE - 1) / WORD_SIZE; }

/// Where a program operation is cut short: all words before `word` are written, of that one the
/// bits of `done`, a byte each, and nothing behind it.
struct Tear {
  std::size_t word = 0;
  std::array<std::uint8_t, WORD_SIZE> done{};
};

/// Programs `wanted` over `cells`, which are as many.
void Program(MemoryKind kind, Cells cells, View wanted);
/// The same, cut short at `tear`.
void ProgramTorn(MemoryKind kind, Cells cells, View wanted, const Tear& tear);

/// Erases `cells`: a sector.
void Erase(Cells cells);
/// The same, cut short: cells of which `done` says no keep what they hold.
void EraseTorn(Cells cells, const std::function<bool(std::size_t cell)>& done);

/// One chip over cells that somebody else owns: a flash where it has sectors, else an EEPROM.
/// Offsets are bytes from its start. Callers ask Holds first.
class Chip {
 public:
  /// `sector_size` 0 makes an EEPROM.
  Chip(Cells cells, std::uint32_t sector_size) : _cells(cells), _sector_size(sector_size) {}

  MemoryKind Kind() const { return _sector_size == 0 ? MemoryKind::EEPROM : MemoryKind::FLASH; }
  std::uint32_t SectorSize() const { return _sector_size; }
  View Bytes() const { return _cells; }
  bool Holds(std::uint64_t offset, std::uint64_t size) const {
    return offset + size <= _cells.size();
  }

  /// Sets cells without the rules of the chip: initial contents.
  void Load(std::uint32_t offset, View bytes);
  void Program(std::uint32_t offset, View bytes);
  void ProgramTorn(std::uint32_t offset, View bytes, const Tear& tear);
  /// Erases the sector that holds `offset`. Only a flash has sectors.
  void EraseSector(std::uint32_t offset);
  void EraseSectorTorn(std::uint32_t offset, const std::function<bool(std::size_t cell)>& done);

 private:
  Cells Part(std::uint32_t offset, std::size_t size) const { return _cells.subspan(offset, size); }
  Cells Sector(std::uint32_t offset) const {
    return Part(offset - offset % _sector_size, _sector_size);
  }

  Cells _cells;
  std::uint32_t _sector_size;
};

}  // namespace device
