// fwimg check: an image for every kind of problem, with just that problem.
#include "fwimg/ImageCheck.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "common/Text.h"
#include "src/FwImage.h"
#include "tests/support/Harness.h"
#include "tests/support/slot_images.h"

namespace {

using Found = std::set<std::pair<u_int32_t, std::string>>;  ///< line and kind

// The three kinds of images, all of them clean. Lines of extra directives are put before them.

/// DEVICE_TYPE on line 1, START on 2, four lines of data, END on 7.
std::string Generic(u_int8_t content = 0) {
  return "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40, content));
}

/// DEVICE_TYPE on line 1, IMAGE 0 and 1 on 2 and 3, START on 4, four lines of data, END on 9.
std::string Eeprom() { return EepromImage(0); }

struct Flash {
  u_int32_t image0 = IMAGE0;
  u_int32_t image1 = IMAGE1;
  u_int32_t size = 0x20;
  std::string marker = "cb84cb84";
  std::string signature1 = "SIGNATURE 1 808 0\n";
  bool has_crcs = true;
  u_int32_t record_image1 = IMAGE1;
  u_int32_t record_size = 0x20;
  bool is_second_valid = false;
  std::size_t ps1_size = 264;  ///< bytes of it that are there; 0: no section at all
  bool is_invariant_late = false;
  u_int32_t ps1 = PS1;
  bool is_first_valid = true;
  std::string word20 = "77777777";  ///< of the invariant sector, at 0x20
  std::size_t invariant_size = 0x40;

