#include "sim/Boot.h"

#include <algorithm>
#include <numeric>

#include "sim/LocalRom.h"
#include "src/utils.h"

namespace sim {

namespace {

constexpr u_int32_t FIRST_IMAGE_SECTOR = 3;  ///< where a moved image goes

const char* Name(SlotState state) {
  switch (state) {
    case SlotState::INVALID:
      return "invalid";
    case SlotState::OLD:
      return "old";
    case SlotState::NEW:
      return "new";
    case SlotState::BROKEN:
      return "broken";
  }
  return "?";
}

bool HasSector(const BootLayout& layout) { return layout.sector_size != 0; }

}  // namespace

bool BootVerdict::Boots() const {
  return invariant_is_whole && std::ranges::any_of(slots, [](SlotState state) {
           return state == SlotState::OLD || state == SlotState::NEW;
         });
}

bool BootVerdict::BootsNew() const {
  return invariant_is_whole && std::ranges::count(slots, SlotState::NEW) > 0;
}

std::string Describe(const BootVerdict& verdict) {
  const bool is_old = std::ranges::count(verdict.slots, SlotState::OLD) > 0;
  const char* image = !verdict.BootsNew() ? "old" : is_old ? "old or new" : "new";
  return Text(verdict.Boots() ? Text("boots ", image) : "DOES NOT BOOT", ": slot 0 ",
              Name(verdict.slots[0]), ", slot 1 ", Name(verdict.slots[1]),
              verdict.invariant_is_whole ? "" : ", invariant sector broken");
}

BootLayout::BootLayout(const FwImage& image, u_int32_t sector) : sector_size(sector) {
  const Family family = FamilyOf(image.DevType());
  if (family != Family::POINTER_SECTORS && family != Family::BOOT_RECORDS) {
    ThrowError(image.GetFileName() + " is for a device without two image slots");
  }
  has_pointer_sectors = family == Family::POINTER_SECTORS;
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
    records[slot] = has_pointer_sectors ? image.GetPsAddr(slot) : image.GetImageAddr(slot);
  }
}

DataVec LinearMemory(const Device& device, const FwImage::Conv& conv) {
  DataVec memory;
  const auto append = [&](u_int8_t address, std::size_t size) {
    const auto chip = device.chips.find(address);
    const std::size_t start = memory.size();
    memory.resize(start + size, 0xFF);
    if (chip == device.chips.end()) return;
    const auto bytes = chip->second.Bytes();
    std::ranges::copy(bytes.first(std::min(size, bytes.size())),
                      memory.begin() + static_cast<std::ptrdiff_t>(start));
  };
  if (conv._devmap.empty() && device.chips.contains(0)) {
    append(0, device.chips.at(0).Size());
  }
  for (const EeLoc& mapped : conv._devmap) append(mapped.dev, mapped.offset);
  return memory;
}

BootJudge::BootJudge(const BootLayout& layout, DataVec memory)
    : _layout(layout), _memory(std::move(memory)) {}

DataVec BootJudge::Part(const DataVec& memory, u_int64_t addr, u_int64_t size) {
  if (addr + size > memory.size()) {
    ThrowError(Text("The image's slots lie past the ", memory.size(), " bytes of its device map"));
  }
  const auto start = memory.begin() + static_cast<std::ptrdiff_t>(addr);
  return DataVec(start, start + static_cast<std::ptrdiff_t>(size));
}

u_int32_t BootJudge::Word(const DataVec& memory, u_int32_t addr) const {
  return u_int32_t{memory.at(addr)} << 24 | u_int32_t{memory.at(addr + 1)} << 16 |
         u_int32_t{memory.at(addr + 2)} << 8 | memory.at(addr + 3);
}

void BootJudge::Add(Known known) {
  for (const auto& [addr, bytes] : known.ranges) {
    if (!Fits(addr, bytes.size())) return;  // another image's device map: never whole in this one
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (_memory[addr + i] != bytes[i]) ++known.wrong;
    }
  }
  _known.push_back(std::move(known));
}

