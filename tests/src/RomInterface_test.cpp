#include "src/RomInterface.h"

#include "tests/support/support.h"

namespace {

/// The base class as it stands: operations do nothing but prepare the results that a test asks for.
class BareInterface : public RomInterface {
 public:
  BareInterface() : RomInterface("Bare") {}

  BraidResult Open(const char*) override { return BRAID_OK; }
  BraidResult Close() override { return BRAID_OK; }
  BraidResult Start() override { return BRAID_OK; }
  BraidResult Stop() override { return BRAID_OK; }
  BraidResult CheckAccess() override { return BRAID_OK; }
  BraidResult Read(u_int32_t addr, u_int32_t size) override {
    _read = {addr, size};
    InitResults();
    for (auto& [guid, result] : _last_result) result._data = _answers[guid];
    return BRAID_OK;
  }
  BraidResult Write(u_int32_t addr, const DataVec& data, bool flag) override {
    _written = {addr, data, flag};
    return BRAID_ERR_SOME;
  }
  BraidResult Erase(u_int32_t, u_int32_t) override { return BRAID_OK; }
  BraidResult BurnImage(const std::string&) override { return BRAID_OK; }
  BraidResult GetVsd(const Guid&, DataVec& out) override {
    out = {'V'};
    return BRAID_ERR_SOME;
  }
  BraidResult GetBsn(const Guid&, DataVec& out) override {
    out = {'B'};
    return BRAID_ERR_ALL;
  }

  void AddDevice(Guid node, const GuidVec& ports, u_int32_t declared) {
    const auto device = std::make_shared<DeviceData>(node);
    device->port_guids = ports;
    device->sys_guid = 0xAABB;
    device->ports_num = declared;
    _devs_data[node] = device;
    for (const Guid port : ports) _devs_data[port] = device;
  }

  using RomInterface::_error_des;
  using RomInterface::_error_devs;
  using RomInterface::_last_result;
  using RomInterface::InitResults;

  std::map<Guid, DataVec> _answers;
  std::pair<u_int32_t, u_int32_t> _read;
  std::tuple<u_int32_t, DataVec, bool> _written;
};

class RomInterfaceTest : public ConsoleTest {
 protected:
  RomInterfaceTest() { _rom.SetAccessDevices({1, 2, 3}); }

  DataVec Field(Guid guid, FieldType type) {
    DataVec out;
    EXPECT_EQ(_rom.GetField(guid, type, out), BRAID_OK);
    return out;
  }

  /// Declares a device failed without a word on the console.
  void FailDevice(Guid guid) {
    OutputOf([&] { _rom.DeviceError("broken", guid); });
  }

  BareInterface _rom;
};

TEST_F(RomInterfaceTest, OperationKindsHaveTheirFixedValues) {
  EXPECT_EQ(RomInterface::WRITE, 0);
  EXPECT_EQ(RomInterface::READ, 1);
  EXPECT_EQ(RomInterface::ERASE, 2);
  EXPECT_EQ(RomInterface::START, 3);
  EXPECT_EQ(RomInterface::STOP, 4);
  EXPECT_EQ(RomInterface::BURNIMAGE, 5);
  EXPECT_EQ(RomInterface::GETBSN, 6);
  EXPECT_EQ(RomInterface::GETVSD, 7);
  EXPECT_EQ(RomInterface::GETATTR, 8);
}

TEST_F(RomInterfaceTest, DevicesGivenAreAccessibleAndActive) {
  EXPECT_EQ(_rom.GetAccessDevices(), (GuidSet{1, 2, 3}));
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{1, 2, 3}));
}

TEST_F(RomInterfaceTest, ActiveDevicesAreNarrowedAndWidened) {
  GuidSet some{1, 3};
  EXPECT_EQ(_rom.SetActiveDevices(some), BRAID_OK);
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{1, 3}));
  EXPECT_EQ(_rom.SetActiveDevices(Guid{2}), BRAID_OK);
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{2}));
  EXPECT_EQ(_rom.SetActiveDevices(), BRAID_OK);
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{1, 2, 3}));
  EXPECT_EQ(_rom.GetAccessDevices(), (GuidSet{1, 2, 3}));
}

TEST_F(RomInterfaceTest, FailedDeviceIsDroppedSilentlyFromWhatIsMadeActive) {
  FailDevice(2);
  GuidSet some{1, 2};
  EXPECT_EQ(_rom.SetActiveDevices(some), BRAID_OK);
  EXPECT_EQ(some, GuidSet{1});
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{1});
  EXPECT_EQ(_rom.SetActiveDevices(Guid{2}), BRAID_OK);
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{});
}