  /// Line 1: DEVICE_TYPE; 2, 3: PS; 4, 5: SIGNATURE; 6, 7: IMAGE; 8, 9: CRCs, or else all below
  /// two lines up; 10 to 15: INVARIANT; 16 to 34: PS0; 35 to 53: PS1; 54 to 57: FIRMWARE.
  std::string Text() const {
    DataVec invariant(0x40, 0x77);
    const DataVec marks = Hex(marker);
    std::copy(marks.begin(), marks.end(), invariant.begin() + 0x24);
    std::ranges::copy(Hex(word20), invariant.begin() + 0x20);
    invariant.resize(invariant_size);
    DataVec ps1_data = PointerSector(record_image1, record_size, is_second_valid);
    ps1_data.resize(ps1_size);
    const std::string ps0_text =
        Section("PS0", PS0, PointerSector(image0, record_size, is_first_valid));
    const std::string invariant_text = Section("INVARIANT", 0, invariant);
    return ::Text("DEVICE_TYPE RV52100\nPS 0 400 0\n", std::hex, "PS 1 ", ps1,
                  " 0\nSIGNATURE 0 408 0\n", signature1, "IMAGE 0 ", image0, " 0\nIMAGE 1 ", image1,
                  " 0\n",
                  has_crcs ? "REPLACE CRC 400 0 500 0 504 0\nREPLACE CRC 800 0 900 0 904 0\n" : "",
                  is_invariant_late ? ps0_text + invariant_text : invariant_text + ps0_text,
                  ps1_data.empty() ? "" : Section("PS1", ps1, ps1_data),
                  Section("FIRMWARE", image0, DataVec(size, 0x11)));
  }
};

/// The same text for a device of the map that is not 0.
std::string OnDevice50(const std::string& text) {
  std::string result;
  for (const std::string_view line : common::Lines(text)) {
    const auto words = common::Words(line);
    const bool has_locations = line.starts_with("PS ") || line.starts_with("IMAGE ") ||
                               line.starts_with("SIGNATURE ") || line.starts_with("REPLACE ") ||
                               line.starts_with("START ");
    for (std::size_t i = 0; i < words.size(); ++i) {
      const bool is_device = has_locations && i % 2 == 1 && i >= 3;
      result += (i == 0 ? "" : " ") + (is_device ? "50" : std::string(words[i]));
    }
    result += "\n";
  }
  return result;
}

std::string BeforePs0(std::string text, const std::string& section) {
  return text.insert(text.find("START PS0"), section);
}

std::string Word(u_int32_t value) { return Text(std::hex, std::setw(8), std::setfill('0'), value); }

DataVec Joined(const DataVec& a, const DataVec& b, const DataVec& c = {}) {
  DataVec all = a;
  return all << b << c;
}

struct Case {
  const char* name;
  std::string text;
  Found found;
  fwimg::CheckTarget target = {.sector_size = SECTOR};
};

const std::vector<Case>& Cases() {
  static const std::vector<Case> CASES{
      {"Refused", Generic() + "PS 2 0 0\n", {{8, "refused"}}},
      {"StartWithoutNumbers", Generic() + "START B\nEND B\n", {{8, "refused"}}},
      {"StartWithOneNumber", Generic() + "START B 100\nEND B\n", {{8, "refused"}}},
      {"LinesOfNoWholeWords",
       "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1 2\n0 1 2 3\nEND A\n",
       {{3, "refused"}}},
      {"WrongEnd", "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1 2 3\nEND B\n", {{4, "refused"}}},
      {"SecondSignature", Flash{}.Text() + "SIGNATURE 0 508 0\n", {{58, "refused"}}},
      {"CarriageReturn",
       "DEVICE_TYPE RV61100\r\n" + Section("A", 0, DataVec(8)),
       {{1, "line-ends"}}},
      {"Unknown", "FROBNICATE 1 2\n" + Generic(), {{1, "unknown-directive"}}},
      {"Misspelt", "REPLCAE GUID 0 0\n" + Generic(), {{1, "misspelt-directive"}}},
      {"LowerCase", "replace GUID 0 0\n" + Generic(), {{1, "misspelt-directive"}}},
      {"Tabs", "REPLACE\tGUID\t0\t0\n" + Generic(), {{1, "misspelt-directive"}}},
      {"Version", "MAJ_FW_VER\n" + Generic(), {{1, "version-words"}}},
      {"StrayData", "0 1 2 3\n0 1 2 3\n" + Generic(), {{1, "stray-data"}}},
      {"StrayEnd", "END A\n" + Generic(), {{1, "stray-end"}}},
      {"LongLine", "#" + std::string(1100, ' ') + "\n" + Generic(), {{1, "long-line"}}},
      {"LongCommentInASection",
       "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1 2 3\n#" + std::string(1021, ' ') + " \nEND A\n",
       {{4, "long-line"}}},
      {"LongCommentThatGoesOnAsData",
       "DEVICE_TYPE RV61100\nSTART A 0 0\n#" + std::string(1022, ' ') + "0 1 2 3\nEND A\n",
       {{3, "long-line"}, {4, "long-line-rest"}}},
      {"LongCommentThatGoesOnAsADirective",
       "#" + std::string(1022, ' ') + "REPLACE GUID 0 0\n" + Generic(),
       {{1, "long-line"}, {2, "long-line-rest"}}},
      {"Nul", std::string("REPLACE GUID 0 0\0 more\n", 23) + Generic(), {{1, "nul"}}},
      {"DataCut", "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1ff 2 3\nEND A\n", {{3, "data-cut"}}},
      {"NumberCut", Generic() + "REPLACE GUID 100000008 0\n", {{8, "number-cut"}}},
      {"DeviceCut", "DEVICE_TYPE RV61100\nSTART A 0 100\n0 1 2 3\nEND A\n", {{2, "device-cut"}}},
      {"StartWithMore",
       "DEVICE_TYPE RV61100\nSTART A 0 0 0\n0 1 2 3\nEND A\n",
       {{2, "start-not-read-whole"}}},
      {"NotClosed", "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1 2 3\n", {{2, "section-not-closed"}}},
      {"NotClosedBeforeTheNext",
       "DEVICE_TYPE RV61100\nSTART A 0 0\n0 1 2 3\nSTART B 10 0\n0 1 2 3\nEND B\n",
       {{2, "section-not-closed"}, {4, "refused"}}},
      {"Duplicate", Generic() + Section("B", 0, DataVec(8)), {{8, "duplicate-section"}}},
      {"Empty", Generic() + "START B 100 0\nEND B\n", {{8, "section-empty"}}},
      {"Overlap", Generic() + Section("B", 0x20, DataVec(8)), {{8, "section-overlap"}}},
      {"NoSections", "DEVICE_TYPE RV61100\n", {{0, "no-sections"}}},
      {"NoSectionWithBytes",
       "DEVICE_TYPE RV61100\nSTART A 0 0\nEND A\n",
       {{0, "no-sections"}, {2, "section-empty"}}},
      {"GuidsOfADeviceWithThreePorts",
       Generic() + "REPLACE GUIDS 0 0\n",
       {{8, "guids-ports"}},
       {.sector_size = SECTOR, .ports = 3}},
      {"SlotTwice", "IMAGE 1 60 0\n" + Eeprom(), {{4, "slot-twice"}}},
      {"NoDeviceType", Section("A", 0, DataVec(8)), {{0, "no-device-type"}}},
      {"UnknownDeviceType",
       "DEVICE_TYPE RV1\n" + Section("A", 0, DataVec(8)),
       {{1, "unknown-device-type"}}},
      {"DeviceTypeTwice", "DEVICE_TYPE RV61300\n" + Generic(), {{2, "device-type-twice"}}},
      {"DeviceTypeLate", "REPLACE BSN 0 0\n" + Generic(), {{1, "device-type-late"}}},
      {"BsnIgnored", Generic() + "REPLACE BSN 0 0\n", {{8, "bsn-ignored"}}},
      {"MapLate", Generic() + "DEVMAP 100 50\n", {{2, "devmap-late"}}},
      {"MapLateForARefusedLine",
       "DEVMAP 100 0\n" + Generic() + "REPLACE GUID 0 51\nDEVMAP 100 51\n",
       {{9, "refused"}, {9, "devmap-late"}}},
      {"MapWithoutTheDeviceOfALineBefore",
       "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(8)) + "DEVMAP 2000 50\n",
       {{2, "devmap-late"}}},
      {"NotInTheMap",
       "DEVMAP 100 0\nDEVMAP 30 2\nDEVMAP 20 0\n" + Generic() + "START B 0 51\nEND B\n",
       {{3, "devmap-twice"}, {11, "refused"}}},
      {"MapTwice", "DEVMAP 100 0\nDEVMAP 100 0\n" + Generic(), {{2, "devmap-twice"}}},
      {"MapEmpty", "DEVMAP 100 0\nDEVMAP 0 1\n" + Generic(), {{2, "devmap-empty"}}},
      {"MapWraps", "DEVMAP ffffffff 0\nDEVMAP 20 1\n" + Generic(), {{2, "devmap-wraps"}}},
      {"PastDevice",
       "DEVMAP 100 0\nDEVMAP 100 1\n" + Generic() + Section("B", 0x100, DataVec(8)),
       {{10, "past-device"}}},
      {"PastMap", "DEVMAP 20 0\n" + Generic(), {{3, "past-map"}}},
      {"SecondSlotPastMap", "DEVMAP 80 0\n" + Eeprom(), {{4, "past-map"}, {4, "past-device"}}},
      {"ChunkCrossesDevice",
       "DEVMAP 10 0\nDEVMAP 100 1\n" + Generic(),
       {{1, "chunk-too-large"}, {4, "chunk-crosses-device"}}},
      {"ChunkOfTheSecondSlotCrossesDevice",
       "DEVMAP 90 0\nDEVMAP 100 1\n" + Eeprom(),
       {{5, "slot-crosses-device"}, {6, "chunk-crosses-device"}}},
      {"SmallerChunksDoNotCrossDevices",
       "DEVMAP 10 0\nDEVMAP 100 1\n" + Generic(),
       {},
       {.sector_size = SECTOR, .log2_chunk = 4}},
      {"GreaterChunksCrossDevices",
       "DEVMAP 20 0\nDEVMAP 100 1\n" + Generic(),
       {{1, "chunk-too-large"}, {4, "chunk-crosses-device"}},
       {.sector_size = SECTOR, .log2_chunk = 6}},
      {"ChunkLargerThanASector",
       Flash{}.Text(),
       {{1, "chunk-too-large"}},
       {.sector_size = SECTOR, .log2_chunk = 11}},
      {"ChunkThatErasesTwoSectorsAndForgetsTheSecond",
       Flash{.size = 0x600, .record_size = 0x604}.Text() + Section("MORE", 0x1200, DataVec(4)),
       {{1, "chunk-too-large"}, {152, "erase-unaligned"}},
       {.sector_size = SECTOR, .log2_chunk = 12}},
      {"SlotGoesOnInTheNextDevice",
       "DEVMAP a0 0\nDEVMAP 100 1\n" + Eeprom(),
       {{5, "slot-crosses-device"}}},
      {"RecordGoesOnInTheNextDevice",
       "DEVMAP 88 0\nDEVMAP 100 1\n" + Eeprom(),
       {{5, "record-crosses-device"}, {5, "slot-crosses-device"}, {6, "chunk-crosses-device"}}},
      {"FlashOfADeviceThatIsNot0",
       "DEVMAP 2000 50\n" + OnDevice50(Flash{}.Text()),
       {{1, "flash-device"}}},
      {"FlashOfTwoDevices",
       "DEVMAP 1400 0\nDEVMAP 2000 50\n" + Flash{.image1 = 0x1000, .record_image1 = 0x1000}.Text(),
       {}},
      {"SecondSlotInTheSecondDeviceOfAFlash",
       "DEVMAP 1010 0\nDEVMAP 2000 50\n" + Flash{.image1 = 0x1000, .record_image1 = 0x1000}.Text(),
       {{2, "flash-device"}, {56, "chunk-crosses-device"}}},
      {"NoSuchEeprom",
       Generic(),
       {{2, "past-eeprom"}},
       {.sector_size = SECTOR, .eeproms = {{{0x50, 0x1000}}}}},
      {"EepromEndsEarlier",
       "DEVMAP 100 0\n" + Generic(),
       {{3, "past-eeprom"}},
       {.sector_size = SECTOR, .eeproms = {{{0, 0x3c}}}}},
      {"EepromIsLongEnough",
       "DEVMAP 100 0\n" + Generic(),
       {},
       {.sector_size = SECTOR, .eeproms = {{{0, 0x40}}}}},
      {"DeviceEndsWithAChunk", "DEVMAP 20 0\nDEVMAP 100 1\n" + Generic(), {}},
      {"SecondSlotPast4GiB",
       Flash{.image1 = 0xfffffc00, .size = 0x800, .record_image1 = 0xfffffc00, .record_size = 0x800}
           .Text(),
       {{7, "slot-wraps"}}},
      {"SecondSlotUpTo4GiB",
       Flash{.image1 = 0xfffffc00, .size = 0x400, .record_image1 = 0xfffffc00, .record_size = 0x400}
           .Text(),
       {}},
      {"SecondSlotPastTheFlash",
       Flash{}.Text(),
       {{35, "ps-past-flash"}, {54, "past-flash"}},
       {.sector_size = SECTOR, .flash_size = IMAGE1 + 0x1f}},
      {"SecondSlotUpToTheEndOfTheFlash",
       Flash{}.Text(),
       {},
       {.sector_size = SECTOR, .flash_size = IMAGE1 + 0x20}},
      {"NoFlash", Eeprom(), {}, {.sector_size = SECTOR, .flash_size = 0x20}},
      {"SecondSlotOfAnEepromPast4GiB",
       "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 ffffffe0 0\n" + Section("A", 0, EepromData(0)),
       {{3, "slot-wraps"}}},
      {"VsdOfAGenericBurn",
       "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x100)) + "REPLACE VSD 0 0\n",
       {{20, "field-not-replaced"}}},
      {"SignatureOfAGenericBurn",
       Generic() + "REPLACE SIGNATURE 0 0\n",
       {{8, "field-not-replaced"}}},
      {"FieldOutside", Generic() + "REPLACE GUID 40 0\n", {{8, "field-outside"}}},
      {"FieldCrosses", Generic() + "REPLACE GUID 3c 0\n", {{8, "field-crosses"}}},
      {"FieldsOverlap",
       Generic() + "REPLACE GUID 0 0\nREPLACE SYSGUID 4 0\n",
       {{9, "field-overlap"}}},
      {"FieldOnACrc",
       Generic() + "REPLACE CRC 0 0 4 0 10 0\nREPLACE GUID c 0\n",
       {{9, "field-overlap"}}},
      {"FieldTwice", Generic() + "REPLACE GUID 8 0\nREPLACE GUID 8 0\n", {{9, "field-twice"}}},
      {"CrcOutside", Generic() + "REPLACE CRC 40 0 44 0 48 0\n", {{8, "crc-outside"}}},
      {"CrcCrosses",
       Generic() + "REPLACE CRC 0 0 40 0 10 0\n",
       {{8, "crc-crosses"}, {8, "crc-over-itself"}}},
      {"CrcPlaceCrosses", Generic() + "REPLACE CRC 0 0 3c 0 40 0\n", {{8, "crc-crosses"}}},
      {"CrcReversed", Generic() + "REPLACE CRC 10 0 0 0 4 0\n", {{8, "crc-crosses"}}},
      {"CrcPlace",
       Generic() + Section("B", 0x100, DataVec(0x40)) + "REPLACE CRC 100 0 104 0 30 0\n",
       {{14, "crc-place"}}},
      {"CrcNotWords", Generic() + "REPLACE CRC 0 0 1 0 20 0\n", {{8, "crc-not-words"}}},
      {"CrcOverASignatureThatIsNoSlots",
       Flash{}.Text() + "REPLACE SIGNATURE 410 0\n",
       {{8, "crc-over-signature"},
        {16, "ps-crc"},
        {58, "one-slot-only"},
        {58, "signature-elsewhere"}}},
      {"CrcOverASignatureOfAnEeprom",
       Eeprom() + "REPLACE SIGNATURE 20 0\nREPLACE SIGNATURE a0 0\nREPLACE CRC 1c 0 20 0 24 0\n"
                  "REPLACE CRC 9c 0 a0 0 a4 0\n",
       {{10, "signature-elsewhere"},
        {11, "signature-elsewhere"},
        {12, "crc-over-signature"},
        {13, "crc-over-signature"}}},
      {"CrcEmpty", Generic() + "REPLACE CRC 4 0 0 0 20 0\n", {{8, "crc-empty"}}},
      {"CrcOverACrcBefore",
       Generic() + "REPLACE CRC 0 0 8 0 c 0\nREPLACE CRC 0 0 10 0 14 0\n",
       {{9, "crc-over-crc"}}},
      {"CrcOverACrcBehind",
       Generic() + "REPLACE CRC 0 0 10 0 14 0\nREPLACE CRC 0 0 8 0 c 0\n",
       {{8, "crc-over-crc"}}},
      {"CrcOverItself", Generic() + "REPLACE CRC 0 0 8 0 4 0\n", {{8, "crc-over-itself"}}},
      {"StoredCrc", Generic(0x11) + "REPLACE CRC 0 0 8 0 c 0\n", {{8, "crc-stored"}}},
      {"NotAligned", Generic() + "REPLACE GUID 2 0\n", {{8, "not-word-aligned"}}},
      {"FieldInSlot0Only", Eeprom() + "REPLACE GUID 20 0\n", {{10, "one-slot-only"}}},
      {"FieldInSlot1Only", Eeprom() + "REPLACE GUID a0 0\n", {{10, "one-slot-only"}}},
      {"AnotherTypeInSlot1",
       Eeprom() + "REPLACE GUID 20 0\nREPLACE SYSGUID a0 0\n",
       {{10, "one-slot-only"}, {11, "one-slot-only"}}},
      {"CrcInSlot1Only", Eeprom() + "REPLACE CRC 90 0 98 0 a0 0\n", {{10, "one-slot-only"}}},
      {"SlotUnset",
       "DEVICE_TYPE RV61300\nIMAGE 0 0 0\n" + Section("A", 0, EepromData(0)),
       {{1, "slot-unset"}}},
      {"SlotUnsetByItsAddress",
       "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 ffffffff 0\n" + Section("A", 0, EepromData(0)),
       {{3, "slot-unset"}}},
      {"PointerSectorUnsetByItsAddress",
       Flash{.ps1_size = 0, .ps1 = 0xffffffff}.Text(),
       {{3, "slot-unset"},
        {3, "ps-without-section"},
        {5, "signature-place"},
        {5, "field-outside"},
        {9, "crc-outside"}}},
      {"SlotOrder",
       "DEVICE_TYPE RV61300\nIMAGE 0 80 0\nIMAGE 1 0 0\n" + Section("A", 0x80, EepromData(0)),
       {{3, "slot-order"}, {4, "image-section-outside"}}},
      {"NoFirstSection",
       "DEVICE_TYPE RV61300\nIMAGE 0 10 0\nIMAGE 1 80 0\n" + Section("A", 0, EepromData(0)),
       {{2, "no-first-section"}}},
      {"SlotsOverlap",
       "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 20 0\n" + Section("A", 0, EepromData(0)),
       {{4, "slots-overlap"}}},
      {"ImageSectionOutside",
       Eeprom() + Section("B", 0x100, DataVec(8)),
       {{10, "image-section-outside"}}},
      {"SectionNotBurnt", Section("B", 0x100, DataVec(8)) + Eeprom(), {{1, "section-not-burnt"}}},
      {"SectionOfTheImageBeforeItsFirst",
       Section("B", 0x60, DataVec(8)) + Eeprom(),
       {{1, "image-section-left-out"}}},
      {"RecordWhoseRestStandsBeforeItsFirstSection",
       Section("B", 8, DataVec(8)) + EepromText(DataVec(8)),
       {{1, "image-section-left-out"}, {7, "record-short"}}},
      {"SectionInTheSecondSlot",
       Section("B", 0x90, DataVec(8, 1)) + Eeprom(),
       {{1, "section-in-slot"}}},
      {"SectionInTheLastSectorOfTheSecondSlot",
       Section("B", 0x17f8, DataVec(8)) + Flash{}.Text(),
       {{1, "section-in-slot"},  // before the invariant sector, which is then not first
        {1, "erase-unaligned"},
        {13, "invariant-not-first"}}},
      {"CopyInTheSecondSlot", Flash{}.Text() + Section("COPY", IMAGE1, DataVec(0x20, 0x11)), {}},
      {"PartOfACopyInTheSecondSlot",
       Flash{}.Text() + Section("COPY", IMAGE1, DataVec(0x10, 0x11)),
       {}},
      {"CopyInTheSecondSlotWithMoreBehind",
       Flash{}.Text() + Section("COPY", IMAGE1, DataVec(0x24, 0x11)),
       {{58, "section-in-slot"}}},
      {"CopyInTheSecondSlotWithItsOwnFields",
       Flash{.record_size = 0x20}.Text() + "REPLACE GUID c08 0\nREPLACE GUID 1408 0\n" +
           Section("COPY", IMAGE1, Joined(DataVec(8, 0x11), DataVec(8, 0x22), DataVec(0x10, 0x11))),
       {}},
      {"NoCopyInTheSecondSlot",
       Flash{}.Text() + Section("COPY", IMAGE1, Joined(DataVec(0x1f, 0x11), DataVec(1, 0x12))),
       {{58, "section-in-slot"}}},
      {"CopyInTheSecondSlotOfAnEeprom", Eeprom() + Section("COPY", 0x80, EepromData(0)), {}},
      {"Gaps",
       Flash{.record_size = 0xa0}.Text() + Section("MORE", 0xC80, DataVec(0x20)),
       {{54, "image-gaps"}}},
      {"NoPointerSector",
       Flash{.ps1_size = 0}.Text(),
       {{3, "ps-without-section"}, {5, "field-outside"}, {9, "crc-outside"}}},
      {"ShortPointerSector", Flash{.ps1_size = 260}.Text(), {{9, "crc-crosses"}, {35, "ps-short"}}},
      {"PointerSectorWhereItsImageIs",
       Flash{.size = 0x800,
             .signature1 = "SIGNATURE 1 1408 0\n",
             .has_crcs = false,
             .record_size = 0x800,
             .ps1 = IMAGE1}
           .Text(),
       {{3, "ps-in-image"}, {33, "ps-crc"}}},
      {"PointerSectorInItsImage",
       Flash{.size = 0x800,
             .signature1 = "SIGNATURE 1 1808 0\n",
             .has_crcs = false,
             .record_size = 0x800,
             .ps1 = 0x1800}
           .Text(),
       {{3, "ps-in-image"}, {33, "ps-crc"}}},
      {"PointerSectorInTheLastSectorOfItsImage",
       Flash{.size = 0x404,
             .signature1 = "SIGNATURE 1 1808 0\n",
             .has_crcs = false,
             .record_size = 0x404,
             .ps1 = 0x1800}
           .Text(),
       {{3, "ps-in-image"}, {33, "ps-crc"}}},
      {"PointerSectorBehindItsImage",
       Flash{.size = 0x400,
             .signature1 = "SIGNATURE 1 1808 0\n",
             .has_crcs = false,
             .record_size = 0x400,
             .ps1 = 0x1800}
           .Text(),
       {{33, "ps-crc"}}},
      {"RecordOfAnotherImage", Flash{.record_image1 = 0x1800}.Text(), {{35, "ps-record"}}},
      {"RecordOfASmallerSize",
       Flash{.record_size = 0x1C}.Text(),
       {{16, "ps-size"}, {35, "ps-size"}}},
      {"RecordOfALargerSize",
       Flash{.record_size = 0x24}.Text(),
       {{16, "ps-size-large"}, {35, "ps-size-large"}}},
      {"RecordOfASizePastTheFlash",
       Flash{.record_size = 0x4000}.Text(),
       {{16, "ps-size-large"}, {16, "ps-past-flash"}, {35, "ps-size-large"}, {35, "ps-past-flash"}},
       {.sector_size = SECTOR, .flash_size = 0x4000}},
      {"RecordWithoutCrc", Flash{.has_crcs = false}.Text(), {{33, "ps-crc"}}},
      {"SignaturePlace",
       Flash{.signature1 = "SIGNATURE 1 80c 0\n"}.Text(),
       {{5, "signature-place"}}},
      {"SignatureElsewhere",
       Flash{}.Text() + "REPLACE SIGNATURE c00 0\n",
       {{58, "one-slot-only"}, {58, "signature-elsewhere"}}},
      {"SignatureOfAnEeprom",
       Eeprom() + "REPLACE SIGNATURE 20 0\n",
       {{10, "one-slot-only"}, {10, "signature-elsewhere"}}},
      {"SignatureShipped", Flash{.is_second_valid = true}.Text(), {{35, "signature-shipped"}}},
      {"NoneShippedSigned", Flash{.is_first_valid = false}.Text(), {{2, "none-shipped-signed"}}},
      {"SecondShippedSignedWithItsImage",
       Flash{.is_second_valid = true, .is_first_valid = false}.Text() +
           Section("COPY", IMAGE1, DataVec(0x20, 0x11)),
       {}},
      {"CrcOfTheInvariantSectorLeftBlank",
       Flash{.word20 = "ffffffff"}.Text() + "REPLACE CRC 0 0 1c 0 20 0\n",
       {{58, "invariant-changes"}}},
      {"CrcOfTheInvariantSectorWrong",
       Flash{.word20 = "00001234"}.Text() + "REPLACE CRC 0 0 1c 0 20 0\n",
       {{58, "invariant-changes"}, {58, "crc-stored"}}},
      {"CrcOfTheInvariantSectorRight",
       Flash{.word20 = Word(ReferenceCrc(DataVec(0x20, 0x77)))}.Text() +
           "REPLACE CRC 0 0 1c 0 20 0\n",
       {}},
      {"SignatureInTheInvariantSector",
       Flash{}.Text() + "REPLACE SIGNATURE 30 0\n",
       {{10, "invariant-changes"}, {58, "field-in-invariant"}, {58, "signature-elsewhere"}}},
      {"InvariantSectorEndsBeforeTheMarker",
       Flash{.invariant_size = 0x20}.Text(),
       {{10, "marker-missing"}}},
      {"HoleAtTheMarker",
       BeforePs0(Flash{.invariant_size = 0x24}.Text(), Section("REST", 0x28, DataVec(8, 0x77))),
       {{10, "marker-missing"}}},
      {"MarkerInASectionOfItsOwn",
       BeforePs0(Flash{.invariant_size = 0x24}.Text(), Section("MARKER", 0x24, Hex("cb84cb84"))),
       {}},
      {"InvariantNotFirst", Flash{.is_invariant_late = true}.Text(), {{29, "invariant-not-first"}}},
      {"MarkerMissing", Flash{.marker = "cb84cb85"}.Text(), {{10, "marker-missing"}}},
      {"MarkerBlanked",
       Flash{}.Text() + "REPLACE SIGNATURE 24 0\n",
       {{58, "marker-blanked"}, {58, "signature-elsewhere"}}},
      {"FieldInInvariantSector",
       Flash{}.Text() + "REPLACE GUID 10 0\n",
       {{58, "field-in-invariant"}}},
      {"FirstSlotPlace", Flash{.image0 = 0x1000}.Text(), {{6, "first-slot-place"}}},
      {"EraseUnaligned",
       Flash{.image1 = 0x1410, .record_image1 = 0x1410}.Text(),
       {{54, "erase-unaligned"}}},
      {"SlotsOverlapInTheFlash",
       Flash{.image1 = 0x1120, .size = 0x540, .record_image1 = 0x1120, .record_size = 0x540}.Text(),
       {{54, "slots-overlap"}, {54, "erase-unaligned"}}},
      {"EraseSpoilsTheNextSlot",
       Flash{.image1 = 0x1020, .size = 0x410, .record_image1 = 0x1020, .record_size = 0x410}.Text(),
       {{54, "erase-unaligned"}, {54, "erase-spoils"}}},
      {"RecordShort", EepromText(DataVec(8)), {{4, "record-short"}}},
      {"RecordSum", EepromText(DataVec(0x40)), {{4, "record-sum"}}},
      {"RecordMarked",
       EepromText(Hex("00000000 00000001 00000000 000000aa 00000000 00000000")),
       {{4, "record-marked"}}},
      {"CrcOverSpoilt",
       Eeprom() + "REPLACE CRC 0 0 1c 0 20 0\nREPLACE CRC 80 0 9c 0 a0 0\n",
       {{10, "crc-over-spoilt"}, {11, "crc-over-spoilt"}}},
      {"CrcOverTheRestOfTheRecord",
       Eeprom() + "REPLACE CRC 4 0 1c 0 20 0\nREPLACE CRC 84 0 9c 0 a0 0\n",
       {}},
      {"FieldInHeldBack",
       Eeprom() + "REPLACE GUID 0 0\nREPLACE GUID 80 0\n",
       {{10, "field-in-held-back"}, {11, "field-in-held-back"}}},
      {"FieldInRecord",
       Eeprom() + "REPLACE GUID 8 0\nREPLACE GUID 88 0\n",
       {{10, "field-in-record"}, {11, "field-in-record"}}},
      {"CleanGeneric", Generic(), {}},
      {"CleanEeprom", Eeprom() + "REPLACE GUID 20 0\nREPLACE GUID a0 0\n", {}},
      {"CleanFlash", Flash{}.Text(), {}},
      {"CleanStoredCrc",
       "DEVICE_TYPE RV61100\n" + Section("A", 0, Hex("00000000 00000009")) +
           "REPLACE CRC 0 0 0 0 4 0\n",
       {}},
  };
  return CASES;
}

std::string Describe(const std::vector<fwimg::Problem>& problems) {
  std::string text;
  for (const auto& problem : problems) {
    text += Text(problem.line, ": ", problem.text, " [", problem.kind->word, "]\n");
  }
  return text;
}

class FwimgCheckTest : public ConsoleTest {
 protected:
  std::vector<fwimg::Problem> Check(const std::string& text,
                                    const fwimg::CheckTarget& target = {.sector_size = SECTOR}) {
    return fwimg::Check(_folder.Write("fw.img", text), target);
  }
  Outcome Run(std::vector<std::string> words) {
    words.insert(words.begin(), {FWIMG_PROGRAM, "check"});
    return RunProgram(words);
  }

