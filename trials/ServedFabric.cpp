#include "trials/ServedFabric.h"

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <stdexcept>
#include <utility>

#include "common/Text.h"
#include "trials/AnswerFaults.h"

namespace trials {

using common::Text;

namespace {

constexpr std::uint16_t MUX_ADDRESS = 0x70;
constexpr std::uint16_t FIRST_CHIP = 0x50;  ///< address on the wire
constexpr std::uint32_t PAGE = 32;          ///< bytes, of EEPROMs
constexpr std::uint32_t FLASH_PAGE = 256;   ///< bytes

/// A second, independent reading of requests that need a memory, written apart from
/// protocol/Request.cpp, which the gateway answers by.
struct MemoryRequest {
  enum Kind { NONE, READ, WRITE, ERASE };
  Kind kind = NONE;
  std::uint8_t chip = 0;
  std::uint32_t offset = 0;
  device::Bytes bytes;  ///< to be written
};

std::uint32_t Number(std::string_view word, int base) {
  return static_cast<std::uint32_t>(std::stoull(std::string(word), nullptr, base));
}

MemoryRequest ParseMemoryRequest(const std::string& text) {
  MemoryRequest request;
  const auto words = common::Words(text);
  if (words.size() < 4) return request;
  if (words[0].ends_with("ReadMulti")) request.kind = MemoryRequest::READ;
  if (words[0].ends_with("WriteMulti")) request.kind = MemoryRequest::WRITE;
  if (words[0].ends_with("EraseSectorMulti")) request.kind = MemoryRequest::ERASE;
  if (request.kind == MemoryRequest::NONE) return request;
  std::size_t at = 2 + Number(words[1], 10);
  request.chip = static_cast<std::uint8_t>(Number(words.at(at++), 16));
  if (request.kind == MemoryRequest::ERASE) {
    request.offset = Number(words.at(at), 16);
    return request;
  }
  const std::uint32_t size = Number(words.at(at++), 10);
  request.offset = Number(words.at(at++), 16);
  for (; at < words.size(); ++at) device::AppendWord(request.bytes, Number(words[at], 16));
  if (request.kind == MemoryRequest::WRITE) request.bytes.resize(size);
  return request;
}

}  // namespace

std::span<const MemoryFaultRow> AllMemoryFaults() {
  static constexpr auto ROWS = std::to_array<MemoryFaultRow>({
      {MemoryFault::NOT_THERE, "EEPROM that is not there", false, true, true, true, false},
      {MemoryFault::STUCK_BUS, "I2C bus is stuck", false, true, true, true, false},
      {MemoryFault::ARBITRATION_LOST, "I2C arbitration lost", false, true, true, true, false},
      {MemoryFault::WRITE_PROTECTED, "EEPROM write-protected", false, true, false, true, false},
      {MemoryFault::PAGE_DROPPED, "EEPROM drops a page", false, true, false, true, false},
      {MemoryFault::WRONG_BIT, "EEPROM has a wrong bit", false, true, false, true, false},
      {MemoryFault::READ_FAILS, "flash cannot be read", true, false, true, false, false},
      {MemoryFault::PROGRAM_FAILS, "flash program fails", true, false, false, true, false},
      {MemoryFault::PROGRAM_DROPPED, "flash ignores a program", true, false, false, true, false},
      {MemoryFault::PROTECTED, "flash protected", true, false, false, true, true},
      {MemoryFault::ERASE_FAILS, "flash erase fails", true, false, false, false, true},
      {MemoryFault::ERASE_SPOILT, "flash erase leaves a half", true, false, false, false, true},
      {MemoryFault::POWER_LOST, "power of the server lost", true, true, false, true, true},
  });
  return ROWS;
}

std::string ServedFabric::WhyNotServed(const sim::Fabric& fabric) {
  if (fabric.facts.ifc_version != "2.2") return "the version is always 2.2";
  const std::string& most = fabric.facts.multi_max;
  if (most.empty() || most.find_first_not_of("0123456789") != std::string::npos) {
    return "the number of devices at once is always a number";
  }
  for (const auto& [guid, device] : fabric.Devices()) {
    if (device.chips.empty()) return "a device has no chip";
    if (!device.has_power) return "a device has no power";
  }
  return "";
}

ServedFabric::ServedFabric(sim::Fabric& fabric) : _fabric(fabric) {
  if (const std::string why = WhyNotServed(fabric); !why.empty()) {
    throw std::invalid_argument("fwpush-serve cannot serve the fabric: " + why);
  }
  _machine.configuration.type = fabric.facts.type;
  _machine.configuration.multi_max = Number(fabric.facts.multi_max, 10);
  std::uint32_t number = 0;
  for (auto& [guid, device] : fabric.Devices()) {
    if (device.kind == device::MemoryKind::FLASH) {
      AddFlash(device, number++);
    } else {
      AddEeproms(device, number++);
    }
    _machine.configuration.devices.back().facts = device;
  }
  _machine.system.GetPower().BeforeChange(
      [this](const hardware::Power::Request& request) { Tell(request); });
  _machine.Serve();
}

void ServedFabric::AddFlash(sim::Device& device, std::uint32_t number) {
  const sim::Chip& chip = device.chips.at(0);
  hardware::FlashSettings settings;
  settings.name = Text("flash-", number);
  settings.number = number;
  settings.device = Text("1e630000.spi/spi_master/spi", number, "/spi", number, ".0");
  settings.size = chip.Size();
  settings.erase_size = chip.SectorSize();
  settings.page = std::min(FLASH_PAGE, chip.SectorSize());
  auto& flash = _machine.AddFlash(device.node_guid, settings, chip.SectorSize());
  flash.Load(0, chip.Bytes());
  _chips.push_back({&device, 0, nullptr, &flash, nullptr, Text("/dev/mtd", number)});
}

void ServedFabric::AddEeproms(sim::Device& device, std::uint32_t number) {
  constexpr std::uint32_t CHANNELS = hardware::I2cMux::CHANNELS;
  const std::uint32_t channel = number % CHANNELS;
  if (channel == 0 || _muxes.empty()) {
    _buses.push_back(&_machine.AddBus());
    const auto first = static_cast<std::uint32_t>(100 + CHANNELS * _muxes.size());
    _muxes.push_back(&_buses.back()->Root().AddMux(MUX_ADDRESS, first));
  }
  auto& devices = _machine.configuration.devices;
  serve::DeviceConfig config;
  std::uint16_t address = FIRST_CHIP;
  for (auto& [chip_address, chip] : device.chips) {
    hardware::EepromSettings settings;
    settings.address = address++;
    settings.page = PAGE;
    // Of a real chip's size; what is beyond the device's is not served.
    settings.size = std::max(PAGE, std::bit_ceil(chip.Size()));
    auto& eeprom = _machine.AddEeprom(device.node_guid, _muxes.back()->Channel(channel),
                                      {{MUX_ADDRESS, channel}}, settings);
    eeprom.Load(0, chip.Bytes());
    config.eeproms[chip_address] = devices.back().eeproms.at(0x50);
    config.eeproms[chip_address].size = chip.Size();
    devices.pop_back();
    _chips.push_back({&device, chip_address, &eeprom, nullptr, _buses.back(), ""});
  }
  devices.push_back(std::move(config));
}

ServedFabric::ModelChip* ServedFabric::Find(Guid name, std::uint8_t address) {
  const sim::Device* const device = _fabric.Find(name);
  const auto found = std::ranges::find_if(_chips, [&](const ModelChip& chip) {
    return chip.device == device && chip.address == address;
  });
  return found == _chips.end() ? nullptr : &*found;
}

void ServedFabric::Tell(const hardware::Power::Request& request) {
  if (!_fabric.observer) return;
  for (const ModelChip& chip : _chips) {
    const device::View content = chip.Content();
    const std::less<const std::uint8_t*> is_before;
    const std::uint8_t* const first = request.cells.data();
    if (is_before(first, content.data()) || !is_before(first, content.data() + content.size())) {
      continue;
    }
    const auto page = static_cast<std::uint32_t>(first - content.data());
    const auto tell = [&](std::size_t at, device::View bytes, std::size_t size) {
      if (size == 0) return;
      _fabric.observer({request.is_erase ? sim::Operation::ERASE : sim::Operation::PROGRAM,
                        chip.device->node_guid, chip.address, page + static_cast<std::uint32_t>(at),
                        bytes, static_cast<std::uint32_t>(size)});
    };
    if (request.is_erase) return tell(0, {}, request.cells.size());
    const std::size_t row = std::min(request.bytes.size(), request.cells.size() - request.at);
    tell(request.at, request.bytes.first(row), row);
    tell(0, request.bytes.subspan(row), request.bytes.size() - row);
    return;
  }
}

void ServedFabric::Connected() {
  _wrong.clear();
  _machine.gateway->Connected(++_client, "127.0.0.1:40000");
}

void ServedFabric::Disconnected() {
  _machine.Disconnect(_client);
  if (!HasPower()) {
    _machine.system.PowerUp();
    _machine.Serve();
    _machine.gateway->ReleaseLeftOvers();
    _machine.loop.RunUntilIdle();
  }
  bool is_idle = false;
  _machine.gateway->WhenIdle([&is_idle] { is_idle = true; });
  if (!is_idle) throw std::runtime_error("a device is held by a client that is gone");
  Repair();
  _faulty.clear();
  for (const ModelChip& chip : _chips) {
    sim::Chip& simulated = chip.device->chips.at(chip.address);
    simulated.Load(0, chip.Content().first(simulated.Size()));
  }
}

std::optional<std::string> ServedFabric::Answer(const std::string& request) {
  const auto asked = _machine.Send(request, _client);
  _machine.Wait(asked);
  if (!HasPower()) return std::nullopt;
  if (!asked->is_answered) Fail("no answer to: " + request);
  CheckAnswer(request, asked->answer);
  // A cut that this request had too few changes for.
  _machine.system.GetPower().TurnOn();
  _must_fail.clear();
  if (std::exchange(_repairs_after_next, false)) Repair();
  return asked->answer;
}

void ServedFabric::CheckAnswer(const std::string& text, const std::string& answer) {
  const MemoryRequest request = ParseMemoryRequest(text);
  if (request.kind == MemoryRequest::NONE) return;
  const std::vector<Guid> names = ParseExchange(text, answer, false).devices;
  const bool is_ack = answer == "ACK";
  const std::vector<std::string> elements = ElementsOf(answer);
  if (!is_ack && elements.size() != names.size()) return Fail("\"" + answer + "\" to: " + text);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const ModelChip* const chip = Find(names[i], request.chip);
    if (chip == nullptr) continue;
    const Guid node = chip->device->node_guid;
    const std::string name = sim::HexGuid(names[i]);
    if (!is_ack && elements[i].find("ERROR:") != std::string::npos) {
      if (elements[i].find("ERROR:" + name + ":") == std::string::npos) {
        Fail("the error of device " + name + " does not name it: " + elements[i]);
      }
      if (!_faulty.contains(node)) Fail("a device without a fault fails: " + elements[i]);
      continue;
    }
    if (_must_fail.contains(node))
      Fail("device " + name + " has a fault, and is answered " + answer);
    const bool is_erase = request.kind == MemoryRequest::ERASE;
    const std::uint32_t sector = is_erase ? chip->device->chips.at(request.chip).SectorSize() : 0;
    const device::Bytes wanted = is_erase ? device::Bytes(sector, device::ERASED) : request.bytes;
    if (request.kind == MemoryRequest::READ) continue;
    if (!std::ranges::equal(chip->Content().subspan(request.offset, wanted.size()), wanted)) {
      Fail("device " + name + " does not hold what is acknowledged: " + text);
    }
  }
}

