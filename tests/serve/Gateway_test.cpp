#include "serve/Gateway.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "common/Text.h"
#include "hardware/ServedMachine.h"

namespace serve {
namespace {

using common::Bytes;
using common::Text;
using hardware::ServedMachine;
using hardware::VirtualEeprom;
using hardware::WriteRequest;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr protocol::Guid A = 0xaa550000000010;
constexpr protocol::Guid B = 0xaa550000000020;
constexpr const char* A_NAME = "0x00aa550000000010";
constexpr const char* FILE_PATH = "/srv/flash.bin";

std::string Write(const std::vector<protocol::Guid>& guids, std::uint32_t offset,
                  const Bytes& bytes) {
  return WriteRequest("vsFlashWriteMulti", guids, 0, offset, bytes);
}
std::string Read(const char* name, std::uint32_t offset, std::uint32_t size) {
  return Text("vsFlashReadMulti 1 ", name, " 0x0 ", size, " 0x", std::hex, offset, " ");
}
std::string Erase(const char* name, std::uint32_t offset) {
  return Text("vsFlashEraseSectorMulti 1 ", name, " 0x0 0x", std::hex, offset, " ");
}
std::string Error(const char* name, const std::string& text) {
  return Text("{ERROR:", name, ":", text, "}");
}

class GatewayTest : public testing::Test {
 protected:
  DeviceConfig& AddFlash(protocol::Guid guid = A, const std::string& path = FILE_PATH) {
    return machine.AddFileFlash(guid, path, 0x40000, 0x10000);
  }

  ServedMachine machine;
};

TEST_F(GatewayTest, AnswersAboutItselfAndItsDevices) {
  DeviceConfig& device = AddFlash();
  device.facts.port_guids = {A + 1, A + 2};
  device.facts.declared_ports = 2;
  device.facts.name = "leaf-1";
  machine.Serve();
  EXPECT_EQ(machine.Ask("vsMultiMaxGet"), "64");
  EXPECT_EQ(machine.Ask("IfcVersion"), "2.2");
  EXPECT_EQ(machine.Ask("NsGetDeviceByType device"),
            "{device 1 1 0x00aa550000000010 0x00aa550000000010 0x00aa550000000011 2 leaf-1 none} "
            "{device 1 2 0x00aa550000000010 0x00aa550000000010 0x00aa550000000012 2 leaf-1 none}");
  EXPECT_EQ(machine.Ask(Text("vsFlashGetAttrMulti 1 ", A_NAME, " ")),
            "{{sector_size=10000 size=40000 page_size=100}}");
  EXPECT_EQ(machine.Ask(Text("vsFlashReadMulti 1 0x00aa550000000012 0x0 4 0x0 ")),
            "{ACK {data 0xffffffff}}");
  EXPECT_EQ(machine.Ask(Text("vsFlashBurnImageMulti 1 ", A_NAME, " ")),
            "ERROR:image burns are not supported");
  EXPECT_EQ(machine.Ask("vsFlashFormat"), "ERROR:unknown command");
  EXPECT_EQ(machine.Ask(Read("0x00aa5500000000ff", 0, 4)),
            Error("0x00aa5500000000ff", "No such device"));
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0x3fffe, 4)), Error(A_NAME, "Address out of range"));
}

TEST_F(GatewayTest, ConnectingAndAskingTouchesNoDevice) {
  AddFlash();
  machine.Serve();
  for (const char* request : {"vsMultiMaxGet", "IfcVersion", "NsGetDeviceByType device",
                              "vsFlashGetAttrMulti 1 0x00aa550000000010 "}) {
    machine.Ask(request);
  }
  machine.Disconnect();
  EXPECT_EQ(machine.system.Calls(hardware::Call::OPEN), 0u);
  EXPECT_TRUE(machine.records.empty());
}

TEST_F(GatewayTest, AFlashOnlyClearsBitsUntilItIsErased) {
  AddFlash();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0x100, {0x0F, 0xFF, 0x00, 0xAA})), "ACK");
  EXPECT_EQ(machine.Ask(Write({A}, 0x100, {0xF0, 0x55, 0xFF, 0xAA})), "ACK");
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0x100, 4)), "{ACK {data 0x5500aa}}");
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0)), "ACK");
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0x100, 4)), "{ACK {data 0xffffffff}}");
}

