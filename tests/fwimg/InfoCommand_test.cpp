// fwimg info and diff, run as their users do.
#include <nlohmann/json.hpp>

#include "device/Burn.h"
#include "device/DeviceType.h"
#include "device/ImageFile.h"
#include "src/BurnAlgorithm.h"
#include "src/main.h"
#include "tests/support/Harness.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

class FwimgTest : public ConsoleTest {
 protected:
  Outcome Run(std::vector<std::string> words) {
    words.insert(words.begin(), FWIMG_PROGRAM);
    return RunProgram(words);
  }
  std::string Info(const std::string& text) {
    const Outcome outcome = Run({"info", _folder.Write("fw.img", text)});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return outcome.output;
  }
  nlohmann::json InfoJson(const std::string& text) {
    const Outcome outcome = Run(
        {"info", "--json", "--sector-size", std::to_string(SECTOR), _folder.Write("fw.img", text)});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return nlohmann::json::parse(outcome.output);
  }
  Outcome Diff(const std::string& a, const std::string& b, bool as_json = false) {
    std::vector<std::string> words{"diff", _folder.Write("a.img", a), _folder.Write("b.img", b)};
    if (as_json) words.emplace_back("--json");
    return Run(words);
  }
  /// What a diff says below the names of the files.
  std::string Differences(const std::string& a, const std::string& b) {
    const Outcome outcome = Diff(a, b);
    EXPECT_EQ(outcome.status, 1) << outcome.errors;
    const std::string head = Text("a: ", _folder / "a.img", "\nb: ", _folder / "b.img", "\n");
    EXPECT_EQ(outcome.output.substr(0, head.size()), head);
    return outcome.output.substr(std::min(head.size(), outcome.output.size()));
  }

  common::ScratchFolder _folder;
};

class FwimgInfoTest : public FwimgTest {};
class FwimgDiffTest : public FwimgTest {};

std::string Bar(const std::string& label, const std::string& drawn) {
  return label + std::string(8 - label.size(), ' ') + drawn + "\n";
}

TEST_F(FwimgInfoTest, ADeviceTypeIsBurntAsFwpushBurnsIt) {
  for (const device::DeviceType& row : device::DeviceTypes()) {
    const std::string keyword(row.keyword);
    SCOPED_TRACE(keyword);
    const auto info = InfoJson("DEVICE_TYPE " + keyword + "\n");
    const DeviceType type = FwImage::Str2DeviceType(keyword);
    const auto memory = GetRomInterface(type, 0, false, false);
    const auto name = [&](bool is_failsafe) {
      return GetBurnAlgorithm(type, memory.get(), is_failsafe, false, false)->GetName();
    };
    EXPECT_EQ(info.at("burn"), name(true));
    EXPECT_EQ(info.at("burn_with_n"), name(false));
    const bool is_flash = dynamic_cast<const RemoteFlashInterface*>(memory.get()) != nullptr;
    EXPECT_EQ(info.at("memory"),
              is_flash ? "serial flash, one device a run" : "I2C EEPROM, many devices at once");
  }
}

