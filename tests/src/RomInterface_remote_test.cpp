#include <thread>

#include "protocol/Server.h"
#include "tests/support/fabric_support.h"

namespace {

using BraidConn::Response;

class RemoteTest : public FabricTest {
 protected:
  RemoteTest() : _rom(_fabric) { _fabric.facts.type = "PPC"; }

  void OpenFor(const GuidSet& guids) {
    AddAdapters(guids);
    OpenQuietly(_rom, guids);
  }

  std::string ErrorOfOpening(const std::string& server) {
    _rom.SetAddressConvertor(&_conv);
    std::string error;
    _output =
        WithoutLineNumbers(OutputOf([&] { error = ErrorOf([&] { _rom.Open(server.c_str()); }); }));
    return error;
  }

  /// What goes wrong in `action`; its console output goes to _output.
  std::string QuietErrorOf(const std::function<void()>& action) {
    std::string error;
    _output = OutputOf([&] { error = ErrorOf(action); });
    return error;
  }

  RecordedI2c _rom;
  std::string _output;
};

TEST_F(RemoteTest, ServerTypesHaveTheirFixedValuesAndNames) {
  EXPECT_EQ(UNKNOWN_SERVER, 0);
  EXPECT_EQ(Text(ServerAccess{I2C, "10.0.0.7", 5000}), "I2C:10.0.0.7:5000");
  EXPECT_EQ(Text(ServerAccess{PCI, "a", 1}), "PCI:a:1");
  EXPECT_EQ(Text(ServerAccess{PPC, "a", 1}), "PPC:a:1");
  EXPECT_EQ(Text(std::hex, ServerAccess{IB, "a", 255}), "IB:a:255");
  EXPECT_EQ(Text(ServerAccess{UNKNOWN_SERVER, "a", 1}), "UNKNOWNa:1");
}

TEST_F(RemoteTest, OpeningAsksThreeQuestionsAndTracesTheVersion) {
  AddAdapters({LEAF1});
  _rom.SetAccessDevices({LEAF1});
  const std::string output = OutputOf([&] { EXPECT_EQ(_rom.Open("PPC:host:5000"), BRAID_OK); });
  EXPECT_EQ(_rom.Requests(), (Requests{"vsMultiMaxGet", "IfcVersion", "NsGetDeviceByType device"}));
  EXPECT_EQ(WithoutLineNumbers(output),
            "-D- RomInterface:N: Interface verson of server PPC:host:5000: 2.2\n");
}

TEST_F(RemoteTest, ServerStringMustHaveThreeFields) {
  for (const std::string server : {"", "I2C", "I2C:host", "I2C:host:1:2", "::", "I2C::1"}) {
    EXPECT_EQ(ErrorOfOpening(server),
              "Given server must be in a TYPE:IP:PORT format (Got " + server + ").");
  }
}

TEST_F(RemoteTest, UnknownServerTypeIsRefused) {
  for (const std::string server : {"FOO:host:1", "i2c:host:1", "FOO:host:1x"}) {
    EXPECT_EQ(
        ErrorOfOpening(server),
        "Internal Error: Trying to burn using RemoteI2cInterface  when Server = " + server + ".");
  }
}

TEST_F(RemoteTest, PortMustBeANumber) {
  EXPECT_EQ(ErrorOfOpening("PPC:host:5000x"), "Bad port format (5000x).");
  EXPECT_EQ(ErrorOfOpening("PPC:host:x"), "Bad port format (x).");
}

TEST_F(RemoteTest, ErrorForTheMaximumMeansOneDevice) {
  for (const std::string answer : {"ERROR:none", "16 devices", "", "x"}) {
    AnswerNext("vsMultiMaxGet", answer);
    AnswerNext("NsGetDeviceByType", "ERROR:1:stop here");
    ErrorOfOpening("PPC:host:1");
    EXPECT_EQ(_rom._multi_max, 1u);
    EXPECT_EQ(_output,
              "-D- RomInterface:N: RemoteRomInterface::Open() PPC:host:1: Error quering "
              "vsMultiMaxGet. Using 1. Received : " +
                  answer + "\n-D- RomInterface:N: Interface verson of server PPC:host:1: 2.2\n");
  }
}

TEST_F(RemoteTest, MaximumIsTakenFromTheAnswer) {
  _fabric.facts.multi_max = "37";
  OpenFor({LEAF1});
  EXPECT_EQ(_rom._multi_max, 37u);
}

TEST_F(RemoteTest, AnswerThatIsNoVersionIsRefused) {
  for (const std::string answer : {"ERROR:none", "2.2b", "", "two"}) {
    AnswerNext("IfcVersion", answer);
    EXPECT_EQ(ErrorOfOpening("PPC:host:1"),
              "Server PPC:host:1: Cant get interface version. Got: " + answer);
  }
}

TEST_F(RemoteTest, OlderServerIsRefused) {
  for (const std::string version : {"2.1", "2", "-3", "nan"}) {
    AnswerNext("IfcVersion", version);
    EXPECT_EQ(ErrorOfOpening("PPC:host:1"),
              "PPC:host:1 interface version is " + version +
                  ". The required version is 2.2 or above. Please update BRAID on the remote "
                  "machine.");
  }
}

TEST_F(RemoteTest, NewerServerIsAccepted) {
  AnswerNext("IfcVersion", "10");
  OpenFor({LEAF1});
}

TEST_F(RemoteTest, RefusedDeviceListEndsTheRun) {
  AnswerNext("NsGetDeviceByType", "ERROR:7:no fabric");
  EXPECT_EQ(ErrorOfOpening("PPC:host:1"),
            "Failed checking access through server PPC:host:1. no fabric");
}

TEST_F(RemoteTest, DeviceThatTheServerDoesNotKnowFails) {
  AddAdapters({LEAF1});
  _rom.SetAccessDevices({LEAF1, 0x77});
  const std::string output = OutputOf([&] { EXPECT_EQ(_rom.Open("PPC:host:1"), BRAID_ERR_SOME); });
  EXPECT_TRUE(
      output.ends_with("\r-E- BURN FAILED:0x0000000000000077:Device not accessible by "
                       "server PPC:host:1 .\n"))
      << output;
  EXPECT_EQ(_rom.GetAccessDevices(), GuidSet{LEAF1});
  EXPECT_FALSE(_rom.LastActionResult(0x77)->_error);
}

TEST_F(RemoteTest, NoDeviceReachedEndsTheRun) {
  _rom.SetAccessDevices({0x77});
  EXPECT_EQ(ErrorOfOpening("PPC:host:1"), "No more accessible devices");
}

TEST_F(RemoteTest, OpeningWithoutDevicesReachesSome) {
  OutputOf([&] { EXPECT_EQ(_rom.Open("PPC:host:1"), BRAID_ERR_SOME); });
}

TEST_F(RemoteTest, DeviceIsKnownByItsPortGuidsToo) {
  AddAdapters({LEAF1});
  _rom.SetAccessDevices({LEAF1 + 2});
  OutputOf([&] { EXPECT_EQ(_rom.Open("PPC:host:1"), BRAID_OK); });
}

TEST_F(RemoteTest, RecordsOfOneDeviceAreOne) {
  OpenFor({LEAF1});
  const auto device = _rom._devs_data.at(LEAF1);
  EXPECT_EQ(_rom._devs_data.at(LEAF1 + 1), device);
  EXPECT_EQ(_rom._devs_data.at(LEAF1 + 2), device);
  EXPECT_EQ(device->node_guid, LEAF1);
  EXPECT_EQ(device->sys_guid, LEAF1 + 0xF);
  EXPECT_EQ(device->port_guids, (GuidVec{LEAF1 + 1, LEAF1 + 2}));
  EXPECT_EQ(device->ports_num, 2u);
  EXPECT_EQ(device->name, "device");
  EXPECT_EQ(device->attr, "none");
}

TEST_F(RemoteTest, RecordTakesAnyTwoCharactersBeforeAGuidAndIgnoresFurtherFields) {
  EXPECT_EQ(_rom.AddDeviceRecord(Response("x 0x7 3 0xA1 yy10 --11 1 name attr more fields")),
            BRAID_OK);
  EXPECT_EQ(_rom._devs_data.at(0x10)->sys_guid, 0xA1u);
  EXPECT_TRUE(_rom._devs_data.exists(0x11));
  EXPECT_EQ(_rom._devs_data.at(0x10)->ports_num, 1u);
}

TEST_F(RemoteTest, RecordThatLacksAFieldIsRefused) {
  for (const std::string record :
       {"", "device", "device 1 x 0x1 0x2 0x3 1 name attr", "device 1 1 0x1 0xzz 0x3 1 name attr",
        "device 1 1 0x1 0x2 0x3 one name attr", "device 1 1 0x1 0x2 0x3 1 name"}) {
    EXPECT_EQ(ErrorOf([&] { _rom.AddDeviceRecord(Response(record)); }),
              "Bad device record format: " + record);
  }
}

TEST_F(RemoteTest, RecordsThatDeclareDifferentPortCountsAreRefused) {
  _rom.AddDeviceRecord(Response("device 1 1 0xA 0xAB 0xC 12 name attr"));
  const std::string second = "device 1 2 0xA 0xAB 0xD 2 name attr";
  EXPECT_EQ(ErrorOf([&] { _rom.AddDeviceRecord(Response(second)); }),
            "Inconsistent ports num report for device ab Current = c. Received record: \"" +
                second + "\" .");
}

TEST_F(RemoteTest, BaseRequestNamesCommandCountAndDevices) {
  OpenFor({LEAF1, 0xFEDCBA9876543210});
  const std::string two = "Multi 2 0x0000000000001000 0xfedcba9876543210 ";
  const std::pair<RomInterface::OpType, std::string> heads[] = {
      {RomInterface::WRITE, "vsI2cWrite"},       {RomInterface::READ, "vsI2cRead"},
      {RomInterface::START, "vsI2cStart"},       {RomInterface::STOP, "vsI2cStop"},
      {RomInterface::ERASE, "vsI2cEraseSector"}, {RomInterface::BURNIMAGE, "vsI2cBurnImage"},
      {RomInterface::GETVSD, "vsGetVsd"},        {RomInterface::GETATTR, "vsI2cGetAttr"}};
  for (const auto& [op, head] : heads) {
    std::string request;
    EXPECT_EQ(_rom.GenBaseRequest(op, request), BRAID_OK);
    EXPECT_EQ(request, head + two);
  }
}

TEST_F(RemoteTest, BaseRequestOfAFlashNamesTheFlash) {
  RecordedFlash rom(_fabric);
  rom.SetAccessDevices({1});
  const std::pair<RomInterface::OpType, std::string> heads[] = {
      {RomInterface::WRITE, "vsFlashWriteMulti"},
      {RomInterface::READ, "vsFlashReadMulti"},
      {RomInterface::START, "vsFlashStartMulti"},
      {RomInterface::STOP, "vsFlashStopMulti"},
      {RomInterface::ERASE, "vsFlashEraseSectorMulti"},
      {RomInterface::BURNIMAGE, "vsFlashBurnImageMulti"},
      {RomInterface::GETATTR, "vsFlashGetAttrMulti"}};
  for (const auto& [op, head] : heads) {
    std::string request;
    rom.GenBaseRequest(op, request);
    EXPECT_EQ(request, head + " 1 0x0000000000000001 ");
  }
}

TEST_F(RemoteTest, UnknownOperationIsRefused) {
  std::string request;
  EXPECT_EQ(ErrorOf([&] { _rom.GenBaseRequest(static_cast<RomInterface::OpType>(9), request); }),
            "Internal error: RemoteRomInterface::GenBaseRequest() : Unknown op type: 9");
}

TEST_F(RemoteTest, SerialNumberRequestNamesOneDeviceOnly) {
  OpenFor({LEAF1, LEAF2});
  std::string request;
  EXPECT_EQ(ErrorOf([&] { _rom.GenBaseRequest(RomInterface::GETBSN, request); }),
            "Fatal Error - Tried to run a single target command BSNGet whith more than 1 active "
            "devices (2)");
  _rom.SetActiveDevices(LEAF2);
  _rom.GenBaseRequest(RomInterface::GETBSN, request);
  EXPECT_EQ(request, "crBSNGet 0x0000000000002000 ");
}

TEST_F(RemoteTest, ReadAndWriteRequestsNameChipSizeOffsetAndWords) {
  _conv._devmap = {EeLoc(0x1000, 0x50), EeLoc(0x1000, 0x51)};
  _fabric.Add(I2cDevice(0x1234, 2));
  OpenQuietly(_rom, {0x1234});
  EXPECT_EQ(_rom.Read(0x1010, 6), BRAID_OK);
  EXPECT_EQ(_rom.Write(0x100, Hex("0011223344556677"), true), BRAID_OK);
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cReadMulti 1 0x0000000000001234 0x51 6 0x10 ",
                      "vsI2cWriteMulti 1 0x0000000000001234 0x50 8 0x100 0x112233 0x44556677 "}));
  EXPECT_EQ(MemoryOf(_fabric, 0x1234, 0x50, 0x100, 8), Hex("0011223344556677"));
}

