/// A firmware image: what its sections hold, where its slots lie, and which bytes each device has
/// of its own. A record; device/ImageFile.h reads one from a file.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "device/Bytes.h"
#include "device/DeviceType.h"

namespace device {

inline constexpr std::uint32_t SLOTS = 2;
/// As the address of a slot's part it means that there is none.
inline constexpr std::uint32_t UNSET_ADDR = 0xFFFFFFFF;

/// Bytes that each device has of its own.
enum class FieldType { SIGNATURE, GUIDS, GUID, SYS_GUID, BSN, VSD };

struct FieldRow {
  FieldType type;
  std::string_view keyword;  ///< as image files have it
  std::uint32_t size;        ///< bytes
};
std::span<const FieldRow> FieldRows();
const FieldRow& RowOf(FieldType type);
/// The row of that keyword, letter by letter; null where there is none.
const FieldRow* FindField(std::string_view keyword);

/// Whether a plain burn leaves the bytes of such a field as the image has them.
constexpr bool IsLeftByPlainBurn(FieldType type) {
  return type == FieldType::VSD || type == FieldType::SIGNATURE;
}

/// A place that a burn fills with the device's own bytes.
struct Field {
  FieldType type = FieldType::GUID;
  std::uint32_t addr = 0;  ///< of its first byte
  std::uint32_t Size() const { return RowOf(type).size; }
  std::uint64_t End() const { return std::uint64_t{addr} + Size(); }
  bool operator==(const Field&) const = default;
};

/// A CRC that a burn computes over the device's final bytes [from, from + size) and stores in the 4
/// bytes at `addr`.
struct CrcField {
  std::uint32_t from = 0;
  std::uint32_t size = 0;
  std::uint32_t addr = 0;
  std::uint64_t End() const { return std::uint64_t{from} + size; }
  bool operator==(const CrcField&) const = default;
};

/// A run of bytes that the image has a name for.
struct Section {
  std::string name;
  std::uint32_t addr = 0;  ///< of its first byte
  Bytes data;
  std::uint64_t End() const { return std::uint64_t{addr} + data.size(); }
};

/// A chip of the device map, which lays the chips end to end.
struct MappedChip {
  std::uint8_t chip = 0;   ///< I2C address
  std::uint32_t size = 0;  ///< bytes
  bool operator==(const MappedChip&) const = default;
};

/// A place in a chip.
struct ChipPlace {
  std::uint8_t chip = 0;
  std::uint32_t offset = 0;
  bool operator==(const ChipPlace&) const = default;
};

/// Where a slot's parts are; nothing where the image does not say.
struct Slot {
  std::optional<std::uint32_t> image;
  std::optional<std::uint32_t> pointer_sector;
  std::optional<std::uint32_t> signature;
  bool operator==(const Slot&) const = default;
};

struct Image {
  const DeviceType* type = nullptr;  ///< a row of the table; null where it is unknown
  std::vector<MappedChip> map;       ///< empty: addresses are offsets in chip 0
  /// One for each address, in the order in which each address came first.
  std::vector<Section> sections;
  /// Indices into `sections` in file order. An address that comes again stands here again: a burn
  /// writes it again, with the bytes of the first.
  std::vector<std::size_t> order;
  std::vector<Field> fields;   ///< in file order, those of SIGNATURE directives included
  std::vector<CrcField> crcs;  ///< in file order
  std::array<Slot, SLOTS> slots;

  /// How its device tells valid images; NONE where the type is unknown.
  SlotKind Slots() const { return type == nullptr ? SlotKind::NONE : type->slots; }
  /// Whether its device has a flash; not where the type is unknown.
  bool IsFlash() const { return type != nullptr && type->memory == MemoryKind::FLASH; }
  /// The section that begins at `addr`; null where there is none.
  const Section* SectionAt(std::uint32_t addr) const;
  /// The sections that a failsafe burn writes into either slot, in burn order: from the one that
  /// begins at IMAGE 0 on, up to one that begins at IMAGE 1. Empty where a slot has no address, or
  /// no section begins at IMAGE 0. An address may stand there twice.
  std::vector<const Section*> SlotSections() const;
  /// Where a failsafe burn writes a section of the first slot in `slot`. Both slots must have
  /// addresses.
  std::uint32_t AddressInSlot(const Section& section, std::uint32_t slot) const {
    return section.addr - slots[0].image.value() + slots.at(slot).image.value();
  }
  /// The sum of the sizes of sections that begin in [IMAGE 0, IMAGE 1): what a burn takes for the
  /// size of an image. 0 where a slot has no address.
  std::uint32_t SlotBytes() const;

  /// The bytes of the device map; nothing without one.
  std::optional<std::uint64_t> MappedSize() const;
  /// Where an address lies; nothing past the device map.
  std::optional<ChipPlace> PlaceOf(std::uint32_t addr) const;
  /// Bytes from an address to the end of its chip: those that one request can reach. 0 past the
  /// device map.
  std::uint64_t LeftInChip(std::uint32_t addr) const;
  /// The address of a place in a chip, in 32 bits; nothing where the map lacks the chip. An offset
  /// past the chip's end reaches into the next one.
  std::optional<std::uint32_t> AddressOf(ChipPlace place) const;
  /// The address of `size` bytes from a place on; nothing where the chip, as the map has it, lacks
  /// some of them.
  std::optional<std::uint32_t> AddressWithin(ChipPlace place, std::uint64_t size) const;
};

}  // namespace device