TEST_F(FwimgInfoTest, AnEepromImageIsShownWhole) {
  // Two EEPROMs of 0x80 bytes, a slot in each. The map: 0xc0 bytes in 64 columns of 3.
  const std::string image =
      "DEVICE_TYPE RV61300\nMAJ_FW_VER 1\nMIN_FW_VER 8\nDEVMAP 80 50\nDEVMAP 80 51\n"
      "IMAGE 0 0 50\nIMAGE 1 0 51\nREPLACE GUID 18 50\nREPLACE GUID 18 51\n"
      "REPLACE CRC 10 50 24 50 30 50\nREPLACE CRC 10 51 24 51 30 51\n" +
      Section("A", 0, EepromData(0), "50");
  EXPECT_EQ(Info(image),
            (_folder / "fw.img") + R"(

device type  RV61300
firmware     1.8.?
memory       I2C EEPROM, many devices at once
burn         RV61300FailsafeBurn, with -n GenericBurn
slots        two, valid by their boot records
bytes        64 in 1 sections

Slot  Image     ends      Pointer sector  Signature
0     00000000  00000040  -               -
1     00000080  000000c0  -               -

Section                   Address   Dev:Offset   Size      Lies in
A                         00000000  50:00000000  00000040  slot 0

Device  Size      Addresses
0x50    00000080  00000000 to 00000080
0x51    00000080  00000080 to 00000100

Field      Address   Size  Section                   Lies in
GUID       00000018  8     A                         slot 0
GUID       00000098  8     -                         slot 1

CRC at    covers                Lies in           Fields covered
00000030  00000010 to 00000028  slot 0            GUID
000000b0  00000090 to 000000a8  slot 1            GUID

Map, 0x0 to 0xc0, a column is 0x3 bytes (X: overlap)
)" + Bar("A", std::string(22, '#') + std::string(42, '.')) +
                Bar("all", std::string(22, '#') + std::string(42, '.')) +
                Bar("slot 0", std::string(22, '0') + std::string(42, '.')) +
                Bar("slot 1", std::string(42, '.') + std::string(22, '1')) +
                // 0x00..0x40 is columns 0 to 21, 0x80..0xc0 columns 42 to 63
                Bar("both", std::string(22, '=') + std::string(20, '.') + std::string(22, '=')) +
                // 0x18..0x20: columns 8 to 10; 0x98..0xa0: 50 to 53
                Bar("fields", std::string(8, '.') + "fff" + std::string(39, '.') + "ffff" +
                                  std::string(10, '.')) +
                // 0x10..0x28: columns 5 to 13; 0x90..0xa8: 48 to 55
                Bar("CRCs", std::string(5, '.') + std::string(9, 'c') + std::string(34, '.') +
                                std::string(8, 'c') + std::string(8, '.')));
}

TEST_F(FwimgInfoTest, TheMapShowsGapsAndOverlaps) {
  // 0x40 bytes in as many columns.
  const std::string map = Info("DEVICE_TYPE RV61100\n" + Section("LONGNAMED", 0, DataVec(0x20)) +
                               Section("B", 0x18, DataVec(0x10)) + Section("C", 0x3c, DataVec(4)));
  const std::string expected =
      "\nMap, 0x0 to 0x40, a column is 0x1 bytes (X: overlap)\n" +
      Bar("LONGNAM", std::string(32, '#') + std::string(32, '.')) +
      Bar("B", std::string(24, '.') + std::string(16, '#') + std::string(24, '.')) +
      Bar("C", std::string(60, '.') + std::string(4, '#')) +
      Bar("all", std::string(24, '#') + std::string(8, 'X') + std::string(8, '#') +
                     std::string(20, '.') + std::string(4, '#'));
  EXPECT_EQ(map.substr(map.find("\nMap")), expected);
}

TEST_F(FwimgInfoTest, JsonTellsAFlashImage) {
  const auto json = InfoJson(FlashImage{}.Text() + "REPLACE GUID c10 0\n");
  EXPECT_EQ(json.at("version"), 1);
  EXPECT_EQ(json.at("device_type"), "RV52100");
  EXPECT_EQ(json.at("firmware"), nullptr);
  EXPECT_EQ(json.at("burn"), "RV52100FailsafeBurn");
  EXPECT_EQ(json.at("burn_with_n"), "GenericBurn");
  EXPECT_EQ(json.at("bytes"), 0x40 + 264 + 264 + 0x20);
  EXPECT_EQ(
      json.at("slots")[1],
      (nlohmann::json{
          {"image", IMAGE1}, {"size", 0x20}, {"pointer_sector", PS1}, {"signature", PS1 + 8}}));
  EXPECT_EQ(json.at("sections").size(), 4u);
  EXPECT_EQ(json["sections"][0].at("lies_in"), "invariant sector");
  EXPECT_EQ(json["sections"][1].at("lies_in"), "pointer sector 0");
  EXPECT_EQ(json["sections"][2].at("lies_in"), "pointer sector 1");
  EXPECT_EQ(json["sections"][3], (nlohmann::json{{"name", "FIRMWARE"},
                                                 {"address", IMAGE0},
                                                 {"device", 0},
                                                 {"offset", IMAGE0},
                                                 {"size", 0x20},
                                                 {"line", 54},
                                                 {"lies_in", "slot 0"}}));
  EXPECT_EQ(json.at("devices").size(), 0u);
  EXPECT_EQ(json.at("fields").size(), 3u);
  EXPECT_EQ(json["fields"][2], (nlohmann::json{{"type", "GUID"},
                                               {"address", 0xC10},
                                               {"size", 8},
                                               {"line", 58},
                                               {"section", "FIRMWARE"},
                                               {"lies_in", "slot 0"},
                                               {"replaced", true}}));
  EXPECT_EQ(json.at("crcs")[0],
            (nlohmann::json{{"address", PS0 + 260},
                            {"from", PS0},
                            {"size", 260},
                            {"line", 8},
                            {"lies_in", "pointer sector 0"},
                            {"fields", {{{"type", "SIGNATURE"}, {"address", PS0 + 8}}}}}));
}

