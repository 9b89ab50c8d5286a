#include "serve/Leases.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/Text.h"
#include "hardware/ServedMachine.h"

namespace serve {
namespace {

using common::Bytes;
using common::HexGuid;
using common::Text;
using hardware::ServedMachine;
using hardware::WriteRequest;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr protocol::Guid A = 0xaa550000000010;
constexpr protocol::Guid B = 0xaa550000000020;
constexpr const char* FILE_PATH = "/srv/flash.bin";

std::string Write(protocol::Guid guid, std::uint32_t offset, const Bytes& bytes) {
  return WriteRequest("vsFlashWriteMulti", {guid}, 0, offset, bytes);
}
std::string WriteEeprom(protocol::Guid guid, const Bytes& bytes) {
  return WriteRequest("vsI2cWriteMulti", {guid}, 0x50, 0, bytes);
}
std::string Read(protocol::Guid guid) {
  return Text("vsFlashReadMulti 1 ", HexGuid(guid), " 0x0 4 0x0 ");
}

class LeasesTest : public testing::Test {
 protected:
  /// Programs of the device that take so long.
  void AddHooks(DeviceConfig& device, Time prepare, Time release) {
    device.prepare = {"/usr/lib/prepare"};
    device.release = {"/usr/lib/release"};
    const auto add = [this](const std::string& path, Time takes) {
      machine.system.AddProgram(path, [takes](const auto&) {
        return hardware::ProgramResult{0, takes};
      });
    };
    add("/usr/lib/prepare", prepare);
    add("/usr/lib/release", release);
  }
  DeviceConfig& AddFlash(protocol::Guid guid = A, const std::string& path = FILE_PATH) {
    return machine.AddFileFlash(guid, path, 0x40000, 0x10000);
  }
  /// A client waits with this request until the device is released, and meanwhile the server reads
  /// `next`.
  std::shared_ptr<hardware::Asked> WaitOverReload(const std::string& request,
                                                  const Configuration& next) {
    machine.gateway->Disconnected(1);
    auto asked = machine.Send(request, 2);
    machine.gateway->Reload(next);
    machine.Wait(asked);
    return asked;
  }
  using Asked = hardware::Asked;