TEST_F(RemoteTest, LastWordIsFilledUpWithWhatFollowsAndThenWithErasedBytes) {
  OpenFor({LEAF1});
  _rom.Write(0xE, Hex("0102030405060708"), false);  // boundaries are 32 bytes apart
  _rom.Write(0x1E, Hex("0102030405"), false);
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0xe 0x1020304 0x5060708 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 2 0x1e 0x1020304 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 3 0x20 0x30405ff "}));
}

TEST_F(RemoteTest, RequestWithoutAConvertorIsRefused) {
  AddAdapters({LEAF1});
  _rom.SetAccessDevices({LEAF1});
  OutputOf([&] { _rom.Open("PPC:host:1"); });
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Address convertor not initiated while performing command '' to server PPC:host:1 .");
}

TEST_F(RemoteTest, RequestForMoreDevicesThanTheServerTakesIsRefused) {
  AnswerNext("vsMultiMaxGet", "ERROR:none");
  OpenFor({LEAF1, LEAF2});
  for (const auto& action : {std::function<void()>([&] { _rom.Read(0, 4); }),
                             std::function<void()>([&] { _rom.Write(0, DataVec(4), true); })}) {
    EXPECT_EQ(ErrorOf(action),
              "Multi max violation. Server capability: 1 devices. Trying to access 2 devices while "
              "performing command '' to server PPC:host:1 .");
  }
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(RemoteTest, ReadGivesEachDeviceItsBytes) {
  OpenFor({LEAF1, LEAF2});
  _fabric.Find(LEAF1)->chips.at(0).Load(0x10, Hex("1122334455667788"));
  _fabric.Find(LEAF2)->chips.at(0).Load(0x10, Hex("00000001ffffffff"));
  EXPECT_EQ(_rom.Read(0x10, 8), BRAID_OK);
  EXPECT_EQ(_rom.LastActionResult(LEAF1)->_data, Hex("1122334455667788"));
  EXPECT_EQ(_rom.LastActionResult(LEAF2)->_data, Hex("00000001ffffffff"));
}

TEST_F(RemoteTest, DataWordsAreTakenFromBehindTheFirstWord) {
  DataVec out;
  EXPECT_EQ(_rom.GatherData(Response("{data 99} {data 11223344} {data 0x55667788}"), out, false),
            BRAID_OK);
  EXPECT_EQ(out, Hex("1122334455667788"));
}

TEST_F(RemoteTest, WordsOfAnotherShapeAreSkipped) {
  DataVec out;
  _rom.GatherData(Response("ACK x {data} {data 1 2} {bsn 3} {} {database 4}"), out, false);
  EXPECT_EQ(out, Hex("00000004"));
  _rom.GatherData(Response("ACK {data 1} {bsn 0x1ff} {bsn 5}"), out, true);
  EXPECT_EQ(out, Hex("00000004 ff 05"));
  _rom.GatherData(Response(""), out, false);
  EXPECT_EQ(out.size(), 6u);
}

TEST_F(RemoteTest, DataThatIsNoNumberIsRefused) {
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GatherData(Response("ACK {data 12xy}"), out, false); }),
            "Fatal Error: Failed extracting data out of response: \"data 12xy\" .");
}