TEST_F(FwimgInfoTest, AnUnknownDeviceTypeIsShownAsSuch) {
  const auto json = InfoJson("DEVICE_TYPE RV1\n" + Section("A", 0, DataVec(4)));
  EXPECT_EQ(json.at("device_type"), "RV1");
  EXPECT_EQ(json.at("burn"), nullptr);
  EXPECT_EQ(json.at("memory"), "unknown: fwpush cannot burn this device type");
}

TEST_F(FwimgInfoTest, AFieldThatAGenericBurnLeavesIsShownAsSuch) {
  const std::string image = "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x100)) +
                            "REPLACE VSD 0 0\nREPLACE GUID d8 0\n";
  EXPECT_THAT(Info(image),
              testing::HasSubstr("VSD        00000000  208   A                         "
                                 "-, not replaced\n"
                                 "GUID       000000d8  8     A                         "
                                 "-\n"));
  const auto json = InfoJson(image);
  EXPECT_EQ(json.at("fields")[0].at("replaced"), false);
  EXPECT_EQ(json.at("fields")[1].at("replaced"), true);
}

TEST_F(FwimgInfoTest, AFileThatIsNoImageIsCalledSo) {
  for (const char* text : {"", "# nothing\n", "It was a dark night\nEND\n01 02 03 04\n"}) {
    SCOPED_TRACE(text);
    const std::string path = _folder.Write("fw.img", text);
    const std::string error =
        "fwimg: " + path + ": no image: the file has no directive and no section\n";
    for (const auto& words :
         {std::vector<std::string>{"info", path}, {"info", "--json", path}, {"diff", path, path}}) {
      const Outcome outcome = Run(words);
      EXPECT_EQ(outcome.status, 2);
      EXPECT_EQ(outcome.output, "");
      EXPECT_EQ(outcome.errors, error);
    }
  }
  EXPECT_EQ(Run({"info", _folder.Write("fw.img", "MAJ_FW_VER 1\n")}).status, 0);
}

TEST_F(FwimgInfoTest, WhatTheLoaderRefusesEndsWithTwoAndItsWords) {
  const std::string path = _folder.Write("fw.img", "START A 0 0\n0 1 2\n");
  const Outcome outcome = Run({"info", path});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors,
            "fwimg: " + path + ":2: Section data line must have multiple of 4 bytes.\n");
  EXPECT_EQ(Run({"diff", path, path}).status, 2);
  EXPECT_EQ(Run({"info", _folder / "missing.img"}).status, 2);
  EXPECT_EQ(Run({"info"}).status, 64);
}

TEST_F(FwimgDiffTest, OtherWordsForTheSameAreNoDifference) {
  const std::string a =
      "DEVICE_TYPE RV52400\nREPLACE GUID 4 0\nREPLACE SYSGUID c 0\nSTART A 0 0\n"
      "0 1 2 3 4 5 6 7\nEND A\n";
  const std::string b =
      "# another text\nREPLACE SYSGUID 0xC 0\nREPLACE GUID 04 00\nDEVICE_TYPE RV52410\n"
      "START A 0 0\n00 01 02 03\n\n  0x4 5 6 7\nEND A\nFROBNICATE\n";
  const Outcome outcome = Diff(a, b);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, Text("a: ", _folder / "a.img", "\nb: ", _folder / "b.img",
                                 "\nBurning either leaves the same bytes.\n"));
}

TEST_F(FwimgDiffTest, BytesAreToldInRanges) {
  DataVec a(0x40);
  DataVec b(0x40);
  b[4] = 0x11;
  b[8] = 0x22;   // three equal bytes between: one range
  b[13] = 0x33;  // four: another one
  b[0x3f] = 0x44;
  EXPECT_EQ(Differences(Section("A", 0x100, a), Section("A", 0x100, b)),
            "bytes 0x104 to 0x109 of A: 0000000000 / 1100000022\n"
            "bytes 0x10d to 0x10e of A: 00 / 33\n"
            "bytes 0x13f to 0x140 of A: 00 / 44\n");
}

