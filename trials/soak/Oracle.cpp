#include "trials/soak/Oracle.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

#include "src/utils.h"
#include "tests/support/support.h"

namespace soak {

namespace {

constexpr u_int32_t SIGNATURE_WORD = 0xCB84CB84;
constexpr u_int32_t BOOT_RECORD = 16;  ///< bytes
constexpr u_int32_t INVARIANT_SLOT = 2;
constexpr u_int8_t ERASED = 0xFF;

DataVec BigWord(u_int32_t word) {
  return {static_cast<u_int8_t>(word >> 24), static_cast<u_int8_t>(word >> 16),
          static_cast<u_int8_t>(word >> 8), static_cast<u_int8_t>(word)};
}

void Append(DataVec& bytes, u_int64_t guid) {
  for (int shift = 56; shift >= 0; shift -= 8)
    bytes.push_back(static_cast<u_int8_t>(guid >> shift));
}

u_int32_t WholeWords(u_int32_t size) { return (size + 3) / 4 * 4; }

u_int32_t BootSum(const DataVec& record) {
  return std::accumulate(record.begin(), record.end(), u_int32_t{0}) % 256;
}

}  // namespace

u_int32_t Memory::Word(u_int32_t addr) const {
  u_int32_t word = 0;
  for (u_int32_t i = 0; i < 4; ++i) word = word << 8 | bytes.at(addr + i);
  return word;
}

DataVec Memory::Part(u_int32_t addr, u_int32_t size) const {
  const auto start = bytes.begin() + addr;
  return DataVec(start, start + size);
}

DataVec Memory::Read(u_int32_t addr, u_int32_t size) const {
  const u_int32_t whole = WholeWords(size);
  const auto there = static_cast<u_int32_t>(std::min<std::size_t>(whole, bytes.size() - addr));
  DataVec answer = Part(addr, there);
  answer.resize(whole, ERASED);
  return answer;
}

bool Memory::Has(u_int32_t addr, const DataVec& part) const {
  return Holds(addr, part.size()) && std::equal(part.begin(), part.end(), bytes.begin() + addr);
}

Memory MemoryOf(const sim::Device& device, const Image& image) {
  Memory memory;
  memory.sector_size = device.chips.begin()->second.SectorSize();
  const auto append = [&memory](std::span<const u_int8_t> bytes) {
    memory.bytes.insert(memory.bytes.end(), bytes.begin(), bytes.end());
  };
  if (image.map.empty()) append(device.chips.at(0).Bytes());
  for (const MappedChip& chip : image.map) {
    append(device.chips.at(chip.chip).Bytes().first(chip.size));
  }
  return memory;
}

void Load(sim::Device& device, const Image& image, const Memory& memory) {
  if (image.map.empty()) return device.chips.at(0).Load(0, memory.bytes);
  u_int32_t base = 0;
  for (const MappedChip& chip : image.map) {
    device.chips.at(chip.chip).Load(0, memory.Part(base, chip.size));
    base += chip.size;
  }
}

/// Writes as a flash or an EEPROM takes it; a sector is erased before its first write.
struct Oracle::Writer {
  Memory& memory;
  u_int32_t last_erased = UNPLACED;  ///< sector