TEST_F(GatewayTest, ADeviceBelongsToTheClientThatWroteFirst) {
  AddFlash();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0)), 1), "ACK");
  EXPECT_THAT(machine.Ask(Write({A}, 4, Bytes(4, 0)), 2),
              HasSubstr("Device is being burnt by 127.0.0.1:40001 since "));
  EXPECT_THAT(machine.Ask(Erase(A_NAME, 0), 2), HasSubstr("Device is being burnt by "));
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0, 8), 2), "{ACK {data 0x0} {data 0xffffffff}}");
  EXPECT_EQ(machine.Ask(Write({A}, 4, Bytes(4, 0)), 1), "ACK");
  machine.Disconnect(1);
  EXPECT_EQ(machine.Ask(Write({A}, 8, Bytes(4, 0)), 2), "ACK");
}

TEST_F(GatewayTest, TheErrorOfOneDeviceIsNotTheErrorOfAnother) {
  AddFlash();
  AddFlash(B, "/srv/other.bin");
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0)), 1), "ACK");
  EXPECT_THAT(machine.Ask(Write({A, B}, 4, Bytes(4, 0)), 2),
              testing::AllOf(testing::StartsWith(Text("{ERROR:", A_NAME, ":Device is being burnt")),
                             testing::EndsWith("} ACK")));
}

TEST_F(GatewayTest, AuditRecordsTellWhatWasDone) {
  AddFlash();
  machine.Serve();
  machine.Ask(Erase(A_NAME, 0));
  machine.Ask(Write({A}, 0, {'a', 'b', 'c'}));
  machine.Ask(Write({A}, 0x3fffe, Bytes(4, 0)));
  EXPECT_TRUE(machine.records.empty());
  machine.Disconnect();
  ASSERT_EQ(machine.records.size(), 1u);
  const LeaseRecord& record = machine.records.front();
  EXPECT_EQ(record.peer, "127.0.0.1:40001");
  EXPECT_EQ(record.device, A);
  EXPECT_EQ(record.bytes, 3u);
  EXPECT_EQ(record.erases, 1u);
  EXPECT_EQ(record.requests, 3u);  // with the one that was refused
  EXPECT_EQ(record.failed, 1u);
  EXPECT_EQ(record.end, "the client disconnected");
  // The well-known digest of these three bytes.
  EXPECT_EQ(record.sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(GatewayTest, ReadOnlyIsHeldBeforeAnythingIsOpened) {
  AddFlash().is_read_only = true;
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0))), Error(A_NAME, "Read-only"));
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0)), Error(A_NAME, "Read-only"));
  EXPECT_EQ(machine.Ask(Text("vsFlashStartMulti 1 ", A_NAME, "  1")), Error(A_NAME, "Read-only"));
  EXPECT_EQ(machine.system.Calls(hardware::Call::OPEN), 0u);
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0, 4)), "{ACK {data 0xffffffff}}");
}

TEST_F(GatewayTest, WritesOutsideOfTheAllowedRangesAreRefused) {
  AddFlash().write = std::vector<Range>{{0x10000, 0x1ffff}, {0x20000, 0x2fffb}};
  machine.Serve();
  const std::string refused = Error(A_NAME, "Read-only");
  EXPECT_EQ(machine.Ask(Write({A}, 0x10000, Bytes(8, 0))), "ACK");
  EXPECT_EQ(machine.Ask(Write({A}, 0x1fffc, Bytes(8, 0))), "ACK");  // in two that touch
  EXPECT_EQ(machine.Ask(Write({A}, 0xfffc, Bytes(8, 0))), refused);
  EXPECT_EQ(machine.Ask(Write({A}, 0x2fff8, Bytes(8, 0))), refused);
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0x10000)), "ACK");
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0x20000)), refused);
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0)), refused);
}

TEST_F(GatewayTest, HooksRunAroundALease) {
  DeviceConfig& device = AddFlash();
  device.prepare = {"/usr/lib/host-off", "a"};
  device.release = {"/usr/lib/host-on", "a"};
  machine.system.AddProgram("/usr/lib/host-off", [](const auto&) {
    return hardware::ProgramResult{0, 3s};
  });
  machine.system.AddProgram("/usr/lib/host-on", [](const auto&) {
    return hardware::ProgramResult{0, 7s};
  });
  machine.Serve();
  const auto asked = machine.Send(Write({A}, 0, Bytes(4, 0)));
  EXPECT_EQ(machine.Wait(asked).answer, "ACK");
  EXPECT_GE(asked->answered_at - asked->asked_at, 3s);
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
  EXPECT_EQ(machine.Ask(Write({A}, 4, Bytes(4, 0))), "ACK");
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
  // The next client waits until it is released.
  machine.gateway->Disconnected(1);
  const auto next = machine.Send(Write({A}, 8, Bytes(4, 0)), 2);
  EXPECT_EQ(machine.Wait(next).answer, "ACK");
  EXPECT_GE(next->answered_at - next->asked_at, 10s);
  const std::vector<std::vector<std::string>> expected = {device.prepare, device.release,
                                                          device.prepare};
  EXPECT_EQ(machine.system.ProgramRuns(), expected);
}