TEST_F(RomInterfaceTest, DeviceThatWasNeverKnownCannotBeMadeActive) {
  FailDevice(2);
  GuidSet some{1, 2, 9};
  const std::string error = ErrorOf([&] { _rom.SetActiveDevices(some); });
  EXPECT_THAT(error,
              testing::MatchesRegex("Internal Error: RomInterface::SetActiveDevices\\(\\) : "
                                    "Tried to set unknown guids: 0x[0-9a-f]*[1-9a-f]+[0-9a-f]*"));
  EXPECT_EQ(some, (GuidSet{1, 2, 9}));
  EXPECT_EQ(_rom.GetActiveDevices(), GuidSet{});
}

TEST_F(RomInterfaceTest, FailedDeviceIsPrintedAndLeavesForGood) {
  const std::string output = OutputOf([&] { EXPECT_EQ(_rom.DeviceError("broken", 2), BRAID_OK); });
  EXPECT_EQ(output, "\r-E- BURN FAILED:0x0000000000000002:broken\n");
  EXPECT_EQ(_rom.GetActiveDevices(), (GuidSet{1, 3}));
  EXPECT_EQ(_rom.GetAccessDevices(), (GuidSet{1, 3}));
  EXPECT_EQ(_rom._error_devs, GuidSet{2});
  EXPECT_EQ(_rom._error_des[2], "broken");
}

TEST_F(RomInterfaceTest, LastFailureIsPrintedBeforeTheRunEnds) {
  FailDevice(1);
  FailDevice(2);
  std::string error;
  EXPECT_EQ(OutputOf([&] { error = ErrorOf([&] { _rom.DeviceError("last", 3); }); }),
            "\r-E- BURN FAILED:0x0000000000000003:last\n");
  EXPECT_EQ(error, "No more accessible devices");
  EXPECT_EQ(_rom._error_des[3], "last");
}

TEST_F(RomInterfaceTest, FailureOfTheRunEndsItWithDevicesLeft) {
  std::string error;
  EXPECT_EQ(OutputOf([&] { error = ErrorOf([&] { _rom.DeviceError("all", 0); }); }),
            "\r-E- BURN FAILED:ALL:all\n");
  EXPECT_EQ(error, "No more accessible devices");
  EXPECT_EQ(_rom._error_des[0], "all");
  EXPECT_EQ(_rom.GetAccessDevices(), (GuidSet{1, 2, 3}));
}

TEST_F(RomInterfaceTest, FailureOfADeviceThatIsNotActiveIsRefused) {
  _rom.SetActiveDevices(Guid{1});
  EXPECT_EQ(ErrorOf([&] { _rom.DeviceError("broken", 0x2A); }),
            "DeviceError(): 0x2a: No such device. (error: broken).");
  EXPECT_EQ(ErrorOf([&] { _rom.DeviceError("broken", 2); }),
            "DeviceError(): 0x2: No such device. (error: broken).");
}

TEST_F(RomInterfaceTest, ResultsAreMadeAnewForTheActiveDevices) {
  _rom.InitResults();
  _rom._last_result.at(1)._error = true;
  _rom._last_result.at(1)._data = {1};
  GuidSet some{1, 3};
  _rom.SetActiveDevices(some);
  EXPECT_EQ(_rom.InitResults(), BRAID_OK);
  EXPECT_EQ(_rom._last_result.keys(), (std::vector<Guid>{1, 3}));
  const RomInterface::Result* result = _rom.LastActionResult(1);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->_guid, 1u);
  EXPECT_FALSE(result->_error);
  EXPECT_EQ(result->_error_des, "");
  EXPECT_TRUE(result->_data.empty());
}

TEST_F(RomInterfaceTest, DeviceThatTookNoPartHasNoResult) {
  _rom.SetActiveDevices(Guid{1});
  _rom.InitResults();
  EXPECT_NE(_rom.LastActionResult(1), nullptr);
  EXPECT_EQ(_rom.LastActionResult(2), nullptr);
  EXPECT_EQ(_rom.LastActionResult(99), nullptr);
}

TEST_F(RomInterfaceTest, MemoryWithoutSectorsSaysSo) {
  EXPECT_EQ(ErrorOf([&] { _rom.GetSectorSize(); }),
            "GetSectorSize - Not implemented for interface Bare.");
}

TEST_F(RomInterfaceTest, WritingWithoutErasingIsAWriteWithoutTheFlag) {
  EXPECT_EQ(_rom.WriteNoErase(0x10, {1, 2}), BRAID_ERR_SOME);
  EXPECT_EQ(_rom._written, std::make_tuple(0x10u, (DataVec{1, 2}), false));
}

