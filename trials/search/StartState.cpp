#include "trials/search/StartState.h"

#include <stdexcept>
#include <string_view>

#include "common/Text.h"
#include "device/Boot.h"
#include "sim/Filling.h"

namespace search {

using common::Text;
using device::BurnKind;
using device::Image;
using device::Memory;

namespace {

std::string Hex(device::View bytes) { return "0x" + common::HexBytes(bytes); }

/// Changes the sections of the invariant sector, but for the failsafe marker. Returns false where
/// the image has none.
bool ChangeInvariant(sim::Device& device, const Image& image) {
  Memory memory = sim::MemoryOf(device, image);
  if (!image.IsFlash()) return false;
  bool is_changed = false;
  for (const device::Section& section : image.sections) {
    if (section.addr >= memory.sector_size) continue;
    for (std::uint64_t addr = section.addr; addr < section.End(); ++addr) {
      if (addr / device::WORD_SIZE == device::FAILSAFE_MARKER / device::WORD_SIZE) continue;
      memory.bytes.at(static_cast<std::size_t>(addr)) ^= 0x11;
      is_changed = true;
    }
  }
  sim::LoadMemory(device, image, memory);
  return is_changed;
}

}  // namespace

const std::vector<StartState>& StartStates(BurnKind kind) {
  static const std::vector<StartState> plain = {{"as the scenario has it", {}}};
  static const std::vector<StartState> failsafe = {
      plain.front(),
      {"the first slot valid", {{.slot = 0}, {.slot = 1, .is_valid = false}}},
      {"the second slot valid", {{.slot = 1}, {.slot = 0, .is_valid = false}}},
      // What a move leaves out is not there by chance.
      {"the second slot valid, the first one blank", {{.slot = 1}}, false, true},
      {"both slots valid", {{.slot = 0}, {.slot = 1, .is_second = true}}},
      {"another invariant sector", {{.slot = 0}, {.slot = 1, .is_valid = false}}, true}};
  return kind == BurnKind::PLAIN ? plain : failsafe;
}

const sim::Device& FirstTarget(const soak::Scenario& scenario) {
  for (const device::Guid name : scenario.targets) {
    if (const sim::Device* device = scenario.fabric.Find(name)) return *device;
  }
  throw std::logic_error("a scenario has a device");
}

bool SetUp(const soak::Scenario& scenario, const StartState& state, BurnKind kind, const Image& old,
           sim::Fabric& fabric) {
  fabric.facts = scenario.fabric.facts;
  const sim::Device& target = FirstTarget(scenario);
  fabric.CopyDevice(target);
  if (state.parts.empty()) {
    return kind == BurnKind::PLAIN || scenario.judges.contains(target.node_guid);
  }
  if (state.begins_blank) {
    for (auto& [address, chip] : fabric.Find(target.node_guid)->chips) {
      chip.Load(0, device::Bytes(chip.Size(), device::ERASED));
    }
  }
  try {
    for (const device::FillPart& part : state.parts) {
      sim::Fill(fabric, target.node_guid, old, part);
    }
  } catch (const sim::FillError&) {
    return false;
  }
  sim::Device& device = *fabric.Find(target.node_guid);
  if (state.has_other_invariant && !ChangeInvariant(device, old)) return false;
  const Memory memory = sim::MemoryOf(device, old);
  const auto layout = device::LayoutOf(old, memory.sector_size);
  return layout && device::SlotThatBoots(*layout, memory.bytes).has_value();
}

std::string FabricText(const std::string& server_type, const sim::Device& device,
                       const std::string& contents) {
  std::string text = Text("[server]\ntype = \"", server_type, "\"\n[[device]]\nnode_guid = \"",
                          common::HexGuid(device.node_guid), "\"\nport_guids = [");
  for (const device::Guid port : device.port_guids) text += "\"" + common::HexGuid(port) + "\", ";
  text += Text("]\nsystem_guid = \"", common::HexGuid(device.sys_guid), "\"\nbsn = \"",
               Hex(device.bsn), "\"\nvsd = \"", Hex(device.vsd), "\"\n");
  if (device.kind == device::MemoryKind::FLASH) {
    const sim::Chip& chip = device.chips.begin()->second;
    text +=
        Text("[device.flash]\nsize = ", chip.Size(), "\nsector_size = ", chip.SectorSize(), "\n");
  } else {
    text += "chip = [";
    for (const auto& [address, chip] : device.chips) {
      text += Text("{ address = ", std::uint32_t{address}, ", size = ", chip.Size(), " }, ");
    }
    text += "]\n";
  }
  return text + contents;
}

std::string RawContents(const sim::Device& device, const common::ScratchFolder& folder,
                        const std::string& name) {
  std::string text;
  for (const auto& [address, chip] : device.chips) {
    const std::string raw = folder.Write(
        Text(name, "-", std::uint32_t{address}),
        std::string_view(reinterpret_cast<const char*>(chip.Bytes().data()), chip.Size()));
    text += Text("[[device.contents]]\nraw = \"", raw, "\"\n");
    if (device.kind != device::MemoryKind::FLASH) {
      text += Text("chip = ", std::uint32_t{address}, "\n");
    }
  }
  return text;
}

std::string ImageContents(const std::string& file, const StartState& state) {
  std::string text;
  for (const device::FillPart& part : state.parts) {
    text += Text("[[device.contents]]\nimage = \"", file, "\"\nslot = ", part.slot.value(),
                 "\nvalid = ", part.is_valid ? "true" : "false", "\n");
  }
  return text;
}

}  // namespace search
