#include "trials/matrix/MatrixBurns.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"
#include "device/Boot.h"
#include "device/Burn.h"
#include "device/Crc.h"
#include "device/ImageFile.h"
#include "sim/Filling.h"
#include "trials/ServedFabric.h"

namespace trials {

using common::Text;

namespace {

constexpr std::uint32_t MEMORY_SIZE = 0x2000;

/// A byte that differs from device to device.
std::uint8_t DeviceByte(Guid guid) { return static_cast<std::uint8_t>(guid >> 8); }

/// The lines of a section of an image file.
std::string SectionText(const std::string& name, std::uint32_t addr, const device::Bytes& data) {
  std::string text = Text("START ", name, " ", std::hex, addr, " 0");
  for (std::size_t i = 0; i < data.size(); ++i) {
    text += Text(i % 16 == 0 ? "\n" : " ", std::hex, std::uint32_t{data[i]});
  }
  return text + "\nEND " + name + "\n";
}

// ---- Generic: GUIDs of all kinds and a CRC over them in the first section, nothing in the second

std::string GenericText() {
  return "DEVICE_TYPE RV61100\n"
         "REPLACE GUIDS 0 0\nREPLACE GUID 20 0\nREPLACE SYSGUID 28 0\n"
         "REPLACE CRC 0 0 3C 0 40 0\n" +
         SectionText("A", 0, device::Bytes(0x60, 0x22)) +
         SectionText("B", 0x80, device::Bytes(0x10, 0x33));
}

// ---- RV61300: two slots, with a board serial number, a GUID and vendor data in each

std::string EepromText(std::uint8_t content) {
  device::Bytes first(0x60, content);
  std::fill_n(first.begin() + 4, device::BOOT_RECORD_SIZE - 4, std::uint8_t{0});
  // The record is four bytes of the content, and one that makes the sum right.
  first[15] = static_cast<std::uint8_t>(device::BOOT_RECORD_SUM - 4 * content);
  return "REPLACE GUID 10 0\nREPLACE BSN 18 0\nREPLACE CRC 10 0 54 0 58 0\nREPLACE VSD 84 0\n"
         "REPLACE GUID 210 0\nREPLACE BSN 218 0\nREPLACE CRC 210 0 254 0 258 0\nREPLACE VSD 284 0\n"
         "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 200 0\n" +
         SectionText("A", 0, first) + SectionText("B", 0x80, device::Bytes(0xE0, content));
}

// ---- RV52100: a small flash; a new image of two sectors

constexpr std::uint32_t SECTOR = 0x400;
constexpr std::uint32_t PS0 = 0x400;
constexpr std::uint32_t PS1 = 0x800;
constexpr std::uint32_t IMAGE0 = 0xC00;
constexpr std::uint32_t IMAGE1 = 0x1400;
constexpr std::uint32_t NEW_SIZE = 0x410;
constexpr std::uint32_t OLD_SIZE = 0x110;
/// Address of an old second image that a new first image would overwrite.
constexpr std::uint32_t IN_THE_WAY = 0x1000;

/// A pointer sector's record with its CRC.
device::Bytes PointerRecord(std::uint32_t addr, std::uint32_t size, std::uint32_t signature) {
  device::Bytes record;
  for (const std::uint32_t word : {addr, size, signature}) device::AppendWord(record, word);
  record.resize(device::RECORD_CRC, 0x5A);
  device::AppendWord(record, device::CrcOf(record));
  return record;
}

struct FlashImage {
  std::uint8_t content;  ///< of the firmware
  std::uint32_t size;    ///< of the firmware
  std::uint32_t image1 = IMAGE1;
  std::uint8_t invariant = 0x77;

