// What fwpush-verify says of devices, in every state, and that it only ever reads.
#include "verify/Verify.h"

#include <sys/resource.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "protocol/Server.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/Harness.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

using verify::DeviceFinding;
using verify::SlotChoice;

class VerifyTest : public ConsoleTest {
 protected:
  static sim::Device Eeprom(Guid guid) {
    sim::Device device = I2cDevice(guid, 0);
    device.bsn = DataVec(sim::BSN_SIZE, static_cast<u_int8_t>(guid));
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(0x100), 0));
    return device;
  }

  std::string File(const std::string& text, const std::string& name = "fw.img") {
    return _folder.Write(name, text);
  }

  /// Burns as fwpush does by default, into all devices.
  template <typename Rom, typename Algorithm>
  void Burn(const std::string& file, const GuidSet& guids, const auto&... flags) {
    OutputOf([&] {
      FwImage image;
      image.Open(file.c_str(), READ);
      Rom rom(_fabric, 5);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices(guids);
      rom.Open("IB:host:1");
      Algorithm(rom, flags...).Go(image);
    });
  }

  DeviceFinding Verify(const std::string& file, Guid guid, SlotChoice choice = SlotChoice::AUTO,
                       const std::optional<std::string>& save = {}) {
    protocol::ServerThread server(_fabric);
    verify::Verifier verifier(file, server.ServerString(), choice, save);
    DeviceFinding finding;
    EXPECT_EQ(OutputOf([&] { finding = verifier.Verify(guid); }), "");
    for (const std::string& request : server.Requests()) {
      EXPECT_TRUE(std::regex_search(
          request,
          std::regex("^(vsMultiMaxGet$|IfcVersion$|NsGetDeviceByType |vs(Flash|I2c)ReadMulti "
                     "|vsFlashGetAttrMulti |vsGetVsdMulti |crBSNGet )")))
          << request;
    }
    return finding;
  }

  void Poke(Guid guid, u_int32_t offset, const DataVec& bytes) {
    _fabric.Find(guid)->chips.at(0).Load(offset, bytes);
  }

  common::ScratchFolder _folder;
  sim::Fabric _fabric;
};

class FlashVerifyTest : public VerifyTest {
 protected:
  FlashVerifyTest() {
    _fabric.Add(FlashDevice(0x10, FLASH_SIZE, SECTOR));
    _new = File(FlashImage{.content = 0x22}.Text());
  }
  void Fill(u_int32_t slot) {
    sim::FillFromFile(_fabric, 0x10, File(FlashImage().Text(), "old.img"), {.slot = slot});
  }
  std::string _new;
};

TEST_F(FlashVerifyTest, FailsafeBurnIsFoundInItsSlot) {
  Fill(0);
  Burn<InProcessFlash, RV52100FailsafeBurn>(_new, {0x10}, true, false);
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{1});
  EXPECT_EQ(finding.slots, std::vector<u_int32_t>{1});
  EXPECT_EQ(finding.compared, 0x40u + 264 + 0x20);  // invariant sector, pointer sector, firmware
}

TEST_F(FlashVerifyTest, OldImageDiffersByteByByte) {
  Fill(0);
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(finding.slots, std::vector<u_int32_t>{0});
  EXPECT_EQ(finding.different, 0x20u);
  ASSERT_EQ(finding.differences.size(), 10u);
  EXPECT_EQ(finding.differences[3].section, "FIRMWARE");
  EXPECT_EQ(finding.differences[3].offset, 3u);
  EXPECT_EQ(finding.differences[3].addr, IMAGE0 + 3);
  EXPECT_EQ(finding.differences[3].expected, 0x22);
  EXPECT_EQ(finding.differences[3].found, 0x11);
}

TEST_F(FlashVerifyTest, OneBitIsFoundAnywhere) {
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 1});
  ASSERT_EQ(Verify(_new, 0x10).state, DeviceFinding::IDENTICAL);
  for (const u_int32_t addr : {0u, 0x3Fu, PS1 + 200, PS1 + 263, IMAGE1, IMAGE1 + 0x1F}) {
    SCOPED_TRACE(addr);
    const DataVec whole = MemoryOf(_fabric, 0x10, 0, addr, 1);
    Poke(0x10, addr, {static_cast<u_int8_t>(whole[0] ^ 0x10)});
    const DeviceFinding finding = Verify(_new, 0x10, SlotChoice::SECOND);
    EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
    EXPECT_EQ(finding.different, 1u);
    ASSERT_EQ(finding.differences.size(), 1u);
    EXPECT_EQ(finding.differences[0].addr, addr);
    Poke(0x10, addr, whole);
  }
}

TEST_F(FlashVerifyTest, DeviceWithoutAValidSlotIsNotIdentical) {
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(finding.reason, "no slot is marked valid");
  EXPECT_EQ(finding.Boots(), std::nullopt);
  EXPECT_EQ(Verify(_new, 0x10, SlotChoice::FIRST).state, DeviceFinding::DIFFERENT);
}

TEST_F(FlashVerifyTest, BurnThatIsNotFailsafeIsFoundWhereTheSectionsStand) {
  // The pointer sectors' CRC words are computed anew, and the signatures stay the image's.
  Burn<InProcessFlash, GenericBurn>(_new, {0x10});
  const DeviceFinding finding = Verify(_new, 0x10, SlotChoice::NONE);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.compared, 0x40u + 2 * 264 + 0x20);
}

TEST_F(FlashVerifyTest, SignedSlotIsComparedThoughItsRecordIsDamaged) {
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 0});
  Poke(0x10, PS0 + 200, {0x5B});  // was 5A
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{});
  EXPECT_EQ(finding.slots, std::vector<u_int32_t>{0});
  EXPECT_EQ(finding.reason, "no slot is marked valid");
  ASSERT_EQ(finding.differences.size(), 1u);
  EXPECT_EQ(finding.differences[0].addr, PS0 + 200);
}

