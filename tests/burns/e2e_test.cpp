/// Whole burns: the built fwpush against the built simulator, each in its own process.

#include <signal.h>

#include "src/utils.h"
#include "tests/support/Harness.h"

namespace {

/// A fabric file's device with two ports. `node` is small; its port and system GUIDs follow it.
std::string DeviceText(int number, u_int32_t node, const std::string& memory,
                       const std::string& more = "") {
  const auto guid = [](u_int32_t value) { return Text("\"0x", std::hex, value, "\""); };
  return Text("[[device]]\nname = \"leaf-", number, "\"\nattribute = \"rev-a\"\n",
              "node_guid = ", guid(node), "\nport_guids = [", guid(node + 1), ", ", guid(node + 2),
              "]\nsystem_guid = ", guid(node + 0xF), "\n", memory, "\n", more, "\n");
}

std::string ServerText(const std::string& type, const std::string& more = "") {
  return "[server]\ntype = \"" + type + "\"\n" + more + "\n";
}

constexpr char ONE_CHIP[] = "chip = [{ address = 0x50, size = 0x200 }]";
constexpr char CHIP_ZERO[] = "chip = [{ address = 0, size = 0x100 }]";
constexpr char TWO_CHIPS[] =
    "chip = [{ address = 0x50, size = 0x100 }, { address = 0x51, size = 0x100 }]";
constexpr char SMALL_FLASH[] = "[device.flash]\nsize = 0x1000\nsector_size = 0x100";

std::string Repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

DataVec Bytes(std::size_t count, u_int8_t value) { return DataVec(count, value); }

DataVec Joined(std::initializer_list<DataVec> parts) {
  DataVec all;
  for (const DataVec& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

class EndToEndTest : public ConsoleTest {
 protected:
  void Serve(const std::string& fabric) {
    _simulator = std::make_unique<Simulator>(_folder, fabric);
  }

  void Image(const std::string& text) { _image = _folder.Write("fw.img", text); }

  Outcome Burn(std::vector<std::string> words, Through through = Through::PIPE) {
    words.insert(words.begin(), FwpushProgram());
    words.insert(words.end(), {"-f", _image, "-s", _simulator->Server()});
    return RunProgram(words, through);
  }

  /// Burns through a pipe, and holds console and wire against the transcripts called `name`.
  void BurnAsIn(const std::string& name, const std::vector<std::string>& words) {
    const Outcome outcome = Burn(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    const std::map<std::string, std::string> places = {{"FILE", _image},
                                                       {"SERVER", _simulator->Server()}};
    EXPECT_EQ(Comparable(outcome.output), Golden(name + ".console", places));
    EXPECT_EQ(_simulator->Trace(), Golden(name + ".wire"));
  }

  static std::string LastLine(const std::string& output) {
    const std::size_t end = output.rfind('\n');
    if (end == std::string::npos) return output;
    const std::size_t start = output.rfind('\n', end - 1);
    return output.substr(start == std::string::npos ? 0 : start + 1);
  }

  common::ScratchFolder _folder;
  std::unique_ptr<Simulator> _simulator;
  std::string _image;
};

constexpr char RV61100_IMAGE[] =
    "DEVICE_TYPE RV61100\n"
    "DEVMAP 100 50\n"
    "DEVMAP 100 51\n"
    "REPLACE GUIDS 0 50\n"
    "REPLACE GUID 20 50\n"
    "REPLACE SYSGUID 28 50\n"
    "REPLACE BSN 40 50\n"
    "REPLACE CRC 0 50 2C 50 34 50\n"
    "START HEAD 0 50\n"
    "0 1 2 3 4 5 6 7 8 9 A B C D E F 0 1 2 3 4 5 6 7 8 9 A B C D E F\n"
    "0 1 2 3 4 5 6 7 8 9 A B C D E F 11 22 33 44 55 66 77 88\n"
    "END HEAD\n"
    "START TAIL 10 51\n"
    "DE AD BE EF 1 2 3 4\n"
    "END TAIL\n";

/// What the first chip of a device holds after that image.
DataVec Rv61100Chip(u_int32_t node) {
  DataVec head;
  head << u_int64_t{node} << u_int64_t{node + 1} << u_int64_t{node + 2} << u_int64_t{node + 0xF}
       << u_int64_t{node} << u_int64_t{node + 0xF};
  const u_int32_t crc = ReferenceCrc(head);
  head << u_int32_t{0x11223344} << crc;
  head.resize(0x100, 0xFF);
  return head;
}

class Rv61100Test : public EndToEndTest {
 protected:
  Rv61100Test() {
    Serve(ServerText("I2C") + DeviceText(1, 0x10, TWO_CHIPS) + DeviceText(2, 0x20, TWO_CHIPS));
    Image(RV61100_IMAGE);
  }

  void ExpectBurnt(u_int32_t node) {
    const std::string name = Text("0x00000000000000", std::hex, node);
    EXPECT_EQ(_simulator->Memory(name + ".50.i2c"), Rv61100Chip(node));
    EXPECT_EQ(_simulator->Memory(name + ".51.i2c"),
              Joined({Bytes(0x10, 0xFF), Hex("deadbeef01020304"), Bytes(0xE8, 0xFF)}));
  }
};

TEST_F(Rv61100Test, TwoDevicesOfTwoChipsAreBurntAndVerified) {
  BurnAsIn("rv61100", {"-g", "10,20"});
  ExpectBurnt(0x10);
  ExpectBurnt(0x20);
}

TEST_F(Rv61100Test, FailsafeIsNotAskedForByThisType) { BurnAsIn("rv61100", {"-n", "-g", "10,20"}); }

TEST_F(Rv61100Test, TerminalShowsTheSameAsAPipe) {
  const Outcome outcome = Burn({"-g", "10,20"}, Through::TERMINAL);
  EXPECT_EQ(outcome.status, 0);
  // The terminal itself makes each line feed a carriage return and a line feed.
  std::string shown;
  for (const char c :
       Golden("rv61100.console", {{"FILE", _image}, {"SERVER", _simulator->Server()}})) {
    if (c == '\n') shown += '\r';
    shown += c;
  }
  EXPECT_EQ(Comparable(outcome.output), shown);
}

TEST_F(Rv61100Test, SecondBurnFindsTheSameServerAndLeavesTheSameContents) {
  EXPECT_EQ(Burn({"-g", "10,20"}).status, 0);
  EXPECT_EQ(Burn({"-g", "21,11"}).status, 0);  // by port GUIDs
  ExpectBurnt(0x10);
  ExpectBurnt(0x20);
}

TEST_F(Rv61100Test, DeviceThatTheServerLacksIsNamedAndTheOthersAreBurnt) {
  const Outcome outcome = Burn({"-g", "10,77"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.output.find("\r-E- BURN FAILED:0x0000000000000077:Device not accessible by "
                                "server " +
                                _simulator->Server() + " .\n"),
            std::string::npos);
  EXPECT_EQ(LastLine(outcome.output), "-I- BURN SUCCEEDED\n");
  ExpectBurnt(0x10);
}

TEST_F(EndToEndTest, ThreeSerialNumbersAreBurntWithoutVerification) {
  std::string fabric = ServerText("PPC");
  const char* letters = "ABC";
  for (int i = 0; i < 3; ++i) {
    fabric += DeviceText(i + 1, static_cast<u_int32_t>(0x10 * (i + 1)), ONE_CHIP,
                         "bsn = \"" + std::string(64, letters[i]) + "\"");
  }
  Serve(fabric);
  Image("DEVICE_TYPE RV61300\nDEVMAP 200 50\nREPLACE BSN 10 50\nSTART ALL 0 50\n" +
        Repeated("11 11 11 11\n", 24) + "END ALL\n");
  BurnAsIn("rv61300-generic", {"-n", "-m", "6", "-g", "10,20,30"});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(_simulator->Memory(Text("0x00000000000000", i + 1, "0.50.i2c")),
              Joined({Bytes(16, 0x11), Bytes(64, static_cast<u_int8_t>(letters[i])),
                      Bytes(16, 0x11), Bytes(0x1A0, 0xFF)}));
  }
}

constexpr char RV52100_IMAGE[] =
    "DEVICE_TYPE RV52100\n"
    "SIGNATURE 0 8 0\n"
    "REPLACE VSD 100 0\n"
    "START HEAD 0 0\n"
    "1 2 3 4 5 6 7 8 CB 84 CB 84 D E F 10\n"
    "END HEAD\n"
    "START VENDOR 100 0\n";

TEST_F(EndToEndTest, FlashIsErasedAndKeepsTheImagesVendorDataAndSignature) {
  Serve(ServerText("IB") + DeviceText(1, 0x10, SMALL_FLASH, "[[device.contents]]\nfill = 0"));
  Image(RV52100_IMAGE + Repeated("77 77 77 77\n", 52) + "END VENDOR\n");
  BurnAsIn("rv52100-generic", {"-n", "-m", "8", "-g", "10"});
  EXPECT_EQ(_simulator->Memory("0x0000000000000010.flash"),
            Joined({Hex("0102030405060708 cb84cb84 0d0e0f10"), Bytes(0xF0, 0xFF), Bytes(0xD0, 0x77),
                    Bytes(0x30, 0xFF), Bytes(0xE00, 0)}));
}

TEST_F(EndToEndTest, TwoFlashesAreNotBurntInOneRun) {
  Serve(ServerText("IB") + DeviceText(1, 0x10, SMALL_FLASH) + DeviceText(2, 0x20, SMALL_FLASH));
  Image(RV52100_IMAGE + Repeated("77 77 77 77\n", 52) + "END VENDOR\n");
  const Outcome outcome = Burn({"-n", "-g", "10,20"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(LastLine(outcome.output),
            "\r-E- BURN FAILED:ALL:Tried to GetSectorSize() for 2 devices. GetSectorSize() is "
            "currently supported for 1 device only.\n");
}

TEST_F(EndToEndTest, FlashBesideAMissingTargetIsLeftAlone) {
  Serve(ServerText("IB") + DeviceText(1, 0x10, SMALL_FLASH));
  Image(RV52100_IMAGE + Repeated("77 77 77 77\n", 52) + "END VENDOR\n");
  const Outcome outcome = Burn({"-n", "-g", "10,77"});
  EXPECT_EQ(outcome.status, 1);
  // The fill that the first failure line left shows in the meter.
  EXPECT_EQ(LastLine(outcome.output),
            "\r\\ Burning  - %00\r-E- BURN FAILED:ALL:RemoteFlashInterface::Erase() : Can't erase "
            "address 0, the flash "
            "sector size is unknown.\n");
  EXPECT_EQ(_simulator->Memory("0x0000000000000010.flash"), Bytes(0x1000, 0xFF));
}

constexpr char FLAT_IMAGE[] = "DEVICE_TYPE RV61100\nSTART ALL 0 0\n";

class FlatTest : public EndToEndTest {
 protected:
  FlatTest() { Image(FLAT_IMAGE + Repeated("77 77 77 77\n", 8) + "END ALL\n"); }

  static std::string Devices(int count) {
    std::string text;
    for (int i = 1; i <= count; ++i) {
      text += DeviceText(i, static_cast<u_int32_t>(0x10 * i), CHIP_ZERO);
    }
    return text;
  }

  DataVec Memory(u_int32_t node) {
    return _simulator->Memory(Text("0x00000000000000", std::hex, node, ".0.i2c"));
  }

  const DataVec _burnt = Joined({Bytes(32, 0x77), Bytes(0xE0, 0xFF)});
};

TEST_F(FlatTest, DeviceThatReadsBackSomethingElseFails) {
  const std::string good = "{data 0x77777777}";
  Serve(ServerText("I2C") + Devices(2) +
        "[[fault]]\nkind = \"answer\"\ncommand = \"Read\"\ntext = \"{ACK " +
        Repeated(good + " ", 3) + good + "} {ACK " + good + " {data 0x77777f77} " + good + " " +
        good + "}\"\n");
  BurnAsIn("verify-failure", {"-m", "4", "-g", "10,20"});
  EXPECT_EQ(Memory(0x10), _burnt);
}

TEST_F(FlatTest, BytesThatAreWrittenWrongAreFoundOnAnI2cServer) {
  Serve(ServerText("I2C") + Devices(2) +
        "[[fault]]\nkind = \"write-wrong\"\ndevice = \"0x20\"\nseed = 5\n");
  const Outcome outcome = Burn({"-g", "10,20"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(
      outcome.output.find("\r-E- BURN FAILED:0x0000000000000020:Error verifying data on address "),
      std::string::npos);
  EXPECT_EQ(LastLine(outcome.output), "-I- BURN SUCCEEDED\n");
  EXPECT_EQ(Memory(0x10), _burnt);
  EXPECT_NE(Memory(0x20), _burnt);
}

TEST_F(FlatTest, OneDeviceOfThreeFailsAtEachRequestAndTheOthersAreBurnt) {
  Image("DEVICE_TYPE RV61100\nREPLACE GUID 0 0\nREPLACE CRC 0 0 8 0 1C 0\nSTART ALL 0 0\n" +
        Repeated("77 77 77 77\n", 8) + "END ALL\n");
  const auto expected = [](u_int64_t node) {
    DataVec bytes;
    bytes << node << u_int32_t{0x77777777};
    const u_int32_t crc = ReferenceCrc(bytes);
    bytes.resize(28, 0x77);
    bytes << crc;
    bytes.resize(0x100, 0xFF);
    return bytes;
  };
  int kinds = 0;
  for (const std::string command : {"vsI2cWriteMulti", "vsI2cReadMulti"}) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(command + " " + std::to_string(nth));
      std::filesystem::remove_all(_folder / "state");
      Serve(ServerText("I2C") + Devices(3) +
            Text("[[fault]]\nkind = \"device-error\"\ncommand = \"", command,
                 "\"\ndevice = \"0x20\"\nnth = ", nth, "\ntext = \"broken\"\n"));
      const Outcome outcome = Burn({"-m", "4", "-g", "10,20,30"});
      EXPECT_EQ(outcome.status, 0);
      EXPECT_EQ(LastLine(outcome.output), "-I- BURN SUCCEEDED\n");
      EXPECT_EQ(Memory(0x10), expected(0x10));
      EXPECT_EQ(Memory(0x30), expected(0x30));
      const std::string line = "\r-E- BURN FAILED:0x0000000000000020:broken\n";
      const std::size_t at = outcome.output.find(line);
      if (at == std::string::npos) break;  // the burn has fewer requests
      EXPECT_EQ(outcome.output.find("BURN FAILED", at + line.size()), std::string::npos);
      ++kinds;
    }
  }
  EXPECT_EQ(kinds, 8);  // two chunks, the field and the CRC, each written and read back
}

TEST_F(FlatTest, BurnGoesOnWhoeverReadsTheConsole) {
  for (const std::string console :
       {"| head -c 1 >/dev/null", ">&-", "<&- >&- 2>&-", ">/dev/full"}) {
    SCOPED_TRACE(console);
    Serve(ServerText("I2C") + Devices(1));
    RunProgram(
        {"/bin/sh", "-c",
         FwpushProgram() + " -f " + _image + " -s " + _simulator->Server() + " -g 10 " + console});
    EXPECT_EQ(Memory(0x10), _burnt);
    _simulator->Stop();
    // Nothing but requests reached the server, and the write was among them.
    std::istringstream trace(_simulator->Trace());
    int writes = 0;
    for (std::string line; std::getline(trace, line);) {
      if (!line.starts_with("> ")) continue;
      EXPECT_THAT(line, testing::MatchesRegex("> (vs|Ifc|Ns).*"));
      if (line.starts_with("> vsI2cWriteMulti 1 0x0000000000000010 ")) ++writes;
    }
    EXPECT_EQ(writes, 1);
  }
}

TEST_F(FlatTest, RunEndsWhenEveryDeviceHasFailed) {
  Serve(
      ServerText("PPC") + Devices(2) +
      "[[fault]]\nkind = \"device-error\"\ncommand = \"Write\"\ndevice = \"0x10\"\ntext = \"one\"\n"
      "[[fault]]\nkind = \"device-error\"\ncommand = \"Write\"\ndevice = \"0x20\"\nnth = 2\ntext = "
      "\"two\"\n");
  const Outcome outcome = Burn({"-m", "4", "-g", "10,20"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(
      outcome.output.ends_with("-I- Generic Burning:\n"
                               "\r\\ Burning  - % 0"
                               "\r-E- BURN FAILED:0x0000000000000010:one\n"
                               "\r| Burning  - %50"
                               "\r-E- BURN FAILED:0x0000000000000020:two\n"
                               "\r-E- BURN FAILED:ALL:No more accessible devices\n"))
      << outcome.output;
}

TEST_F(FlatTest, ErrorOfAWholeRequestEndsTheRun) {
  Serve(ServerText("PPC") + Devices(2) +
        "[[fault]]\nkind = \"answer\"\ncommand = \"Write\"\ntext = \"TARGET_ERROR:1:bus stuck\"\n");
  const Outcome outcome = Burn({"-g", "10,20"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.output.ends_with(
      "\r-E- BURN FAILED:ALL:bus stuck\n\r-E- BURN FAILED:ALL:No more accessible devices\n"))
      << outcome.output;
}

TEST_F(FlatTest, FillOfAFailureLineShowsInTheMeter) {
  Image(FLAT_IMAGE + Repeated("77 77 77 77\n", 50) + "END ALL\n");
  Serve(
      ServerText("PPC") + Devices(2) +
      "[[fault]]\nkind = \"device-error\"\ncommand = \"Write\"\ndevice = \"0x10\"\ntext = \"x\"\n");
  const Outcome outcome = Burn({"-m", "4", "-g", "10,20"});
  EXPECT_NE(outcome.output.find("\r| Burning  - %08"), std::string::npos) << outcome.output;
}

TEST_F(FlatTest, ConnectionThatBreaksEndsTheRun) {
  for (const std::string kind : {"close-before", "close-inside", "reset"}) {
    Serve(ServerText("PPC") + Devices(1) + "[[fault]]\nkind = \"" + kind +
          "\"\ncommand = \"Write\"\n");
    const Outcome outcome = Burn({"-g", "10"});
    EXPECT_EQ(outcome.status, 1);
    const std::string server = _simulator->Server().substr(4);  // without the type
    const std::string why = kind == "reset" ? "Connection reset by peer"
                                            : "Response too large. Probably server is down.";
    EXPECT_EQ(LastLine(outcome.output),
              "\r\\ Burning  - % 0\r-E- BURN FAILED:ALL:Failed remote read from server " + server +
                  ". " + why + "\n");
  }
}

TEST_F(FlatTest, ServerThatIsNotUsableIsRefused) {
  const struct {
    std::string server;
    std::string error;
  } cases[] = {
      {"interface_version = \"2.1\"",
       "{SERVER} interface version is 2.1. The required version is 2.2 or above. Please update "
       "BRAID on the remote machine."},
      {"interface_version = \"none\"", "Server {SERVER}: Cant get interface version. Got: none"},
      {"multi_max = 1",
       "Multi max violation. Server capability: 1 devices. Trying to access 2 devices while "
       "performing command '' to server {SERVER} ."},
  };
  for (const auto& wrong : cases) {
    Serve(ServerText("PPC", wrong.server) + Devices(2));
    const Outcome outcome = Burn({"-g", "10,20"});
    EXPECT_EQ(outcome.status, 1);
    std::string error = wrong.error;
    error.replace(error.find("{SERVER}"), 8, _simulator->Server());
    EXPECT_TRUE(outcome.output.ends_with("\r-E- BURN FAILED:ALL:" + error + "\n"))
        << outcome.output;
  }
}

TEST_F(FlatTest, ServerStringThatIsWrongIsRefused) {
  const std::pair<std::string, std::string> cases[] = {
      {"I2C", "Given server must be in a TYPE:IP:PORT format (Got I2C)."},
      {"USB:127.0.0.1:1",
       "Internal Error: Trying to burn using RemoteI2cInterface  when Server = USB:127.0.0.1:1."},
      {"I2C:127.0.0.1:1x", "Bad port format (1x)."},
      {"I2C:127.0.0.1:1", "Failed connecting to 127.0.0.1:1 ."},
      {"I2C:127.0.0.1:65536", "Failed connecting to 127.0.0.1:65536 ."},
  };
  for (const auto& [server, error] : cases) {
    const Outcome outcome = RunProgram({FwpushProgram(), "-f", _image, "-g", "1", "-s", server});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(LastLine(outcome.output), "\r-E- BURN FAILED:ALL:" + error + "\n");
  }
}

TEST_F(EndToEndTest, EveryErrorOfAnImageFileEndsTheRunWithItsPlace) {
  const std::pair<std::string, std::string> cases[] = {
      {"START A 0 0\n1 2 3\n", ":2: Section data line must have multiple of 4 bytes."},
      {"START A 0 0\n1 2 3 x\n", ":2: Data byte (x) contains invalid characters"},
      {"START A 0 0\nEND\n", ":2: Wrong END section format - Sector name expected."},
      {"START A 0 0\nEND B\n", ":2: END Section name (B) differs from start section name (A)."},
      {"START A\n", ":1: START line must give a name, an offset and a device."},
      {"START A FFFFFFFF 0\n1 2 3 4\n", ":2: Section (A) reaches past the last address."},
      {"REPLACE\n", ":1: 'REPLACE' directive must contain 4words."},
      {"REPLACE CRC\n", ":1: 'REPLACE' directive must contain 8words."},
      {"DEVICE_TYPE\n", ":1: 'DEVICE_TYPE' directive must contain 2words."},
      {"PS\n", ":1: 'PS' directive must contain 4words."},
      {"IMAGE\n", ":1: 'IMAGE' directive must contain 4words."},
      {"SIGNATURE\n", ":1: 'SIGNATURE' directive must contain 4words."},
      {"DEVMAP\n", ":1: 'DEVMAP' directive must contain 3words."},
      {"\nREPLACE X 0 0\n", ":2: Unknown replace field type 'X' ."},
      {"PS 2 0 0\n", ":1: 'PS' directive - image index (2) can be iether 0 or 1"},
      {"PS 0 x 0\n", ":1: Error parsing offset (x)."},
      {"PS 0 0 x\n", ":1: Error parsing dev addr (x)."},
      {"PS 0 0 100\n", ":1: Device addr must be 8 bits (100)."},
      {"SIGNATURE 0 0 0\nSIGNATURE 0 4 0\n", ":2: Tried to set signature 0 which is already set"},
  };
  for (const auto& [text, error] : cases) {
    Image(text);
    const Outcome outcome = RunProgram({FwpushProgram(), "-f", _image, "-g", "1", "-s", "x"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "\r-E- BURN FAILED:ALL:" + _image + error + "\n");
  }
  const std::pair<std::string, std::string> plain[] = {
      {"PS 0 0 50\n",
       "Can't convert dev/offset to address: No mapping for the given EE loaction  (50:0)."}};
  for (const auto& [text, error] : plain) {
    Image(text);
    const Outcome outcome = RunProgram({FwpushProgram(), "-f", _image, "-g", "1", "-s", "x"});
    EXPECT_EQ(outcome.output, "\r-E- BURN FAILED:ALL:" + error + "\n");
  }
}

TEST_F(EndToEndTest, SectionOutsideTheDeviceMapShowsInTheStatus) {
  Image("DEVMAP 100 50\nSTART A 200 50\nEND A\n");
  const Outcome outcome = RunProgram({FwpushProgram(), "-f", _image, "-g", "1", "-s", "x"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(LastLine(outcome.output),
            "\r-E- BURN FAILED:ALL:Addr2OffsetDev: No mapping for the given addr (200).\n");
}

TEST_F(EndToEndTest, FieldThatCrossesItsSectionEndsTheRun) {
  Serve(ServerText("PPC") + DeviceText(1, 0x10, CHIP_ZERO));
  Image("DEVICE_TYPE RV61100\nREPLACE GUID 4 0\nSTART A 0 0\n1 2 3 4 5 6 7 8\nEND A\n");
  const Outcome outcome = Burn({"-g", "10"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(
      outcome.output.ends_with("\r-E- BURN FAILED:ALL:Replace field (from:4, type:3) "
                               "crosses image section (addr:0 , size:8).\n"))
      << outcome.output;
  EXPECT_EQ(_simulator->Memory("0x0000000000000010.0.i2c"), Bytes(0x100, 0xFF));
}

TEST_F(EndToEndTest, CommandLineThatIsWrongIsRefused) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"fw.img"}, "Unexpected parameter \"fw.img\" is specified.\n"},
      {{"-x"}, "Invalid switch \"-x\" is specified.\n"},
      {{"-g"}, "Missed parameter after \"-g\" switch\n"},
      {{"-m", "3"}, "Illegal value to -m flag: 3"},
      {{"-m", "5x"}, "Bad argument to -m flag"},
      {{"-n"}, "-E- -s <server> flag must be specified\n"},
      {{"-s", "x"}, "-E- No target devices given (-g <guids> flag).\n"},
      {{"-f", "a", "-f", "b"},
       "FW image file may be specified onyl once.\n"
       "New FW image file: \"b\", Old FW image file: \"a\"\n"}};
  for (auto [words, output] : cases) {
    words.insert(words.begin(), FwpushProgram());
    const Outcome outcome = RunProgram(words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, output);
    EXPECT_EQ(outcome.errors, "");
  }
}

TEST_F(EndToEndTest, VersionAndHelpSucceed) {
  EXPECT_EQ(RunProgram({FwpushProgram(), "-v"}).output,
            "fwpush " FWPUSH_VERSION ", BRAID , BUILD 20050712-1101\n");
  EXPECT_EQ(RunProgram({FwpushProgram(), "-v"}).status, 0);
  const Outcome help = RunProgram({FwpushProgram(), "-h"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.output.starts_with(FwpushProgram() + "\n\n     FirmWare Burning Tool\n"));
  const Outcome nothing = RunProgram({FwpushProgram()});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.output, help.output);
}

TEST_F(EndToEndTest, GuidThatIsNoNumberEndsTheProgramAbnormallyWithAllThatWasPrinted) {
  const Outcome outcome = RunProgram({FwpushProgram(), "-V", "3", "-g", "12,zz"});
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_EQ(outcome.output, "-W- Setting verbosity to 3 ignored (not yet implemented)\n");
}

TEST_F(EndToEndTest, MissingFileEndsTheProgramAbnormallyWithAllThatWasPrinted) {
  const Outcome outcome =
      RunProgram({FwpushProgram(), "-V", "3", "-g", "1", "-s", "I2C:127.0.0.1:1"});
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_EQ(outcome.output, "-W- Setting verbosity to 3 ignored (not yet implemented)\n");
  EXPECT_NE(outcome.errors.find("Assertion `file_name != nullptr' failed."), std::string::npos);
}

TEST_F(EndToEndTest, AssertionStopsTheShippedProgramInMidBurn) {
  Serve(ServerText("PPC") + DeviceText(1, 0x10, CHIP_ZERO));
  // The CRC covers 5 bytes, which are no whole words.
  Image(
      "DEVICE_TYPE RV61100\nREPLACE CRC 0 0 1 0 8 0\nSTART A 0 0\n1 2 3 4 5 6 7 8 0 0 0 0\nEND "
      "A\n");
  const Outcome outcome = Burn({"-g", "10"});
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_NE(outcome.errors.find("Assertion `(data.size() % 4) == 0' failed."), std::string::npos)
      << outcome.errors;
  EXPECT_TRUE(outcome.output.ends_with("\r- Burning  -  OK \n")) << outcome.output;
}

TEST_F(EndToEndTest, SimulatorSurvivesAKillWithItsState) {
  Serve(ServerText("PPC") + DeviceText(1, 0x10, CHIP_ZERO));
  Image(FLAT_IMAGE + Repeated("77 77 77 77\n", 8) + "END ALL\n");
  EXPECT_EQ(Burn({"-g", "10"}).status, 0);
  const std::string fabric = _folder / "fabric.toml";
  const std::string state = _folder / "state";
  {
    Child killed({SimProgram(), fabric, "--state", state}, _folder / "killed.errors");
    EXPECT_NE(killed.ReadLine(), "");
    killed.Signal(SIGKILL);
    EXPECT_EQ(killed.Wait(), -SIGKILL);
  }
  EXPECT_EQ(_simulator->Memory("0x0000000000000010.0.i2c"),
            Joined({Bytes(32, 0x77), Bytes(0xE0, 0xFF)}));
  const Outcome shown = RunProgram({SimProgram(), fabric, "--state", state, "--show"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_NE(shown.output.find("EEPROM 0: 256 bytes, 224 of them blank"), std::string::npos)
      << shown.output;
}

TEST_F(EndToEndTest, SimulatorRefusesWhatItCannotUse) {
  const Outcome version = RunProgram({SimProgram(), "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.output, "fwpush-sim " FWPUSH_VERSION "\n");
  EXPECT_EQ(RunProgram({SimProgram(), "--help"}).status, 0);
  EXPECT_NE(RunProgram({SimProgram()}).status, 0);
  const std::string fabric = _folder.Write("good.toml", ServerText("PPC"));
  for (const std::string listen : {"nonsense", ":1", "127.0.0.1:", "127.0.0.1:65536"}) {
    EXPECT_NE(RunProgram({SimProgram(), fabric, "--listen", listen}).status, 0) << listen;
  }
  const Outcome wrong =
      RunProgram({SimProgram(), _folder.Write("bad.toml", "[server]\nkind = 1\n")});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.output, "");
  EXPECT_EQ(wrong.errors, "fwpush-sim: " + (_folder / "bad.toml") + ":2: unknown key 'kind'\n");
}

}  // namespace
