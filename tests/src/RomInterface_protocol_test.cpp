// Answers that a server should not give, devices that fail in the middle, and connections that
// break: what the remote interfaces then say, drop and send.
#include "protocol/Server.h"
#include "tests/support/fabric_support.h"

namespace {

using BraidConn::Response;

class ProtocolTest : public FabricTest {
 protected:
  ProtocolTest() : _rom(_fabric) { _fabric.facts.type = "PPC"; }

  void OpenFor(const GuidSet& guids) {
    AddAdapters(guids);
    OpenQuietly(_rom, guids);
  }

  /// What goes wrong in `action`; its console output goes to _output, line numbers shown as N.
  std::string QuietErrorOf(const std::function<void()>& action) {
    std::string error;
    _output = WithoutLineNumbers(OutputOf([&] { error = ErrorOf(action); }));
    return error;
  }

  RecordedI2c _rom;
  std::string _output;
};

TEST_F(ProtocolTest, FailureOfTheRunIsRecordedToo) {
  OpenFor({LEAF1});
  EXPECT_EQ(QuietErrorOf([&] { _rom.DeviceError("all", 0); }), "No more accessible devices");
  EXPECT_EQ(_rom._error_devs, GuidSet{0});
}

TEST_F(ProtocolTest, NumberThatIsNoFieldTypeIsRefused) {
  OpenFor({LEAF1});
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(LEAF1, static_cast<FieldType>(7), out); }),
            "RomInterface::GetField() : Unknown field type: 7");
}

TEST_F(ProtocolTest, FieldsOfADeviceAreWhatItsRecordsTold) {
  OpenFor({LEAF1});
  DataVec out;
  EXPECT_EQ(_rom.GetField(LEAF1, GUIDS, out), BRAID_OK);
  EXPECT_EQ(out, Hex("0000000000001000 0000000000001001 0000000000001002 000000000000100f"));
}

TEST_F(ProtocolTest, DeviceWhoseRecordsLackAPortHasNoGuidsField) {
  sim::Device device = Adapter(0xAB00);
  device.declared_ports = 3;
  _fabric.Add(std::move(device));
  OpenQuietly(_rom, {0xAB00});
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0xAB00, GUIDS, out); }),
            "Internal Error: Device ab00 declares 3 ports, but 2 port guids are detected for it.");
  EXPECT_TRUE(out.empty());
}

TEST_F(ProtocolTest, DeviceThatFailsAQueryIsJudgedOnNothing) {
  OpenFor({LEAF1, LEAF2});
  _fabric.Find(LEAF1)->chips.at(0).Load(0x20, Hex("cb84cb84"));
  const auto equal = [](const DataVec& a, const DataVec& b) { return a == b; };
  for (const bool want : {true, false}) {
    RecordedI2c rom(_fabric);
    OpenQuietly(rom, {LEAF1, LEAF2});
    Fail(sim::Fault::DEVICE_ERROR, "Read", LEAF2, "mute");
    GuidSet answer;
    EXPECT_EQ(WithoutLineNumbers(
                  OutputOf([&] { answer = rom.Query(0x20, Hex("cb84cb84"), equal, want); })),
              "\r-E- BURN FAILED:0x0000000000002000:mute\n"
              "-D- RomInterface:N: Querying device 1000, addr 20 size 4\n"
              "-D- RomInterface:N: Querying device 2000, addr 20 size 4\n");
    EXPECT_EQ(answer, want ? GuidSet{LEAF1} : GuidSet{LEAF2});
    EXPECT_EQ(rom.GetActiveDevices(), GuidSet{LEAF1});
    _fabric.faults = {};
  }
}

// ---- Device records

TEST_F(ProtocolTest, PortsAreAddedOnceAndTheFirstRecordNamesTheDevice) {
  for (const std::string record :
       {"device 1 1 0xA0 0x10 0x11 3 first one", "device 1 1 0xA0 0x10 0x11 3 first one",
        "device 1 2 0xB0 0x10 0x12 3 second two", "device 1 3 0xC0 0x10 0x13 3 third three"}) {
    EXPECT_EQ(_rom.AddDeviceRecord(Response(record)), BRAID_OK);
  }
  const auto device = _rom._devs_data.at(0x10);
  EXPECT_EQ(device->port_guids, (GuidVec{0x11, 0x12, 0x13}));
  EXPECT_EQ(device->sys_guid, 0xA0u);
  EXPECT_EQ(device->name, "first");
  EXPECT_EQ(device->attr, "one");
  EXPECT_EQ(device->type, DEV_UNKNOWN);
  EXPECT_EQ(_rom._devs_data.keys(), (std::vector<Guid>{0x10, 0x11, 0x12, 0x13}));
}

TEST_F(ProtocolTest, PortGuidThatIsAKeyAlreadyIsNotAddedAgain) {
  _rom.AddDeviceRecord(Response("device 1 1 0xA 0x10 0x10 2 name attr"));
  EXPECT_EQ(_rom._devs_data.at(0x10)->port_guids, GuidVec{0x10});
  _rom.AddDeviceRecord(Response("device 2 1 0xA 0x20 0x21 1 name attr"));
  _rom.AddDeviceRecord(Response("device 1 2 0xA 0x10 0x21 2 name attr"));
  EXPECT_EQ(_rom._devs_data.at(0x10)->port_guids, GuidVec{0x10});
  EXPECT_EQ(_rom._devs_data.at(0x21)->node_guid, 0x20u);
}