TEST_F(FlashVerifyTest, InvariantSectorOfTwoValidSlotsCountsOnce) {
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 0});
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 1});
  // The second burn rewrote the invariant sector, and left the first slot alone.
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.valid_slots, (std::vector<u_int32_t>{0, 1}));
  EXPECT_EQ(finding.compared, 0x40u + 2 * (264 + 0x20));
  EXPECT_EQ(finding.Boots(), 0u);
}

TEST_F(FlashVerifyTest, InvariantSectorThatIsAsInTheImageIsKeptWithoutItsFields) {
  const std::string file = File("REPLACE GUID 0 0\n" + FlashImage{.content = 0x22}.Text());
  sim::FillFromFile(_fabric, 0x10, File(FlashImage().Text(), "old.img"), {.slot = 0});
  Burn<InProcessFlash, RV52100FailsafeBurn>(file, {0x10}, true, false);
  ASSERT_EQ(MemoryOf(_fabric, 0x10, 0, 0, 8), DataVec(8, 0x77));
  EXPECT_EQ(Verify(file, 0x10).state, DeviceFinding::IDENTICAL);
}

TEST_F(FlashVerifyTest, InvariantSectorThatIsRewrittenGetsItsFields) {
  const std::string file = File("REPLACE GUID 0 0\n" + FlashImage{.content = 0x22}.Text());
  sim::FillFromFile(_fabric, 0x10, File(FlashImage{.invariant = 0x66}.Text(), "old.img"),
                    {.slot = 0});
  Burn<InProcessFlash, RV52100FailsafeBurn>(file, {0x10}, true, false);
  ASSERT_EQ(MemoryOf(_fabric, 0x10, 0, 0, 8), Hex("0000000000000010"));
  EXPECT_EQ(Verify(file, 0x10).state, DeviceFinding::IDENTICAL);
  Poke(0x10, 0, DataVec(8, 0x77));  // the fields' places alone as in the image: still rewritten
  Poke(0x10, 0x3F, {0x76});
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.different, 9u);
}

TEST_F(FlashVerifyTest, PointerSectorInsideItsImageIsFoundNotToBoot) {
  // PS 1 lies in the sector that the second image ends in, so its sector is not erased once more,
  // and the signature stays cleared.
  std::string text = FlashImage{.content = 0x22}.Text();
  for (const auto& [from, to] :
       {std::pair("PS 1 800 0", "PS 1 1800 0"),
        std::pair("SIGNATURE 1 808 0", "SIGNATURE 1 1808 0"),
        std::pair("REPLACE CRC 800 0 900 0 904 0\n", "REPLACE CRC 1800 0 1900 0 1904 0\n"),
        std::pair("START PS1 800 0", "START PS1 1800 0")}) {
    const std::size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, std::string_view(from).size(), to);
  }
  text = text.substr(0, text.find("START FIRMWARE")) +
         Section("FIRMWARE", IMAGE0, DataVec(0x800, 0x22));
  _fabric.Add(FlashDevice(0x20, 0x4000, SECTOR));
  const std::string file = File(text);
  sim::FillFromFile(_fabric, 0x20, File(FlashImage().Text(), "old.img"), {.slot = 0});
  Burn<InProcessFlash, RV52100FailsafeBurn>(file, {0x20}, true, false);
  const DeviceFinding finding = Verify(file, 0x20, SlotChoice::SECOND);
  EXPECT_EQ(finding.different, 0u);
  EXPECT_EQ(finding.reason, "no slot is marked valid");
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(finding.Boots(), std::nullopt);
}

/// As below, for a flash: sectors that several sections share or that a pointer sector lies in,
/// burnt either way.
TEST_F(FlashVerifyTest, WhateverIsBurntIsIdentical) {
  constexpr u_int32_t SEED = 20263;
  TestRng rng(SEED);
  const auto below = [&rng](u_int32_t end) { return static_cast<u_int32_t>(rng()) % end; };
  const std::string old = File(FlashImage().Text(), "old.img");
  int burnt = 0;
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(Text("seed ", SEED, ", round ", round));
    const u_int32_t slot = below(2);
    FlashImage image{.content = 0x22, .invariant = static_cast<u_int8_t>(0x76 + below(2))};
    std::string text;
    for (u_int32_t marks = below(4); marks > 0; --marks) {
      const u_int32_t starts[] = {0, IMAGE0, IMAGE1, PS0 + 12};
      const u_int32_t at = starts[below(4)] + 4 * below(0x10);
      text += Text("REPLACE ", below(2) == 0 ? "GUID " : "SYSGUID ", std::hex, at, " 0\n");
    }
    text += image.Text();
    u_int32_t at = IMAGE0 + image.size;
    for (u_int32_t sections = below(4); sections > 0; --sections) {
      at += 4 * below(0x40);
      const u_int32_t size = 4 * (1 + below(0x100));
      text += Section(Text("S", sections), at, RandomBytes(rng, size));
      at += size;
    }
    _fabric = sim::Fabric();
    _fabric.Add(FlashDevice(0x10, 0x4000, SECTOR));
    sim::FillFromFile(_fabric, 0x10, old, {.slot = slot});
    const std::string file = File(text);
    const bool is_failsafe = below(3) > 0;
    const std::string error = ErrorOf([&] {
      if (is_failsafe) {
        Burn<InProcessFlash, RV52100FailsafeBurn>(file, {0x10}, true, false);
      } else {
        Burn<InProcessFlash, GenericBurn>(file, {0x10});
      }
    });
    if (error != "(no error)") continue;
    ++burnt;
    const DeviceFinding finding = Verify(
        file, 0x10,
        is_failsafe ? (slot == 0 ? SlotChoice::SECOND : SlotChoice::FIRST) : SlotChoice::NONE);
    EXPECT_EQ(finding.different, 0u) << finding.reason << "\n" << text;
    EXPECT_GT(finding.compared, 0x20u) << finding.reason << "\n" << text;
  }
  EXPECT_GT(burnt, 30);
}

