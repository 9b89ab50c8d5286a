/// The memory chips of simulated devices, stricter than the real ones: what a chip cannot do is
/// recorded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "device/Chip.h"

namespace sim {

/// Repeatable randomness; every user prints its seed.
using Rng = std::mt19937;

/// The cells of a chip: plain memory, or a file that holds them through kill -9.
class Cells {
 public:
  explicit Cells(std::uint32_t size);
  /// Cells kept in `path`: what the file holds, or FF where it is new; a new file gets its name
  /// when Settle is called. Throws std::runtime_error when it cannot be used, or has another size.
  Cells(std::uint32_t size, const std::filesystem::path& path);
  Cells(const Cells&) = delete;
  Cells& operator=(const Cells&) = delete;
  ~Cells();

  device::Cells Bytes() { return _bytes; }
  device::View Bytes() const { return _bytes; }
  /// Whether the contents came from an existing file.
  bool Kept() const { return _kept; }
  /// The first contents are complete: from here on they are kept. Throws std::runtime_error.
  void Settle();

 private:
  std::vector<std::uint8_t> _own;
  bool _mapped = false;
  bool _kept = false;
  std::filesystem::path _new;   ///< name of a new file until it is settled
  std::filesystem::path _path;  ///< its name from then on
  device::Cells _bytes;
};

/// A program operation that tried to set bits, which only an erase can.
struct Violation {
  std::uint32_t offset;
  std::uint8_t held;
  std::uint8_t wanted;
};

/// One chip that owns its cells, keeps to a chip's rules (device/Chip.h) and writes down what
/// breaks them. Offsets are bytes from its start; callers ask Holds first.
class Chip {
 public:
  /// `sector_size` 0 makes an EEPROM; a flash is a whole number of sectors.
  Chip(std::unique_ptr<Cells> cells, std::uint32_t sector_size);

  std::uint32_t Size() const { return static_cast<std::uint32_t>(_cells->Bytes().size()); }
  std::uint32_t SectorSize() const { return _chip.SectorSize(); }
  bool IsFlash() const { return _chip.Kind() == device::MemoryKind::FLASH; }
  bool Holds(std::uint64_t offset, std::uint64_t size) const { return _chip.Holds(offset, size); }

  device::View Bytes() const { return _chip.Bytes(); }
  /// Whether the contents were kept from an earlier run.
  bool Kept() const { return _cells->Kept(); }
  void Settle() { _cells->Settle(); }

  /// Sets cells without the rules of the chip: initial contents.
  void Load(std::uint32_t offset, device::View bytes);
  /// An EEPROM takes the bytes; a flash clears bits, and a bit to be set is a violation.
  void Program(std::uint32_t offset, device::View bytes);
  /// Sets the sector that holds `offset` to FF and counts it.
  void EraseSector(std::uint32_t offset);

  /// The same, cut short: some whole words done, one word torn, the rest as it was.
  void ProgramPart(std::uint32_t offset, device::View bytes, Rng& rng);
  /// The same, cut short: a mix of old and erased cells.
  void ErasePart(std::uint32_t offset, Rng& rng);

  const std::vector<Violation>& Violations() const { return _violations; }
  /// Erases by sector.
  const std::vector<std::uint32_t>& EraseCounts() const { return _erase_counts; }

 private:
  /// Writes down which bits of `bytes` only an erase can set.
  void NoteViolations(std::uint32_t offset, device::View bytes);

  std::unique_ptr<Cells> _cells;
  device::Chip _chip;  ///< over them
  std::vector<std::uint32_t> _erase_counts;
  std::vector<Violation> _violations;
};

}  // namespace sim
