#include "Boot.h"

#include <algorithm>
#include <numeric>

#include "BurnAlgorithm.h"
#include "LocalRom.h"
#include "utils.h"

namespace sim {

namespace {

constexpr u_int32_t VALID_SIGNATURE = 0xCB84CB84;
constexpr u_int32_t PS_SIGNATURE_OFFSET = 8;
constexpr u_int32_t PS_CRC_OFFSET = 260;
constexpr u_int32_t PS_RECORD_SIZE = 264;
constexpr u_int32_t BOOT_RECORD_SIZE = 16;
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
  has_pointer_sectors = image.DevType() != RV61300;
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

DataVec BootJudge::Part(const DataVec& memory, u_int32_t addr, u_int32_t size) const {
  const auto start = memory.begin() + addr;
  return DataVec(start, start + size);
}

u_int32_t BootJudge::Word(const DataVec& memory, u_int32_t addr) const {
  return u_int32_t{memory.at(addr)} << 24 | u_int32_t{memory.at(addr + 1)} << 16 |
         u_int32_t{memory.at(addr + 2)} << 8 | memory.at(addr + 3);
}

void BootJudge::Add(Known known) {
  for (const auto& [addr, bytes] : known.ranges) {
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
      // A slot reaches as far as the next one begins.
      const u_int32_t start = _layout.records[slot];
      const u_int64_t end = std::min<u_int64_t>(
          u_int64_t{start} + _layout.records[1] - _layout.records[0], _memory.size());
      const auto size = static_cast<u_int32_t>(end - start);
      Add({slot, SlotState::OLD, 0, 0, {{start, Part(_memory, start, size)}}});
      continue;
    }
    const u_int32_t addr = Word(_memory, _layout.records[slot]);
    const u_int32_t size = Word(_memory, _layout.records[slot] + 4);
    if (!Fits(addr, size)) continue;
    Add({slot, SlotState::OLD, addr, size, {{addr, Part(_memory, addr, size)}}});
    if (slot == 1) AddMoved(SlotState::OLD, _memory, addr, size);
  }
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

void BootJudge::KnowNewImage(const FwImage& image, const DataVec& memory, u_int32_t slot) {
  Known known{slot, SlotState::NEW, 0, 0, {}};
  std::vector<u_int32_t> addrs;
  image.GetImageSectionsAddr(addrs);
  for (const u_int32_t addr : addrs) {
    const u_int32_t at = addr - image.GetImageAddr(0) + image.GetImageAddr(slot);
    const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
    if (Fits(at, size)) known.ranges.emplace_back(at, Part(memory, at, size));
  }
  if (_layout.has_pointer_sectors) {
    known.addr = Word(memory, _layout.records[slot]);
    known.size = Word(memory, _layout.records[slot] + 4);
    if (!Fits(known.addr, known.size)) return;
    known.ranges.emplace_back(known.addr, Part(memory, known.addr, known.size));
    if (slot == 1) AddMoved(SlotState::NEW, memory, known.addr, known.size);
  }
  Add(std::move(known));
  if (HasSector(_layout)) {
    Add({INVARIANT, SlotState::NEW, 0, 0, {{0, Part(memory, 0, _layout.sector_size)}}});
  }
}

void BootJudge::CallKnownOld() {
  for (Known& known : _known) known.state = SlotState::OLD;
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

bool BootJudge::IsValid(u_int32_t slot) const {
  if (_is_judged[slot]) return _is_valid[slot];
  _is_judged[slot] = true;
  bool& is_valid = _is_valid[slot];
  is_valid = false;
  const u_int32_t record = _layout.records[slot];
  if (_layout.has_pointer_sectors) {
    if (!Fits(record, PS_RECORD_SIZE)) return false;
    if (Word(_memory, record + PS_SIGNATURE_OFFSET) != VALID_SIGNATURE) return false;
    Crc16 crc(false);
    for (u_int32_t i = 0; i < PS_CRC_OFFSET; i += 4) crc << Word(_memory, record + i);
    crc.finish();
    is_valid = Word(_memory, record + PS_CRC_OFFSET) == crc.get();
  } else {
    if (!Fits(record, BOOT_RECORD_SIZE)) return false;
    const DataVec bytes = Part(_memory, record, BOOT_RECORD_SIZE);
    const u_int32_t sum = std::accumulate(bytes.begin(), bytes.end(), u_int32_t{0});
    is_valid = sum % 256 == 0xAB && !(slot == 0 && bytes[7] == 1);
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

BootVerdict JudgeByImages(const Fabric& fabric, Guid guid, const std::vector<std::string>& images) {
  const Device& device = *fabric.Find(guid);
  const u_int32_t sector_size = device.chips.begin()->second.SectorSize();
  std::optional<BootLayout> layout;
  std::optional<BootJudge> judge;
  for (const std::string& file : images) {
    FwImage image;
    {
      const QuietConsole quiet;
      image.Open(file.c_str(), READ);
    }
    const auto& conv = *static_cast<const FwImage::Conv*>(image.GetAddressConvertor());
    const BootLayout its_layout(image, sector_size);
    if (!layout) {
      layout = its_layout;
      judge.emplace(*layout, LinearMemory(device, conv));
    } else if (its_layout != *layout) {
      ThrowError(file + " keeps its slots elsewhere than " + images.front());
    }
    judge->CallKnownOld();
    for (u_int32_t slot = 0; slot < FwImage::SLOTS; ++slot) {
      Fabric scratch;
      scratch.CopyDevice(device);
      scratch.Find(guid)->has_power = true;
      try {
        BurnInto(scratch, guid, file, {.slot = slot, .is_valid = true});
      } catch (const BraidError&) {
        continue;  // an image that does not fit into a slot is never whole there
      }
      judge->KnowNewImage(image, LinearMemory(*scratch.Find(guid), conv), slot);
    }
  }
  if (!judge) ThrowError("no image to judge it by");
  return judge->Verdict();
}

std::string BootReport(const Fabric& fabric, const std::vector<std::string>& new_images) {
  std::string report;
  for (const auto& [guid, device] : fabric.Devices()) {
    std::vector<std::string> images = device.images;
    images.insert(images.end(), new_images.begin(), new_images.end());
    report += HexGuid(guid) + " ";
    try {
      report += Describe(JudgeByImages(fabric, guid, images));
    } catch (const BraidError& error) {
      report += "not judged: " + error.Des();
    }
    report += "\n";
  }
  return report;
}

}  // namespace sim