void BootJudge::KnowPresentImages() {
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
    if (!IsValid(slot)) continue;
    if (!_layout.has_pointer_sectors) {
      // A slot reaches as far as the other one begins, or to the end.
      const u_int64_t start = _layout.records[slot];
      const u_int64_t other = _layout.records[1 - slot];
      const u_int64_t end = other > start ? other : _memory.size();
      const auto size = static_cast<u_int32_t>(end - start);
      Add({slot, SlotState::OLD, 0, 0, {{_layout.records[slot], Part(_memory, start, size)}}});
      continue;
    }
    const u_int32_t addr = Word(_memory, _layout.records[slot]);
    const u_int32_t size = Word(_memory, _layout.records[slot] + 4);
    if (!Fits(addr, size)) continue;
    Add({slot, SlotState::OLD, addr, size, {{addr, Part(_memory, addr, size)}}});
    if (slot == 1) AddMoved(SlotState::OLD, _memory, addr, size);
  }
}

void BootJudge::KnowPresentInvariantSector() {
  if (HasSector(_layout)) {
    Add({INVARIANT, SlotState::OLD, 0, 0, {{0, Part(_memory, 0, _layout.sector_size)}}});
  }
}

void BootJudge::AddMoved(SlotState state, const DataVec& memory, u_int32_t addr, u_int32_t size) {
  const u_int32_t moved_to = FIRST_IMAGE_SECTOR * _layout.sector_size;
  if (Fits(moved_to, size)) {
    Add({0, state, moved_to, size, {{moved_to, Part(memory, addr, size)}}});
  }
}

void BootJudge::KnowImage(const FwImage& image, const DataVec& memory, u_int32_t slot,
                          SlotState state) {
  Known known{slot, state, 0, 0, {}};
  std::vector<u_int32_t> addrs;
  image.GetImageSectionsAddr(addrs);
  for (const u_int32_t addr : addrs) {
    const u_int32_t at = addr - image.GetImageAddr(0) + image.GetImageAddr(slot);
    known.ranges.emplace_back(at, Part(memory, at, image.GetSection(addr)->data.size()));
  }
  if (_layout.has_pointer_sectors) {
    const DataVec record = Part(memory, _layout.records[slot], PS_RECORD_SIZE);
    known.addr = Word(record, 0);
    known.size = Word(record, 4);
    known.ranges.emplace_back(known.addr, Part(memory, known.addr, known.size));
    if (slot == 1) AddMoved(state, memory, known.addr, known.size);
  }
  Add(std::move(known));
  if (HasSector(_layout)) {
    Add({INVARIANT, state, 0, 0, {{0, Part(memory, 0, _layout.sector_size)}}});
  }
}

void BootJudge::KnowImageFile(const Device& device, const std::string& file, SlotState state) {
  FwImage image;
  {
    const QuietConsole quiet;
    image.Open(file.c_str(), READ);
  }
  if (BootLayout(image, _layout.sector_size) != _layout) {
    ThrowError(file + " keeps its slots elsewhere");
  }
  const FwImage::Conv& conv = MapOf(image);
  const auto know = [&](const ImagePart& part, u_int32_t slot) {
    Fabric scratch;
    scratch.CopyDevice(device);
    scratch.Find(device.node_guid)->has_power = true;
    try {
      BurnInto(scratch, device.node_guid, file, part);
      KnowImage(image, LinearMemory(*scratch.Find(device.node_guid), conv), slot, state);
    } catch (const BraidError&) {
      // What does not fit there is never whole there.
    }
  };
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot)
    know({.slot = slot, .is_valid = true}, slot);
  know({}, 0);
}

