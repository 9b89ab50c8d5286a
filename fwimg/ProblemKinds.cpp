#include "fwimg/ProblemKinds.h"

#include <array>

namespace fwimg {

namespace {

constexpr auto E = Severity::ERROR;
constexpr auto W = Severity::WARNING;
constexpr auto KINDS = std::to_array<ProblemKind>({
    // What the loader refuses, and what it takes without a word.
    {ProblemId::REFUSED, "refused", E, "fwpush refuses the file before it connects"},
    {ProblemId::LINE_ENDS, "line-ends", E,
     "fwpush takes the carriage return for a part of the last word: it refuses the file, or does "
     "not know the device type"},
    {ProblemId::UNKNOWN_DIRECTIVE, "unknown-directive", W, "the line is ignored"},
    {ProblemId::MISSPELT_DIRECTIVE, "misspelt-directive", E,
     "the line is ignored, and what it asks for is not done"},
    {ProblemId::VERSION_WORDS, "version-words", W, "nothing: versions are not burnt"},
    {ProblemId::STRAY_DATA, "stray-data", E, "the bytes are not burnt"},
    {ProblemId::STRAY_END, "stray-end", W, "the line is ignored"},
    {ProblemId::LONG_LINE, "long-line", W, "the line is read as several, each on its own"},
    {ProblemId::LONG_LINE_REST, "long-line-rest", E,
     "it is read as a separate line, as data or as a directive"},
    {ProblemId::NUL, "nul", E, "what follows on the line is not burnt"},
    {ProblemId::DATA_CUT, "data-cut", E, "only the low 8 bits of the word are burnt"},
    {ProblemId::NUMBER_CUT, "number-cut", E, "another address than the one written is used"},
    {ProblemId::DEVICE_CUT, "device-cut", E,
     "the section is burnt into another EEPROM than the one written"},
    {ProblemId::START_NOT_READ_WHOLE, "start-not-read-whole", W, "the rest of the line is ignored"},
    {ProblemId::SECTION_NOT_CLOSED, "section-not-closed", E,
     "the section goes on to the end of the file, even if the end of the file is missing"},
    {ProblemId::DUPLICATE_SECTION, "duplicate-section", E,
     "its bytes are burnt nowhere; the first section of that address is "
     "burnt twice"},
    {ProblemId::SECTION_EMPTY, "section-empty", W, "nothing is burnt for it"},
    {ProblemId::SECTION_OVERLAP, "section-overlap", E,
     "the section burnt later overwrites the other's bytes"},
    {ProblemId::NO_SECTIONS, "no-sections", E, "nothing is burnt, and the burn succeeds",
     "the failsafe burn ends before it writes", "nothing is burnt"},
    {ProblemId::SLOT_TWICE, "slot-twice", W, "the last of them counts"},
    // Device type and map.
    {ProblemId::NO_DEVICE_TYPE, "no-device-type", E,
     "fwpush ends: device RV0 has no ROM interface"},
    {ProblemId::UNKNOWN_DEVICE_TYPE, "unknown-device-type", E,
     "fwpush ends: device RV0 has no ROM interface"},
    {ProblemId::DEVICE_TYPE_TWICE, "device-type-twice", W, "the last of them counts"},
    {ProblemId::DEVICE_TYPE_LATE, "device-type-late", E,
     "the field, which an RV61100 does not have, is asked for and written"},
    {ProblemId::BSN_IGNORED, "bsn-ignored", W, "the bytes are burnt as the image has them"},
    {ProblemId::DEVMAP_LATE, "devmap-late", E,
     "the location means another place than it would behind the device map"},
    {ProblemId::DEVMAP_TWICE, "devmap-twice", W,
     "its locations mean the first entry; the second is reached by linear "
     "address only"},
    {ProblemId::DEVMAP_EMPTY, "devmap-empty", W, "nothing can be burnt into a device of no bytes"},
    {ProblemId::DEVMAP_WRAPS, "devmap-wraps", E,
     "addresses wrap around: bytes go into the wrong device"},
    {ProblemId::PAST_DEVICE, "past-device", E, "the location lies in the next device of the map"},
    {ProblemId::PAST_MAP, "past-map", E, "the burn ends: no mapping for the address"},
    {ProblemId::CHUNK_CROSSES_DEVICE, "chunk-crosses-device", E,
     "the burn ends half-way: no chunk may reach from one device into the next"},
    {ProblemId::SLOT_WRAPS, "slot-wraps", E, "the burn ends half-way, or goes on from address 0"},
    {ProblemId::PAST_FLASH, "past-flash", E,
     "the burn ends half-way: the flash has no such address"},
    {ProblemId::PAST_EEPROM, "past-eeprom", E,
     "the burn ends half-way: the device has no such EEPROM, or it ends before"},
    {ProblemId::CHUNK_TOO_LARGE, "chunk-too-large", W,
     "one write may be more than the memory takes at once, or erase several sectors"},
    {ProblemId::FLASH_DEVICE, "flash-device", E,
     "the flash is asked for another device or place than it has: the burn ends"},
    // Fields and CRCs.
    {ProblemId::FIELD_OUTSIDE, "field-outside", E, "the device's own value is never written there"},
    {ProblemId::FIELD_CROSSES, "field-crosses", E,
     "the burn ends when it comes to the section; devices are left half burnt",
     "the burn ends when it comes to the section; the slot is left half burnt"},
    {ProblemId::FIELD_OVERLAP, "field-overlap", E, "values are programmed over each other"},
    {ProblemId::FIELD_TWICE, "field-twice", W, "the value is written twice"},
    {ProblemId::FIELD_NOT_REPLACED, "field-not-replaced", W,
     "the bytes are burnt as the image has them"},
    {ProblemId::GUIDS_PORTS, "guids-ports", E,
     "the burn ends when it comes to the field: fwpush fills GUIDS for 1 or 2 ports only"},
    {ProblemId::CRC_OUTSIDE, "crc-outside", E, "the CRC is never computed"},
    {ProblemId::CRC_CROSSES, "crc-crosses", E,
     "the burn ends when it comes to the section; devices are left half burnt",
     "the burn ends when it comes to the section; the slot is left half burnt"},
    {ProblemId::CRC_PLACE, "crc-place", E,
     "the CRC's place is not blanked before it is written: a flash keeps the AND "
     "of the old and the new bits"},
    {ProblemId::CRC_NOT_WORDS, "crc-not-words", E,
     "fwpush aborts on an assertion in the middle of the burn"},
    {ProblemId::CRC_EMPTY, "crc-empty", W, "a CRC over no bytes is written"},
    {ProblemId::CRC_OVER_CRC, "crc-over-crc", E,
     "the CRC is computed with FF in the other's place, in whatever order they "
     "stand, and does not fit what is burnt"},
    {ProblemId::CRC_OVER_ITSELF, "crc-over-itself", W,
     "the CRC is computed with FF in its own place"},
    {ProblemId::CRC_OVER_SIGNATURE, "crc-over-signature", E,
     "the CRC is computed with the signature set, which a failsafe burn leaves blank: it does not "
     "fit what is burnt"},
    {ProblemId::CRC_STORED, "crc-stored", W,
     "the burn computes it anew, over bytes that may be damaged"},
    {ProblemId::NOT_WORD_ALIGNED, "not-word-aligned", W,
     "memory is read and written in words of 4 bytes"},
    {ProblemId::ONE_SLOT_ONLY, "one-slot-only", E,
     "in the other slot the bytes are another device's values, or stale"},
    // Slots.
    {ProblemId::SLOT_UNSET, "slot-unset", E, "the failsafe burn ends before it writes"},
    {ProblemId::SLOT_ORDER, "slot-order", E,
     "the image has no bytes between its slots: the burn ends, or misjudges what "
     "fits"},
    {ProblemId::NO_FIRST_SECTION, "no-first-section", E, "the failsafe burn ends before it writes"},
    {ProblemId::SLOTS_OVERLAP, "slots-overlap", E,
     "burning one slot destroys what the other burns need"},
    {ProblemId::IMAGE_SECTION_OUTSIDE, "image-section-outside", E,
     "it is burnt as a part of the image, moved along with it for the "
     "second slot"},
    {ProblemId::IMAGE_SECTION_LEFT_OUT, "image-section-left-out", E,
     "no slot gets its bytes: a failsafe burn leaves them out"},
    {ProblemId::SECTION_NOT_BURNT, "section-not-burnt", W,
     "a failsafe burn leaves it out; a burn with -n writes it"},
    {ProblemId::SECTION_IN_SLOT, "section-in-slot", E,
     "a failsafe burn leaves it out, and destroys it when it burns the slot"},
    {ProblemId::IMAGE_GAPS, "image-gaps", W,
     "a second image may lie in a gap and be overwritten while it is the only "
     "valid one"},
    {ProblemId::SLOT_CROSSES_DEVICE, "slot-crosses-device", W,
     "the slot boots only where the boot code reads on in the next EEPROM"},
    // Pointer sectors and the invariant sector.
    {ProblemId::PS_WITHOUT_SECTION, "ps-without-section", E,
     "the failsafe burn ends before it writes"},
    {ProblemId::PS_SHORT, "ps-short", E, "the record is not burnt whole: the slot does not boot"},
    {ProblemId::PS_IN_IMAGE, "ps-in-image", E,
     "the image and its pointer sector are burnt over each other: the slot does not boot"},
    {ProblemId::PS_RECORD, "ps-record", E, "the boot code looks for the image elsewhere"},
    {ProblemId::PS_SIZE, "ps-size", E,
     "moving the image copies only a part of it, and invalidates the whole one: the "
     "device starts the part"},
    {ProblemId::PS_SIZE_LARGE, "ps-size-large", W,
     "moving the image copies more bytes than it has"},
    {ProblemId::PS_PAST_FLASH, "ps-past-flash", E,
     "the image that the boot code starts is not whole, and moving it fails"},
    {ProblemId::PS_CRC, "ps-crc", E, "the record does not match its CRC: the slot does not boot"},
    {ProblemId::SIGNATURE_PLACE, "signature-place", E,
     "the boot code looks for the signature 8 bytes into the pointer sector"},
    {ProblemId::SIGNATURE_ELSEWHERE, "signature-elsewhere", W,
     "a failsafe burn leaves FF there: only the slots' signatures are "
     "written"},
    {ProblemId::SIGNATURE_SHIPPED, "signature-shipped", W,
     "after a burn with -n the slot counts as valid, and has no image"},
    {ProblemId::NONE_SHIPPED_SIGNED, "none-shipped-signed", W,
     "after a burn with -n no slot boots"},
    {ProblemId::INVARIANT_NOT_FIRST, "invariant-not-first", E,
     "it is neither compared nor burnt by a failsafe burn"},
    {ProblemId::MARKER_MISSING, "marker-missing", E,
     "once the invariant sector is burnt, no failsafe burn accepts the device"},
    {ProblemId::MARKER_BLANKED, "marker-blanked", E,
     "the marker is left blank: no failsafe burn accepts the device any more"},
    {ProblemId::FIELD_IN_INVARIANT, "field-in-invariant", W,
     "the invariant sector always differs from the image: each burn "
     "rewrites it, which is not failsafe"},
    {ProblemId::INVARIANT_CHANGES, "invariant-changes", E,
     "the invariant sector always differs from the image: each burn rewrites it, which is not "
     "failsafe"},
    {ProblemId::FIRST_SLOT_PLACE, "first-slot-place", W,
     "a burn looks whether a second image is in the way of a first one at 3 sectors, and moves it "
     "there: one in the way of this slot may be overwritten while it is the only valid one"},
    {ProblemId::ERASE_UNALIGNED, "erase-unaligned", E,
     "the burn ends when it comes to the section, whose start is no sector's"},
    {ProblemId::ERASE_SPOILS, "erase-spoils", E,
     "erasing for the section destroys bytes that were burnt before, or that a "
     "valid image needs"},
    // Boot records.
    {ProblemId::RECORD_SHORT, "record-short", E,
     "the slot does not begin with a whole boot record, or is marked valid before it is written"},
    {ProblemId::RECORD_CROSSES_DEVICE, "record-crosses-device", E,
     "the record is read at once, and no read reaches into the next device: the burn ends before "
     "it "
     "writes"},
    {ProblemId::RECORD_SUM, "record-sum", E, "no slot becomes valid, and both are overwritten"},
    {ProblemId::RECORD_MARKED, "record-marked", E,
     "the first slot never becomes valid: while the second is written the "
     "device has none"},
    {ProblemId::CRC_OVER_SPOILT, "crc-over-spoilt", E,
     "the CRC is computed while the byte is spoilt, and stays wrong"},
    {ProblemId::FIELD_IN_HELD_BACK, "field-in-held-back", E,
     "the first 4 bytes are written last, as the image has them: the "
     "device's own value is lost"},
    {ProblemId::FIELD_IN_RECORD, "field-in-record", E,
     "the sum of the record depends on the device's value: it is right by "
     "chance only"},
});

constexpr bool IsInOrder() {
  for (std::size_t i = 0; i < KINDS.size(); ++i) {
    if (static_cast<std::size_t>(KINDS[i].id) != i) return false;
  }
  return KINDS.size() == static_cast<std::size_t>(ProblemId::COUNT);
}
static_assert(IsInOrder());

}  // namespace

std::string_view ProblemKind::BurnOf(const device::DeviceType* type) const {
  if (type == nullptr && !none.empty()) return none;
  const bool has_slots = type != nullptr && type->slots != device::SlotKind::NONE;
  return has_slots && !failsafe.empty() ? failsafe : burn;
}

std::span<const ProblemKind> ProblemKinds() { return KINDS; }

const ProblemKind& KindOf(ProblemId id) { return KINDS[static_cast<std::size_t>(id)]; }

}  // namespace fwimg
