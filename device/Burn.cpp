#include "device/Burn.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <utility>

#include "device/Chip.h"
#include "device/Crc.h"

namespace device {

namespace {

/// Why one device is not burnt; the others are.
struct DeviceRefusal {
  std::string reason;
};

constexpr char OUT_OF_RANGE[] = "Address out of range";

std::string Hex(std::uint64_t value) {
  std::ostringstream text;
  text << std::hex << value;
  return text.str();
}

Range RangeOf(const Section& section, std::uint32_t destination) {
  return {destination, static_cast<std::uint32_t>(section.data.size())};
}

/// What a field's type is called in messages: a number, from 1.
int TypeNumber(FieldType type) { return static_cast<int>(type) + 1; }

/// A whole memory, by the rules of its chips.
class MemoryTarget : public BurnTarget {
 public:
  explicit MemoryTarget(Memory& memory) : _memory(memory) {}

  void Erase(std::uint32_t addr, std::uint64_t size) override { device::Erase(Part(addr, size)); }
  void Program(std::uint32_t addr, View bytes) override {
    const auto kind = _memory.sector_size == 0 ? MemoryKind::EEPROM : MemoryKind::FLASH;
    device::Program(kind, Part(addr, bytes.size()), bytes);
  }

 private:
  Cells Part(std::uint32_t addr, std::uint64_t size) {
    if (!_memory.Holds(addr, size)) throw DeviceRefusal{OUT_OF_RANGE};
    return Cells(_memory.bytes).subspan(addr, static_cast<std::size_t>(size));
  }

  Memory& _memory;
};

}  // namespace

UnevenCrcError::UnevenCrcError(const CrcField& uneven)
    : BurnError("a CRC covers " + std::to_string(uneven.size) + " bytes, which are no whole words"),
      crc(uneven) {}

/// One burn as it goes on: what it writes to, the sections as the burner holds them in memory, and
/// which sector it erased last.
class Burn::Writer {
 public:
  Writer(const Image& image, BurnTarget& target, std::uint32_t sector_size)
      : _target(target), _sector_size(sector_size) {
    for (const Section& section : image.sections) _data.push_back(section.data);
  }

  /// The bytes of a section. A burn changes them: what it puts into a field's place stays there,
  /// and goes along where the section is written once more and the field is not marked.
  Bytes& Data(std::size_t section) { return _data.at(section); }
  std::uint32_t SectorSize() const { return _sector_size; }

  /// Erases the sectors that hold [addr, addr + size), but for the one erased last: writes go from
  /// front to back, and two sections may share a sector.
  void Erase(std::uint32_t addr, std::uint64_t size) {
    if (_sector_size == 0 || size == 0) return;
    const std::uint64_t end = addr + size;
    std::uint64_t sector = addr / _sector_size;
    if (_erased == sector) {
      ++sector;
    } else if (addr % _sector_size != 0) {
      throw BurnError("it cannot erase at address " + Hex(addr) + ", where no sector begins");
    }
    if (sector * _sector_size >= end) return;
    const std::uint64_t last = (end - 1) / _sector_size;
    _target.Erase(static_cast<std::uint32_t>(sector * _sector_size),
                  (last + 1 - sector) * _sector_size);
    _erased = last;
  }
  void Program(std::uint32_t addr, View bytes) {
    if (addr + std::uint64_t{bytes.size()} > ADDRESS_SPACE) {
      throw BurnError("it would write past the last address");
    }
    if (!bytes.empty()) _target.Program(addr, bytes);
  }
  void EraseAndProgram(std::uint32_t addr, View bytes) {
    if (addr + std::uint64_t{bytes.size()} > ADDRESS_SPACE) {
      throw BurnError("it would write past the last address");
    }
    Erase(addr, bytes.size());
    Program(addr, bytes);
  }

