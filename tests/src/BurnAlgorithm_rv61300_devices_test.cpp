// Failsafe burns of RV61300 devices with fields of their own: what each slot holds afterwards, and
// what becomes of a device that fails and of the others.
#include "tests/support/rv61300_support.h"

using namespace rv61300;

namespace {

class FieldsTest : public Rv61300Test {
 protected:
  static constexpr u_int32_t FIRST_SLOT = 0x100;
  static constexpr u_int32_t SECOND_SLOT = 0x1100;
  static constexpr u_int32_t SLOT_SIZE = 0x190;

  FieldsTest() {
    std::string text = "DEVICE_TYPE RV61300\nIMAGE 0 100 0\nIMAGE 1 1100 0\n";
    for (const std::string slot : {"1", "11"}) {
      text += "REPLACE GUIDS " + slot + "10 0\n";
      text += "REPLACE GUID " + slot + "30 0\n";
      text += "REPLACE SYSGUID " + slot + "38 0\n";
      text += "REPLACE BSN " + slot + "40 0\n";
      text += "REPLACE VSD " + slot + "80 0\n";
    }
    text +=
        "REPLACE CRC 110 0 14C 0 250 0\nREPLACE CRC 280 0 284 0 28C 0\n"
        "REPLACE CRC 1110 0 114C 0 1250 0\nREPLACE CRC 1280 0 1284 0 128C 0\n";
    text += "START MAIN 100 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33\n";
    for (int i = 0; i < 21; ++i) text += "77 77 77 77 77 77 77 77 77 77 77 77 77 77 77 77\n";
    text += "END MAIN\nSTART TAIL 280 0\n88 88 88 88 99 99 99 99 AA AA AA AA 0 0 0 0\nEND TAIL\n";
    Load(text);
  }

  void AddDevice(Guid guid, const std::string& first, const std::string& second) {
    sim::Device& device = _fabric.Add(Adapter(guid));
    device.chips.at(0).Load(FIRST_SLOT, Hex(first));
    device.chips.at(0).Load(SECOND_SLOT, Hex(second));
    device.bsn.assign(sim::BSN_SIZE, static_cast<u_int8_t>(guid >> 8));
    device.vsd.assign(sim::VSD_SIZE, static_cast<u_int8_t>(guid >> 8 | 1));
  }

  /// A slot of the device after the burn, but for the gap of 32 bytes before its last section.
  static DataVec Slot(Guid guid) {
    DataVec fields;
    fields << guid << guid + 1 << guid + 2 << guid + 0xF;  // GUIDS
    fields << guid << guid + 0xF;                          // GUID, SYSGUID
    fields << DataVec(64, static_cast<u_int8_t>(guid >> 8));
    fields << DataVec(208, static_cast<u_int8_t>(guid >> 8 | 1));
    DataVec first_covered(fields.begin(), fields.begin() + 0x40);
    return Joined({Hex("0102030405060708 090a0b0c0d0e0f33"), fields,
                   Number(ReferenceCrc(first_covered)), DataVec(12, 0x77), DataVec(0x20, 0xFF),
                   Hex("88888888 99999999 aaaaaaaa"),
                   Number(ReferenceCrc(Hex("88888888 99999999")))});
  }
};

TEST_F(FieldsTest, BothSlotsHoldEachDevicesFieldsAndTheirCrcs) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, INVALID, VALID);
  AddDevice(LEAF3, VALID, INVALID);
  AddDevice(0x4000, VALID, INVALID);
  OpenAll();
  Go();
  for (const Guid guid : {LEAF1, LEAF2, LEAF3, Guid{0x4000}}) {
    const DataVec slot = Slot(guid);
    ASSERT_EQ(slot.size(), SLOT_SIZE);
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, FIRST_SLOT, SLOT_SIZE), slot) << guid;
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, SECOND_SLOT, SLOT_SIZE), slot) << guid;
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, 0, FIRST_SLOT), DataVec(FIRST_SLOT, 0xFF));
    EXPECT_EQ(
        MemoryOf(_fabric, guid, 0, FIRST_SLOT + SLOT_SIZE, SECOND_SLOT - FIRST_SLOT - SLOT_SIZE),
        DataVec(SECOND_SLOT - FIRST_SLOT - SLOT_SIZE, 0xFF));
  }
}

