#include "src/main.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "protocol/Server.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"
#include "tests/support/support.h"

namespace {

constexpr char USAGE[] =
    "fwpush\n"
    "\n"
    "     FirmWare Burning Tool\n"
    "    -----------------------\n"
    "\n"
    "   Command Line Arguments (required) :\n"
    "     -f - The image file you wish to install FW (default IMAGE.IMG).\n"
    "     -s - Server to burn through. format: Type:<ip|hostname>:port  (IB:10.0.1.2:26519)\n"
    "     -g - Guids of the devices to burn, separated by commas.\n"
    "\n"
    "\n"
    "   Command Line Options : \n"
    "     -h - Help.\n"
    "     -v - Version.\n"
    "     -V - Verbose mode (DEBUG / WARNING / INFORM).\n"
    "     -m - Chunk alignment (log2) Default - 5 (32 bytes).\n"
    "     -n - Allow no fail-safe burning.\n"
    " version: " FWPUSH_VERSION
    "\n"
    "\n";
constexpr char VERSION[] = "fwpush " FWPUSH_VERSION ", BRAID , BUILD 20050712-1101\n";
constexpr char LONG_VERSION[] =
    "fwpush " FWPUSH_VERSION ", BRAID , BUILD 20050712-1101, CVS Revision: 1.10 $\n";
constexpr char NO_SERVER[] = "-E- -s <server> flag must be specified\n";
constexpr char NO_GUIDS[] = "-E- No target devices given (-g <guids> flag).\n";

class MainTest : public ConsoleTest {
 protected:
  /// Runs "fwpush" with `words`; the status goes to _status.
  std::string Run(std::vector<std::string> words) {
    words.insert(words.begin(), "fwpush");
    return OutputOf([&] {
      std::vector<char*> av;
      for (std::string& word : words) av.push_back(word.data());
      av.push_back(nullptr);
      _status = FwPush(static_cast<int>(words.size()), av.data());
    });
  }

  /// Runs the words and then what ends the run right after the command line: no server.
  std::string RunToTheChecks(std::vector<std::string> words) {
    const std::string output = Run(std::move(words));
    EXPECT_EQ(_status, 1);
    return output;
  }

