#include "src/BurnAlgorithm.h"

#include "tests/support/fabric_support.h"

namespace {

using Field = FwImage::FieldReplace;
using Crc = FwImage::CrcReplace;
using Meter = BurnAlgorithm::PercentProgressMeter;

class CrcTest : public FabricTest {
 protected:
  CrcTest() : _rom(_fabric), _burn(_rom) {}

  RecordedI2c _rom;
  GenericBurn _burn;
};

TEST_F(CrcTest, KnownValues) {
  EXPECT_EQ(_burn.CalcCrc({}), 0x0955u);
  EXPECT_EQ(_burn.CalcCrc(Hex("00000000")), 0x0009u);
  EXPECT_EQ(_burn.CalcCrc(Hex("cb84cb84")), 0xB29Bu);
}

TEST_F(CrcTest, RandomDataOfEveryLengthAgreesWithTheDefinition) {
  TestRng rng(16);
  for (std::size_t words = 0; words < 200; ++words) {
    const DataVec data = RandomBytes(rng, 4 * words);
    EXPECT_EQ(_burn.CalcCrc(data), ReferenceCrc(data)) << words;
  }
}

TEST_F(CrcTest, DataThatIsNoWholeWordsStopsTheProgram) {
  EXPECT_EXIT(_burn.CalcCrc(DataVec(5)), testing::KilledBySignal(SIGABRT),
              "\\(data.size\\(\\) % 4\\) == 0");
}

TEST_F(CrcTest, WordsAreAddedOneByOneAndTheRegisterCleared) {
  Crc16 crc(false);
  crc << 0xCB84CB84;
  crc.finish();
  EXPECT_EQ(crc.get(), 0xB29B);
  crc.clear();
  EXPECT_EQ(crc.get(), 0xFFFF);
  crc.add(0);
  crc.finish();
  EXPECT_EQ(crc.get(), 0x0009);
}

TEST_F(CrcTest, EveryWordIsPrintedForDebugging) {
  std::cout << std::hex;
  EXPECT_EQ(OutputOf([] {
              Crc16 crc(true);
              crc << 0x1F;
              crc.add(0xCB84CB84);
              crc.finish();
            }),
            "Crc16::add(0000001f)\nCrc16::add(cb84cb84)\n");
}

TEST_F(CrcTest, ComparisonWantsSameLengthAndSameBytes) {
  EXPECT_TRUE(BurnAlgorithm::Compare({}, {}));
  EXPECT_TRUE(BurnAlgorithm::Compare({1, 2}, {1, 2}));
  EXPECT_FALSE(BurnAlgorithm::Compare({1, 2}, {1, 3}));
  EXPECT_FALSE(BurnAlgorithm::Compare({1, 2}, {1, 2, 3}));
}

class MeterTest : public ConsoleTest {
 protected:
  static std::string Added(Meter& meter, u_int32_t done) {
    return OutputOf([&] { EXPECT_EQ(meter.Add(done), BRAID_OK); });
  }
};

TEST_F(MeterTest, LineShowsSpinnerLabelAndPercent) {
  Meter meter("Burning ", 200);
  EXPECT_EQ(Added(meter, 0), "\r\\ Burning  - % 0");
  EXPECT_EQ(Added(meter, 14), "\r| Burning  - % 7");
  EXPECT_EQ(Added(meter, 60), "\r/ Burning  - %37");
}

TEST_F(MeterTest, SpinnerTurnsThroughEightPlaces) {
  Meter meter("", 1000);
  std::string spinner;
  for (int i = 0; i < 9; ++i) spinner += Added(meter, 1).at(1);
  EXPECT_EQ(spinner, "\\|/-\\|/-\\");
}

TEST_F(MeterTest, CompletionIsPrintedOnce) {
  Meter meter("M", 10);
  Added(meter, 9);
  EXPECT_EQ(Added(meter, 1), "\r- M -  OK \n");
  EXPECT_EQ(Added(meter, 1), "");
  EXPECT_EQ(Added(meter, 100), "");
}

TEST_F(MeterTest, ResetRedrawsAtZeroAndRearms) {
  Meter meter("M", 10);
  Added(meter, 10);
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(meter.Reset(20), BRAID_OK); }), "\r\\ M - % 0");
  EXPECT_EQ(Added(meter, 10), "\r| M - %50");
  EXPECT_EQ(Added(meter, 10), "\r- M -  OK \n");
}

