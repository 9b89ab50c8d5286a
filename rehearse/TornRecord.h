/// Writes of boot records that are cut short. A boot record counts as valid by the sum of its bytes
/// alone, so a mix of old and new bits may be valid by chance. All mixes are counted, not only the
/// one that a seed chooses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/Bytes.h"
#include "device/DeviceType.h"

namespace rehearse {

/// How many mixes of old and new bits a torn word can leave in the record, neither all old nor all
/// new, and how many of those make the record valid.
struct MixCount {
  std::uint64_t mixes = 0;
  std::uint64_t valid = 0;
};

/// The write of one word over a boot record, or over a part of one.
struct RecordWord {
  std::uint32_t slot = 0;
  device::Bytes record;   ///< all of it, as it is before the word is written
  std::ptrdiff_t at = 0;  ///< where the word begins, from the start of the record
  device::Bytes held;     ///< the bytes of the word, before; as many as `wanted`
  device::Bytes wanted;   ///< what is written, at most 4 bytes
  device::MemoryKind memory = device::MemoryKind::EEPROM;
};

/// Counts by sums, not one by one: exact, and quick for any number of mixes.
MixCount CountMixes(const RecordWord& word);

/// Of all torn words of boot records.
struct TornRecords {
  std::size_t words = 0;  ///< those of which there is a mix
  std::uint64_t mixes = 0;
  std::uint64_t valid = 0;
  double likelihood = 0;  ///< the sum over all words of the share of their mixes that are valid

  void Add(const MixCount& count);
  void Add(const TornRecords& other);
  /// About one in so many torn words adds up, where all words and mixes are equally likely; 0 where
  /// none does.
  std::uint64_t OneIn() const;
};

}  // namespace rehearse