TEST_F(RemoteTest, ErrorForAllEndsTheRun) {
  OpenFor({LEAF1, LEAF2});
  for (const std::string answer : {"ERROR:bus stuck", "TARGET_ERROR:0x1:bus stuck"}) {
    AnswerNext("Read", answer);
    EXPECT_EQ(QuietErrorOf([&] { _rom.Read(0, 4); }), "No more accessible devices");
    EXPECT_EQ(_output, "\r-E- BURN FAILED:ALL:bus stuck\n");
  }
}

TEST_F(RemoteTest, WrongNumberOfElementsEndsTheRun) {
  OpenFor({LEAF1, LEAF2});
  AnswerNext("Read", "{ACK {data 0x1}}");
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Error accessing to PPC:host:1: Tried to access 2 devices, got response for 1 devices. "
            "Response: {ACK {data 0x1}}");
  AnswerNext("Write", "ACK ACK ACK");
  EXPECT_EQ(ErrorOf([&] { _rom.Write(0, DataVec(4), true); }),
            "Error accessing to PPC:host:1: Tried to access 2 devices, got response for 3 devices. "
            "Response: ACK ACK ACK");
}

TEST_F(RemoteTest, DeviceWhoseElementIsAnErrorFailsAndTheOthersGoOn) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  Fail(sim::Fault::DEVICE_ERROR, "Read", LEAF2, "chip: dead");
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(_rom.Read(0, 4), BRAID_ERR_SOME); }),
            "\r-E- BURN FAILED:0x0000000000002000:chip: dead\n");
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF3}));
  EXPECT_EQ(_rom.LastActionResult(LEAF3)->_data, Hex("ffffffff"));
  EXPECT_TRUE(_rom.LastActionResult(LEAF2)->_error);
  EXPECT_EQ(_rom.LastActionResult(LEAF2)->_error_des, "chip: dead");
  EXPECT_TRUE(_rom.LastActionResult(LEAF2)->_data.empty());
}

