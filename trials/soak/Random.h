/// Pseudo-random numbers: the same seed gives the same scenario.
#pragma once

#include <initializer_list>
#include <random>
#include <vector>

#include "device/Bytes.h"

namespace soak {

class Random {
 public:
  explicit Random(std::uint64_t seed) : _rng(seed) {}

  /// 0 to `count` - 1; 0 for 0.
  std::uint32_t Below(std::uint64_t count) {
    return count == 0 ? 0 : static_cast<std::uint32_t>(_rng() % count);
  }
  /// Both ends included.
  std::uint32_t Between(std::uint32_t first, std::uint32_t last) {
    return first + Below(last - first + 1);
  }
  /// True in so many of 100 cases.
  bool Chance(std::uint32_t percent) { return Below(100) < percent; }
  std::uint8_t Byte() { return static_cast<std::uint8_t>(_rng()); }
  device::Bytes Bytes(std::size_t size) {
    device::Bytes bytes(size);
    for (std::uint8_t& byte : bytes) byte = Byte();
    return bytes;
  }
  template <typename Thing>
  Thing OneOf(std::initializer_list<Thing> things) {
    return things.begin()[Below(things.size())];
  }
  template <typename Thing>
  void Shuffle(std::vector<Thing>& things) {
    for (std::size_t i = things.size(); i > 1; --i) std::swap(things[i - 1], things[Below(i)]);
  }
  /// A seed for another Random.
  std::uint64_t Seed() { return _rng(); }

 private:
  std::mt19937_64 _rng;
};

}  // namespace soak
