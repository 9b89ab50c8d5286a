/// Pseudo-random numbers: the same seed gives the same scenario.
#pragma once

#include <initializer_list>
#include <random>
#include <vector>

#include "src/BraidGeneral.h"

namespace soak {

class Random {
 public:
  explicit Random(u_int64_t seed) : _rng(seed) {}

  /// 0 to `count` - 1; 0 for 0.
  u_int32_t Below(u_int64_t count) {
    return count == 0 ? 0 : static_cast<u_int32_t>(_rng() % count);
  }
  /// Both ends included.
  u_int32_t Between(u_int32_t first, u_int32_t last) { return first + Below(last - first + 1); }
  /// True in so many of 100 cases.
  bool Chance(u_int32_t percent) { return Below(100) < percent; }
  u_int8_t Byte() { return static_cast<u_int8_t>(_rng()); }
  DataVec Bytes(std::size_t size) {
    DataVec bytes(size);
    for (u_int8_t& byte : bytes) byte = Byte();
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
  u_int64_t Seed() { return _rng(); }

 private:
  std::mt19937_64 _rng;
};

}  // namespace soak
