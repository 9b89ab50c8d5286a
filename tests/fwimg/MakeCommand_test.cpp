// The built fwimg: images made from layouts, and the bytes of their sections.
#include <nlohmann/json.hpp>

#include "src/BurnAlgorithm.h"
#include "src/FwImage.h"
#include "src/utils.h"
#include "tests/support/Harness.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class FwimgMakeTest : public ConsoleTest {
 protected:
  Outcome Fwimg(std::vector<std::string> words) const {
    words.insert(words.begin(), FWIMG_PROGRAM);
    return RunProgram(words);
  }

  /// Makes out.img from a layout; its text. `warnings`: what is told, as Told has it.
  std::string Make(const std::string& layout, const std::vector<std::string>& warnings = {}) {
    const Outcome outcome =
        Fwimg({"make", _folder.Write("layout.toml", layout), "-o", _folder / "out.img"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(Told(outcome.errors), warnings);
    return Content("out.img");
  }

  /// Lines and kinds of what the check says of a layout: "12 warning not-word-aligned", each once.
  static std::vector<std::string> Told(const std::string& errors) {
    std::vector<std::string> all;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t name = line.find("layout.toml:");
      const std::size_t number = name + 12;
      const std::size_t kind = line.rfind(" [");
      if (name == std::string::npos || kind == std::string::npos || line.back() != ']') {
        all.push_back(line);
        continue;
      }
      const std::size_t colon = line.find(": ", number);
      const bool is_warning = line.compare(colon, 11, ": warning: ") == 0;
      const std::string told = line.substr(number, colon - number) +
                               (is_warning ? " warning " : " ") +
                               line.substr(kind + 2, line.size() - kind - 3);
      if (all.empty() || all.back() != told) all.push_back(told);
    }
    return all;
  }

  /// What is said of a layout that is refused, without the program's name and the folder.
  std::string Refusal(const std::string& layout) {
    const Outcome outcome =
        Fwimg({"make", _folder.Write("layout.toml", layout), "-o", _folder / "refused.img"});
    EXPECT_EQ(outcome.status, 2) << layout;
    EXPECT_EQ(outcome.output, "");
    for (const auto& entry : fs::directory_iterator(_folder.Path())) {
      EXPECT_FALSE(entry.path().filename().string().starts_with("refused"));
    }
    std::string text = outcome.errors;
    const std::string folder = _folder.Path().string() + "/";
    for (std::size_t at = 0; (at = text.find(folder)) != std::string::npos;) {
      text.erase(at, folder.size());
    }
    EXPECT_TRUE(text.starts_with("fwimg: ") && text.ends_with("\n")) << text;
    return text.substr(7, text.size() - 8);
  }

  void Load(FwImage& image, const std::string& name = "out.img") const {
    image.Open((_folder / name).c_str(), READ);
  }

  std::string Content(const std::string& name) const { return ReadText(_folder / name); }
  DataVec Bytes(const std::string& name) const {
    const std::string content = Content(name);
    return {content.begin(), content.end()};
  }

  common::ScratchFolder _folder;
};

// A section of 0x40 bytes on line 2, for layouts that are wrong behind it.
const std::string ONE =
    "device_type = \"RV61100\"\n"
    "section = [{ name = \"A\", at = 0, fill = 0, size = 0x40 }]\n";

/// A flash of sectors of 0x400 bytes: two pointer sectors, and firmware for the slots at 0xC00 and
/// 0x1400. The first section begins on line 11.
std::string Flash(const std::string& sector_size, const std::string& rest = "") {
  std::string layout = "device_type = \"RV52100\"\n" + sector_size + "\n" +
                       "[[slot]]\nps = 0x400\nsignature = 0x408\nimage = 0xC00\n"
                       "[[slot]]\nps = 0x800\nsignature = 0x808\nimage = 0x1400\n";
  for (const int idx : {0, 1}) {
    layout += Text("[[section]]\nname = \"PS", idx, "\"\nat = ", idx == 0 ? "0x400" : "0x800",
                   "\ncontent = [{ hex = \"", idx == 0 ? "00000c00" : "00001400", " 00000040 ",
                   idx == 0 ? "cb84cb84" : "ffffffff", "\" }, { fill = 0, size = 252 }]\n");
  }
  return layout +
         "[[section]]\nname = \"FIRMWARE\"\nat = 0xC00\nfill = 3\nsize = 0x40\n"
         "[[crc]]\nfrom = { ps = 0 }\nsize = 0x104\nat = { ps = 0x104 }\nfill = true\n" +
         rest;
}

TEST_F(FwimgMakeTest, ALayoutBecomesAnImageFileThatSaysTheSame) {
  _folder.Write("tail.bin", "xxtail of it");
  // The record's last byte: 01 02 03 FF and 11 times C3 are 66 modulo 100, and AB - 66 is 45.
  EXPECT_EQ(Make(R"(title = "Two EEPROMs\nand a slot in each"
device_type = "RV61300"
version = { major = 1, minor = 26, sub_minor = 255 }
devmap = [{ device = 0x50, size = 0x100 }, { device = 0x51, size = 0x100 }]
[[slot]]
ps = { device = 0x50, offset = 0xC0 }
signature = { device = 0x50, offset = 0xC4 }
image = { device = 0x50, offset = 0 }
[[slot]]
image = { device = 0x51, offset = 0 }
[[section]]
name = "PS"
at = { device = 0x50, offset = 0xC0 }
fill = 0xA5
size = 8
[[section]]
name = "BOOT-1.0_a"
at = { device = 0x50, offset = 0 }
boot_record = true
content = [{ hex = "0102 03 ff" }, { fill = 0xC3, size = 26 }, { file = "tail.bin", from = 2, size = 4 }]
pad = 0x7E
[[field]]
type = "GUID"
at = { device = 0x50, offset = 0x10 }
[[field]]
type = "GUID"
at = { device = 0x51, offset = 0x10 }
[[crc]]
from = { image = 0x10 }
size = 8
at = { image = 0x18 }
)",
                 {"5 warning signature-elsewhere", "11 warning section-not-burnt"}),
            R"(# Two EEPROMs
# and a slot in each
# All numbers are hexadecimal.

DEVICE_TYPE RV61300
MAJ_FW_VER 1
MIN_FW_VER 1A
SUB_MIN_FW_VER FF
DEVMAP 100 50
DEVMAP 100 51
PS 0 C0 50
SIGNATURE 0 C4 50
IMAGE 0 0 50
IMAGE 1 0 51
REPLACE GUID 10 50
REPLACE GUID 10 51
REPLACE CRC 10 50 14 50 18 50
REPLACE CRC 10 51 14 51 18 51

# PS: 8 bytes
START PS C0 50
A5 A5 A5 A5 A5 A5 A5 A5
END PS

# BOOT-1.0_a: 36 bytes
START BOOT-1.0_a 0 50
01 02 03 FF C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 45
C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 C3 74 61
69 6C 7E 7E
END BOOT-1.0_a
)");
}