  ServedMachine machine;
};

TEST_F(LeasesTest, WhatWaitedIsCheckedAgainstTheConfigurationOfNow) {
  AddHooks(AddFlash(), 1s, 7s);
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.devices[0].write = std::vector<Range>{{0, 0xffff}};
  EXPECT_THAT(WaitOverReload(Write(A, 0x30000, Bytes(4, 0)), next)->answer, HasSubstr("Read-only"));
  EXPECT_EQ(machine.system.FileContent(FILE_PATH)[0x30000], 0xFF);
}

TEST_F(LeasesTest, WhatWaitedMayFindASmallerMemory) {
  AddHooks(AddFlash(), 1s, 7s);
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.devices[0].flash->size = 0x10000;
  EXPECT_THAT(WaitOverReload(Write(A, 0x30000, Bytes(4, 0)), next)->answer,
              HasSubstr("Address out of range"));
  EXPECT_EQ(machine.system.FileContent(FILE_PATH)[0x30000], 0xFF);
}

TEST_F(LeasesTest, WhatWaitedMayFindNoChipAndNoDevice) {
  machine.AddEeprom(A, machine.AddBus(), {.size = 8192, .page = 64});
  AddHooks(machine.configuration.devices[0], 1s, 7s);
  machine.Serve();
  ASSERT_EQ(machine.Ask(WriteEeprom(A, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.devices[0].eeproms[0x51] = next.devices[0].eeproms[0x50];
  next.devices[0].eeproms.erase(0x50);
  EXPECT_THAT(WaitOverReload(WriteEeprom(A, Bytes(4, 1)), next)->answer,
              HasSubstr("No chip at this address"));

  machine.Serve();
  ASSERT_EQ(machine.Ask(WriteEeprom(A, Bytes(4, 0))), "ACK");
  next.devices.clear();
  EXPECT_THAT(WaitOverReload(WriteEeprom(A, Bytes(4, 1)), next)->answer,
              HasSubstr("No such device"));
}

TEST_F(LeasesTest, AHeldChipIsNotServedUnderAnotherName) {
  auto& chip = machine.AddEeprom(A, machine.AddBus(), {.size = 8192, .page = 64});
  machine.Serve();
  ASSERT_EQ(machine.Ask(WriteEeprom(A, Bytes(4, 1)), 1), "ACK");
  Configuration next = machine.configuration;
  protocol::DeviceFacts& facts = next.devices[0].facts;
  facts.node_guid = facts.sys_guid = B;
  facts.port_guids = {B};
  machine.gateway->Reload(next);
  EXPECT_THAT(machine.Ask(WriteEeprom(B, Bytes(4, 2)), 2), HasSubstr("No such device"));
  EXPECT_EQ(chip.Content()[0], 1);
  machine.Disconnect(1);
  EXPECT_EQ(machine.Ask(WriteEeprom(B, Bytes(4, 2)), 2), "ACK");
}

TEST_F(LeasesTest, AHeldDeviceKeepsTheNamesThatItHad) {
  AddFlash().facts.port_guids = {A + 1};
  AddFlash(B, "/srv/other.bin");
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A + 1, 0, Bytes(4, 0)), 1), "ACK");
  Configuration next = machine.configuration;
  next.devices[0].facts.port_guids = {A};
  next.devices[1].facts.port_guids = {A + 1};
  machine.gateway->Reload(next);
  EXPECT_EQ(machine.Ask(Write(A + 1, 4, Bytes(4, 0)), 1), "ACK");
  EXPECT_EQ(machine.system.FileContent("/srv/other.bin")[4], 0xFF);
  EXPECT_EQ(machine.system.FileContent(FILE_PATH)[4], 0);
}

TEST_F(LeasesTest, ABurnUnderWayIsNotEndedByAReload) {
  AddFlash();
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.is_read_only = true;
  next.multi_max = 1;
  machine.gateway->Reload(next);
  EXPECT_EQ(machine.Ask(Write(A, 4, Bytes(4, 0))), "ACK");
  EXPECT_EQ(machine.Ask(Text("vsFlashReadMulti 2 ", HexGuid(A), " ", HexGuid(A), " 0x0 4 0x8 ")),
            "{ACK {data 0xffffffff}} {ACK {data 0xffffffff}}");
  machine.Disconnect();
  EXPECT_THAT(machine.Ask(Write(A, 8, Bytes(4, 0)), 2), HasSubstr("Read-only"));
}

TEST_F(LeasesTest, PartitionsThatOverlapAreNotBothServed) {
  auto& flash = machine.AddFlash(A, {}, 0x10000);
  flash.AddPartition(1, "part", 0, 0x10000);
  DeviceConfig& second = machine.AddDevice(B);
  second.flash = machine.configuration.devices[0].flash;
  second.flash->size = 0x10000;
  second.flash->mtd->name = "part";
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0)), 1), "ACK");
  EXPECT_THAT(machine.Ask(Write(B, 0, Bytes(4, 0)), 2), HasSubstr("No such device"));
  EXPECT_THAT(machine.log, testing::Contains(HexGuid(B) + " is not served: " + HexGuid(A) +
                                             " has a part of its memory"));
}

TEST_F(LeasesTest, NobodyReadsWhileADeviceIsPrepared) {
  AddHooks(AddFlash(), 3s, 1s);
  machine.Serve();
  const auto written = machine.Send(Write(A, 0, Bytes(4, 0)), 1);
  const auto read = machine.Send(Read(A), 2);
  machine.Wait(read);
  EXPECT_GE(read->answered_at, 3s);
  EXPECT_TRUE(written->is_answered);
}

TEST_F(LeasesTest, AReadWaitsForItsOtherDevicesAndIsPreparedAgain) {
  AddHooks(AddFlash(), 1s, 1s);
  AddFlash(B, "/srv/other.bin").prepare = {"/usr/lib/slow"};
  machine.system.AddProgram("/usr/lib/slow", [](const auto&) {
    return hardware::ProgramResult{0, 30s};
  });
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0)), 1), "ACK");
  const auto read =
      machine.Send(Text("vsFlashReadMulti 2 ", HexGuid(A), " ", HexGuid(B), " 0x0 4 0x0 "), 2);
  machine.loop.RunUntil(machine.loop.Now() + 2s);
  machine.gateway->Disconnected(1);
  EXPECT_EQ(machine.Wait(read).answer, "{ACK {data 0x0}} {ACK {data 0xffffffff}}");
  const std::vector<std::vector<std::string>> expected = {
      {"/usr/lib/prepare"}, {"/usr/lib/slow"}, {"/usr/lib/release"}, {"/usr/lib/prepare"}};
  EXPECT_EQ(machine.system.ProgramRuns(), expected);
}

