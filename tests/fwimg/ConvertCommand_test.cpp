// The built fwimg: image files from and to Intel HEX and Motorola S-records.
#include <array>
#include <nlohmann/json.hpp>

#include "src/FwImage.h"
#include "src/utils.h"
#include "tests/support/Harness.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

bool HaveSrecord() {
  static const bool is_there = RunProgram({"/usr/bin/env", "srec_cat", "-version"}).status == 0;
  return is_there;
}

class FwimgConvertTest : public ConsoleTest {
 protected:
  void SetUp() override {
    if (!HaveSrecord()) GTEST_SKIP() << "srec_cat (package srecord) is not installed";
  }

  Outcome Convert(const std::string& from, const std::string& to,
                  const std::vector<std::string>& more = {}) const {
    std::vector<std::string> words{FWIMG_PROGRAM, "convert", _folder / from, _folder / to};
    words.insert(words.end(), more.begin(), more.end());
    return RunProgram(words);
  }

  /// What a conversion that cannot be done says, without the folder's name.
  std::string Refusal(const std::string& from, const std::string& to,
                      const std::vector<std::string>& more = {}) const {
    const Outcome outcome = Convert(from, to, more);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_FALSE(fs::exists(_folder / to));
    std::string text = outcome.errors;
    const std::string folder = _folder.Path().string() + "/";
    for (std::size_t at = 0; (at = text.find(folder)) != std::string::npos;) {
      text.erase(at, folder.size());
    }
    return text;
  }

  std::string Content(const std::string& name) const { return ReadText(_folder / name); }

  /// The sections of an image file: address and bytes, in file order.
  std::vector<std::pair<u_int32_t, DataVec>> Sections(const std::string& name) const {
    FwImage image;
    image.Open((_folder / name).c_str(), READ);
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    std::vector<std::pair<u_int32_t, DataVec>> sections;
    for (const u_int32_t addr : addrs) sections.emplace_back(addr, image.GetSection(addr)->data);
    return sections;
  }

  static std::string ImageText(const std::vector<std::pair<u_int32_t, DataVec>>& sections) {
    std::string text;
    for (const auto& [addr, data] : sections) {
      text += Text("START S", std::hex, addr, " ", addr, " 0");
      for (std::size_t i = 0; i < data.size(); ++i) {
        text += Text(i % 4 == 0 ? "\n" : " ", std::hex, u_int32_t{data[i]});
      }
      text += Text("\nEND S", std::hex, addr, "\n");
    }
    return text;
  }

  common::ScratchFolder _folder;
};

const std::string NO_LAYOUT =
    "fwimg: without --layout the image names no device type, and cannot be burnt\n";

TEST_F(FwimgConvertTest, AnImageBecomesIntelHex) {
  // The second device begins where the first one ends, at 0x30000.
  _folder.Write("a.img",
                "DEVMAP 30000 50\nDEVMAP 100 51\nSTART A 0 51\n1 2 3 4\nEND A\n"
                "START B 10 50\nAA BB CC DD\nEND B\n");
  const Outcome outcome = Convert("a.img", "a.hex");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, (_folder / "a.hex") + ": 8 bytes in 2 pieces\n");
  // The sum of each record's bytes, its last one included, is 0 modulo 256.
  EXPECT_EQ(Content("a.hex"),
            ":020000040000FA\n"
            ":04001000AABBCCDDDE\n"
            ":020000040003F7\n"
            ":0400000001020304F2\n"
            ":00000001FF\n");
}

