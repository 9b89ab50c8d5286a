/// An image as the soak makes it up: what goes where, and the text of its file. Nothing of it comes
/// from the burner's own loader, which is on trial.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "trials/soak/Random.h"

namespace soak {

/// What a device has of its own.
enum class FieldType { SIGNATURE, GUIDS, GUID, SYS_GUID, BSN, VSD };
struct FieldRow {
  FieldType type;
  std::string_view keyword;
  u_int32_t size;  ///< bytes
};
const FieldRow& RowOf(FieldType type);

struct Field {
  u_int32_t addr;
  FieldType type;
  u_int32_t Size() const { return RowOf(type).size; }
};

/// A CRC over [from, from + size), 4 bytes at `place`.
struct CrcField {
  u_int32_t from;
  u_int32_t size;
  u_int32_t place;
};

struct Section {
  std::string name;
  u_int32_t addr;
  DataVec data;
  u_int32_t Size() const { return static_cast<u_int32_t>(data.size()); }
  u_int32_t End() const { return addr + Size(); }
};

/// An EEPROM of the device map.
struct MappedChip {
  u_int32_t size;
  u_int8_t chip;
};

constexpr u_int32_t UNPLACED = 0xFFFFFFFF;
constexpr u_int32_t RECORD_SIZE = 264;  ///< of a pointer sector
constexpr u_int32_t CRC_OFFSET = 260;   ///< in it
constexpr u_int32_t MARKER = 0x24;      ///< where an invariant sector bears the signature
constexpr u_int32_t SIGNATURE_OFFSET = 8;
constexpr u_int32_t HELD_BACK =
    4;  ///< first bytes of a slot without a pointer sector, written last

struct Image {
  std::string type;               ///< device type, as the file has it
  std::vector<MappedChip> map;    ///< none for a flash
  std::vector<Section> sections;  ///< in file order
  std::vector<Field> fields;      ///< in file order
  std::vector<CrcField> crcs;     ///< in file order
  u_int32_t ps[2] = {UNPLACED, UNPLACED};
  u_int32_t slot[2] = {UNPLACED, UNPLACED};
  bool bsn_first = false;           ///< fields stand before the device type in the file
  std::vector<std::string> spoilt;  ///< lines that the loader must refuse, at the end of the file

  /// Bytes of the device map; 0 without one.
  u_int32_t MappedSize() const;
  /// The sections that a failsafe burn moves to a slot: from the one at slot 0 on, up to one at
  /// slot 1.
  std::vector<const Section*> SlotSections() const;
  /// From slot 0 to behind the last of them.
  u_int32_t Extent() const;
  /// Their bytes.
  u_int32_t SlotBytes() const;
};

struct Place {
  u_int32_t offset;
  u_int8_t chip;
};
/// Where an address of the linear memory lies.
Place PlaceOf(const Image& image, u_int32_t addr);

/// The file; the same image can be written in many ways.
std::string TextOf(const Image& image, Random& random);

}  // namespace soak
