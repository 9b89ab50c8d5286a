#include "rehearse/OperationLog.h"

#include <algorithm>
#include <stdexcept>

#include "device/Chip.h"

namespace rehearse {

std::size_t LoggedOperation::Cuts() const {
  return kind == sim::Operation::ERASE ? 2 : 2 * device::WordsIn(bytes.size());
}

std::uint32_t Chance(unsigned seed, std::size_t operation, std::size_t place) {
  std::uint64_t x =
      seed + 0x9E3779B97F4A7C15u * (operation + 1) + 0xBF58476D1CE4E5B9u * (place + 1);
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return static_cast<std::uint32_t>(x >> 29);
}

Cut NthCut(const LoggedOperation& operation, std::size_t index, std::size_t n) {
  if (operation.kind == sim::Operation::ERASE) {
    return {index, n == 0 ? CutKind::TORN_ERASE : CutKind::AFTER_ERASE, 0};
  }
  return {index, n % 2 == 0 ? CutKind::TORN_WORD : CutKind::AFTER_WORD, n / 2};
}

namespace {

/// Calls `change` with a copy of [start, start + size) and writes the result back.
template <typename Change>
void ChangeCells(const CellAccess& access, std::uint32_t start, std::size_t size,
                 const Change& change) {
  device::Bytes cells;
  cells.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    cells.push_back(access.held(static_cast<std::uint32_t>(start + i)));
  }
  change(device::Cells(cells));
  for (std::size_t i = 0; i < size; ++i) {
    access.set(static_cast<std::uint32_t>(start + i), cells[i]);
  }
}

device::Tear TearOf(const Cut& cut, unsigned seed) {
  const std::uint32_t done = Chance(seed, cut.operation, cut.word);
  device::Tear tear;
  for (std::size_t i = 0; i < tear.done.size(); ++i) {
    tear.done[i] = static_cast<std::uint8_t>(done >> 8 * i);
  }
  return tear;
}

}  // namespace

void ApplyCut(const LoggedOperation& operation, device::MemoryKind memory, const Cut& cut,
              unsigned seed, const CellAccess& access) {
  if (operation.kind == sim::Operation::ERASE) {
    ChangeCells(access, operation.offset, operation.size, [&](device::Cells cells) {
      if (cut.kind == CutKind::AFTER_ERASE) return device::Erase(cells);
      device::EraseTorn(
          cells, [&](std::size_t cell) { return Chance(seed, cut.operation, cell) % 2 != 0; });
    });
    return;
  }
  const std::size_t start = cut.word * device::WORD_SIZE;
  const std::size_t size = std::min<std::size_t>(device::WORD_SIZE, operation.bytes.size() - start);
  const device::View word = device::View(operation.bytes).subspan(start, size);
  ChangeCells(access, static_cast<std::uint32_t>(operation.offset + start), size,
              [&](device::Cells cells) {
                if (cut.kind == CutKind::AFTER_WORD) return device::Program(memory, cells, word);
                device::ProgramTorn(memory, cells, word, TearOf(cut, seed));
              });
}

void OperationLog::Add(const sim::Operation& operation, std::size_t request) {
  _log[operation.device].push_back({.kind = operation.kind,
                                    .chip = operation.chip,
                                    .offset = operation.offset,
                                    .size = operation.size,
                                    .bytes = {operation.bytes.begin(), operation.bytes.end()},
                                    .request = request});
}

const std::vector<LoggedOperation>& OperationLog::Of(device::Guid guid) const {
  static const std::vector<LoggedOperation> NONE;
  const auto found = _log.find(guid);
  return found == _log.end() ? NONE : found->second;
}

std::size_t OperationLog::Count(sim::Operation::Kind kind) const {
  std::size_t count = 0;
  for (const auto& [guid, log] : _log) {
    count += static_cast<std::size_t>(std::ranges::count(log, kind, &LoggedOperation::kind));
  }
  return count;
}

std::size_t OperationLog::PointsOf(device::Guid guid) const {
  std::size_t points = 0;
  for (const LoggedOperation& operation : Of(guid)) points += operation.Cuts();
  return points;
}

std::size_t OperationLog::Points() const {
  std::size_t points = 0;
  for (const auto& [guid, log] : _log) points += PointsOf(guid);
  return points;
}

OperationLog::Place OperationLog::Locate(std::size_t point) const {
  for (const auto& [guid, log] : _log) {
    std::size_t behind = 0;
    for (const LoggedOperation& operation : log) {
      behind += operation.Cuts();
      if (point < behind) return {guid, operation, point};
    }
    point -= behind;
  }
  throw std::runtime_error("the burn has no such point");
}

void OperationLog::Replay(sim::Device& device, std::size_t cuts, unsigned seed) const {
  const std::vector<LoggedOperation>& log = Of(device.node_guid);
  for (std::size_t i = 0; i < log.size() && cuts > 0; ++i) {
    sim::Chip& chip = device.chips.at(log[i].chip);
    const CellAccess cells{[&](std::uint32_t offset) { return chip.Bytes()[offset]; },
                           [&](std::uint32_t offset, std::uint8_t byte) {
                             chip.Load(offset, device::View(&byte, 1));
                           }};
    const auto memory = chip.IsFlash() ? device::MemoryKind::FLASH : device::MemoryKind::EEPROM;
    for (std::size_t n = 0; n < log[i].Cuts() && cuts > 0; ++n, --cuts) {
      ApplyCut(log[i], memory, NthCut(log[i], i, n), seed, cells);
    }
  }
}

}  // namespace rehearse