TEST_F(GatewayTest, ADeviceWithAHookIsPreparedBeforeItIsRead) {
  DeviceConfig& device = AddFlash();
  device.prepare = {"/usr/lib/host-off"};
  machine.system.Remove(FILE_PATH);
  machine.system.AddProgram("/usr/lib/host-off", [this](const auto&) {
    machine.system.AddFile(FILE_PATH, Bytes(0x40000, 0x12));
    return hardware::ProgramResult{0, 1s};
  });
  machine.Serve();
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0, 4)), "{ACK {data 0x12121212}}");
}

TEST_F(GatewayTest, AHookThatFailsIsUndoneAndNothingIsWritten) {
  DeviceConfig& device = AddFlash();
  device.prepare = {"/usr/lib/host-off"};
  device.release = {"/usr/lib/host-on"};
  machine.system.AddProgram("/usr/lib/host-off", [](const auto&) {
    return hardware::ProgramResult{3, 1s};
  });
  machine.system.AddProgram("/usr/lib/host-on",
                            [](const auto&) { return hardware::ProgramResult{}; });
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0))), Error(A_NAME, "'prepare' has ended with 3"));
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 2u);
  EXPECT_EQ(machine.system.FileContent(FILE_PATH), Bytes(0x40000, 0xFF));
  ASSERT_EQ(machine.records.size(), 1u);
  EXPECT_EQ(machine.records[0].last_error, "'prepare' has ended with 3");
}

TEST_F(GatewayTest, AHookThatTakesTooLongIsEnded) {
  DeviceConfig& device = AddFlash();
  device.prepare = {"/usr/lib/host-off"};
  device.hook_limit = 21s;
  machine.system.AddProgram("/usr/lib/host-off", [](const auto&) {
    return hardware::ProgramResult{0, 1h};
  });
  machine.Serve();
  const auto asked = machine.Send(Write({A}, 0, Bytes(4, 0)));
  EXPECT_EQ(machine.Wait(asked).answer, Error(A_NAME, "'prepare' takes too long"));
  EXPECT_EQ(asked->answered_at - asked->asked_at, 21s);
  EXPECT_EQ(asked->heartbeats, 4u);
}

TEST_F(GatewayTest, ACrashIsFollowedByTheReleaseHook) {
  DeviceConfig& device = AddFlash();
  device.release = {"/usr/lib/host-on", "a"};
  machine.system.AddProgram("/usr/lib/host-on",
                            [](const auto&) { return hardware::ProgramResult{}; });
  machine.Serve();
  machine.Ask(Write({A}, 0, Bytes(4, 0)));
  machine.gateway.reset();  // as if it had been killed
  EXPECT_TRUE(machine.system.ProgramRuns().empty());
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
  ASSERT_EQ(machine.records.size(), 1u);
  EXPECT_EQ(machine.records[0].end, "the server was killed");
  EXPECT_EQ(machine.records[0].peer, "127.0.0.1:40001");
  // Nothing is left over now.
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  machine.loop.RunUntilIdle();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 1u);
}

TEST_F(GatewayTest, WhatIsLeftOverOfUnknownDevicesIsTold) {
  AddFlash();
  const std::string folder = "/run/fwpush-serve/";
  machine.system.WriteText(folder + "0x0000000000009999.lease", "127.0.0.1:40001 1700000000\n");
  const std::string no_note = folder + common::HexGuid(A) + ".lease";
  machine.system.WriteText(no_note, "the content of a memory");
  machine.Serve();
  machine.gateway->ReleaseLeftOvers();
  machine.loop.RunUntilIdle();
  EXPECT_THAT(machine.log,
              ElementsAre(HasSubstr("127.0.0.1:40001 held a device that is not served any more"),
                          HasSubstr("is no note of a lease")));
  EXPECT_EQ(machine.system.ReadText(no_note), "the content of a memory");
  EXPECT_TRUE(machine.records.empty());
}