  int _status = -1;
};

TEST_F(MainTest, SwitchIsSelectedByAnyAbbreviationOfItsName) {
  EXPECT_TRUE(swcmp("v", "version"));
  EXPECT_TRUE(swcmp("ver", "version"));
  EXPECT_TRUE(swcmp("version", "version"));
  EXPECT_TRUE(swcmp("", "f"));
  EXPECT_FALSE(swcmp("versions", "version"));
  EXPECT_FALSE(swcmp("fs", "f"));
  EXPECT_FALSE(swcmp("V", "version"));
  EXPECT_FALSE(swcmp("x", "version"));
}

TEST_F(MainTest, SwitchMayCarryAValueBehindAnEqualsSign) {
  EXPECT_TRUE(swcmp("f=x.img", "f"));
  EXPECT_TRUE(swcmp("ver=1", "version"));
  EXPECT_TRUE(swcmp("=x", "f"));
  EXPECT_FALSE(swcmp("fs=x", "f"));
}

TEST_F(MainTest, UsageIsPrintedWithTheNameOfTheProgram) {
  EXPECT_EQ(OutputOf([] { usage("fwpush"); }), USAGE);
  EXPECT_TRUE(OutputOf([] { usage("./x/y"); }).starts_with("./x/y\n\n     FirmWare"));
}

TEST_F(MainTest, NoArgumentsPrintUsageAndFail) {
  EXPECT_EQ(Run({}), USAGE);
  EXPECT_EQ(_status, 1);
}

TEST_F(MainTest, HelpPrintsUsageAndSucceeds) {
  for (const std::string word : {"-h", "-hel", "--help", "-help=1"}) {
    EXPECT_EQ(Run({word}), USAGE) << word;
    EXPECT_EQ(_status, 0);
  }
}

TEST_F(MainTest, VersionEndsTheRunBeforeAnyFurtherSwitch) {
  for (const std::string word : {"-v", "-ver", "-version", "--version", "-v=7"}) {
    EXPECT_EQ(Run({word, "-nonsense"}), VERSION) << word;
    EXPECT_EQ(_status, 0);
  }
  EXPECT_EQ(Run({"-vv", "nonsense"}), LONG_VERSION);
  EXPECT_EQ(_status, 0);
}

TEST_F(MainTest, UnknownSwitchIsShownWithItsDashes) {
  EXPECT_EQ(RunToTheChecks({"-vvv"}), "Invalid switch \"-vvv\" is specified.\n");
  EXPECT_EQ(RunToTheChecks({"--fs", "x"}), "Invalid switch \"--fs\" is specified.\n");
  EXPECT_EQ(RunToTheChecks({"-F"}), "Invalid switch \"-F\" is specified.\n");
  EXPECT_EQ(RunToTheChecks({"-x", "-v"}), "Invalid switch \"-x\" is specified.\n");
}

TEST_F(MainTest, WordWithoutADashIsUnexpected) {
  EXPECT_EQ(RunToTheChecks({"fw.img"}), "Unexpected parameter \"fw.img\" is specified.\n");
  EXPECT_EQ(RunToTheChecks({"-n", ""}), "Unexpected parameter \"\" is specified.\n");
}

TEST_F(MainTest, SwitchWithoutItsValueIsNamedByItsProperName) {
  for (const std::string name : {"f", "s", "g", "m", "V"}) {
    EXPECT_EQ(RunToTheChecks({"--" + name}), "Missed parameter after \"-" + name + "\" switch\n");
  }
  EXPECT_EQ(RunToTheChecks({"-"}), "Missed parameter after \"-f\" switch\n");
  EXPECT_EQ(RunToTheChecks({"--"}), "Missed parameter after \"-f\" switch\n");
}

TEST_F(MainTest, DashesAloneSelectTheFile) {
  EXPECT_EQ(RunToTheChecks({"-", "a.img", "--", "b.img"}),
            "FW image file may be specified onyl once.\n"
            "New FW image file: \"b.img\", Old FW image file: \"a.img\"\n");
}

TEST_F(MainTest, FileIsGivenOnce) {
  EXPECT_EQ(RunToTheChecks({"-f=a.img", "-f", "b.img"}),
            "FW image file may be specified onyl once.\n"
            "New FW image file: \"b.img\", Old FW image file: \"a.img\"\n");
  EXPECT_EQ(RunToTheChecks({"-f=", "-f="}),
            "FW image file may be specified onyl once.\n"
            "New FW image file: \"\", Old FW image file: \"\"\n");
}

TEST_F(MainTest, ValueOfTheNextWordIsNeverASwitch) {
  EXPECT_EQ(RunToTheChecks({"-f", "-v"}), NO_SERVER);
  EXPECT_EQ(RunToTheChecks({"-s", "-g", "-f", "x"}), NO_GUIDS);
}

TEST_F(MainTest, ServerAndDevicesMustBeGivenInThisOrder) {
  EXPECT_EQ(RunToTheChecks({"-n"}), NO_SERVER);
  EXPECT_EQ(RunToTheChecks({"-g", "1"}), NO_SERVER);
  EXPECT_EQ(RunToTheChecks({"-s", "x"}), NO_GUIDS);
  EXPECT_EQ(RunToTheChecks({"-s", "x", "-g", ",,,"}), NO_GUIDS);
  EXPECT_EQ(RunToTheChecks({"-s=", "-g="}), NO_GUIDS);
}

TEST_F(MainTest, ChunkAlignmentIsFourToFifteen) {
  for (const std::string word : {"-m=4", "-m=15", "-m= 7", "-m=+5", "-m=4294967300"}) {
    EXPECT_EQ(RunToTheChecks({word}), NO_SERVER) << word;
  }
  EXPECT_EQ(RunToTheChecks({"-m", "15"}), NO_SERVER);
  EXPECT_EQ(RunToTheChecks({"-m", "3"}), "Illegal value to -m flag: 3");
  EXPECT_EQ(RunToTheChecks({"-m", "16"}), "Illegal value to -m flag: 16");
  EXPECT_EQ(RunToTheChecks({"-m", "-1"}), "Illegal value to -m flag: -1");
  EXPECT_EQ(RunToTheChecks({"-m="}), "Illegal value to -m flag: 0");
  EXPECT_EQ(RunToTheChecks({"-m", "5x"}), "Bad argument to -m flag");
  EXPECT_EQ(RunToTheChecks({"-m", "0x8"}), "Bad argument to -m flag");
  EXPECT_EQ(RunToTheChecks({"-m", "x"}), "Bad argument to -m flag");
}

TEST_F(MainTest, VerbosityIsIgnoredWithAWarning) {
  EXPECT_EQ(RunToTheChecks({"-V", "3"}),
            std::string("-W- Setting verbosity to 3 ignored (not yet implemented)\n") + NO_SERVER);
  EXPECT_EQ(
      RunToTheChecks({"-V=DEBUG"}),
      std::string("-W- Setting verbosity to DEBUG ignored (not yet implemented)\n") + NO_SERVER);
}

TEST_F(MainTest, FlagsAreAcceptedSilently) {
  EXPECT_EQ(RunToTheChecks({"-n", "-l", "-D", "-d", "-c"}), NO_SERVER);
}

TEST_F(MainTest, GuidsAreCollectedFromTheirList) {
  GuidSet guids;
  GetTargeGuids("0x1234,abcd", guids);
  EXPECT_EQ(guids, (GuidSet{0x1234, 0xABCD}));
  GetTargeGuids("a,,b,", guids);
  GetTargeGuids("a", guids);
  GetTargeGuids(",,,", guids);
  GetTargeGuids("", guids);
  EXPECT_EQ(guids, (GuidSet{0xA, 0xB, 0x1234, 0xABCD}));
}

TEST_F(MainTest, GuidsAreReadAsLongNumbersAre) {
  GuidSet guids;
  GetTargeGuids(" 7,-1,0XFF,0,fffffffffffffffff", guids);
  EXPECT_EQ(guids, (GuidSet{0, 7, 0xFF, 0xFFFFFFFFFFFFFFFF}));
}

TEST_F(MainTest, GuidThatIsNoNumberIsRefusedByItsIndex) {
  GuidSet guids;
  EXPECT_EQ(ErrorOf([&] { GetTargeGuids("12,zz", guids); }),
            "Error parsing guid #1 in the given list.");
  EXPECT_EQ(ErrorOf([&] { GetTargeGuids(",,12x", guids); }),
            "Error parsing guid #0 in the given list.");
  EXPECT_EQ(guids, (GuidSet{0x12}));
}

TEST_F(MainTest, BadGuidListEscapesTheProgram) {
  EXPECT_EQ(ErrorOf([this] { Run({"-g=zz"}); }), "Error parsing guid #0 in the given list.");
}

TEST_F(MainTest, RunWithoutAFileStopsTheProgram) {
  EXPECT_EXIT(Run({"-s", "I2C:127.0.0.1:1", "-g", "1"}), testing::KilledBySignal(SIGABRT),
              "file_name != nullptr");
}

TEST_F(MainTest, EmptyFileNameIsABadType) {
  EXPECT_EQ(RunToTheChecks({"-s", "x", "-g", "1", "-f="}),
            "\r-E- BURN FAILED:ALL:Bad FW file type (). Supported types: img, bin\n");
}

TEST_F(MainTest, LocalBurnEndsBeforeAnyConnection) {
  const common::ScratchFolder folder;
  const std::string file = folder.Write("fw.img", "DEVICE_TYPE RV61100\n");
  const std::string output =
      WithoutLineNumbers(RunToTheChecks({"-l", "-s", "x", "-g", "1", "-m", "8", "-f", file}));
  EXPECT_TRUE(output.ends_with(
      "-D- main:N: GetRomInterface, using chunks of 256 bytes\n"
      "\r-E- BURN FAILED:ALL:GetRomInterface() for local dev - NOT YET IMPLEMENTED\n"))
      << output;
}

TEST_F(MainTest, ImageWithoutADeviceTypeHasNoInterface) {
  const common::ScratchFolder folder;
  const std::string file = folder.Write("fw.img", "");
  const std::string output = RunToTheChecks({"-s", "x", "-g", "1", "-f", file});
  EXPECT_TRUE(
      output.ends_with("\r-E- BURN FAILED:ALL:Device RV0 Rom Interface not supported yet\n"))
      << output;
}

TEST_F(MainTest, StepsOfTheRunAreTracedUpToTheConnection) {
  const common::ScratchFolder folder;
  const std::string file = folder.Write("fw.img", "DEVICE_TYPE RV61100\n");
  const std::string output =
      WithoutLineNumbers(RunToTheChecks({"-s", "nonsense", "-g", "1", "-f", file}));
  EXPECT_TRUE(output.ends_with(
      "-D- main:N: GetRomInterface, using chunks of 32 bytes\n"
      "-D- main:N: Setting addr convertor.\n"
      "-D- main:N: Openning rom interface (nonsense).\n"
      "\r-E- BURN FAILED:ALL:Given server must be in a TYPE:IP:PORT format (Got nonsense).\n"))
      << output;
}

constexpr DeviceType FLASH_TYPES[] = {RV52100, RV52300, RV52310, RV52400, RV52410};

TEST_F(MainTest, EachDeviceTypeHasItsMemoryInterface) {
  for (const DeviceType type : FLASH_TYPES) {
    const auto rom = GetRomInterface(type, 5, false, false);
    EXPECT_NE(dynamic_cast<RemoteFlashInterface*>(rom.get()), nullptr) << type;
  }
  for (const DeviceType type : {RV61100, RV61300}) {
    const auto rom = GetRomInterface(type, 5, false, true);
    EXPECT_NE(dynamic_cast<RemoteI2cInterface*>(rom.get()), nullptr) << type;
  }
}

TEST_F(MainTest, OtherDeviceTypesHaveNoMemoryInterface) {
  EXPECT_EQ(ErrorOf([] { GetRomInterface(DEV_UNKNOWN, 5, false, false); }),
            "Device RV0 Rom Interface not supported yet");
  EXPECT_EQ(ErrorOf([] { GetRomInterface(static_cast<DeviceType>(12345), 5, false, false); }),
            "Device RV12345 Rom Interface not supported yet");
  EXPECT_EQ(ErrorOf([] { GetRomInterface(DEV_UNKNOWN, 5, true, false); }),
            "GetRomInterface() for local dev - NOT YET IMPLEMENTED");
}

TEST_F(MainTest, BurnThatIsNotFailsafeIsGenericForEveryType) {
  RemoteI2cInterface rom(5);
  for (const DeviceType type : {RV61100, RV61300, RV52100, RV52300, RV52310, RV52400, RV52410}) {
    EXPECT_EQ(GetBurnAlgorithm(type, &rom, false, true, true)->GetName(), "GenericBurn") << type;
  }
  EXPECT_EQ(GetBurnAlgorithm(RV61100, &rom, true, false, false)->GetName(), "GenericBurn");
}

TEST_F(MainTest, UnknownDeviceTypeHasNoBurnAlgorithm) {
  RemoteI2cInterface rom(5);
  for (const bool is_fs_burn : {false, true}) {
    EXPECT_EQ(ErrorOf([&] { GetBurnAlgorithm(DEV_UNKNOWN, &rom, is_fs_burn, false, false); }),
              "Bad device type.");
  }
}

TEST_F(MainTest, EachDeviceTypeHasItsFailsafeBurn) {
  RemoteI2cInterface rom(5);
  const auto name = [&rom](DeviceType type) {
    return GetBurnAlgorithm(type, &rom, true, false, false)->GetName();
  };
  EXPECT_EQ(name(RV61300), "RV61300FailsafeBurn");
  for (const DeviceType type : FLASH_TYPES) EXPECT_EQ(name(type), "RV52100FailsafeBurn") << type;
}

/// Whole burns, over the loopback interface.
class MainBurnTest : public MainTest {
 protected:
  static constexpr u_int32_t SLOT = 0x80;  ///< distance of an EEPROM's slots