TEST_F(RemoteTest, ElementOfAWriteThatIsNoErrorIsASuccessWhateverItSays) {
  OpenFor({LEAF1, LEAF2});
  AnswerNext("Write", "NACK {}");
  EXPECT_EQ(_rom.Write(0, DataVec(4), true), BRAID_OK);
}

TEST_F(RemoteTest, WriteIsCutAtBoundaries) {
  RecordedI2c rom(_fabric, 8);
  AddAdapters({LEAF1});
  OpenQuietly(rom, {LEAF1});
  rom.Write(0xF0, DataVec(300), false);
  std::vector<std::string> heads;
  for (const std::string& request : rom.Requests()) {
    const auto words = splitv(request, " ", false);
    heads.push_back(words[4] + "@" + words[5]);
  }
  EXPECT_EQ(heads, (std::vector<std::string>{"16@0xf0", "256@0x100", "28@0x200"}));
}

class CountingMeter : public RomInterface::ProgressMeter {
 public:
  BraidResult Add(u_int32_t done) override {
    _done.push_back(done);
    return BRAID_OK;
  }
  BraidResult Reset(u_int32_t) override { return BRAID_OK; }
  std::vector<u_int32_t> _done;
};

TEST_F(RemoteTest, MeterIsFedWithEachChunk) {
  OpenFor({LEAF1});
  CountingMeter meter;
  _rom.SetProgresMeter(&meter);
  _rom.Write(0x1C, DataVec(44), false);
  EXPECT_EQ(meter._done, (std::vector<u_int32_t>{4, 32, 8}));
}

TEST_F(RemoteTest, RandomWritesArriveWholeAndNeverCrossABoundary) {
  AddAdapters({LEAF1});
  TestRng rng(5252);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    const u_int32_t log2 = 4 + static_cast<u_int32_t>(rng() % 12);
    const auto addr = static_cast<u_int32_t>(rng() % 0x1000);
    const DataVec data = RandomBytes(rng, rng() % 0x1000);
    RecordedI2c rom(_fabric, log2);
    OpenQuietly(rom, {LEAF1});
    rom.Write(addr, data, true);
    u_int32_t next = addr;
    for (const std::string& request : rom.Requests()) {
      const auto words = splitv(request, " ", false);
      const auto size = static_cast<u_int32_t>(std::stoul(words[4]));
      const auto offset = static_cast<u_int32_t>(std::stoul(words[5], nullptr, 16));
      ASSERT_GT(size, 0u);
      EXPECT_EQ(offset, next);
      EXPECT_EQ(offset >> log2, (offset + size - 1) >> log2);
      next = offset + size;
    }
    EXPECT_EQ(next, addr + data.size());
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, addr, static_cast<u_int32_t>(data.size())), data);
  }
}

