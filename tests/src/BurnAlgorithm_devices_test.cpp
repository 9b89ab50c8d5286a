// Burns on several devices at once: what each of them holds afterwards, in which order it got
// there, and what becomes of the others when one fails.
#include "src/BurnAlgorithm.h"
#include "tests/support/fabric_support.h"

namespace {

using Field = FwImage::FieldReplace;
using Crc = FwImage::CrcReplace;
using Meter = BurnAlgorithm::PercentProgressMeter;

DataVec CrcWord(const DataVec& covered) {
  DataVec word;
  word << ReferenceCrc(covered);
  return word;
}

class DevicesTest : public FabricTest {
 protected:
  // Chunks as large as a chip: one request for each region, field and CRC.
  DevicesTest() : _rom(_fabric, 13), _burn(_rom) { _fabric.facts.type = "PPC"; }

  void OpenFor(const GuidSet& guids) {
    AddAdapters(guids);
    OpenQuietly(_rom, guids);
  }

  DataVec Memory(Guid guid, u_int32_t addr, u_int32_t size) const {
    return MemoryOf(_fabric, guid, 0, addr, size);
  }

  /// Has the device refuse the `nth` write that names it.
  void RefuseWrite(Guid guid, u_int32_t nth, const std::string& text = "stuck") {
    sim::Fault fault;
    fault.kind = sim::Fault::DEVICE_ERROR;
    fault.command = "Write";
    fault.device = guid;
    fault.nth = nth;
    fault.text = text;
    _fabric.faults.Add(fault);
  }

  /// The requests so far, each as its devices' number, size and offset: "2: 8@0x40".
  template <typename Rom>
  static Requests Outlines(Rom& rom) {
    Requests outlines;
    for (const std::string& request : rom.Requests()) {
      const auto words = splitv(request, " ", false);
      if (words[0].find("Write") == std::string::npos) {
        outlines.push_back(words[0]);
        continue;
      }
      const std::size_t count = std::stoul(words[1]);
      outlines.push_back(words[1] + ": " + words[3 + count] + "@" + words[4 + count]);
    }
    return outlines;
  }

  RecordedI2c _rom;
  GenericBurn _burn;
};

TEST_F(DevicesTest, DevicesDifferInTheirFieldsAndInTheCrcsThatCoverThem) {
  OpenFor({LEAF1, LEAF2});
  DataVec data(0x30, 0x11);
  _burn.BurnRegion(0x100, data, {{0x108, 8, GUID}}, {{0x100, 0x10, 0x120}, {0x110, 0x10, 0x124}});
  const DataVec first = Memory(LEAF1, 0x100, 0x30);
  const DataVec second = Memory(LEAF2, 0x100, 0x30);
  for (std::size_t i = 0; i < first.size(); ++i) {
    const bool may_differ = (i >= 8 && i < 0x10) || (i >= 0x20 && i < 0x24);
    if (may_differ) continue;
    EXPECT_EQ(first[i], second[i]) << i;
  }
  EXPECT_EQ(Memory(LEAF1, 0x108, 8), Hex("0000000000001000"));
  EXPECT_EQ(Memory(LEAF2, 0x108, 8), Hex("0000000000002000"));
  EXPECT_EQ(Memory(LEAF1, 0x120, 4), CrcWord(Hex("1111111111111111 0000000000001000")));
  EXPECT_EQ(Memory(LEAF2, 0x120, 4), CrcWord(Hex("1111111111111111 0000000000002000")));
  EXPECT_EQ(Memory(LEAF1, 0x124, 4), CrcWord(DataVec(0x10, 0x11)));
  EXPECT_EQ(Memory(LEAF2, 0x124, 4), CrcWord(DataVec(0x10, 0x11)));
}

TEST_F(DevicesTest, CrcThatCoversAnothersPlaceSeesItBlank) {
  OpenFor({LEAF1});
  DataVec data(0x20, 0x11);
  _burn.BurnRegion(0x40, data, {}, {{0x40, 8, 0x48}, {0x40, 0x10, 0x50}});
  EXPECT_EQ(Outlines(_rom), (Requests{"1: 32@0x40", "1: 4@0x48", "1: 4@0x50"}));
  EXPECT_EQ(Memory(LEAF1, 0x48, 4), CrcWord(DataVec(8, 0x11)));
  EXPECT_EQ(Memory(LEAF1, 0x50, 4), CrcWord(Hex("1111111111111111 ffffffff 11111111")));
  EXPECT_EQ(data, Hex("1111111111111111 ffffffff 11111111 ffffffff 111111111111111111111111"));
}

TEST_F(DevicesTest, CrcWordIsTwoZeroBytesAndTheCrc) {
  OpenFor({LEAF1});
  DataVec data = Hex("cb84cb84 11111111");
  _burn.BurnRegion(0x40, data, {}, {{0x40, 4, 0x44}});
  EXPECT_EQ(_rom.Requests().back(), "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x44 0xb29b ");
  EXPECT_EQ(Memory(LEAF1, 0x44, 4), Hex("0000b29b"));
}

TEST_F(DevicesTest, FieldsAreWrittenInTheirOrderAndThenTheCrcs) {
  OpenFor({LEAF1});
  DataVec data(0x60, 0x11);
  _burn.BurnRegion(0x40, data, {{0x68, 8, SYS_GUID}, {0x90, 4, SIGNATURE}, {0x40, 32, GUIDS}},
                   {{0x40, 0x50, 0x9C}, {0x40, 0x20, 0x98}});
  EXPECT_EQ(Outlines(_rom),
            (Requests{"1: 96@0x40", "1: 8@0x68", "1: 32@0x40", "1: 4@0x9c", "1: 4@0x98"}));
}

TEST_F(DevicesTest, RegionForNobodyIsBlankedAndNotSent) {
  OpenFor({LEAF1, LEAF2});
  OutputOf([&] { _rom.DeviceError("broken", LEAF1); });
  _rom.SetActiveDevices(LEAF1);
  DataVec data(16, 0x11);
  EXPECT_EQ(_burn.BurnRegion(0x40, data, {{0x40, 4, SIGNATURE}}, {{0x40, 8, 0x48}}), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
  EXPECT_EQ(data, Hex("ffffffff 11111111 ffffffff 11111111"));
}

TEST_F(DevicesTest, NarrowedActiveSetIsRestored) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  GuidSet some{LEAF1, LEAF3};
  _rom.SetActiveDevices(some);
  DataVec data(8, 0x11);
  EXPECT_EQ(_burn.WriteUniq(0x40, data, {{0x40, 8, GUID}}, {}), BRAID_OK);
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF3}));
  EXPECT_EQ(Memory(LEAF2, 0x40, 8), DataVec(8, 0xFF));
  EXPECT_EQ(data, Hex("0000000000003000"));
}

