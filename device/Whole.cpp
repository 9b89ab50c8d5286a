#include "device/Whole.h"

#include <algorithm>
#include <optional>

#include "device/Burn.h"
#include "device/Crc.h"

namespace device {

namespace {

const char* Name(const SlotVerdict& slot) {
  if (!slot.boots) return "invalid";
  switch (slot.whole) {
    case Whole::NOT_KNOWN:
      return "broken";
    case Whole::OLD:
      return "old";
    case Whole::NEW:
      return "new";
  }
  return "?";
}

/// [addr, addr + size) of `memory`; nothing where it ends before.
std::optional<Bytes> PartOf(View memory, std::uint64_t addr, std::uint64_t size) {
  if (addr + size > memory.size()) return std::nullopt;
  const View part = memory.subspan(static_cast<std::size_t>(addr), static_cast<std::size_t>(size));
  return Bytes(part.begin(), part.end());
}

}  // namespace

bool Verdict::BootsWhole() const {
  return invariant_is_whole && std::ranges::any_of(slots, &SlotVerdict::BootsWhole);
}

bool Verdict::BootsNew() const {
  return invariant_is_whole && std::ranges::any_of(slots, &SlotVerdict::BootsNew);
}

bool Verdict::HasBroken() const { return std::ranges::any_of(slots, &SlotVerdict::BootsBroken); }

std::size_t Verdict::CountNew() const {
  return static_cast<std::size_t>(std::ranges::count_if(slots, &SlotVerdict::BootsNew));
}

std::size_t Verdict::CountInvalid() const {
  return static_cast<std::size_t>(std::ranges::count(slots, false, &SlotVerdict::boots));
}

std::string Describe(const Verdict& verdict) {
  const bool has_old = std::ranges::any_of(verdict.slots, [](const SlotVerdict& slot) {
    return slot.boots && slot.whole == Whole::OLD;
  });
  const char* image = !verdict.BootsNew() ? "old" : has_old ? "old or new" : "new";
  std::string text = verdict.BootsWhole() ? std::string("boots ") + image : "DOES NOT BOOT";
  text += std::string(": slot 0 ") + Name(verdict.slots[0]) + ", slot 1 " + Name(verdict.slots[1]);
  return text + (verdict.invariant_is_whole ? "" : ", invariant sector broken");
}

Judge::Judge(const BootLayout& layout, device::Bytes memory)
    : _layout(layout), _memory(std::move(memory)) {}

// ---- What is known

void Judge::Add(Known known) {
  for (const auto& [addr, bytes] : known.ranges) {
    if (!Fits(addr, bytes.size())) return;  // another image's device map: never whole in this one
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (_memory[addr + i] != bytes[i]) ++known.wrong;
    }
  }
  _known.push_back(std::move(known));
}

void Judge::KnowPresentImages() {
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    if (!Boots(slot)) continue;
    const std::uint32_t start = _layout.records[slot];
    if (!_layout.HasPointerSectors()) {
      // A slot reaches as far as the other one begins, or to the end.
      const std::uint64_t other = _layout.records[1 - slot];
      const std::uint64_t end = other > start ? other : _memory.size();
      Add({slot, Whole::OLD, {{start, *PartOf(_memory, start, end - start)}}});
      continue;
    }
    const device::Bytes record = *PartOf(_memory, start, POINTER_RECORD_SIZE);
    const std::uint32_t addr = WordAt(record, RECORD_ADDR);
    const auto image = PartOf(_memory, addr, WordAt(record, RECORD_IMAGE_SIZE));
    if (!image) continue;
    Add({slot, Whole::OLD, {{addr, *image}, {start, record}}});
    if (slot == 1) AddMoved(Whole::OLD, _memory, record);
  }
}

void Judge::KnowPresentInvariantSector() { AddInvariantSector(Whole::OLD, _memory); }

void Judge::AddInvariantSector(Whole whole, View memory) {
  if (!HasSectors()) return;
  if (auto sector = PartOf(memory, 0, _layout.sector_size)) {
    Add({INVARIANT, whole, {{0, std::move(*sector)}}});
  }
}