TEST_F(RemoteTest, WritingNothingSendsNothing) {
  OpenFor({LEAF1});
  EXPECT_EQ(_rom.Write(0, {}, true), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(RemoteTest, ReadingNothingSendsNothingAndFindsItEqual) {
  OpenFor({LEAF1, LEAF2});
  EXPECT_EQ(_rom.Read(0, 0), BRAID_OK);
  EXPECT_TRUE(_rom.LastActionResult(LEAF1)->_data.empty());
  const auto equal = [](const DataVec& a, const DataVec& b) { return a == b; };
  GuidSet answer;
  OutputOf([&] { answer = _rom.Query(0, {}, equal, true); });
  EXPECT_EQ(answer, (GuidSet{LEAF1, LEAF2}));
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(RemoteTest, WritePastTheLastAddressIsRefusedWhole) {
  OpenFor({LEAF1});
  EXPECT_EQ(ErrorOf([&] { _rom.Write(0xFFFFFFF0, DataVec(17), true); }),
            "Writing 17 bytes at address fffffff0 would reach past the last address.");
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(RemoteTest, OperationForNobodySendsNothingAndLeavesNoResults) {
  OpenFor({LEAF1, LEAF2});
  CountingMeter meter;
  _rom.SetProgresMeter(&meter);
  OutputOf([&] { _rom.DeviceError("broken", LEAF1); });
  const std::function<BraidResult()> actions[] = {
      [&] { return _rom.Read(0, 4); }, [&] { return _rom.Write(0, DataVec(40), true); },
      [&] { return _rom.WriteNoErase(0, DataVec(4)); }, [&] { return _rom.BurnImage("x"); }};
  for (const auto& action : actions) {
    _rom.SetActiveDevices();
    _rom.Read(0, 4);
    _rom.Requests();
    _rom.SetActiveDevices(LEAF1);
    EXPECT_EQ(action(), BRAID_OK);
    EXPECT_TRUE(_rom.Requests().empty());
    EXPECT_TRUE(_rom._last_result.empty());
  }
  EXPECT_EQ(meter._done, (std::vector<u_int32_t>{32, 8, 4}));  // the meter goes on all the same
}

class VerifyTest : public RemoteTest {
 protected:
  VerifyTest() {
    _fabric.facts.type = "I2C";
    OpenFor({LEAF1, LEAF2});
  }
};

TEST_F(VerifyTest, EachChunkIsReadBackOverI2c) {
  _rom.Write(0x1C, DataVec(8, 0xAB), false);
  EXPECT_EQ(
      _rom.Requests(),
      (Requests{"vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x1c 0xabababab ",
                "vsI2cReadMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x1c ",
                "vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x20 0xabababab ",
                "vsI2cReadMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x20 "}));
  EXPECT_TRUE(_rom.LastActionResult(LEAF1)->_data.empty());
}

TEST_F(VerifyTest, DeviceThatHoldsSomethingElseFails) {
  AnswerNext("Read",
             "{ACK {data 0x01020304} {data 0x05060708}} {ACK {data 0x01020304} {data "
             "0x050a0708}}");
  EXPECT_EQ(OutputOf([&] { _rom.Write(0xA0, Hex("0102030405060708"), true); }),
            "\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address a5. Wrote 6, "
            "read a .\n");
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF1});
}

TEST_F(VerifyTest, ShortReadBackIsADifferenceAtTheFirstMissingByte) {
  AnswerNext("Read", "{ACK {data 0x01020304} {data 0x05060708}} {ACK {data 0x01020304}}");
  EXPECT_EQ(OutputOf([&] { _rom.Write(0xA0, Hex("0102030405060708"), true); }),
            "\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address a4. Wrote 5, "
            "read nothing .\n");
}

TEST_F(VerifyTest, EveryDeviceThatDiffersIsReported) {
  AnswerNext("Read", "{ACK {data 0x11020304}} {ACK {data 0x01020305}}");
  EXPECT_EQ(QuietErrorOf([&] { _rom.Write(0, Hex("01020304"), true); }),
            "No more accessible devices");
  EXPECT_EQ(_output,
            "\r-E- BURN FAILED:0x0000000000001000:Error verifying data on address 0. Wrote 1, read "
            "11 .\n"
            "\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address 3. Wrote 4, read "
            "5 .\n");
}

TEST_F(VerifyTest, DeviceThatFailsTheReadBackIsNotComparedAgain) {
  Fail(sim::Fault::DEVICE_ERROR, "Read", LEAF1, "gone");
  EXPECT_EQ(OutputOf([&] { _rom.Write(0, Hex("01020304"), true); }),
            "\r-E- BURN FAILED:0x0000000000001000:gone\n");
}

TEST_F(VerifyTest, BytesWrittenWrongAreFound) {
  Fail(sim::Fault::WRITE_WRONG, "Write", LEAF2);
  const std::string output = OutputOf([&] { _rom.Write(0, DataVec(32), true); });
  EXPECT_TRUE(
      output.starts_with("\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address "))
      << output;
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF1});
}

TEST_F(RemoteTest, OtherServersVerifyThemselves) {
  OpenFor({LEAF1});
  _rom.Write(0, DataVec(4), true);
  EXPECT_EQ(_rom.Requests(), (Requests{"vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x0 0x0 "}));
}

