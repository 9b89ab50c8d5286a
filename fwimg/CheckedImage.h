/// What the parts of the check of an image share: the image, and what burns of it write.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "device/ImageFile.h"
#include "fwimg/CheckTarget.h"
#include "fwimg/LineFindings.h"
#include "fwimg/Names.h"

namespace fwimg {

/// Addresses [from, end), in 64 bits so that nothing wraps.
struct Extent {
  std::uint64_t from;
  std::uint64_t end;

  bool Overlaps(const Extent& other) const {
    return std::max(from, other.from) < std::min(end, other.end);
  }
  bool Contains(const Extent& other) const { return from <= other.from && other.end <= end; }
  bool operator==(const Extent&) const = default;
};

inline Extent ExtentOf(const SectionLines& section) { return {section.addr, section.End()}; }
inline Extent ExtentOf(const device::Field& field) { return {field.addr, field.End()}; }
inline Extent CoveredBy(const device::CrcField& crc) { return {crc.from, crc.End()}; }
inline Extent PlaceOf(const device::CrcField& crc) {
  return {crc.addr, std::uint64_t{crc.addr} + WORD_SIZE};
}

/// Bytes that a burn writes as one region.
struct Region : Extent {
  const SectionLines* section;
};

/// Regions that one burn writes one after the other.
using Sequence = std::vector<Region>;

/// An image and what burns of it write, and in which order. The file and the target are borrowed.
struct CheckedImage {
  CheckedImage(const device::ImageFile& checked, const CheckTarget& checked_for);

  const device::ImageFile& file;
  const CheckTarget& target;
  std::uint32_t sector;  ///< bytes of a sector of the flash
  SlotKind kind;         ///< NONE where the device type is unknown
  bool is_flash;
  bool has_slots;
  std::uint64_t slot_extent;                   ///< bytes that a slot takes, gaps included
  std::vector<const SectionLines*> kept;       ///< sections that the image has, in file order
  Sequence invariant;                          ///< the sections before all slots
  std::array<Sequence, device::SLOTS> images;  ///< of each slot
  std::array<Sequence, device::SLOTS> burnt;   ///< the same and the slot's pointer sector
  Sequence all;                                ///< a burn with -n
  std::vector<Region> regions;                 ///< those of all burns, none twice

  /// What failsafe burns write; none where there are no slots.
  std::vector<const Sequence*> Failsafe() const;
  /// The section that holds the byte at `addr`, or null.
  const SectionLines* SectionOver(std::uint64_t addr) const;
  /// The bytes of one word; 0 where the image lacks them.
  std::uint32_t WordAt(std::uint64_t addr) const;
};

// Words of findings.
inline std::string Name(const SectionLines& section) {
  return "section " + Printable(section.name);
}
inline std::string Keyword(device::FieldType type) {
  return std::string(device::RowOf(type).keyword);
}
inline std::string At(std::uint64_t addr) { return "at " + HexText(addr); }
inline std::string Line(LineNumber line) { return "line " + std::to_string(line); }

}  // namespace fwimg
