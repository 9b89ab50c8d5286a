/// A fabric's devices as memories of a machine in virtual time, which fwpush-serve's gateway
/// serves.
#pragma once

#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hardware/ServedMachine.h"
#include "trials/Responder.h"

namespace trials {

/// What can be wrong with a served memory.
enum class MemoryFault {
  // EEPROMs.
  NOT_THERE,         ///< acknowledges nothing
  STUCK_BUS,         ///< a chip holds the wire: all devices of the bus fail
  ARBITRATION_LOST,  ///< some times, to another master: no device fails
  WRITE_PROTECTED,   ///< the pin
  PAGE_DROPPED,      ///< a page write changes nothing
  WRONG_BIT,         ///< a page write leaves a wrong bit
  // Flashes.
  READ_FAILS,       ///< EIO
  PROGRAM_FAILS,    ///< EIO, after half of a page
  PROGRAM_DROPPED,  ///< the chip ignores a program
  PROTECTED,        ///< it ignores all programs and erases
  ERASE_FAILS,      ///< EIO
  ERASE_SPOILT,     ///< half of the sector keeps what it had
  // All.
  POWER_LOST,  ///< of the machine, inside a change: the server is gone, too
};

struct MemoryFaultRow {
  MemoryFault fault;
  std::string_view name;  ///< as tables have it
  bool is_of_flash;
  bool is_of_eeprom;
  /// The requests at which it can be injected.
  bool at_read;
  bool at_write;
  bool at_erase;
};
std::span<const MemoryFaultRow> AllMemoryFaults();

/// The machine is built from a fabric, and lives as long as this. After each run the fabric gets
/// what the memories hold, and its observer is told of each change before that is made. Beside
/// injected faults it checks each answer: a write or an erase that is acknowledged is in the
/// memory, and no device fails without a fault. EEPROMs are behind a mux, eight devices to a bus.
class ServedFabric : public Responder {
 public:
  /// Borrows the fabric, whose devices stay the same ones.
  explicit ServedFabric(sim::Fabric& fabric);

  /// Why the gateway cannot stand for the fabric: empty where it can.
  static std::string WhyNotServed(const sim::Fabric& fabric);

  void Connected() override;
  void Disconnected() override;
  std::optional<std::string> Answer(const std::string& request) override;
  void FailNext(std::optional<Guid> device, const std::string& request) override;
  std::string Wrong() const override { return _wrong; }

  /// The faults that the device can have at the request; none where that needs no memory.
  static std::vector<MemoryFault> FaultsAt(const sim::Device& device, const std::string& request);
  /// From now on the device has the fault, until the run ends. `nth`, from 1: which change.
  void Inject(MemoryFault fault, Guid device, const std::string& request, std::uint32_t nth,
              std::uint64_t seed);
  bool HasPower() { return _machine.system.GetPower().IsOn(); }

 private:
  struct ModelChip {
    sim::Device* device;
    std::uint8_t address;
    hardware::VirtualEeprom* eeprom;  ///< one of these
    hardware::VirtualFlash* flash;
    hardware::I2cBus* bus;  ///< of an EEPROM
    std::string node;       ///< of a flash
    device::View Content() const { return eeprom ? eeprom->Content() : flash->Content(); }
  };

  void AddFlash(sim::Device& device, std::uint32_t number);
  void AddEeproms(sim::Device& device, std::uint32_t number);
  ModelChip* Find(Guid device, std::uint8_t address);
  void Tell(const hardware::Power::Request& request);
  void CheckAnswer(const std::string& request, const std::string& answer);
  void Repair();
  void Fail(const std::string& text) {
    if (_wrong.empty()) _wrong = text;
  }

  sim::Fabric& _fabric;
  hardware::ServedMachine _machine;
  std::vector<ModelChip> _chips;
  std::vector<hardware::I2cMux*> _muxes;  ///< one for each bus
  std::vector<hardware::I2cBus*> _buses;
  protocol::ClientId _client = 10;   ///< of this run
  std::set<Guid> _faulty;            ///< nodes that may fail in this run
  std::set<Guid> _must_fail;         ///< nodes that must fail at the next request
  bool _repairs_after_next = false;  ///< the fault is over with the next request
  std::string _wrong;
};

}  // namespace trials