 private:
  BurnTarget& _target;
  std::uint32_t _sector_size;
  std::vector<Bytes> _data;              ///< of each section of the image
  std::optional<std::uint64_t> _erased;  ///< number of the sector erased last
};

Burn::Burn(const Image& image, BurnKind kind, FieldValues values)
    : _image(image),
      _slots(kind == BurnKind::PLAIN ? SlotKind::NONE : image.Slots()),
      _values(std::move(values)) {}

Burn::Burn(const Image& image, BurnKind kind, const Identity& identity)
    : Burn(image, kind, [identity](FieldType type) { return identity.Value(type); }) {}

// ---- What the image says

std::uint32_t Burn::ImageAddr(std::uint32_t slot) const {
  const auto addr = _image.slots.at(slot).image;
  if (!addr) throw BurnError("the image sets no IMAGE " + std::to_string(slot));
  return *addr;
}

std::uint32_t Burn::PointerSector(std::uint32_t slot) const {
  const auto addr = _image.slots.at(slot).pointer_sector;
  if (!addr) throw BurnError("the image sets no PS " + std::to_string(slot));
  return *addr;
}

std::uint32_t Burn::SignatureAddr(std::uint32_t slot) const {
  const auto addr = _image.slots.at(slot).signature;
  if (!addr) throw BurnError("the image sets no SIGNATURE " + std::to_string(slot));
  return *addr;
}

std::vector<std::size_t> Burn::SlotSections() const {
  ImageAddr(0);
  ImageAddr(1);
  std::vector<std::size_t> indices;
  for (const Section* section : _image.SlotSections()) {
    indices.push_back(static_cast<std::size_t>(section - _image.sections.data()));
  }
  if (indices.empty()) throw BurnError("the image has no sections between IMAGE 0 and IMAGE 1");
  return indices;
}

std::uint32_t Burn::InSlot(std::size_t index, std::uint32_t slot) const {
  return _image.AddressInSlot(_image.sections.at(index), slot);
}

std::size_t Burn::PointerSection(std::uint32_t slot) const {
  const Section* section = _image.SectionAt(PointerSector(slot));
  if (section == nullptr) {
    throw BurnError("the image has no section at its PS " + std::to_string(slot));
  }
  return static_cast<std::size_t>(section - _image.sections.data());
}

BootLayout Burn::Layout(std::uint32_t sector_size) const {
  const auto layout = LayoutOf(_image, sector_size);
  if (!layout) throw BurnError("the image does not place its slots");
  return *layout;
}

std::vector<std::size_t> Burn::InvariantSections(std::uint32_t sector_size) const {
  std::vector<std::size_t> found;
  for (const std::size_t index : _image.order) {
    if (_image.sections[index].addr >= sector_size) break;
    found.push_back(index);
  }
  return found;
}

void Burn::CheckImage(std::uint32_t sector_size) const {
  const std::vector<std::size_t> sections = SlotSections();
  if (_slots == SlotKind::BOOT_RECORDS) {
    if (_image.sections[sections.front()].data.size() < DEFERRED_BYTES) {
      throw BurnError("the image's first section holds no boot record");
    }
    return;
  }
  if (sector_size == 0) throw BurnError("the flash has no sector size");
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    SignatureAddr(slot);
    PointerSection(slot);
  }
}

bool Burn::HasCrcOverDeferredBytes() const {
  return _slots == SlotKind::BOOT_RECORDS &&
         std::ranges::any_of(_image.crcs, [this](const CrcField& crc) {
           return Range{crc.from, crc.size}.Meets(ImageAddr(0), DEFERRED_BYTES);
         });
}

// ---- What it asks of a device

bool Burn::IsSigned(const Memory& memory, std::uint32_t slot) const {
  return memory.Has(SignatureAddr(slot), WordBytes(VALID_SIGNATURE));
}

bool Burn::Boots(const Memory& memory, std::uint32_t slot) const {
  return SlotBoots(Layout(memory.sector_size), slot, memory.bytes);
}

