/// The parts of the check of an image, and what they share.
#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "fwimg/ImageView.h"
#include "fwimg/ProblemKinds.h"
#include "src/utils.h"

namespace tools {

constexpr u_int32_t WORD_SIZE = 4;
constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;

/// Addresses [from, end), in 64 bits so that nothing wraps.
struct Extent {
  u_int64_t from;
  u_int64_t end;

  bool Overlaps(const Extent& other) const {
    return std::max(from, other.from) < std::min(end, other.end);
  }
  bool Contains(const Extent& other) const { return from <= other.from && other.end <= end; }
  bool operator==(const Extent&) const = default;
};

inline Extent ExtentOf(const SectionView& section) { return {section.addr, section.End()}; }
inline Extent ExtentOf(const FwImage::FieldReplace& field) {
  return {field.from, u_int64_t{field.from} + field.size};
}
inline Extent CoveredBy(const CrcView& crc) { return {crc.from, crc.End()}; }
inline Extent PlaceOf(const CrcView& crc) {
  return {crc.crc_addr, u_int64_t{crc.crc_addr} + WORD_SIZE};
}

/// Bytes that a burn writes as one region.
struct Region : Extent {
  const SectionView* section;
};

/// Regions that one burn writes one after the other.
using Sequence = std::vector<Region>;

/// An image and what burns of it write, and in which order.
struct CheckedImage {
  CheckedImage(const ImageView& checked, u_int32_t sector_size);

  const ImageView& view;
  u_int32_t sector;  ///< bytes of a sector of the flash
  Family family;
  bool is_flash;
  bool has_slots;
  std::vector<const SectionView*> kept;         ///< sections that the loader has, in file order
  Sequence invariant;                           ///< the sections before all slots
  std::array<Sequence, FwImage::SLOTS> images;  ///< of each slot
  std::array<Sequence, FwImage::SLOTS> burnt;   ///< the same and the slot's pointer sector
  Sequence all;                                 ///< a burn with -n
  std::vector<Region> regions;                  ///< those of all burns, none twice

  /// What failsafe burns write; none where there are no slots.
  std::vector<const Sequence*> Failsafe() const;
  /// The section that holds the byte at `addr`, or null.
  const SectionView* SectionOver(u_int64_t addr) const;
  /// The bytes of one word; 0 where the image lacks them.
  u_int32_t WordAt(u_int64_t addr) const;
};

/// The device type, the device map, and sections among themselves.
void CheckStructure(const CheckedImage& image, LineFindings& findings);
/// Where the slots are, and what of the image lies in them.
void CheckSlots(const CheckedImage& image, LineFindings& findings);
/// Fields and CRCs: against sections, each other, and those of the other slot.
void CheckPlaces(const CheckedImage& image, LineFindings& findings);
/// Pointer sectors, the invariant sector, and what erases destroy.
void CheckFlash(const CheckedImage& image, std::optional<u_int32_t> flash_size,
                LineFindings& findings);
/// The boot record that an image of some EEPROMs begins with.
void CheckBootRecord(const CheckedImage& image, LineFindings& findings);

// Words of findings.
inline std::string Name(const SectionView& section) { return "section " + Printable(section.name); }
inline std::string At(u_int64_t addr) { return "at " + HexText(addr); }
inline std::string Line(LineNumber line) { return "line " + std::to_string(line); }

}  // namespace tools