TEST_F(FieldsTest, RecordIsRepairedOnlyWhenEveryDeviceHasItsFieldsAndCrcs) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  Go();
  // Each request as its command, its devices' number, and the size and offset of what it writes.
  Strings outlines;
  for (const std::string& request : _rom->Requests()) {
    const auto words = splitv(request, " ", false);
    if (words[0] == "vsI2cReadMulti") continue;
    if (words[0] != "vsI2cWriteMulti") {
      outlines.push_back(words[0]);
      continue;
    }
    const std::size_t count = std::stoul(words[1]);
    outlines.push_back(words[1] + ": " + words[3 + count] + "@" + words[4 + count]);
  }
  const Strings own_first = {"1: 32@0x110", "1: 8@0x130",    "1: 8@0x138",   "crBSNGet",
                             "1: 64@0x140", "vsGetVsdMulti", "1: 208@0x180", "1: 4@0x250"};
  const Strings own_second = {"1: 32@0x1110", "1: 8@0x1130",   "1: 8@0x1138",   "crBSNGet",
                              "1: 64@0x1140", "vsGetVsdMulti", "1: 208@0x1180", "1: 4@0x1250"};
  const Strings expected =
      Strings{"2: 352@0x100"} + own_first + own_first +
      Strings{"2: 16@0x280", "1: 4@0x28c", "1: 4@0x28c", "2: 4@0x100", "2: 352@0x1100"} +
      own_second + own_second +
      Strings{"2: 16@0x1280", "1: 4@0x128c", "1: 4@0x128c", "2: 4@0x1100"};
  EXPECT_EQ(outlines, expected);
}

TEST_F(FieldsTest, MeterIsDoneWithTheImagesSizeAndSaysSoOnce) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  // 368 bytes in all: the region is 352 of them, and the first field fills the meter.
  EXPECT_TRUE(
      Go().ends_with("-I- Scnd only valid: 0\n"
                     "\r\\ Burning    first  image with invalidated signature - %95"
                     "\r- Burning    first  image with invalidated signature -  OK \n"
                     "\r- Validating first  image                            -  OK \n"
                     "\r\\ Burning    second image with invalidated signature - %95"
                     "\r- Burning    second image with invalidated signature -  OK \n"
                     "\r- Validating second image                            -  OK \n"));
}

TEST_F(FieldsTest, ImageInMemoryKeepsTheLastDevicesFieldsAndBlankCrcs) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  Go();
  DataVec expected = Slot(LEAF2);
  std::fill_n(expected.begin() + 0x150, 4, u_int8_t{0xFF});
  std::fill_n(expected.begin() + 0x18C, 4, u_int8_t{0xFF});
  EXPECT_EQ(_image->GetSection(0x100)->data, DataVec(expected.begin(), expected.begin() + 0x160));
  EXPECT_EQ(_image->GetSection(0x280)->data, DataVec(expected.begin() + 0x180, expected.end()));
}

TEST_F(Rv61300Test, CrcOverTheRecordIsThatOfTheSpoiltRecord) {
  // The CRC words are written while the record is spoilt, and are not touched when it is repaired.
  Load(
      "IMAGE 0 100 0\nIMAGE 1 200 0\nREPLACE CRC 100 0 10C 0 110 0\nSTART A 100 0\n"
      "1 2 3 4 5 6 7 8 9 A B C D E F 33 0 0 0 0\nEND A\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  Go();
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, FIRST, 20),
            Joined({Hex("0102030405060708 090a0b0c0d0e0f33"),
                    Number(ReferenceCrc(Hex("0102030e05060708 090a0b0c0d0e0f33")))}));
}