TEST_F(FlashVerifyTest, ImageWithoutSlotsIsComparedWhereItStands) {
  const std::string file =
      File("DEVICE_TYPE RV52100\nREPLACE GUID 10 0\n" + Section("A", 0, DataVec(0x40, 0x22)));
  Burn<InProcessFlash, GenericBurn>(file, {0x10});
  for (const SlotChoice choice : {SlotChoice::NONE, SlotChoice::AUTO}) {
    const DeviceFinding finding = Verify(file, 0x10, choice);
    EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
    EXPECT_EQ(finding.compared, 0x40u);
    EXPECT_FALSE(finding.knows_slots);
  }
}

TEST_F(FlashVerifyTest, BurnThatMustFailCannotBePredicted) {
  const std::string file =
      File("DEVICE_TYPE RV52100\n" + Section("A", 0x10, DataVec(0x40, 0x22)), "a.img");
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(
      finding.reason,
      "cannot compute the expected bytes: it cannot erase at address 10, where no sector begins");
  EXPECT_EQ(finding.failure, "");
}

TEST_F(FlashVerifyTest, FlashThatClaimsToBeHugeTakesNoMemory) {
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 1});
  sim::Fault fault;
  fault.command = "GetAttr";
  fault.text = "{{sector_size=400 size=fffffc00}}";
  fault.from_then_on = true;
  _fabric.faults.Add(fault);
  const auto peak = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // KiB
  };
  const long before = peak();
  EXPECT_EQ(Verify(_new, 0x10).state, DeviceFinding::IDENTICAL);
  const DeviceFinding finding = Verify(_new, 0x10, SlotChoice::AUTO, _folder.Path());
  EXPECT_LT(peak() - before, 64 * 1024);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL);
  EXPECT_EQ(finding.failure,
            "the memory of 0x0000000000000010 has 4294966272 bytes, and no more than 268435456 "
            "are saved");
}

TEST_F(FlashVerifyTest, MalformedAttributesAreTheServersFault) {
  sim::Fault fault;
  fault.command = "GetAttr";
  fault.text = "{{sector_size=400 size}}";
  _fabric.faults.Add(fault);
  const DeviceFinding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_THAT(finding.reason, testing::HasSubstr("Bad format of Attribute response"));
  EXPECT_EQ(finding.failure, finding.reason);
}

TEST_F(FlashVerifyTest, MemoryThatCannotBeSavedIsNoDevicesFault) {
  sim::FillFromFile(_fabric, 0x10, _new, {.slot = 1});
  const std::string folder = _folder / "saved";
  std::filesystem::create_directories(folder + "/0x0000000000000010.flash");
  const DeviceFinding finding = Verify(_new, 0x10, SlotChoice::AUTO, folder);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL);
  EXPECT_THAT(finding.failure, testing::StartsWith("can't write "));
}

TEST_F(FlashVerifyTest, MemoryIsSavedWhole) {
  Fill(0);
  const std::string folder = _folder / "saved";
  std::filesystem::create_directory(folder);
  Verify(_new, 0x10, SlotChoice::AUTO, folder);
  EXPECT_EQ(common::ReadFile(folder + "/0x0000000000000010.flash"),
            MemoryOf(_fabric, 0x10, 0, 0, FLASH_SIZE));
}

TEST_F(FlashVerifyTest, FlashTooSmallForTheImageIsTold) {
  _fabric.Add(FlashDevice(0x20, 0x1000, SECTOR));
  const DeviceFinding finding = Verify(_new, 0x20, SlotChoice::SECOND);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(finding.reason, "the image reaches past the device's memory");
}

TEST_F(VerifyTest, EachDevicesOwnFieldsAndCrcsAreExpected) {
  _fabric.Add(Eeprom(0x10));
  _fabric.Add(Eeprom(0x20));
  DataVec data(0x80, 0x07);
  const std::string file = File(
      "DEVICE_TYPE RV61100\nREPLACE GUIDS 0 0\nREPLACE SYSGUID 20 0\n"
      "REPLACE CRC 0 0 38 0 3C 0\n" +
      Section("A", 0, data));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x20});
  for (const Guid guid : GuidSet{0x10, 0x20}) {
    EXPECT_EQ(Verify(file, guid).state, DeviceFinding::IDENTICAL) << guid;
  }
  // The other device's GUIDs, and so another CRC: by hand, the node GUID's last byte is at 7, the
  // ports' at 15 and 23, the system's at 31 and 39; the CRC's are at 0x3E and 0x3F.
  Poke(0x20, 0, MemoryOf(_fabric, 0x10, 0, 0, 0x80));
  const DeviceFinding finding = Verify(file, 0x20);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  std::vector<u_int32_t> addrs;
  for (const verify::Difference& difference : finding.differences) addrs.push_back(difference.addr);
  ASSERT_GE(addrs.size(), 6u);
  EXPECT_EQ(std::vector<u_int32_t>(addrs.begin(), addrs.begin() + 5),
            (std::vector<u_int32_t>{7, 15, 23, 31, 39}));
  EXPECT_GE(addrs[5], 0x3Eu);
}

TEST_F(VerifyTest, BothSlotsOfABootRecordDeviceAreCompared) {
  _fabric.Add(Eeprom(0x10));
  const std::string file = File(EepromImage(0x02));
  sim::FillFromFile(_fabric, 0x10, file, {.slot = 0});
  DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);  // the second slot is blank
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{0});
  EXPECT_EQ(finding.slots, (std::vector<u_int32_t>{0, 1}));
  EXPECT_EQ(Verify(file, 0x10, SlotChoice::FIRST).state, DeviceFinding::IDENTICAL);
  Burn<InProcessI2c, RV61300FailsafeBurn>(file, {0x10}, false);
  finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL);
  EXPECT_EQ(finding.compared, 0x80u);
}