void BootJudge::Set(u_int32_t addr, u_int8_t byte) {
  if (addr >= _memory.size() || _memory[addr] == byte) return;
  for (Known& known : _known) {
    for (const auto& [start, bytes] : known.ranges) {
      if (addr < start || addr - start >= bytes.size()) continue;
      const u_int8_t right = bytes[addr - start];
      if (_memory[addr] == right) ++known.wrong;
      if (byte == right) --known.wrong;
    }
  }
  _memory[addr] = byte;
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
    const u_int32_t start = _layout.records[slot];
    if (addr >= start && addr - start < PS_RECORD_SIZE) _is_judged[slot] = false;
  }
}

bool BootJudge::IsSigned(u_int32_t slot) const {
  const u_int32_t record = _layout.records[slot];
  return _layout.has_pointer_sectors && Fits(record, PS_RECORD_SIZE) &&
         Word(_memory, record + PS_SIGNATURE_OFFSET) == VALID_SIGNATURE;
}

bool BootJudge::IsValid(u_int32_t slot) const {
  if (_is_judged[slot]) return _is_valid[slot];
  _is_judged[slot] = true;
  bool& is_valid = _is_valid[slot];
  is_valid = false;
  const u_int32_t record = _layout.records[slot];
  if (_layout.has_pointer_sectors) {
    if (!IsSigned(slot)) return false;
    is_valid = Word(_memory, record + PS_CRC_OFFSET) == CrcOf(Part(_memory, record, PS_CRC_OFFSET));
  } else {
    if (!Fits(record, BOOT_RECORD_SIZE)) return false;
    const DataVec bytes = Part(_memory, record, BOOT_RECORD_SIZE);
    const u_int32_t sum = std::accumulate(bytes.begin(), bytes.end(), u_int32_t{0});
    is_valid = sum % 256 == BOOT_RECORD_SUM && !(slot == 0 && bytes[BOOT_RECORD_MARK] == 1);
  }
  return is_valid;
}

BootVerdict BootJudge::Verdict() const {
  BootVerdict verdict;
  verdict.invariant_is_whole = !HasSector(_layout);
  for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
    verdict.slots[slot] = IsValid(slot) ? SlotState::BROKEN : SlotState::INVALID;
  }
  for (const Known& known : _known) {
    if (known.wrong != 0) continue;
    if (known.slot == INVARIANT) {
      verdict.invariant_is_whole = true;
      continue;
    }
    SlotState& state = verdict.slots[known.slot];
    if (state == SlotState::INVALID || state == SlotState::NEW) continue;
    if (_layout.has_pointer_sectors) {
      const u_int32_t record = _layout.records[known.slot];
      if (Word(_memory, record) != known.addr || Word(_memory, record + 4) != known.size) continue;
    }
    state = known.state;
  }
  return verdict;
}

namespace {

BootVerdict JudgeByImages(const Device& device, const std::vector<std::string>& images) {
  if (device.images.empty() && images.empty()) ThrowError("no image to judge it by");
  FwImage image;
  {
    const QuietConsole quiet;
    image.Open((images.empty() ? device.images : images).back().c_str(), READ);
  }
  BootJudge judge(BootLayout(image, device.chips.begin()->second.SectorSize()),
                  LinearMemory(device, MapOf(image)));
  for (const std::string& file : device.images) judge.KnowImageFile(device, file, SlotState::OLD);
  for (const std::string& file : images) {
    judge.KnowImageFile(device, file, file == images.back() ? SlotState::NEW : SlotState::OLD);
  }
  return judge.Verdict();
}

}  // namespace

std::string BootReport(const Fabric& fabric, const std::vector<std::string>& images) {
  std::string report;
  for (const auto& [guid, device] : fabric.Devices()) {
    report += HexGuid(guid) + " ";
    try {
      const BootVerdict verdict = JudgeByImages(device, images);
      if (images.empty() && std::ranges::count(verdict.slots, SlotState::BROKEN) > 0) {
        report += "not judged: it holds an image that nobody has told of";
      } else {
        report += Describe(verdict);
      }
    } catch (const BraidError& error) {
      report += "not judged: " + error.Des();
    }
    report += "\n";
  }
  return report;
}

}  // namespace sim
