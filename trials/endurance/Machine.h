/// The machine of an endurance run: its wires, its devices, and what must be in each of them.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "device/Identity.h"
#include "device/Image.h"
#include "device/Memory.h"
#include "hardware/ServedMachine.h"
#include "trials/endurance/Firmware.h"

namespace endurance {

using hardware::Time;

/// What is wrong with a memory or a wire.
enum class Fault {
  DROPPED_PAGE,
  FLIPPED_BIT,
  PROTECTED_CHIP,
  ABSENT_CHIP,
  STUCK_BUS,
  LOST_ARBITRATION,
  FAILED_TRANSFER,
  FAILED_PROGRAM,
  DROPPED_PROGRAM,
  FAILED_ERASE,
  SPOILT_ERASE,
  PROTECTED_SECTORS,
  FAILED_CALL,
};
const char* NameOf(Fault fault);

struct Target;

/// Exactly one of `bus` and `flash`, or none: files.
struct Wire {
  std::string name;
  hardware::I2cBus* bus = nullptr;
  hardware::VirtualFlash* flash = nullptr;
  std::vector<Target*> targets;
  std::set<Fault> lasting;  ///< as long as they are injected

  /// Whether its calls take virtual time.
  bool TakesTime() const { return bus != nullptr || flash != nullptr; }
  /// How long it was used: a bus by transfers that a chip acknowledged, a flash by reads, programs
  /// and erases.
  Time Busy() const;
};

enum class Service { FULL, READ_ONLY, NONE };

/// A device, and what is known of it without asking the server.
struct Target {
  device::Identity identity;
  Shape shape;
  Wire* wire = nullptr;
  hardware::VirtualEeprom* eeprom = nullptr;  ///< exactly one of these; else a file
  hardware::VirtualFlash* flash = nullptr;
  std::string path;  ///< of the node through which it is reached

  device::Bytes expected;  ///< its content, where nobody burns it
  /// That a slot of it may hold wholly.
  std::vector<std::shared_ptr<const device::Image>> images;
  bool boots = true;                ///< and may be burnt failsafe
  Service service = Service::FULL;  ///< by the last configuration

  bool is_chosen = false;     ///< by a client that burns it, or is about to
  bool has_written = false;   ///< that client holds it
  std::string holder;         ///< its peer
  std::set<Fault> faults;     ///< since it was chosen
  std::set<Fault> lasting;    ///< as long as they are injected; those of the wire left out
  std::uint64_t changes = 0;  ///< grows where its content or its faults may be others

  protocol::Guid Guid() const { return identity.node; }
  std::uint32_t Chip() const { return shape.IsFlash() ? 0 : 0x50; }
};

class Machine : public hardware::ServedMachine {
 public:
  explicit Machine(std::uint64_t seed);

  const std::vector<std::unique_ptr<Wire>>& Wires() const { return _wires; }
  const std::vector<std::unique_ptr<Target>>& Targets() const { return _targets; }
  device::Bytes ContentOf(const Target& target) const;
  bool Holds(const Target& target, device::View bytes) const;
  /// The configuration with each target's service as it is now.
  serve::Configuration Served() const;
  /// Of leases that have begun and not ended.
  std::size_t LeaseFiles();
  bool HasLeaseFile(const Target& target) const;
  /// How often devices were prepared, and were not released yet.
  std::int64_t Unreleased() const { return _prepared - _released; }
  std::int64_t Prepared() const { return _prepared; }
  /// Cancels what is to go wrong with its memory.
  void Disarm(Target& target);

 private:
  Wire& AddWire(const std::string& name);
  Wire& AddBus(const std::string& name, std::uint32_t khz);
  void AddChip(Wire& wire, hardware::I2cAdapter& adapter,
               std::vector<std::pair<std::uint16_t, std::uint32_t>> muxes, std::uint32_t most,
               const hardware::EepromSettings& settings);
  void AddNor(const hardware::FlashSettings& settings, const Shape& shape);
  void AddFiles();
  Target& AddTarget(Wire& wire, const Shape& shape);
  void AddHooks(serve::DeviceConfig& device);
  /// As the factory has left it.
  device::Bytes FirstContent(Target& target);

  Random _random;
  std::vector<std::unique_ptr<Wire>> _wires;
  std::vector<std::unique_ptr<Target>> _targets;
  protocol::Guid _next_guid = 0x00AA550000001000;
  std::int64_t _prepared = 0;
  std::int64_t _released = 0;
};

}  // namespace endurance