TEST_F(DevicesTest, DeviceThatFailsTheRegionGetsNoneOfItsOwnSteps) {
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 1);
  DataVec data(16, 0x11);
  OutputOf([&] { _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}}, {{0x40, 8, 0x48}}); });
  EXPECT_EQ(Outlines(_rom), (Requests{"2: 16@0x40", "1: 8@0x40", "1: 4@0x48"}));
  EXPECT_EQ(Memory(LEAF2, 0x40, 8), Hex("0000000000002000"));
}

TEST_F(DevicesTest, DeviceThatFailsOneFieldGetsNoFurtherFieldNorCrc) {
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 2);
  DataVec data(24, 0x11);
  EXPECT_EQ(
      OutputOf([&] {
        _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}, {0x48, 8, SYS_GUID}}, {{0x40, 16, 0x50}});
      }),
      "\r-E- BURN FAILED:0x0000000000001000:stuck\n");
  EXPECT_EQ(Outlines(_rom),
            (Requests{"2: 24@0x40", "1: 8@0x40", "1: 8@0x40", "1: 8@0x48", "1: 4@0x50"}));
  EXPECT_EQ(Memory(LEAF1, 0x40, 24), Hex("ffffffffffffffff ffffffffffffffff ffffffff 11111111"));
  EXPECT_EQ(Memory(LEAF2, 0x50, 4), CrcWord(Hex("0000000000002000 000000000000200f")));
}

TEST_F(DevicesTest, DeviceThatFailsOneCrcGetsNoFurther) {
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 2);
  DataVec data(16, 0x11);
  OutputOf([&] { _burn.BurnRegion(0x40, data, {}, {{0x40, 8, 0x48}, {0x40, 8, 0x4C}}); });
  EXPECT_EQ(Outlines(_rom), (Requests{"2: 16@0x40", "1: 4@0x48", "1: 4@0x48", "1: 4@0x4c"}));
  EXPECT_EQ(Memory(LEAF1, 0x48, 8), DataVec(8, 0xFF));
  EXPECT_EQ(Memory(LEAF2, 0x4C, 4), CrcWord(DataVec(8, 0x11)));
}