  /// An EEPROM with one image in both slots.
  void AddEeprom(Guid guid, u_int8_t content) {
    sim::Device device = I2cDevice(guid, 0);
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(0x2000), 0));
    for (const u_int32_t slot : {0u, SLOT}) device.chips.at(0).Load(slot, EepromData(content));
    _fabric.Add(std::move(device));
  }

  /// What a burn of `text` prints; `words` are added to the command line.
  std::string Burn(const std::string& text, std::vector<std::string> words) {
    protocol::ServerThread server(_fabric);
    words.insert(words.end(), {"-s", server.ServerString(), "-f", _folder.Write("fw.img", text)});
    const std::string output = Run(std::move(words));
    _requests = server.Requests();
    return output;
  }

  DataVec Slot(Guid guid, u_int32_t slot) const {
    return MemoryOf(_fabric, guid, 0, slot * SLOT, 0x40);
  }

  const common::ScratchFolder _folder;
  sim::Fabric _fabric;
  std::vector<std::string> _requests;  ///< of the last burn
};

TEST_F(MainBurnTest, BurnIsFailsafeWithoutBeingAsked) {
  AddEeprom(LEAF1, 0x11);
  const std::string output = Burn(EepromImage(0x22), {"-g", "1000"});
  EXPECT_EQ(_status, 0) << output;
  EXPECT_NE(output.find("Running burn algorithm: RV61300FailsafeBurn\n"), std::string::npos);
  EXPECT_EQ(Slot(LEAF1, 0), EepromData(0x22));
  EXPECT_EQ(Slot(LEAF1, 1), EepromData(0x22));
}