TEST_F(Rv61300Test, FieldDeclaredForTheFirstSlotAloneReachesTheSecondAsTheLastDeviceHadIt) {
  Load(
      "IMAGE 0 100 0\nIMAGE 1 200 0\nREPLACE GUID 110 0\nREPLACE CRC 110 0 114 0 118 0\n"
      "START A 100 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33 0 0 0 0 0 0 0 0 0 0 0 0\nEND A\n");
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  Go();
  for (const Guid guid : {LEAF1, LEAF2}) {
    DataVec own;
    own << guid;
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, FIRST + 16, 12), Joined({own, Number(ReferenceCrc(own))}));
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, SECOND + 16, 12), Hex("0000000000002000 ffffffff"));
  }
}

TEST_F(Rv61300Test, SlotsMayLieInChipsOfTheirOwn) {
  Load(
      "DEVICE_TYPE RV61300\nDEVMAP 200 50\nDEVMAP 200 51\nIMAGE 0 100 50\nIMAGE 1 40 51\n"
      "START BOOT 100 50\n1 2 3 4 5 6 7 8 9 A B C D E F 33\nEND BOOT\n");
  sim::Device& device = _fabric.Add(I2cDevice(LEAF1, 2));
  device.chips.at(0x51).Load(0x40, Hex(VALID));
  OpenQuietly(*_rom, {LEAF1});
  _rom->SetAddressConvertor(_image->GetAddressConvertor());
  const std::string console = Go();
  EXPECT_NE(console.find("Querying device 1000, addr 100 size 16\n"), std::string::npos);
  EXPECT_NE(console.find("Querying device 1000, addr 240 size 16\n"), std::string::npos);
  EXPECT_EQ(_rom->Requests(),
            (Strings{"vsI2cReadMulti 1 0x0000000000001000 0x50 16 0x100 ",
                     "vsI2cReadMulti 1 0x0000000000001000 0x51 16 0x40 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x50 16 0x100 "
                     "0x102030e 0x5060708 0x90a0b0c 0xd0e0f33 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x50 4 0x100 0x1020304 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x51 16 0x40 "
                     "0x102030e 0x5060708 0x90a0b0c 0xd0e0f33 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x51 4 0x40 0x1020304 "}));
  for (const auto& [chip, offset] : {std::pair<u_int8_t, u_int32_t>{0x50, 0x100}, {0x51, 0x40}}) {
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, chip, offset, 16), Hex("0102030405060708090a0b0c0d0e0f33"));
  }
}

// ---- Devices that fail

/// Three devices on a server whose writes are read back, and an image of which each gets a GUID,
/// its VSD, and a CRC over them.
class FailuresTest : public Rv61300Test {
 protected:
  static constexpr u_int32_t FIRST_SLOT = 0x100;
  static constexpr u_int32_t SECOND_SLOT = 0x1100;
  static constexpr u_int32_t SLOT_SIZE = 0x100;

  FailuresTest() {
    std::string text =
        "DEVICE_TYPE RV61300\nIMAGE 0 100 0\nIMAGE 1 1100 0\n"
        "REPLACE GUID 120 0\nREPLACE VSD 128 0\nREPLACE CRC 120 0 1F4 0 1F8 0\n"
        "REPLACE GUID 1120 0\nREPLACE VSD 1128 0\nREPLACE CRC 1120 0 11F4 0 11F8 0\n"
        "START BOOT 100 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33\nEND BOOT\nSTART DATA 120 0\n";
    for (int i = 0; i < 14; ++i) text += "77 77 77 77 77 77 77 77 77 77 77 77 77 77 77 77\n";
    Load(text + "END DATA\n");
  }

  static DataVec Old(const std::string& record) {
    return Joined({Hex(record), DataVec(SLOT_SIZE - 16, 0x55)});
  }