TEST_F(DevicesTest, DeviceThatFailsAFieldIsAskedForNoOther) {
  // What a failed device is asked for comes back empty, and a field of no length would stop all.
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 2);
  DataVec data(320, 0x11);
  OutputOf([&] {
    _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}, {0x48, 208, VSD}, {0x118, 64, BSN}}, {});
  });
  EXPECT_EQ(Outlines(_rom), (Requests{"2: 320@0x40", "1: 8@0x40", "1: 8@0x40", "vsGetVsdMulti",
                                      "1: 208@0x48", "crBSNGet", "1: 64@0x118"}));
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF2});
}

/// Adds up what it is told of.
class SummingMeter : public RomInterface::ProgressMeter {
 public:
  BraidResult Add(u_int32_t done) override {
    _sum += done;
    return BRAID_OK;
  }
  BraidResult Reset(u_int32_t) override { return BRAID_OK; }
  u_int32_t _sum = 0;
};

TEST_F(DevicesTest, StepsThatAFailedDeviceDoesNotTakeAreNoProgress) {
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 2);
  SummingMeter meter;
  _rom.SetProgresMeter(&meter);
  DataVec data(16, 0x11);
  OutputOf([&] { _burn.BurnRegion(0x40, data, {}, {{0x40, 8, 0x48}, {0x40, 8, 0x4C}}); });
  EXPECT_EQ(meter._sum, 16u + 4 + 8);  // the region, the CRC that failed, the other device's two
}

TEST_F(DevicesTest, LastDeviceThatFailsItsStepsEndsTheRun) {
  OpenFor({LEAF1});
  RefuseWrite(LEAF1, 2);
  DataVec data(8, 0x11);
  std::string error;
  OutputOf([&] { error = ErrorOf([&] { _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}}, {}); }); });
  EXPECT_EQ(error, "No more accessible devices");
}

TEST_F(DevicesTest, DeviceFieldOfAnotherLengthThanDeclaredStopsTheProgram) {
  OpenFor({LEAF1});
  DataVec data(256);
  AnswerNext("GetVsd", "{ACK {data 0x1}}");
  AnswerNext("BSNGet", "ACK {bsn 0x1}");
  const std::vector<Field> fields[] = {{{0x40, 208, VSD}}, {{0x40, 64, BSN}}};
  for (const auto& field : fields) {
    EXPECT_EXIT(_burn.BurnRegion(0x40, data, field, {}), testing::KilledBySignal(SIGABRT),
                "rep_data.size\\(\\) == fit->size");
  }
}

TEST_F(DevicesTest, CrcOverAPartOfAWordStopsTheProgram) {
  OpenFor({LEAF1});
  DataVec data(16);
  EXPECT_EXIT(_burn.BurnRegion(0x40, data, {}, {{0x40, 6, 0x48}}), testing::KilledBySignal(SIGABRT),
              "\\(data.size\\(\\) % 4\\) == 0");
}

/// An algorithm with a CRC and last steps of its own.
class OwnSteps : public GenericBurn {
 public:
  using GenericBurn::GenericBurn;
  u_int32_t CalcCrc(std::span<const u_int8_t>) override { return 0x12345678; }
  BraidResult WriteUniq(u_int32_t addr, DataVec& data, const std::vector<Field>& fields,
                        const std::vector<Crc>& crcs) override {
    ++_calls;
    GenericBurn::WriteUniq(addr, data, fields, crcs);
    return BRAID_ERR_ALL;
  }
  int _calls = 0;
};

TEST_F(DevicesTest, AlgorithmsReplaceTheStepsAndTheirResultIsNotPassedUp) {
  OpenFor({LEAF1});
  OwnSteps burn(_rom);
  DataVec data(8, 0x11);
  EXPECT_EQ(burn.BurnRegion(0x40, data, {}, {}), BRAID_OK);
  EXPECT_EQ(burn._calls, 0);
  EXPECT_EQ(burn.BurnRegion(0x40, data, {}, {{0x40, 4, 0x44}}), BRAID_OK);
  EXPECT_EQ(burn._calls, 1);
  EXPECT_EQ(Memory(LEAF1, 0x44, 4), Hex("12345678"));
}

