#include "fuzz/FuzzedBurn.h"

#include <algorithm>
#include <array>
#include <memory>
#include <set>

#include "src/main.h"
#include "src/utils.h"
#include "tests/support/InProcessRom.h"

namespace fuzz {

namespace {

constexpr u_int32_t SECTOR_SIZE = 0x400;
constexpr u_int32_t MEMORY_SIZE = 0x2000;  ///< of a flash, and of each EEPROM
constexpr u_int32_t INVARIANT_MARKER = 0x24;
constexpr auto CHIPS = std::to_array<u_int8_t>({0x00, 0x50, 0x51});
constexpr u_int32_t VALID_SIGNATURE = 0xCB84CB84;
constexpr u_int32_t OLD_IMAGE_SIZE = 0x40;

/// The image's device map. Asking changes nothing: the convertor is the image's own member.
const FwImage::Conv& MapOf(const FwImage& image) {
  return static_cast<const FwImage::Conv&>(*const_cast<FwImage&>(image).GetAddressConvertor());
}

bool IsFlash(DeviceType type) { return type != RV61100 && type != RV61300; }

sim::Device MakeDevice(Guid guid, bool is_flash) {
  sim::Device device;
  device.node_guid = guid;
  device.port_guids = {guid + 1, guid + 2};
  device.sys_guid = guid + 0xF;
  device.declared_ports = 2;
  device.kind = is_flash ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
  for (const u_int8_t chip : CHIPS) {
    device.chips.try_emplace(
        chip, sim::Chip(std::make_unique<sim::Cells>(MEMORY_SIZE), is_flash ? SECTOR_SIZE : 0));
    if (is_flash) break;
  }
  return device;
}

/// Sets cells where the image says that there are such, and where the device has them.
void Load(sim::Device& device, FwImage& image, u_int32_t addr, const DataVec& bytes) {
  Run([&] {
    const EeLoc loc = image.GetAddressConvertor()->Convert(addr);
    const auto chip = device.chips.find(loc.dev);
    if (chip == device.chips.end() || !chip->second.Holds(loc.offset, bytes.size())) return;
    chip->second.Load(loc.offset, bytes);
  });
}

/// Marks a slot valid as the device's own code would find it.
void MarkValid(sim::Device& device, FwImage& image, u_int32_t slot) {
  DataVec signature;
  signature << VALID_SIGNATURE;
  Run([&] { Load(device, image, image.GetSignatureAddr(slot), signature); });
  // A boot record whose bytes add up to AB.
  DataVec record(16, 0);
  record[15] = 0xAB;
  if (image.DevType() == RV61300) {
    Run([&] { Load(device, image, image.GetImageAddr(slot), record); });
  }
}

/// Writes down where the second image lies; low enough, it has to be moved.
void PlaceSecondImage(sim::Device& device, FwImage& image, u_int32_t addr) {
  DataVec record;
  record << addr << OLD_IMAGE_SIZE;
  Run([&] { Load(device, image, image.GetPsAddr(1), record); });
}

void Fill(sim::Fabric& fabric, FwImage& image, const BurnOptions& options) {
  const bool is_flash = IsFlash(image.DevType());
  fabric.facts.type = options.is_read_back ? "I2C" : "IB";
  DataVec marker;
  marker << VALID_SIGNATURE;
  for (u_int32_t i = 0; i < (is_flash ? 1 : options.devices); ++i) {
    sim::Device& device = fabric.Add(MakeDevice(0x1000 * (i + 1), is_flash));
    for (const u_int32_t slot : {0u, 1u}) {
      if ((options.states >> (2 * i + slot) & 1) != 0) MarkValid(device, image, slot);
    }
    // A flash is alone, and leaves the other bits for this.
    const u_int32_t place = options.states >> 2 & 3;
    if (is_flash && place != 0) PlaceSecondImage(device, image, (place + 1) * SECTOR_SIZE);
    if (options.has_invariant_marker) Load(device, image, INVARIANT_MARKER, marker);
  }
}

Ending BurnThrough(RomInterface& rom, FwImage& image, const BurnOptions& options,
                   const sim::Fabric& fabric) {
  return RunToAnyEnd([&] {
    rom.SetAddressConvertor(image.GetAddressConvertor());
    GuidSet devices;
    for (const auto& [guid, device] : fabric.Devices()) devices.insert(guid);
    rom.SetAccessDevices(devices);
    rom.Open((fabric.facts.type + ":127.0.0.1:1").c_str());
    GetBurnAlgorithm(image.DevType(), &rom, options.is_failsafe, false, options.is_check_only)
        ->Go(image);
  });
}

/// Addresses that a burn of every section where it stands may write: [from, to).
std::vector<std::pair<u_int64_t, u_int64_t>> Burnt(const FwImage& image) {
  std::vector<std::pair<u_int64_t, u_int64_t>> spans;
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  for (const u_int32_t addr : addrs) {
    spans.emplace_back(addr, u_int64_t{addr} + image.GetSection(addr)->data.size());
  }
  // The place of a CRC may lie below what it covers.
  for (const u_int32_t addr : addrs) {
    const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
    Run([&] {
      for (const auto& crc : image.GetCrcsInRange(addr, size)) {
        spans.emplace_back(crc.crc_addr, u_int64_t{crc.crc_addr} + 4);
      }
    });
  }
  return spans;
}

/// Bytes that must have their size, and a part of the requests that ask for them.
struct Sized {
  const char* assertion;
  const char* request;
};
constexpr auto SIZED = std::to_array<Sized>({
    {"read_data.size() == 16", "vsI2cReadMulti "},
    {"d1.size() == 4", "vsFlashReadMulti "},
    {"rep_data.size() == fit->size", "crBSNGet "},
    {"rep_data.size() == fit->size", "vsGetVsdMulti "},
});

}  // namespace

BurnOptions::BurnOptions(Input& input)
    : log2_chunk_align(4 + input.Below(12)),
      is_failsafe(input.Below(2) == 0),
      is_check_only(input.Below(4) == 3),
      is_read_back(input.Below(2) == 1),
      devices(1 + input.Below(4)),
      states(input.Byte()),
      has_invariant_marker(input.Below(4) != 3) {}

Ending Burn(FwImage& image, const BurnOptions& options, sim::Fabric& fabric) {
  Fill(fabric, image, options);
  if (IsFlash(image.DevType())) {
    InProcessFlash rom(fabric, options.log2_chunk_align);
    return BurnThrough(rom, image, options, fabric);
  }
  InProcessI2c rom(fabric, options.log2_chunk_align);
  return BurnThrough(rom, image, options, fabric);
}

Ending BurnOverSocket(FwImage& image, const BurnOptions& options, sim::Fabric& fabric) {
  Fill(fabric, image, options);
  const auto rom = GetRomInterface(image.DevType(), options.log2_chunk_align, false, false);
  return BurnThrough(*rom, image, options, fabric);
}

void GuardWrites(sim::Fabric& fabric, const FwImage& image, const BurnOptions& options) {
  const bool is_generic = !options.is_failsafe || image.DevType() == RV61100;
  // A device that is mapped twice has several addresses for each byte.
  std::set<u_int8_t> devices;
  for (const EeLoc& dev : MapOf(image)._devmap) devices.insert(dev.dev);
  const bool is_mapped_once = devices.size() == MapOf(image)._devmap.size();
  const bool may_write = !options.is_check_only || is_generic || image.DevType() != RV61300;
  fabric.observer = [&image, may_write, is_held = is_generic && is_mapped_once,
                     spans = Burnt(image)](const sim::Operation& operation) {
    Must(may_write, "a check changes nothing");
    if (!is_held || operation.kind != sim::Operation::PROGRAM) return;
    const EeLoc loc(operation.offset, operation.chip);
    u_int32_t addr = 0;
    const auto error = Run([&] { addr = MapOf(image).Convert(loc); });
    Must(!error, "only what is mapped is written");
    const u_int64_t end = u_int64_t{addr} + operation.size;
    Must(std::ranges::any_of(
             spans, [&](const auto& span) { return span.first <= addr && end <= span.second; }),
         "only what the image holds is written");
  };
}

void CheckEnding(const Ending& ending, const FwImage& image) {
  if (!ending.assertion) return;
  // What a CRC covers must be whole words: an image that says otherwise is a mistake of its maker.
  Must(*ending.assertion == "(data.size() % 4) == 0", "this assertion fails: " + *ending.assertion);
  Must(HasOddCrc(image), "a CRC that covers whole words ends no burn");
}

bool IsOfWrongSize(const Ending& ending, std::string_view request) {
  return std::ranges::any_of(SIZED, [&](const Sized& sized) {
    return ending.assertion == sized.assertion && request.starts_with(sized.request);
  });
}

}  // namespace fuzz