TEST_F(FwimgDiffTest, ManyRangesAreToldInPartButWholeInJson) {
  DataVec a(0x100);
  DataVec b(0x100);
  for (std::size_t at = 0; at < 0x100; at += 8) b[at] = b[at + 1] = 1;  // 32 ranges of 2 bytes
  const std::string text = Differences(Section("A", 0, a), Section("A", 0, b));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 17);
  EXPECT_TRUE(text.ends_with("  and 32 bytes in 16 more ranges of section A\n")) << text;
  const auto json =
      nlohmann::json::parse(Diff(Section("A", 0, a), Section("A", 0, b), true).output);
  EXPECT_FALSE(json.at("same"));
  ASSERT_EQ(json.at("differences").size(), 32u);
  EXPECT_EQ(json["differences"][31], (nlohmann::json{{"what", "bytes"},
                                                     {"section", "A"},
                                                     {"address", 0xF8},
                                                     {"size", 2},
                                                     {"a", "0000"},
                                                     {"b", "0101"}}));
}

TEST_F(FwimgDiffTest, DifferencesOfEveryByteNeedNoMemoryOfTheirOwn) {
  if (IS_SANITIZED) GTEST_SKIP() << "this build's memory has no bound";
  // 100,000 ranges of one byte: kept as text they would take 70 MB, as JSON 200 MB.
  std::string a = "START A 0 0\n";
  std::string b = a;
  for (int i = 0; i < 100000; ++i) {
    a += "0 0 0 0 0 0 0 0\n";
    b += "1 0 0 0 0 0 0 0\n";
  }
  const std::string path_a = _folder.Write("a.img", a + "END A\n");
  const std::string path_b = _folder.Write("b.img", b + "END A\n");
  for (const char* option : {"", "--json"}) {
    SCOPED_TRACE(option);
    const Outcome outcome =
        RunProgram({"/bin/sh", "-c",
                    Text("ulimit -v 40000; exec '" FWIMG_PROGRAM "' diff ", option, " '", path_a,
                         "' '", path_b, "' | tail -c 300; exit $?")});
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(outcome.output,
                testing::HasSubstr(*option == 0 ? "and 99984 bytes in 99984 more ranges"
                                                : "\"address\":799992"));
  }
}

TEST_F(FwimgDiffTest, TheSameIsAnEmptyListInJson) {
  const std::string image = Section("A", 0, DataVec(4));
  const Outcome outcome = Diff(image, image, true);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(nlohmann::json::parse(outcome.output),
            (nlohmann::json{{"version", 1},
                            {"command", "diff"},
                            {"a", _folder / "a.img"},
                            {"b", _folder / "b.img"},
                            {"same", true},
                            {"differences", nlohmann::json::array()}}));
}

TEST_F(FwimgDiffTest, EverythingElseIsToldToo) {
  const std::string a =
      "DEVICE_TYPE RV61300\nMAJ_FW_VER 1\nIMAGE 0 0 0\nIMAGE 1 80 0\nREPLACE GUID 10 0\n"
      "REPLACE CRC 0 0 4 0 8 0\n" +
      Section("A", 0, DataVec(0x20)) + Section("ONLY", 0x40, DataVec(4)) +
      Section("B", 0x60, DataVec(4)) + Section("C", 0x70, DataVec(4));
  const std::string b =
      "DEVICE_TYPE RV61100\nMAJ_FW_VER 2\nDEVMAP 100 0\nIMAGE 0 0 0\nPS 1 80 0\n"
      "REPLACE GUIDS 10 0\nREPLACE CRC 0 0 4 0 c 0\n" +
      Section("C", 0x70, DataVec(4)) + Section("NAMED", 0, DataVec(0x24)) +
      Section("B", 0x60, DataVec(4)) + Section("NEW", 0x50, DataVec(4));
  EXPECT_EQ(Differences(a, b),
            "device type: RV61300 / RV61100\n"
            "firmware version: 1.?.? / 2.?.?\n"
            "device map: none / 0x0:0x100\n"
            "IMAGE 1: 0x80 / none\n"
            "PS 1: none / 0x80\n"
            "name of the section at 0x0: A / NAMED\n"
            "size of section A at 0x0, 32 bytes: 36 in b\n"
            "only in a: section ONLY at 0x40, 4 bytes\n"
            "only in b: section NEW at 0x50, 4 bytes\n"
            "order: the sections are burnt in another order\n"
            "only in a: GUID at 0x10\n"
            "only in b: GUIDS at 0x10\n"
            "only in a: CRC at 0x8 over 0x0 to 0x8\n"
            "only in b: CRC at 0xc over 0x0 to 0x8\n");
}