bool Burn::IsInTheWay(const Memory& memory) const {
  const std::uint32_t end = _image.SlotBytes() + FIRST_IMAGE_SECTOR * memory.sector_size;
  return memory.Word(PointerSector(1) + RECORD_ADDR) < end;
}

/// The memory when the burner asks for its slots: the invariant sector is rewritten by then, and a
/// pointer sector may lie in it.
Memory Burn::WithInvariantSector(const Memory& before, bool is_rewritten) const {
  Memory memory = before;
  try {
    if (is_rewritten) BurnInvariantSector(memory);
  } catch (const BurnError&) {
    return before;  // the burn ends there, and asks nothing more
  }
  return memory;
}

ObservedState Burn::Observe(const Memory& before) const {
  ObservedState observed;
  if (_slots != SlotKind::POINTER_SECTORS) return observed;
  for (const std::size_t index : InvariantSections(before.sector_size)) {
    const Section& section = _image.sections[index];
    if (!before.Has(section.addr, section.data)) observed.invariant_changed = true;
  }
  const Memory memory = WithInvariantSector(before, observed.invariant_changed);
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    observed.is_signed[slot] = IsSigned(memory, slot);
  }
  return observed;
}

// ---- What it writes

bool Burn::IsReplaced(FieldType type) const {
  return _slots != SlotKind::NONE || !IsLeftByPlainBurn(type);
}

std::vector<Field> Burn::FieldsIn(const Range& range) const {
  std::vector<Field> fields;
  for (const Field& field : _image.fields) {
    if (!IsReplaced(field.type) || !range.Holds(field.addr, 1)) continue;
    if (field.End() > range.End()) {
      std::ostringstream text;
      text << std::hex << "Replace field (from:" << field.addr
           << ", type:" << TypeNumber(field.type) << ") crosses image section (addr:" << range.addr
           << " , size:" << std::dec << range.size << ").";
      throw BurnError(text.str());
    }
    fields.push_back(field);
  }
  return fields;
}

/// The word of a CRC may lie before the section.
std::vector<CrcField> Burn::CrcsIn(const Range& range) const {
  std::vector<CrcField> crcs;
  for (const CrcField& crc : _image.crcs) {
    if (!range.Holds(crc.from, 1)) continue;
    if (crc.End() > range.End() || std::uint64_t{crc.addr} + WORD_SIZE > range.End()) {
      std::ostringstream text;
      text << std::hex << "Replace CRC (from:" << crc.from << ", size:" << crc.size
           << ") crosses image section (addr:" << range.addr << " , size:" << std::dec << range.size
           << ").";
      throw BurnError(text.str());
    }
    crcs.push_back(crc);
  }
  // The burner aborts on such a CRC, so there is no expected value. It looks for crossings first.
  for (const CrcField& crc : crcs) {
    if (crc.size % WORD_SIZE != 0) throw UnevenCrcError(crc);
  }
  return crcs;
}

Bytes Burn::ValueOf(const Field& field) const {
  if (field.type == FieldType::SIGNATURE) return WordBytes(VALID_SIGNATURE);
  Bytes value = _values(field.type);
  if (value.size() != field.Size()) {
    std::ostringstream text;
    text << "the device's " << RowOf(field.type).keyword << " has " << value.size()
         << " bytes, the image needs " << field.Size();
    throw BurnError(text.str());
  }
  return value;
}