TEST_F(RemoteTest, EepromNeedsNoEraseNoBracketAndHasNoSectors) {
  OpenFor({LEAF1});
  EXPECT_EQ(_rom.Start(), BRAID_OK);
  EXPECT_EQ(_rom.Stop(), BRAID_OK);
  EXPECT_EQ(_rom.Erase(1, 2), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
  EXPECT_EQ(ErrorOf([&] { _rom.GetSectorSize(); }),
            "GetSectorSize - Not implemented for interface Remote I2C.");
}

TEST_F(RemoteTest, VendorDataIsFetchedFromOneDevice) {
  OpenFor({LEAF1, LEAF2});
  for (std::size_t i = 0; i < sim::VSD_SIZE; ++i) {
    _fabric.Find(LEAF2)->vsd[i] = static_cast<u_int8_t>(i);
  }
  DataVec out;
  EXPECT_EQ(_rom.GetVsd(LEAF2, out), BRAID_OK);
  EXPECT_EQ(out, _fabric.Find(LEAF2)->vsd);
  EXPECT_EQ(_rom.Requests(), (Requests{"vsGetVsdMulti 1 0x0000000000002000 "}));
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF2}));
}

TEST_F(RemoteTest, SerialNumberIsFetchedFromOneDevice) {
  OpenFor({LEAF1, LEAF2});
  _fabric.Find(LEAF1)->bsn[0] = 'M';
  _fabric.Find(LEAF1)->bsn[63] = 0xFE;
  DataVec out;
  EXPECT_EQ(_rom.GetBsn(LEAF1, out), BRAID_OK);
  EXPECT_EQ(out, _fabric.Find(LEAF1)->bsn);
  EXPECT_EQ(_rom.Requests(), (Requests{"crBSNGet 0x0000000000001000 "}));
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{LEAF1, LEAF2}));
}

TEST_F(RemoteTest, DeviceThatRefusesItsFieldsFailsAndIsNotRestored) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  Fail(sim::Fault::DEVICE_ERROR, "GetVsd", LEAF2, "no data");
  DataVec out;
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(_rom.GetVsd(LEAF2, out), BRAID_ERR_SOME); }),
            "\r-E- BURN FAILED:0x0000000000002000:no data\n");
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{});
  EXPECT_EQ(_rom.GetAccessDevices(), (GuidSet{LEAF1, LEAF3}));
  EXPECT_TRUE(out.empty());
}

TEST_F(RemoteTest, WholeImageIsHandedToTheServer) {
  OpenFor({LEAF1, LEAF2});
  const std::string image = "START A 10 0\n1 2 3 4\nEND A\n";
  const std::string output = OutputOf([&] { EXPECT_EQ(_rom.BurnImage(image), BRAID_OK); });
  EXPECT_EQ(WithoutLineNumbers(output), "-D- RomInterface:N: Received ACK\n");
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsI2cBurnImageMulti 2 0x0000000000001000 0x0000000000002000 "}));
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x10, 4), Hex("01020304"));
  EXPECT_EQ(MemoryOf(_fabric, LEAF2, 0, 0x10, 4), Hex("01020304"));
}

TEST_F(RemoteTest, DeviceThatFailsTheServersBurnIsReported) {
  OpenFor({LEAF1});
  const std::string output = OutputOf([&] {
    EXPECT_EQ(ErrorOf([&] { _rom.BurnImage("START A 1FFE 0\n1 2 3 4\nEND A\n"); }),
              "No more accessible devices");
  });
  EXPECT_NE(output.find("\r-E- BURN FAILED:0x0000000000001000:"), std::string::npos) << output;
}

class FlashTest : public FabricTest {
 protected:
  FlashTest() : _rom(_fabric) { _fabric.Add(FlashDevice(0x5000)); }

  void OpenFlash() { OpenQuietly(_rom, {0x5000}); }

  std::string ErrorOfOpening() {
    _rom.SetAccessDevices({0x5000});
    std::string error;
    OutputOf([&] { error = ErrorOf([&] { _rom.Open("IB:host:1"); }); });
    return error;
  }

  static std::string EraseOf(u_int32_t sector) {
    return Text("vsFlashEraseSectorMulti 1 0x0000000000005000 0x0 0x", std::hex, sector, " ");
  }

  RecordedFlash _rom;
};

TEST_F(FlashTest, OpeningReadsTheAttributes) {
  _rom.SetAccessDevices({0x5000});
  const std::string output =
      WithoutLineNumbers(OutputOf([&] { EXPECT_EQ(_rom.Open("IB:host:1"), BRAID_OK); }));
  EXPECT_EQ(_rom.Requests().back(), "vsFlashGetAttrMulti 1 0x0000000000005000 ");
  EXPECT_TRUE(output.ends_with("-D- RomInterface:N: Flash size: 100000, sector size: 10000.\n"))
      << output;
  EXPECT_EQ(_rom.GetSectorSize(), 0x10000u);
}