TEST_F(RomInterfaceTest, QueryReturnsTheDevicesWhoseBytesCompareAsWanted) {
  _rom._answers = {{1, Hex("0102")}, {2, Hex("0103")}, {3, {}}};
  const auto equal = [](const DataVec& a, const DataVec& b) { return a == b; };
  OutputOf([&] {
    EXPECT_EQ(_rom.Query(0x24, Hex("0102"), equal, true), GuidSet{1});
    EXPECT_EQ(_rom.Query(0x24, Hex("0102"), equal, false), (GuidSet{2, 3}));
  });
  EXPECT_EQ(_rom._read, std::make_pair(0x24u, 2u));
}

TEST_F(RomInterfaceTest, QueryTracesEachDeviceBeforeItsComparison) {
  _rom.SetAccessDevices({0x1A, 0x2B});
  const auto never = [](const DataVec&, const DataVec&) {
    std::cout << "compare " << 16 << std::endl;
    return false;
  };
  std::cout << std::setfill('0');
  EXPECT_EQ(WithoutLineNumbers(OutputOf([&] { _rom.Query(0xABC, DataVec(16), never, true); })),
            "-D- RomInterface:N: Querying device 1a, addr abc size 16\ncompare 16\n"
            "-D- RomInterface:N: Querying device 2b, addr abc size 16\ncompare 16\n");
}

TEST_F(RomInterfaceTest, GuidFieldsAreBigEndian) {
  _rom.AddDevice(0x0102030405060708, {0x11, 0x12}, 2);
  EXPECT_EQ(Field(0x0102030405060708, GUID), Hex("0102030405060708"));
  EXPECT_EQ(Field(0x11, GUID), Hex("0102030405060708"));
  EXPECT_EQ(Field(0x12, SYS_GUID), Hex("000000000000aabb"));
}

TEST_F(RomInterfaceTest, GuidsFieldHoldsNodeBothPortsAndSystem) {
  _rom.AddDevice(0x10, {0x11, 0x12}, 2);
  EXPECT_EQ(Field(0x10, GUIDS),
            Hex("0000000000000010 0000000000000011 0000000000000012 000000000000aabb"));
}

TEST_F(RomInterfaceTest, SecondPortOfAOnePortDeviceIsTheNextGuid) {
  _rom.AddDevice(0x10, {0xFF}, 1);
  EXPECT_EQ(Field(0x10, GUIDS),
            Hex("0000000000000010 00000000000000ff 0000000000000100 000000000000aabb"));
}

TEST_F(RomInterfaceTest, FieldIsAppendedToWhatTheCallerHas) {
  _rom.AddDevice(0x10, {0x11}, 1);
  DataVec out{7};
  _rom.GetField(0x10, GUID, out);
  EXPECT_EQ(out, Hex("07 0000000000000010"));
}

TEST_F(RomInterfaceTest, PortsThatAreNotAllKnownAreRefusedForGuids) {
  _rom.AddDevice(0xABC, GuidVec(10), 11);
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0xABC, GUIDS, out); }),
            "Internal Error: Device abc declares b ports, but a port guids are detected for it.");
}

TEST_F(RomInterfaceTest, DeviceOfMoreThanTwoPortsHasNoGuidsField) {
  _rom.AddDevice(0x10, GuidVec(12), 12);
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0x10, GUIDS, out); }),
            "RomInterface::GetField(GUIDS) with port guids size of 12 (must be 1 or 2).");
  _rom.AddDevice(0x20, {}, 0);
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0x20, GUIDS, out); }),
            "RomInterface::GetField(GUIDS) with port guids size of 0 (must be 1 or 2).");
}

TEST_F(RomInterfaceTest, FieldOfAnUnknownDeviceIsRefused) {
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0x1F, VSD, out); }),
            "RomInterface::GetField() : Tried to get field 6 for non existing device 0x31.");
}

TEST_F(RomInterfaceTest, FieldOfAnotherTypeIsRefused) {
  _rom.AddDevice(0x10, {0x11}, 1);
  DataVec out;
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0x10, UNKNOWN_FIELD, out); }),
            "RomInterface::GetField() : Unknown field type: 0");
  EXPECT_EQ(ErrorOf([&] { _rom.GetField(0x10, SIGNATURE, out); }),
            "RomInterface::GetField() : Unknown field type: 1");
}

TEST_F(RomInterfaceTest, VendorDataAndSerialNumberComeFromTheDevice) {
  _rom.AddDevice(0x10, {0x11}, 1);
  DataVec out;
  EXPECT_EQ(_rom.GetField(0x10, VSD, out), BRAID_ERR_SOME);
  EXPECT_EQ(out, DataVec{'V'});
  EXPECT_EQ(_rom.GetField(0x10, BSN, out), BRAID_ERR_ALL);
  EXPECT_EQ(out, DataVec{'B'});
}

TEST_F(RomInterfaceTest, ErrorsNameTheirUnit) {
  try {
    _rom.GetSectorSize();
    FAIL();
  } catch (const BraidError& error) {
    EXPECT_EQ(error.File(), "RomInterface");
  }
}

}  // namespace