TEST_F(MeterTest, ResetToZeroKeepsTheMaximum) {
  Meter meter("M", 10);
  EXPECT_EQ(OutputOf([&] { meter.Reset(0); }), "\r\\ M - % 0");
  EXPECT_EQ(Added(meter, 5), "\r| M - %50");
}

TEST_F(MeterTest, LabelChangesWithTheNextRedraw) {
  Meter meter("old", 10);
  EXPECT_EQ(OutputOf([&] { meter.SetMsg("new"); }), "");
  EXPECT_EQ(Added(meter, 1), "\r\\ new - %10");
}

TEST_F(MeterTest, MeterWithoutAMaximumStaysAtZero) {
  Meter meter("M", 0);
  EXPECT_EQ(Added(meter, 0), "\r\\ M - % 0");
  EXPECT_EQ(Added(meter, 100), "\r| M - % 0");
}

TEST_F(MeterTest, PercentIsComputedIn32Bits) {
  Meter meter("M", 0x4000000);  // 64 MiB
  // 0x3000000 * 100 is 5033164800, which 32 bits hold as 738197504: 11 times the maximum.
  EXPECT_EQ(Added(meter, 0x3000000), "\r\\ M - %11");
}

TEST_F(MeterTest, FillLeftByAFailureLineShowsInThePercent) {
  Meter meter("M", 100);
  OutputOf([] { PrintBurnError("x", 1); });
  EXPECT_EQ(Added(meter, 7), "\r\\ M - %07");
  EXPECT_EQ(OutputOf([] { std::cout << 255; }), "255");  // and the base is decimal from here on
}

class RegionTest : public FabricTest {
 protected:
  RegionTest() : _rom(_fabric), _burn(_rom) { _fabric.facts.type = "PPC"; }

  void OpenFor(const GuidSet& guids) {
    AddAdapters(guids);
    OpenQuietly(_rom, guids);
  }

  DataVec Memory(Guid guid, u_int32_t addr, u_int32_t size) {
    return MemoryOf(_fabric, guid, 0, addr, size);
  }

  static DataVec GuidBytes(Guid guid) {
    DataVec bytes;
    bytes << guid;
    return bytes;
  }

  static DataVec CrcWord(const DataVec& covered) {
    DataVec word;
    word << ReferenceCrc(covered);
    return word;
  }

  RecordedI2c _rom;
  GenericBurn _burn;
};

TEST_F(RegionTest, RegionWithoutFieldsIsOneWrite) {
  OpenFor({LEAF1, LEAF2});
  DataVec data(8, 0x11);
  EXPECT_EQ(_burn.BurnRegion(0x40, data, {}, {}), BRAID_OK);
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 8 0x40 "
                      "0x11111111 0x11111111 "}));
}

TEST_F(RegionTest, EachDeviceGetsItsFieldsAndThenItsCrcs) {
  OpenFor({LEAF1, LEAF2});
  DataVec data(24, 0x11);
  _burn.BurnRegion(0x40, data, {{0x48, 8, GUID}, {0x40, 8, SYS_GUID}}, {{0x40, 20, 0x54}});
  const DataVec crc1 = CrcWord(Hex("000000000000100f 0000000000001000 11111111"));
  const DataVec crc2 = CrcWord(Hex("000000000000200f 0000000000002000 11111111"));
  const auto word = [](const DataVec& bytes) {
    return Text("0x", std::hex, u_int32_t{bytes[2]} << 8 | bytes[3], " ");
  };
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 24 0x40 "
                      "0xffffffff 0xffffffff 0xffffffff 0xffffffff 0x11111111 0xffffffff ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0x48 0x0 0x1000 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0x40 0x0 0x100f ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x54 " + word(crc1),
                      "vsI2cWriteMulti 1 0x0000000000002000 0x0 8 0x48 0x0 0x2000 ",
                      "vsI2cWriteMulti 1 0x0000000000002000 0x0 8 0x40 0x0 0x200f ",
                      "vsI2cWriteMulti 1 0x0000000000002000 0x0 4 0x54 " + word(crc2)}));
  EXPECT_EQ(Memory(LEAF2, 0x40, 20), Hex("000000000000200f 0000000000002000 11111111"));
  EXPECT_EQ(Memory(LEAF2, 0x54, 4), crc2);
  // The data holds the last device's values, and the CRC place is blank.
  EXPECT_EQ(data, Hex("000000000000200f 0000000000002000 11111111 ffffffff"));
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF2}));
}