TEST_F(FlashTest, LaterAttributeOfANameWinsAndMissingOnesAreZero) {
  AnswerNext("GetAttr", "{{sector_size=100 x=1 sector_size=0x200}}");
  OpenFlash();
  EXPECT_EQ(_rom.GetSectorSize(), 0x200u);
  AnswerNext("GetAttr", "{{size=0x200}}");
  OpenFlash();
  EXPECT_EQ(_rom.GetSectorSize(), 0u);
  AnswerNext("GetAttr", "{}");
  OpenFlash();
  EXPECT_EQ(_rom.GetSectorSize(), 0u);
}

TEST_F(FlashTest, AttributeThatIsNoPairIsRefused) {
  AnswerNext("GetAttr", "{{sector_size=100 size}}");
  EXPECT_EQ(ErrorOfOpening(),
            "Internal Error: Bad format of Attribute response: size. Full response: "
            "{{sector_size=100 size}} .");
  AnswerNext("GetAttr", "{{a=b=c}}");
  EXPECT_EQ(ErrorOfOpening(),
            "Internal Error: Bad format of Attribute response: a=b=c. Full response: {{a=b=c}} .");
}

TEST_F(FlashTest, AttributeThatIsNoNumberIsRefused) {
  AnswerNext("GetAttr", "{{size=10q}}");
  EXPECT_EQ(ErrorOfOpening(),
            "Internal Error: Expected numeric value in Attribute response: {{size=10q}}.");
}

TEST_F(FlashTest, OnlyOneFlashIsOpenedAtATime) {
  _fabric.Add(FlashDevice(0x6000));
  _rom.SetAccessDevices({0x5000, 0x6000});
  OutputOf([&] {
    EXPECT_EQ(ErrorOf([&] { _rom.Open("IB:host:1"); }),
              "Tried to GetSectorSize() for 2 devices. GetSectorSize() is currently supported for "
              "1 device only.");
  });
}