/// The second image that `record` tells of, where a burn moves it out of the way.
void Judge::AddMoved(Whole whole, View memory, View record) {
  const std::uint32_t to = FIRST_IMAGE_SECTOR * _layout.sector_size;
  const auto image = PartOf(memory, WordAt(record, RECORD_ADDR), WordAt(record, RECORD_IMAGE_SIZE));
  if (!image) return;
  device::Bytes moved;
  AppendWord(moved, to);
  AppendWord(moved, WordAt(record, RECORD_IMAGE_SIZE));
  AppendWord(moved, VALID_SIGNATURE);
  const View rest = record.first(RECORD_CRC).subspan(moved.size());
  moved.insert(moved.end(), rest.begin(), rest.end());
  AppendWord(moved, CrcOf(moved));
  Add({0, whole, {{to, *image}, {_layout.records[0], moved}}});
}

/// What `filled` holds of the image in `slot`.
void Judge::AddSlot(const Image& image, const Memory& filled, std::uint32_t slot, Whole whole) {
  Known known{slot, whole, {}};
  const auto add = [&](std::uint32_t addr, std::uint64_t size) {
    auto part = PartOf(filled.bytes, addr, size);
    if (part) known.ranges.emplace_back(addr, std::move(*part));
    return part.has_value();
  };
  for (const Section* section : image.SlotSections()) {
    const std::uint32_t addr = section->addr - *image.slots[0].image + *image.slots[slot].image;
    if (!add(addr, section->data.size())) return;
  }
  if (_layout.HasPointerSectors()) {
    const auto record = PartOf(filled.bytes, _layout.records[slot], POINTER_RECORD_SIZE);
    if (!record) return;
    known.ranges.emplace_back(_layout.records[slot], *record);
    // Its image may be longer than its sections: with gaps between them.
    if (!add(WordAt(*record, RECORD_ADDR), WordAt(*record, RECORD_IMAGE_SIZE))) return;
    if (slot == 1) AddMoved(whole, filled.bytes, *record);
  }
  Add(std::move(known));
  AddInvariantSector(whole, filled.bytes);
}

bool Judge::KnowImage(const Image& image, const Identity& identity, const Memory& before,
                      Whole whole) {
  if (LayoutOf(image, _layout.sector_size) != _layout) return false;
  const Burn burn(image, BurnKind::FAILSAFE, identity);
  const auto know = [&](const FillPart& part, std::uint32_t slot) {
    Memory filled = before;
    try {
      burn.Fill(filled, part);
    } catch (const BurnError&) {
      return;  // what does not fit there is never whole there
    }
    AddSlot(image, filled, slot, whole);
  };
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) know({.slot = slot}, slot);
  know({}, 0);
  return true;
}

// ---- What is there

void Judge::Set(std::uint32_t addr, std::uint8_t byte) {
  if (addr >= _memory.size() || _memory[addr] == byte) return;
  for (Known& known : _known) {
    for (const auto& [start, bytes] : known.ranges) {
      if (addr < start || addr - start >= bytes.size()) continue;
      const std::uint8_t right = bytes[addr - start];
      if (_memory[addr] == right) ++known.wrong;
      if (byte == right) --known.wrong;
    }
  }
  _memory[addr] = byte;
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    const std::uint32_t start = _layout.records[slot];
    if (addr >= start && addr - start < _layout.RecordSize()) _is_judged[slot] = false;
  }
}

void Judge::SetAll(View memory) {
  for (std::uint32_t addr = 0; addr < memory.size(); ++addr) Set(addr, memory[addr]);
}

bool Judge::Boots(std::uint32_t slot) const {
  if (!_is_judged[slot]) {
    _boots[slot] = SlotBoots(_layout, slot, _memory);
    _is_judged[slot] = true;
  }
  return _boots[slot];
}

Verdict Judge::Look() const {
  Verdict verdict;
  verdict.invariant_is_whole = !HasSectors();
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) verdict.slots[slot].boots = Boots(slot);
  for (const Known& known : _known) {
    if (known.wrong != 0) continue;
    if (known.slot == INVARIANT) {
      verdict.invariant_is_whole = true;
    } else if (Whole& whole = verdict.slots[known.slot].whole; whole != Whole::NEW) {
      whole = known.whole;
    }
  }
  return verdict;
}

}  // namespace device