  static DataVec New(Guid guid) {
    DataVec own;
    own << guid << DataVec(208, static_cast<u_int8_t>(guid >> 8));
    return Joined({Hex("0102030405060708 090a0b0c0d0e0f33"), DataVec(16, 0x55), own,
                   Number(ReferenceCrc(own)), DataVec(4, 0x77)});
  }

  void AddDevice(Guid guid, const std::string& first, const std::string& second) {
    sim::Device& device = _fabric.Add(Adapter(guid));
    device.chips.at(0).Load(FIRST_SLOT, Old(first));
    device.chips.at(0).Load(SECOND_SLOT, Old(second));
    device.vsd.assign(sim::VSD_SIZE, static_cast<u_int8_t>(guid >> 8));
  }

  DataVec SlotOf(Guid guid, u_int32_t slot) { return MemoryOf(_fabric, guid, 0, slot, SLOT_SIZE); }

  /// Serves LEAF1 with both slots valid, LEAF2 with these, and LEAF3 with the first one valid.
  void ServeThree(const std::string& first, const std::string& second) {
    Serve("I2C");
    AddDevice(LEAF1, VALID, VALID);
    AddDevice(LEAF2, first, second);
    AddDevice(LEAF3, VALID, INVALID);
    OpenAll();
  }

  void Disturb(sim::Fault::Kind kind, const std::string& command, u_int32_t nth,
               const std::string& text = "") {
    sim::Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.device = LEAF2;
    fault.nth = nth;
    fault.text = text;
    _fabric.faults.Add(fault);
  }

  void ExpectBurnt(Guid guid) {
    EXPECT_EQ(SlotOf(guid, FIRST_SLOT), New(guid)) << guid;
    EXPECT_EQ(SlotOf(guid, SECOND_SLOT), New(guid)) << guid;
  }

  /// Whether a slot holds the whole old or the whole new image with a valid record.
  bool Boots(Guid guid) {
    const DataVec first = SlotOf(guid, FIRST_SLOT);
    const DataVec second = SlotOf(guid, SECOND_SLOT);
    return first == Old(VALID) || first == New(guid) || second == Old(VALID) || second == New(guid);
  }

  static int Count(const std::string& text, const std::string& what) {
    int count = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++count;
    return count;
  }
};

TEST_F(FailuresTest, DeviceThatFailsAtAnyRequestKeepsABootableSlotAndTheOthersFinish) {
  const std::pair<std::string, std::string> states[] = {
      {VALID, VALID}, {VALID, INVALID}, {INVALID, VALID}};
  for (const auto& [first, second] : states) {
    // Of the requests that name the device, the first two are those that judge its records.
    std::map<std::string, int> failed;
    for (u_int32_t nth = 3;; ++nth) {
      SCOPED_TRACE(first + ", " + second + ", request " + std::to_string(nth));
      ASSERT_LT(nth, 100u);
      ServeThree(first, second);
      Disturb(sim::Fault::DEVICE_ERROR, "", nth, "broken");
      const std::string console = Go();
      ExpectBurnt(LEAF1);
      ExpectBurnt(LEAF3);
      Strings named = _rom->Requests();
      std::erase_if(named, [](const std::string& request) {
        return request.find("0x0000000000002000") == std::string::npos;
      });
      if (Count(console, "BURN FAILED") == 0) {
        EXPECT_EQ(named.size(), nth - 1);
        ExpectBurnt(LEAF2);
        break;
      }
      EXPECT_EQ(named.size(), nth);  // none after the one that failed
      EXPECT_EQ(Count(console, "BURN FAILED"), 1);
      EXPECT_EQ(Count(console, "\r-E- BURN FAILED:0x0000000000002000:broken\n"), 1);
      EXPECT_EQ(_rom->_error_devs, GuidSet{LEAF2});
      EXPECT_TRUE(Boots(LEAF2));
      ++failed[named.back().substr(0, named.back().find(' '))];
    }
    // In each slot two sections, two fields, the CRC and the repaired record.
    EXPECT_EQ(failed,
              (std::map<std::string, int>{
                  {"vsI2cWriteMulti", 2 * 6}, {"vsI2cReadMulti", 2 * 6}, {"vsGetVsdMulti", 2}}));
  }
}