TEST_F(FwimgDiffTest, AByteThatIsChangedAnywhereIsFoundWhereItIs) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    const DataVec a = RandomBytes(rng, 0x400);
    DataVec b = a;
    const std::size_t at = rng() % b.size();
    b[at] ^= static_cast<u_int8_t>(1 + rng() % 255);
    const auto json =
        nlohmann::json::parse(Diff(Section("A", 0x1000, a), Section("A", 0x1000, b), true).output);
    ASSERT_EQ(json.at("differences").size(), 1u);
    EXPECT_EQ(json["differences"][0].at("address"), 0x1000 + at);
    EXPECT_EQ(Hex(json["differences"][0].at("a").get<std::string>()), DataVec{a[at]});
    EXPECT_EQ(Hex(json["differences"][0].at("b").get<std::string>()), DataVec{b[at]});
  }
}

TEST_F(FwimgDiffTest, ASecondSectionAtOneAddressIsToldWithWhatItsBurnLeaves) {
  // The first slot's section stands again behind the second's: it is burnt into both slots twice,
  // and the section between them is moved along.
  const std::string a = EepromImage(1) + Section("END", 0x100, DataVec(4, 9));
  const std::string b =
      a + Section("AGAIN", 0, DataVec(4, 5)) + Section("AGAIN", 0x100, DataVec(4));
  EXPECT_EQ(Differences(a, b),
            "only in b: section AGAIN at 0x0, 4 bytes: another one there, whose bytes are dropped; "
            "those of A are burnt again\n"
            "only in b: section AGAIN at 0x100, 4 bytes: another one there, whose bytes are "
            "dropped; those of END are burnt again\n"
            "order: the sections are burnt in another order\n");
  EXPECT_EQ(Diff(a, b + "# none\n").status, 1);
  EXPECT_EQ(Diff(b, b).status, 0);
}

TEST_F(FwimgDiffTest, WhereARepeatedSectionIsBurntIsToldForEachBurn) {
  // A pointer sector that stands again behind the firmware is burnt as a part of the image.
  const std::string a = FlashImage{}.Text();
  const std::string b = a + Section("PS0", PS0, DataVec(4, 5));
  const Outcome outcome = Run({"diff", "--json", "--sector-size", "0x400",
                               _folder.Write("a.img", a), _folder.Write("b.img", b)});
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  const auto json = nlohmann::json::parse(outcome.output);
  std::map<std::string, std::set<u_int32_t>> burnt;
  for (const auto& difference : json.at("differences")) {
    if (difference.at("what") != "burnt") continue;
    burnt[difference.at("burn")].insert(difference.at("address").get<u_int32_t>());
  }
  // Where the first slot gets it is where it stands: only its signature is no more.
  EXPECT_FALSE(burnt.contains("a burn of slot 0"));
  // In the second slot it lands where the second pointer sector's neighbour is.
  EXPECT_FALSE(burnt["a burn of slot 1"].empty());
  for (const u_int32_t addr : burnt["a burn of slot 1"]) {
    EXPECT_GE(addr, PS0 + IMAGE1 - IMAGE0);
    EXPECT_LT(addr, PS0 + IMAGE1 - IMAGE0 + SECTOR);
  }
}

TEST_F(FwimgDiffTest, FieldsOnEachOtherMustStandInTheSameOrder) {
  const std::string image = "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40));
  const std::string guid = "REPLACE GUID 4 0\n";
  const std::string system = "REPLACE SYSGUID 8 0\n";
  const std::string apart = "REPLACE GUID 20 0\n";
  EXPECT_EQ(Diff(image + guid + system + apart, image + apart + guid + system).status, 0);
  EXPECT_EQ(Differences(image + guid + system + apart, image + system + guid + apart),
            "order: fields that lie on each other are written in another order\n"
            "bytes 0x8 to 0xc after a burn: 7c838a91 / 7980878e\n");
}