/// Fields and CRC words are blank when the section is written, so that they can be programmed after
/// it without another erase.
void Burn::WriteSection(Writer& writer, std::size_t index, std::uint32_t destination) const {
  const Range range = RangeOf(_image.sections[index], destination);
  // An image may be wrong in both: which of them is told first differs.
  std::vector<Field> fields;
  if (_slots != SlotKind::NONE) fields = FieldsIn(range);
  const std::vector<CrcField> crcs = CrcsIn(range);
  if (_slots == SlotKind::NONE) fields = FieldsIn(range);

  Bytes& data = writer.Data(index);
  const auto blank = [&](std::uint32_t addr, std::uint32_t size) {
    for (std::uint64_t at = addr; at < std::uint64_t{addr} + size; ++at) {
      if (range.Holds(at, 1)) data[static_cast<std::size_t>(at - range.addr)] = ERASED;
    }
  };
  for (const Field& field : fields) blank(field.addr, field.Size());
  for (const CrcField& crc : crcs) blank(crc.addr, WORD_SIZE);
  writer.EraseAndProgram(destination, data);
  WriteFieldsAndCrcs(writer, data, range, fields, crcs);
}

/// Signatures count for the CRCs with their valid value and are not written: that is the last step
/// of a burn.
void Burn::WriteFieldsAndCrcs(Writer& writer, Bytes& data, const Range& range,
                              const std::vector<Field>& fields,
                              const std::vector<CrcField>& crcs) const {
  for (const Field& field : fields) {
    const Bytes value = ValueOf(field);
    if (field.type != FieldType::SIGNATURE) writer.Program(field.addr, value);
    std::ranges::copy(value, data.begin() + (field.addr - range.addr));
  }
  for (const CrcField& crc : crcs) {
    const View covered = View(data).subspan(crc.from - range.addr, crc.size);
    writer.Program(crc.addr, WordBytes(CrcOf(covered)));
  }
}

void Burn::WriteSlotSections(Writer& writer, std::uint32_t slot) const {
  for (const std::size_t index : SlotSections()) WriteSection(writer, index, InSlot(index, slot));
}

/// The boot record is wrong until the rest of the slot is there.
void Burn::WriteRecordSlot(Writer& writer, std::uint32_t slot) const {
  Bytes& first = writer.Data(SlotSections().front());
  const Bytes deferred(first.begin(), first.begin() + DEFERRED_BYTES);
  first[SPOILT_BYTE] = static_cast<std::uint8_t>(first[SPOILT_BYTE] + SPOILT_BY);
  WriteSlotSections(writer, slot);
  writer.EraseAndProgram(ImageAddr(slot), deferred);
  std::ranges::copy(deferred, first.begin());
}

void Burn::WritePointerSector(Writer& writer, std::uint32_t slot) const {
  WriteSection(writer, PointerSection(slot), PointerSector(slot));
}

void Burn::WriteSignature(Writer& writer, std::uint32_t slot, std::uint32_t value) const {
  writer.Program(SignatureAddr(slot), WordBytes(value));
}

void Burn::WriteInvariantSector(Writer& writer) const {
  for (const std::size_t index : InvariantSections(writer.SectorSize())) {
    WriteSection(writer, index, _image.sections[index].addr);
  }
}

void Burn::WriteByPlan(Writer& writer, const Plan& plan) const {
  if (plan.clears_second) WriteSignature(writer, 1, 0);
  for (const std::uint32_t slot : plan.slots) {
    if (_slots == SlotKind::BOOT_RECORDS) {
      WriteRecordSlot(writer, slot);
      continue;
    }
    WriteSignature(writer, slot, 0);
    WriteSlotSections(writer, slot);
    WritePointerSector(writer, slot);
    WriteSignature(writer, slot, VALID_SIGNATURE);
    WriteSignature(writer, 1 - slot, 0);
  }
}

void Burn::Write(BurnTarget& target, std::uint32_t sector_size, const Plan& plan) const {
  Writer writer(_image, target, sector_size);
  if (_slots == SlotKind::NONE) {
    for (const std::size_t index : _image.order) {
      WriteSection(writer, index, _image.sections[index].addr);
    }
    return;
  }
  if (plan.rewrites_invariant) WriteInvariantSector(writer);
  WriteByPlan(writer, plan);
}