TEST_F(FailuresTest, DeviceThatWritesWrongBytesKeepsABootableSlotAndTheOthersFinish) {
  for (u_int32_t nth = 1; nth <= 12; ++nth) {
    SCOPED_TRACE("write " + std::to_string(nth));
    ServeThree(VALID, VALID);
    Disturb(sim::Fault::WRITE_WRONG, "Write", nth);
    const std::string console = Go();
    EXPECT_EQ(
        Count(console, "\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address "), 1);
    EXPECT_EQ(Count(console, "BURN FAILED"), 1);
    ExpectBurnt(LEAF1);
    ExpectBurnt(LEAF3);
    EXPECT_TRUE(Boots(LEAF2));
  }
}

TEST_F(FailuresTest, DeviceThatFailsTheRegionLeavesItsMetersToTheOthers) {
  ServeThree(VALID, VALID);
  Disturb(sim::Fault::DEVICE_ERROR, "Write", 1, "broken");
  const std::string console = Go();
  // 240 bytes: the record's section is 16 of them, the other 224. What the failure line leaves
  // shows in the percentage.
  EXPECT_NE(console.find("-I- Scnd only valid: 0\n"
                         "\r-E- BURN FAILED:0x0000000000002000:broken\n"
                         "\r\\ Burning    first  image with invalidated signature - %06"
                         "\r- Burning    first  image with invalidated signature -  OK \n"
                         "\r- Validating first  image                            -  OK \n"),
            std::string::npos)
      << console;
}

TEST_F(FailuresTest, DeviceThatFailsBeforeItsRecordIsRepairedIsLeftWithItSpoilt) {
  ServeThree(VALID, VALID);
  Disturb(sim::Fault::DEVICE_ERROR, "Write", 6, "broken");
  Go();
  DataVec spoilt = New(LEAF2);
  spoilt[3] = 0x0E;
  EXPECT_EQ(SlotOf(LEAF2, FIRST_SLOT), spoilt);
  EXPECT_EQ(SlotOf(LEAF2, SECOND_SLOT), Old(VALID));
}

TEST_F(FailuresTest, GroupWithoutDevicesLeftDoesNotKeepTheOtherFromItsBurn) {
  Serve();
  AddDevice(LEAF2, VALID, VALID);
  AddDevice(LEAF3, VALID, INVALID);
  OpenAll();
  Disturb(sim::Fault::DEVICE_ERROR, "Write", 1, "broken");
  Go();
  ExpectBurnt(LEAF3);
  EXPECT_EQ(SlotOf(LEAF2, FIRST_SLOT), Old(VALID));
  EXPECT_EQ(SlotOf(LEAF2, SECOND_SLOT), Old(VALID));
}

TEST_F(Rv61300Test, RunGoesOnWhileADeviceWithoutAnImageIsAccessible) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, INVALID, INVALID);
  OpenAll();
  Fail(sim::Fault::DEVICE_ERROR, "Write", LEAF1, "broken");
  EXPECT_NE(Go().find("\r-E- BURN FAILED:0x0000000000001000:broken\n"), std::string::npos);
  EXPECT_EQ(
      _rom->Requests(),
      Queries({LEAF1, LEAF2}) +
          Strings{Request("Write", {LEAF1}, "16 0x100 0x102030e 0x5060708 0x90a0b0c 0xd0e0f33")});
  EXPECT_EQ(Memory(LEAF1), ChipOf(OldSlot(VALID), OldSlot(VALID)));
  EXPECT_EQ(Memory(LEAF2), ChipOf(OldSlot(INVALID), OldSlot(INVALID)));
}