  common::ScratchFolder _folder;
};

class FwimgCheckCaseTest : public FwimgCheckTest,
                           public testing::WithParamInterface<std::size_t> {};

TEST_P(FwimgCheckCaseTest, JustThisIsFound) {
  const Case& example = Cases()[GetParam()];
  const auto problems = Check(example.text, example.target);
  Found found;
  for (const auto& problem : problems) found.emplace(problem.line, problem.kind->word);
  EXPECT_EQ(found, example.found) << Describe(problems);
}

INSTANTIATE_TEST_SUITE_P(Images, FwimgCheckCaseTest, testing::Range(std::size_t{0}, Cases().size()),
                         [](const auto& test) { return Cases()[test.param].name; });

TEST_F(FwimgCheckTest, EveryKindOfProblemHasAnImage) {
  std::set<std::string> covered;
  for (const Case& example : Cases()) {
    for (const auto& [line, kind] : example.found) covered.insert(kind);
  }
  std::set<std::string> all;
  for (const auto& kind : fwimg::ProblemKinds()) all.emplace(kind.word);
  EXPECT_EQ(covered, all);
}

TEST_F(FwimgCheckTest, AllProblemsAreToldAtOnceInTheLoadersOwnWords) {
  const auto problems = Check(
      "DEVICE_TYPE RV61100\n"
      "REPLACE CRC 0 0\n"  // 2: refused
      "REPLAC GUID 0 0\n"  // 3: misspelt
      "IMAGE 2 0 0\n"      // 4: refused
      "START A 0 0\n"
      "0 1 2 3 4\n"             // 6: refused
      "0 1 zz 3\n"              // 7: refused
      "END B\n"                 // 8: refused
      "REPLACE FOO 0 0\n"       // 9: refused
      "REPLACE GUID 0 1\n"      // 10: refused
      "REPLACE GUID 0 100\n");  // 11: refused
  const std::vector<std::pair<u_int32_t, std::string>> expected{
      {2, "'REPLACE' directive must contain 8words."},
      {3, "unknown directive \"REPLAC\": is REPLACE meant?"},
      {4, "'IMAGE' directive - image index (2) can be iether 0 or 1"},
      {6, "Section data line must have multiple of 4 bytes."},
      {7, "Data byte (zz) contains invalid characters"},
      {8, "END Section name (B) differs from start section name (A)."},
      {9, "Unknown replace field type 'FOO' ."},
      {10, "Can't convert dev/offset to address: No mapping for the given EE loaction  (1:0)."},
      {11, "Device addr must be 8 bits (100)."},
  };
  std::vector<std::pair<u_int32_t, std::string>> found;
  found.reserve(problems.size());
  for (const auto& problem : problems) found.emplace_back(problem.line, problem.text);
  EXPECT_EQ(found, expected);
}

TEST_F(FwimgCheckTest, ContentsAreCheckedThoughTheLoaderRefusesAnotherLine) {
  const auto problems = Check(EepromText(DataVec(0x40)) + "PS 2 0 0\n");
  EXPECT_EQ(problems.size(), 2u) << Describe(problems);
  EXPECT_EQ(problems.front().kind->word, "record-sum");
  EXPECT_EQ(problems.back().kind->word, "refused");
}

TEST_F(FwimgCheckTest, ASectionThatCannotBePlacedHidesNoOther) {
  const auto problems = Check(
      "DEVICE_TYPE RV61300\nDEVMAP 100 50\nIMAGE 0 0 50\nIMAGE 1 80 50\nSTART B 0 51\n"
      "0 1 2\nEND B\n" +
      Section("A", 0, DataVec(0x40), "50"));
  Found found;
  for (const auto& problem : problems) found.emplace(problem.line, problem.kind->word);
  EXPECT_EQ(found, (Found{{5, "refused"}, {6, "refused"}, {8, "record-sum"}}))
      << Describe(problems);
}

TEST_F(FwimgCheckTest, TheFirstRefusalIsTheOneThatFwpushGives) {
  for (const Case& example : Cases()) {
    SCOPED_TRACE(example.name);
    const std::string path = _folder.Write("fw.img", example.text);
    std::string refusal;
    OutputOf([&] { refusal = ErrorOf([&] { FwImage().Open(path.c_str(), READ); }); });
    std::string first = "(no error)";
    for (const auto& problem : Check(example.text)) {
      if (problem.kind->word != "refused") continue;
      first = problem.text.starts_with("Can't convert")
                  ? problem.text
                  : Text(path, ":", problem.line, ": ", problem.text);
      break;
    }
    EXPECT_EQ(first, refusal);
  }
}

TEST_F(FwimgCheckTest, OfAKindThatFillsTheFileAPartIsToldAndTheLinesAreCounted) {
  // 3000 fields at one place: each overlaps each other, four and a half million times.
  std::string text = "DEVICE_TYPE RV61300\n";
  for (int i = 0; i < 3000; ++i) text += "REPLACE VSD 0 0\n";
  const auto problems = Check(text + Section("A", 0, DataVec(0x100)));
  std::map<std::string, std::size_t> told;
  std::map<std::string, std::string> summary;
  for (const auto& problem : problems) {
    ++told[std::string(problem.kind->word)];
    if (problem.line == 0) summary[std::string(problem.kind->word)] = problem.text;
  }
  EXPECT_EQ(told["field-twice"], 101u);
  EXPECT_EQ(summary["field-twice"], "more of this kind, on 2999 lines in all");
  EXPECT_EQ(summary.size(), 1u) << Describe(problems);
}

TEST_F(FwimgCheckTest, AHundredOfAKindAreToldWhole) {
  std::string text = Generic();
  for (int i = 0; i < 100; ++i) text += "FROBNICATE\n";
  EXPECT_EQ(Check(text).size(), 100u);
  const auto problems = Check(text + "FROBNICATE\n");
  EXPECT_EQ(problems.size(), 101u);
  EXPECT_EQ(problems.front().text, "more of this kind, on 101 lines in all");
}

TEST_F(FwimgCheckTest, SectionsThatCannotBePlacedAreNoDuplicatesHoweverMany) {
  std::string text = "DEVICE_TYPE RV61100\nDEVMAP 100 0\n" + Section("A", 0, DataVec(4));
  for (int i = 0; i < 150; ++i) text += "START B 0 51\nEND B\n";
  const auto problems = Check(text);
  EXPECT_EQ(problems.size(), 101u);
  for (const auto& problem : problems) EXPECT_EQ(problem.kind->word, "refused") << problem.text;
}

TEST_F(FwimgCheckTest, WhatWouldHappenGoesByTheDeviceType) {
  const auto burn_of = [&](const std::string& text) {
    for (const auto& problem : Check(text)) {
      if (problem.kind->word == "no-sections") return std::string(problem.burn);
    }
    return std::string("(not found)");
  };
  EXPECT_EQ(burn_of("DEVICE_TYPE RV61100\n"), "nothing is burnt, and the burn succeeds");
  EXPECT_EQ(burn_of("DEVICE_TYPE RV61300\n"), "the failsafe burn ends before it writes");
  EXPECT_EQ(burn_of("DEVICE_TYPE RV52100\n"), "the failsafe burn ends before it writes");
  EXPECT_EQ(burn_of("DEVICE_TYPE RV1\n"), "nothing is burnt");
  EXPECT_EQ(burn_of(""), "nothing is burnt");
}

TEST_F(FwimgCheckTest, ALateMapIsToldAsItIs) {
  const auto problems = Check(Section("A", 0, DataVec(4)) + "DEVMAP 2000 50\nREPLACE GUID 0 50\n");
  ASSERT_FALSE(problems.empty());
  const auto found = std::ranges::find_if(
      problems, [](const auto& problem) { return problem.kind->word == "devmap-late"; });
  ASSERT_NE(found, problems.end());
  EXPECT_EQ(found->text,
            "the location stands before the first DEVMAP, so that it means 0x0; no DEVMAP has its "
            "device 0x0");
}

TEST_F(FwimgCheckTest, NothingButTheFileIsNeeded) {
  if (IS_SANITIZED) GTEST_SKIP() << "this build's own checks need /proc";
  const std::string path = _folder.Write("fw.img", Generic() + "PS 2 0 0\n");
  const std::string hide = "mount -t tmpfs none /proc && ";
  const auto run = [&](const std::string& command) {
    return RunProgram({"/usr/bin/unshare", "-rm", "sh", "-c", command});
  };
  if (run(hide + "true").status != 0) GTEST_SKIP() << "no namespace without /proc to be had";
  const Outcome outcome = run(hide + "exec '" FWIMG_PROGRAM "' check '" + path + "'");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, testing::HasSubstr("can be iether 0 or 1 [refused]"));
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(FwimgCheckTest, ManyRefusedLinesAreToldInPart) {
  std::string text = "DEVICE_TYPE RV61100\nSTART A 0 0\n";
  for (int i = 0; i < 5000; ++i) text += "0 1 2 zz\n";
  const auto problems = Check(text + "END A\n");
  ASSERT_EQ(problems.size(), 8u) << Describe(problems);
  EXPECT_THAT(problems.back().text, testing::EndsWith("(further such lines are not listed)"));
}

std::string WithCarriageReturns(const std::string& text) {
  std::string changed;
  for (const std::string_view line : common::Lines(text)) changed.append(line) += "\r\n";
  return changed;
}

TEST_F(FwimgCheckTest, CarriageReturnsAreOneProblem) {
  for (const std::string& text : {Generic(), Eeprom(), Flash{}.Text()}) {
    const auto problems = Check("# title\n" + WithCarriageReturns(text));
    ASSERT_EQ(problems.size(), 1u) << Describe(problems);
    EXPECT_EQ(problems[0].kind->word, "line-ends");
    EXPECT_EQ(problems[0].line, 2u);
    EXPECT_THAT(problems[0].text, testing::HasSubstr("CRLF"));
  }
}

TEST_F(FwimgCheckTest, CarriageReturnsHideNoOtherProblem) {
  for (const Case& example : Cases()) {
    SCOPED_TRACE(example.name);
    if (example.found.contains({1, "line-ends"})) continue;
    const std::string with = WithCarriageReturns(example.text);
    std::string refusal;
    const std::string path = _folder.Write("fw.img", with);
    OutputOf([&] { refusal = ErrorOf([&] { FwImage().Open(path.c_str(), READ); }); });
    Found found;
    for (const auto& problem : Check(with, example.target)) {
      found.emplace(problem.line, problem.kind->word);
    }
    if (refusal != "(no error)") {
      EXPECT_FALSE(found.empty());
    }
    // Where a line is read as several, a carriage return is one character more.
    if (example.text.size() > 1000 &&
        example.text.find(std::string(1000, ' ')) != std::string::npos) {
      continue;
    }
    if (!found.contains({1, "line-ends"})) continue;  // they do no harm there
    found.erase({1, "line-ends"});
    EXPECT_EQ(found, example.found);
  }
}

TEST_F(FwimgCheckTest, CarriageReturnsInCommentsDoNoHarm) {
  EXPECT_TRUE(Check("# a comment\r\n" + Generic() + "  # and another\r\n").empty());
}

TEST_F(FwimgCheckTest, OneCarriageReturnIsToldWhereItIs) {
  std::string text = Generic();
  text.insert(text.find('\n', text.find("START")), "\r");
  EXPECT_TRUE(Check(text).empty());  // START takes any white space
  text = Generic();
  text.insert(text.find('\n'), "\r");
  const auto problems = Check(text);
  ASSERT_EQ(problems.size(), 1u) << Describe(problems);
  EXPECT_EQ(problems[0].line, 1u);
  EXPECT_THAT(problems[0].text, testing::StartsWith("1 of 7 lines end"));
}

TEST_F(FwimgCheckTest, TheChunksOfTheBurnDecideWhatCrossesADevice) {
  const std::string path = _folder.Write("fw.img", "DEVMAP 10 0\nDEVMAP 100 1\n" + Generic());
  EXPECT_EQ(Run({path}).status, 1);
  EXPECT_EQ(Run({"-m", "5", path}).status, 1);
  EXPECT_EQ(Run({"-m", "4", path}).status, 0);
  EXPECT_EQ(Run({"-m", "15", path}).status, 1);
  for (const char* wrong : {"3", "16", "x", ""}) EXPECT_EQ(Run({"-m", wrong, path}).status, 64);
}

/// A fabric of these memories, each of a device.
std::string FabricOf(const std::vector<std::string>& memories) {
  std::string text;
  for (std::size_t i = 0; i < memories.size(); ++i) {
    text += Text("[[device]]\nnode_guid = \"0x", i + 1, "0\"\nport_guids = [\"0x", i + 1, "1\"]\n",
                 memories[i], "\n");
  }
  return text;
}
const std::string SMALL_FLASH = "flash = { size = 0x2000, sector_size = 0x400 }";
const std::string OTHER_FLASH = "flash = { size = 0x10000, sector_size = 0x800 }";
const std::string SHORT_FLASH = "flash = { size = 0x1000, sector_size = 0x400 }";
const std::string EEPROM = "chip = [{ address = 0, size = 0x100 }]";

TEST_F(FwimgCheckTest, AFabricGivesTheSizesOfTheDevicesThatFitTheImage) {
  const std::string flash = _folder.Write("flash.img", Flash{}.Text());
  const std::string eeprom = _folder.Write("eeprom.img", Eeprom());
  const auto run = [&](const std::vector<std::string>& memories, const std::string& image) {
    return Run({"--fabric", _folder.Write("fabric.toml", FabricOf(memories)), image});
  };
  EXPECT_EQ(run({SMALL_FLASH, EEPROM}, flash).status, 0);
  EXPECT_EQ(run({SMALL_FLASH, EEPROM}, eeprom).status, 0);
  EXPECT_THAT(run({OTHER_FLASH}, flash).output, testing::HasSubstr("[erase-unaligned]"));
  EXPECT_THAT(run({SHORT_FLASH}, flash).output, testing::HasSubstr("[past-flash]"));
  EXPECT_THAT(run({"chip = [{ address = 0x50, size = 0x100 }]"}, eeprom).output,
              testing::HasSubstr("[past-eeprom]"));
  EXPECT_THAT(run({"chip = [{ address = 0, size = 0xb8 }]"}, eeprom).output,
              testing::HasSubstr("[past-eeprom]"));
}

TEST_F(FwimgCheckTest, DevicesThatDifferAreToldApart) {
  const std::string image = _folder.Write("fw.img", Flash{}.Text());
  const Outcome outcome =
      Run({"--fabric",
           _folder.Write("fabric.toml", FabricOf({SMALL_FLASH, SHORT_FLASH, SMALL_FLASH})), image});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(
      outcome.output,
      image +
          ":35: error: section PS1 gives an image of 0x20 bytes at 0x1400, past the 0x1000 bytes "
          "of "
          "the flash (for a flash of 0x1000 bytes in sectors of 0x400) [ps-past-flash]\n"
          "    at the burn: the image that the boot code starts is not whole, and moving it "
          "fails\n" +
          image +
          ":54: error: section FIRMWARE, burnt at 0x1400, ends at 0x1420, past the 0x1000 "
          "bytes of the flash (for a flash of 0x1000 bytes in sectors of 0x400) [past-flash]\n"
          "    at the burn: the burn ends half-way: the flash has no such address\n" +
          image + ": 2 errors, 0 warnings\n");
}

TEST_F(FwimgCheckTest, AFabricWithoutADeviceThatFitsIsSaid) {
  const std::string image = _folder.Write("fw.img", Flash{}.Text());
  const std::string fabric = _folder.Write("fabric.toml", FabricOf({EEPROM}));
  const Outcome outcome = Run({"--fabric", fabric, image});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "fwimg: " + image + ": " + fabric +
                                ": no device has a flash, which an image for RV52100 needs: "
                                "nothing to check it against\n");
  EXPECT_EQ(Run({"--fabric", _folder / "none.toml", image}).status, 2);
  for (const char* option : {"--sector-size", "--flash-size"}) {
    EXPECT_EQ(Run({"--fabric", fabric, option, "0x400", image}).status, 64) << option;
  }
}