TEST_F(DevicesTest, FlashIsErasedOnceAndItsFieldsAreProgrammedOverBlankBytes) {
  _fabric.Add(FlashDevice(0x5000));
  RecordedFlash flash(_fabric, 16);
  OpenQuietly(flash, {0x5000});
  GenericBurn burn(flash);
  DataVec data(24, 0);  // bits that only an erase would set again
  burn.BurnRegion(0x20000, data, {{0x20008, 8, GUID}}, {{0x20000, 16, 0x20010}});
  EXPECT_EQ(Outlines(flash),
            (Requests{"vsFlashEraseSectorMulti", "1: 24@0x20000", "1: 8@0x20008", "1: 4@0x20010"}));
  DataVec expected = Hex("0000000000000000 0000000000005000");
  expected << ReferenceCrc(expected) << u_int32_t{0};
  EXPECT_EQ(MemoryOf(_fabric, 0x5000, 0, 0x20000, 24), expected);
  EXPECT_TRUE(_fabric.Find(0x5000)->chips.at(0).Violations().empty());
}

TEST_F(DevicesTest, FieldsAndCrcsOfAnEarlierSectorAreProgrammedWithoutErasingItAgain) {
  _fabric.Add(FlashDevice(0x5000));
  RecordedFlash flash(_fabric, 16);
  OpenQuietly(flash, {0x5000});
  GenericBurn burn(flash);
  DataVec data(0x20010, 0x11);  // over three sectors; the last one is erased last
  burn.BurnRegion(0x20000, data, {{0x20000, 8, GUID}}, {{0x20000, 16, 0x30000}});
  EXPECT_EQ(Outlines(flash),
            (Requests{"vsFlashEraseSectorMulti", "1: 65536@0x20000", "vsFlashEraseSectorMulti",
                      "1: 65536@0x30000", "vsFlashEraseSectorMulti", "1: 16@0x40000",
                      "1: 8@0x20000", "1: 4@0x30000"}));
  const sim::Chip& chip = _fabric.Find(0x5000)->chips.at(0);
  EXPECT_EQ(chip.EraseCounts()[2], 1u);
  EXPECT_EQ(chip.EraseCounts()[3], 1u);
  EXPECT_TRUE(chip.Violations().empty());
  DataVec expected(0x20010, 0x11);
  const DataVec guid = Hex("0000000000005000");
  std::copy(guid.begin(), guid.end(), expected.begin());
  const DataVec crc = CrcWord(Hex("0000000000005000 1111111111111111"));
  std::copy(crc.begin(), crc.end(), expected.begin() + 0x10000);
  EXPECT_TRUE(MemoryOf(_fabric, 0x5000, 0, 0x20000, 0x20010) == expected);
}

TEST_F(DevicesTest, CrcsAreComputedInSilence) {
  EXPECT_EQ(OutputOf([&] {
              _burn.CalcCrc(Hex("cb84cb84"));
              Crc16 crc(false);
              crc << 1;
            }),
            "");
}

class MeterLimitsTest : public ConsoleTest {
 protected:
  static std::string Added(Meter& meter, u_int32_t done) {
    return OutputOf([&] { EXPECT_EQ(meter.Add(done), BRAID_OK); });
  }
};

TEST_F(MeterLimitsTest, ProductThatPasses32BitsWrapsToNothing) {
  Meter meter("M", 85899346);
  EXPECT_EQ(Added(meter, 42949672), "\r\\ M - %49");  // times 100 is 4294967200
  EXPECT_EQ(Added(meter, 1), "\r| M - % 0");          // times 100 is 4294967300, or 4
}

TEST_F(MeterLimitsTest, PercentIsDecimalWhateverTheBase) {
  Meter meter("M", 100);
  std::cout << std::hex;
  EXPECT_EQ(Added(meter, 31), "\r\\ M - %31");
}

TEST_F(MeterLimitsTest, ResetOfAMeterWithoutAMaximumRedrawsIt) {
  Meter meter("M", 0);
  Added(meter, 5);
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(meter.Reset(0), BRAID_OK); }), "\r\\ M - % 0");
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(meter.Reset(10), BRAID_OK); }), "\r\\ M - % 0");
  EXPECT_EQ(Added(meter, 10), "\r- M -  OK \n");
}

TEST_F(MeterLimitsTest, MeterThatStartsCompletedSaysSo) {
  Meter meter("M", 10);
  EXPECT_EQ(Added(meter, 11), "\r- M -  OK \n");
  EXPECT_EQ(Added(meter, 0), "");
}

TEST_F(MeterLimitsTest, ResetReturnsWhatTheRedrawDoes) {
  class Refusing : public Meter {
   public:
    Refusing() : Meter("M", 10) {}
    BraidResult Add(u_int32_t done) override {
      _added.push_back(done);
      return BRAID_ERR_SOME;
    }
    std::vector<u_int32_t> _added;
  } meter;
  EXPECT_EQ(meter.Reset(5), BRAID_ERR_SOME);
  EXPECT_EQ(meter._added, std::vector<u_int32_t>{0});
}