/// A device before a burn: random bytes, and where the image has slots one of them valid.
device::Memory SomeMemory(TestRng& rng, const device::Image& image,
                          const device::Identity& identity, u_int32_t slot) {
  device::Memory memory{RandomBytes(rng, 0x3000), image.IsFlash() ? SECTOR : 0};
  const device::Burn burn(image, device::BurnKind::FAILSAFE, identity);
  if (burn.Slots() == device::SlotKind::NONE) return memory;
  try {
    burn.Fill(memory, {.slot = slot});
  } catch (const device::BurnError&) {
    // Such a memory is as good as any other.
  }
  return memory;
}

/// Burns the image of a file into a device of the fabric, with the burner's own code. Returns why
/// that failed; "" where it did not.
template <typename Rom>
std::string BurnReally(sim::Fabric& fabric, Guid guid, const std::string& file,
                       device::BurnKind kind) {
  std::string reason;
  OutputOf([&] {
    reason = ErrorOf([&] {
      FwImage image;
      image.Open(file.c_str(), READ);
      Rom rom(fabric, 5);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices({guid});
      rom.Open(rom.ServerString().c_str());
      const bool is_plain = kind == device::BurnKind::PLAIN;
      GetBurnAlgorithm(image.DevType(), &rom, is_plain, true, false)->Go(image);
    });
  });
  return reason == "(no error)" ? "" : reason;
}

/// What the burner leaves in a device that holds `before`, and why it failed.
std::pair<DataVec, std::string> AfterRealBurn(const std::string& file, device::BurnKind kind,
                                              const DataVec& before, bool is_flash) {
  constexpr Guid DEVICE = 0x10;
  const auto size = static_cast<u_int32_t>(before.size());
  sim::Fabric fabric;
  if (is_flash) {
    fabric.Add(FlashDevice(DEVICE, size, SECTOR));
  } else {
    sim::Device device = I2cDevice(DEVICE, 0);
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(size), 0));
    fabric.Add(std::move(device));
  }
  fabric.Find(DEVICE)->chips.at(0).Load(0, before);
  const std::string reason = is_flash ? BurnReally<InProcessFlash>(fabric, DEVICE, file, kind)
                                      : BurnReally<InProcessI2c>(fabric, DEVICE, file, kind);
  return {MemoryOf(fabric, DEVICE, 0, 0, size), reason};
}

TEST_F(FwimgDiffTest, WhatIsCalledTheSameLeavesTheSameAfterEveryBurn) {
  unsigned same = 0;
  unsigned burnt = 0;
  unsigned other = 0;
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    const std::string base = rng() % 3 == 0 ? FlashImage{}.Text()
                             : rng() % 2 == 0
                                 ? EepromImage(3) + Section("REST", 0x40, DataVec(0x20, 7))
                                 : "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40, 3));
    const u_int32_t from = base.find("RV52100") != std::string::npos ? IMAGE0 : 0x10;
    const u_int32_t range = from == IMAGE0 ? 0x18 : 0x28;
    std::vector<std::string> marks;
    for (unsigned i = 0; i < rng() % 5; ++i) {
      const auto at = from + 4 * static_cast<u_int32_t>(rng() % (range / 4));
      constexpr auto KINDS = std::to_array<const char*>({"GUID", "SYSGUID", "SIGNATURE"});
      marks.push_back(rng() % 3 == 0
                          ? Text("REPLACE CRC ", std::hex, from, " 0 ", from + 4, " 0 ", at, " 0\n")
                          : Text("REPLACE ", KINDS.at(rng() % 3), " ", std::hex, at, " 0\n"));
    }
    const auto text_of = [&base, &marks](const std::string& more) {
      std::string text = base;
      for (const std::string& mark : marks) text += mark;
      return text + more;
    };
    const std::string a = text_of("");
    std::ranges::shuffle(marks, rng);
    std::string more;
    if (rng() % 3 == 0) {
      const device::Image image = device::ParseImage(a, "a");
      const auto& section = image.sections.at(rng() % image.sections.size());
      more = Section("AGAIN", section.addr, RandomBytes(rng, 4));
    }
    std::string b = text_of(more);
    if (rng() % 4 == 0)
      b[b.find(" 3 ") == std::string::npos ? b.find(" 11 ") + 1 : b.find(" 3 ") + 1] = '2';
    const Outcome outcome = Diff(a, b);
    if (outcome.status == 1) {
      ++other;
      continue;
    }
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    ++same;
    const device::Image image_a = device::ParseImage(a, "a");
    const device::Image image_b = device::ParseImage(b, "b");
    const device::Identity identity{.node = rng(),
                                    .ports = {rng(), rng()},
                                    .system = rng(),
                                    .declared_ports = 2,
                                    .vsd = RandomBytes(rng, 208),
                                    .bsn = RandomBytes(rng, 64)};
    for (const auto kind : {device::BurnKind::PLAIN, device::BurnKind::FAILSAFE}) {
      for (const u_int32_t slot : {0u, 1u}) {
        const device::Memory before = SomeMemory(rng, image_a, identity, slot);
        const auto after_a = device::Burn(image_a, kind, identity).After(before);
        const auto after_b = device::Burn(image_b, kind, identity).After(before);
        EXPECT_EQ(after_a.refusal.empty(), after_b.refusal.empty()) << after_a.refusal;
        EXPECT_EQ(after_a.memory.bytes, after_b.memory.bytes) << a << "\n---\n" << b;
        // The judge might be as wrong as the comparison, which asks it: the burner itself, too.
        const auto [really_a, why_a] =
            AfterRealBurn(_folder / "a.img", kind, before.bytes, image_a.IsFlash());
        const auto [really_b, why_b] =
            AfterRealBurn(_folder / "b.img", kind, before.bytes, image_b.IsFlash());
        EXPECT_EQ(why_a.empty(), why_b.empty()) << why_a << why_b << a << "\n---\n" << b;
        if (!why_a.empty()) continue;
        EXPECT_EQ(really_a, really_b) << a << "\n---\n" << b;
        if (really_a != before.bytes) ++burnt;
      }
    }
  }
  EXPECT_GT(same, 50u);
  EXPECT_GT(other, 50u);
  EXPECT_GT(burnt, 50u);
}