TEST_F(FwimgMakeTest, PlacesCountedFromTheSlotsAreOnesInEachSlotThatHasThem) {
  Make(Flash("sector_size = 0x400", "[[field]]\ntype = \"GUIDS\"\nat = { image = 0x10 }\n"));
  FwImage image;
  Load(image);
  const auto fields = image.GetFieldsInRange(0xC00, 0x1000);
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields[0].from, 0xC10u);
  EXPECT_EQ(fields[1].from, 0x1410u);
  EXPECT_EQ(fields[1].type, GUIDS);
  const auto crcs = image.GetCrcsInRange(0, 0x2000);
  ASSERT_EQ(crcs.size(), 2u);
  EXPECT_EQ(crcs[0].from, 0x400u);
  EXPECT_EQ(crcs[0].size, 0x104u);
  EXPECT_EQ(crcs[0].crc_addr, 0x504u);
  EXPECT_EQ(crcs[1].from, 0x800u);
  EXPECT_EQ(crcs[1].crc_addr, 0x904u);
}

TEST_F(FwimgMakeTest, CrcWordsAreFilledInOnlyOnRequest) {
  Make(R"(device_type = "RV61100"
section = [{ name = "A", at = 0, hex = "cb84cb84 eeeeeeee 00000000 eeeeeeee 00000000 eeeeeeee" }]
crc = [
  { from = 0, size = 4, at = 4, fill = true },
  { from = 8, size = 4, at = 12, fill = true },
  { from = 16, size = 4, at = 20 },
]
)",
       {"6 warning crc-stored"});
  FwImage image;
  Load(image);
  // The CRC of cb84cb84 is b29b, that of a word of zeros 0009.
  EXPECT_EQ(image.GetSection(0)->data,
            Hex("cb84cb84 0000b29b 00000000 00000009 00000000 eeeeeeee"));
}

TEST_F(FwimgMakeTest, TheLastByteOfABootRecordMakesItsSumRightBeforeACrcCoversIt) {
  Make(R"(device_type = "RV61300"
slot = [{ image = 0 }, { image = 0x100 }]
section = [{ name = "A", at = 0, boot_record = true, hex = """
  01020304 05060700 EEEEEEEE EEEEEE55 00000000""" }]
crc = [{ from = { image = 8 }, size = 8, at = { image = 16 }, fill = true }]
)");
  FwImage image;
  Load(image);
  const DataVec& data = image.GetSection(0)->data;
  // 01 to 07 are 1C, seven times EE is 82 modulo 100, and AB - 1C - 82 is 0D.
  const DataVec record = Hex("01020304 05060700 EEEEEEEE EEEEEE0D");
  EXPECT_EQ(DataVec(data.begin(), data.begin() + 16), record);
  OutputOf([&] { EXPECT_TRUE(RV61300FailsafeBurn::VerifyFirstPllBootRecordChecksum(record, {})); });
  DataVec word;
  word << ReferenceCrc(Hex("EEEEEEEE EEEEEE0D"));
  EXPECT_EQ(DataVec(data.begin() + 16, data.end()), word);
}

TEST_F(FwimgMakeTest, TheCheckKnowsTheSectorsThatTheLayoutTells) {
  Make(Flash("sector_size = 0x400"));
  const Outcome checked =
      Fwimg({"check", "--strict", "--sector-size", "0x400", _folder / "out.img"});
  EXPECT_EQ(checked.status, 0) << checked.output;
  // In sectors of 64 KiB neither of the sections that a burn may begin with begins one.
  EXPECT_THAT(Told("fwimg: " + Refusal(Flash(""))),
              testing::IsSupersetOf({"11 erase-unaligned", "19 erase-unaligned"}));
}

TEST_F(FwimgMakeTest, AllErrorsOfTheCheckAreToldAtOnceWithTheLinesOfTheLayout) {
  EXPECT_THAT(Told("fwimg: " + Refusal(ONE + "[[field]]\ntype = \"GUID\"\nat = 0x40\n"
                                             "[[crc]]\nfrom = 0\nsize = 4\nat = 8\n"
                                             "[[field]]\ntype = \"GUID\"\nat = 4\n")),
              testing::ElementsAre("3 field-outside", "6 field-overlap"));
  // What a text refers to is a line of the layout, too.
  EXPECT_THAT(
      Refusal(ONE + "[[field]]\ntype = \"GUID\"\nat = 8\n[[field]]\ntype = \"GUID\"\nat = 4\n"),
      testing::AllOf(testing::StartsWith("layout.toml:6: "),
                     testing::EndsWith(" of line 3 [field-overlap]")));
}

TEST_F(FwimgMakeTest, MorePartsThanTheCheckTakesAreRefusedUnderTheNameOfTheLayout) {
  std::string fields;
  for (u_int32_t i = 0; i < 10001; ++i) {
    fields += Text("[[field]]\ntype = \"GUID\"\nat = ", 8 * i, "\n");
  }
  EXPECT_EQ(Refusal("device_type = \"RV61100\"\n"
                    "section = [{ name = \"A\", at = 0, fill = 0, size = 0x40000 }]\n" +
                    fields),
            "layout.toml: more than 10000 sections, fields, CRCs and devices: too many to check");
}

TEST_F(FwimgMakeTest, ALayoutThatTheCheckWarnsOfIsMadeAndTheWarningsAreTold) {
  Make(ONE + "[[field]]\ntype = \"GUID\"\nat = 2\n", {"3 warning not-word-aligned"});
}

TEST_F(FwimgMakeTest, WhatIsNoTomlIsToldWithFileAndLine) {
  // The rest are the TOML library's words.
  EXPECT_THAT(Refusal("device_type = \"RV52100\"\nslot = \n"),
              testing::StartsWith("layout.toml:2: "));
}

struct Refused {
  std::string name;
  std::string layout;
  std::string text;
};

void PrintTo(const Refused& refused, std::ostream* out) { *out << refused.name; }

class FwimgRefusalTest : public FwimgMakeTest, public testing::WithParamInterface<Refused> {};

TEST_P(FwimgRefusalTest, IsToldWithFileAndLine) {
  _folder.Write("five.bin", "12345");
  fs::resize_file(_folder.Write("large.bin", ""), (1 << 30) + 1);  // a hole
  EXPECT_EQ(Refusal(GetParam().layout), GetParam().text);
}

