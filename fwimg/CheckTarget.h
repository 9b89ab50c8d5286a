/// What an image is checked against, besides itself.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace fwimg {

/// The least, the usual and the greatest value of `fwpush -m`.
inline constexpr int MIN_LOG2_CHUNK = 4;
inline constexpr int USUAL_LOG2_CHUNK = 5;
inline constexpr int MAX_LOG2_CHUNK = 15;

/// The most bytes that a sector of a flash may have here; no flash has larger ones.
inline constexpr std::uint32_t MAX_SECTOR_SIZE = 0x1000000;
/// What is wrong with a sector size on the command line; empty where nothing is.
std::string SectorSizeCheck(const std::string& text);

/// The burn and the memory that an image is for. Of flash and EEPROM, what does not belong to the
/// image's device type does not matter.
struct CheckTarget {
  std::uint32_t sector_size;                     ///< of the flash, bytes; more than 0
  std::optional<std::uint32_t> flash_size = {};  ///< bytes; its end is not checked without
  unsigned log2_chunk = USUAL_LOG2_CHUNK;        ///< the value of `fwpush -m`
  /// Bytes of each EEPROM by its address, where they are known.
  std::optional<std::map<std::uint8_t, std::uint32_t>> eeproms = {};
  std::optional<std::size_t> ports = {};  ///< port GUIDs of the device, where they are known

  std::string name = {};  ///< of the memory, where there are several

  /// Bytes of the greatest chunk that is written at once. Chunks begin at its multiples.
  std::uint32_t ChunkSize() const { return std::uint32_t{1} << log2_chunk; }
  bool operator==(const CheckTarget&) const = default;
};

/// A GUIDS field has room for the GUIDs of a device with so many ports. True where they are not
/// known.
inline bool HasUsualPorts(const CheckTarget& target) {
  return !target.ports || *target.ports == 1 || *target.ports == 2;
}

}  // namespace fwimg