/// Loads an image from text and burns it.
class ImageBurnTest : public DevicesTest {
 protected:
  void Load(const std::string& text) {
    _image.Open(_folder.Write("fw.img", text).c_str(), READ);
    _rom.SetAddressConvertor(_image.GetAddressConvertor());
  }

  /// What the burn prints; it must return BRAID_OK.
  std::string Burn() {
    return OutputOf([&] { EXPECT_EQ(_burn.Go(_image), BRAID_OK); });
  }

  /// `words` lines of four bytes.
  static std::string Words(const std::string& line, int words) {
    std::string text;
    for (int i = 0; i < words; ++i) text += line + "\n";
    return text;
  }

  common::ScratchFolder _folder;
  FwImage _image;
};

TEST_F(ImageBurnTest, EveryDeviceGetsItsGuidsAndSerialNumberUnderOneCrc) {
  for (const Guid guid : {LEAF1, LEAF2}) {
    sim::Device device = I2cDevice(guid, 2);
    for (std::size_t i = 0; i < sim::BSN_SIZE; ++i) {
      device.bsn[i] = static_cast<u_int8_t>((guid >> 8) + i);
    }
    _fabric.Add(std::move(device));
  }
  OpenQuietly(_rom, {LEAF1, LEAF2});
  Load(
      "DEVICE_TYPE RV61300\n"
      "DEVMAP 1000 50\n"
      "DEVMAP 1000 51\n"
      "REPLACE GUIDS 0 50\n"
      "REPLACE GUID 20 50\n"
      "REPLACE SYSGUID 28 50\n"
      "REPLACE BSN 30 50\n"
      "REPLACE CRC 0 50 6C 50 70 50\n"
      "START A 0 50\n" +
      Words("11 11 11 11", 30) + "END A\nSTART B 10 51\n22 22 22 22 22 22 22 22\nEND B\n");
  // 128 bytes in all: the region, and then the first device's GUIDs, which fill the meter.
  EXPECT_EQ(Burn(),
            "-I- Generic Burning:\n"
            "\r\\ Burning  - % 0"
            "\r| Burning  - %93"
            "\r- Burning  -  OK \n");
  EXPECT_EQ(Outlines(_rom),
            (Requests{"2: 120@0x0",  //
                      "1: 32@0x0", "1: 8@0x20", "1: 8@0x28", "crBSNGet", "1: 64@0x30", "1: 4@0x70",
                      "1: 32@0x0", "1: 8@0x20", "1: 8@0x28", "crBSNGet", "1: 64@0x30", "1: 4@0x70",
                      "2: 8@0x10"}));
  for (const Guid guid : {LEAF1, LEAF2}) {
    DataVec expected;
    expected << guid << guid + 1 << guid + 2 << guid + 0xF;  // GUIDS
    expected << guid << guid + 0xF;                          // GUID, SYSGUID
    expected << _fabric.Find(guid)->bsn;
    ASSERT_EQ(expected.size(), 0x70u);
    expected << ReferenceCrc(expected) << u_int32_t{0x11111111};
    EXPECT_EQ(MemoryOf(_fabric, guid, 0x50, 0, 0x78), expected);
    EXPECT_EQ(MemoryOf(_fabric, guid, 0x51, 0x10, 8), DataVec(8, 0x22));
    EXPECT_EQ(MemoryOf(_fabric, guid, 0x51, 0, 0x10), DataVec(0x10, 0xFF));
  }
}

TEST_F(ImageBurnTest, DeviceThatFailsIsLeftOutOfTheFollowingSections) {
  OpenFor({LEAF1, LEAF2});
  RefuseWrite(LEAF1, 1);
  Load("START A 0 0\n11 11 11 11 11 11 11 11\nEND A\nSTART B 100 0\n" + Words("22 22 22 22", 48) +
       "END B\n");
  // The failure line leaves its fill behind, and the meter shows it.
  EXPECT_EQ(Burn(),
            "-I- Generic Burning:\n"
            "\r\\ Burning  - % 0"
            "\r-E- BURN FAILED:0x0000000000001000:stuck\n"
            "\r| Burning  - %04"
            "\r- Burning  -  OK \n");
  EXPECT_EQ(Outlines(_rom), (Requests{"2: 8@0x0", "1: 192@0x100"}));
  EXPECT_EQ(Memory(LEAF1, 0x100, 192), DataVec(192, 0xFF));
  EXPECT_EQ(Memory(LEAF2, 0x100, 192), DataVec(192, 0x22));
}