TEST_F(FwimgCheckTest, AConfigurationOfRealMemoriesGivesTheirSizes) {
  const std::string flash = _folder.Write("flash.img", Flash{}.Text());
  const std::string eeprom = _folder.Write("eeprom.img", Eeprom());
  const auto run = [&](const std::string& memory, const std::string& image) {
    return Run({"--fabric", _folder.Write("serve.toml", FabricOf({memory})), image});
  };
  const std::string in_file = "flash = { file = 'f', sector_size = 0x400, size = ";
  EXPECT_EQ(run(in_file + "0x2000 }", flash).status, 0);
  EXPECT_THAT(run(in_file + "0x1000 }", flash).output, testing::HasSubstr("[past-flash]"));
  EXPECT_EQ(run("flash = { mtd = 'm', sector_size = 0x400 }", flash).status, 0);
  EXPECT_THAT(run("flash = { mtd = 'm', sector_size = 0x400, size = 0x1000 }", flash).output,
              testing::HasSubstr("[past-flash]"));
  EXPECT_EQ(run("chip = [{ address = 0, size = 0x100, file = 'e' }]", eeprom).status, 0);
  EXPECT_THAT(run("chip = [{ address = 0, size = 0xb8, file = 'e' }]", eeprom).output,
              testing::HasSubstr("[past-eeprom]"));
  // Errors are those of the kind of file.
  EXPECT_THAT(run("flash = { mtd = 'm' }", flash).errors,
              testing::HasSubstr("serve.toml:4: 'sector_size' is missing"));
  EXPECT_THAT(run("flash = { sector_size = 0x400 }", flash).errors,
              testing::HasSubstr("serve.toml:4: 'size' is missing"));
}

