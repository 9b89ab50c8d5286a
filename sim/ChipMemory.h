/// The memory chips of simulated devices. Where a real chip silently fails to set a bit, these
/// record a violation.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "device/Chip.h"

namespace sim {

/// Pseudo-random numbers: the same seed gives the same run. Every user prints its seed.
using Rng = std::mt19937;

/// The cells of a chip: plain memory, or a mapped file that survives kill -9.
class Cells {
 public:
  explicit Cells(std::uint32_t size);
  /// Cells in the file `path`: its contents, or FF where it does not exist. A new file is named
  /// `path` only when Settle is called. Throws std::runtime_error when the file cannot be used or
  /// has another size.
  Cells(std::uint32_t size, const std::filesystem::path& path);
  Cells(const Cells&) = delete;
  Cells& operator=(const Cells&) = delete;
  ~Cells();

  device::Cells Bytes() { return _bytes; }
  device::View Bytes() const { return _bytes; }
  /// Whether the contents came from an existing file.
  bool Kept() const { return _kept; }
  /// The initial contents are complete: gives a new file its name. Throws std::runtime_error.
  void Settle();

 private:
  std::vector<std::uint8_t> _own;
  bool _mapped = false;
  bool _kept = false;
  std::filesystem::path _new;   ///< name of a new file until it is settled
  std::filesystem::path _path;  ///< its final name
  device::Cells _bytes;
};

/// A program operation that tried to set bits, which only an erase can.
struct Violation {
  std::uint32_t offset;
  std::uint8_t held;
  std::uint8_t wanted;
};

/// One chip. Owns its cells, applies the rules of device/Chip.h and records violations. Offsets are
/// in bytes from the start of the chip; callers check Holds first.
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

  /// Sets cells directly, without the rules of the chip: for initial contents.
  void Load(std::uint32_t offset, device::View bytes);
  /// An EEPROM takes the bytes. A flash only clears bits; a bit to be set is a violation.
  void Program(std::uint32_t offset, device::View bytes);
  /// Sets the sector that holds `offset` to FF and counts it.
  void EraseSector(std::uint32_t offset);

  /// Program, interrupted: some whole words are done, one word is torn, the rest is unchanged.
  void ProgramPart(std::uint32_t offset, device::View bytes, Rng& rng);
  /// EraseSector, interrupted: each cell is either old or erased.
  void ErasePart(std::uint32_t offset, Rng& rng);

  const std::vector<Violation>& Violations() const { return _violations; }
  /// Number of erases of each sector.
  const std::vector<std::uint32_t>& EraseCounts() const { return _erase_counts; }

 private:
  /// Records the bytes that would have to set bits, which only an erase can do.
  void NoteViolations(std::uint32_t offset, device::View bytes);

  std::unique_ptr<Cells> _cells;
  device::Chip _chip;  ///< over them
  std::vector<std::uint32_t> _erase_counts;
  std::vector<Violation> _violations;
};

}  // namespace sim