TEST_F(RegionTest, BurningTheRegionAgainGivesTheSameContents) {
  OpenFor({LEAF1, LEAF2});
  DataVec data(24, 0x11);
  const auto burn = [&] {
    _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}}, {{0x40, 20, 0x54}});
    return Memory(LEAF1, 0x40, 24);
  };
  const DataVec first = burn();
  EXPECT_EQ(burn(), first);
}

TEST_F(RegionTest, SignatureCountsForTheCrcAndIsNotWritten) {
  OpenFor({LEAF1});
  DataVec data(12, 0x11);
  _burn.BurnRegion(0x40, data, {{0x44, 4, SIGNATURE}}, {{0x40, 8, 0x48}});
  EXPECT_EQ(Memory(LEAF1, 0x40, 8), Hex("11111111 ffffffff"));
  EXPECT_EQ(Memory(LEAF1, 0x48, 4), CrcWord(Hex("11111111 cb84cb84")));
  EXPECT_EQ(data, Hex("11111111 cb84cb84 ffffffff"));
  EXPECT_EQ(_rom.Requests().size(), 2u);
}

TEST_F(RegionTest, CrcPlaceBelowTheRegionIsNotBlankedButWritten) {
  OpenFor({LEAF1});
  DataVec data(8, 0x11);
  _burn.BurnRegion(0x40, data, {}, {{0x40, 8, 0x20}});
  EXPECT_EQ(data, DataVec(8, 0x11));
  EXPECT_EQ(Memory(LEAF1, 0x20, 4), CrcWord(DataVec(8, 0x11)));
  EXPECT_EQ(Memory(LEAF1, 0x40, 8), DataVec(8, 0x11));
}

TEST_F(RegionTest, FieldOfAnotherLengthThanDeclaredStopsTheProgram) {
  OpenFor({LEAF1});
  DataVec data(32);
  EXPECT_EXIT(_burn.BurnRegion(0x40, data, {{0x40, 12, GUID}}, {}),
              testing::KilledBySignal(SIGABRT), "rep_data.size\\(\\) == fit->size");
}

TEST_F(RegionTest, DeviceThatRefusesAFieldEndsItsOwnStepsOnly) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  Fail(sim::Fault::DEVICE_ERROR, "GetVsd", LEAF2, "no data");
  DataVec data(216, 0x11);
  const std::string output = OutputOf([&] {
    EXPECT_EQ(_burn.BurnRegion(0x40, data, {{0x40, 208, VSD}}, {{0x40, 208, 0x110}}), BRAID_OK);
  });
  EXPECT_EQ(output, "\r-E- BURN FAILED:0x0000000000002000:no data\n");
  for (const Guid guid : {LEAF1, LEAF3}) {
    EXPECT_EQ(Memory(guid, 0x40, 208), _fabric.Find(guid)->vsd);
    EXPECT_EQ(Memory(guid, 0x110, 4), CrcWord(_fabric.Find(guid)->vsd));
  }
  EXPECT_EQ(Memory(LEAF2, 0x110, 4), Hex("ffffffff"));
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF3}));
}

