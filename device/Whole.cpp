#include "device/Whole.h"

#include <algorithm>
#include <sstream>

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

bool Verdict::IsSafeButForInvariantSector() const {
  Verdict whole = *this;
  whole.invariant_is_whole = true;
  return !invariant_is_whole && whole.IsSafe();
}

bool Verdict::IsBurnt(SlotKind kind) const {
  const bool fills_both = kind == SlotKind::BOOT_RECORDS;
  return invariant_is_whole && CountNew() == (fills_both ? 2u : 1u) &&
         CountInvalid() == (fills_both ? 0u : 1u);
}

std::size_t Verdict::CountNew() const {
  return static_cast<std::size_t>(std::ranges::count_if(slots, &SlotVerdict::BootsNew));
}

std::size_t Verdict::CountInvalid() const {
  return static_cast<std::size_t>(std::ranges::count(slots, false, &SlotVerdict::boots));
}

bool Verdict::Boots() const {
  return invariant_is_whole && std::ranges::any_of(slots, &SlotVerdict::boots);
}

std::string Describe(const Verdict& verdict) {
  const auto boots = [&verdict](Whole whole) {
    return std::ranges::count(verdict.slots, SlotVerdict{.boots = true, .whole = whole}) > 0;
  };
  std::string text = "DOES NOT BOOT";
  if (verdict.Boots()) {
    text = "boots ";
    std::size_t images = 0;
    const auto add = [&](const char* image) {
      text += std::string(images++ == 0 ? "" : " or ") + image;
    };
    if (boots(Whole::OLD)) add("old");
    if (boots(Whole::NEW)) add("new");
    if (boots(Whole::NOT_KNOWN)) add("BROKEN");
  }
  text += std::string(": slot 0 ") + Name(verdict.slots[0]) + ", slot 1 " + Name(verdict.slots[1]);
  return text + (verdict.invariant_is_whole ? "" : ", invariant sector broken");
}

std::string Describe(const ShortRecord& record) {
  std::ostringstream text;
  text << "the record of slot " << record.slot << " gives 0x" << std::hex << record.record_size
       << " bytes, and its image has 0x" << record.image_size;
  return text.str();
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

std::vector<PresentImage> Judge::AddPresentImages() {
  std::vector<PresentImage> added;
  for (const std::uint32_t slot : UnexplainedSlots()) {
    // The record of another image may be the same as that of the new one.
    const bool is_old = std::ranges::any_of(_known, [&](const Known& known) {
      return known.slot == slot && known.whole == Whole::OLD && HasRecordOf(known);
    });
    if (!is_old) AddPresentImage(slot, added);
  }
  return added;
}

void Judge::AddPresentImage(std::uint32_t slot, std::vector<PresentImage>& added) {
  const std::uint32_t start = _layout.records[slot];
  if (!_layout.HasPointerSectors()) {
    // A slot reaches as far as the other one begins, or to the end.
    const std::uint64_t other = _layout.records[1 - slot];
    const std::uint64_t end = other > start ? other : _memory.size();
    Add({slot, Whole::OLD, {{start, *PartOf(_memory, start, end - start)}}});
    added.push_back({.slot = slot});
    return;
  }
  const device::Bytes record = *PartOf(_memory, start, POINTER_RECORD_SIZE);
  const std::uint32_t addr = WordAt(record, RECORD_ADDR);
  const std::uint32_t size = WordAt(record, RECORD_IMAGE_SIZE);
  const auto image = PartOf(_memory, addr, size);
  if (!image) return;
  const Known known{slot, Whole::OLD, {{addr, *image}, {start, record}}};
  Add(known);
  if (slot == 1) AddMoved(known, record);
  added.push_back({.slot = slot, .record_size = size});
}

void Judge::AddPresentInvariantSector() { AddInvariantSector(Whole::OLD, _memory); }

void Judge::AddInvariantSector(Whole whole, View memory) {
  if (!HasSectors()) return;
  if (auto sector = PartOf(memory, 0, _layout.sector_size)) {
    Add({INVARIANT, whole, {{0, std::move(*sector)}}});
  }
}

/// The second image, where a burn moves it out of the way, as `record` tells it. A record that
/// tells of less than the image makes a copy that lacks the rest, and that is not whole.
void Judge::AddMoved(const Known& second, View record) {
  const std::uint32_t from = WordAt(record, RECORD_ADDR);
  const std::uint32_t to = FIRST_IMAGE_SECTOR * _layout.sector_size;
  Known moved{0, second.whole, {}};
  moved.image_size = second.image_size;
  for (const auto& [addr, bytes] : second.ranges) {
    if (addr == _layout.records[1]) continue;
    if (addr < from) return;
    moved.ranges.emplace_back(addr - from + to, bytes);
  }
  device::Bytes copy;
  AppendWord(copy, to);
  AppendWord(copy, WordAt(record, RECORD_IMAGE_SIZE));
  AppendWord(copy, VALID_SIGNATURE);
  const View rest = record.first(RECORD_CRC).subspan(copy.size());
  copy.insert(copy.end(), rest.begin(), rest.end());
  AppendWord(copy, CrcOf(copy));
  moved.ranges.emplace_back(_layout.records[0], std::move(copy));
  Add(std::move(moved));
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
    const std::uint32_t addr = image.AddressInSlot(*section, slot);
    if (!add(addr, section->data.size())) return;
    const std::uint64_t end = addr + std::uint64_t{section->data.size()};
    known.image_size = std::max(known.image_size, end - known.ranges.front().first);
  }
  if (_layout.HasPointerSectors()) {
    const std::uint32_t start = _layout.records[slot];
    const auto record = PartOf(filled.bytes, start, POINTER_RECORD_SIZE);
    if (!record) return;
    // Its image may be longer than its sections: with gaps between them.
    if (!add(WordAt(*record, RECORD_ADDR), WordAt(*record, RECORD_IMAGE_SIZE))) return;
    // What follows the record in the sector is the image's, too.
    const Section* section = image.SectionAt(start);
    const std::size_t size = section == nullptr ? 0 : section->data.size();
    if (!add(start, std::max<std::size_t>(size, POINTER_RECORD_SIZE))) return;
    if (slot == 1) AddMoved(known, *record);
  }
  Add(std::move(known));
  AddInvariantSector(whole, filled.bytes);
}