/// Each image with CRLF line ends: what fwpush refuses because of them is told by their name.
TEST_F(FwimgInfoTest, LineEndsAreNamedWhereTheyKeepAFileFromBeingRead) {
  const std::string good = "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40, 0x11));
  const std::string good_file = _folder.Write("good.img", good);
  const auto with_crlf = [](const std::string& text) {
    std::string changed;
    for (const char c : text) changed += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return changed;
  };
  for (const std::string& text :
       {good, FlashImage{}.Text(), EepromImage(3), std::string("DEVICE_TYPE RV61100\n"),
        "# a comment\n\n" + good, good + "REPLACE GUID 0 0\n"}) {
    SCOPED_TRACE(text);
    const std::string file = _folder.Write("crlf.img", with_crlf(text));
    const std::string told =
        "fwimg: " + file +
        ": lines end with a carriage return and a line feed (CRLF), not with a line feed alone; "
        "convert the file with dos2unix or sed -i 's/\\r$//'\n";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"info", file},
             {"info", "--json", file},
             {"diff", file, good_file},
             {"diff", good_file, file},
             {"extract", file, "--section", "A", "-o", _folder / "a.bin"},
             {"convert", file, _folder / "a.hex"}}) {
      const Outcome outcome = Run(words);
      EXPECT_EQ(outcome.status, 2) << words[0];
      EXPECT_EQ(outcome.output, "");
      EXPECT_EQ(outcome.errors, told) << words[0];
    }
  }
  // What is refused without the carriage returns, too, has the words of the loader.
  const std::string other = _folder.Write("other.img", "DEVICE_TYPE RV61100\nSTART A zz 0\r\n");
  const Outcome outcome = Run({"info", other});
  EXPECT_EQ(outcome.errors.find("CRLF"), std::string::npos) << outcome.errors;
  // Where they do no harm, nothing is said.
  EXPECT_EQ(Run({"info", _folder.Write("fine.img", good + "# a comment\r\n")}).status, 0);
}

class FwimgNamesTest : public FwimgTest {
 protected:
  /// What a shell in the folder says of a command of fwimg.
  Outcome InFolder(const std::string& words, const std::string& before = "") {
    return RunProgram(
        {"/bin/sh", "-c",
         "cd '" + _folder.Path().string() + "' && " + before + " '" FWIMG_PROGRAM "' " + words});
  }
};

