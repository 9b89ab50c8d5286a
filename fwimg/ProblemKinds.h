/// The kinds of problems that an image file may have.
#pragma once

#include <span>
#include <string_view>

#include "device/DeviceType.h"

namespace fwimg {

enum class Severity { WARNING, ERROR };

/// In the order of the table of kinds.
enum class ProblemId {
  REFUSED,
  LINE_ENDS,
  UNKNOWN_DIRECTIVE,
  MISSPELT_DIRECTIVE,
  VERSION_WORDS,
  STRAY_DATA,
  STRAY_END,
  LONG_LINE,
  LONG_LINE_REST,
  NUL,
  DATA_CUT,
  NUMBER_CUT,
  DEVICE_CUT,
  START_NOT_READ_WHOLE,
  SECTION_NOT_CLOSED,
  DUPLICATE_SECTION,
  SECTION_EMPTY,
  SECTION_OVERLAP,
  NO_SECTIONS,
  SLOT_TWICE,
  NO_DEVICE_TYPE,
  UNKNOWN_DEVICE_TYPE,
  DEVICE_TYPE_TWICE,
  DEVICE_TYPE_LATE,
  BSN_IGNORED,
  DEVMAP_LATE,
  DEVMAP_TWICE,
  DEVMAP_EMPTY,
  DEVMAP_WRAPS,
  PAST_DEVICE,
  PAST_MAP,
  CHUNK_CROSSES_DEVICE,
  SLOT_WRAPS,
  PAST_FLASH,
  PAST_EEPROM,
  CHUNK_TOO_LARGE,
  FLASH_DEVICE,
  FIELD_OUTSIDE,
  FIELD_CROSSES,
  FIELD_OVERLAP,
  FIELD_TWICE,
  FIELD_NOT_REPLACED,
  GUIDS_PORTS,
  CRC_OUTSIDE,
  CRC_CROSSES,
  CRC_PLACE,
  CRC_NOT_WORDS,
  CRC_EMPTY,
  CRC_OVER_CRC,
  CRC_OVER_ITSELF,
  CRC_OVER_SIGNATURE,
  CRC_STORED,
  NOT_WORD_ALIGNED,
  ONE_SLOT_ONLY,
  SLOT_UNSET,
  SLOT_ORDER,
  NO_FIRST_SECTION,
  SLOTS_OVERLAP,
  IMAGE_SECTION_OUTSIDE,
  IMAGE_SECTION_LEFT_OUT,
  SECTION_NOT_BURNT,
  SECTION_IN_SLOT,
  IMAGE_GAPS,
  SLOT_CROSSES_DEVICE,
  PS_WITHOUT_SECTION,
  PS_SHORT,
  PS_IN_IMAGE,
  PS_RECORD,
  PS_SIZE,
  PS_SIZE_LARGE,
  PS_PAST_FLASH,
  PS_CRC,
  SIGNATURE_PLACE,
  SIGNATURE_ELSEWHERE,
  SIGNATURE_SHIPPED,
  NONE_SHIPPED_SIGNED,
  INVARIANT_NOT_FIRST,
  MARKER_MISSING,
  MARKER_BLANKED,
  FIELD_IN_INVARIANT,
  INVARIANT_CHANGES,
  FIRST_SLOT_PLACE,
  ERASE_UNALIGNED,
  ERASE_SPOILS,
  RECORD_SHORT,
  RECORD_CROSSES_DEVICE,
  RECORD_SUM,
  RECORD_MARKED,
  CRC_OVER_SPOILT,
  FIELD_IN_HELD_BACK,
  FIELD_IN_RECORD,
  COUNT,
};

/// A kind of problem.
struct ProblemKind {
  ProblemId id;
  std::string_view word;  ///< what people and programs call it
  Severity severity;
  std::string_view burn;           ///< what would happen at the burn
  std::string_view failsafe = {};  ///< the same for a device type with slots, where it differs
  std::string_view none = {};      ///< and for one that fwpush burns nowhere

  /// What would happen at the burn of an image for devices of this type; null for an unknown one.
  std::string_view BurnOf(const device::DeviceType* type) const;
};

/// All kinds there are.
std::span<const ProblemKind> ProblemKinds();
const ProblemKind& KindOf(ProblemId id);

}  // namespace fwimg