std::vector<MemoryFault> ServedFabric::FaultsAt(const sim::Device& device,
                                                const std::string& text) {
  const MemoryRequest request = ParseMemoryRequest(text);
  const bool is_flash = device.kind == device::MemoryKind::FLASH;
  std::vector<MemoryFault> faults;
  if (!device.chips.contains(request.chip)) return faults;
  for (const MemoryFaultRow& row : AllMemoryFaults()) {
    const bool is_at = (request.kind == MemoryRequest::READ && row.at_read) ||
                       (request.kind == MemoryRequest::WRITE && row.at_write) ||
                       (request.kind == MemoryRequest::ERASE && row.at_erase);
    if (is_at && (is_flash ? row.is_of_flash : row.is_of_eeprom)) faults.push_back(row.fault);
  }
  return faults;
}

void ServedFabric::Inject(MemoryFault fault, Guid device, const std::string& request,
                          std::uint32_t nth, std::uint64_t seed) {
  const MemoryRequest parsed = ParseMemoryRequest(request);
  ModelChip& chip = *Find(device, parsed.chip);
  const Guid node = chip.device->node_guid;
  if (fault != MemoryFault::ARBITRATION_LOST) _faulty.insert(node);
  switch (fault) {
    case MemoryFault::NOT_THERE:
      _must_fail.insert(node);
      return chip.eeprom->SetAbsent(true);
    case MemoryFault::STUCK_BUS:
      _must_fail.insert(node);
      for (const ModelChip& other : _chips) {
        if (other.bus == chip.bus) _faulty.insert(other.device->node_guid);
      }
      return chip.bus->HoldWireFrom(_machine.loop.Now());
    case MemoryFault::ARBITRATION_LOST:
      return chip.bus->LoseArbitration(3);
    case MemoryFault::WRITE_PROTECTED:
      return chip.eeprom->SetWriteProtected(true);
    case MemoryFault::PAGE_DROPPED:
      return chip.eeprom->DropPageWrite(nth);
    case MemoryFault::WRONG_BIT:
      return chip.eeprom->FlipBitOfPageWrite(nth, static_cast<std::uint32_t>(seed % 8));
    case MemoryFault::READ_FAILS:
      _must_fail.insert(node);
      return _machine.system.Fail({.call = hardware::Call::READ, .path = chip.node});
    case MemoryFault::PROGRAM_FAILS:
      return chip.flash->FailProgram(nth);
    case MemoryFault::PROGRAM_DROPPED:
      return chip.flash->DropProgram(nth);
    case MemoryFault::PROTECTED:
      return chip.flash->Protect(0, chip.device->chips.at(0).Size());
    case MemoryFault::ERASE_FAILS:
      _must_fail.insert(node);
      return chip.flash->FailErase(1);
    case MemoryFault::ERASE_SPOILT:
      return chip.flash->SpoilErase(1);
    case MemoryFault::POWER_LOST:
      return _machine.system.GetPower().CutInside(nth, seed);
  }
}