TEST_F(FwimgConvertTest, AnImageBecomesMotorolaRecordsThatEnd) {
  _folder.Write("a.img", "START A 10 0\n1 2 3 4\nEND A\n");
  const Outcome outcome = Convert("a.img", "a.s19", {"--json"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(json::parse(outcome.output), (json{{"version", 1},
                                               {"command", "convert"},
                                               {"from", _folder / "a.img"},
                                               {"to", _folder / "a.s19"},
                                               {"ranges", {{{"address", 0x10}, {"size", 4}}}}}));
  // Data, the number of data records, the end: the sum of each record's bytes is FF modulo 256.
  EXPECT_EQ(Content("a.s19"), "S107001001020304DE\nS5030001FB\nS9030000FC\n");
}

TEST_F(FwimgConvertTest, BytesComeBackFromEitherFormat) {
  for (u_int32_t seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(Text("seed ", seed));
    TestRng rng(seed);
    std::vector<std::pair<u_int32_t, DataVec>> sections;
    u_int32_t addr = static_cast<u_int32_t>(rng() % 0x1000);
    for (u_int32_t i = 0; i < 1 + seed % 4; ++i) {
      sections.emplace_back(addr, RandomBytes(rng, 4 + 4 * (rng() % 500)));
      // Gaps short and long, within and beyond what is fetched in one go.
      addr += static_cast<u_int32_t>(sections.back().second.size()) + 1;
      addr += static_cast<u_int32_t>(rng() % (rng() % 2 == 0 ? 100 : 0x20000000));
    }
    _folder.Write("in.img", ImageText(sections));
    for (const std::string format : {"hex", "srec"}) {
      ASSERT_EQ(Convert("in.img", "x." + format).status, 0);
      const Outcome outcome = Convert("x." + format, "back.img");
      ASSERT_EQ(outcome.status, 0) << outcome.errors;
      // A warning for each that begins inside a word.
      EXPECT_THAT(outcome.errors, testing::StartsWith(NO_LAYOUT));
      EXPECT_EQ(std::ranges::count(outcome.errors, '\n'),
                1 + std::ranges::count_if(
                        sections, [](const auto& section) { return section.first % 4 != 0; }));
      EXPECT_EQ(Sections("back.img"), sections);
    }
  }
}

TEST_F(FwimgConvertTest, TheLastAddressHasItsPlace) {
  const std::vector<std::pair<u_int32_t, DataVec>> sections{{0, Hex("01020304")},
                                                            {0xFFFFFFF8, Hex("05060708 090a0b0c")}};
  _folder.Write("in.img", ImageText(sections));
  for (const std::string format : {"hex", "srec"}) {
    ASSERT_EQ(Convert("in.img", "x." + format).status, 0);
    ASSERT_EQ(Convert("x." + format, "back.img").status, 0);
    EXPECT_EQ(Sections("back.img"), sections);
  }
}

TEST_F(FwimgConvertTest, NeighboursBecomeOnePieceUnlessASlotBeginsThere) {
  _folder.Write("in.img", ImageText({{0x400, DataVec(0x400, 1)}, {0x800, DataVec(0x400, 2)}}));
  ASSERT_EQ(Convert("in.img", "x.hex").status, 0);
  ASSERT_EQ(Convert("x.hex", "one.img").status, 0);
  ASSERT_EQ(Sections("one.img").size(), 1u);
  _folder.Write("frame.toml",
                "device_type = \"RV61100\"\n[[slot]]\nps = 0x400\nimage = 0x800\n"
                "[[crc]]\nfrom = { image = 0 }\nsize = 4\nat = { image = 4 }\nfill = true\n");
  const Outcome outcome = Convert("x.hex", "two.img", {"--layout", _folder / "frame.toml"});
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  FwImage image;
  image.Open((_folder / "two.img").c_str(), READ);
  EXPECT_EQ(image.DevType(), RV61100);
  EXPECT_EQ(image.GetImageAddr(0), 0x800u);
  ASSERT_NE(image.GetSection(0x400), nullptr);
  EXPECT_EQ(image.GetSection(0x400)->name, "PS0");
  EXPECT_EQ(image.GetSection(0x400)->data, DataVec(0x400, 1));
  ASSERT_NE(image.GetSection(0x800), nullptr);
  EXPECT_EQ(image.GetSection(0x800)->name, "IMAGE0");
  DataVec expected(4, 2);
  expected << ReferenceCrc(DataVec(4, 2));
  expected.resize(0x400, 2);
  EXPECT_EQ(image.GetSection(0x800)->data, expected);
}

TEST_F(FwimgConvertTest, TheDocumentedFrameIsTaken) {
  const std::vector<std::string> blocks = FencedBlocks(LAYOUT_DOCUMENT, "toml");
  ASSERT_EQ(blocks.size(), 2u);
  DataVec firmware(0x800, 0);
  firmware[15] = 0xAB;  // the sum of a boot record
  _folder.Write("in.img", ImageText({{0, firmware}}));
  ASSERT_EQ(Convert("in.img", "x.hex").status, 0);
  const Outcome outcome =
      Convert("x.hex", "out.img", {"--layout", _folder.Write("frame.toml", blocks[1])});
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  DataVec word;
  word << ReferenceCrc(DataVec(firmware.begin() + 0x10, firmware.begin() + 0x3FC));
  std::copy(word.begin(), word.end(), firmware.begin() + 0x3FC);
  EXPECT_EQ(Sections("out.img"), (std::vector<std::pair<u_int32_t, DataVec>>{{0, firmware}}));
}

TEST_F(FwimgConvertTest, AnImageThatTheCheckWouldNotAcceptIsNotMade) {
  const std::vector<std::string> blocks = FencedBlocks(LAYOUT_DOCUMENT, "toml");
  ASSERT_EQ(blocks.size(), 2u);
  _folder.Write("in.img", ImageText({{0, DataVec(0x800, 0)}}));  // its boot record adds up to 0
  ASSERT_EQ(Convert("in.img", "x.hex").status, 0);
  const std::string refusal =
      Refusal("x.hex", "out.img", {"--layout", _folder.Write("frame.toml", blocks[1])});
  // The bytes have no line in the layout.
  EXPECT_THAT(refusal, testing::StartsWith("fwimg: frame.toml: "));
  EXPECT_THAT(refusal, testing::EndsWith(" [record-sum]\n"));
}

TEST_F(FwimgConvertTest, TheLayoutOfAConversionHasNoSections) {
  _folder.Write("x.hex", ":0400000001020304F2\n:00000001FF\n");
  _folder.Write(
      "frame.toml",
      "device_type = \"RV52100\"\n[[section]]\nname = \"A\"\nat = 0\nfill = 0\nsize = 4\n");
  EXPECT_EQ(Refusal("x.hex", "x.img", {"--layout", _folder / "frame.toml"}),
            "fwimg: frame.toml:2: no [[section]] here: the bytes come from the file that is "
            "converted\n");
}

TEST_F(FwimgConvertTest, WordsThatAreNotWholeAreFilledUpOnlyOnRequest) {
  // Three bytes at 0, whose word ends before the four at 5.
  _folder.Write("x.hex", ":03000000010203F7\n:0400050004050607E1\n:00000001FF\n");
  EXPECT_EQ(Refusal("x.hex", "x.img"),
            NO_LAYOUT +
                "fwimg: x.hex: the 3 bytes at 0x0 are not whole words of 4; --pad BYTE fills the "
                "last one up\n");
  ASSERT_EQ(Convert("x.hex", "x.img", {"--pad", "255"}).status, 0);
  EXPECT_EQ(Sections("x.img"), (std::vector<std::pair<u_int32_t, DataVec>>{{0, Hex("010203ff")},
                                                                           {5, Hex("04050607")}}));
}

TEST_F(FwimgConvertTest, APieceThatBeginsInsideTheLastWordOfAnotherBecomesAPartOfIt) {
  // A byte at 0, two at 2.
  _folder.Write("x.hex", ":0100000001FE\n:020002000203F7\n:00000001FF\n");
  ASSERT_EQ(Convert("x.hex", "x.img", {"--pad", "238"}).status, 0);
  EXPECT_EQ(Sections("x.img"), (std::vector<std::pair<u_int32_t, DataVec>>{{0, Hex("01ee0203")}}));
}

TEST_F(FwimgConvertTest, WhatWouldLoseBytesIsRefused) {
  // A wrong sum.
  _folder.Write("sum.hex", ":0400000001020304F3\n:00000001FF\n");
  EXPECT_EQ(
      Refusal("sum.hex", "x.img"),
      NO_LAYOUT + "fwimg: srec_cat failed\nsrec_cat: sum.hex: 1: checksum mismatch (01 != 00)\n");
  // Two values for one byte.
  _folder.Write("twice.hex", ":0400000001020304F2\n:0400020005060708E0\n:00000001FF\n");
  EXPECT_THAT(Refusal("twice.hex", "x.img"), testing::HasSubstr("multiple 0x00000002 values"));
  // Nothing at all.
  _folder.Write("empty.hex", ":00000001FF\n");
  EXPECT_THAT(Refusal("empty.hex", "x.img"), testing::HasSubstr("no data"));
  // Two files in one, of which only the first would be read.
  _folder.Write("two.hex", ":0400000001020304F2\n:00000001FF\n:0400100001020304E2\n:00000001FF\n");
  EXPECT_EQ(Refusal("two.hex", "x.img"),
            NO_LAYOUT + "fwimg: two.hex:3: data after the end record\n");
  _folder.Write("two.srec", "S107001001020304DE\nS9030000FC\nS107001001020304DE\nS9030000FC\n");
  EXPECT_EQ(Refusal("two.srec", "x.img"),
            NO_LAYOUT + "fwimg: two.srec:3: data after the end record\n");
  // No file.
  EXPECT_EQ(Refusal("none.hex", "x.img"),
            NO_LAYOUT + "fwimg: can't read none.hex: No such file or directory\n");
}

TEST_F(FwimgConvertTest, AFileWithoutItsEndIsRefusedUnlessTakenOnRequest) {
  for (const auto& [name, text] :
       {std::pair<std::string, std::string>{"cut.hex", ":0400000001020304F2\n"},
        {"cut.srec", "S107000001020304EE\n"}}) {
    SCOPED_TRACE(name);
    _folder.Write(name, text);
    EXPECT_THAT(Refusal(name, "x.img"), testing::EndsWith("\nuse --lax to accept the file\n"));
    const Outcome outcome = Convert(name, "lax.img", {"--lax"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(outcome.errors, testing::HasSubstr("warning: no "));
    EXPECT_EQ(Sections("lax.img"),
              (std::vector<std::pair<u_int32_t, DataVec>>{{0, Hex("01020304")}}));
  }
}

TEST_F(FwimgConvertTest, RecordsInAnyOrderAreTaken) {
  _folder.Write("x.hex", ":0400100005060708D2\n:0400000001020304F2\n:00000001FF\n");
  const Outcome outcome = Convert("x.hex", "x.img");
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Sections("x.img"), (std::vector<std::pair<u_int32_t, DataVec>>{
                                   {0, Hex("01020304")}, {0x10, Hex("05060708")}}));
}

TEST_F(FwimgConvertTest, TheFormatIsToldWhereTheNameDoesNot) {
  _folder.Write("a.img", "START A 10 0\n1 2 3 4\nEND A\n");
  EXPECT_EQ(Refusal("a.img", "a.txt"),
            "fwimg: a.txt: unknown file extension; add --format intel or --format motorola\n");
  ASSERT_EQ(Convert("a.img", "a.txt", {"--format", "intel"}).status, 0);
  EXPECT_EQ(Content("a.txt"), ":020000040000FA\n:0400100001020304E2\n:00000001FF\n");
}

TEST_F(FwimgConvertTest, AnImageThatRecordsCannotHoldIsRefused) {
  _folder.Write("over.img", "START A 0 0\n1 2 3 4 5 6 7 8\nEND A\nSTART B 4 0\n5 6 7 8\nEND B\n");
  EXPECT_EQ(Refusal("over.img", "x.hex"), "fwimg: the sections A and B overlap\n");
  _folder.Write("empty.img", "DEVICE_TYPE RV52100\nSTART A 0 0\nEND A\n");
  EXPECT_EQ(Refusal("empty.img", "x.hex"), "fwimg: the image has no bytes\n");
}

TEST_F(FwimgConvertTest, OneSideIsAnImage) {
  for (const auto& [from, to] :
       {std::pair<std::string, std::string>{"a.img", "b.img"}, {"a.hex", "b.srec"}}) {
    const Outcome outcome = Convert(from, to);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_THAT(outcome.errors,
                testing::HasSubstr("one of FROM and TO must be an image file (.img)"));
  }
  EXPECT_EQ(Convert("a.img", "b.hex", {"--pad", "0"}).status, 64);
  EXPECT_EQ(Convert("a.hex", "b.img", {"--pad", "256"}).status, 64);
}

// Without the program it needs.
TEST(FwimgWithoutSrecordTest, TheMissingProgramIsNamed) {
  const common::ScratchFolder folder;
  folder.Write("a.img", "START A 10 0\n1 2 3 4\nEND A\n");
  folder.Write("b.hex", ":0400000001020304F2\n:00000001FF\n");
  const std::string missing =
      "fwimg: srec_cat is needed for this and is not installed; Debian's package srecord has it\n";
  Outcome outcome = RunProgram({"/usr/bin/env", "PATH=/nonexistent", FWIMG_PROGRAM, "convert",
                                folder / "a.img", folder / "a.hex"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, missing);
  EXPECT_FALSE(fs::exists(folder / "a.hex"));
  outcome = RunProgram({"/usr/bin/env", "PATH=/nonexistent", FWIMG_PROGRAM, "convert",
                        folder / "b.hex", folder / "b.img"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, NO_LAYOUT + missing);
  EXPECT_FALSE(fs::exists(folder / "b.img"));
}

/// A record of `data`, whose bytes are counted, with its sum.
std::string HexRecord(u_int8_t type, u_int32_t offset, const DataVec& data) {
  DataVec record{static_cast<u_int8_t>(data.size()), static_cast<u_int8_t>(offset >> 8),
                 static_cast<u_int8_t>(offset), type};
  record << data;
  u_int8_t sum = 0;
  for (const u_int8_t byte : record) sum = static_cast<u_int8_t>(sum - byte);
  record << sum;
  std::string text = ":";
  for (const u_int8_t byte : record) {
    text += Text(std::hex, std::uppercase, std::setw(2), std::setfill('0'), u_int32_t{byte});
  }
  return text + "\n";
}

std::string SRecord(u_int32_t addr, const DataVec& data) {
  DataVec record{static_cast<u_int8_t>(data.size() + 5)};
  record << addr << data;
  u_int8_t sum = 0xFF;
  for (const u_int8_t byte : record) sum = static_cast<u_int8_t>(sum - byte);
  record << sum;
  std::string text = "S3";
  for (const u_int8_t byte : record) {
    text += Text(std::hex, std::uppercase, std::setw(2), std::setfill('0'), u_int32_t{byte});
  }
  return text + "\n";
}

TEST_F(FwimgConvertTest, RecordsPast4GiBAreRefusedWithTheirLine) {
  for (const u_int32_t size : {4u, 8u, 16u, 20u, 32u, 64u}) {
    SCOPED_TRACE(size);
    const DataVec data(size, 0x5A);
    _folder.Write("a.hex",
                  HexRecord(4, 0, {0xFF, 0xFF}) + HexRecord(0, 0xFFF0, data) + HexRecord(1, 0, {}));
    _folder.Write("a.srec", SRecord(0xFFFFFFF0, data) + "S70500000000FA\n");
    for (const auto& [name, line] : {std::pair("a.hex", 2), std::pair("a.srec", 1)}) {
      if (size <= 16) {
        EXPECT_EQ(Convert(name, "b.img").status, 0);
        EXPECT_EQ(Sections("b.img"),
                  (std::vector<std::pair<u_int32_t, DataVec>>{{0xFFFFFFF0, data}}));
        fs::remove(_folder / "b.img");
      } else {
        EXPECT_EQ(Refusal(name, "b.img"),
                  Text(NO_LAYOUT, "fwimg: ", name, ":", line,
                       ": the record goes on past 4 GiB, the last address of an image; cut or move "
                       "it, for example by srec_cat -crop or -offset\n"));
      }
    }
  }
}

}  // namespace