TEST_F(ProtocolTest, GuidOfMoreThan64BitsIsABadRecord) {
  const std::string record = "device 1 1 0xA 0x10000000000000000 0x11 1 name attr";
  EXPECT_EQ(ErrorOf([&] { _rom.AddDeviceRecord(Response(record)); }),
            "Bad device record format: " + record);
  EXPECT_TRUE(_rom._devs_data.empty());
}

TEST_F(ProtocolTest, BadRecordsEndTheOpening) {
  _rom.SetAccessDevices({0xAB});
  AnswerNext("NsGetDeviceByType", "{device 1 1 0xA 0xAB 0xAC 2 n a} {device 1 2 0xA 0xAB}");
  EXPECT_EQ(QuietErrorOf([&] { _rom.Open("PPC:host:1"); }),
            "Bad device record format: device 1 2 0xA 0xAB");
  RecordedI2c rom(_fabric);
  rom.SetAccessDevices({0xAB});
  AnswerNext("NsGetDeviceByType",
             "{device 1 1 0xA 0xAB 0xAC 2 n a} {device 1 2 0xA 0xAB 0xAD 1 n a}");
  EXPECT_EQ(QuietErrorOf([&] { rom.Open("PPC:host:1"); }),
            "Inconsistent ports num report for device ab Current = 2. Received record: \"device 1 "
            "2 0xA 0xAB 0xAD 1 n a\" .");
}

TEST_F(ProtocolTest, DeviceListThatIsNoListEndsTheOpening) {
  _rom.SetAccessDevices({0xAB});
  AnswerNext("NsGetDeviceByType", "{device 1");
  EXPECT_EQ(QuietErrorOf([&] { _rom.Open("PPC:host:1"); }),
            "Response::TclSplit(): Can't parse '{device 1' : Unbalanced starts (1) and ends (0) .");
}

TEST_F(ProtocolTest, EveryMissingDeviceIsReportedBeforeTheRunEnds) {
  AddAdapters({LEAF2});
  _rom.SetAccessDevices({LEAF1, LEAF3});
  EXPECT_EQ(QuietErrorOf([&] { _rom.Open("IB:host:1"); }), "No more accessible devices");
  EXPECT_EQ(_output,
            "-D- RomInterface:N: Interface verson of server IB:host:1: 2.2\n"
            "\r-E- BURN FAILED:0x0000000000001000:Device not accessible by server IB:host:1 .\n"
            "\r-E- BURN FAILED:0x0000000000003000:Device not accessible by server IB:host:1 .\n");
}

// ---- Answers

TEST_F(ProtocolTest, MaximumOfNoDevicesAllowsNone) {
  AnswerNext("vsMultiMaxGet", "0");
  OpenFor({LEAF1});
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Multi max violation. Server capability: 0 devices. Trying to access 1 devices while "
            "performing command '' to server PPC:host:1 .");
}

TEST_F(ProtocolTest, DevicesUpToTheMaximumAreTaken) {
  AnswerNext("vsMultiMaxGet", "2");
  OpenFor({LEAF1, LEAF2, LEAF3});
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Multi max violation. Server capability: 2 devices. Trying to access 3 devices while "
            "performing command '' to server PPC:host:1 .");
  GuidSet two{LEAF1, LEAF3};
  _rom.SetActiveDevices(two);
  EXPECT_EQ(_rom.Read(0, 4), BRAID_OK);
}

TEST_F(ProtocolTest, ReadOfAnOddSizeAsksForThatSizeAndTakesWholeWords) {
  OpenFor({LEAF1});
  _fabric.Find(LEAF1)->chips.at(0).Load(0x10, Hex("0102030405060708"));
  EXPECT_EQ(_rom.Read(0x10, 5), BRAID_OK);
  EXPECT_EQ(_rom.Requests(), (Requests{"vsI2cReadMulti 1 0x0000000000001000 0x0 5 0x10 "}));
  EXPECT_EQ(_rom.LastActionResult(LEAF1)->_data, Hex("0102030405060708"));
}

TEST_F(ProtocolTest, ReadsAreNeverCut) {
  OpenFor({LEAF1});
  EXPECT_EQ(_rom.Read(0x1C, 0x100), BRAID_OK);
  EXPECT_EQ(_rom.Requests(), (Requests{"vsI2cReadMulti 1 0x0000000000001000 0x0 256 0x1c "}));
}

TEST_F(ProtocolTest, AcknowledgedReadHasNoData) {
  OpenFor({LEAF1});
  AnswerNext("Read", "ACK");
  EXPECT_EQ(_rom.Read(0, 4), BRAID_OK);
  EXPECT_TRUE(_rom.LastActionResult(LEAF1)->_data.empty());
}

TEST_F(ProtocolTest, AnswersWithOneElementTooManyOrTooFewEndTheRun) {
  OpenFor({LEAF1, LEAF2});
  Fail(sim::Fault::DROP_ELEMENT, "Read");
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Error accessing to PPC:host:1: Tried to access 2 devices, got response for 1 devices. "
            "Response: {ACK {data 0xffffffff}}");
  AnswerNext("Write", "");
  EXPECT_EQ(ErrorOf([&] { _rom.Write(0, DataVec(4), true); }),
            "Error accessing to PPC:host:1: Tried to access 2 devices, got response for 0 devices. "
            "Response: ");
  AnswerNext("Read", "ACK");  // one word stands for all devices only where they were written
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Error accessing to PPC:host:1: Tried to access 2 devices, got response for 1 devices. "
            "Response: ACK");
}

TEST_F(ProtocolTest, AnswerThatIsNoListEndsTheRun) {
  OpenFor({LEAF1});
  AnswerNext("Read", "ACK{data 1}");
  EXPECT_EQ(ErrorOf([&] { _rom.Read(0, 4); }),
            "Response::TclSplit(): Can't parse 'ACK{data 1}' : '{' without a preceder white space "
            "at char 3.");
}

