/// Random images, and the text of their files. Nothing of it comes from the burner's own loader,
/// which is under test.
#pragma once

#include <cstdint>
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
  std::vector<std::string>
      bad_lines;  ///< lines that the loader must refuse, at the end of the file

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
/// Where an address lies. Past the device map it lies behind the end of the last chip.
device::ChipPlace PlaceOf(const Image& image, std::uint32_t addr);

/// The file. The same image can be written in many ways.
std::string TextOf(const RandomImage& image, Random& random);

}  // namespace soak