TEST_F(VerifyTest, BootRecordWithAWrongSumIsNeverWell) {
  _fabric.Add(Eeprom(0x10));
  sim::FillFromFile(_fabric, 0x10, File(EepromImage(0x02), "old.img"), {.slot = 0});
  DataVec data = EepromData(0x03);
  ++data[15];
  const std::string file = File(EepromText(data));
  Burn<InProcessI2c, RV61300FailsafeBurn>(file, {0x10}, false);
  DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  EXPECT_EQ(finding.different, 0u);
  EXPECT_EQ(finding.reason, "no slot is marked valid");
  EXPECT_EQ(finding.Boots(), std::nullopt);
  finding = Verify(file, 0x10, SlotChoice::NONE);  // where nobody asks for slots
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL);
  EXPECT_TRUE(finding.knows_slots);
  EXPECT_EQ(finding.Boots(), std::nullopt);
}

TEST_F(VerifyTest, CrcOverTheSpoiltByteIsExpectedAsTheBurnLeavesIt) {
  _fabric.Add(Eeprom(0x10));
  sim::FillFromFile(_fabric, 0x10, File(EepromImage(0x02), "old.img"), {.slot = 0});
  const std::string file =
      File("REPLACE CRC 0 0 C 0 3C 0\nREPLACE CRC 80 0 8C 0 BC 0\n" + EepromText(EepromData(0x03)));
  Burn<InProcessI2c, RV61300FailsafeBurn>(file, {0x10}, false);
  DataVec covered = EepromData(0x03);
  covered.resize(16);
  covered[3] = 0x03 + 10;
  DataVec crc;
  crc << ReferenceCrc(covered);
  ASSERT_EQ(MemoryOf(_fabric, 0x10, 0, 0x3C, 4), crc);
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.different;
  EXPECT_EQ(finding.Boots(), 0u);
}

TEST_F(VerifyTest, FieldInOneSlotOnlyIsExpectedInEitherOrderOfABurn) {
  const std::string old = File(EepromImage(0x02), "old.img");
  const std::string file = File("REPLACE GUID 20 0\n" + EepromImage(0x03));
  _fabric.Add(Eeprom(0x10));  // its second slot is burnt first, with the image's own bytes
  sim::FillFromFile(_fabric, 0x10, old, {.slot = 0});
  _fabric.Add(Eeprom(0x20));  // its second slot gets what the first left
  sim::FillFromFile(_fabric, 0x20, old, {.slot = 1});
  for (const Guid guid : GuidSet{0x10, 0x20}) {
    Burn<InProcessI2c, RV61300FailsafeBurn>(file, {guid}, false);
    EXPECT_EQ(Verify(file, guid).state, DeviceFinding::IDENTICAL) << guid;
  }
  ASSERT_EQ(MemoryOf(_fabric, 0x10, 0, 0xA0, 8), DataVec(8, 0x03));
  ASSERT_EQ(MemoryOf(_fabric, 0x20, 0, 0xA0, 8), Hex("0000000000000020"));
}

TEST_F(VerifyTest, FieldInOneSlotOnlyIsNamedAsTheReasonAfterABurnOfMany) {
  const std::string file = File("REPLACE GUID 20 0\n" + EepromImage(0x03));
  for (const Guid guid : GuidSet{0x10, 0x20}) {
    _fabric.Add(Eeprom(guid));
    sim::FillFromFile(_fabric, guid, File(EepromImage(0x02), "old.img"), {.slot = 1});
  }
  Burn<InProcessI2c, RV61300FailsafeBurn>(file, {0x10, 0x20}, false);
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::DIFFERENT);
  ASSERT_EQ(finding.differences.size(), 1u);
  EXPECT_EQ(finding.differences[0].addr, 0xA7u);  // the last digits of the other GUID
  EXPECT_THAT(finding.reason, testing::StartsWith("the image marks fields or CRCs in one slot"));
}

TEST_F(VerifyTest, ImageWithoutSlotsOfADeviceWithSlotsIsComparedWhereItStands) {
  _fabric.Add(Eeprom(0x10));
  const std::string file = File("DEVICE_TYPE RV61300\n" + Section("A", 0, EepromData(0x05)));
  Burn<InProcessI2c, GenericBurn>(file, {0x10});
  for (const SlotChoice choice : {SlotChoice::NONE, SlotChoice::AUTO}) {
    const DeviceFinding finding = Verify(file, 0x10, choice);
    EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
    EXPECT_EQ(finding.compared, 0x40u);
  }
}

TEST_F(VerifyTest, PredictionDependsOnNoChunk) {
  sim::Device device = I2cDevice(0x10, 0);
  device.chips.try_emplace(u_int8_t{0x50}, sim::Chip(std::make_unique<sim::Cells>(0x60), 0));
  device.chips.try_emplace(u_int8_t{0x51}, sim::Chip(std::make_unique<sim::Cells>(0x100), 0));
  _fabric.Add(std::move(device));
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP 60 50\nDEVMAP 100 51\n" +
                                Section("A", 0, DataVec(0x80, 0x33), "50"));
  Burn<InProcessI2c, GenericBurn>(file, {0x10});
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.compared, 0x80u);
}

TEST_F(VerifyTest, DeviceMapThatClaimsToBeHugeTakesNoMemory) {
  sim::Device device = I2cDevice(0x10, 1);
  _fabric.Add(std::move(device));
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP fffffff0 50\n" +
                                Section("A", 0, DataVec(0x40, 0x33), "50"));
  Burn<InProcessI2c, GenericBurn>(file, {0x10});
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_EQ(Verify(file, 0x10).state, DeviceFinding::IDENTICAL);
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024);
}

TEST_F(VerifyTest, CrcOverNoWholeWordsCannotBePredicted) {
  _fabric.Add(Eeprom(0x10));
  const std::string file = File("DEVICE_TYPE RV61100\nREPLACE CRC 0 0 2 0 3C 0\n" +
                                Section("A", 0, DataVec(0x40, 0x33)));
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(finding.reason,
            "cannot compute the expected bytes: a CRC covers 6 bytes, which are no whole words");
}

