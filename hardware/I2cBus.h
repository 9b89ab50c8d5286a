/// An I2C bus with muxes, in virtual time, bit by bit.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hardware/Node.h"
#include "hardware/VirtualSystem.h"

namespace hardware {

/// A chip on a bus. The methods follow a transfer as the chip sees it.
class I2cDevice {
 public:
  I2cDevice() = default;
  I2cDevice(const I2cDevice&) = delete;
  I2cDevice& operator=(const I2cDevice&) = delete;
  virtual ~I2cDevice() = default;

  /// A start, or a repeated one, and an address: perhaps another's. Whether the chip acknowledges.
  virtual bool Start(std::uint16_t address, bool is_read) = 0;
  /// A byte for the chip, which acknowledges it.
  virtual void Write(std::uint8_t byte) = 0;
  virtual std::uint8_t Read() = 0;
  /// Returns whether a write cycle begins.
  virtual bool Stop() = 0;
  virtual void PowerUp() = 0;
};

class I2cBus;
class I2cMux;

/// An adapter of the kernel, a node /dev/i2c-N: that of a bus, or a channel of a mux. Its bus owns
/// it.
class I2cAdapter : public Node {
 public:
  I2cAdapter(I2cBus& bus, I2cMux* mux, std::uint32_t channel, std::uint32_t number);
  ~I2cAdapter() override;

  std::uint32_t Number() const { return _number; }
  std::string Path() const { return "/dev/i2c-" + std::to_string(_number); }
  I2cBus& Bus() { return _bus; }

  /// Borrows the chip: it must live as long as transfers are made.
  void Attach(I2cDevice& device) { _devices.push_back(&device); }
  void Detach(I2cDevice& device) { std::erase(_devices, &device); }
  /// What a mux does when its transfer is over: idle_state of the kernel.
  enum class Idle { AS_IS, DISCONNECT };
  /// A pca9548 and the adapters of its 8 channels, which have the numbers from `first_number`.
  I2cMux& AddMux(std::uint16_t address, std::uint32_t first_number, Idle idle = Idle::AS_IS);
  /// Gives the address to a driver.
  void Bind(std::uint16_t address, const std::string& driver = "at24");

  int HasPlainI2c() override;
  int CheckI2cAddress(std::uint16_t address) override;
  /// Returns the number of messages.
  int TransferI2c(std::span<const serve::I2cMessage> messages) override;
  void PowerUp() override;

 private:
  friend class I2cBus;
  friend class I2cMux;

  bool IsBoundBelow(std::uint16_t address) const;
  void AddReachable(std::vector<I2cDevice*>& devices) const;
  int Transfer(std::span<const serve::I2cMessage> messages);
  void Register(const std::string& name);
  std::string Folder() const;

  I2cBus& _bus;
  I2cMux* _mux;  ///< whose channel it is; null: the bus itself
  std::uint32_t _channel;
  std::uint32_t _number;
  std::vector<I2cDevice*> _devices;
  std::vector<std::unique_ptr<I2cMux>> _muxes;
  std::map<std::uint16_t, std::string> _bound;
};

/// A mux of 8 channels. The kernel writes its register where another channel is wanted than the
/// last time, and after each transfer where it disconnects. A channel that stays selected is one
/// wire with the parent: an address that stands on both answers twice.
class I2cMux : public I2cDevice {
 public:
  static constexpr std::uint32_t CHANNELS = 8;

  I2cMux(I2cAdapter& parent, std::uint16_t address, std::uint32_t first_number,
         I2cAdapter::Idle idle);
  ~I2cMux() override;

  I2cAdapter& Channel(std::uint32_t channel) { return *_channels.at(channel); }

  bool Start(std::uint16_t address, bool is_read) override;
  void Write(std::uint8_t byte) override { _written = byte; }
  std::uint8_t Read() override { return _register; }
  bool Stop() override;
  void PowerUp() override;

 private:
  friend class I2cAdapter;

  bool IsOpen(std::uint32_t channel) const { return (_register >> channel & 1) != 0; }
  int Select(std::uint32_t channel);
  void Leave();
  int WriteRegister(std::uint8_t value);

  I2cAdapter& _parent;
  std::uint16_t _address;
  I2cAdapter::Idle _idle;
  std::vector<std::unique_ptr<I2cAdapter>> _channels;
  std::uint8_t _register = 0;                 ///< a bit for each channel
  std::optional<std::uint8_t> _written;       ///< the register from the next stop on
  std::optional<std::uint8_t> _last_written;  ///< as the kernel remembers it
};

/// What an adapter can do, and how it says what went wrong.
struct BusSettings {
  std::string name = "1e78a300.i2c-bus";
  std::uint32_t number = 0;  ///< of its node
  std::uint32_t khz = 400;
  int nak_error = ENXIO;  ///< EREMOTEIO, EIO on other adapters
  bool has_plain_i2c = true;
  bool takes_empty_messages = true;
  std::uint32_t max_write = 8192;                ///< bytes of a message
  std::uint32_t max_read = 8192;                 ///< bytes of a message
  Time stuck_timeout = std::chrono::seconds(1);  ///< of a transfer on a stuck bus
};

/// A root adapter and its wire. A byte takes 9 bits; each start and the stop take one. The sysfs
/// entries of adapters and muxes are as those of Linux 6.1.
class I2cBus {
 public:
  /// Borrows `system`, which must not make transfers once the bus is gone.
  I2cBus(VirtualSystem& system, BusSettings settings);
  I2cBus(const I2cBus&) = delete;
  I2cBus& operator=(const I2cBus&) = delete;
  ~I2cBus();

  I2cAdapter& Root() { return *_root; }
  VirtualSystem& System() { return _system; }

  /// The next `n` transfers lose arbitration: -EAGAIN.
  void LoseArbitration(std::uint32_t n) { _losses = n; }
  /// From `when` on a chip holds the wire: transfers fail with -ETIMEDOUT, until ReleaseWire.
  void HoldWireFrom(Time when) { _held_from = when; }
  void ReleaseWire() { _held_from.reset(); }

  /// Of the wire: all transfers, even those that nobody acknowledged.
  Time BusyTime() const { return _busy; }
  /// Part of it: transfers that nobody acknowledged, such as questions to a chip that is busy.
  Time NakTime() const { return _nak_time; }
  /// Part of it: transfers after which a write cycle began.
  Time PageWriteTime() const { return _page_writes_time; }
  std::uint64_t PageWrites() const { return _page_writes; }
  std::uint64_t Transfers() const { return _transfers; }
  std::uint64_t Naks() const { return _naks; }
  std::uint64_t MuxWrites() const { return _mux_writes; }
  void ResetCounts();

 private:
  friend class I2cAdapter;
  friend class I2cMux;

  int TransferOnWire(std::span<const serve::I2cMessage> messages);
  Time BitTime(std::uint64_t bits) const;

  VirtualSystem& _system;
  BusSettings _settings;
  std::unique_ptr<I2cAdapter> _root;
  std::uint32_t _losses = 0;
  std::optional<Time> _held_from;
  Time _busy{};
  Time _nak_time{};
  Time _page_writes_time{};
  std::uint64_t _page_writes = 0;
  std::uint64_t _transfers = 0;
  std::uint64_t _naks = 0;
  std::uint64_t _mux_writes = 0;
};

}  // namespace hardware
