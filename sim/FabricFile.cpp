#include "sim/FabricFile.h"

#include <algorithm>
#include <limits>

#include "common/Files.h"
#include "common/TomlReader.h"
#include "protocol/FactsFile.h"
#include "sim/Filling.h"

namespace sim {

namespace {

namespace fs = std::filesystem;
using common::TomlError;
using common::TomlReader;

void ReadServer(TomlReader reader, ServerFacts& facts) {
  facts.type = protocol::ReadServerType(reader).value_or(facts.type);
  facts.ifc_version = reader.String("interface_version").value_or(facts.ifc_version);
  if (const auto max = protocol::ReadMultiMax(reader)) facts.multi_max = std::to_string(*max);
  reader.Finish();
}

// Names in the state folder.
std::string FlashName(Guid guid) { return HexGuid(guid) + ".flash"; }
std::string EepromName(Guid guid, std::uint32_t address) {
  return HexGuid(guid) + common::Text(".", std::hex, address, ".i2c");
}

/// Creates the chips; in files, if there is a state folder.
class ChipMaker {
 public:
  ChipMaker(const TomlReader& reader, const std::optional<fs::path>& state, Guid guid)
      : _reader(reader), _state(state), _guid(guid) {}

  void Make(Device& device, std::uint8_t address, std::uint32_t size,
            std::uint32_t sector_size) const {
    const std::string name = sector_size != 0 ? FlashName(_guid) : EepromName(_guid, address);
    std::unique_ptr<Cells> cells;
    try {
      cells =
          _state ? std::make_unique<Cells>(size, *_state / name) : std::make_unique<Cells>(size);
    } catch (const std::runtime_error& error) {
      _reader.Throw(error.what());
    }
    if (!device.chips.try_emplace(address, Chip(std::move(cells), sector_size)).second) {
      _reader.Throw(common::Text("two chips at address 0x", std::hex, std::uint32_t{address}));
    }
  }

