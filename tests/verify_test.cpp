// What fwpush-verify says of devices, in every state, and that it only ever reads.
#include "Verify.h"

#include <nlohmann/json.hpp>
#include <regex>

#include "BurnAlgorithm.h"
#include "Harness.h"
#include "LocalRom.h"
#include "Server.h"
#include "fabric_support.h"
#include "slot_images.h"

namespace {

using tools::Finding;
using tools::SlotChoice;

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

  /// Burns as fwpush does, into all devices.
  template <typename Rom, typename Algorithm>
  void Burn(const std::string& file, const GuidSet& guids, const auto&... flags) {
    OutputOf([&] {
      FwImage image;
      image.Open(file.c_str(), READ);
      Rom rom(_fabric, 8);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices(guids);
      rom.Open("IB:host:1");
      Algorithm(rom, flags...).Go(image);
    });
  }

  Finding Verify(const std::string& file, Guid guid, SlotChoice choice = SlotChoice::AUTO,
                 const std::optional<std::string>& save = {}) {
    sim::ServerThread server(_fabric);
    const tools::Verifier verifier(file, server.ServerString(), choice, save);
    Finding finding;
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

  TemporaryFolder _folder;
  sim::Fabric _fabric;
};

class FlashVerifyTest : public VerifyTest {
 protected:
  FlashVerifyTest() {
    _fabric.Add(FlashDevice(0x10, FLASH_SIZE, SECTOR));
    _new = File(FlashImage{.content = 0x22}.Text());
  }
  void Fill(u_int32_t slot) {
    sim::BurnInto(_fabric, 0x10, File(FlashImage().Text(), "old.img"), {.slot = slot});
  }
  std::string _new;
};

TEST_F(FlashVerifyTest, FailsafeBurnIsFoundInItsSlot) {
  Fill(0);
  Burn<sim::LocalFlash, RV52100FailsafeBurn>(_new, {0x10}, true, false);
  const Finding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, Finding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{1});
  EXPECT_EQ(finding.slots, std::vector<u_int32_t>{1});
  EXPECT_EQ(finding.compared, 0x40u + 264 + 0x20);  // invariant sector, pointer sector, firmware
}

TEST_F(FlashVerifyTest, OldImageDiffersByteByByte) {
  Fill(0);
  const Finding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, Finding::DIFFERENT);
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
  sim::BurnInto(_fabric, 0x10, _new, {.slot = 1});
  ASSERT_EQ(Verify(_new, 0x10).state, Finding::IDENTICAL);
  for (const u_int32_t addr : {0u, 0x3Fu, PS1 + 200, PS1 + 263, IMAGE1, IMAGE1 + 0x1F}) {
    SCOPED_TRACE(addr);
    const DataVec whole = MemoryOf(_fabric, 0x10, 0, addr, 1);
    Poke(0x10, addr, {static_cast<u_int8_t>(whole[0] ^ 0x10)});
    const Finding finding = Verify(_new, 0x10, SlotChoice::SECOND);
    EXPECT_EQ(finding.state, Finding::DIFFERENT);
    EXPECT_EQ(finding.different, 1u);
    ASSERT_EQ(finding.differences.size(), 1u);
    EXPECT_EQ(finding.differences[0].addr, addr);
    Poke(0x10, addr, whole);
  }
}

TEST_F(FlashVerifyTest, DeviceWithoutAValidSlotIsNotIdentical) {
  const Finding finding = Verify(_new, 0x10);
  EXPECT_EQ(finding.state, Finding::DIFFERENT);
  EXPECT_EQ(finding.reason, "no slot is marked valid");
  EXPECT_EQ(Verify(_new, 0x10, SlotChoice::FIRST).state, Finding::DIFFERENT);
}

TEST_F(FlashVerifyTest, BurnThatIsNotFailsafeIsFoundWhereTheSectionsStand) {
  // The pointer sectors' CRC words are computed anew, and the signatures stay the image's.
  Burn<sim::LocalFlash, GenericBurn>(_new, {0x10});
  const Finding finding = Verify(_new, 0x10, SlotChoice::NONE);
  EXPECT_EQ(finding.state, Finding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.compared, 0x40u + 2 * 264 + 0x20);
}

TEST_F(FlashVerifyTest, MemoryIsSavedWhole) {
  Fill(0);
  const std::string folder = _folder / "saved";
  std::filesystem::create_directory(folder);
  Verify(_new, 0x10, SlotChoice::AUTO, folder);
  std::ifstream file(folder + "/0x0000000000000010.flash", std::ios::binary);
  const DataVec saved(std::istreambuf_iterator<char>(file), {});
  EXPECT_EQ(saved, MemoryOf(_fabric, 0x10, 0, 0, FLASH_SIZE));
}

