/// Bytes of device memories and images, and the big-endian numbers in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace device {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;  ///< bytes that somebody else owns

/// A device's identity on the fabric.
using Guid = std::uint64_t;

inline constexpr std::uint8_t ERASED = 0xFF;  ///< what an erased flash cell holds
inline constexpr std::uint32_t WORD_SIZE = 4;
inline constexpr std::uint64_t ADDRESS_SPACE = std::uint64_t{1} << 32;  ///< bytes

/// The 4 bytes at `at`, most significant first. `bytes` must reach that far.
inline std::uint32_t WordAt(View bytes, std::size_t at) {
  const View word = bytes.subspan(at, WORD_SIZE);
  return std::uint32_t{word[0]} << 24 | std::uint32_t{word[1]} << 16 | std::uint32_t{word[2]} << 8 |
         word[3];
}

/// Append to `bytes`, most significant byte first.
inline void AppendWord(Bytes& bytes, std::uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes.push_back(static_cast<std::uint8_t>(word >> shift));
}
inline Bytes WordBytes(std::uint32_t word) {
  Bytes bytes;
  AppendWord(bytes, word);
  return bytes;
}
inline void AppendGuid(Bytes& bytes, Guid guid) {
  AppendWord(bytes, static_cast<std::uint32_t>(guid >> 32));
  AppendWord(bytes, static_cast<std::uint32_t>(guid));
}

}  // namespace device