std::string Eeproms(const std::string& rest) {
  return "device_type = \"RV61300\"\n"
         "devmap = [{ device = 0x50, size = 0x100 }, { device = 0x51, size = 0x100 }]\n"
         "[[slot]]\nimage = { device = 0x50, offset = 0 }\n"
         "[[slot]]\nimage = { device = 0x51, offset = 0 }\n" +
         rest;
}
std::string EepromSection(const std::string& name, const std::string& offset) {
  return "[[section]]\nname = \"" + name + "\"\nat = { device = 0x50, offset = " + offset +
         " }\nfill = 0\nsize = 0x20\n";
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, FwimgRefusalTest,
    testing::Values(
        Refused{"NoType", "\ntitle = \"x\"\n", "layout.toml:1: 'device_type' is missing"},
        Refused{"UnknownType", "\ndevice_type = \"RV1\"\n",
                "layout.toml:2: 'device_type' is no known device: RV1"},
        Refused{"UnknownKey", ONE + "sections = []\n", "layout.toml:3: unknown key 'sections'"},
        Refused{"NoSection", "device_type = \"RV52100\"\n", "layout.toml:1: no [[section]]"},
        Refused{"LongTitle", ONE + "title = \"" + std::string(201, 'x') + "\"\n",
                "layout.toml:3: 'title' must be lines of at most 200 characters, without control "
                "characters"},
        Refused{"ThreeSlots", ONE + "slot = [{}, {},\n{}]\n",
                "layout.toml:4: an image has two slots at most"},
        Refused{"DeviceTwice",
                ONE + "devmap = [{ device = 1, size = 4 },\n{ device = 1, size = 4 }]\n",
                "layout.toml:4: device 0x1 is mapped already"},
        Refused{"DevicesTooLarge",
                ONE + "devmap = [{ device = 1, size = 0x80000000 },\n{ device = 2, size = "
                      "0x80000000 }]\n",
                "layout.toml:4: all devices together must have less than 4 GiB"},
        Refused{"UnmappedDevice",
                ONE + "[[field]]\ntype = \"GUID\"\nat = { device = 0x50, offset = 0 }\n",
                "layout.toml:5: [[devmap]] has no device 0x50"},
        Refused{"OffsetBehindDevice", Eeproms(EepromSection("A", "0x100")),
                "layout.toml:9: device 0x50 has only 0x100 bytes"},
        Refused{
            "StrangePlace", ONE + "[[field]]\ntype = \"GUID\"\nat = { ps = 0, image = 0 }\n",
            "layout.toml:5: a place is { device = D, offset = N }, { ps = N }, { image = N }, or "
            "a number"},
        Refused{"PlaceOfNoSlot", ONE + "[[field]]\ntype = \"GUID\"\nat = { image = 0 }\n",
                "layout.toml:3: no [[slot]] has what this is counted from"},
        Refused{"SlotInSlot", ONE + "[[slot]]\nps = 0\nimage = { ps = 0 }\n",
                "layout.toml:5: 'image' must be a fixed place: a number or { device, offset }"},
        Refused{"StrangeName",
                "device_type = \"RV52100\"\nsection = [{ name = \"A B\", at = 0, fill = 0, size = "
                "4 }]\n",
                "layout.toml:2: a section's name is 1 to 64 letters, digits, '_', '.' and '-'"},
        Refused{
            "TwoSources",
            "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, fill = 0, size = 4, hex "
            "= \"00\" }]\n",
            "layout.toml:2: the bytes of a section come from one of 'file', 'hex' and 'fill', or "
            "from a 'content' of several"},
        Refused{
            "OddHex",
            "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, hex = \"0011 2\" }]\n",
            "layout.toml:2: 'hex' must have two hexadecimal digits for each byte: 2"},
        Refused{"NoFile",
                "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, file = \"none.bin\" "
                "}]\n",
                "layout.toml:2: can't read none.bin: No such file or directory"},
        Refused{"ShortFile",
                "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, file = "
                "\"five.bin\", from = 2, size = 4 }]\n",
                "layout.toml:2: five.bin has only 5 bytes"},
        Refused{
            "NotWholeWords",
            "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, file = \"five.bin\" "
            "}]\n",
            "layout.toml:2: the section A has 5 bytes, not whole words of 4; 'pad' fills the last "
            "one up"},
        Refused{"NoBytes",
                "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0, file = "
                "\"five.bin\", from = 5 }]\n",
                "layout.toml:2: the section A has no bytes"},
        Refused{
            "PastTheLastAddress",
            "device_type = \"RV52100\"\nsection = [{ name = \"A\", at = 0xFFFFFFFC, fill = 0, "
            "size = 8 }]\n",
            "layout.toml:2: the section A reaches past 4 GiB, the last address: place it lower, or "
            "make it shorter"},
        Refused{"UnknownField", ONE + "[[field]]\ntype = \"guid\"\nat = 0\n",
                "layout.toml:4: 'type' is no known field: guid"},
        Refused{"SignatureAsField", ONE + "[[field]]\ntype = \"SIGNATURE\"\nat = 0\n",
                "layout.toml:4: a signature is placed by the 'signature' of its [[slot]]"},
        Refused{"CrcOfHalfWords", ONE + "[[crc]]\nfrom = 0\nsize = 6\nat = 8\n",
                "layout.toml:3: 'size' must be whole words of 4 bytes"},
        Refused{"CrcOverItself", ONE + "[[crc]]\nfrom = 0\nsize = 12\nat = 8\n",
                "layout.toml:3: the CRC at 00:00000008 covers itself"},
        Refused{"MixedPlaces",
                ONE + "[[slot]]\nimage = 0\n[[crc]]\nfrom = 0\nsize = 4\nat = { image = 8 }\n",
                "layout.toml:5: 'from' and 'at' must be given in the same way"},
        Refused{"ShortBootRecord",
                "device_type = \"RV61300\"\nsection = [{ name = \"A\", at = 0, fill = 0, size = "
                "12, boot_record = true }]\n",
                "layout.toml:2: a boot record has 16 bytes, the section A only 12"},
        Refused{"IgnoredBsn",
                "device_type = \"RV61100\"\nsection = [{ name = \"A\", at = 0, fill = 0, size = "
                "0x40 }]\n[[field]]\ntype = \"BSN\"\nat = 0\n",
                "layout.toml:3: the field BSN is ignored for an RV61100"},
        Refused{"FieldTwice",
                ONE + "[[field]]\ntype = \"GUID\"\nat = 8\n[[field]]\ntype = \"GUID\"\nat = 8\n",
                "layout.toml:6: the field GUID at 00:00000008 is there already"},
        Refused{"FieldPastTheLastDevice",
                Eeproms(EepromSection("A", "0") +
                        "[[field]]\ntype = \"GUID\"\nat = { image = 0x100 }\n"),
                "layout.toml:12: the field GUID lies past the last device"},
        Refused{"CoveredPastTheLastDevice",
                Eeproms(EepromSection("A", "0") +
                        "[[crc]]\nfrom = { image = 0xFC }\nsize = 8\nat = { image = 0x10 }\n"),
                "layout.toml:12: what a CRC covers lies past the last device"},
        Refused{"CrcWordPastTheLastDevice",
                Eeproms(EepromSection("A", "0") +
                        "[[crc]]\nfrom = { image = 0x10 }\nsize = 4\nat = { image = 0x100 }\n"),
                "layout.toml:12: the word of a CRC lies past the last device"},
        Refused{"CoveredPastTheLastAddress",
                ONE + "[[crc]]\nfrom = 0xFFFFFFF8\nsize = 12\nat = 0\n",
                "layout.toml:3: a CRC covers bytes past the last address"},
        Refused{"MoreBytesThanMayBe",
                "device_type = \"RV61100\"\nsection = [\n"
                "{ name = \"A\", at = 0, fill = 0, size = 4 },\n"
                "{ name = \"B\", at = 4, fill = 0, size = 0x40000000 }]\n",
                "layout.toml:4: all sections together have 1 GiB at most"},
        Refused{"LargeFile",
                "device_type = \"RV61100\"\n"
                "section = [{ name = \"A\", at = 0, file = \"large.bin\", size = 4 }]\n",
                "layout.toml:2: large.bin has more than 1 GiB"},
        Refused{"SectorsOfNoBytes", ONE + "sector_size = 0\n",
                "layout.toml:3: 'sector_size' must be a number from 4 to 16777216"}),
    [](const auto& refused) { return refused.param.name; });