TEST_F(ProtocolTest, SerialNumberThatIsNoNumberIsRefused) {
  OpenFor({LEAF1});
  AnswerNext("BSNGet", "ACK {bsn 0x4d} {bsn M}");
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetBsn(LEAF1, out); }),
            "Fatal Error: Failed extracting data out of response: \"bsn M\" .");
}

TEST_F(ProtocolTest, SerialNumberAnswerIsOneElementHoweverManyWordsItHas) {
  OpenFor({LEAF1});
  AnswerNext("BSNGet", "ACK {bsn 0x4d} {data 0x11223344} {bsn 0x154}");
  DataVec out;
  EXPECT_EQ(_rom.GetBsn(LEAF1, out), BRAID_OK);
  EXPECT_EQ(out, Hex("4d54"));
}

TEST_F(ProtocolTest, FailedDeviceIsAskedForNoFields) {
  OpenFor({LEAF1, LEAF2});
  OutputOf([&] { _rom.DeviceError("broken", LEAF1); });
  DataVec out{7};
  EXPECT_EQ(_rom.GetVsd(LEAF1, out), BRAID_OK);
  EXPECT_EQ(_rom.GetBsn(LEAF1, out), BRAID_OK);
  EXPECT_TRUE(_rom.Requests().empty());
  EXPECT_EQ(out, DataVec{7});
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF2});
}

TEST_F(ProtocolTest, RefusedSerialNumberEndsTheRunAndLeavesNothing) {
  OpenFor({LEAF1, LEAF2});
  AnswerNext("BSNGet", "TARGET_ERROR:0x1000:no number");
  DataVec out;
  EXPECT_EQ(QuietErrorOf([&] { _rom.GetBsn(LEAF1, out); }), "No more accessible devices");
  EXPECT_EQ(_output, "\r-E- BURN FAILED:ALL:no number\n");
  EXPECT_TRUE(out.empty());
}

// ---- Devices that fail in the middle

TEST_F(ProtocolTest, DeviceThatFailsAChunkIsLeftOutOfTheNext) {
  OpenFor({LEAF1, LEAF2});
  Fail(sim::Fault::DEVICE_ERROR, "Write", LEAF1, "stuck");
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(_rom.Write(0x1C, DataVec(8, 0xAB), true), BRAID_OK); }),
            "\r-E- BURN FAILED:0x0000000000001000:stuck\n");
  EXPECT_EQ(
      _rom.Requests(),
      (Requests{"vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x1c 0xabababab ",
                "vsI2cWriteMulti 1 0x0000000000002000 0x0 4 0x20 0xabababab "}));
  EXPECT_EQ(_rom.LastActionResult(LEAF1), nullptr);
}

TEST_F(ProtocolTest, DeviceThatFailsAWriteIsNotReadBack) {
  _fabric.facts.type = "I2C";
  OpenFor({LEAF1, LEAF2});
  Fail(sim::Fault::DEVICE_ERROR, "Write", LEAF1, "stuck");
  OutputOf([&] { _rom.Write(0x20, DataVec(4, 0xAB), true); });
  EXPECT_EQ(
      _rom.Requests(),
      (Requests{"vsI2cWriteMulti 2 0x0000000000001000 0x0000000000002000 0x0 4 0x20 0xabababab ",
                "vsI2cReadMulti 1 0x0000000000002000 0x0 4 0x20 "}));
}

TEST_F(ProtocolTest, EveryDeviceThatFailsIsReportedBeforeTheRunEnds) {
  OpenFor({LEAF1, LEAF2});
  AnswerNext("Write", "{ERROR:0x1000:one} {TARGET_ERROR:0x2000:two: too}");
  EXPECT_EQ(QuietErrorOf([&] { _rom.Write(0x1C, DataVec(8), true); }),
            "No more accessible devices");
  EXPECT_EQ(_output,
            "\r-E- BURN FAILED:0x0000000000001000:one\n"
            "\r-E- BURN FAILED:0x0000000000002000:two: too\n");
  EXPECT_EQ(_rom.Requests().size(), 1u);
}

TEST_F(ProtocolTest, OddLengthsAreVerifiedToTheirLastByteAndNoFurther) {
  _fabric.facts.type = "I2C";
  OpenFor({LEAF1});
  AnswerNext("Read", "{ACK {data 0x01020399}}");  // the byte after the three written
  EXPECT_EQ(OutputOf([&] { _rom.Write(0x20, Hex("010203"), true); }), "");
  EXPECT_EQ(_rom.Requests().back(), "vsI2cReadMulti 1 0x0000000000001000 0x0 3 0x20 ");
  AnswerNext("Read", "{ACK {data 0x01020499}}");
  EXPECT_EQ(QuietErrorOf([&] { _rom.Write(0x20, Hex("010203"), true); }),
            "No more accessible devices");
  EXPECT_EQ(_output,
            "\r-E- BURN FAILED:0x0000000000001000:Error verifying data on address 22. Wrote 3, "
            "read 4 .\n");
}

TEST_F(ProtocolTest, EmptyReadBackIsADifferenceAtTheFirstByte) {
  _fabric.facts.type = "I2C";
  OpenFor({LEAF1, LEAF2});
  AnswerNext("Read", "{ACK {data 0x1020304}} ACK");
  EXPECT_EQ(OutputOf([&] { _rom.Write(0x20, Hex("01020304"), true); }),
            "\r-E- BURN FAILED:0x0000000000002000:Error verifying data on address 20. Wrote 1, "
            "read nothing .\n");
}