TEST_F(FwimgCheckTest, MorePartsThanAnyImageHasAreRefused) {
  std::string text;
  for (int i = 0; i < 10001; ++i) text += "REPLACE GUID 0 0\n";
  EXPECT_EQ(ErrorOf([&] { Check(text); }),
            (_folder / "fw.img") +
                ": more than 10000 sections, fields, CRCs and devices: too many to check");
}

TEST_F(FwimgCheckTest, AWrongNameIsAProblemOfTheWholeFile) {
  const std::string path = _folder.Write("fw.txt", Generic());
  const auto problems = fwimg::Check(path, {.sector_size = SECTOR});
  ASSERT_EQ(problems.size(), 1u) << Describe(problems);
  EXPECT_EQ(problems[0].line, 0u);
  EXPECT_EQ(problems[0].text, "Bad FW file type (" + path + "). Supported types: img, bin");
}

TEST_F(FwimgCheckTest, AWrongNameIsToldBesideARefusedLine) {
  const std::string path = _folder.Write("fw.txt", Generic() + "PS 2 0 0\n");
  const auto problems = fwimg::Check(path, {.sector_size = SECTOR});
  ASSERT_EQ(problems.size(), 2u) << Describe(problems);
  EXPECT_EQ(problems[0].text, "Bad FW file type (" + path + "). Supported types: img, bin");
  EXPECT_EQ(problems[1].line, 8u);
}