TEST_F(MainBurnTest, BurnThatNeedNotBeFailsafeLeavesTheSecondSlotAlone) {
  AddEeprom(LEAF1, 0x11);
  const std::string output = Burn(EepromImage(0x22), {"-g", "1000", "-n"});
  EXPECT_EQ(_status, 0) << output;
  EXPECT_NE(output.find("Running burn algorithm: GenericBurn\n"), std::string::npos);
  EXPECT_EQ(Slot(LEAF1, 0), EepromData(0x22));
  EXPECT_EQ(Slot(LEAF1, 1), EepromData(0x11));
}

TEST_F(MainBurnTest, CheckOfAnRv61300WritesNothing) {
  AddEeprom(LEAF1, 0x11);
  const std::string output = Burn(EepromImage(0x22), {"-g", "1000", "-c"});
  EXPECT_EQ(_status, 0) << output;
  EXPECT_EQ(Slot(LEAF1, 0), EepromData(0x11));
  EXPECT_EQ(Slot(LEAF1, 1), EepromData(0x11));
  for (const std::string& request : _requests) {
    EXPECT_FALSE(request.starts_with("vsI2cWriteMulti")) << request;
  }
}

TEST_F(MainBurnTest, EveryListOfGuidsCounts) {
  AddEeprom(LEAF1, 0x11);
  AddEeprom(LEAF2, 0x11);
  const std::string output = Burn(EepromImage(0x22), {"-g", "1000", "-g=2000"});
  EXPECT_EQ(_status, 0) << output;
  EXPECT_EQ(Slot(LEAF1, 0), EepromData(0x22));
  EXPECT_EQ(Slot(LEAF2, 0), EepromData(0x22));
}