TEST_F(ProtocolTest, RandomWritesAreReadBackChunkByChunkAndFoundRight) {
  constexpr unsigned SEED = 53;
  _fabric.facts.type = "I2C";
  AddAdapters({LEAF1, LEAF2});
  TestRng rng(SEED);
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(Text("seed ", SEED, ", round ", round));
    const u_int32_t log2 = 2 + static_cast<u_int32_t>(rng() % 10);
    const auto addr = static_cast<u_int32_t>(rng() % 0x1000);
    const DataVec data = RandomBytes(rng, 1 + rng() % 0x400);
    const auto size = static_cast<u_int32_t>(data.size());
    RecordedI2c rom(_fabric, log2);
    OpenQuietly(rom, {LEAF1, LEAF2});
    EXPECT_EQ(OutputOf([&] { EXPECT_EQ(rom.Write(addr, data, false), BRAID_OK); }), "");
    const Requests requests = rom.Requests();
    ASSERT_EQ(requests.size() % 2, 0u);
    u_int32_t next = addr;
    for (std::size_t i = 0; i < requests.size(); i += 2) {
      const auto write = splitv(requests[i], " ", false);
      const auto read = splitv(requests[i + 1], " ", false);
      ASSERT_EQ(write[0], "vsI2cWriteMulti");
      ASSERT_EQ(read[0], "vsI2cReadMulti");
      EXPECT_EQ(std::vector<std::string>(write.begin() + 1, write.begin() + 7),
                std::vector<std::string>(read.begin() + 1, read.end()));
      const auto chunk = static_cast<u_int32_t>(std::stoul(write[5]));
      ASSERT_GT(chunk, 0u);
      EXPECT_EQ(write[6], Text("0x", std::hex, next));
      EXPECT_EQ(next >> log2, (next + chunk - 1) >> log2);
      EXPECT_EQ(write.size(), 7 + (chunk + 3) / 4);
      next += chunk;
    }
    EXPECT_EQ(next, addr + size);
    for (const Guid guid : {LEAF1, LEAF2}) {
      EXPECT_EQ(MemoryOf(_fabric, guid, 0, addr, size), data);
    }
  }
}

// ---- The server burns by itself

TEST_F(ProtocolTest, ServerThatRefusesAnImageEndsTheRun) {
  OpenFor({LEAF1, LEAF2});
  AnswerNext("BurnImage", "ERROR:1:not now");
  EXPECT_EQ(QuietErrorOf([&] { _rom.BurnImage("START A 0 0\n1 2 3 4\nEND A\n"); }),
            "No more accessible devices");
  EXPECT_EQ(_output,
            "-D- RomInterface:N: Received ERROR:1:not now\n\r-E- BURN FAILED:ALL:not now\n");
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0, 4), Hex("ffffffff"));
}

TEST_F(ProtocolTest, DeviceThatRefusesAnImageIsDroppedAndTheOthersGoOn) {
  OpenFor({LEAF1, LEAF2});
  Fail(sim::Fault::DEVICE_ERROR, "BurnImage", LEAF1, "busy");
  EXPECT_EQ(
      QuietErrorOf([&] { EXPECT_EQ(_rom.BurnImage("START A 0 0\n1 2 3 4\nEND A\n"), BRAID_OK); }),
      "(no error)");
  EXPECT_EQ(_output,
            "-D- RomInterface:N: Received {ERROR:0x0000000000001000:busy} ACK\n"
            "\r-E- BURN FAILED:0x0000000000001000:busy\n");
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{LEAF2});
  EXPECT_EQ(MemoryOf(_fabric, LEAF2, 0, 0, 4), Hex("01020304"));
}

TEST_F(ProtocolTest, StaleErrorEndsTheServersBurnOnceAnotherDeviceFails) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  Fail(sim::Fault::DEVICE_ERROR, "Read", LEAF1, "first");
  OutputOf([&] { _rom.Read(0, 4); });
  AnswerNext("BurnImage", "ACK {ERROR:0x3000:second}");
  EXPECT_EQ(QuietErrorOf([&] { _rom.BurnImage("x"); }),
            "DeviceError(): 0x1000: No such device. (error: first).");
}

TEST_F(ProtocolTest, StaleErrorComesAfterThoseOfSmallerGuids) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  Fail(sim::Fault::DEVICE_ERROR, "Read", LEAF3, "first");
  OutputOf([&] { _rom.Read(0, 4); });
  AnswerNext("BurnImage", "{ERROR:0x1000:second} ACK");
  EXPECT_EQ(QuietErrorOf([&] { _rom.BurnImage("x"); }),
            "DeviceError(): 0x3000: No such device. (error: first).");
  EXPECT_TRUE(_output.ends_with("\r-E- BURN FAILED:0x0000000000001000:second\n")) << _output;
}

// ---- Flash

class FlashProtocolTest : public ProtocolTest {
 protected:
  static constexpr Guid FLASH1 = 0x5000;
  static constexpr Guid FLASH2 = 0x6000;

  FlashProtocolTest() : _flash(_fabric) {
    _fabric.Add(FlashDevice(FLASH1));
    _fabric.Add(FlashDevice(FLASH2));
  }

  /// Attributes are read of one flash only; the second one joins later.
  void OpenBoth() {
    OpenQuietly(_flash, {FLASH1});
    _flash.SetAccessDevices({FLASH1, FLASH2});
  }