TEST_F(FwimgCheckTest, AProblemIsPrintedWithItsLineSeverityAndConsequence) {
  const std::string path = _folder.Write("fw.img", "REPLCAE GUID 0 0\nEND A\n" + Generic());
  const Outcome outcome = Run({path});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.output,
            path +
                ":1: error: unknown directive \"REPLCAE\": is REPLACE meant? "
                "[misspelt-directive]\n"
                "    at the burn: the line is ignored, and what it asks for is not done\n" +
                path +
                ":2: warning: END outside a section [stray-end]\n"
                "    at the burn: the line is ignored\n" +
                path + ": 1 error, 1 warning\n");
}

TEST_F(FwimgCheckTest, AnImageCutOffAtALineEndFailsTheCheck) {
  const std::string whole = Flash{}.Text();
  // In the firmware, behind its first line of data.
  const std::size_t start = whole.find("START FIRMWARE");
  const std::size_t cut = whole.find('\n', whole.find('\n', start) + 1) + 1;
  const std::string path = _folder.Write("fw.img", whole.substr(0, cut));
  const Outcome outcome = Run({"--sector-size", "0x400", path});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, testing::HasSubstr("[section-not-closed]"));
}

TEST_F(FwimgCheckTest, WarningsFailAStrictCheckOnly) {
  const std::string path = _folder.Write("fw.img", "END A\n" + Generic());
  EXPECT_EQ(Run({path}).status, 0);
  EXPECT_EQ(Run({"--strict", path}).status, 1);
}