TEST_F(Rv61300Test, LastDeviceThatFailsEndsTheRunAndTheMeterIsTakenBack) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  Fail(sim::Fault::DEVICE_ERROR, "Write", LEAF1, "broken");
  std::string console;
  EXPECT_EQ(GoError(console), "No more accessible devices");
  EXPECT_TRUE(
      console.ends_with("-I- Scnd only valid: 0\n"
                        "\r-E- BURN FAILED:0x0000000000001000:broken\n"))
      << console;
  EXPECT_EQ(OutputOf([&] { _rom->Write(0, DataVec(4), true); }), "");
}

TEST_F(FieldsTest, SerialNumberThatIsRefusedEndsTheRunOfAllAndTheMeterIsTakenBack) {
  // It is asked for one device alone, so the refusal is the whole answer.
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  Fail(sim::Fault::DEVICE_ERROR, "BSNGet", LEAF1, "no number");
  std::string console;
  EXPECT_EQ(GoError(console), "No more accessible devices");
  EXPECT_TRUE(console.ends_with("\r-E- BURN FAILED:ALL:no number\n")) << console;
  for (const Guid guid : {LEAF1, LEAF2}) {
    EXPECT_EQ(MemoryOf(_fabric, guid, 0, SECOND_SLOT, 16), Hex(VALID));
  }
  _rom->SetAccessDevices({LEAF1});
  EXPECT_EQ(OutputOf([&] { _rom->Write(0, DataVec(4), true); }), "");
}

TEST_F(Rv61300Test, FieldThatCrossesItsSectionEndsTheBurnAndTheMeterIsTakenBack) {
  Load(std::string(IMAGE) + "REPLACE GUID 124 0\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  EXPECT_EQ(GoError(),
            "Replace field (from:124, type:3) crosses image section (addr:120 , size:8).");
  EXPECT_EQ(OutputOf([&] { _rom->Write(0, DataVec(4), true); }), "");
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, SECOND, 0x28), OldSlot(VALID));
}

TEST_F(Rv61300Test, MeterIsTakenBackWhenABurnEnds) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  Go();
  EXPECT_EQ(OutputOf([&] { _rom->Write(0, DataVec(4), true); }), "");
  Burn burn(*_rom, false);
  OutputOf([&] { burn.BurnImage(*_image, 1); });
  EXPECT_EQ(OutputOf([&] { _rom->Write(0, DataVec(4), true); }), "");
}

TEST_F(Rv61300Test, DeviceWhoseRecordCantBeReadStopsTheProgram) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  for (const u_int32_t nth : {1u, 2u}) {  // the first slot's record, the second's
    EXPECT_EXIT(
        {
          sim::Fault fault;
          fault.kind = sim::Fault::DEVICE_ERROR;
          fault.command = "Read";
          fault.device = LEAF2;
          fault.nth = nth;
          _fabric.faults.Add(fault);
          Burn(*_rom, true).Go(*_image);
        },
        testing::KilledBySignal(SIGABRT), "read_data.size\\(\\) == 16");
  }
}

TEST_F(Rv61300Test, RecordThatIsReadShortStopsTheProgram) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  AnswerNext("Read", "{ACK {data 0x40000000} {data 0x0} {data 0x6b}}");
  EXPECT_EXIT(Burn(*_rom, false).Go(*_image), testing::KilledBySignal(SIGABRT),
              "read_data.size\\(\\) == 16");
}

TEST_F(Rv61300Test, RefusalOfAWholeQueryEndsTheRun) {
  AddDevice(LEAF1, VALID, VALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  AnswerNext("Read", "ERROR:0:bus stuck");
  std::string console;
  EXPECT_EQ(GoError(console), "No more accessible devices");
  EXPECT_EQ(console, "\r-E- BURN FAILED:ALL:bus stuck\n");
}

}  // namespace