TEST_F(ImageBurnTest, BurnThatLosesItsLastDeviceEndsAndGivesTheMeterBack) {
  OpenFor({LEAF1});
  RefuseWrite(LEAF1, 1);
  Load("START A 0 0\n1 2 3 4\nEND A\nSTART B 100 0\n1 2 3 4\nEND B\n");
  std::string error;
  OutputOf([&] { error = ErrorOf([&] { _burn.Go(_image); }); });
  EXPECT_EQ(error, "No more accessible devices");
  EXPECT_EQ(Outlines(_rom), Requests{"1: 4@0x0"});
  EXPECT_EQ(OutputOf([&] { _rom.Write(0, DataVec(4), true); }), "");
}

TEST_F(ImageBurnTest, BurnForgetsTheFieldsThatItDoesNotReplace) {
  OpenFor({LEAF1});
  Load("SIGNATURE 0 40 0\nREPLACE GUID 48 0\nREPLACE VSD 100 0\nSTART A 40 0\n" +
       Words("0 0 0 0", 8) + "END A\nSTART V 100 0\n" + Words("0 0 0 0", 52) + "END V\n");
  ASSERT_EQ(_image.GetFieldsInRange(0, 0x1000).size(), 3u);
  Burn();
  const auto fields = _image.GetFieldsInRange(0, 0x1000);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0].type, GUID);
}

TEST_F(ImageBurnTest, SectionThatStandsTwiceInTheOrderIsBurntTwice) {
  OpenFor({LEAF1});
  Load("START A 40 0\n1 2 3 4\nEND A\nSTART B 40 0\n5 6 7 8\nEND B\n");
  Burn();
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x40 0x1020304 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x40 0x1020304 "}));
}

TEST_F(ImageBurnTest, FlashBurnStandsBetweenStartAndStop) {
  _fabric.Add(FlashDevice(0x5000));
  RecordedFlash flash(_fabric, 16);
  OpenQuietly(flash, {0x5000});
  Load("START A 20000 0\n1 2 3 4\nEND A\nSTART B 30000 0\n5 6 7 8\nEND B\n");
  OutputOf([&] { EXPECT_EQ(GenericBurn(flash).Go(_image), BRAID_OK); });
  EXPECT_EQ(flash.Requests(),
            (Requests{"vsFlashStartMulti 1 0x0000000000005000  1",
                      "vsFlashEraseSectorMulti 1 0x0000000000005000 0x0 0x20000 ",
                      "vsFlashWriteMulti 1 0x0000000000005000 0x0 4 0x20000 0x1020304 ",
                      "vsFlashEraseSectorMulti 1 0x0000000000005000 0x0 0x30000 ",
                      "vsFlashWriteMulti 1 0x0000000000005000 0x0 4 0x30000 0x5060708 ",
                      "vsFlashStopMulti 1 0x0000000000005000 "}));
}

TEST_F(ImageBurnTest, DirectBurnDoesNotLookAtTheResult) {
  OpenFor({LEAF1, LEAF2});
  Load("START A 40 0\n1 2 3 4\nEND A\n");
  Fail(sim::Fault::DEVICE_ERROR, "BurnImage", LEAF1, "busy");
  EXPECT_EQ(WithoutLineNumbers(
                OutputOf([&] { EXPECT_EQ(RV52100DirectBurn(_rom).Go(_image), BRAID_OK); })),
            "-D- RomInterface:N: Received {ERROR:0x0000000000001000:busy} ACK\n"
            "\r-E- BURN FAILED:0x0000000000001000:busy\n");
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF2});
  EXPECT_EQ(Memory(LEAF2, 0x40, 4), Hex("01020304"));
}

TEST_F(ImageBurnTest, DirectBurnOfAnEmptyFileChangesNothing) {
  OpenFor({LEAF1});
  Load("");
  OutputOf([&] { EXPECT_EQ(RV52100DirectBurn(_rom).Go(_image), BRAID_OK); });
  EXPECT_EQ(Memory(LEAF1, 0, 0x2000), DataVec(0x2000, 0xFF));
  EXPECT_EQ(_rom.Requests(), (Requests{"vsI2cBurnImageMulti 1 0x0000000000001000 "}));
}

}  // namespace