TEST_F(FwimgCheckTest, TheSectorSizeDecidesWhatAnEraseSpoils) {
  const std::string path = _folder.Write("fw.img", Flash{}.Text());
  EXPECT_EQ(Run({"--sector-size", "1024", path}).status, 0);
  EXPECT_EQ(Run({"--sector-size", "0x400", path}).status, 0);
  EXPECT_EQ(Run({"--sector-size", "0x800", path}).status, 1);
  for (const char* wrong : {"0", "-1", "x", "", "0x1000001", "0x100000000"}) {
    EXPECT_EQ(Run({"--sector-size", wrong, path}).status, 64) << wrong;
  }
}

TEST_F(FwimgCheckTest, TheFlashSizeDecidesWhatIsPastItsEnd) {
  const std::string path = _folder.Write("fw.img", Flash{}.Text());
  const auto status = [&](const char* size) {
    return Run({"--sector-size", "0x400", "--flash-size", size, path}).status;
  };
  EXPECT_EQ(status("0x1420"), 0);
  EXPECT_EQ(status("0x1400"), 1);
  EXPECT_EQ(status("0"), 64);
  EXPECT_EQ(status("x"), 64);
}

TEST_F(FwimgCheckTest, JsonTellsTheSameForEachFile) {
  const std::string good = _folder.Write("good.img", Generic());
  const std::string bad = _folder.Write("bad.img", "END A\n" + Generic() + "PS 2 0 0\n");
  const Outcome outcome = Run({"--json", good, bad});
  EXPECT_EQ(outcome.status, 1);
  const auto json = nlohmann::json::parse(outcome.output);
  EXPECT_EQ(json.at("version"), 1);
  ASSERT_EQ(json.at("files").size(), 2u);
  EXPECT_EQ(json["files"][0].at("file"), good);
  EXPECT_EQ(json["files"][0].at("problems").size(), 0u);
  EXPECT_EQ(json["files"][1].at("errors"), 1);
  EXPECT_EQ(json["files"][1].at("warnings"), 1);
  const auto& problems = json["files"][1].at("problems");
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].at("line"), 1);
  EXPECT_EQ(problems[0].at("severity"), "warning");
  EXPECT_EQ(problems[0].at("kind"), "stray-end");
  EXPECT_EQ(problems[1].at("line"), 9);
  EXPECT_EQ(problems[1].at("text"), "'PS' directive - image index (2) can be iether 0 or 1");
  EXPECT_EQ(problems[1].at("burn"), "fwpush refuses the file before it connects");
}

