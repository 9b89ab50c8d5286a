/// Random images that a burn must accept, and the memories that they fit. Nothing of it comes from
/// the burner's own loader, which is under test.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device/Image.h"
#include "trials/soak/Random.h"

namespace soak {

using device::CrcField;
using device::Field;
using device::FieldType;
using device::Image;
using device::MappedChip;
using device::Section;
using device::SlotKind;

/// An image, and what its file says beyond it.
struct RandomImage {
  Image image;                     ///< with all fields of the file; see Loaded
  std::string type;                ///< device type as the file has it, which may be unknown
  bool type_after_fields = false;  ///< where DEVICE_TYPE stands in the file
  /// Lines at the end of the file that the loader must refuse.
  std::vector<std::string> bad_lines;

  void SetType(const std::string& keyword);
  /// The image that the file means: a device type without a serial number has no BSN fields, where
  /// the file gives the type before them.
  Image Loaded() const;
};

inline std::uint32_t SizeOf(const Section& section) {
  return static_cast<std::uint32_t>(section.data.size());
}
/// The address behind its last byte.
inline std::uint32_t EndOf(const Section& section) { return section.addr + SizeOf(section); }

/// Has the sections burnt in the order in which they stand in `image.sections`.
void OrderSections(Image& image);
/// Bytes from the start of the first slot to the end of the last section that belongs to it.
std::uint32_t SlotExtent(const Image& image);

/// The memory that an image has to fit.
struct MemoryLayout {
  std::uint32_t log2_chunk = 5;
  std::uint32_t sector_size = 0;  ///< 0 for EEPROMs
  std::uint32_t size = 0;         ///< bytes
  /// Where pointer sectors stand behind the images; 0: the images may reach to the end.
  std::uint32_t image_end = 0;
  std::vector<MappedChip> map;
  bool may_have_guids = true;  ///< devices have one or two ports
  std::uint32_t ImageEnd() const { return image_end == 0 ? size : image_end; }
  bool IsFlash() const { return sector_size != 0; }
  std::uint32_t RoundUp(std::uint32_t addr) const {
    return (addr + sector_size - 1) / sector_size * sector_size;
  }
  /// Whether a sector takes so few requests that whole sectors may be burnt.
  bool HasFewChunks() const { return IsFlash() && sector_size >> log2_chunk <= 8; }
};

/// Flash or EEPROMs of a size that keeps a burn short.
MemoryLayout MakeFlash(Random& random, std::uint32_t sectors);
MemoryLayout MakeEeproms(Random& random);

/// The slots that the old and the new image of a device share.
struct SlotPlaces {
  std::uint32_t ps[2] = {0, 0};    ///< addresses of the pointer sectors
  std::uint32_t slot[2] = {0, 0};  ///< addresses of slots with boot records
  bool may_overlap = false;        ///< pointer sectors: the second slot may begin within the first
};

/// Each returns an image without a type, or nothing where the random choices do not fit: try again.
std::optional<Image> MakeGeneric(const MemoryLayout& layout, Random& random);
/// Two slots with pointer sectors `ps`; the invariant sector is `invariant`.
std::optional<Image> MakePointers(const MemoryLayout& layout, const SlotPlaces& slots,
                                  const std::vector<Section>& invariant, Random& random);
/// Two slots with boot records, at `slots`.
std::optional<Image> MakeRecords(const MemoryLayout& layout, const SlotPlaces& slots,
                                 Random& random);
std::vector<Section> MakeInvariant(const MemoryLayout& layout, Random& random);

}  // namespace soak
