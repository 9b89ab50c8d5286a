/// An I2C EEPROM in virtual time.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "device/Bytes.h"
#include "hardware/I2cBus.h"

namespace hardware {

struct EepromSettings {
  std::uint16_t address = 0x50;    ///< of the first bank
  std::uint32_t size = 8192;       ///< bytes
  std::uint32_t page = 32;         ///< bytes
  std::uint32_t offset_bits = 16;  ///< 8 or 16; further bits go into the address
  std::uint32_t bank_bit = 0;      ///< of the address, for the first of these bits
  Time write_time = std::chrono::milliseconds(5);
  bool rolls_over_banks = true;  ///< a read goes on in the next bank; else at the start of its own
};

/// A write begins at the stop and wraps within its page; a transfer that goes on with a repeated
/// start loses it. While the write lasts the chip acknowledges nothing. Erased when new.
class VirtualEeprom : public I2cDevice {
 public:
  /// Attaches itself to `adapter`, which must not be used once the chip is gone.
  VirtualEeprom(I2cAdapter& adapter, EepromSettings settings);
  ~VirtualEeprom() override = default;

  device::View Content() const { return _cells; }
  void Load(std::uint32_t offset, device::View bytes);
  std::uint64_t PageWrites() const { return _page_writes; }

  // --- What is wrong with it.

  /// The pin: writes are acknowledged and forgotten, and no write cycle begins.
  void SetWriteProtected(bool is_protected) { _is_protected = is_protected; }
  void SetAbsent(bool is_absent) { _is_absent = is_absent; }
  /// The `n`th page write from now, from 1, changes nothing; the chip is busy as if it did.
  void DropPageWrite(std::uint64_t n) { _dropped = _page_writes + n; }
  /// One bit of the first byte of the `n`th page write from now becomes another.
  void FlipBitOfPageWrite(std::uint64_t n, std::uint32_t bit) {
    _flipped = _page_writes + n;
    _flipped_bit = bit;
  }
  /// From now on the cell holds `byte`, whatever is written.
  void StickCell(std::uint32_t offset, std::uint8_t byte) { _stuck = {offset, byte}; }
  /// One bit of the content, at once.
  void FlipBit(std::uint32_t offset, std::uint32_t bit);

  bool Start(std::uint16_t address, bool is_read) override;
  void Write(std::uint8_t byte) override;
  std::uint8_t Read() override;
  bool Stop() override;
  void PowerUp() override;

 private:
  std::uint32_t BankSize() const { return 1u << _settings.offset_bits; }
  std::optional<std::uint32_t> BankAt(std::uint16_t address) const;
  void Program();

  VirtualClock& _clock;
  Power& _power;
  EepromSettings _settings;
  device::Bytes _cells;
  std::uint32_t _offset = 0;        ///< of the next byte
  bool _is_written = false;         ///< addressed to be written
  std::uint32_t _offset_bytes = 0;  ///< that have arrived
  device::Bytes _latch;             ///< what the stop will write
  Time _busy_until{};
  bool _is_protected = false;
  bool _is_absent = false;
  std::uint64_t _page_writes = 0;
  std::uint64_t _dropped = 0;  ///< by the count of page writes; 0: none
  std::uint64_t _flipped = 0;  ///< likewise
  std::uint32_t _flipped_bit = 0;
  std::optional<std::pair<std::uint32_t, std::uint8_t>> _stuck;  ///< offset, and what is there
};

}  // namespace hardware