TEST_F(FwimgCheckTest, AFileThatCannotBeReadEndsWithTwoAfterTheOthersWereChecked) {
  const std::string good = _folder.Write("good.img", Generic());
  const std::string missing = _folder / "missing.img";
  const Outcome outcome = Run({missing, good});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors,
            "fwimg: Can't open file \"" + missing + "\" : No such file or directory\n");
  EXPECT_EQ(outcome.output, good + ": 0 errors, 0 warnings\n");
  EXPECT_EQ(Run({}).status, 64);
  EXPECT_EQ(Run({_folder.Path()}).status, 2);
}

TEST_F(FwimgCheckTest, WhatATerminalWouldObeyIsShownEscaped) {
  const auto problems = Check("\x1b[2J\n" + Generic());
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].text, "unknown directive \"\\x1b[2J\"");
}

TEST_F(FwimgCheckTest, TheExampleImagesAreClean) {
  const std::string folder = _folder / "examples";
  ASSERT_EQ(RunProgram({EXAMPLES "/make-images", folder, FWIMG_PROGRAM}).status, 0);
  for (const char* name : {"rv52100", "rv52100-old", "rv61300", "rv61300-old"}) {
    const std::string path = folder + "/" + name + ".img";
    const Outcome outcome = Run({"--strict", path});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, path + ": 0 errors, 0 warnings\n");
  }
}

TEST_F(FwimgCheckTest, GarbageIsToldOfAndNeverFollowed) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    std::string text = Flash{}.Text();
    // Bytes changed, and pieces of the text copied over others.
    for (unsigned i = 0; i < 1 + seed % 7; ++i)
      text[rng() % text.size()] = static_cast<char>(rng());
    const std::size_t from = rng() % text.size();
    text.insert(rng() % text.size(), text.substr(from, rng() % 300));
    const std::string path = _folder.Write("fw.img", text);
    std::string refusal;
    OutputOf([&] { refusal = ErrorOf([&] { FwImage().Open(path.c_str(), READ); }); });
    const auto problems = Check(text);
    const bool is_refused = std::ranges::any_of(
        problems, [](const auto& problem) { return problem.kind->word == "refused"; });
    EXPECT_EQ(is_refused, refusal != "(no error)") << refusal << "\n" << Describe(problems);
  }
}

}  // namespace