  void Erase(u_int32_t addr, u_int32_t size) {
    const u_int32_t sector_size = memory.sector_size;
    if (sector_size == 0 || size == 0) return;
    for (u_int32_t sector = addr / sector_size; sector <= (addr + size - 1) / sector_size;
         ++sector) {
      if (sector == last_erased) continue;
      std::fill_n(memory.bytes.begin() + sector * sector_size, sector_size, ERASED);
      last_erased = sector;
    }
  }
  void Program(u_int32_t addr, const DataVec& bytes) {
    for (u_int32_t i = 0; i < bytes.size(); ++i) {
      u_int8_t& cell = memory.bytes.at(addr + i);
      cell = memory.sector_size == 0 ? bytes[i] : cell & bytes[i];
    }
  }
};

bool Oracle::IsReplaced(const Field& field) const {
  if (field.type == FieldType::BSN && _image.type == "RV61100") return _image.bsn_first;
  return _burn != BurnKind::GENERIC ||
         (field.type != FieldType::VSD && field.type != FieldType::SIGNATURE);
}

DataVec Oracle::ValueOf(FieldType type) const {
  DataVec value;
  switch (type) {
    case FieldType::SIGNATURE:
      return BigWord(SIGNATURE_WORD);
    case FieldType::GUIDS:
      Append(value, _device.node_guid);
      Append(value, _device.port_guids.at(0));
      Append(value,
             _device.port_guids.size() == 1 ? _device.port_guids[0] + 1 : _device.port_guids.at(1));
      Append(value, _device.sys_guid);
      return value;
    case FieldType::GUID:
      Append(value, _device.node_guid);
      return value;
    case FieldType::SYS_GUID:
      Append(value, _device.sys_guid);
      return value;
    case FieldType::BSN:
      return _device.bsn;
    case FieldType::VSD:
      return _device.vsd;
  }
  return value;
}

void Oracle::BurnSection(Writer& writer, const Section& section, u_int32_t destination) const {
  DataVec data = section.data;
  const Range range{destination, section.Size()};
  std::vector<const Field*> fields;
  for (const Field& field : _image.fields) {
    if (!range.Holds(field.addr, 1) || !IsReplaced(field)) continue;
    if (!range.Holds(field.addr, field.Size())) {
      throw std::logic_error("a scenario has a field that crosses a section");
    }
    fields.push_back(&field);
  }
  std::vector<const CrcField*> crcs;
  for (const CrcField& crc : _image.crcs) {
    if (range.Holds(crc.from, 1)) crcs.push_back(&crc);
  }
  for (const Field* field : fields) {
    std::fill_n(data.begin() + (field->addr - destination), field->Size(), ERASED);
  }
  for (const CrcField* crc : crcs) {
    for (u_int32_t i = 0; i < 4; ++i) {
      if (range.Holds(crc->place + i, 1)) data.at(crc->place + i - destination) = ERASED;
    }
  }
  writer.Erase(destination, range.size);
  writer.Program(destination, data);
  for (const Field* field : fields) {
    const DataVec value = ValueOf(field->type);
    std::copy(value.begin(), value.end(), data.begin() + (field->addr - destination));
    if (field->type != FieldType::SIGNATURE) writer.Program(field->addr, value);
  }
  for (const CrcField* crc : crcs) {
    const auto start = data.begin() + (crc->from - destination);
    writer.Program(crc->place, BigWord(ReferenceCrc(DataVec(start, start + crc->size))));
  }
}

void Oracle::BurnSections(Writer& writer, u_int32_t slot) const {
  const u_int32_t distance = _image.slot[slot] - _image.slot[0];
  for (const Section* section : _image.SlotSections()) {
    if (_burn == BurnKind::RECORDS && section->addr == _image.slot[0]) {
      Section spoilt = *section;
      spoilt.data.at(3) = static_cast<u_int8_t>(spoilt.data.at(3) + 10);
      BurnSection(writer, spoilt, section->addr + distance);
    } else {
      BurnSection(writer, *section, section->addr + distance);
    }
  }
  if (_burn == BurnKind::RECORDS) {
    const DataVec& data = _image.SlotSections().front()->data;
    writer.Program(_image.slot[slot], DataVec(data.begin(), data.begin() + HELD_BACK));
  }
}

const Section* Oracle::PointerSection(u_int32_t slot) const {
  const auto found = std::ranges::find(_image.sections, _image.ps[slot], &Section::addr);
  return found == _image.sections.end() ? nullptr : &*found;
}

void Oracle::BurnPointers(Writer& writer, u_int32_t slot) const {
  BurnSection(writer, *PointerSection(slot), _image.ps[slot]);
  writer.Program(_image.ps[slot] + SIGNATURE_OFFSET, BigWord(SIGNATURE_WORD));
}

void Oracle::ClearSignature(Writer& writer, u_int32_t slot) const {
  writer.Program(_image.ps[slot] + SIGNATURE_OFFSET, BigWord(0));
}

void Oracle::BurnSlot(Memory& memory, u_int32_t slot) const {
  Writer writer{memory};
  BurnSections(writer, slot);
  if (_burn == BurnKind::POINTERS) BurnPointers(writer, slot);
}

std::vector<const Section*> Oracle::InvariantSections(u_int32_t sector_size) const {
  std::vector<const Section*> found;
  for (const Section& section : _image.sections) {
    if (section.addr >= sector_size) break;
    found.push_back(&section);
  }
  return found;
}

void Oracle::BurnInvariantSector(Memory& memory) const {
  Writer writer{memory};
  for (const Section* section : InvariantSections(memory.sector_size)) {
    BurnSection(writer, *section, section->addr);
  }
}

bool Oracle::IsSigned(const Memory& memory, u_int32_t slot) const {
  return memory.Word(_image.ps[slot] + SIGNATURE_OFFSET) == SIGNATURE_WORD;
}

bool Oracle::IsValid(const Memory& memory, u_int32_t slot) const {
  if (_burn == BurnKind::RECORDS) {
    const DataVec record = memory.Part(_image.slot[slot], BOOT_RECORD);
    return BootSum(record) == 0xAB && !(slot == 0 && record[7] == 1);
  }
  const u_int32_t ps = _image.ps[slot];
  return IsSigned(memory, slot) &&
         memory.Word(ps + CRC_OFFSET) == ReferenceCrc(memory.Part(ps, CRC_OFFSET));
}

bool Oracle::IsInTheWay(const Memory& memory) const {
  return memory.Word(_image.ps[1]) < _image.SlotBytes() + 3 * memory.sector_size;
}

View Oracle::Look(const Memory& memory) const {
  View view;
  if (_burn != BurnKind::POINTERS) return view;
  for (const Section* section : InvariantSections(memory.sector_size)) {
    if (!memory.Has(section->addr, section->data)) view.invariant_changed = true;
  }
  for (const u_int32_t slot : {0u, 1u}) view.is_signed[slot] = IsSigned(memory, slot);
  return view;
}

/// The second image goes to the fourth sector, with a record in the first pointer sector. Reads
/// answer in whole words, and all that was read is written.
std::string Oracle::Move(Writer& writer) const {
  Memory& memory = writer.memory;
  const u_int32_t destination = 3 * memory.sector_size;
  DataVec record = memory.Part(_image.ps[1], RECORD_SIZE);
  const u_int32_t addr = memory.Word(_image.ps[1]);
  const u_int32_t size = memory.Word(_image.ps[1] + 4);
  if (addr == destination || size == 0) return "Can't move image: ";
  if (!memory.Holds(addr, size)) return "Address out of range";
  const DataVec image = memory.Read(addr, size);
  if (!memory.Holds(destination, image.size())) return "Address out of range";
  ClearSignature(writer, 0);
  writer.Erase(destination, static_cast<u_int32_t>(image.size()));
  writer.Program(destination, image);
  std::ranges::copy(BigWord(destination), record.begin());
  std::ranges::copy(BigWord(SIGNATURE_WORD), record.begin() + SIGNATURE_OFFSET);
  const DataVec crc = BigWord(ReferenceCrc(DataVec(record.begin(), record.begin() + CRC_OFFSET)));
  std::ranges::copy(crc, record.begin() + CRC_OFFSET);
  writer.Erase(_image.ps[0], RECORD_SIZE);
  writer.Program(_image.ps[0], record);
  ClearSignature(writer, 1);
  return "";
}

Result Oracle::After(const Memory& before) const { return After(before, Look(before)); }

Oracle::Plan Oracle::PlanFor(const Memory& before, const View& view) const {
  Plan plan;
  if (_burn == BurnKind::RECORDS) {
    const bool is_valid[] = {IsValid(before, 0), IsValid(before, 1)};
    if (is_valid[0] || is_valid[1]) {
      // The one that is needed to boot comes last.
      plan.slots = {is_valid[1] ? 0u : 1u, is_valid[1] ? 1u : 0u};
    } else {
      plan.refusal = "Both images are invalid - Can't perform failsafe burn.";
    }
    return plan;
  }
  if (before.Word(MARKER) != SIGNATURE_WORD) {
    plan.refusal = "Image on device is not failsafe. Can't perform failsafe burn";
    return plan;
  }
  plan.rewrites_invariant = view.invariant_changed;
  if (!view.is_signed[0] && !view.is_signed[1]) {
    plan.refusal = "Both images are invalid. Can't perform failsafe burn";
    return plan;
  }
  plan.clears_second = view.is_signed[0] && view.is_signed[1];
  plan.moves_second = !view.is_signed[0] && IsInTheWay(before);
  plan.slots = {view.is_signed[0] || plan.moves_second ? 1u : 0u};
  return plan;
}

Result Oracle::After(const Memory& before, const View& view) const {
  Result result{before, ""};
  Memory& memory = result.memory;
  Writer writer{memory};
  if (_burn == BurnKind::GENERIC) {
    for (const Section& section : _image.sections) BurnSection(writer, section, section.addr);
    return result;
  }
  const Plan plan = PlanFor(before, view);
  result.refusal = plan.refusal;
  if (plan.rewrites_invariant) BurnInvariantSector(memory);
  if (plan.clears_second) ClearSignature(writer, 1);
  if (plan.moves_second) result.refusal = Move(writer);
  if (!result.refusal.empty()) return result;
  for (const u_int32_t slot : plan.slots) {
    if (_burn == BurnKind::POINTERS) ClearSignature(writer, slot);
    BurnSections(writer, slot);
    if (_burn == BurnKind::RECORDS) continue;
    BurnPointers(writer, slot);
    ClearSignature(writer, 1 - slot);
  }
  return result;
}

bool Oracle::SumsWhatIsHeldBack() const {
  return _burn == BurnKind::RECORDS &&
         std::ranges::any_of(_image.crcs, [this](const CrcField& crc) {
           return Range{crc.from, crc.size}.Meets(_image.slot[0], HELD_BACK);
         });
}

// ---- In what order

Step Oracle::StepOf(const Section& section, u_int32_t destination) const {
  const Range range{destination, section.Size()};
  Step step{Text("writing section ", section.name, " at ", std::hex, destination), {range}};
  for (const CrcField& crc : _image.crcs) {
    if (range.Holds(crc.from, 1)) step.ranges.push_back({crc.place, 4});
  }
  return step;
}

Step Oracle::SignatureStep(const char* what, u_int32_t slot) const {
  return {Text(what, " signature ", slot), {{_image.ps[slot] + SIGNATURE_OFFSET, 4}}};
}

void Oracle::AddSlotSteps(std::vector<Step>& steps, u_int32_t slot) const {
  if (_burn == BurnKind::POINTERS) steps.push_back(SignatureStep("clearing", slot));
  for (const Section* section : _image.SlotSections()) {
    steps.push_back(StepOf(*section, section->addr + _image.slot[slot] - _image.slot[0]));
  }
  if (_burn == BurnKind::RECORDS) {
    steps.push_back({Text("validating slot ", slot), {{_image.slot[slot], HELD_BACK}}});
    return;
  }
  steps.push_back(StepOf(*PointerSection(slot), _image.ps[slot]));
  steps.push_back(SignatureStep("facts", slot));
  steps.push_back(SignatureStep("clearing", 1 - slot));
}

std::vector<Step> Oracle::Steps(const Memory& before, const View& view) const {
  std::vector<Step> steps;
  if (_burn == BurnKind::GENERIC) {
    for (const Section& section : _image.sections) steps.push_back(StepOf(section, section.addr));
    return steps;
  }
  const Plan plan = PlanFor(before, view);
  if (plan.rewrites_invariant) {
    for (const Section* section : InvariantSections(before.sector_size)) {
      steps.push_back(StepOf(*section, section->addr));
    }
  }
  if (plan.clears_second) steps.push_back(SignatureStep("clearing", 1));
  if (plan.moves_second) {
    const u_int32_t size = WholeWords(before.Word(_image.ps[1] + 4));
    steps.push_back(SignatureStep("clearing", 0));
    steps.push_back({"copying the image", {{3 * before.sector_size, size}}});
    steps.push_back({"copying its pointer sector", {{_image.ps[0], RECORD_SIZE}}});
    steps.push_back(SignatureStep("facts", 0));
    steps.push_back(SignatureStep("clearing", 1));
  }
  for (const u_int32_t slot : plan.slots) AddSlotSteps(steps, slot);
  return steps;
}

// ---- What boots

bool BootRule::Verdict::IsGood() const {
  const auto count = [this](State state) { return std::ranges::count(slots, state); };
  return invariant_is_whole && count(OLD) + count(NEW) > 0 &&
         count(OLD) + count(NEW) + count(INVALID) == 2;
}

std::string BootRule::Verdict::Text() const {
  static constexpr const char* NAMES[] = {"invalid", "old", "new", "new but for a CRC", "broken"};
  return ::Text("slot 0 ", NAMES[slots[0]], ", slot 1 ", NAMES[slots[1]],
                invariant_is_whole ? "" : ", invariant sector broken");
}

void BootRule::Know(const Image& image, const sim::Device& device, const Memory& now, State state) {
  const Oracle oracle(image, _burn, device);
  for (const u_int32_t slot : {0u, 1u}) {
    const u_int32_t distance = image.slot[slot] - image.slot[0];
    if (!now.Holds(image.slot[slot], image.Extent())) continue;
    Memory burnt = now;
    oracle.BurnSlot(burnt, slot);
    Known known{slot, state == NEW && oracle.SumsWhatIsHeldBack() ? MISSUMMED : state, {}};
    for (const Section* section : image.SlotSections()) {
      const u_int32_t addr = section->addr + distance;
      known.ranges.emplace_back(addr, burnt.Part(addr, section->Size()));
    }
    if (_burn == BurnKind::POINTERS) {
      known.ranges.emplace_back(image.ps[slot], burnt.Part(image.ps[slot], RECORD_SIZE));
    }
    _known.push_back(std::move(known));
  }
  if (_burn != BurnKind::POINTERS) return;
  Memory invariant = now;
  oracle.BurnInvariantSector(invariant);
  _known.push_back({INVARIANT_SLOT, state, {{0, invariant.Part(0, now.sector_size)}}});
  _known.push_back({INVARIANT_SLOT, state, {{0, now.Part(0, now.sector_size)}}});

  const u_int32_t addr = now.Word(image.ps[1]);
  const u_int32_t size = now.Word(image.ps[1] + 4);
  const u_int32_t moved_to = 3 * now.sector_size;
  if (state != OLD || !oracle.IsSigned(now, 1) || !now.Holds(addr, size) ||
      !now.Holds(moved_to, size)) {
    return;
  }
  DataVec record = now.Part(image.ps[1], RECORD_SIZE);
  std::ranges::copy(BigWord(moved_to), record.begin());
  const DataVec crc = BigWord(ReferenceCrc(DataVec(record.begin(), record.begin() + CRC_OFFSET)));
  std::ranges::copy(crc, record.begin() + CRC_OFFSET);
  _known.push_back({0, OLD, {{moved_to, now.Part(addr, size)}, {image.ps[0], record}}});
}

bool BootRule::KnowsRecord(const Memory& memory, u_int32_t slot) const {
  return std::ranges::any_of(_known, [&](const Known& known) {
    const auto& [addr, bytes] = known.ranges.front();
    return known.slot == slot &&
           memory.Has(addr, DataVec(bytes.begin(), bytes.begin() + BOOT_RECORD));
  });
}

BootRule::Verdict BootRule::Judge(const Image& image, const sim::Device& device,
                                  const Memory& memory) const {
  const Oracle oracle(image, _burn, device);
  Verdict verdict;
  verdict.invariant_is_whole = _burn != BurnKind::POINTERS;
  for (const u_int32_t slot : {0u, 1u}) {
    verdict.slots[slot] = oracle.IsValid(memory, slot) ? BROKEN : INVALID;
  }
  for (const Known& known : _known) {
    const bool is_whole = std::ranges::all_of(
        known.ranges, [&](const auto& range) { return memory.Has(range.first, range.second); });
    if (!is_whole) continue;
    if (known.slot == INVARIANT_SLOT) {
      verdict.invariant_is_whole = true;
    } else if (verdict.slots[known.slot] == BROKEN) {
      verdict.slots[known.slot] = known.state;
    }
  }
  return verdict;
}

}  // namespace soak