TEST_F(VerifyTest, DeviceWithoutItsFieldsIsUnreadable) {
  sim::Device device = Eeprom(0x10);
  device.declared_ports = 3;
  _fabric.Add(std::move(device));
  const std::string file =
      File("DEVICE_TYPE RV61100\nREPLACE GUIDS 0 0\n" + Section("A", 0, DataVec(0x40, 0x33)));
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(finding.reason,
            "Internal Error: Device 10 declares 3 ports, but 2 port guids are detected for it.");
  EXPECT_EQ(finding.failure, "");

  sim::Device other = Eeprom(0x20);
  other.bsn.resize(60);
  _fabric.Add(std::move(other));
  const std::string with_bsn =
      File("DEVICE_TYPE RV61300\nREPLACE BSN 0 0\n" + Section("A", 0, DataVec(0x40, 0x33)));
  EXPECT_EQ(Verify(with_bsn, 0x20).reason, "the device's BSN has 60 bytes, the image needs 64");
}

TEST_F(VerifyTest, WholeAnswerErrorKeepsItsText) {
  _fabric.Add(Eeprom(0x10));
  sim::Fault fault;
  fault.command = "Read";
  fault.text = "ERROR:bus is on fire";
  _fabric.faults.Add(fault);
  const DeviceFinding finding =
      Verify(File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44))), 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(finding.reason, "bus is on fire");
  EXPECT_EQ(finding.failure, "");
}

/// Whatever can be burnt is found as it was burnt: images by chance, with fields and CRCs anywhere,
/// over EEPROMs of any size.
TEST_F(VerifyTest, WhateverIsBurntIsIdentical) {
  constexpr u_int32_t SEED = 20262;
  TestRng rng(SEED);
  const auto below = [&rng](u_int32_t end) { return static_cast<u_int32_t>(rng()) % end; };
  int burnt = 0;
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(Text("seed ", SEED, ", round ", round));
    const bool has_slots = below(2) == 0;
    // 0x500 bytes in all, cut at a whole chunk of a burn.
    const u_int32_t first_size = 0x20 * (1 + below(0x20));
    sim::Device device = I2cDevice(0x10, 0);
    device.bsn = RandomBytes(rng, sim::BSN_SIZE);
    device.vsd = RandomBytes(rng, sim::VSD_SIZE);
    for (const auto& [chip, size] : {std::pair{0x50, first_size}, {0x51, 0x500 - first_size}}) {
      device.chips.try_emplace(static_cast<u_int8_t>(chip),
                               sim::Chip(std::make_unique<sim::Cells>(size), 0));
    }
    _fabric = sim::Fabric();
    _fabric.Add(std::move(device));
    std::string text =
        Text("DEVICE_TYPE ", has_slots ? "RV61300" : "RV61100", "\nDEVMAP ", std::hex, first_size,
             " 50\nDEVMAP ", 0x500 - first_size, " 51\nIMAGE 0 0 50\nIMAGE 1 280 50\n");
    for (u_int32_t marks = below(4); marks > 0; --marks) {
      const char* const fields[] = {"GUIDS", "GUID", "SYSGUID", "BSN", "VSD"};
      const u_int32_t slot = has_slots && below(2) == 0 ? 0x280 : 0;
      const u_int32_t at = slot + 4 * (below(0x60));
      if (below(2) == 0) {
        text += Text("REPLACE ", fields[below(5)], " ", std::hex, at, " 50\n");
      } else {
        text += Text("REPLACE CRC ", std::hex, at, " 50 ", at + 4 * (below(8)), " 50 ",
                     slot + 4 * (below(0x80)), " 50\n");
      }
    }
    DataVec data = RandomBytes(rng, 0x200);
    const DataVec record = EepromData(0x03);
    std::copy_n(record.begin(), 16, data.begin());
    const std::string file = File(text + Section("A", 0, data, "50"));
    std::optional<std::string> old;
    if (has_slots) {
      old = File(Text("DEVICE_TYPE RV61300\nDEVMAP ", std::hex, first_size, " 50\nDEVMAP ",
                      0x500 - first_size, " 51\nIMAGE 0 0 50\nIMAGE 1 280 50\n",
                      Section("A", 0, EepromData(0x02), "50")),
                 "old.img");
      sim::FillFromFile(_fabric, 0x10, *old, {.slot = below(2)});
    }
    const std::string error = ErrorOf([&] {
      if (has_slots) {
        Burn<InProcessI2c, RV61300FailsafeBurn>(file, {0x10}, false);
      } else {
        Burn<InProcessI2c, GenericBurn>(file, {0x10});
      }
    });
    if (error != "(no error)") continue;  // a mark that reaches past the section
    ++burnt;
    const DeviceFinding finding = Verify(file, 0x10);
    EXPECT_EQ(finding.different, 0u) << finding.reason << "\n" << text;
    EXPECT_GE(finding.compared, 0x200u) << finding.reason << "\n" << text;
  }
  EXPECT_GT(burnt, 50);
}

TEST_F(VerifyTest, SeveralChipsAreReadPieceByPiece) {
  sim::Device device = I2cDevice(0x10, 2);  // 0x2000 bytes each
  _fabric.Add(std::move(device));
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP 2000 50\nDEVMAP 2000 51\n" +
                                Section("A", 0x1FF0, DataVec(0x20, 0x33), "50"));
  _fabric.Find(0x10)->chips.at(0x50).Load(0x1FF0, DataVec(0x10, 0x33));
  _fabric.Find(0x10)->chips.at(0x51).Load(0, DataVec(0x10, 0x33));
  const DeviceFinding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, DeviceFinding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.compared, 0x20u);
}

TEST_F(VerifyTest, OneBadDeviceDoesNotHideTheOthers) {
  for (const Guid guid : GuidSet{0x10, 0x20, 0x30}) _fabric.Add(Eeprom(guid));
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x30});
  _fabric.Find(0x30)->has_power = true;
  sim::Fault fault;
  fault.kind = sim::Fault::DEVICE_ERROR;
  fault.command = "Read";
  fault.device = 0x30;
  fault.text = "bus stuck";
  _fabric.faults.Add(fault);
  EXPECT_EQ(Verify(file, 0x10).state, DeviceFinding::IDENTICAL);
  EXPECT_EQ(Verify(file, 0x20).state, DeviceFinding::DIFFERENT);
  const DeviceFinding stuck = Verify(file, 0x30);
  EXPECT_EQ(stuck.state, DeviceFinding::UNREADABLE);
  EXPECT_EQ(stuck.reason, "bus stuck");
  const DeviceFinding missing = Verify(file, 0x40);
  EXPECT_EQ(missing.state, DeviceFinding::UNREACHABLE);
  EXPECT_THAT(missing.reason, testing::StartsWith("Device not accessible by server "));
}