TEST_F(RegionTest, RefusedSerialNumberEndsTheRun) {
  // The answer to this command has no elements: its error is one of the whole request.
  OpenFor({LEAF1, LEAF2});
  Fail(sim::Fault::DEVICE_ERROR, "BSNGet", LEAF1, "no number");
  DataVec data(64, 0x11);
  std::string error;
  EXPECT_EQ(OutputOf([&] {
              error = ErrorOf([&] { _burn.BurnRegion(0x40, data, {{0x40, 64, BSN}}, {}); });
            }),
            "\r-E- BURN FAILED:ALL:no number\n");
  EXPECT_EQ(error, "No more accessible devices");
}

TEST_F(RegionTest, DeviceThatFailsToWriteAFieldEndsItsOwnStepsOnly) {
  OpenFor({LEAF1, LEAF2});
  sim::Fault fault;
  fault.kind = sim::Fault::DEVICE_ERROR;
  fault.command = "Write";
  fault.device = LEAF1;
  fault.nth = 2;  // the first is the region's
  fault.text = "stuck";
  _fabric.faults.Add(fault);
  DataVec data(16, 0x11);
  OutputOf([&] { _burn.BurnRegion(0x40, data, {{0x40, 8, GUID}}, {{0x40, 8, 0x48}}); });
  EXPECT_EQ(Memory(LEAF1, 0x48, 4), Hex("ffffffff"));
  EXPECT_EQ(Memory(LEAF2, 0x40, 8), GuidBytes(LEAF2));
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF2});
}

/// Loads an image from text and burns it.
class GenericBurnTest : public RegionTest {
 protected:
  void Load(const std::string& text) { _image.Open(_folder.Write("fw.img", text).c_str(), READ); }

  common::ScratchFolder _folder;
  FwImage _image;
};

TEST_F(GenericBurnTest, NamesItself) {
  EXPECT_EQ(_burn.GetName(), "GenericBurn");
  EXPECT_EQ(RV52100DirectBurn(_rom).GetName(), "RV52100DirectBurn");
}

TEST_F(GenericBurnTest, EmptyImageDrawsTheMeterAndSendsTheBracket) {
  _fabric.Add(FlashDevice(0x5000));
  RecordedFlash flash(_fabric);
  OpenQuietly(flash, {0x5000});
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(GenericBurn(flash).Go(_image), BRAID_OK); }),
            "-I- Generic Burning:\n\r\\ Burning  - % 0");
  EXPECT_EQ(flash.Requests(), (Requests{"vsFlashStartMulti 1 0x0000000000005000  1",
                                        "vsFlashStopMulti 1 0x0000000000005000 "}));
}

TEST_F(GenericBurnTest, SectionsAreBurntInFileOrderUnderOneMeter) {
  OpenFor({LEAF1});
  Load("START B 80 0\n1 2 3 4\nEND B\nSTART A 40 0\n5 6 7 8 9 A B C\nEND A\n");
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(_burn.Go(_image), BRAID_OK); }),
            "-I- Generic Burning:\n"
            "\r\\ Burning  - % 0"
            "\r| Burning  - %33"
            "\r- Burning  -  OK \n");
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x80 0x1020304 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0x40 0x5060708 0x90a0b0c "}));
}

TEST_F(GenericBurnTest, VendorDataAndSignaturesStayAsTheImageHasThem) {
  OpenFor({LEAF1});
  std::string text = "SIGNATURE 0 40 0\nREPLACE VSD 100 0\nREPLACE GUID 48 0\n";
  text += "START A 40 0\nCB 84 CB 84 11 11 11 11 22 22 22 22 22 22 22 22\nEND A\n";
  text += "START V 100 0\n";
  for (int i = 0; i < 52; ++i) text += "77 77 77 77\n";
  Load(text + "END V\n");
  OutputOf([&] { _burn.Go(_image); });
  EXPECT_EQ(Memory(LEAF1, 0x40, 16), Hex("cb84cb84 11111111 0000000000001000"));
  EXPECT_EQ(Memory(LEAF1, 0x100, 208), DataVec(208, 0x77));
  for (const std::string& request : _rom.Requests()) {
    EXPECT_EQ(request.find("GetVsd"), std::string::npos);
  }
}