/// `text`: a line and a kind of problem that the check finds.
class FwimgCheckedTest : public FwimgMakeTest, public testing::WithParamInterface<Refused> {};

TEST_P(FwimgCheckedTest, IsRefusedAtTheLineOfTheLayout) {
  EXPECT_THAT(Told("fwimg: " + Refusal(GetParam().layout)), testing::Contains(GetParam().text));
}

const std::string TWO =
    "device_type = \"RV61100\"\n"
    "section = [{ name = \"A\", at = 0, fill = 0, size = 8 }, { name = \"B\", at = 8, fill = 0, "
    "size = 8 }]\n";

INSTANTIATE_TEST_SUITE_P(
    Layouts, FwimgCheckedTest,
    testing::Values(
        Refused{"NoSlots",
                "\ndevice_type = \"RV61300\"\n" +
                    EepromSection("A", "0").replace(0, 0,
                                                    "devmap = [{ device = 0x50, size = 0x100 }]\n"),
                "2 slot-unset"},
        Refused{
            "FieldInOneSlotOnly",
            Eeproms(EepromSection("A", "0") + "boot_record = true\n[[field]]\ntype = "
                                              "\"GUID\"\nat = { device = 0x50, offset = 0x10 }\n"),
            "13 one-slot-only"},
        Refused{"NoBootRecord", Eeproms(EepromSection("A", "0")), "7 record-sum"},
        Refused{"PointerSectorOfZeros",
                "device_type = \"RV52100\"\n[[slot]]\nps = 0x10000\nimage = 0x30000\n[[slot]]\n"
                "[[section]]\nname = \"PS\"\nat = 0x10000\nfill = 0\nsize = 264\n",
                "6 ps-record"},
        Refused{"SectionsOverlap",
                "device_type = \"RV61100\"\nsection = [\n"
                "{ name = \"A\", at = 8, fill = 0, size = 8 },\n"
                "{ name = \"B\", at = 0, fill = 0, size = 12 }]\n",
                "4 section-overlap"},
        Refused{"SectionsAtOneAddress",
                "device_type = \"RV61100\"\nsection = [\n"
                "{ name = \"A\", at = 8, fill = 0, size = 8 },\n"
                "{ name = \"B\", at = 8, fill = 1, size = 8 }]\n",
                "4 duplicate-section"},
        Refused{
            "PastTheLastDevice",
            "device_type = \"RV61100\"\ndevmap = [{ device = 1, size = 0x10 }]\n"
            "section = [{ name = \"A\", at = { device = 1, offset = 8 }, fill = 0, size = 12 }]\n",
            "3 past-map"},
        Refused{"FieldCrossing", ONE + "[[field]]\ntype = \"GUID\"\nat = 0x3C\n",
                "3 field-crosses"},
        Refused{"CrcOverAnother",
                ONE + "[[crc]]\nfrom = 0\nsize = 4\nat = 4\n[[crc]]\nfrom = 0\nsize = 8\nat = 8\n",
                "7 crc-over-crc"},
        Refused{"CrcOfTwoSections", TWO + "[[crc]]\nfrom = 0\nsize = 12\nat = 12\nfill = true\n",
                "3 crc-crosses"},
        Refused{"CrcWordInAnotherSection",
                TWO + "[[crc]]\nfrom = 0\nsize = 8\nat = 12\nfill = true\n", "3 crc-crosses"},
        Refused{"CrcWordBeforeItsSection",
                TWO + "[[crc]]\nfrom = 8\nsize = 8\nat = 4\nfill = true\n", "3 crc-place"},
        Refused{"CrcOutside", ONE + "[[crc]]\nfrom = 0x40\nsize = 8\nat = 4\nfill = true\n",
                "3 crc-outside"},
        Refused{"ImageWithoutSection", Eeproms(EepromSection("A", "4")), "3 no-first-section"},
        Refused{
            "SlotsInTheWrongOrder",
            "device_type = \"RV61300\"\nsection = [{ name = \"A\", at = 8, fill = 0, size = 16, "
            "boot_record = true }]\n"
            "slot = [{ image = 8 },\n{ image = 0 }]\n",
            "4 slot-order"},
        Refused{
            "ImageIntoTheSecondSlot",
            "device_type = \"RV61300\"\nsection = [{ name = \"A\", at = 0, fill = 0, size = 64, "
            "boot_record = true }]\n"
            "slot = [{ image = 0 },\n{ image = 0x20 }]\n",
            "2 slots-overlap"},
        Refused{"ImageOutsideItsSlot",
                "device_type = \"RV61300\"\nsection = [{ name = \"A\", at = 16, fill = 0, size = "
                "16, boot_record = true },\n{ name = \"B\", at = 0, fill = 0, size = 8 }]\n"
                "slot = [{ image = 16 }, { image = 64 }]\n",
                "3 image-section-outside"},
        Refused{
            "SecondSlotTooShort",
            "device_type = \"RV61300\"\ndevmap = [{ device = 1, size = 0x100 }, { device = 2, "
            "size = 0x10 }]\n"
            "slot = [{ image = { device = 1, offset = 0 } },\n{ image = { device = 2, offset = "
            "0 } }]\n"
            "section = [{ name = \"A\", at = { device = 1, offset = 0 }, fill = 0, size = 0x20, "
            "boot_record = true }]\n",
            "4 past-map"},
        Refused{"CrcOverTheHeldBackWord",
                Eeproms(EepromSection("A", "0") +
                        "boot_record = true\n"
                        "[[crc]]\nfrom = { image = 0 }\nsize = 8\nat = { image = 0x10 }\n"),
                "13 crc-over-spoilt"},
        Refused{"MarkedBootRecord",
                Eeproms("[[section]]\nname = \"A\"\nat = { device = 0x50, offset = 0 }\nfill = "
                        "1\nsize = 0x20\nboot_record = true\n"),
                "7 record-marked"},
        Refused{"FieldInTheSecondBootRecord",
                Eeproms(EepromSection("A", "0") + "boot_record = true\n[[field]]\ntype = "
                                                  "\"GUID\"\nat = { device = 0x51, offset = 8 }\n"),
                "13 field-in-record"}),
    [](const auto& refused) { return refused.param.name; });