TEST_F(VerifyTest, MemoryOutsideTheImageThatCannotBeReadForASaveLeavesTheVerdict) {
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP 2000 50\nDEVMAP 2000 51\n" +
                                Section("A", 0, DataVec(16, 0x44), "50"));
  sim::Fault stuck;
  stuck.kind = sim::Fault::DEVICE_ERROR;
  stuck.text = "bus stuck";
  sim::Fault on_fire;
  on_fire.text = "ERROR:bus is on fire";
  sim::Fault gone;
  gone.kind = sim::Fault::CLOSE_BEFORE;
  for (const auto& [fault, reason] :
       {std::pair(stuck, "bus stuck"), {on_fire, "bus is on fire"}, {gone, "Failed remote read"}}) {
    for (const u_int8_t byte : DataVec{0x44, 0x45}) {
      SCOPED_TRACE(Text(reason, " ", u_int32_t{byte}));
      _fabric = sim::Fabric();
      _fabric.Add(I2cDevice(0x10, 2));  // 0x2000 bytes each
      _fabric.Find(0x10)->chips.at(0x50).Load(0, DataVec(16, byte));
      sim::Fault later = fault;
      later.command = "Read";
      later.nth = 3;  // what is compared, the first chip, the second
      _fabric.faults.Add(later);
      const std::string folder = _folder / Text("saved-", reason, u_int32_t{byte});
      std::filesystem::create_directory(folder);
      const DeviceFinding finding = Verify(file, 0x10, SlotChoice::AUTO, folder);
      EXPECT_EQ(finding.state, byte == 0x44 ? DeviceFinding::IDENTICAL : DeviceFinding::DIFFERENT);
      EXPECT_EQ(finding.compared, 16u);
      EXPECT_EQ(finding.reason, "");
      EXPECT_THAT(finding.failure, testing::StartsWith(Text(
                                       "can't save the memory of 0x0000000000000010: ", reason)));
      EXPECT_TRUE(std::filesystem::exists(folder + "/0x0000000000000010.50.i2c"));
      EXPECT_FALSE(std::filesystem::exists(folder + "/0x0000000000000010.51.i2c"));
    }
  }
}

TEST_F(VerifyTest, ServerThatCannotBeUsedIsNoDevicesFault) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  verify::Verifier verifier(file, "IB:127.0.0.1:1", SlotChoice::AUTO, {});
  const DeviceFinding finding = verifier.Verify(0x10);
  EXPECT_EQ(finding.state, DeviceFinding::UNREACHABLE);
  EXPECT_EQ(finding.reason, "Failed connecting to 127.0.0.1:1 .");
  EXPECT_EQ(finding.failure, "Failed connecting to 127.0.0.1:1 .");
}

class VerifyProgramTest : public VerifyTest {
 protected:
  Outcome Run(const std::string& image, std::vector<std::string> words) {
    words.insert(words.begin(), {VERIFY_PROGRAM, "-f", image});
    return RunProgram(words);
  }
};

TEST_F(VerifyProgramTest, StatusAndTextTellTheTruth) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  _fabric.Add(Eeprom(0x10));
  _fabric.Add(Eeprom(0x20));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x20});
  Poke(0x20, 5, Hex("4546"));
  protocol::ServerThread server(_fabric);
  const Outcome good = Run(file, {"-s", server.ServerString(), "-g", "10"});
  EXPECT_EQ(good.status, 0) << good.errors;
  EXPECT_EQ(good.output, "0x0000000000000010 identical: 16 bytes\n");
  const Outcome bad = Run(file, {"-s", server.ServerString(), "-g", "10,20,30"});
  EXPECT_EQ(bad.status, 1) << bad.errors;
  EXPECT_EQ(bad.output, Text("0x0000000000000010 identical: 16 bytes\n"
                             "0x0000000000000020 different: 2 of 16 bytes\n"
                             "  A+0x5 at 0x5: expected 44, found 45\n"
                             "  A+0x6 at 0x6: expected 44, found 46\n"
                             "0x0000000000000030 unreachable: Device not accessible by server ",
                             server.ServerString(), " .\n"));
  const Outcome json = Run(file, {"-s", server.ServerString(), "-g", "20", "--json"});
  EXPECT_EQ(json.status, 1);
  const nlohmann::json result = nlohmann::json::parse(json.output);
  EXPECT_EQ(result["version"], 1);
  EXPECT_EQ(result["devices"][0]["state"], "different");
  EXPECT_EQ(result["devices"][0]["different_bytes"], 2);
  EXPECT_EQ(result["devices"][0]["differences"][1]["found"], 0x46);
}

TEST_F(VerifyProgramTest, DevicesAreTakenFromAFile) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  for (const Guid guid : GuidSet{0x10, 0x20, 0x30}) _fabric.Add(Eeprom(guid));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x20, 0x30});
  const std::string list = _folder.Write("guids.txt", "# rack\r\n0x30\r\n\r\n20 # spare\r\n");
  protocol::ServerThread server(_fabric);
  EXPECT_EQ(Run(file, {"-s", server.ServerString(), "-g", "@" + list, "-g", "10"}).output,
            "0x0000000000000010 identical: 16 bytes\n0x0000000000000020 identical: 16 bytes\n"
            "0x0000000000000030 identical: 16 bytes\n");
  const std::string wrong = _folder.Write("wrong.txt", "10\n20,30\n");
  const Outcome run = Run(file, {"-s", server.ServerString(), "-g", "@" + wrong});
  EXPECT_EQ(run.status, 64);
  EXPECT_EQ(run.errors, "fwpush-verify: " + wrong +
                            ":2: not a GUID: 20,30\nRun with --help for "
                            "more information.\n");
}