TEST_F(LeasesTest, AWriterTakesOverWhatAReaderHadPrepared) {
  AddHooks(AddFlash(), 1s, 1s);
  machine.Serve();
  machine.Ask(Read(A), 1);
  EXPECT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0)), 2), "ACK");
  EXPECT_THAT(machine.system.ReadText("/run/fwpush-serve/" + HexGuid(A) + ".lease").value_or(""),
              HasSubstr("127.0.0.1:40002"));
  EXPECT_EQ(machine.Ask(Read(A), 1), "{ACK {data 0x0}}");
  EXPECT_THAT(machine.Ask(Write(A, 0, Bytes(4, 0)), 1), HasSubstr("127.0.0.1:40002"));
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
  machine.Disconnect(1);
  EXPECT_TRUE(machine.records.empty());
  machine.Disconnect(2);
  ASSERT_EQ(machine.records.size(), 1u);
  EXPECT_EQ(machine.records[0].requests, 1u);
  EXPECT_EQ(machine.records[0].peer, "127.0.0.1:40002");
}

TEST_F(LeasesTest, ASecondServerDoesNotReleaseWhatTheFirstHolds) {
  AddHooks(AddFlash(), 1s, 1s);
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  Gateway second(machine.system, machine.loop, machine.configuration, {}, {});
  EXPECT_THROW(second.ReleaseLeftOvers(), std::runtime_error);
  machine.loop.RunUntil(machine.loop.Now() + 20s);
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
}

TEST_F(LeasesTest, ADryRunLeavesHooksAndOpenLeasesAlone) {
  AddHooks(AddFlash(), 1s, 1s);
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  machine.gateway.reset();  // as if it had been killed
  machine.Serve({.is_dry_run = true});
  machine.gateway->ReleaseLeftOvers();
  machine.Ask(Write(A, 0, Bytes(4, 0)));
  machine.Disconnect();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 2u);
}

TEST_F(LeasesTest, AReleaseThatFailsIsTriedAgainAtTheNextStart) {
  DeviceConfig& device = AddFlash();
  device.release = {"/usr/lib/release"};
  int status = 1;
  machine.system.AddProgram("/usr/lib/release", [&](const auto&) {
    return hardware::ProgramResult{status, 1s};
  });
  machine.Serve();
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0))), "ACK");
  machine.Disconnect();
  ASSERT_EQ(machine.records.size(), 1u);
  EXPECT_EQ(machine.records[0].last_error, "'release' has ended with 1");
  status = 0;
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 2u);
}

TEST_F(LeasesTest, NothingIsWrittenWithoutANoteOfTheLease) {
  AddFlash();
  machine.Serve();
  machine.system.Fail({.call = hardware::Call::WRITE_TEXT, .error = ENOSPC});
  EXPECT_THAT(machine.Ask(Write(A, 0, Bytes(4, 0))), HasSubstr("No space left"));
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.FileContent(FILE_PATH)[0], 0xFF);
  ASSERT_EQ(machine.records.size(), 1u);
  EXPECT_THAT(machine.records[0].last_error, HasSubstr("No space left"));
  EXPECT_EQ(machine.records[0].end, "no lease");
}

TEST_F(LeasesTest, AnAuditLogThatFailsDoesNotKeepTheDevice) {
  AddFlash();
  machine.Serve();
  machine.on_record = [] { throw std::runtime_error("the disk is full"); };
  ASSERT_EQ(machine.Ask(Write(A, 0, Bytes(4, 0)), 1), "ACK");
  machine.Disconnect(1);
  EXPECT_THAT(machine.log, testing::Contains("the disk is full"));
  EXPECT_EQ(machine.Ask(Write(A, 4, Bytes(4, 0)), 2), "ACK");
}

TEST_F(LeasesTest, AStartTakesTheLease) {
  AddFlash();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Text("vsFlashStartMulti 1 ", HexGuid(A), "  1"), 1), "ACK");
  EXPECT_THAT(machine.Ask(Write(A, 0, Bytes(4, 0)), 2), HasSubstr("Device is being burnt by"));
}

TEST_F(LeasesTest, OneRequestReadsNoMoreThanTheServerBears) {
  machine.AddFileFlash(A, FILE_PATH, 1 << 20, 0x10000);
  machine.Serve();
  std::string request = "vsFlashReadMulti 64";
  for (int i = 0; i < 64; ++i) request += " " + HexGuid(A);
  EXPECT_EQ(machine.Ask(request + " 0x0 1048576 0x0 "),
            "ERROR:more bytes than the server reads at once");
}

}  // namespace
}  // namespace serve