  std::string ErrorOfOpening(const std::string& attributes) {
    AnswerNext("GetAttr", attributes);
    RecordedFlash flash(_fabric);
    flash.SetAccessDevices({FLASH1});
    return QuietErrorOf([&] { flash.Open("IB:host:1"); });
  }

  static std::string EraseOf(const std::string& devices, u_int32_t sector) {
    return Text("vsFlashEraseSectorMulti ", devices, " 0x0 0x", std::hex, sector, " ");
  }

  RecordedFlash _flash;
};

TEST_F(FlashProtocolTest, AttributesAreTakenFromTheInnermostElement) {
  _flash.SetAccessDevices({FLASH1});
  AnswerNext("GetAttr", "{{sector_size=10000 size=200000}}");
  QuietErrorOf([&] { EXPECT_EQ(_flash.Open("IB:host:1"), BRAID_OK); });
  EXPECT_TRUE(_output.ends_with("-D- RomInterface:N: Flash size: 200000, sector size: 10000.\n"));
  EXPECT_EQ(_flash.GetSectorSize(), 0x10000u);
  // Where that is a word of its own, it is the only one.
  RecordedFlash flash(_fabric);
  flash.SetAccessDevices({FLASH1});
  AnswerNext("GetAttr", "{sector_size=10000 size=200000}");
  QuietErrorOf([&] { EXPECT_EQ(flash.Open("IB:host:1"), BRAID_OK); });
  EXPECT_TRUE(_output.ends_with("-D- RomInterface:N: Flash size: 0, sector size: 10000.\n"));
}

TEST_F(FlashProtocolTest, AttributeWithoutAValueIsRefused) {
  EXPECT_EQ(ErrorOfOpening("{{sector_size=10000 size=}}"),
            "Internal Error: Bad format of Attribute response: size=. Full response: "
            "{{sector_size=10000 size=}} .");
}

TEST_F(FlashProtocolTest, AttributesOfTwoDevicesForOneAreRefused) {
  EXPECT_EQ(ErrorOfOpening("{{sector_size=10000}} {{sector_size=10000}}"),
            "Error accessing to IB:host:1: Tried to access 1 devices, got response for 2 devices. "
            "Response: {{sector_size=10000}} {{sector_size=10000}}");
}

TEST_F(FlashProtocolTest, RefusedAttributesEndTheRun) {
  EXPECT_EQ(ErrorOfOpening("{ERROR:0x5000:no attributes}"), "No more accessible devices");
  EXPECT_TRUE(_output.ends_with("\r-E- BURN FAILED:0x0000000000005000:no attributes\n"));
  EXPECT_EQ(ErrorOfOpening("ERROR:5:no attributes"), "No more accessible devices");
  EXPECT_TRUE(_output.ends_with("\r-E- BURN FAILED:ALL:no attributes\n"));
}

TEST_F(FlashProtocolTest, OpeningWithoutDevicesAsksForNoAttributes) {
  QuietErrorOf([&] { EXPECT_EQ(_flash.Open("IB:host:1"), BRAID_ERROR); });
  EXPECT_EQ(_flash.Requests().back(), "NsGetDeviceByType device");
}

TEST_F(FlashProtocolTest, UnalignedWriteIsRefusedBeforeAnythingIsSent) {
  OpenQuietly(_flash, {FLASH1});
  EXPECT_EQ(ErrorOf([&] { _flash.Write(0x20004, DataVec(4), true); }),
            "RemoteFlashInterface::Erase() : Trying to erase address 20004, not aligned to flash "
            "sector size (10000).");
  EXPECT_TRUE(_flash.Requests().empty());
  EXPECT_EQ(_flash.Write(0x20004, DataVec(4), false), BRAID_OK);
}

TEST_F(FlashProtocolTest, WriteOverTwoSectorsErasesEachAsItIsReached) {
  RecordedFlash flash(_fabric, 15);
  OpenQuietly(flash, {FLASH1});
  flash.Write(0x20000, DataVec(0x18000, 0x12), true);
  Requests heads;
  for (const std::string& request : flash.Requests()) {
    const auto words = splitv(request, " ", false);
    heads.push_back(words[0].substr(7, 5) + " " + (words.size() == 5 ? words[4] : words[5]));
  }
  EXPECT_EQ(heads, (Requests{"Erase 0x20000", "Write 0x20000", "Write 0x28000", "Erase 0x30000",
                             "Write 0x30000"}));
}

TEST_F(FlashProtocolTest, ChunkLargerThanASectorErasesAllItCovers) {
  RecordedFlash flash(_fabric, 18);
  OpenQuietly(flash, {FLASH1});
  flash.Write(0x20000, DataVec(0x10001, 0x12), true);
  const Requests requests = flash.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0], EraseOf("1 0x0000000000005000", 0x20000));
  EXPECT_EQ(requests[1], EraseOf("1 0x0000000000005000", 0x30000));
  EXPECT_TRUE(_fabric.Find(FLASH1)->chips.at(0).Violations().empty());
}

TEST_F(FlashProtocolTest, DeviceThatFailsAnEraseIsLeftOutOfTheNext) {
  OpenBoth();
  Fail(sim::Fault::DEVICE_ERROR, "Erase", FLASH1, "worn out");
  _flash.Read(0, 4);
  _flash.Requests();
  EXPECT_EQ(OutputOf([&] { EXPECT_EQ(_flash.Erase(0x20000, 0x20000), BRAID_OK); }),
            "\r-E- BURN FAILED:0x0000000000005000:worn out\n");
  EXPECT_EQ(_flash.Requests(),
            (Requests{EraseOf("2 0x0000000000005000 0x0000000000006000", 0x20000),
                      EraseOf("1 0x0000000000006000", 0x30000)}));
}