TEST_F(FwimgMakeTest, TwoSectionsOfOneNameAreRefused) {
  EXPECT_EQ(Refusal("device_type = \"RV61100\"\nsection = [\n"
                    "{ name = \"A\", at = 8, fill = 0, size = 8 },\n"
                    "{ name = \"A\", at = 0, fill = 0, size = 8 }]\n"),
            "layout.toml:4: there are two sections A");
}

TEST_F(FwimgMakeTest, ARefusedLayoutLeavesTheImageOfBeforeAsItIs) {
  _folder.Write("out.img", "before");
  const Outcome outcome =
      Fwimg({"make", _folder.Write("layout.toml", "wrong"), "-o", _folder / "out.img"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(Content("out.img"), "before");
}

TEST_F(FwimgMakeTest, OnlyWhatIsNamedAndIsAFileLikeAnImageIsWritten) {
  const std::string layout = _folder.Write("layout.toml", ONE);
  Outcome outcome = Fwimg({"make", layout, "-o", _folder / "out.bin"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "fwimg: the name of an image file ends in .img or .IMG: " +
                                (_folder / "out.bin") + "\n");
  EXPECT_FALSE(fs::exists(_folder / "out.bin"));
  fs::create_directory(_folder / "dir.img");
  outcome = Fwimg({"make", layout, "-o", _folder / "dir.img"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "fwimg: can't write " + (_folder / "dir.img") + ": not a file\n");
  outcome = Fwimg({"make", layout, "-o", _folder / "none/out.img"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors,
            "fwimg: can't write " + (_folder / "none/out.img") + ": No such file or directory\n");
}

TEST_F(FwimgMakeTest, ThroughALinkTheFileItStandsForIsReplaced) {
  _folder.Write("real.img", "before");
  fs::create_symlink("real.img", _folder / "out.img");
  Make(ONE);
  EXPECT_TRUE(fs::is_symlink(_folder / "out.img"));
  EXPECT_NE(Content("real.img"), "before");
}

TEST_F(FwimgMakeTest, TheObjectTellsWhatStandsWhere) {
  const Outcome outcome = Fwimg(
      {"make",
       _folder.Write("layout.toml",
                     "device_type = \"RV61100\"\n"
                     "devmap = [{ device = 0x50, size = 0x100 }, { device = 0x51, size = 0x100 }]\n"
                     "section = [{ name = \"A\", at = { device = 0x51, offset = 8 }, fill = 0, "
                     "size = 4 }]\n"),
       "-o", _folder / "out.img", "--json"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(
      json::parse(outcome.output),
      (json{
          {"version", 1},
          {"command", "make"},
          {"image", _folder / "out.img"},
          {"device_type", "RV61100"},
          {"sections",
           {{{"name", "A"}, {"address", 0x108}, {"device", 0x51}, {"offset", 8}, {"size", 4}}}}}));
}

/// A random layout, and what an image of it must hold.
class RandomLayout {
 public:
  explicit RandomLayout(u_int32_t seed, const common::ScratchFolder& folder) : _rng(seed) {
    const u_int32_t count = 1 + Below(5);
    u_int32_t addr = 4 * Below(64);
    for (u_int32_t i = 0; i < count; ++i) {
      AddSection(Text("S", i, "-x_", seed), addr, 4 + 4 * Below(100));
      addr +=
          static_cast<u_int32_t>(sections.back().data.size()) + (Below(2) == 0 ? 0 : 4 * Below(64));
    }
    image0 = sections[0].addr;
    image1 = addr + 4 * Below(64);
    // Both slots fit, and there may be more.
    const u_int32_t total = 2 * image1 + 4 + Below(256);
    const u_int32_t devices = Below(4);
    u_int32_t rest = total;
    // Sections cross from one device into the next, so all but the last are whole chunks.
    constexpr u_int32_t CHUNK = 32;
    for (u_int32_t i = 0; i < devices && rest > 0; ++i) {
      const bool is_last = i + 1 == devices || rest <= 2 * CHUNK;
      const u_int32_t size = is_last ? rest : CHUNK * (1 + Below(rest / (2 * CHUNK)));
      devmap.emplace_back(size, static_cast<u_int8_t>(0x50 + 7 * i));
      rest -= size;
    }
    WriteText(folder);
  }

  struct Section {
    std::string name;
    u_int32_t addr;
    DataVec data;
  };
  std::string text;
  std::vector<EeLoc> devmap;
  std::vector<Section> sections;
  std::vector<FwImage::FieldReplace> fields;
  std::vector<FwImage::CrcReplace> crcs;
  u_int32_t image0 = 0;
  u_int32_t image1 = 0;

 private:
  u_int32_t Below(u_int32_t end) { return static_cast<u_int32_t>(_rng() % end); }

  void AddSection(const std::string& name, u_int32_t addr, u_int32_t size) {
    Section section{name, addr, RandomBytes(_rng, size)};
    u_int32_t at = 0;
    for (const FieldType type : {GUIDS, GUID, SYS_GUID}) {
      at += Below(8);
      const u_int32_t field = FwImage::ReplaceFieldSize(type);
      if (Below(2) == 0 || at + field > size) continue;
      fields.push_back({addr + at, field, type});
      at += field;
    }
    const u_int32_t covered = (at + 3) / 4 * 4;
    _raw.push_back(section.data);
    _filled.push_back(false);
    if (covered >= 4 && covered + 4 <= size && Below(3) != 0) {
      const u_int32_t word = covered + Below(size - covered - 3);
      crcs.push_back({addr, covered, addr + word});
      _filled.back() = Below(2) == 0;
      if (_filled.back()) {
        DataVec crc;
        crc << ReferenceCrc(DataVec(section.data.begin(), section.data.begin() + covered));
        std::copy(crc.begin(), crc.end(), section.data.begin() + word);
      }
      _crc_filled.push_back(_filled.back());
    }
    sections.push_back(section);
  }

  std::string Place(u_int32_t addr) const {
    if (devmap.empty()) return Text(addr);
    for (const EeLoc& dev : devmap) {
      if (addr < dev.offset) {
        return Text("{ offset = ", addr, ", device = ", u_int32_t{dev.dev}, " }");
      }
      addr -= dev.offset;
    }
    ADD_FAILURE() << "no device";
    return "";
  }

  static std::string HexText(const DataVec& bytes) {
    std::string digits;
    for (const u_int8_t byte : bytes) {
      digits += Text(std::hex, std::setfill('0'), std::setw(2), u_int32_t{byte});
    }
    return digits;
  }

  void WriteText(const common::ScratchFolder& folder) {
    text = "device_type = \"RV61100\"\n";
    for (const EeLoc& dev : devmap) {
      text += Text("[[devmap]]\ndevice = ", u_int32_t{dev.dev}, "\nsize = ", dev.offset, "\n");
    }
    text += "[[slot]]\nimage = " + Place(image0) + "\n[[slot]]\nimage = " + Place(image1) + "\n";
    for (std::size_t i = 0; i < sections.size(); ++i) {
      const DataVec& raw = _raw[i];
      text += "[[section]]\nname = \"" + sections[i].name + "\"\nat = " + Place(sections[i].addr) +
              "\n";
      const auto cut = static_cast<std::ptrdiff_t>(Below(static_cast<u_int32_t>(raw.size())));
      const DataVec head(raw.begin(), raw.begin() + cut);
      const DataVec tail(raw.begin() + cut, raw.end());
      folder.Write(Text("part", i), "junk" + std::string(tail.begin(), tail.end()) + "junk");
      text += Text("content = [{ hex = \"", HexText(head), "\" }, { file = \"part", i,
                   "\", from = 4, size = ", tail.size(), " }]\n");
    }
    constexpr const char* KEYWORDS[] = {"", "", "GUIDS", "GUID", "SYSGUID"};
    for (const auto& field : fields) {
      text +=
          Text("[[field]]\ntype = \"", KEYWORDS[field.type], "\"\nat = ", Place(field.from), "\n");
    }
    for (std::size_t i = 0; i < crcs.size(); ++i) {
      text += Text("[[crc]]\nfrom = ", Place(crcs[i].from), "\nsize = ", crcs[i].size,
                   "\nat = ", Place(crcs[i].crc_addr),
                   "\nfill = ", _crc_filled[i] ? "true" : "false", "\n");
    }
  }

  TestRng _rng;
  std::vector<DataVec> _raw;
  std::vector<bool> _filled;
  std::vector<bool> _crc_filled;
};

TEST_F(FwimgMakeTest, AnyLayoutGivesAnImageThatMeansTheSameAndGivesTheBytesBack) {
  std::size_t fields = 0;
  std::size_t crcs = 0;
  for (u_int32_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(Text("seed ", seed));
    const RandomLayout layout(seed, _folder);
    SCOPED_TRACE(layout.text);
    const Outcome made =
        Fwimg({"make", _folder.Write("layout.toml", layout.text), "-o", _folder / "out.img"});
    ASSERT_EQ(made.status, 0) << made.errors;
    EXPECT_EQ(Fwimg({"check", _folder / "out.img"}).status, 0);
    FwImage image;
    Load(image);
    EXPECT_EQ(image.DevType(), RV61100);
    EXPECT_EQ(image.GetImageAddr(0), layout.image0);
    EXPECT_EQ(image.GetImageAddr(1), layout.image1);
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    ASSERT_EQ(addrs.size(), layout.sections.size());
    fs::remove_all(_folder / "parts");
    ASSERT_EQ(Fwimg({"extract", _folder / "out.img", "--all", _folder / "parts"}).status, 0);
    for (std::size_t i = 0; i < addrs.size(); ++i) {
      const auto& section = layout.sections[i];
      EXPECT_EQ(addrs[i], section.addr);
      EXPECT_EQ(image.GetSection(addrs[i])->name, section.name);
      EXPECT_EQ(image.GetSection(addrs[i])->data, section.data);
      EXPECT_EQ(Bytes("parts/" + section.name + ".bin"), section.data);
    }
    const auto same_field = [](const auto& a, const auto& b) {
      return a.from == b.from && a.size == b.size && a.type == b.type;
    };
    EXPECT_TRUE(
        std::ranges::equal(image.GetFieldsInRange(0, 0xFFFFFFFF), layout.fields, same_field));
    const auto same_crc = [](const auto& a, const auto& b) {
      return a.from == b.from && a.size == b.size && a.crc_addr == b.crc_addr;
    };
    EXPECT_TRUE(std::ranges::equal(image.GetCrcsInRange(0, 0xFFFFFFFF), layout.crcs, same_crc));
    fields += layout.fields.size();
    crcs += layout.crcs.size();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(fields, 40u);  // else little was tried
  EXPECT_GT(crcs, 20u);
}

/// A layout of a few parts, each of them right or wrong by chance.
std::string LayoutByChance(TestRng& rng) {
  const auto one_of = [&rng](std::initializer_list<const char*> texts) {
    return std::string(texts.begin()[rng() % texts.size()]);
  };
  std::string text = "device_type = \"" + one_of({"RV61100", "RV61300", "RV52100"}) + "\"\n" +
                     one_of({"", "sector_size = 0x400\n"}) +
                     one_of({"", "devmap = [{ device = 0, size = 0x2000 }]\n"});
  const bool has_slots = rng() % 4 != 0;
  if (has_slots) {
    text += "[[slot]]\nimage = 0xC00\n" + one_of({"", "ps = 0x400\nsignature = 0x408\n"}) +
            "[[slot]]\nimage = " + one_of({"0x1400", "0x1400", "0x1400", "0xC10", "0x400"}) + "\n" +
            one_of({"", "ps = 0x800\nsignature = 0x808\n"});
  }
  if (rng() % 2 == 0) {
    text +=
        "[[section]]\nname = \"PS0\"\nat = 0x400\ncontent = [{ hex = \"00000c00 00000040 "
        "ffffffff\" }, { fill = 0, size = 252 }]\n[[section]]\nname = \"PS1\"\nat = 0x800\n"
        "content = [{ hex = \"00001400 00000040 ffffffff\" }, { fill = 0, size = 252 }]\n";
    if (text.find("ps = 0x400") != std::string::npos) {
      text += "[[crc]]\nfrom = { ps = 0 }\nsize = 0x104\nat = { ps = 0x104 }\nfill = true\n";
    }
  }
  text += "[[section]]\nname = \"FIRMWARE\"\nat = 0xC00\nfill = " + one_of({"0", "0", "1"}) +
          "\nsize = 0x40\n" + one_of({"", "boot_record = true\n"});
  const std::string base = has_slots ? "{ image = " : "{ offset = 0xC";
  const auto place = [&](const std::string& offset) {
    return base + (has_slots ? "0x" : "") + offset + " }";
  };
  if (rng() % 2 == 0) {
    text += "[[field]]\ntype = \"GUID\"\nat = " +
            (rng() % 4 == 0 ? "0xC10" : place(one_of({"10", "10", "3C", "04"}))) + "\n";
  }
  if (rng() % 2 == 0) {
    text += "[[crc]]\nfrom = " + place(one_of({"10", "10", "00"})) +
            "\nsize = 0x20\nat = " + place(one_of({"30", "30", "2C", "3E"})) +
            one_of({"\n", "\nfill = true\n"});
  }
  return text;
}

TEST_F(FwimgMakeTest, WhatIsMadeOfAnyLayoutIsAcceptedByTheCheck) {
  std::map<std::string, u_int32_t> made;  // by device type
  u_int32_t refused = 0;
  for (u_int32_t seed = 1; seed <= 150; ++seed) {
    TestRng rng(seed);
    const std::string layout = LayoutByChance(rng);
    SCOPED_TRACE(Text("seed ", seed, "\n", layout));
    fs::remove(_folder / "out.img");
    const Outcome outcome =
        Fwimg({"make", _folder.Write("layout.toml", layout), "-o", _folder / "out.img"});
    if (outcome.status == 2) {
      EXPECT_FALSE(fs::exists(_folder / "out.img"));
      ++refused;
      continue;
    }
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    std::vector<std::string> words{"check", _folder / "out.img"};
    if (layout.find("sector_size") != std::string::npos) {
      words.insert(words.end(), {"--sector-size", "0x400"});
    }
    const Outcome checked = Fwimg(words);
    EXPECT_EQ(checked.status, 0) << checked.output;
    ++made[layout.substr(0, layout.find('\n'))];
  }
  EXPECT_EQ(made.size(), 3u);  // else little was tried
  EXPECT_GT(refused, 30u);
}

TEST_F(FwimgMakeTest, TheExamplesHoldWhatAnotherWriterGivesThem) {
  const Outcome made = RunProgram({EXAMPLES "/make-images", _folder.Path(), FWIMG_PROGRAM});
  ASSERT_EQ(made.status, 0) << made.errors;
  const fs::path others = _folder.Path() / "others";
  fs::create_directory(others);
  const Outcome written = RunProgram({EXAMPLES "/../tests/support/example_images.py", others});
  ASSERT_EQ(written.status, 0) << written.errors;
  for (const std::string name : {"rv61300", "rv61300-old", "rv52100", "rv52100-old"}) {
    SCOPED_TRACE(name);
    FwImage image;
    Load(image, name + ".img");
    FwImage other;
    Load(other, "others/" + name + ".img");
    EXPECT_EQ(image.DevType(), other.DevType());
    std::vector<u_int32_t> addrs;
    std::vector<u_int32_t> other_addrs;
    image.GetSectionsAddr(addrs);
    other.GetSectionsAddr(other_addrs);
    ASSERT_EQ(addrs, other_addrs);
    for (const u_int32_t addr : addrs) {
      EXPECT_EQ(image.GetSection(addr)->name, other.GetSection(addr)->name);
      EXPECT_EQ(image.GetSection(addr)->data, other.GetSection(addr)->data);
      const EeLoc loc = image.GetAddressConvertor()->Convert(addr);
      EXPECT_EQ(loc.dev, other.GetAddressConvertor()->Convert(addr).dev);
      EXPECT_EQ(loc.offset, other.GetAddressConvertor()->Convert(addr).offset);
    }
    const auto replaces = [](const FwImage& from) {
      std::vector<std::array<u_int32_t, 4>> all;
      for (const auto& field : from.GetFieldsInRange(0, 0xFFFFFFFF)) {
        all.push_back({field.from, field.size, 0, static_cast<u_int32_t>(field.type)});
      }
      for (const auto& crc : from.GetCrcsInRange(0, 0xFFFFFFFF)) {
        all.push_back({crc.from, crc.size, crc.crc_addr, 0xC2C});
      }
      std::ranges::sort(all);
      return all;
    };
    EXPECT_EQ(replaces(image), replaces(other));
    EXPECT_GT(replaces(image).size(), 8u);
    for (const u_int32_t slot : {0u, 1u}) {
      EXPECT_EQ(image.GetImageAddr(slot), other.GetImageAddr(slot));
      if (image.DevType() == RV61300) continue;
      EXPECT_EQ(image.GetPsAddr(slot), other.GetPsAddr(slot));
      EXPECT_EQ(image.GetSignatureAddr(slot), other.GetSignatureAddr(slot));
    }
  }
}

TEST_F(FwimgMakeTest, TheDocumentedLayoutIsMadeAndCheckAcceptsIt) {
  const std::vector<std::string> blocks = FencedBlocks(LAYOUT_DOCUMENT, "toml");
  ASSERT_EQ(blocks.size(), 2u);
  _folder.Write("code.bin", std::string(1024, '\x5a'));
  _folder.Write("config.bin", std::string(64, 'c'));
  Make(blocks[0]);
  const Outcome checked = Fwimg({"check", "--strict", _folder / "out.img"});
  EXPECT_EQ(checked.status, 0) << checked.output;
  FwImage image;
  Load(image);
  EXPECT_EQ(image.DevType(), RV61300);
  ASSERT_NE(image.GetSection(0), nullptr);
  EXPECT_EQ(image.GetSection(0)->data.size(), 1024u);
  EXPECT_EQ(image.GetImageAddr(1), 0x20000u);
}

class FwimgExtractTest : public FwimgMakeTest {
 protected:
  FwimgExtractTest() {
    _folder.Write("two.img",
                  "DEVMAP 100 50\nDEVMAP 100 51\nSTART A 8 50\n00 01 0A FF\nEND A\n"
                  "START B 4 51\n10 11 12 13 14 15 16 17\nEND B\n");
  }
};

TEST_F(FwimgExtractTest, OneSectionGoesToAFileOrTheOutput) {
  Outcome outcome =
      Fwimg({"extract", _folder / "two.img", "--section", "A", "-o", _folder / "a.bin"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, (_folder / "a.bin") + ": A, 4 bytes from 50:00000008\n");
  EXPECT_EQ(Bytes("a.bin"), Hex("00010AFF"));
  outcome = Fwimg({"extract", _folder / "two.img", "--section", "A", "-o", "-"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, std::string("\0\1\n\xff", 4));
}

TEST_F(FwimgExtractTest, AllSectionsGoToAFolderAndTheObjectListsThem) {
  const Outcome outcome =
      Fwimg({"extract", _folder / "two.img", "--all", _folder / "new/folder", "--json"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(json::parse(outcome.output), (json{{"version", 1},
                                               {"command", "extract"},
                                               {"image", _folder / "two.img"},
                                               {"written",
                                                {{{"section", "A"},
                                                  {"address", 8},
                                                  {"device", 0x50},
                                                  {"offset", 8},
                                                  {"size", 4},
                                                  {"file", _folder / "new/folder/A.bin"}},
                                                 {{"section", "B"},
                                                  {"address", 0x104},
                                                  {"device", 0x51},
                                                  {"offset", 4},
                                                  {"size", 8},
                                                  {"file", _folder / "new/folder/B.bin"}}}}}));
  EXPECT_EQ(Bytes("new/folder/A.bin"), Hex("00010AFF"));
  EXPECT_EQ(Bytes("new/folder/B.bin"), Hex("1011121314151617"));
}

TEST_F(FwimgExtractTest, NoNameOfASectionLeadsOutOfTheFolder) {
  _folder.Write(
      "wild.img",
      "START ../../up 0 0\n01 01 01 01\nEND ../../up\nSTART .. 10 0\n02 02 02 02\nEND ..\n"
      "START a/b 20 0\n03 03 03 03\nEND a/b\nSTART a?b 30 0\n04 04 04 04\nEND a?b\n");
  const Outcome outcome = Fwimg({"extract", _folder / "wild.img", "--all", _folder / "in/here"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Bytes("in/here/_.._.._up.bin"), Hex("01010101"));
  EXPECT_EQ(Bytes("in/here/_...bin"), Hex("02020202"));
  EXPECT_EQ(Bytes("in/here/a_b.bin"), Hex("03030303"));
  EXPECT_EQ(Bytes("in/here/a_b@00000030.bin"), Hex("04040404"));
  EXPECT_EQ(std::distance(fs::directory_iterator(_folder / "in"), {}), 1);
  EXPECT_EQ(std::distance(fs::directory_iterator(_folder / "in/here"), {}), 4);
}

TEST_F(FwimgExtractTest, ASectionThatIsMissingOrNotAloneIsRefused) {
  Outcome outcome =
      Fwimg({"extract", _folder / "two.img", "--section", "C", "-o", _folder / "c.bin"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "fwimg: " + (_folder / "two.img") + ": no section C\n");
  EXPECT_FALSE(fs::exists(_folder / "c.bin"));
  _folder.Write("same.img", "START A 0 0\n1 1 1 1\nEND A\nSTART A 10 0\n2 2 2 2\nEND A\n");
  outcome = Fwimg({"extract", _folder / "same.img", "--section", "A", "-o", _folder / "c.bin"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "fwimg: " + (_folder / "same.img") +
                                ": 2 sections are named A; --all DIR writes each\n");
}

TEST_F(FwimgExtractTest, TheLoadersErrorsAndWarningsKeepOffTheResult) {
  _folder.Write("bad.img", "START A 0 0\n1 2 3\n");
  Outcome outcome = Fwimg({"extract", _folder / "bad.img", "--section", "A", "-o", "-"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "fwimg: " + (_folder / "bad.img") +
                                ":2: Section data line must have multiple of 4 bytes.\n");
  _folder.Write("bsn.img",
                "DEVICE_TYPE RV61100\nREPLACE BSN 0 0\nSTART A 0 0\n41 42 43 44\nEND A\n");
  outcome = Fwimg({"extract", _folder / "bsn.img", "--section", "A", "-o", "-"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "ABCD");
  EXPECT_EQ(outcome.errors, "-W- *** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE 61100 ***\n");
}

TEST_F(FwimgExtractTest, TheImageIsNotOverwrittenByItsOwnSections) {
  const std::string image = _folder / "two.img";
  const DataVec before = Bytes("two.img");
  const std::string link = _folder / "link.img";
  fs::create_symlink("two.img", link);
  fs::create_directory(_folder / "parts");
  fs::create_symlink("../two.img", _folder / "parts/B.bin");
  struct Case {
    std::vector<std::string> words;
    std::string refused;
  };
  for (const auto& [words, refused] :
       {Case{{"extract", image, "--section", "A", "-o", image}, image},
        Case{{"extract", image, "--section", "A", "-o", link}, link},
        Case{{"extract", link, "--section", "A", "-o", image}, image},
        Case{{"extract", image, "--section", "A", "-o", _folder / "parts/../two.img", "--json"},
             _folder / "parts/../two.img"},
        Case{{"extract", image, "--all", _folder / "parts"}, _folder / "parts/B.bin"}}) {
    const Outcome outcome = Fwimg(words);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.output, "");
    const std::string option = words[2] == "--all" ? "--all" : "--output";
    EXPECT_EQ(outcome.errors, option + ": " + refused + " is the same file as FILE " + words[1] +
                                  "; give another one\nRun with --help for more information.\n");
    EXPECT_EQ(Bytes("two.img"), before);
    EXPECT_FALSE(fs::exists(_folder / "parts/A.bin"));  // none is written where one must not be
  }
}

TEST_F(FwimgExtractTest, NothingIsPrintedIntoAnInput) {
  const std::string image = _folder / "two.img";
  const DataVec before = Bytes("two.img");
  for (const std::string& words :
       {Text("extract ", image, " --section A -o -"), Text("extract ", image, " --section A -o x"),
        Text("info ", image), Text("info --json ", image), Text("check --json ", image),
        Text("diff --json ", image, " none.img")}) {
    const Outcome outcome =
        RunProgram({"/bin/sh", "-c", Text("exec '" FWIMG_PROGRAM "' ", words, " >>", image)});
    EXPECT_EQ(outcome.status, 64) << words;
    EXPECT_THAT(outcome.errors,
                testing::MatchesRegex(Text("standard output: is the same file as (FILE|A) ", image,
                                           "; give another one\nRun with .*\n")));
    EXPECT_EQ(Bytes("two.img"), before) << words;
  }
}

TEST_F(FwimgExtractTest, NothingOfANameReachesTheTerminalAsItIs) {
  _folder.Write("esc.img", "START \x1b[2J 0 0\n1 1 1 1\nEND \x1b[2J\n");
  Outcome outcome = Fwimg({"extract", _folder / "esc.img", "--all", _folder / "esc"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, (_folder / "esc/__2J.bin") + ": \\x1b[2J, 4 bytes from 00:00000000\n");
  // The loader's own words.
  _folder.Write("bad.img", "START \x1b[2J 0 0\n1 1 1 1\nEND \x1b[3J\n");
  outcome = Fwimg({"extract", _folder / "bad.img", "--all", _folder / "esc"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors.find('\x1b'), std::string::npos) << outcome.errors;
  EXPECT_THAT(outcome.errors, testing::HasSubstr("\\x1b["));
}

TEST_F(FwimgExtractTest, AWrongCommandLineIsAUsageError) {
  const std::string image = _folder / "two.img";
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"extract", image},
        {"extract", image, "--section", "A"},
        {"extract", image, "--all", _folder / "x", "--section", "A", "-o", _folder / "y"},
        {"extract", image, "--section", "A", "-o", "-", "--json"},
        {"make"},
        {"make", image},
        {}}) {
    const Outcome outcome = Fwimg(words);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors, "");
  }
  EXPECT_FALSE(fs::exists(_folder / "x"));
}

}  // namespace
