/// The devices of a configuration, their memories, and the wires that these are on.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/DeviceFacts.h"
#include "serve/Configuration.h"
#include "serve/Eeprom.h"
#include "serve/FlatMemory.h"
#include "serve/Loop.h"
#include "serve/Memory.h"

namespace serve {

struct Lease;

/// One chip of a device.
struct ServedChip {
  std::shared_ptr<Memory> memory;
  WireId wire = 0;
  std::uint32_t sector_size = 0;  ///< bytes; 0: an EEPROM
};

/// Bytes, or bus addresses, that a chip takes of what the machine has. No two devices may have the
/// same ones.
struct Claim {
  std::string key;  ///< of the flash, the file or the channel of a bus
  std::uint64_t first = 0;
  std::uint64_t end = 0;

  bool Overlaps(const Claim& other) const {
    return key == other.key && first < other.end && other.first < end;
  }
};

struct ServedDevice {
  DeviceConfig config;
  protocol::ChipFactsByAddress facts;  ///< the size of a flash is 0 until it is known
  std::map<std::uint8_t, ServedChip> chips;
  std::vector<Claim> claims;
  std::uint64_t configuration = 0;  ///< which one it is of, counted from 1
  WireId hook_wire = 0;             ///< of the programs that prepare and release it
  std::unique_ptr<Lease> lease;     ///< null where nobody holds it

  ServedDevice();
  ~ServedDevice();
};
using ServedDevicePointer = std::shared_ptr<ServedDevice>;

/// Wires keep their numbers, and what is known of them, from one configuration to the next.
class ServedDevices {
 public:
  struct Options {
    bool is_dry_run = false;  ///< writes stay in the server's memory
    bool reads_back = true;   ///< false: only for measuring what it costs
  };

  ServedDevices(System& system, Options options) : _system(system), _options(options) {}

  /// Takes what keeps a device from being served; may be empty.
  std::function<void(const std::string&)> log;

  /// Serves what `configuration` has from now on, but for devices that are held: they stay as they
  /// are until Settle is called for them. What claims memory of another device is not served before
  /// that is gone.
  void Set(const Configuration& configuration);
  /// The device is free: it gets what the last configuration says.
  void Settle(const ServedDevicePointer& device);

  /// By node or port GUID; null where there is none.
  ServedDevicePointer Find(protocol::Guid guid) const;
  /// By node GUID, ascending.
  const std::map<protocol::Guid, ServedDevicePointer>& All() const { return _devices; }
  /// Looks for the size of an MTD device that the configuration does not give. Throws
  /// protocol::Refusal where it is not there.
  void LearnSize(ServedDevice& device) const;
  /// The number of the wire that `key` names: always the same.
  WireId WireOf(const std::string& key);

 private:
  void Make(const DeviceConfig& config, ServedDevice& device);
  ServedChip MakeEeprom(const EepromConfig& config);
  std::shared_ptr<Memory> Wrap(std::shared_ptr<Memory> memory, bool only_clears_bits) const;
  void AddMissing();
  /// The device that has a part of its memory; null where none has.
  ServedDevicePointer ClaimantOf(const ServedDevice& device) const;
  Claim ClaimOf(const FlashConfig& flash) const;
  Claim ClaimOf(const EepromConfig& eeprom) const;
  NodeLock& LockOf(const std::string& key);
  void Index();

  System& _system;
  Options _options;
  std::filesystem::path _state;  ///< folder of lock files
  std::map<protocol::Guid, ServedDevicePointer> _devices;
  std::map<protocol::Guid, protocol::Guid> _node_of;
  std::map<protocol::Guid, DeviceConfig> _next;  ///< of the last configuration
  std::uint64_t _configurations = 0;
  std::map<std::string, WireId> _wires;
  std::map<std::string, std::unique_ptr<I2cWire>> _i2c_wires;
  std::map<std::string, std::unique_ptr<NodeLock>> _locks;
  std::map<std::string, std::size_t> _channels;
};

}  // namespace serve