TEST_F(GatewayTest, AClientThatIsGoneKeepsItsDeviceUntilItsRequestIsDone) {
  DeviceConfig& device = AddFlash();
  device.prepare = {"/usr/lib/host-off"};
  machine.system.AddProgram("/usr/lib/host-off", [](const auto&) {
    return hardware::ProgramResult{0, 3s};
  });
  machine.Serve();
  const auto asked = machine.Send(Write({A}, 0, Bytes(4, 0)));
  machine.Disconnect();
  EXPECT_TRUE(asked->is_answered);
  EXPECT_EQ(machine.records.size(), 1u);
  EXPECT_EQ(machine.system.FileContent(FILE_PATH)[0], 0);
}

TEST_F(GatewayTest, ADryRunKeepsWritesInMemory) {
  AddFlash();
  machine.Serve({.is_dry_run = true});
  EXPECT_EQ(machine.Ask(Write({A}, 0x100, {1, 2, 3, 4})), "ACK");
  EXPECT_EQ(machine.Ask(Write({A}, 0x100, {0xFE, 0xFF, 0xFF, 0xFF})), "ACK");
  machine.Disconnect();
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0x100, 8), 2), "{ACK {data 0x20304} {data 0xffffffff}}");
  EXPECT_EQ(machine.Ask(Erase(A_NAME, 0), 2), "ACK");
  EXPECT_EQ(machine.Ask(Read(A_NAME, 0x100, 4), 2), "{ACK {data 0xffffffff}}");
  EXPECT_EQ(machine.system.FileContent(FILE_PATH), Bytes(0x40000, 0xFF));
  EXPECT_EQ(machine.system.Calls(hardware::Call::WRITE), 0u);
}

TEST_F(GatewayTest, ALockOfAnotherProgramIsTold) {
  AddFlash();
  machine.Serve();
  const int other = machine.system.Open(FILE_PATH, Access::WRITE);
  ASSERT_EQ(machine.system.Lock(other), 0);
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0))), Error(A_NAME, "In use by another program"));
}

TEST_F(GatewayTest, ADeviceMayBeNamedTwice) {
  DeviceConfig& device = AddFlash();
  device.facts.port_guids = {A + 1};
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A, A + 1}, 0, Bytes(4, 0x5A))), "ACK");
  EXPECT_EQ(machine.Ask("vsFlashReadMulti 2 0x00aa550000000010 0x00aa550000000011 0x0 4 0x0 "),
            "{ACK {data 0x5a5a5a5a}} {ACK {data 0x5a5a5a5a}}");
}

TEST_F(GatewayTest, ReloadingKeepsWhatAClientHolds) {
  AddFlash();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.devices[0].is_read_only = true;
  next.multi_max = 7;
  machine.gateway->Reload(next);
  EXPECT_EQ(machine.Ask("vsMultiMaxGet"), "7");
  EXPECT_EQ(machine.Ask(Write({A}, 4, Bytes(4, 0))), "ACK");
  machine.Disconnect();
  EXPECT_EQ(machine.Ask(Write({A}, 8, Bytes(4, 0)), 2), Error(A_NAME, "Read-only"));
}

TEST_F(GatewayTest, ADeviceThatIsGoneFromTheConfigurationGoesWhenItIsReleased) {
  AddFlash();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write({A}, 0, Bytes(4, 0))), "ACK");
  Configuration next = machine.configuration;
  next.devices.clear();
  machine.gateway->Reload(next);
  EXPECT_EQ(machine.Ask(Write({A}, 4, Bytes(4, 0))), "ACK");
  machine.Disconnect();
  EXPECT_EQ(machine.Ask(Write({A}, 8, Bytes(4, 0)), 2), Error(A_NAME, "No such device"));
}

TEST_F(GatewayTest, IdleMeansThatNothingIsHeldOrAsked) {
  AddFlash();
  machine.Serve();
  machine.Ask(Write({A}, 0, Bytes(4, 0)));
  bool is_idle = false;
  machine.gateway->WhenIdle([&] { is_idle = true; });
  EXPECT_FALSE(is_idle);
  machine.Disconnect();
  EXPECT_TRUE(is_idle);
}

}  // namespace
}  // namespace serve
