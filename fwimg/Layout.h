/// What an image file is to say, as a layout has it. docs/image-layout.md describes layouts.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device/Image.h"
#include "fwimg/CheckTarget.h"

namespace fwimg {

/// A layout is wrong; the text names file and line.
class LayoutError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Bytes of a flash sector where nothing else is said: as of `fwimg check`.
constexpr std::uint32_t USUAL_SECTOR_SIZE = 0x10000;

/// At linear addresses. Lines are those of the layout, for messages; 0 where there is none.
struct Layout {
  struct Version {
    std::uint32_t major_number;
    std::uint32_t minor_number;
    std::uint32_t sub_minor_number;
  };
  struct Slot : device::Slot {
    std::uint32_t line = 0;
  };
  struct Section : device::Section {
    bool has_boot_record = false;  ///< whose last byte is to be filled in
    std::uint32_t line = 0;
  };
  struct Field : device::Field {
    std::uint32_t line = 0;
  };
  struct Crc : device::CrcField {
    bool is_filled = false;  ///< its word is to be filled in
    std::uint32_t line = 0;
  };

  std::filesystem::path file;                ///< the layout's own, for messages
  std::vector<std::filesystem::path> parts;  ///< the that bytes of sections come from
  std::string title;
  std::string device_type;  ///< as image files have it; empty for none
  std::uint32_t device_type_line = 0;
  std::uint32_t sector_size = USUAL_SECTOR_SIZE;  ///< of the flash that it is for, in bytes
  unsigned log2_chunk = USUAL_LOG2_CHUNK;         ///< of the burns that it is for: fwpush -m
  std::optional<Version> version;
  std::vector<device::MappedChip> map;
  std::array<Slot, device::SLOTS> slots;
  std::vector<Section> sections;  ///< in file order; names of letters, digits, '_', '.' and '-'
  std::vector<Field> fields;
  std::vector<Crc> crcs;

  /// "layout.toml:7: ", without the number where there is no line.
  std::string At(std::uint32_t line) const;
  /// Throws a LayoutError for `line`.
  [[noreturn]] void Throw(std::uint32_t line, const std::string& text) const;
  /// Where an address lies; nothing past the device map.
  std::optional<device::ChipPlace> PlaceOf(std::uint32_t addr) const;
};

/// A place in words: "50:00000040".
std::string Where(device::ChipPlace place);

/// Refuses what an image file could not say, or not so that a layout's author would understand what
/// the check of the image says of it. Throws LayoutError.
void CheckLayout(const Layout& layout);

}  // namespace fwimg