TEST_F(FlashTest, MissingTargetLeavesTheSectorSizeUnknownAndThenNothingIsErased) {
  _rom.SetAddressConvertor(&_conv);
  _rom.SetAccessDevices({0x5000, 0x77});
  OutputOf([&] { EXPECT_EQ(_rom.Open("IB:host:1"), BRAID_ERROR); });
  _rom.Requests();
  EXPECT_EQ(ErrorOf([&] { _rom.Write(0x20000, DataVec(4), true); }),
            "RemoteFlashInterface::Erase() : Can't erase address 20000, the flash sector size is "
            "unknown.");
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(FlashTest, BracketIsSentWithItsTwoBlanks) {
  OpenFlash();
  EXPECT_EQ(_rom.Start(), BRAID_OK);
  EXPECT_EQ(_rom.Stop(), BRAID_OK);
  EXPECT_EQ(_rom.Requests(), (Requests{"vsFlashStartMulti 1 0x0000000000005000  1",
                                       "vsFlashStopMulti 1 0x0000000000005000 "}));
}

TEST_F(FlashTest, SectorErasedLastIsNotErasedAgain) {
  OpenFlash();
  EXPECT_EQ(_rom.Erase(0x10000, 0x10), BRAID_OK);
  EXPECT_EQ(_rom.Requests(), Requests{EraseOf(0x10000)});
  EXPECT_EQ(_rom.Erase(0x10000, 0x10), BRAID_OK);
  EXPECT_EQ(_rom.Erase(0x10010, 0x10), BRAID_OK);
  EXPECT_EQ(_rom.Erase(0x10000, 0x10000), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(FlashTest, EraseMustBeginWithASector) {
  OpenFlash();
  EXPECT_EQ(ErrorOf([&] { _rom.Erase(0x10010, 0x10); }),
            "RemoteFlashInterface::Erase() : Trying to erase address 10010, not aligned to flash "
            "sector size (10000).");
  _rom.Erase(0x10000, 4);
  EXPECT_EQ(ErrorOf([&] { _rom.Erase(0x1FFF0, 0x20); }),
            "RemoteFlashInterface::Erase() : Trying to erase address 1fff0, not aligned to flash "
            "sector size (10000).");
}

TEST_F(FlashTest, EraseCoversEverySectorAndRemembersTheFirst) {
  OpenFlash();
  _rom.Erase(0x20000, 0x20001);
  EXPECT_EQ(_rom.Requests(), (Requests{EraseOf(0x20000), EraseOf(0x30000), EraseOf(0x40000)}));
  _rom.Erase(0x20000, 0x10);
  EXPECT_TRUE(_rom.Requests().empty());
  _rom.Erase(0x40000, 0x10);
  EXPECT_EQ(_rom.Requests(), Requests{EraseOf(0x40000)});
}

TEST_F(FlashTest, ErasingNothingSendsNothing) {
  OpenFlash();
  EXPECT_EQ(_rom.Erase(0x20000, 0), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
}

TEST_F(FlashTest, LastSectorOfTheAddressSpaceIsErasedThoughNoneWasYet) {
  OpenFlash();
  AnswerNext("Erase", "ACK");
  EXPECT_EQ(_rom.Erase(0xFFFF0000, 0x10), BRAID_OK);
  EXPECT_EQ(_rom.Requests(), Requests{EraseOf(0xFFFF0000)});
}

TEST_F(FlashTest, WriteErasesEachSectorOnceWhereAskedTo) {
  OpenFlash();
  _rom.Write(0x20000, DataVec(40, 0x12), true);
  EXPECT_EQ(
      _rom.Requests(),
      (Requests{EraseOf(0x20000),
                "vsFlashWriteMulti 1 0x0000000000005000 0x0 32 0x20000 0x12121212 0x12121212 "
                "0x12121212 0x12121212 0x12121212 0x12121212 0x12121212 0x12121212 ",
                "vsFlashWriteMulti 1 0x0000000000005000 0x0 8 0x20020 0x12121212 0x12121212 "}));
  _rom.WriteNoErase(0x40000, DataVec(4));
  EXPECT_EQ(_rom.Requests(),
            (Requests{"vsFlashWriteMulti 1 0x0000000000005000 0x0 4 0x40000 0x0 "}));
  EXPECT_EQ(_fabric.Find(0x5000)->chips.at(0).EraseCounts()[2], 1u);
}

TEST_F(FlashTest, OperationsForNobodySendNothing) {
  _fabric.Add(FlashDevice(0x6000));
  OpenFlash();
  _rom.SetAccessDevices({0x5000, 0x6000});
  OutputOf([&] { _rom.DeviceError("broken", 0x6000); });
  _rom.SetActiveDevices(Guid{0x6000});
  EXPECT_EQ(_rom.Start(), BRAID_OK);
  EXPECT_EQ(_rom.Stop(), BRAID_OK);
  EXPECT_EQ(_rom.Erase(0x10000, 4), BRAID_OK);
  EXPECT_EQ(_rom.EraseSector(0x10000), BRAID_OK);
  EXPECT_EQ(_rom.Write(0x10000, DataVec(4), true), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
  EXPECT_TRUE(_rom._last_result.empty());
}

TEST_F(FlashTest, StaleErrorOfADeviceThatHasLeftEndsTheRun) {
  // Erasing updates the results of the operation before; a device that failed in that one and has
  // left is reported once more, and is no longer there to fail.
  _fabric.Add(FlashDevice(0x6000));
  _fabric.Add(FlashDevice(0x7000));
  OpenFlash();
  _rom.SetAccessDevices({0x5000, 0x6000, 0x7000});
  Fail(sim::Fault::DEVICE_ERROR, "Read", 0x6000, "first");
  Fail(sim::Fault::DEVICE_ERROR, "Erase", 0x7000, "second");
  std::string error;
  OutputOf([&] {
    EXPECT_EQ(_rom.Read(0, 4), BRAID_ERR_SOME);
    error = ErrorOf([&] { _rom.EraseSector(0x10000); });
  });
  EXPECT_EQ(error, "DeviceError(): 0x6000: No such device. (error: first).");
}

TEST_F(FlashTest, PlainAcknowledgementClearsStaleErrors) {
  _fabric.Add(FlashDevice(0x6000));
  OpenFlash();
  _rom.SetAccessDevices({0x5000, 0x6000});
  Fail(sim::Fault::DEVICE_ERROR, "Read", 0x6000, "first");
  OutputOf([&] { _rom.Read(0, 4); });
  EXPECT_TRUE(_rom.LastActionResult(0x6000)->_error);
  EXPECT_EQ(_rom.EraseSector(0x10000), BRAID_OK);
  EXPECT_FALSE(_rom.LastActionResult(0x6000)->_error);
}

TEST_F(FlashTest, FlashThatLosesPowerInTheBracketFails) {
  OpenFlash();
  Fail(sim::Fault::POWER_OFF, "Stop");
  OutputOf([&] { EXPECT_EQ(ErrorOf([&] { _rom.Stop(); }), "No more accessible devices"); });
}

TEST_F(FabricTest, DevicesBehindASocketAreReachedTheSameWay) {
  AddAdapters({LEAF1, LEAF2});
  protocol::ServerThread server(_fabric);
  RemoteI2cInterface rom(5);
  rom.SetAddressConvertor(&_conv);
  rom.SetAccessDevices({LEAF1, LEAF2});
  OutputOf([&] { EXPECT_EQ(rom.Open(server.ServerString().c_str()), BRAID_OK); });
  const DataVec data(100, 0x5A);
  EXPECT_EQ(rom.Write(0x10, data, true), BRAID_OK);
  EXPECT_EQ(rom.Read(0x10, 100), BRAID_OK);
  EXPECT_EQ(rom.LastActionResult(LEAF1)->_data, data);
  EXPECT_EQ(rom.LastActionResult(LEAF2)->_data, data);
  EXPECT_EQ(rom.Close(), BRAID_OK);
  EXPECT_EQ(server.Requests().size(), 8u);  // three to open, four chunks, one read
}

TEST_F(FabricTest, LongAnswersComeThroughInPieces) {
  AddAdapters({LEAF1});
  protocol::ServerThread server(_fabric);
  TestRng rng(3);
  const DataVec data = RandomBytes(rng, 0x2000);
  server.BetweenRequests([&] { _fabric.Find(LEAF1)->chips.at(0).Load(0, data); });
  RemoteI2cInterface rom(5);
  rom.SetAddressConvertor(&_conv);
  rom.SetAccessDevices({LEAF1});
  OutputOf([&] { rom.Open(server.ServerString().c_str()); });
  EXPECT_EQ(rom.Read(0, 0x2000), BRAID_OK);
  EXPECT_EQ(rom.LastActionResult(LEAF1)->_data, data);
}

}  // namespace