bool Judge::AddKnownImage(const Image& image, const Identity& identity, const Memory& before,
                          Whole whole, Origin origin) {
  const auto layout = LayoutOf(image, _layout.sector_size);
  if (!layout || layout->kind != _layout.kind) return false;
  const Burn burn(image, BurnKind::FAILSAFE, identity);
  const auto know = [&](const FillPart& part, std::uint32_t slot) {
    if (layout->records[slot] != _layout.records[slot]) return;
    Memory filled = before;
    try {
      burn.Fill(filled, part);
    } catch (const BurnError&) {
      return;  // what does not fit there is never whole there
    }
    AddSlot(image, filled, slot, whole);
  };
  if (origin != Origin::PLAIN_BURN) {
    for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
      know({.slot = slot}, slot);
      // A burn writes both slots. What it put into the first stays in the bytes of the second where
      // the image marks a field or a CRC in one slot only.
      if (!_layout.HasPointerSectors()) know({.slot = slot, .is_second = true}, slot);
    }
  }
  if (origin != Origin::FAILSAFE_BURN) know({}, 0);
  return layout == _layout;
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

std::vector<std::uint32_t> Judge::UnexplainedSlots() const {
  const Verdict verdict = CurrentVerdict();
  std::vector<std::uint32_t> slots;
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    if (verdict.slots[slot].BootsBroken()) slots.push_back(slot);
  }
  return slots;
}

/// Whether the record that its image was made with stands in its slot.
bool Judge::HasRecordOf(const Known& known) const {
  const std::uint32_t record = _layout.records[known.slot];
  const std::uint32_t size = _layout.RecordSize();
  return std::ranges::any_of(known.ranges, [&](const auto& range) {
    const auto& [start, bytes] = range;
    return start == record && bytes.size() >= size &&
           std::ranges::equal(View(_memory).subspan(start, size), View(bytes).first(size));
  });
}

std::optional<ShortRecord> Judge::ShortRecordOf(std::uint32_t slot) const {
  if (!_layout.HasPointerSectors()) return std::nullopt;
  for (const Known& known : _known) {
    if (known.slot != slot || !HasRecordOf(known)) continue;
    const View record = View(_memory).subspan(_layout.records[slot], POINTER_RECORD_SIZE);
    const std::uint32_t size = WordAt(record, RECORD_IMAGE_SIZE);
    if (size < known.image_size) return ShortRecord{slot, size, known.image_size};
  }
  return std::nullopt;
}

Verdict Judge::CurrentVerdict() const {
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