TEST_F(FlashProtocolTest, EraseUpdatesTheResultsOfTheOperationBefore) {
  OpenBoth();
  _flash.Read(0, 4);
  Fail(sim::Fault::DEVICE_ERROR, "Erase", FLASH1, "worn out");
  OutputOf([&] { EXPECT_EQ(_flash.EraseSector(0x20000), BRAID_ERR_SOME); });
  EXPECT_TRUE(_flash.LastActionResult(FLASH1)->_error);
  EXPECT_EQ(_flash.LastActionResult(FLASH1)->_error_des, "worn out");
  EXPECT_EQ(_flash.LastActionResult(FLASH2)->_data, Hex("ffffffff"));  // still the read's
}

TEST_F(FlashProtocolTest, StaleErrorEndsTheBracketOnceAnotherDeviceFails) {
  const struct {
    const char* command;
    BraidResult (RecordedFlash::*operation)();
  } rows[] = {{"Start", &RecordedFlash::Start}, {"Stop", &RecordedFlash::Stop}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.command);
    RecordedFlash flash(_fabric);
    OpenQuietly(flash, {FLASH1});
    // A third device, so that somebody is left.
    flash.SetAccessDevices({FLASH1, FLASH2, 0x7000});
    AnswerNext("Read", "{ACK {data 0x1}} {ERROR:0x6000:first} {ACK {data 0x2}}");
    OutputOf([&] { EXPECT_EQ(flash.Read(0, 4), BRAID_ERR_SOME); });
    AnswerNext(row.command, "ACK {ERROR:0x7000:second}");
    EXPECT_EQ(QuietErrorOf([&] { (flash.*row.operation)(); }),
              "DeviceError(): 0x6000: No such device. (error: first).");
  }
}

TEST_F(FlashProtocolTest, RefusedBracketEndsTheRun) {
  OpenQuietly(_flash, {FLASH1});
  AnswerNext("Start", "ERROR:1:locked");
  EXPECT_EQ(QuietErrorOf([&] { _flash.Start(); }), "No more accessible devices");
  EXPECT_EQ(_output, "\r-E- BURN FAILED:ALL:locked\n");
}

TEST_F(FlashProtocolTest, FlashIsNeverReadBack) {
  _fabric.facts.type = "I2C";
  OpenQuietly(_flash, {FLASH1});
  _flash.Write(0x20000, DataVec(4, 0x12), true);
  EXPECT_EQ(_flash.Requests(),
            (Requests{EraseOf("1 0x0000000000005000", 0x20000),
                      "vsFlashWriteMulti 1 0x0000000000005000 0x0 4 0x20000 0x12121212 "}));
}

TEST_F(FlashProtocolTest, EmptyWriteErasesNothing) {
  OpenQuietly(_flash, {FLASH1});
  EXPECT_EQ(_flash.Write(0x20000, {}, true), BRAID_OK);
  EXPECT_EQ(_flash.WriteNoErase(0x20000, {}), BRAID_OK);
  EXPECT_TRUE(_flash.Requests().empty());
}

// ---- Over a socket

class ConnectionTest : public ProtocolTest {
 protected:
  ConnectionTest() : _remote(5) {
    _remote.SetAddressConvertor(&_conv);
    _remote.SetAccessDevices({LEAF1});
    AddAdapters({LEAF1});
  }

  RemoteI2cInterface _remote;
};

TEST_F(ConnectionTest, ServerThatBreaksTheConnectionIsNamed) {
  const struct {
    sim::Fault::Kind kind;
    std::string reason;
  } rows[] = {
      {sim::Fault::CLOSE_BEFORE, "Response too large. Probably server is down."},
      {sim::Fault::CLOSE_INSIDE, "Response too large. Probably server is down."},
      {sim::Fault::RESET, "Connection reset by peer"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    sim::Fabric fabric;
    fabric.facts.type = "PPC";
    fabric.Add(Adapter(LEAF1));
    sim::Fault fault;
    fault.kind = row.kind;
    fault.command = "Read";
    fabric.faults.Add(fault);
    protocol::ServerThread server(fabric);
    RemoteI2cInterface remote(5);
    remote.SetAddressConvertor(&_conv);
    remote.SetAccessDevices({LEAF1});
    OutputOf([&] { EXPECT_EQ(remote.Open(server.ServerString().c_str()), BRAID_OK); });
    EXPECT_EQ(ErrorOf([&] { remote.Read(0, 4); }),
              Text("Failed remote read from server 127.0.0.1:", server.Port(), ". ", row.reason));
  }
}

TEST_F(ConnectionTest, RequestsArriveToTheLetter) {
  protocol::ServerThread server(_fabric);
  OutputOf([&] { _remote.Open(server.ServerString().c_str()); });
  _remote.Write(0x1C, Hex("0011223344556677"), true);
  _remote.Read(0x1C, 8);
  DataVec out;
  _remote.GetBsn(LEAF1, out);
  _remote.GetVsd(LEAF1, out);
  EXPECT_EQ(server.Requests(),
            (Requests{"vsMultiMaxGet", "IfcVersion", "NsGetDeviceByType device",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x1c 0x112233 ",
                      "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x20 0x44556677 ",
                      "vsI2cReadMulti 1 0x0000000000001000 0x0 8 0x1c ",
                      "crBSNGet 0x0000000000001000 ", "vsGetVsdMulti 1 0x0000000000001000 "}));
}

TEST_F(ConnectionTest, LargeImageGoesToTheServerInPieces) {
  protocol::ServerThread server(_fabric);
  OutputOf([&] { _remote.Open(server.ServerString().c_str()); });
  std::string image = "START A 0 0\n";
  for (int i = 0; i < 500; ++i) image += "11 22 33 44 55 66 77 88\n";
  image += "END A\n";
  ASSERT_GT(image.size(), 8000u);
  server.ForgetExchanges();
  OutputOf([&] { EXPECT_EQ(_remote.BurnImage(image), BRAID_OK); });
  server.BetweenRequests([this] {
    DataVec expected;
    for (int i = 0; i < 500; ++i) expected << Hex("1122334455667788");
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0, 4000), expected);
  });
  const auto requests = server.Requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.front(), "vsI2cBurnImageMulti 1 0x0000000000001000 ");
}