TEST_F(FwimgNamesTest, NamesMayBeginWithADash) {
  const std::string image = "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40));
  _folder.Write("-x.img", image);
  _folder.Write(
      "-l.toml",
      "device_type = \"RV61100\"\n[[section]]\nname = \"A\"\nat = 0\nfill = 0\nsize = 64\n");
  _folder.Write("-n.toml", "device_type = \"RV61100\"\n");
  _folder.Write("-f.toml",
                "[[device]]\nnode_guid = \"0x10\"\nport_guids = [\"0x11\"]\n"
                "chip = [{ address = 0, size = 0x100 }]\n");
  for (const char* words :
       {"info -- -x.img", "info ./-x.img", "check -- -x.img", "check ./-x.img",
        "check --fabric -f.toml -- -x.img", "check --fabric=-f.toml ./-x.img",
        "diff -- -x.img -x.img", "diff ./-x.img ./-x.img", "make -o -y.img -- -l.toml",
        "make --output=-y.img ./-l.toml", "make --output -y.img --parts -d -- -l.toml",
        "extract --section A -o -a.bin -- -x.img", "extract --section A --output=-a.bin ./-x.img",
        "extract --all -d -- -x.img", "extract --all=-d ./-x.img"}) {
    const Outcome outcome = InFolder(words);
    EXPECT_EQ(outcome.status, 0) << words << "\n" << outcome.errors;
  }
  EXPECT_EQ(ReadText(_folder / "-a.bin"), std::string(0x40, '\0'));
  EXPECT_EQ(ReadText(_folder / "-d/A.bin"), std::string(0x40, '\0'));
  EXPECT_EQ(InFolder("diff -- -x.img -y.img").status, 0);
  if (RunProgram({"/usr/bin/env", "srec_cat", "-version"}).status != 0) return;
  for (const char* words :
       {"convert -- -x.img -x.hex", "convert --layout -n.toml -- -x.hex -z.img",
        "convert ./-x.img ./-x.srec", "convert --layout=-n.toml ./-x.srec ./-z.img"}) {
    const Outcome outcome = InFolder(words);
    EXPECT_EQ(outcome.status, 0) << words << "\n" << outcome.errors;
  }
  EXPECT_EQ(InFolder("diff -- -x.img -z.img").status, 1);  // by the section's name only
}

TEST_F(FwimgNamesTest, NamesThatCannotBeUsedAreToldWithTheReason) {
  const std::string image = "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(0x40));
  _folder.Write("x.img", image);
  _folder.Write("n.toml", "device_type = \"RV61100\"\n");
  const std::string longest(300, 'n');
  for (const std::string& name :
       {std::string("''"), longest, std::string("x.img/child"), std::string("none/child"),
        std::string("."), std::string("x.img/")}) {
    for (const std::string& words :
         {"info " + name, "check " + name, "check --fabric " + name + " x.img",
          "diff x.img " + name, "make " + name + " -o y.img", "make n.toml -o " + name,
          "extract x.img --section A -o " + name, "extract x.img --all " + name,
          "convert x.img " + name + " --format intel", "convert " + name + " y.img --format intel",
          "convert --layout " + name + " n.hex y.img"}) {
      const Outcome outcome = InFolder(words);
      EXPECT_EQ(outcome.errors.find("filesystem error"), std::string::npos) << outcome.errors;
      if (outcome.status != 0) {
        EXPECT_NE(outcome.errors, "") << words;
      }
    }
  }
  const Outcome folder = InFolder("extract x.img --all x.img/child");
  EXPECT_EQ(folder.status, 2);
  EXPECT_EQ(folder.errors, "fwimg: can't make the folder \"x.img/child\": Not a directory\n");
  const Outcome temporary = InFolder("convert x.img y.hex", "TMPDIR=/nowhere");
  EXPECT_EQ(temporary.status, 2);
  EXPECT_EQ(temporary.errors, "fwimg: can't make files in TMPDIR: No such file or directory\n");
}

TEST_F(FwimgNamesTest, NamesInUtf8AreShownAsTheyAre) {
  _folder.Write(
      "gr\xc3\xb6\xc3\x9f"
      "e.img",
      "DEVICE_TYPE RV61100\n" + Section("T\xc3\xbcr\xff", 0, DataVec(2)));
  EXPECT_THAT(InFolder("check gr\xc3\xb6\xc3\x9f"
                       "e.img")
                  .output,
              testing::HasSubstr("gr\xc3\xb6\xc3\x9f"
                                 "e.img: "));
  _folder.Write("a.img", "DEVICE_TYPE RV61100\n" + Section("T\xc3\xbcr\xff", 0, DataVec(4)));
  EXPECT_THAT(InFolder("info a.img").output, testing::HasSubstr("T\xc3\xbcr\\xff"));
}

}  // namespace
