/// Makes image files: from a layout, a TOML file that says what stands where, and the raw bytes
/// that it names. docs/image-layout.md describes layouts.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/FwImage.h"

namespace tools {

/// A layout is wrong; the text names file and line.
class LayoutError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Bytes of a flash sector where nothing else is said: as of `fwimg check`.
constexpr u_int32_t USUAL_SECTOR_SIZE = 0x10000;

/// A location in words: "50:00000040".
std::string Where(const EeLoc& loc);

/// What an image file is to say, at linear addresses. Lines are those of the layout, for messages;
/// 0 where there is none.
struct Layout {
  struct Version {
    u_int32_t major_number;
    u_int32_t minor_number;
    u_int32_t sub_minor_number;
  };
  struct Slot {
    std::optional<u_int32_t> ps;
    std::optional<u_int32_t> signature;
    std::optional<u_int32_t> image;
    u_int32_t line = 0;
  };
  struct Section {
    std::string name;  ///< letters, digits, '_', '.' and '-'
    u_int32_t addr = 0;
    DataVec data;
    bool has_boot_record = false;  ///< whose last byte is to be filled in
    u_int32_t line = 0;
  };
  struct Field {
    std::string keyword;  ///< as image files have it
    FwImage::FieldReplace place;
    u_int32_t line = 0;
  };
  struct Crc {
    FwImage::CrcReplace place;
    bool is_filled = false;  ///< its word is to be filled in
    u_int32_t line = 0;
  };

  std::filesystem::path file;  ///< the layout's own, for messages
  std::string title;
  std::string device_type;  ///< as image files have it; empty for none
  u_int32_t device_type_line = 0;
  u_int32_t sector_size = USUAL_SECTOR_SIZE;  ///< of the flash that it is for, in bytes
  std::optional<Version> version;
  FwImage::Conv conv;  ///< of the device map
  std::array<Slot, FwImage::SLOTS> slots;
  std::vector<Section> sections;  ///< in file order
  std::vector<Field> fields;
  std::vector<Crc> crcs;

  /// "layout.toml:7: ", without the number where there is no line.
  std::string At(u_int32_t line) const;
  /// Throws a LayoutError for `line`.
  [[noreturn]] void Throw(u_int32_t line, const std::string& text) const;
  /// An address in words, as the function of this name.
  std::string Where(u_int32_t addr) const;
};

enum class LayoutKind {
  WHOLE,  ///< with at least one section
  FRAME,  ///< without: the sections come from elsewhere
};

/// Reads a layout. The files that it names are looked for in `parts`. Throws LayoutError.
Layout ReadLayout(const std::filesystem::path& file, const std::filesystem::path& parts,
                  LayoutKind kind);

/// Refuses what an image file could not say, or not so that a layout's author would understand what
/// the check of the image says of it. Throws LayoutError.
void CheckLayout(const Layout& layout);

/// Fills in the boot records and CRC words that are to be, as far as they have a place.
void FillIn(Layout& layout);

/// Writes the image file of a layout that CheckLayout takes. It gets its name only when `fwimg
/// check` finds no error in it, and it was loaded back and says what it should. A layout without a
/// device type is not checked for one. Returns the warnings of the check, with their lines of the
/// layout. Throws LayoutError, with all errors, or std::runtime_error.
std::vector<std::string> WriteImage(const Layout& layout, const std::filesystem::path& path);

/// Whether `path` is named as image files are.
bool IsImageName(const std::filesystem::path& path);

/// Loads an image file, the loader's warnings on standard error: they are no results. Throws
/// BraidError.
void LoadImage(FwImage& image, const std::string& file);

}  // namespace tools