/// Why the second image cannot be moved; empty where it can.
std::string Burn::MoveRefusal(const Memory& memory) const {
  const std::uint32_t from_record = PointerSector(1);
  if (!memory.Holds(from_record, POINTER_RECORD_SIZE)) return OUT_OF_RANGE;
  const std::uint32_t addr = memory.Word(from_record + RECORD_ADDR);
  const std::uint32_t size = memory.Word(from_record + RECORD_IMAGE_SIZE);
  if (addr == FIRST_IMAGE_SECTOR * memory.sector_size || size == 0) return "Can't move image: ";
  return memory.Holds(addr, size) ? "" : OUT_OF_RANGE;
}

/// The second image goes to the fourth sector, with a record in the first pointer sector. Reads are
/// answered in whole words, and all that was read is written. It must be one that can be moved.
void Burn::Move(Writer& writer, const Memory& memory) const {
  const std::uint32_t destination = FIRST_IMAGE_SECTOR * memory.sector_size;
  const std::uint32_t from_record = PointerSector(1);
  const std::uint32_t to_record = PointerSector(0);
  Bytes record = memory.Part(from_record, POINTER_RECORD_SIZE);
  const std::uint32_t addr = WordAt(record, RECORD_ADDR);
  const std::uint32_t size = WordAt(record, RECORD_IMAGE_SIZE);
  const Bytes image = memory.Read(addr, size);

  writer.Program(to_record + RECORD_SIGNATURE, WordBytes(0));
  writer.EraseAndProgram(destination, image);
  const auto put = [&record](std::uint32_t at, std::uint32_t word) {
    std::ranges::copy(WordBytes(word), record.begin() + at);
  };
  put(RECORD_ADDR, destination);
  put(RECORD_SIGNATURE, VALID_SIGNATURE);
  put(RECORD_CRC, CrcOf(View(record).first(RECORD_CRC)));
  writer.EraseAndProgram(to_record, record);
  writer.Program(from_record + RECORD_SIGNATURE, WordBytes(0));
}

// ---- The whole burn

Plan Burn::RecordPlan(const Memory& before) const {
  Plan plan;
  const bool boots[] = {Boots(before, 0), Boots(before, 1)};
  if (boots[0] || boots[1]) {
    // The one that is needed to boot comes last.
    plan.slots = {boots[1] ? 0u : 1u, boots[1] ? 1u : 0u};
  } else {
    plan.refusal = "Both images are invalid - Can't perform failsafe burn.";
  }
  return plan;
}

Plan Burn::PlanFor(const Memory& before, const ObservedState& observed) const {
  CheckImage(before.sector_size);
  if (_slots == SlotKind::BOOT_RECORDS) return RecordPlan(before);
  Plan plan;
  if (!before.Has(FAILSAFE_MARKER, WordBytes(VALID_SIGNATURE))) {
    plan.refusal = "Image on device is not failsafe. Can't perform failsafe burn";
    return plan;
  }
  plan.rewrites_invariant = observed.invariant_changed;
  const auto& is_signed = observed.is_signed;
  if (!is_signed[0] && !is_signed[1]) {
    plan.refusal = "Both images are invalid. Can't perform failsafe burn";
    return plan;
  }
  plan.clears_second = is_signed[0] && is_signed[1];
  if (!is_signed[0] && !before.Holds(PointerSector(1), RECORD_SIGNATURE)) {
    plan.refusal = OUT_OF_RANGE;
    return plan;
  }
  plan.moves_second =
      !is_signed[0] && IsInTheWay(WithInvariantSector(before, plan.rewrites_invariant));
  plan.slots = {is_signed[0] || plan.moves_second ? 1u : 0u};
  return plan;
}

Outcome Burn::After(const Memory& before) const {
  try {
    return After(before, Observe(before));
  } catch (const BurnError& error) {
    return {before, error.what(), true};
  }
}