  std::string Text() const {
    device::Bytes invariant_sector(0x40, invariant);
    std::ranges::copy(device::WordBytes(device::VALID_SIGNATURE),
                      invariant_sector.begin() + device::FAILSAFE_MARKER);
    return common::Text(
        "DEVICE_TYPE RV52100\nPS 0 400 0\nPS 1 800 0\n"
        "SIGNATURE 0 408 0\nSIGNATURE 1 808 0\nIMAGE 0 c00 0\nIMAGE 1 ",
        std::hex, image1, " 0\nREPLACE CRC 400 0 500 0 504 0\nREPLACE CRC 800 0 900 0 904 0\n",
        SectionText("INVARIANT", 0, invariant_sector),
        SectionText("PS0", PS0, PointerRecord(IMAGE0, size, device::VALID_SIGNATURE)),
        SectionText("PS1", PS1, PointerRecord(image1, size, 0xFFFFFFFF)),
        SectionText("FIRMWARE", IMAGE0, device::Bytes(size, content)));
  }
};

std::string NewFlashText() {
  return "REPLACE GUID C00 0\nREPLACE BSN C08 0\nREPLACE VSD C48 0\n"
         "REPLACE CRC C00 0 D14 0 D18 0\n"
         "REPLACE GUID 1400 0\nREPLACE BSN 1408 0\nREPLACE VSD 1448 0\n"
         "REPLACE CRC 1400 0 1514 0 1518 0\n" +
         FlashImage{.content = 0x22, .size = NEW_SIZE}.Text();
}

enum class Slot { BLANK, INVALID, VALID };

}  // namespace

struct MatrixBurn::FlashState {
  const char* name;
  Slot slots[2];
  std::uint32_t second_addr = IMAGE1;  ///< of the old second image
  bool other_invariant = false;
  const char* refusal = "";
  bool has_marker = true;
};

MatrixBurn::MatrixBurn(const common::ScratchFolder& folder, const std::string& name,
                       const std::string& text)
    : _name(name),
      _file(folder.Write(name + ".img", text)),
      _image(device::ParseImage(text, name)) {}

sim::Device& MatrixBurn::AddDevice(Guid guid, std::uint32_t sector_size) {
  sim::Device device;
  device.node_guid = guid;
  device.port_guids = {guid + 1, guid + 2};
  device.sys_guid = guid + 0xF;
  device.declared_ports = 2;
  device.bsn.assign(sim::BSN_SIZE, static_cast<std::uint8_t>(0xB0 + DeviceByte(guid)));
  device.vsd.assign(sim::VSD_SIZE, static_cast<std::uint8_t>(0xD0 + DeviceByte(guid)));
  device.kind = sector_size == 0 ? device::MemoryKind::EEPROM : device::MemoryKind::FLASH;
  device.chips.try_emplace(std::uint8_t{0},
                           sim::Chip(std::make_unique<sim::Cells>(MEMORY_SIZE), sector_size));
  _facts.devices = static_cast<std::uint32_t>(_start.Devices().size()) + 1;
  sim::Device& added = _start.Add(std::move(device));
  added.chips.at(0).Load(0, device::Bytes(MEMORY_SIZE, sector_size == 0 ? 0xEE : 0xFF));
  return added;
}

void MatrixBurn::Fill(Guid guid, const device::Image& image, const device::FillPart& part) {
  sim::Device& device = *_start.Find(guid);
  device::Memory memory = MemoryOf(device, image);
  device::Burn(image, device::BurnKind::FAILSAFE, IdentityOf(device)).Fill(memory, part);
  LoadMemory(device, image, memory);
}

/// A record whose sum is right and that is marked invalid all the same.
void MatrixBurn::MarkFirstInvalid(Guid guid) {
  sim::Device& device = *_start.Find(guid);
  device::Memory memory = MemoryOf(device, _image);
  memory.bytes[device::FIRST_INVALID_MARK] = 1;
  --memory.bytes[device::BOOT_RECORD_SIZE - 1];
  LoadMemory(device, _image, memory);
}

void MatrixBurn::PrepareJudge(Guid guid, const device::Image& old_image) {
  const sim::Device& device = *_start.Find(guid);
  const device::Memory memory = MemoryOf(device, _image);
  device::Judge judge(device::LayoutOf(_image, memory.sector_size).value(), memory.bytes);
  const device::Identity identity = IdentityOf(device);
  if (!judge.AddKnownImage(old_image, identity, memory, device::Whole::OLD) ||
      !judge.AddKnownImage(_image, identity, memory, device::Whole::NEW,
                           device::Origin::FAILSAFE_BURN)) {
    throw std::logic_error(_name +
                           ": the old and the new image have their slots in different places");
  }
  _judges.emplace(guid, std::move(judge));
}

std::unique_ptr<MatrixBurn> MatrixBurn::Generic(const common::ScratchFolder& folder) {
  std::unique_ptr<MatrixBurn> burn(new MatrixBurn(folder, "generic", GenericText()));
  burn->_switches = {"-m", "6", "-g", "100,200,300"};
  burn->_server_type = "I2C";
  burn->_facts.has_guids_field = true;
  for (const Guid guid : {0x100u, 0x200u, 0x300u}) {
    burn->AddDevice(guid, 0);
  }
  return burn;
}

std::unique_ptr<MatrixBurn> MatrixBurn::Rv61300(const common::ScratchFolder& folder) {
  std::unique_ptr<MatrixBurn> burn(new MatrixBurn(folder, "rv61300", EepromText(0x22)));
  const device::Image old_image = device::ParseImage(EepromText(0x11), "old");
  constexpr Guid MARKED = 0x500;
  burn->_switches = {"-m", "7", "-g", "100,200,300,400,500"};
  burn->_server_type = "I2C";
  const struct {
    Guid guid;
    bool is_valid[2];
  } devices[] = {{0x100, {true, true}},
                 {0x200, {false, true}},
                 {0x300, {true, false}},
                 {0x400, {false, false}},
                 {MARKED, {true, false}}};
  for (const auto& [guid, is_valid] : devices) {
    burn->AddDevice(guid, 0);
    for (const std::uint32_t slot : {0u, 1u}) {
      burn->Fill(guid, old_image, {.slot = slot, .is_valid = is_valid[slot]});
    }
    if (guid == MARKED) burn->MarkFirstInvalid(guid);
    burn->PrepareJudge(guid, old_image);
  }
  burn->_refused = {{0x400, "Both images are invalid - Can't perform failsafe burn."},
                    {MARKED, "Both images are invalid - Can't perform failsafe burn."}};
  burn->_untouched = {0x400, MARKED};
  return burn;
}

std::unique_ptr<MatrixBurn> MatrixBurn::Rv52100(const common::ScratchFolder& folder,
                                                const FlashState& state) {
  constexpr Guid GUID = 0x100;
  std::unique_ptr<MatrixBurn> burn(
      new MatrixBurn(folder, std::string("rv52100-") + state.name, NewFlashText()));
  burn->_rewrites_invariant = state.other_invariant;
  const FlashImage old{.content = 0x11,
                       .size = OLD_SIZE,
                       .image1 = state.second_addr,
                       .invariant = static_cast<std::uint8_t>(state.other_invariant ? 0x66 : 0x77)};
  const device::Image old_image = device::ParseImage(old.Text(), "old");
  burn->_switches = {"-m", "9", "-g", "100"};
  burn->AddDevice(GUID, SECTOR);
  for (const std::uint32_t slot : {0u, 1u}) {
    const Slot content = state.slots[slot];
    burn->_facts.is_signed[slot] = content == Slot::VALID;
    if (content == Slot::BLANK) continue;
    burn->Fill(GUID, old_image, {.slot = slot, .is_valid = content == Slot::VALID});
  }
  if (!state.has_marker)
    burn->_start.Find(GUID)->chips.at(0).Load(device::FAILSAFE_MARKER, device::Bytes(4, 0));
  if (*state.refusal != '\0') {
    burn->_refused = {{GUID, state.refusal}};
    burn->_untouched = {GUID};
  }
  burn->PrepareJudge(GUID, old_image);
  return burn;
}

std::vector<std::unique_ptr<MatrixBurn>> MatrixBurn::All(const common::ScratchFolder& folder) {
  static constexpr FlashState STATES[] = {
      {"both-valid", {Slot::VALID, Slot::VALID}},
      {"first-only", {Slot::VALID, Slot::BLANK}},
      {"first-second-invalid", {Slot::VALID, Slot::INVALID}},
      {"second-only", {Slot::BLANK, Slot::VALID}},
      {"second-first-invalid", {Slot::INVALID, Slot::VALID}},
      {"second-moved", {Slot::BLANK, Slot::VALID}, IN_THE_WAY},
      {"invariant-changed", {Slot::VALID, Slot::BLANK}, IMAGE1, true},
      {.name = "none-valid",
       .slots = {Slot::INVALID, Slot::INVALID},
       .refusal = "Both images are invalid. Can't perform failsafe burn"},
      {.name = "no-marker",
       .slots = {Slot::VALID, Slot::VALID},
       .refusal = "Image on device is not failsafe. Can't perform failsafe burn",
       .has_marker = false},
  };
  std::vector<std::unique_ptr<MatrixBurn>> burns;
  for (const bool is_served : {false, true}) {
    const auto add = [&](std::unique_ptr<MatrixBurn> burn) {
      burn->_is_served = is_served;
      if (is_served) burn->_name = "served-" + burn->_name;
      burns.push_back(std::move(burn));
    };
    add(Generic(folder));
    for (const FlashState& state : STATES) add(Rv52100(folder, state));
    add(Rv61300(folder));
  }
  return burns;
}

std::unique_ptr<Responder> MatrixBurn::Answering(sim::Fabric& fabric) const {
  if (_is_served) return std::make_unique<ServedFabric>(fabric);
  return std::make_unique<FabricResponder>(fabric);
}

sim::Fabric MatrixBurn::Start() const { return Repaired(_start); }

sim::Fabric MatrixBurn::Repaired(const sim::Fabric& fabric) const {
  sim::Fabric copy;
  copy.facts.type = _server_type;
  for (const auto& [guid, device] : fabric.Devices()) copy.CopyDevice(device);
  return copy;
}

std::vector<std::string> MatrixBurn::Words(const std::string& program) const {
  std::vector<std::string> words = {program, "-f", _file};
  words.insert(words.end(), _switches.begin(), _switches.end());
  return words;
}

RunVerdict MatrixBurn::Judge(const sim::Device& device, device::BurnKind kind) const {
  RunVerdict result;
  const Guid guid = device.node_guid;
  const device::Bytes memory = MemoryOf(device, _image).bytes;
  const device::Memory at_start = MemoryOf(*_start.Find(guid), _image);
  if (!IsFailsafe()) {
    const device::Burn burn(_image, device::BurnKind::PLAIN, IdentityOf(device));
    result.is_burnt = result.is_safe = memory == burn.After(at_start).memory.bytes;
    result.text = result.is_burnt ? "whole" : "not as burnt";
    result.row = "RV61100, and any burn with `-n`";
    return result;
  }
  if (_untouched.contains(guid)) {
    result.is_burnt = result.is_safe = memory == at_start.bytes;
    result.text = result.is_burnt ? "unchanged" : "changed, which it must not be";
    return result;
  }
  device::Judge judge = _judges.at(guid);
  judge.SetAll(memory);
  if (kind == device::BurnKind::PLAIN) {
    judge.AddKnownImage(_image, IdentityOf(device), MemoryOf(device, _image), device::Whole::NEW,
                        device::Origin::PLAIN_BURN);
  }
  const device::Verdict verdict = judge.CurrentVerdict();
  result.text = Describe(verdict);
  result.is_safe = verdict.IsSafe();
  result.is_burnt = verdict.IsBurnt(_image.Slots());
  if (!device.chips.at(0).Violations().empty()) {
    result.is_burnt = result.is_safe = false;
    result.text += ", bits set without an erase";
  }
  if (_rewrites_invariant && verdict.IsSafeButForInvariantSector()) result.row = INVARIANT_ROW;
  return result;
}

std::string MatrixBurn::OrderError(const sim::Device& before,
                                   const std::vector<device::MemoryChange>& changes) const {
  std::vector<device::Step> steps;
  if (!_untouched.contains(before.node_guid)) {
    const device::BurnKind kind =
        IsFailsafe() ? device::BurnKind::FAILSAFE : device::BurnKind::PLAIN;
    const device::Burn burn(_image, kind, IdentityOf(before));
    const device::Memory memory = MemoryOf(before, _image);
    steps = burn.Steps(memory, burn.Observe(memory));
  }
  return device::OrderError(steps, changes);
}

}  // namespace trials