TEST_F(ConnectionTest, SurplusAnswerEndsTheRunBeforeTheNextRequest) {
  // The answer of the fault, framed, is two answers.
  AnswerNext("Write", "ACK\nEND_BUF\nNEW_BUF\n{ACK {data 0xdeadbeef}}");
  protocol::ServerThread server(_fabric);
  OutputOf([&] { _remote.Open(server.ServerString().c_str()); });
  EXPECT_EQ(_remote.Write(0x20, Hex("00112233"), true), BRAID_OK);
  server.ForgetExchanges();
  EXPECT_EQ(ErrorOf([&] { _remote.Read(0x20, 4); }), "Error accessing to " + server.ServerString() +
                                                         ": Got an answer that nobody asked for.");
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ConnectionTest, SurplusAnswerEndsTheRunBeforeAnImageIsSent) {
  AnswerNext("BurnImage", "ACK\nEND_BUF\nNEW_BUF\nACK");
  protocol::ServerThread server(_fabric);
  OutputOf([&] { _remote.Open(server.ServerString().c_str()); });
  server.ForgetExchanges();
  OutputOf([&] {
    EXPECT_EQ(
        ErrorOf([&] { _remote.BurnImage("START A 0 0\nEND A\n"); }),
        "Error accessing to " + server.ServerString() + ": Got an answer that nobody asked for.");
  });
  EXPECT_EQ(server.Requests(), Requests{"vsI2cBurnImageMulti 1 0x0000000000001000 "});
}

TEST_F(ConnectionTest, ClosedInterfaceIsNotOpenedAgain) {
  EXPECT_EQ(_remote.Close(), BRAID_OK);
  EXPECT_EQ(_remote.Open("PPC:127.0.0.1:1"), BRAID_ERROR);
  RemoteFlashInterface flash(5);
  flash.SetAccessDevices({LEAF1});
  EXPECT_EQ(flash.Close(), BRAID_OK);
  EXPECT_EQ(flash.Open("PPC:127.0.0.1:1"), BRAID_ERROR);
}

TEST_F(ConnectionTest, NumberThatIsNoPortIsNamedAsGiven) {
  for (const std::string port : {"70000", "-5"}) {
    RemoteI2cInterface remote(5);
    EXPECT_EQ(ErrorOf([&] { remote.Open(("PPC:127.0.0.1:" + port).c_str()); }),
              "Failed connecting to 127.0.0.1:" + port + " .");
  }
}

TEST_F(ConnectionTest, PortThatNoIntHoldsIsNotToldAsAnotherNumber) {
  // The third and the fourth would be port 5 and port -1 if they were cut to 32 bits.
  for (const std::string port :
       {"2147483648", "-2147483649", "4294967301", "4294967295", "99999999999", "-99999999999",
        "9223372036854775808", "99999999999999999999999", "-99999999999999999999999"}) {
    RemoteI2cInterface remote(5);
    EXPECT_EQ(ErrorOf([&] { remote.Open(("PPC:127.0.0.1:" + port).c_str()); }),
              "Failed connecting to 127.0.0.1:" + port + " .");
  }
  for (const std::string port : {"2147483647", "-2147483648"}) {
    RemoteI2cInterface remote(5);
    EXPECT_EQ(ErrorOf([&] { remote.Open(("PPC:127.0.0.1:" + port).c_str()); }),
              "Failed connecting to 127.0.0.1:" + port + " .");
  }
}

TEST_F(ConnectionTest, PortIsANumberHoweverItIsWritten) {
  protocol::ServerThread server(_fabric);
  const std::string port = std::to_string(server.Port());
  for (const std::string& written : {port, "+" + port, "000000000000" + port, " " + port}) {
    RemoteI2cInterface remote(5);
    remote.SetAddressConvertor(&_conv);
    remote.SetAccessDevices({LEAF1});
    EXPECT_THAT(
        OutputOf([&] { EXPECT_EQ(remote.Open(("PPC:127.0.0.1:" + written).c_str()), BRAID_OK); }),
        testing::HasSubstr("server PPC:127.0.0.1:" + port + ": "));
  }
  for (const std::string port_word : {"+70000", "00070000"}) {
    RemoteI2cInterface remote(5);
    EXPECT_EQ(ErrorOf([&] { remote.Open(("PPC:127.0.0.1:" + port_word).c_str()); }),
              "Failed connecting to 127.0.0.1:70000 .");
  }
  for (const std::string word : {"99999999999x", "0x50", "+", "-", " ", "5 ", "5.0"}) {
    RemoteI2cInterface remote(5);
    EXPECT_EQ(ErrorOf([&] { remote.Open(("PPC:127.0.0.1:" + word).c_str()); }),
              "Bad port format (" + word + ").");
  }
}