Outcome Burn::After(const Memory& before, const ObservedState& observed) const {
  Outcome outcome{before, "", false};
  MemoryTarget target(outcome.memory);
  try {
    if (_slots == SlotKind::NONE) {
      Write(target, before.sector_size, {});
      return outcome;
    }
    Plan plan = PlanFor(before, observed);
    Writer writer(_image, target, before.sector_size);
    if (plan.rewrites_invariant) WriteInvariantSector(writer);
    outcome.refusal = plan.refusal;
    if (outcome.refusal.empty() && plan.moves_second) {
      outcome.refusal = MoveRefusal(outcome.memory);
      if (outcome.refusal.empty()) Move(writer, outcome.memory);
    }
    if (outcome.refusal.empty()) WriteByPlan(writer, plan);
  } catch (const DeviceRefusal& refusal) {
    outcome.refusal = refusal.reason;
  } catch (const BurnError& error) {
    outcome.refusal = error.what();
    outcome.ends_run = true;
  }
  return outcome;
}

// ---- Contents of a device that was made with the image in it

void Burn::Fill(BurnTarget& target, std::uint32_t sector_size, const FillPart& part) const {
  // What a device was made with does not depend on how it will be burnt.
  const Burn burn(_image, part.slot ? BurnKind::FAILSAFE : BurnKind::PLAIN, _values);
  if (!part.slot) return burn.Write(target, sector_size, {});
  if (burn.Slots() == SlotKind::NONE) throw BurnError("the image is for a device without slots");
  Writer writer(_image, target, sector_size);
  burn.FillSlot(writer, part);
}

void Burn::FillSlot(Writer& writer, const FillPart& part) const {
  const std::uint32_t slot = *part.slot;
  if (_image.Slots() == SlotKind::BOOT_RECORDS) {
    Bytes& first = writer.Data(SlotSections().front());
    if (!part.is_valid && first.size() > SPOILT_BYTE) {
      first[SPOILT_BYTE] = static_cast<std::uint8_t>(first[SPOILT_BYTE] + SPOILT_BY);
    }
    if (part.is_second) WriteSlotSections(writer, 1 - slot);
    return WriteSlotSections(writer, slot);
  }
  PointerSector(slot);
  if (writer.SectorSize() == 0) throw BurnError("the memory has no sectors");
  WriteInvariantSector(writer);
  WriteSlotSections(writer, slot);
  WritePointerSector(writer, slot);
  if (part.is_valid) WriteSignature(writer, slot, VALID_SIGNATURE);
}

namespace {

/// Runs `action` on a memory, whose end no write may pass.
void OnMemory(Memory& memory, const std::function<void(BurnTarget&)>& action) {
  MemoryTarget target(memory);
  try {
    action(target);
  } catch (const DeviceRefusal& refusal) {
    throw BurnError(refusal.reason);
  }
}

}  // namespace

void Burn::Fill(Memory& memory, const FillPart& part) const {
  OnMemory(memory, [&](BurnTarget& target) { Fill(target, memory.sector_size, part); });
}

void Burn::BurnSlot(Memory& memory, std::uint32_t slot) const {
  OnMemory(memory, [&](BurnTarget& target) {
    Writer writer(_image, target, memory.sector_size);
    if (_slots == SlotKind::BOOT_RECORDS) return WriteRecordSlot(writer, slot);
    WriteSlotSections(writer, slot);
    WritePointerSector(writer, slot);
    WriteSignature(writer, slot, VALID_SIGNATURE);
  });
}

void Burn::BurnInvariantSector(Memory& memory) const {
  OnMemory(memory, [&](BurnTarget& target) {
    Writer writer(_image, target, memory.sector_size);
    WriteInvariantSector(writer);
  });
}

// ---- In what order

