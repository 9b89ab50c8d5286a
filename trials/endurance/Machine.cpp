#include "trials/endurance/Machine.h"

#include <algorithm>

#include "common/Text.h"
#include "device/Burn.h"
#include "device/ImageFile.h"

namespace endurance {

using namespace std::chrono_literals;
using common::HexGuid;
using common::Text;

const char* NameOf(Fault fault) {
  switch (fault) {
    case Fault::DROPPED_PAGE:
      return "an EEPROM drops a page";
    case Fault::FLIPPED_BIT:
      return "an EEPROM flips a bit";
    case Fault::PROTECTED_CHIP:
      return "an EEPROM is write-protected for a while";
    case Fault::ABSENT_CHIP:
      return "an EEPROM does not answer for a while";
    case Fault::STUCK_BUS:
      return "an I2C bus is stuck for a while";
    case Fault::LOST_ARBITRATION:
      return "another master wins an I2C bus";
    case Fault::FAILED_TRANSFER:
      return "transfers of an I2C adapter fail";
    case Fault::FAILED_PROGRAM:
      return "a flash fails a program";
    case Fault::DROPPED_PROGRAM:
      return "a flash drops a program";
    case Fault::FAILED_ERASE:
      return "a flash fails an erase";
    case Fault::SPOILT_ERASE:
      return "a flash erases half of a block";
    case Fault::PROTECTED_SECTORS:
      return "a flash is write-protected for a while";
    case Fault::FAILED_CALL:
      return "system calls of a flash or file fail";
  }
  return "";
}

Time Wire::Busy() const {
  if (bus != nullptr) return bus->BusyTime() - bus->NakTime();
  return flash != nullptr ? flash->BusyTime() : Time{};
}

Machine::Machine(std::uint64_t seed) : _random(seed) {
  configuration.multi_max = 16;
  for (const auto& [path, count] :
       {std::pair("/usr/lib/prepare", &_prepared), std::pair("/usr/lib/release", &_released)}) {
    system.AddProgram(path, [count = count](const auto&) {
      ++*count;
      return hardware::ProgramResult{0, 30ms};
    });
  }

  // Long burns of large chips cost this program less than many short ones.
  Wire& large = AddBus("I2C 100 kHz", 100);
  for (std::uint16_t i = 0; i < 4; ++i) {
    AddChip(large, large.bus->Root(), {}, 0x7000,
            {.address = static_cast<std::uint16_t>(0x50 + i), .size = 0x10000, .page = 128});
  }

  // Chips of 8 banks have all of a channel's addresses.
  Wire& banks = AddBus("I2C 100 kHz, mux", 100);
  hardware::I2cMux& mux = banks.bus->Root().AddMux(0x70, 100);
  for (std::uint32_t i = 0; i < hardware::I2cMux::CHANNELS; ++i) {
    AddChip(banks, mux.Channel(i), {{0x70, i}}, 0x400,
            {.size = 0x800, .page = 16, .offset_bits = 8});
  }

  Wire& slow = AddBus("I2C 100 kHz, mux that disconnects", 100);
  hardware::I2cMux& disconnecting =
      slow.bus->Root().AddMux(0x71, 200, hardware::I2cAdapter::Idle::DISCONNECT);
  for (std::uint32_t i = 0; i < 4; ++i) {
    AddChip(slow, disconnecting.Channel(i), {{0x71, i}}, 0x3000,
            {.address = 0x50, .size = 0x8000, .page = 64, .write_time = 3ms});
  }
  AddChip(slow, slow.bus->Root(), {}, 0xF00,
          {.address = 0x54, .size = 0x2000, .page = 32, .write_time = 10ms});

  AddNor({.name = "small",
          .size = 0x10000,
          .erase_size = 0x1000,
          .program_time = 3ms,
          .erase_time = 300ms},
         {0x10000, 0x1000, 0x5000});
  AddNor({.name = "large",
          .size = 0x70000,
          .erase_size = 0x10000,
          .program_time = 3ms,
          .erase_time = 1500ms},
         {0x70000, 0x10000, 0x18000});
  AddNor({.name = "mixed",
          .size = 0x1C000,
          .erase_size = 0x1000,
          .program_time = 3ms,
          .erase_time = 200ms},
         {0x1C000, 0x4000, 0x8000});
  AddFiles();

  for (const auto& target : _targets) {
    const device::Bytes content = FirstContent(*target);
    if (target->eeprom != nullptr) {
      target->eeprom->Load(0, content);
    } else if (target->flash != nullptr) {
      target->flash->Load(0, content);
    } else {
      system.AddFile(target->path, content);
    }
    target->expected = content;
  }
}

Wire& Machine::AddWire(const std::string& name) {
  _wires.push_back(std::make_unique<Wire>());
  _wires.back()->name = name;
  return *_wires.back();
}

Wire& Machine::AddBus(const std::string& name, std::uint32_t khz) {
  Wire& wire = AddWire(name);
  wire.bus = &ServedMachine::AddBus({.khz = khz});
  return wire;
}

Target& Machine::AddTarget(Wire& wire, const Shape& shape) {
  Target& target = *_targets.emplace_back(std::make_unique<Target>());
  wire.targets.push_back(&target);
  target.wire = &wire;
  target.shape = shape;
  const device::Guid guid = _next_guid;
  _next_guid += 0x10;
  target.identity = {
      .node = guid, .ports = {guid}, .system = guid, .declared_ports = 1, .vsd = {}, .bsn = {}};
  return target;
}

void Machine::AddChip(Wire& wire, hardware::I2cAdapter& adapter,
                      std::vector<std::pair<std::uint16_t, std::uint32_t>> muxes,
                      std::uint32_t most, const hardware::EepromSettings& settings) {
  Target& target = AddTarget(wire, {settings.size, 0, most});
  target.path = adapter.Path();
  target.eeprom = &AddEeprom(target.Guid(), adapter, std::move(muxes), settings);
}

void Machine::AddNor(const hardware::FlashSettings& settings, const Shape& shape) {
  hardware::FlashSettings one = settings;
  one.number = static_cast<std::uint32_t>(_targets.size());
  one.device += "." + settings.name;
  Wire& wire = AddWire(Text("flash, blocks of ", settings.erase_size / 1024, " KiB, sectors of ",
                            shape.sector_size / 1024, " KiB"));
  Target& target = AddTarget(wire, shape);
  target.path = Text("/dev/mtd", one.number);
  target.flash = wire.flash = &AddFlash(target.Guid(), one, shape.sector_size);
  AddHooks(configuration.devices.back());
}

void Machine::AddFiles() {
  Wire& wire = AddWire("files");
  Target& flash = AddTarget(wire, {0x10000, 0x1000, 0x5000});
  flash.path = "/data/flash.bin";
  AddFileFlash(flash.Guid(), flash.path, flash.shape.size, flash.shape.sector_size);
  Target& eeprom = AddTarget(wire, {0x2000, 0, 0x800});
  eeprom.path = "/data/eeprom.bin";
  serve::DeviceConfig& device = AddDevice(eeprom.Guid());
  device.eeproms[0x50] = {
      .size = eeprom.shape.size, .i2c = {}, .file = serve::FileConfig{eeprom.path, false}};
  AddHooks(device);
}

void Machine::AddHooks(serve::DeviceConfig& device) {
  device.prepare = {"/usr/lib/prepare"};
  device.release = {"/usr/lib/release"};
}

device::Bytes Machine::FirstContent(Target& target) {
  const auto image = std::make_shared<device::Image>(
      device::ParseImage(RandomFirmware(target.shape, _random), "first.img"));
  device::Memory memory{_random.Bytes(target.shape.size), target.shape.sector_size};
  if (target.shape.IsFlash()) std::ranges::fill(memory.bytes, device::ERASED);
  const device::Burn burn(*image, device::BurnKind::FAILSAFE, target.identity);
  burn.Fill(memory, {.slot = 0});
  target.images = {image};
  return memory.bytes;
}

device::Bytes Machine::ContentOf(const Target& target) const {
  if (target.eeprom == nullptr && target.flash == nullptr) return system.FileContent(target.path);
  const device::View view =
      target.eeprom != nullptr ? target.eeprom->Content() : target.flash->Content();
  return {view.begin(), view.end()};
}

bool Machine::Holds(const Target& target, device::View bytes) const {
  if (target.eeprom != nullptr) return std::ranges::equal(target.eeprom->Content(), bytes);
  if (target.flash != nullptr) return std::ranges::equal(target.flash->Content(), bytes);
  return std::ranges::equal(ContentOf(target), bytes);
}

serve::Configuration Machine::Served() const {
  serve::Configuration served = configuration;
  for (const auto& target : _targets) {
    const auto is_it = [&](const serve::DeviceConfig& device) {
      return device.facts.node_guid == target->Guid();
    };
    if (target->service == Service::NONE) {
      std::erase_if(served.devices, is_it);
    } else {
      std::ranges::find_if(served.devices, is_it)->is_read_only =
          target->service == Service::READ_ONLY;
    }
  }
  return served;
}

std::size_t Machine::LeaseFiles() {
  const auto names = system.List(configuration.state.string());
  return static_cast<std::size_t>(std::ranges::count_if(
      names, [](const std::string& name) { return name.ends_with(".lease"); }));
}

bool Machine::HasLeaseFile(const Target& target) const {
  return !system.FileContent((configuration.state / (HexGuid(target.Guid()) + ".lease")).string())
              .empty();
}

void Machine::Disarm(Target& target) {
  // Counted from now, none is the next one.
  if (target.eeprom != nullptr) {
    target.eeprom->DropPageWrite(0);
    target.eeprom->FlipBitOfPageWrite(0, 0);
    return;
  }
  system.StopFailing(target.path);
  if (target.flash == nullptr) return;
  target.flash->FailProgram(0);
  target.flash->DropProgram(0);
  target.flash->FailErase(0);
  target.flash->SpoilErase(0);
}

}  // namespace endurance