TEST_F(GenericBurnTest, ZeroByteSectionSendsNothing) {
  OpenFor({LEAF1});
  Load("START A 40 0\nEND A\n");
  OutputOf([&] { _burn.Go(_image); });
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(GenericBurnTest, FieldThatCrossesItsSectionEndsTheRunBeforeThatSection) {
  OpenFor({LEAF1});
  Load("REPLACE GUID 84 0\nSTART A 40 0\n1 2 3 4\nEND A\nSTART B 80 0\n1 2 3 4 5 6 7 8\nEND B\n");
  std::string error;
  OutputOf([&] { error = ErrorOf([&] { _burn.Go(_image); }); });
  EXPECT_EQ(error, "Replace field (from:84, type:3) crosses image section (addr:80 , size:8).");
  EXPECT_EQ(Memory(LEAF1, 0x80, 4), Hex("ffffffff"));
}

TEST_F(GenericBurnTest, MeterIsTakenBackWhenTheBurnEnds) {
  OpenFor({LEAF1});
  Load("START A 40 0\n1 2 3 4\nEND A\n");
  OutputOf([&] { _burn.Go(_image); });
  EXPECT_EQ(OutputOf([&] { _rom.Write(0, DataVec(4), true); }), "");
}

/// Returns BRAID_ERR_ALL from the second region on.
class GivesUp : public GenericBurn {
 public:
  using GenericBurn::GenericBurn;
  BraidResult BurnRegion(u_int32_t, DataVec&, const std::vector<Field>&,
                         const std::vector<Crc>&) override {
    return ++_regions == 2 ? BRAID_ERR_ALL : BRAID_OK;
  }
  int _regions = 0;
};

TEST_F(GenericBurnTest, RegionThatFailsForAllEndsTheBurnWithoutStop) {
  _fabric.Add(FlashDevice(0x5000));
  RecordedFlash flash(_fabric);
  OpenQuietly(flash, {0x5000});
  Load("START A 40 0\nEND A\nSTART B 80 0\nEND B\nSTART C 90 0\nEND C\n");
  GivesUp burn(flash);
  OutputOf([&] { EXPECT_EQ(burn.Go(_image), BRAID_ERR_ALL); });
  EXPECT_EQ(burn._regions, 2);
  EXPECT_EQ(flash.Requests(), (Requests{"vsFlashStartMulti 1 0x0000000000005000  1"}));
}

class DirectBurnTest : public GenericBurnTest {
 protected:
  std::string ErrorOfBurn() {
    std::string error;
    OutputOf([&] { error = ErrorOf([&] { RV52100DirectBurn(_rom).Go(_image); }); });
    return error;
  }
};

TEST_F(DirectBurnTest, ServerBurnsTheWholeFile) {
  OpenFor({LEAF1, LEAF2});
  std::string text = "REPLACE GUID 40 0\nSTART A 40 0\n";
  for (int i = 0; i < 1000; ++i) text += "1 2 3 4 5 6 7 8\n";  // more than one piece
  Load(text + "END A\n");
  OutputOf([&] { EXPECT_EQ(RV52100DirectBurn(_rom).Go(_image), BRAID_OK); });
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cBurnImageMulti 2 0x0000000000001000 0x0000000000002000 "}));
  for (const Guid guid : {LEAF1, LEAF2}) {
    EXPECT_EQ(Memory(guid, 0x40, 8), GuidBytes(guid));
    EXPECT_EQ(Memory(guid, 0x48, 8), Hex("0102030405060708"));
  }
}

TEST_F(DirectBurnTest, MissingFileIsRefused) {
  OpenFor({LEAF1});
  Load("");
  const std::string file = _image.GetFileName();
  std::filesystem::remove(file);
  EXPECT_EQ(ErrorOfBurn(), "Can't open FW file " + file + ".");
}

TEST_F(DirectBurnTest, FileWithANulIsRefused) {
  OpenFor({LEAF1});
  Load(std::string("# a\0b\n", 6));
  EXPECT_EQ(ErrorOfBurn(),
            "Internal error: Didn't get EOF after reading FW file " + _image.GetFileName() + ".");
  EXPECT_TRUE(_rom.Requests().empty());
}

}  // namespace
