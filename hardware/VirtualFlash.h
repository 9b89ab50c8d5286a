/// A flash and its MTD devices, in virtual time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device/Bytes.h"
#include "hardware/VirtualSystem.h"

namespace hardware {

struct FlashSettings {
  enum class Kind {
    NOR,
    NAND,  ///< pages of 2048 bytes, each written as a whole
    RAM,   ///< overwritten, without an erase
  };
  /// What an erase does that begins inside a block.
  enum class UnalignedErase {
    WIPES_BLOCK,       ///< the chip drops the low bits of the address
    WIPES_FROM_START,  ///< as emulated chips do: bytes of the next block, too
    REFUSED,           ///< -EINVAL
  };

  std::string name = "pnor";  ///< of the MTD device of the whole chip
  std::uint32_t number = 0;   ///< of its node
  /// The device that it is on, below /sys/devices/platform/ahb/.
  std::string device = "1e630000.spi/spi_master/spi1/spi1.0";
  std::string jedec = "c2253a";  ///< empty: the driver tells none
  Kind kind = Kind::NOR;
  std::uint32_t size = 0x100000;      ///< bytes; whole blocks
  std::uint32_t erase_size = 0x1000;  ///< bytes
  std::uint32_t page = 256;           ///< bytes of one program
  std::uint32_t erase_regions = 0;    ///< as MTD tells of them; the chip has blocks of one size
  // What MTD may tell of a NOR flash, too; the chip behaves as any other.
  std::uint32_t write_unit = 1;  ///< bytes; more where the chip keeps check bytes for each unit
  bool is_bit_writable = true;
  bool has_no_erase = false;
  bool is_writable = true;
  bool is_present = true;                              ///< else SetPresent makes the nodes appear
  Time program_time = std::chrono::microseconds(400);  ///< of a page
  Time erase_time = std::chrono::milliseconds(45);     ///< of a block
  Time byte_time = std::chrono::nanoseconds(160);      ///< of a byte on the wire: 50 MHz
  UnalignedErase unaligned_erase = UnalignedErase::WIPES_BLOCK;
};

/// A chip, with an MTD device for the whole of it and one for each partition: /dev/mtdN,
/// /dev/mtdNro and the sysfs entries of Linux 6.1. A program only clears bits; calls return when
/// the chip is ready. A read and a program take the time of their bytes; commands and addresses
/// take none. Erased when new.
class VirtualFlash {
 public:
  /// Borrows `system`, which must not use the flash once it is gone.
  VirtualFlash(VirtualSystem& system, FlashSettings settings);
  VirtualFlash(const VirtualFlash&) = delete;
  VirtualFlash& operator=(const VirtualFlash&) = delete;

  void AddPartition(std::uint32_t number, const std::string& name, std::uint32_t offset,
                    std::uint32_t size, bool is_writable = true);
  /// A driver is bound to the chip, or not.
  void SetPresent(bool is_present);

  device::View Content() const { return _cells; }
  void Load(std::uint32_t offset, device::View bytes);

  /// Commands that the chip was given, ignored ones, too.
  std::uint64_t Erases() const { return _erases; }
  std::uint64_t Programs() const { return _programs; }
  std::uint64_t BytesRead() const { return _bytes_read; }
  /// What reads, programs and erases have taken.
  Time BusyTime() const { return _busy; }
  void ResetCounts() {
    _erases = _programs = _bytes_read = 0;
    _busy = Time{};
  }

  // --- What is wrong with it. The `n`th is counted from now, from 1.

  /// The chip ignores programs and erases that touch these bytes, and nobody is told.
  void Protect(std::uint32_t offset, std::uint32_t size) { _protected = {offset, size}; }
  void Unprotect() { _protected = {}; }
  /// The `n`th program of a page stops after half of its bytes, with -EIO.
  void FailProgram(std::uint64_t n) { _failed_program = _all_programs + n; }
  /// The chip ignores the `n`th program.
  void DropProgram(std::uint64_t n) { _dropped_program = _all_programs + n; }
  /// The `n`th erase of a block fails with -EIO; the block stays.
  void FailErase(std::uint64_t n) { _failed_erase = _all_erases + n; }
  /// The `n`th erase of a block leaves the second half of it as it was.
  void SpoilErase(std::uint64_t n) { _spoilt_erase = _all_erases + n; }
  /// One bit of the content, at once.
  void FlipBit(std::uint32_t offset, std::uint32_t bit);

 private:
  friend class MtdNode;
  struct Part {
    std::uint32_t number = 0;
    std::string name;
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
    bool is_writable = true;
  };
  struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
  };

  void Register(const Part& part);
  std::string DeviceFolder() const { return "/sys/devices/platform/ahb/" + _settings.device; }
  std::string MtdFolder(const Part& part) const;
  std::uint32_t WriteSize() const;
  bool IsProtected(std::uint64_t offset, std::uint64_t size) const;

  // Offsets and sizes are those of the chip, which holds them.
  void Read(std::uint64_t offset, std::span<std::uint8_t> bytes);
  /// 0, or -EIO.
  int Program(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  int ProgramPage(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  int EraseBlock(std::uint64_t offset);
  void BeBusy(Time time);

  VirtualSystem& _system;
  FlashSettings _settings;
  device::Bytes _cells;
  std::vector<Part> _parts;  ///< the whole chip first
  bool _is_present;
  ByteRange _protected;
  std::uint64_t _erases = 0;
  std::uint64_t _programs = 0;
  std::uint64_t _bytes_read = 0;
  Time _busy{};
  std::uint64_t _all_erases = 0;  ///< ResetCounts leaves these
  std::uint64_t _all_programs = 0;
  std::uint64_t _failed_program = 0;  ///< by the count of all; 0: none; likewise below
  std::uint64_t _dropped_program = 0;
  std::uint64_t _failed_erase = 0;
  std::uint64_t _spoilt_erase = 0;
};

}  // namespace hardware
