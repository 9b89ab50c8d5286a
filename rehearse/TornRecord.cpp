#include "rehearse/TornRecord.h"

#include <array>
#include <cmath>

#include "device/Boot.h"
#include "device/Chip.h"

namespace rehearse {

namespace {

constexpr std::size_t SUMS = 256;
using Ways = std::array<std::uint64_t, SUMS>;  ///< in how many ways each sum comes about

/// Calls `take` with each byte that a torn write can leave, the old and the new one included.
template <typename Take>
void ForEachMix(device::MemoryKind memory, std::uint8_t held, std::uint8_t wanted,
                const Take& take) {
  const unsigned changed = held ^ device::Programmed(memory, held, wanted);
  for (unsigned done = changed;; done = (done - 1) & changed) {
    take(device::Programmed(memory, held, wanted, static_cast<std::uint8_t>(done)));
    if (done == 0) return;
  }
}

}  // namespace

MixCount CountMixes(const RecordWord& word) {
  Ways ways{};
  ways[0] = 1;
  std::uint64_t mixes = 1;
  device::Bytes rest = word.record;  // without the bytes of the word
  device::Bytes finished = word.record;
  for (std::size_t i = 0; i < word.wanted.size(); ++i) {
    const std::ptrdiff_t place = word.at + static_cast<std::ptrdiff_t>(i);
    // What lies beside the record leaves it as it is.
    if (place < 0 || place >= static_cast<std::ptrdiff_t>(word.record.size())) continue;
    const bool may_mark = word.slot == 0 && place == device::FIRST_INVALID_MARK;
    Ways next{};
    std::uint64_t values = 0;
    ForEachMix(word.memory, word.held[i], word.wanted[i], [&](std::uint8_t byte) {
      ++values;
      if (may_mark && byte == 1) return;  // never valid
      for (std::size_t sum = 0; sum < SUMS; ++sum) next[(sum + byte) % SUMS] += ways[sum];
    });
    ways = next;
    mixes *= values;
    const auto in_record = static_cast<std::size_t>(place);
    rest[in_record] = 0;
    finished[in_record] = device::Programmed(word.memory, word.held[i], word.wanted[i]);
  }
  if (mixes < 2) return {};  // the record stays as it is
  const bool is_marked = word.slot == 0 && rest[device::FIRST_INVALID_MARK] == 1;
  const std::size_t missing = (device::BOOT_RECORD_SUM + SUMS - device::BootRecordSum(rest)) % SUMS;
  std::uint64_t valid = is_marked ? 0 : ways[missing];
  // All old and all new are no mixes: the sweep looks at them before and after the word.
  const auto boots = [&](const device::Bytes& record) {
    return device::RecordBoots(device::SlotKind::BOOT_RECORDS, word.slot, record);
  };
  if (boots(word.record)) --valid;
  if (boots(finished)) --valid;
  return {mixes - 2, valid};
}

void TornRecords::Add(const MixCount& count) {
  if (count.mixes == 0) return;
  ++words;
  mixes += count.mixes;
  valid += count.valid;
  likelihood += static_cast<double>(count.valid) / static_cast<double>(count.mixes);
}

void TornRecords::Add(const TornRecords& other) {
  words += other.words;
  mixes += other.mixes;
  valid += other.valid;
  likelihood += other.likelihood;
}

std::uint64_t TornRecords::OneIn() const {
  if (valid == 0) return 0;
  return static_cast<std::uint64_t>(std::llround(static_cast<double>(words) / likelihood));
}

}  // namespace rehearse