TEST_F(FlashVerifyTest, FlashTooSmallForTheImageIsTold) {
  _fabric.Add(FlashDevice(0x20, 0x1000, SECTOR));
  const Finding finding = Verify(_new, 0x20, SlotChoice::SECOND);
  EXPECT_EQ(finding.state, Finding::UNREADABLE);
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
  Burn<sim::LocalI2c, GenericBurn>(file, {0x10, 0x20});
  for (const Guid guid : {0x10, 0x20}) {
    EXPECT_EQ(Verify(file, guid).state, Finding::IDENTICAL) << guid;
  }
  // The other device's GUIDs, and so another CRC: by hand, the node GUID's last byte is at 7, the
  // ports' at 15 and 23, the system's at 31 and 39; the CRC's are at 0x3E and 0x3F.
  Poke(0x20, 0, MemoryOf(_fabric, 0x10, 0, 0, 0x80));
  const Finding finding = Verify(file, 0x20);
  EXPECT_EQ(finding.state, Finding::DIFFERENT);
  std::vector<u_int32_t> addrs;
  for (const tools::Difference& difference : finding.differences) addrs.push_back(difference.addr);
  ASSERT_GE(addrs.size(), 6u);
  EXPECT_EQ(std::vector<u_int32_t>(addrs.begin(), addrs.begin() + 5),
            (std::vector<u_int32_t>{7, 15, 23, 31, 39}));
  EXPECT_GE(addrs[5], 0x3Eu);
}

TEST_F(VerifyTest, BothSlotsOfABootRecordDeviceAreCompared) {
  _fabric.Add(Eeprom(0x10));
  const std::string file = File(EepromImage(0x02));
  sim::BurnInto(_fabric, 0x10, file, {.slot = 0});
  Finding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, Finding::DIFFERENT);  // the second slot is blank
  EXPECT_EQ(finding.valid_slots, std::vector<u_int32_t>{0});
  EXPECT_EQ(finding.slots, (std::vector<u_int32_t>{0, 1}));
  EXPECT_EQ(Verify(file, 0x10, SlotChoice::FIRST).state, Finding::IDENTICAL);
  Burn<sim::LocalI2c, RV61300FailsafeBurn>(file, {0x10}, false);
  finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, Finding::IDENTICAL);
  EXPECT_EQ(finding.compared, 0x80u);
}

TEST_F(VerifyTest, SeveralChipsAreReadPieceByPiece) {
  sim::Device device = I2cDevice(0x10, 2);  // 0x2000 bytes each
  _fabric.Add(std::move(device));
  const std::string file = File("DEVICE_TYPE RV61100\nDEVMAP 2000 50\nDEVMAP 2000 51\n" +
                                Section("A", 0x1FF0, DataVec(0x20, 0x33), "50"));
  _fabric.Find(0x10)->chips.at(0x50).Load(0x1FF0, DataVec(0x10, 0x33));
  _fabric.Find(0x10)->chips.at(0x51).Load(0, DataVec(0x10, 0x33));
  const Finding finding = Verify(file, 0x10);
  EXPECT_EQ(finding.state, Finding::IDENTICAL) << finding.reason;
  EXPECT_EQ(finding.compared, 0x20u);
}

TEST_F(VerifyTest, OneBadDeviceDoesNotHideTheOthers) {
  for (const Guid guid : {0x10, 0x20, 0x30}) _fabric.Add(Eeprom(guid));
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  Burn<sim::LocalI2c, GenericBurn>(file, {0x10, 0x30});
  _fabric.Find(0x30)->has_power = true;
  sim::Fault fault;
  fault.kind = sim::Fault::DEVICE_ERROR;
  fault.command = "Read";
  fault.device = 0x30;
  fault.text = "bus stuck";
  _fabric.faults.Add(fault);
  EXPECT_EQ(Verify(file, 0x10).state, Finding::IDENTICAL);
  EXPECT_EQ(Verify(file, 0x20).state, Finding::DIFFERENT);
  const Finding stuck = Verify(file, 0x30);
  EXPECT_EQ(stuck.state, Finding::UNREADABLE);
  EXPECT_EQ(stuck.reason, "bus stuck");
  const Finding missing = Verify(file, 0x40);
  EXPECT_EQ(missing.state, Finding::UNREACHABLE);
  EXPECT_THAT(missing.reason, testing::StartsWith("Device not accessible by server "));
}

TEST_F(VerifyTest, ServerThatCannotBeUsedIsNoDevicesFault) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  const tools::Verifier verifier(file, "IB:127.0.0.1:1", SlotChoice::AUTO, {});
  EXPECT_EQ(ErrorOf([&] { verifier.Verify(0x10); }), "Failed connecting to 127.0.0.1:1 .");
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
  Burn<sim::LocalI2c, GenericBurn>(file, {0x10, 0x20});
  Poke(0x20, 5, Hex("4546"));
  sim::ServerThread server(_fabric);
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

TEST_F(VerifyProgramTest, WhatCannotBeDoneAndWhatIsWrongHaveTheirStatus) {
  const std::string file = File("DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16, 0x44)));
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10"}).status, 2);
  EXPECT_EQ(Run(_folder / "none.img", {"-s", "IB:127.0.0.1:1", "-g", "10"}).status, 2);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "zz"}).status, 2);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", ","}).status, 2);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1"}).status, 64);
  EXPECT_EQ(Run(file, {"-s", "IB:127.0.0.1:1", "-g", "10", "--slot", "2"}).status, 64);
  EXPECT_EQ(Run(file, {"--help"}).status, 0);
  EXPECT_EQ(Run(file, {"--version"}).output, "fwpush-verify 1.0.0\n");
}

}  // namespace