void ServedFabric::FailNext(std::optional<Guid> device, const std::string& request) {
  const MemoryRequest parsed = ParseMemoryRequest(request);
  if (parsed.kind == MemoryRequest::NONE || !device) return;
  const bool is_flash = _fabric.Find(*device)->kind == device::MemoryKind::FLASH;
  MemoryFault fault = MemoryFault::NOT_THERE;
  if (is_flash && parsed.kind == MemoryRequest::READ) fault = MemoryFault::READ_FAILS;
  if (is_flash && parsed.kind == MemoryRequest::WRITE) fault = MemoryFault::PROGRAM_FAILS;
  if (is_flash && parsed.kind == MemoryRequest::ERASE) fault = MemoryFault::ERASE_FAILS;
  Inject(fault, *device, request, 1, 1);
  _repairs_after_next = true;
}

/// A count of 0 is over.
void ServedFabric::Repair() {
  for (const ModelChip& chip : _chips) {
    if (chip.flash != nullptr) {
      chip.flash->FailProgram(0);
      chip.flash->DropProgram(0);
      chip.flash->FailErase(0);
      chip.flash->SpoilErase(0);
      chip.flash->Unprotect();
      continue;
    }
    chip.bus->ReleaseWire();
    chip.bus->LoseArbitration(0);
    chip.eeprom->SetAbsent(false);
    chip.eeprom->SetWriteProtected(false);
    chip.eeprom->DropPageWrite(0);
    chip.eeprom->FlipBitOfPageWrite(0, 0);
  }
}

}  // namespace trials