TEST_F(VerifyProgramTest, FoldersOfAnyNameGetTheMemories) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  _fabric.Add(Eeprom(0x10));
  protocol::ServerThread server(_fabric);
  for (const std::string name : {"m\u00e9moire \u4e16", "-n", "--json"}) {
    std::filesystem::create_directory(_folder / "work");
    const std::string folder = _folder / ("work/" + name);
    EXPECT_EQ(Run(file, {"-s", server.ServerString(), "-g", "10", "--save=" + folder}).status, 1);
    EXPECT_EQ(std::filesystem::file_size(folder + "/0x0000000000000010.0.i2c"), 16u);
  }
}

TEST_F(VerifyProgramTest, WhatBootsIsToldInBothForms) {
  _fabric.Add(Eeprom(0x10));
  _fabric.Add(Eeprom(0x20));
  const std::string file = File(EepromImage(0x03));
  sim::FillFromFile(_fabric, 0x10, file, {.slot = 1});
  protocol::ServerThread server(_fabric);
  const std::vector<std::string> words = {"-s", server.ServerString(), "-g", "10,20", "--slot",
                                          "1"};
  const Outcome text = Run(file, words);
  EXPECT_THAT(text.output, testing::StartsWith("0x0000000000000010 identical: 64 bytes; compared "
                                               "slot 1, marked valid 1, boots slot 1\n"
                                               "0x0000000000000020 different: 64 of 64 bytes: no "
                                               "slot is marked valid; compared slot 1, marked "
                                               "valid none, nothing boots\n"));
  std::vector<std::string> json_words = words;
  json_words.emplace_back("--json");
  const nlohmann::json result = nlohmann::json::parse(Run(file, json_words).output);
  EXPECT_EQ(result["devices"][0]["boots"], 1);
  EXPECT_TRUE(result["devices"][1]["boots"].is_null());
  EXPECT_EQ(result["failure"], "");
}

TEST_F(VerifyProgramTest, FlashWhoseInvariantSectorDiffersIsNotSaidToBoot) {
  _fabric.Add(FlashDevice(0x10, FLASH_SIZE, SECTOR));
  const std::string file = File(FlashImage{}.Text());
  sim::FillFromFile(_fabric, 0x10, file, {.slot = 0});
  protocol::ServerThread server(_fabric);
  std::vector<std::string> words = {"-s", server.ServerString(), "-g", "10"};
  EXPECT_EQ(Run(file, words).output,
            "0x0000000000000010 identical: 360 bytes; compared slot 0, marked valid 0, boots slot "
            "0\n");
  server.BetweenRequests([this] { Poke(0x10, 0x30, {0x76}); });
  EXPECT_EQ(Run(file, words).output,
            "0x0000000000000010 different: 1 of 360 bytes; compared slot 0, marked valid 0, "
            "invariant sector differs: not known whether anything boots\n"
            "  INVARIANT+0x30 at 0x30: expected 77, found 76\n");
  words.emplace_back("--json");
  const nlohmann::json result = nlohmann::json::parse(Run(file, words).output)["devices"][0];
  EXPECT_TRUE(result["boots"].is_null());
  EXPECT_EQ(result["invariant_sector"], "different");
  EXPECT_EQ(result["valid_slots"], nlohmann::json::array({0}));
}

TEST_F(VerifyProgramTest, ImageWithoutAByteIsAnError) {
  const std::string file = File("DEVICE_TYPE RV61100\n");
  const Outcome run = Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.errors, "fwpush-verify: The image has no byte to compare\n");
}

TEST_F(VerifyProgramTest, ProgressIsShownOnATerminalOnly) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(64, 0x44)));
  for (const Guid guid : GuidSet{0x10, 0x20, 0x30}) _fabric.Add(Eeprom(guid));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x20, 0x30});
  _fabric.facts.multi_max = "1";
  protocol::ServerThread server(_fabric);
  const std::vector<std::string> words = {VERIFY_PROGRAM,        "-f", file,      "-s",
                                          server.ServerString(), "-g", "10,20,30"};
  const std::string results =
      "0x0000000000000010 identical: 64 bytes\n0x0000000000000020 identical: 64 bytes\n"
      "0x0000000000000030 identical: 64 bytes\n";
  const Outcome pipe = RunProgram(words);
  EXPECT_EQ(pipe.output, results);
  EXPECT_EQ(pipe.errors, "");
  std::string shown = RunProgram(words, Through::TERMINAL).output;
  EXPECT_THAT(shown, testing::HasSubstr("\rverifying   [######..............] 30%  \r\x1b[K"));
  shown = std::regex_replace(shown, std::regex("\rverifying   \\[#*\\.*\\] [0-9]*%  "), "");
  shown = std::regex_replace(shown, std::regex("\r(\x1b\\[K)?"), "");
  EXPECT_EQ(shown, results);
}

TEST_F(VerifyProgramTest, ServerThatFailsInBetweenHidesNoResult) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  for (const Guid guid : GuidSet{0x10, 0x20, 0x30}) _fabric.Add(Eeprom(guid));
  Burn<InProcessI2c, GenericBurn>(file, {0x10, 0x20, 0x30});
  sim::Fault fault;
  fault.kind = sim::Fault::CLOSE_BEFORE;
  fault.command = "Read";
  fault.device = 0x20;
  fault.from_then_on = true;
  _fabric.faults.Add(fault);
  protocol::ServerThread server(_fabric);
  const Outcome run = Run(file, {"-s", server.ServerString(), "-g", "10,20,30", "--json"});
  EXPECT_EQ(run.status, 2);
  const nlohmann::json result = nlohmann::json::parse(run.output);
  ASSERT_EQ(result["devices"].size(), 3u);
  EXPECT_EQ(result["devices"][0]["state"], "identical");
  EXPECT_EQ(result["devices"][1]["state"], "unreadable");
  EXPECT_EQ(result["devices"][2]["state"], "identical");
  EXPECT_THAT(result["failure"], testing::StartsWith("Failed remote read"));
  EXPECT_EQ(run.errors, "fwpush-verify: " + result["failure"].get<std::string>() + "\n");
}

