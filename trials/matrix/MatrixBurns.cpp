#include "trials/matrix/MatrixBurns.h"

#include <algorithm>
#include <utility>

#include "sim/LocalRom.h"
#include "tests/support/slot_images.h"

namespace trials {

namespace {

constexpr u_int32_t MEMORY_SIZE = FLASH_SIZE;

DataVec Memory(const sim::Device& device) {
  const auto bytes = device.chips.at(0).Bytes();
  return DataVec(bytes.begin(), bytes.end());
}

/// A byte that differs from device to device.
u_int8_t DeviceByte(Guid guid) { return static_cast<u_int8_t>(guid >> 8); }

// ---- Generic: GUIDs of all kinds and a CRC over them in the first section, nothing in the second

constexpr char GENERIC_HEAD[] =
    "DEVICE_TYPE RV61100\n"
    "REPLACE GUIDS 0 0\n"
    "REPLACE GUID 20 0\n"
    "REPLACE SYSGUID 28 0\n"
    "REPLACE CRC 0 0 3C 0 40 0\n";

DataVec GenericContents(const sim::Device& device) {
  DataVec bytes;
  bytes << device.node_guid << device.port_guids[0] << device.port_guids[1] << device.sys_guid;
  bytes << device.node_guid << device.sys_guid;
  bytes.resize(0x40, 0x22);
  bytes << ReferenceCrc(bytes);
  bytes.resize(0x60, 0x22);
  bytes.resize(0x80, 0xEE);  // what the section leaves as it was
  bytes.resize(0x90, 0x33);
  bytes.resize(MEMORY_SIZE, 0xEE);
  return bytes;
}

// ---- RV61300: two slots, a board serial number and a GUID in each

std::string EepromImageText(u_int8_t content) {
  DataVec first = EepromData(content);
  first.resize(0x60, content);
  return "REPLACE GUID 10 0\nREPLACE BSN 18 0\nREPLACE CRC 10 0 54 0 58 0\n"
         "REPLACE GUID 210 0\nREPLACE BSN 218 0\nREPLACE CRC 210 0 254 0 258 0\n"
         "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 200 0\n" +
         Section("A", 0, first) + Section("B", 0x80, DataVec(0x10, content));
}

// ---- RV52100: the small flash; a new image of two sectors

constexpr u_int32_t NEW_SIZE = 0x410;
constexpr u_int32_t OLD_SIZE = 0x110;
/// Address of an old second image that a new first image would overwrite.
constexpr u_int32_t IN_THE_WAY = 0x1000;

std::string NewFlashText() {
  return "REPLACE GUID C00 0\nREPLACE BSN C08 0\nREPLACE VSD C48 0\n"
         "REPLACE CRC C00 0 D14 0 D18 0\n"
         "REPLACE GUID 1400 0\nREPLACE BSN 1408 0\nREPLACE VSD 1448 0\n"
         "REPLACE CRC 1400 0 1514 0 1518 0\n" +
         FlashImage{.content = 0x22, .size = NEW_SIZE}.Text();
}

enum class Slot { BLANK, INVALID, VALID };

constexpr char INVARIANT_ROW[] = "rewriting the invariant sector";

}  // namespace

struct MatrixBurn::FlashState {
  const char* name;
  Slot slots[2];
  u_int32_t second_addr = IMAGE1;  ///< of the old second image
  bool other_invariant = false;
  const char* refusal = "";
  bool has_marker = true;
};

sim::Device& MatrixBurn::AddDevice(Guid guid, u_int32_t sector_size) {
  sim::Device device;
  device.node_guid = guid;
  device.port_guids = {guid + 1, guid + 2};
  device.sys_guid = guid + 0xF;
  device.declared_ports = 2;
  device.bsn.assign(sim::BSN_SIZE, static_cast<u_int8_t>(0xB0 + DeviceByte(guid)));
  device.vsd.assign(sim::VSD_SIZE, static_cast<u_int8_t>(0xD0 + DeviceByte(guid)));
  device.kind = sector_size == 0 ? sim::MemoryKind::I2C : sim::MemoryKind::FLASH;
  device.chips.try_emplace(u_int8_t{0},
                           sim::Chip(std::make_unique<sim::Cells>(MEMORY_SIZE), sector_size));
  _facts.devices = static_cast<u_int32_t>(_start.Devices().size()) + 1;
  sim::Device& added = _start.Add(std::move(device));
  added.chips.at(0).Load(0, DataVec(MEMORY_SIZE, sector_size == 0 ? 0xEE : 0xFF));
  return added;
}

void MatrixBurn::PrepareJudge(Guid guid, const std::string& old_image) {
  const sim::Device& device = *_start.Find(guid);
  FwImage image;
  {
    const sim::QuietConsole quiet;
    image.Open(_image.c_str(), READ);
  }
  const u_int32_t sector_size = device.chips.at(0).SectorSize();
  sim::BootJudge judge(sim::BootLayout(image, sector_size), Memory(device));
  judge.KnowImageFile(device, old_image, sim::SlotState::OLD);
  judge.KnowImageFile(device, _image, sim::SlotState::NEW);
  _judges.emplace(guid, std::move(judge));
}

std::unique_ptr<MatrixBurn> MatrixBurn::Generic(const TemporaryFolder& folder) {
  std::unique_ptr<MatrixBurn> burn(new MatrixBurn);
  burn->_name = "generic";
  burn->_image = folder.Write("generic.img", GENERIC_HEAD + Section("A", 0, DataVec(0x60, 0x22)) +
                                                 Section("B", 0x80, DataVec(0x10, 0x33)));
  burn->_switches = {"-m", "6", "-g", "100,200,300"};
  burn->_server_type = "I2C";
  burn->_facts.has_guids_field = true;
  for (const Guid guid : {0x100u, 0x200u, 0x300u}) {
    burn->_contents[guid] = GenericContents(burn->AddDevice(guid, 0));
  }
  return burn;
}

std::unique_ptr<MatrixBurn> MatrixBurn::Rv61300(const TemporaryFolder& folder) {
  std::unique_ptr<MatrixBurn> burn(new MatrixBurn);
  burn->_name = "rv61300";
  burn->_algorithm = Algorithm::RV61300;
  burn->_image = folder.Write("rv61300.img", EepromImageText(0x22));
  const std::string old_image = folder.Write("rv61300-old.img", EepromImageText(0x11));
  burn->_switches = {"-m", "7", "-g", "100,200,300,400"};
  burn->_server_type = "I2C";
  const struct {
    Guid guid;
    bool is_valid[2];
  } devices[] = {{0x100, {true, true}},
                 {0x200, {false, true}},
                 {0x300, {true, false}},
                 {0x400, {false, false}}};
  for (const auto& [guid, is_valid] : devices) {
    burn->AddDevice(guid, 0);
    for (const u_int32_t slot : {0u, 1u}) {
      BurnInto(burn->_start, guid, old_image, {.slot = slot, .is_valid = is_valid[slot]});
    }
    burn->PrepareJudge(guid, old_image);
  }
  burn->_refused = {{0x400, "Both images are invalid - Can't perform failsafe burn."}};
  burn->_untouched = {0x400};
  return burn;
}

std::unique_ptr<MatrixBurn> MatrixBurn::Rv52100(const TemporaryFolder& folder,
                                                const FlashState& state) {
  constexpr Guid GUID = 0x100;
  std::unique_ptr<MatrixBurn> burn(new MatrixBurn);
  burn->_name = std::string("rv52100-") + state.name;
  burn->_algorithm = Algorithm::RV52100;
  burn->_rewrites_invariant = state.other_invariant;
  burn->_image = folder.Write("rv52100.img", NewFlashText());
  const FlashImage old_image{
      .content = 0x11,
      .size = OLD_SIZE,
      .image1 = state.second_addr,
      .invariant = static_cast<u_int8_t>(state.other_invariant ? 0x66 : 0x77)};
  const std::string old_file = folder.Write(burn->_name + "-old.img", old_image.Text());
  burn->_switches = {"-m", "9", "-g", "100"};
  burn->AddDevice(GUID, SECTOR);
  for (const u_int32_t slot : {0u, 1u}) {
    const Slot content = state.slots[slot];
    burn->_facts.is_signed[slot] = content == Slot::VALID;
    if (content == Slot::BLANK) continue;
    BurnInto(burn->_start, GUID, old_file, {.slot = slot, .is_valid = content == Slot::VALID});
  }
  if (!state.has_marker) burn->_start.Find(GUID)->chips.at(0).Load(0x24, DataVec(4, 0));
  if (*state.refusal != '\0') {
    burn->_refused = {{GUID, state.refusal}};
    burn->_untouched = {GUID};
  }
  burn->PrepareJudge(GUID, old_file);
  return burn;
}

std::vector<std::unique_ptr<MatrixBurn>> MatrixBurn::All(const TemporaryFolder& folder) {
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
  burns.push_back(Generic(folder));
  for (const FlashState& state : STATES) burns.push_back(Rv52100(folder, state));
  burns.push_back(Rv61300(folder));
  return burns;
}

sim::Fabric MatrixBurn::Start() const { return Repaired(_start); }

sim::Fabric MatrixBurn::Repaired(const sim::Fabric& fabric) const {
  sim::Fabric copy;
  copy.facts.type = _server_type;
  for (const auto& [guid, device] : fabric.Devices()) copy.CopyDevice(device);
  return copy;
}

std::vector<std::string> MatrixBurn::Words(const std::string& program) const {
  std::vector<std::string> words = {program, "-f", _image};
  words.insert(words.end(), _switches.begin(), _switches.end());
  return words;
}

Verdict MatrixBurn::Judge(const sim::Device& device) const {
  Verdict result;
  const Guid guid = device.node_guid;
  const DataVec memory = Memory(device);
  if (_algorithm == Algorithm::GENERIC) {
    result.is_whole = result.boots = memory == _contents.at(guid);
    result.text = result.is_whole ? "whole" : "not as burnt";
    result.row = "RV61100, and any burn with `-n`";
    return result;
  }
  if (_untouched.contains(guid)) {
    result.is_whole = result.boots = memory == Memory(*_start.Find(guid));
    result.text = result.is_whole ? "unchanged" : "changed, which it must not be";
    return result;
  }
  sim::BootJudge judge = _judges.at(guid);
  for (u_int32_t addr = 0; addr < memory.size(); ++addr) judge.Set(addr, memory[addr]);
  const sim::BootVerdict verdict = judge.Verdict();
  using enum sim::SlotState;
  const auto count = [&verdict](sim::SlotState state) {
    return std::ranges::count(verdict.slots, state);
  };
  result.text = Describe(verdict);
  result.boots = verdict.Boots() && count(BROKEN) == 0;
  result.is_whole =
      verdict.invariant_is_whole &&
      (_algorithm == Algorithm::RV61300 ? count(NEW) == 2 : count(NEW) == 1 && count(INVALID) == 1);
  if (!device.chips.at(0).Violations().empty()) {
    result.is_whole = result.boots = false;
    result.text += ", bits set without an erase";
  }
  const bool has_a_slot = count(BROKEN) == 0 && count(OLD) + count(NEW) > 0;
  if (_rewrites_invariant && has_a_slot && !verdict.invariant_is_whole) result.row = INVARIANT_ROW;
  return result;
}

}  // namespace trials