Step Burn::SectionStep(std::size_t index, std::uint32_t destination) const {
  const Section& section = _image.sections[index];
  const Range range = RangeOf(section, destination);
  Step step{.name = "writing section " + section.name + " at " + Hex(destination),
            .ranges = {range}};
  for (const CrcField& crc : _image.crcs) {
    if (range.Holds(crc.from, 1)) step.ranges.push_back({crc.addr, WORD_SIZE});
  }
  if (_slots != SlotKind::POINTER_SECTORS) return step;
  for (std::uint32_t slot = 0; slot < SLOTS; ++slot) {
    const Range signature{SignatureAddr(slot), WORD_SIZE};
    if (range.Holds(signature.addr, signature.size)) step.blank.push_back(signature);
  }
  return step;
}

Step Burn::SignatureStep(const char* what, std::uint32_t slot, std::uint32_t value) const {
  return {.name = std::string(what) + " signature " + std::to_string(slot),
          .ranges = {{SignatureAddr(slot), WORD_SIZE}},
          .bytes = WordBytes(value)};
}

void Burn::AddSlotSteps(std::vector<Step>& steps, std::uint32_t slot) const {
  if (_slots == SlotKind::POINTER_SECTORS) steps.push_back(SignatureStep("clearing", slot, 0));
  for (const std::size_t index : SlotSections()) {
    steps.push_back(SectionStep(index, InSlot(index, slot)));
  }
  if (_slots == SlotKind::BOOT_RECORDS) {
    steps.push_back(
        {"validating slot " + std::to_string(slot), {{ImageAddr(slot), DEFERRED_BYTES}}});
    return;
  }
  steps.push_back(SectionStep(PointerSection(slot), PointerSector(slot)));
  steps.push_back(SignatureStep("setting", slot, VALID_SIGNATURE));
  steps.push_back(SignatureStep("clearing", 1 - slot, 0));
}

void Burn::AddMoveSteps(std::vector<Step>& steps, const Memory& before) const {
  const std::uint32_t size = before.Word(PointerSector(1) + RECORD_IMAGE_SIZE);
  const auto whole = static_cast<std::uint32_t>(WordsIn(size) * WORD_SIZE);
  const auto add_signature = [&](const char* what, std::uint32_t slot, std::uint32_t value) {
    steps.push_back({.name = std::string(what) + " signature " + std::to_string(slot),
                     .ranges = {{PointerSector(slot) + RECORD_SIGNATURE, WORD_SIZE}},
                     .bytes = WordBytes(value)});
  };
  add_signature("clearing", 0, 0);
  steps.push_back(
      {.name = "copying the image", .ranges = {{FIRST_IMAGE_SECTOR * before.sector_size, whole}}});
  steps.push_back({.name = "copying its pointer sector",
                   .ranges = {{PointerSector(0), POINTER_RECORD_SIZE}},
                   .blank = {{PointerSector(0) + RECORD_SIGNATURE, WORD_SIZE}}});
  add_signature("setting", 0, VALID_SIGNATURE);
  add_signature("clearing", 1, 0);
}

std::vector<Step> Burn::Steps(const Memory& before, const ObservedState& observed) const {
  std::vector<Step> steps;
  const auto add_section = [&](std::size_t index) {
    steps.push_back(SectionStep(index, _image.sections[index].addr));
  };
  if (_slots == SlotKind::NONE) {
    std::ranges::for_each(_image.order, add_section);
    return steps;
  }
  const Plan plan = PlanFor(before, observed);
  if (plan.rewrites_invariant) {
    std::ranges::for_each(InvariantSections(before.sector_size), add_section);
  }
  if (!plan.refusal.empty()) return steps;
  if (plan.clears_second) steps.push_back(SignatureStep("clearing", 1, 0));
  if (plan.moves_second) {
    const Memory memory = WithInvariantSector(before, plan.rewrites_invariant);
    if (!MoveRefusal(memory).empty()) return steps;
    AddMoveSteps(steps, memory);
  }
  for (const std::uint32_t slot : plan.slots) AddSlotSteps(steps, slot);
  return steps;
}

}  // namespace device