TEST_F(ConnectionTest, ServerThatIsNotThereIsNamed) {
  std::string server;
  u_int16_t port = 0;
  {
    protocol::ServerThread gone(_fabric);
    server = gone.ServerString();
    port = gone.Port();
  }
  EXPECT_EQ(ErrorOf([&] { _remote.Open(server.c_str()); }),
            Text("Failed connecting to 127.0.0.1:", port, " ."));
}

/// An element's data as it is defined: word for word, number for number.
std::string GatheredByDefinition(const std::string& element, bool bsn, DataVec& out) {
  return ErrorOf([&] {
    const std::vector<Response> words = Response(element).TclSplit();
    for (std::size_t i = 1; i < words.size(); ++i) {
      const std::vector<Response> parts = words[i].TclSplit();
      if (parts.size() != 2 || parts[0].find(bsn ? "bsn" : "data") != 0) continue;
      char* end = nullptr;
      const auto value = static_cast<u_int32_t>(std::strtoull(parts[1].c_str(), &end, 16));
      if (*end != '\0') {
        ThrowError("Fatal Error: Failed extracting data out of response: \"" + words[i] + "\" .");
      }
      for (int shift = bsn ? 0 : 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<u_int8_t>(value >> shift));
      }
    }
  });
}

TEST_F(ProtocolTest, UsualAndUnusualDataWordsGiveTheBytesThatTheyAreDefinedToGive) {
  const unsigned seed = 52;
  SCOPED_TRACE(seed);
  TestRng rng(seed);
  int failures = 0;
  int plain = 0;
  for (int i = 0; i < 100000; ++i) {
    const bool bsn = rng() % 4 == 0;
    std::string element = "ACK";
    for (std::size_t words = rng() % 5; words > 0; --words) {
      element += Text(bsn ? " {bsn 0x" : " {data 0x", std::hex, rng() >> rng() % 32, "}");
    }
    // Half of them are spoilt in up to three places.
    for (std::size_t spoilt = rng() % 2 == 0 ? 0 : 1 + rng() % 3; spoilt > 0; --spoilt) {
      static constexpr char BAD[] = "{} \tx0fFg-+";
      const std::size_t at = rng() % (element.size() + 1);
      const char c = BAD[rng() % (sizeof(BAD) - 1)];
      if (rng() % 2 == 0) {
        element.insert(at, 1, c);
      } else if (at < element.size()) {
        element[at] = c;
      }
    }
    DataVec expected{1, 2, 3};  // what is there already stays
    DataVec gathered{1, 2, 3};
    const std::string error = GatheredByDefinition(element, bsn, expected);
    EXPECT_EQ(ErrorOf([&] { _rom.GatherData(element, gathered, bsn); }), error) << element;
    if (error == "(no error)") {
      ASSERT_EQ(gathered, expected) << element;
      ++plain;
    } else {
      ++failures;
    }
  }
  EXPECT_GT(plain, 10000);
  EXPECT_GT(failures, 1000);
}

TEST_F(ProtocolTest, RequestsFollowEveryChangeOfTheActiveDevices) {
  OpenFor({LEAF1, LEAF2, LEAF3});
  const auto devices = [&] {
    _rom.Read(0, 4);
    const std::string request = _rom.Requests().back();
    return request.substr(0, request.find(" 0x0 4 "));
  };
  const std::string all =
      "vsI2cReadMulti 3 0x0000000000001000 0x0000000000002000 0x0000000000003000";
  EXPECT_EQ(devices(), all);
  EXPECT_EQ(devices(), all);
  _rom.SetActiveDevices(LEAF2);
  EXPECT_EQ(devices(), "vsI2cReadMulti 1 0x0000000000002000");
  GuidSet two{LEAF1, LEAF3};
  _rom.SetActiveDevices(two);
  EXPECT_EQ(devices(), "vsI2cReadMulti 2 0x0000000000001000 0x0000000000003000");
  _rom.SetActiveDevices();
  EXPECT_EQ(devices(), all);
  OutputOf([&] { _rom.DeviceError("gone", LEAF1); });
  EXPECT_EQ(devices(), "vsI2cReadMulti 2 0x0000000000002000 0x0000000000003000");
  _rom.SetAccessDevices({LEAF3});
  EXPECT_EQ(devices(), "vsI2cReadMulti 1 0x0000000000003000");
}

TEST_F(ProtocolTest, ResultsTellTheLastOperationOnly) {
  OpenFor({LEAF1, LEAF2});
  _rom.Read(0, 4);
  EXPECT_EQ(_rom.LastActionResult(LEAF1)->_data, Hex("ffffffff"));
  _rom.WriteNoErase(0, Hex("01020304"));
  EXPECT_TRUE(_rom.LastActionResult(LEAF1)->_data.empty());
  _rom.Read(0, 4);
  EXPECT_EQ(_rom.LastActionResult(LEAF1)->_data, Hex("01020304"));
  _rom.Read(4, 4);
  EXPECT_EQ(_rom.LastActionResult(LEAF1)->_data, Hex("ffffffff"));
  _rom.SetActiveDevices(LEAF2);
  _rom.Read(0, 4);
  EXPECT_EQ(_rom.LastActionResult(LEAF1), nullptr);
  EXPECT_EQ(_rom.LastActionResult(LEAF2)->_data, Hex("01020304"));
  // An answer that breaks off leaves nothing to the next one.
  AnswerNext("Read", "{ACK {data 0x1} {data xyz}}");
  EXPECT_NE(ErrorOf([&] { _rom.Read(0, 8); }), "(no error)");
  _rom.Read(0, 4);
  EXPECT_EQ(_rom.LastActionResult(LEAF2)->_data, Hex("01020304"));
}

}  // namespace
