/// An EEPROM on an I2C bus.
#pragma once

#include <string>

#include "serve/Configuration.h"
#include "serve/Memory.h"

namespace serve {

/// What the EEPROMs behind one root adapter share. They have one worker.
struct I2cWire {
  std::string lock_file;         ///< that is locked while one of them is open for writing
  int lock = -1;                 ///< its descriptor
  std::uint32_t lock_users = 0;  ///< EEPROMs that are open for writing
  /// Bytes of one transfer, without the offset, as transfers have shown.
  std::uint32_t max_write = MOST_BYTES;
  std::uint32_t max_read = MOST_BYTES;

  static constexpr std::uint32_t MOST_BYTES = 8192;  ///< of a message, for the kernel
};

class Eeprom : public Memory {
 public:
  /// `wire` is borrowed. `channel`: a number for each adapter behind one root. Without
  /// `reads_back` what was written is not compared: only for measuring what that costs.
  Eeprom(const I2cConfig& config, std::uint32_t size, std::size_t channel, I2cWire& wire,
         bool reads_back = true);

  /// Takes the lock of the wire where it is opened for writing.
  std::string Open(System& system, Access access) override;
  bool IsOpen(Access access) const override;
  void Close(System& system) override;
  std::unique_ptr<JobSteps> Begin(Job& job) override;
  std::size_t Channel() const override { return _channel; }

 private:
  std::string TryOpen(System& system, Access access);
  std::string TakeLock(System& system);
  std::uint16_t AddressOf(std::uint32_t offset) const;

  friend class EepromSteps;

  I2cConfig _config;
  std::uint32_t _size;
  std::size_t _channel;
  I2cWire& _wire;
  bool _reads_back;
  int _descriptor = -1;
  Access _access = Access::READ;
  /// After a write the chip was still busy for so long, the last time that it was asked.
  Time _write_time{0};
  /// Of the write that the chip may be busy with: nothing has been heard of the chip since.
  std::optional<Time> _cycle_began;
};

}  // namespace serve