TEST_F(VerifyProgramTest, MemoryThatCannotBeSavedCostsTheStatusAndNoVerdict) {
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP 2000 50\nDEVMAP 2000 51\n" +
                                Section("A", 0, DataVec(16, 0x44), "50"));
  for (const Guid guid : GuidSet{0x10, 0x20}) {
    _fabric.Add(I2cDevice(guid, 2));
    _fabric.Find(guid)->chips.at(0x50).Load(0, DataVec(16, 0x44));
  }
  sim::Fault fault;
  fault.kind = sim::Fault::DEVICE_ERROR;
  fault.command = "Read";
  fault.device = 0x10;
  fault.text = "bus stuck";
  fault.nth = 2;
  _fabric.faults.Add(fault);
  protocol::ServerThread server(_fabric);
  const Outcome run = Run(
      file, {"-s", server.ServerString(), "-g", "10,20", "--json", "--save", _folder / "saved"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.errors, "fwpush-verify: can't save the memory of 0x0000000000000010: bus stuck\n");
  const nlohmann::json result = nlohmann::json::parse(run.output);
  EXPECT_EQ(result["failure"], "can't save the memory of 0x0000000000000010: bus stuck");
  ASSERT_EQ(result["devices"].size(), 2u);
  for (const auto& device : result["devices"]) {
    EXPECT_EQ(device["state"], "identical");
    EXPECT_EQ(device["reason"], "");
    EXPECT_EQ(device["compared_bytes"], 16);
  }
  EXPECT_FALSE(std::filesystem::exists(_folder / "saved/0x0000000000000010.50.i2c"));
  EXPECT_EQ(std::filesystem::file_size(_folder / "saved/0x0000000000000020.51.i2c"), 0x2000u);
}

TEST_F(VerifyProgramTest, ServerThatIsGoneIsGivenUp) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  const Outcome run = Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10,20,30,40,50"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.output,
            "0x0000000000000010 unreachable: Failed connecting to 127.0.0.1:1 .\n"
            "0x0000000000000020 unreachable: Failed connecting to 127.0.0.1:1 .\n"
            "0x0000000000000030 unreachable: Failed connecting to 127.0.0.1:1 .\n"
            "0x0000000000000040 unreachable: not tried: Failed connecting to 127.0.0.1:1 .\n"
            "0x0000000000000050 unreachable: not tried: Failed connecting to 127.0.0.1:1 .\n");
  EXPECT_EQ(run.errors, "fwpush-verify: Failed connecting to 127.0.0.1:1 .\n");
}

TEST_F(VerifyProgramTest, ImageThatCannotBeLoadedStillGivesAResult) {
  const Outcome run = Run(_folder / "none.img", {"-s", "IB:127.0.0.1:1", "-g", "10", "--json"});
  EXPECT_EQ(run.status, 2);
  const nlohmann::json result = nlohmann::json::parse(run.output);
  EXPECT_TRUE(result["devices"].empty());
  EXPECT_THAT(result["failure"], testing::StartsWith("Can't open file"));
}

TEST_F(VerifyProgramTest, StrangeSectionNamesAreShownAndBreakNoResult) {
  _fabric.Add(Eeprom(0x10));
  const std::string file =
      File("DEVICE_TYPE RV61100\n" + Section("\xff\x1b[31m", 0, DataVec(4, 0x44)));
  protocol::ServerThread server(_fabric);
  const Outcome text = Run(file, {"-s", server.ServerString(), "-g", "10"});
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.output, testing::HasSubstr("\n  \\xff\\x1b[31m+0x0 at 0x0: expected 44, "));
  const Outcome json = Run(file, {"-s", server.ServerString(), "-g", "10", "--json"});
  EXPECT_EQ(json.status, 1) << json.errors;
  const nlohmann::json result = nlohmann::json::parse(json.output);
  EXPECT_EQ(result["devices"][0]["differences"][0]["section"], "\uFFFD\x1b[31m");
}

TEST_F(VerifyProgramTest, WhatCannotBeDoneAndWhatIsWrongHaveTheirStatus) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10"}).status, 2);
  EXPECT_EQ(Run(_folder / "none.img", {"-s", "IB:127.0.0.1:1", "-g", "10"}).status, 2);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10", "--save", file}).status, 2);
  const Outcome bad_guid = Run(file, {"-s", "IB:127.0.0.1:1", "-g", "zz"});
  EXPECT_EQ(bad_guid.status, 64);
  EXPECT_EQ(bad_guid.errors,
            "fwpush-verify: Error parsing guid #0 in the given list.\n"
            "Run with --help for more information.\n");
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", ","}).status, 64);
  for (const char* server : {"127.0.0.1:1", "XX:127.0.0.1:1", "IB:127.0.0.1:one"}) {
    EXPECT_EQ(Run(file, {"-s", server, "-g", "10"}).status, 64) << server;
  }
  EXPECT_EQ(Run(file, {"-s", "X2C:host:1", "-g", "10"}).errors,
            "fwpush-verify: -s X2C:host:1: there is no TYPE 'X2C': give I2C, PCI, PPC or IB; the "
            "devices of every image can be read through each of them\n"
            "Run with --help for more information.\n");
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10", "--save", file + "/x"}).errors,
            "fwpush-verify: can't make the folder " + file + "/x: Not a directory\n");
  EXPECT_EQ(Run(file, {"-s=IB:127.0.0.1:1", "-g=10"}).errors,
            "fwpush-verify: Failed connecting to 127.0.0.1:1 .\n");
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10", "--slot", "0"}).status, 64);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1"}).status, 64);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10", "--slot", "2"}).status, 64);
  EXPECT_EQ(Run(file, {"--help"}).status, 0);
  EXPECT_EQ(Run(file, {"--version"}).output, "fwpush-verify " FWPUSH_VERSION "\n");
}

}  // namespace