TEST_F(MainBurnTest, InvariantSectorThatDiffersIsRewritten) {
  _fabric.Add(FlashDevice(LEAF1, FLASH_SIZE, SECTOR));
  Burn(FlashImage{.content = 0x11, .invariant = 0x66}.Text(), {"-g", "1000", "-m", "8", "-n"});
  ASSERT_EQ(MemoryOf(_fabric, LEAF1, 0, 0, 1), DataVec{0x66});
  const std::string output =
      Burn(FlashImage{.content = 0x22, .invariant = 0x77}.Text(), {"-g", "1000", "-m", "8"});
  EXPECT_EQ(_status, 0) << output;
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0, 1), DataVec{0x77});
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, IMAGE1, 0x20), DataVec(0x20, 0x22));
}

TEST_F(MainTest, ConsoleThatIsGoneEndsNothing) {
  const auto print_for_nobody = [] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) std::_Exit(2);
    close(ends[0]);
    close(ends[1]);
    signal(SIGPIPE, SIG_DFL);
    char name[] = "fwpush";
    char* av[] = {name, nullptr};
    std::_Exit(FwPush(1, av) == EXIT_FAILURE ? 0 : 1);
  };
  EXPECT_EXIT(print_for_nobody(), testing::ExitedWithCode(0), "");
}

TEST_F(MainTest, NothingElseTakesThePlaceOfAClosedConsole) {
  const auto run_without = [](int descriptor) {
    close(descriptor);
    char name[] = "fwpush";
    char* av[] = {name, nullptr};
    FwPush(1, av);
    std::_Exit(fcntl(descriptor, F_GETFD) < 0 ? 1 : 0);
  };
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    EXPECT_EXIT(run_without(descriptor), testing::ExitedWithCode(0), "") << descriptor;
  }
}

}  // namespace