 private:
  const TomlReader& _reader;
  const std::optional<fs::path>& _state;
  Guid _guid;
};

constexpr std::uint32_t MAX_SIZE = std::uint32_t{1} << 30;

void ReadMemory(TomlReader& reader, const std::optional<fs::path>& state, Device& device) {
  const ChipMaker maker(reader, state, device.node_guid);
  if (auto flash = reader.Table("flash")) {
    const std::uint32_t sector =
        flash->Needed("sector_size", flash->Number("sector_size", 4, MAX_SIZE));
    const std::uint32_t size = flash->Needed("size", flash->Number("size", 4, MAX_SIZE));
    if (size % sector != 0) flash->Throw("'size' must be a whole number of sectors");
    flash->Finish();
    device.kind = device::MemoryKind::FLASH;
    maker.Make(device, 0, size, sector);
  }
  std::vector<TomlReader> chips = reader.Tables("chip");
  if (chips.empty() == device.chips.empty()) {
    reader.Throw("a device has either a [device.flash] or [[device.chip]]s");
  }
  for (TomlReader& chip : chips) {
    const std::uint32_t address = chip.Needed("address", chip.Number("address", 0, 0xFF));
    const std::uint32_t size = chip.Needed("size", chip.Number("size", 4, MAX_SIZE));
    chip.Finish();
    maker.Make(device, static_cast<std::uint8_t>(address), size, 0);
  }
}

void FillContents(TomlReader& reader, Fabric& fabric, Device& device) {
  const bool is_kept =
      std::ranges::any_of(device.chips, [](const auto& entry) { return entry.second.Kept(); });
  for (TomlReader& contents : reader.Tables("contents")) {
    const auto fill = contents.Number("fill", 0, 0xFF);
    const auto raw = contents.String("raw");
    const auto address = contents.Number("chip", 0, 0xFF);
    const auto at = contents.Number("at", 0, MAX_SIZE);
    const auto image = contents.String("image");
    const auto slot = contents.Number("slot", 0, 1);
    const auto is_valid = contents.Bool("valid");
    contents.Finish();
    if (int{fill.has_value()} + int{raw.has_value()} + int{image.has_value()} != 1) {
      contents.Throw("contents are one of 'fill', 'raw' and 'image'");
    }
    if (image) device.images.push_back(contents.Path(*image).string());
    if (is_kept) continue;
    if (fill) {
      for (auto& [key, chip] : device.chips) {
        chip.Load(0, device::Bytes(chip.Size(), static_cast<std::uint8_t>(*fill)));
      }
    } else if (raw) {
      device::Bytes bytes;
      try {
        bytes = common::ReadFile(contents.Path(*raw));
      } catch (const std::runtime_error& error) {
        contents.Throw(error.what());
      }
      const auto chip =
          address ? device.chips.find(static_cast<std::uint8_t>(*address)) : device.chips.begin();
      if (chip == device.chips.end()) contents.Throw("the device has no such chip");
      if (!chip->second.Holds(at.value_or(0), bytes.size())) {
        contents.Throw(common::Text("the chip is too small for ", bytes.size(), " bytes there"));
      }
      chip->second.Load(at.value_or(0), bytes);
    } else {
      try {
        FillFromFile(fabric, device.node_guid, contents.Path(*image).string(),
                     {.slot = slot, .is_valid = is_valid.value_or(true)});
      } catch (const FillError& error) {
        contents.Throw(std::string("can't burn the image: ") + error.what());
      }
    }
  }
}

void ReadDevice(TomlReader& reader, const std::optional<fs::path>& state, Fabric& fabric) {
  Device device;
  protocol::DeviceFacts facts = protocol::ReadDeviceFacts(reader);
  device.node_guid = facts.node_guid;
  device.port_guids = std::move(facts.port_guids);
  device.sys_guid = facts.sys_guid;
  device.declared_ports = reader.Number("declared_ports", 0, 255).value_or(facts.declared_ports);
  device.name = std::move(facts.name);
  device.attr = std::move(facts.attr);
  device.vsd = std::move(facts.vsd);
  device.bsn = std::move(facts.bsn);
  device.has_power = reader.Bool("power").value_or(true);
  ReadMemory(reader, state, device);
  Device* added = nullptr;
  try {
    const bool has_power = std::exchange(device.has_power, true);  // while it is being filled
    added = &fabric.Add(std::move(device));
    FillContents(reader, fabric, *added);
    for (auto& [address, chip] : added->chips) chip.Settle();
    added->has_power = has_power;
  } catch (const TomlError&) {
    throw;
  } catch (const std::exception& error) {
    reader.Throw(error.what());
  }
  reader.Finish();
}

Fault ReadFault(TomlReader& reader) {
  constexpr std::uint32_t ANY = std::numeric_limits<int32_t>::max();
  Fault fault;
  const std::string kind = reader.Needed("kind", reader.String("kind"));
  const auto named = std::ranges::find(FaultNames(), kind, &FaultName::name);
  if (named == FaultNames().end()) reader.Throw("'kind' is no kind of fault: " + kind);
  fault.kind = named->kind;
  fault.command = reader.String("command").value_or("");
  fault.device = protocol::ReadGuid(reader, "device");
  fault.nth = reader.Number("nth", 1, ANY).value_or(1);
  fault.from_then_on = reader.Bool("from_then_on").value_or(false);
  fault.text = reader.String("text").value_or(fault.kind == Fault::DEVICE_ERROR ? "Fault" : "");
  fault.milliseconds = reader.Number("milliseconds", 0, ANY).value_or(0);
  fault.seed = reader.Number("seed", 0, ANY).value_or(1);
  reader.Finish();
  return fault;
}

void Load(const fs::path& path, const std::optional<fs::path>& state, Fabric& fabric) {
  TomlReader reader(path);
  if (state) {
    std::error_code error;
    fs::create_directories(*state, error);
    if (error) throw TomlError(state->string() + ": " + error.message());
  }
  if (const auto server = reader.Table("server")) ReadServer(*server, fabric.facts);
  for (TomlReader& device : reader.Tables("device")) ReadDevice(device, state, fabric);
  for (TomlReader& fault : reader.Tables("fault")) fabric.faults.Add(ReadFault(fault));
  reader.Finish();
  if (fabric.Devices().empty()) throw TomlError(path.string() + ": no [[device]]");
}

FabricFiles ReadNames(const fs::path& path) {
  FabricFiles files;
  TomlReader reader(path);
  for (TomlReader& device : reader.Tables("device")) {
    for (TomlReader& contents : device.Tables("contents")) {
      for (const char* key : {"raw", "image"}) {
        if (const auto name = contents.String(key)) files.read.push_back(contents.Path(*name));
      }
    }
    const auto guid = protocol::ReadGuid(device, "node_guid");
    if (!guid) continue;
    if (device.IsTable("flash")) files.memories.push_back(FlashName(*guid));
    for (TomlReader& chip : device.Tables("chip")) {
      const auto address = chip.Number("address", 0, 0xFF);
      if (address) files.memories.push_back(EepromName(*guid, *address));
    }
  }
  return files;
}

}  // namespace

FabricFiles FilesOf(const fs::path& path) {
  try {
    return ReadNames(path);
  } catch (const TomlError& error) {
    throw FabricFileError(error.what());
  }
}

void LoadFabric(const fs::path& path, const std::optional<fs::path>& state, Fabric& fabric) {
  try {
    Load(path, state, fabric);
  } catch (const TomlError& error) {
    throw FabricFileError(error.what());
  }
}

}  // namespace sim
