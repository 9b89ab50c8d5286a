/// The memory chips of simulated devices, stricter than the real ones: what a chip cannot do is
/// recorded.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <utility>
#include <vector>

#include "src/BraidGeneral.h"

namespace sim {

/// Repeatable randomness; every user prints its seed.
using Rng = std::mt19937;

/// The cells of a chip: plain memory, or a file that holds them through kill -9.
class Cells {
 public:
  explicit Cells(u_int32_t size);
  /// Cells kept in `path`: what the file holds, or FF where it is new; a new file gets its name
  /// when Settle is called. Throws std::runtime_error when it cannot be used, or has another size.
  Cells(u_int32_t size, const std::filesystem::path& path);
  Cells(const Cells&) = delete;
  Cells& operator=(const Cells&) = delete;
  ~Cells();

  std::span<u_int8_t> Bytes() { return _bytes; }
  std::span<const u_int8_t> Bytes() const { return _bytes; }
  /// Whether the contents came from an existing file.
  bool Kept() const { return _kept; }
  /// The first contents are complete: from here on they are kept. Throws std::runtime_error.
  void Settle();

 private:
  std::vector<u_int8_t> _own;
  bool _mapped = false;
  bool _kept = false;
  std::filesystem::path _new;   ///< name of a new file until it is settled
  std::filesystem::path _path;  ///< its name from then on
  std::span<u_int8_t> _bytes;
};

/// A program operation that tried to set bits, which only an erase can.
struct Violation {
  u_int32_t offset;
  u_int8_t held;
  u_int8_t wanted;
};

/// One chip: a NOR flash when it has sectors, else an EEPROM. Offsets are bytes from its start;
/// callers ask Holds first.
class Chip {
 public:
  /// `sector_size` 0 makes an EEPROM; a flash is a whole number of sectors.
  Chip(std::unique_ptr<Cells> cells, u_int32_t sector_size);

  u_int32_t Size() const { return static_cast<u_int32_t>(_cells->Bytes().size()); }
  u_int32_t SectorSize() const { return _sector_size; }
  bool IsFlash() const { return _sector_size != 0; }
  bool Holds(u_int64_t offset, u_int64_t size) const { return offset + size <= Size(); }

  std::span<const u_int8_t> Bytes() const { return std::as_const(*_cells).Bytes(); }
  /// Whether the contents were kept from an earlier run.
  bool Kept() const { return _cells->Kept(); }
  void Settle() { _cells->Settle(); }

  /// Sets cells without the rules of the chip: initial contents.
  void Load(u_int32_t offset, std::span<const u_int8_t> bytes);
  /// An EEPROM takes the bytes; a flash clears bits, and a bit to be set is a violation.
  void Program(u_int32_t offset, std::span<const u_int8_t> bytes);
  /// Sets the sector that holds `offset` to FF and counts it.
  void EraseSector(u_int32_t offset);

  /// The same, cut short: some whole words done, one word torn, the rest as it was.
  void ProgramPart(u_int32_t offset, std::span<const u_int8_t> bytes, Rng& rng);
  /// The same, cut short: a mix of old and erased cells.
  void ErasePart(u_int32_t offset, Rng& rng);

  const std::vector<Violation>& Violations() const { return _violations; }
  /// Erases by sector.
  const std::vector<u_int32_t>& EraseCounts() const { return _erase_counts; }

 private:
  std::span<u_int8_t> Sector(u_int32_t offset);

  std::unique_ptr<Cells> _cells;
  u_int32_t _sector_size;
  std::vector<u_int32_t> _erase_counts;
  std::vector<Violation> _violations;
};

}  // namespace sim
