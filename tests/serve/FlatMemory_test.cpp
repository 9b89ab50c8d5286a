#include "serve/FlatMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "common/Text.h"
#include "hardware/ServedMachine.h"

namespace serve {
namespace {

using common::Bytes;
using common::Text;
using hardware::Call;
using hardware::FlashSettings;
using hardware::ServedMachine;
using hardware::VirtualFlash;
using hardware::WriteRequest;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr protocol::Guid GUID = 0xaa550000000100;
constexpr const char* NAME = "0x00aa550000000100";
constexpr std::uint32_t SECTOR = 0x10000;
constexpr std::uint32_t MIB = 1 << 20;

Bytes RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

std::string Error(const std::string& text) { return Text("{ERROR:", NAME, ":", text, "}"); }
std::string Write(std::uint32_t offset, const Bytes& bytes) {
  return WriteRequest("vsFlashWriteMulti", {GUID}, 0, offset, bytes);
}
std::string Erase(std::uint32_t offset) {
  return Text("vsFlashEraseSectorMulti 1 ", NAME, " 0x0 0x", std::hex, offset, " ");
}

class FlashTest : public testing::Test {
 protected:
  VirtualFlash& Add(const FlashSettings& settings = {}, std::uint32_t sector = SECTOR) {
    return machine.AddFlash(GUID, settings, sector);
  }
  FlashConfig& Config() { return *machine.configuration.devices[0].flash; }

  ServedMachine machine;
};

TEST_F(FlashTest, AnyWritesAndErasesLeaveWhatAFlashWouldHave) {
  VirtualFlash& flash = Add();
  machine.Serve();
  std::mt19937 random(20261);
  Bytes expected(MIB, 0xFF);
  for (int i = 0; i < 200; ++i) {
    if (random() % 8 == 0) {
      const auto sector = static_cast<std::uint32_t>(random() % (MIB / SECTOR)) * SECTOR;
      ASSERT_EQ(machine.Ask(Erase(sector)), "ACK");
      std::fill_n(expected.begin() + sector, SECTOR, 0xFF);
    } else {
      const Bytes bytes = RandomBytes(1 + random() % 700, static_cast<unsigned>(random()));
      // Many of them at the same few places, over what is there.
      const auto offset = static_cast<std::uint32_t>(random() % 40 * 0x6f1);
      ASSERT_EQ(machine.Ask(Write(offset, bytes)), "ACK");
      for (std::size_t at = 0; at < bytes.size(); ++at) expected[offset + at] &= bytes[at];
    }
    ASSERT_TRUE(std::ranges::equal(flash.Content(), expected)) << i;
  }
}

TEST_F(FlashTest, ProtectionIsTold) {
  VirtualFlash& flash = Add();
  flash.Load(0, Bytes(SECTOR, 0x5A));
  flash.Protect(0, SECTOR);
  machine.Serve();
  const std::string told = Error("Write had no effect (write-protected?)");
  EXPECT_EQ(machine.Ask(Write(0x100, Bytes(300, 0))), told);
  EXPECT_EQ(machine.Ask(Erase(0)), told);
  EXPECT_EQ(machine.Ask(Erase(SECTOR)), "ACK");
  EXPECT_EQ(machine.Ask(Write(SECTOR, Bytes(300, 0))), "ACK");
}

TEST_F(FlashTest, EveryDroppedProgramIsTold) {
  for (std::uint64_t nth = 1; nth <= 4; ++nth) {
    ServedMachine other;
    VirtualFlash& flash = other.AddFlash(GUID, {}, SECTOR);
    flash.DropProgram(nth);
    other.Serve();
    EXPECT_EQ(other.Ask(Write(0, RandomBytes(1024, 3))),
              Error("Write had no effect (write-protected?)"));
  }
}

TEST_F(FlashTest, AnEraseThatLeavesBytesIsTold) {
  VirtualFlash& flash = Add();
  flash.Load(0, Bytes(SECTOR, 0x5A));
  flash.SpoilErase(3);
  machine.Serve();
  EXPECT_EQ(machine.Ask(Erase(0)),
            Error("Verification failed at 0x2800: wrote ffffffff, read 5a5a5a5a"));
}

TEST_F(FlashTest, ErrorsOfCallsNameTheOperationAndThePlace) {
  VirtualFlash& flash = Add();
  machine.Serve();
  flash.FailProgram(2);
  EXPECT_EQ(machine.Ask(Write(0, Bytes(512, 0))),
            Error("Write failed at 0x100: Input/output error"));
  flash.FailErase(2);
  EXPECT_EQ(machine.Ask(Erase(0)), Error("Erase failed at 0x1000: Input/output error"));
}

TEST_F(FlashTest, ContentOfOneMebibyteCostsNoMoreThanItMust) {
  VirtualFlash& flash = Add();
  machine.Serve();
  machine.Ask(Write(0, Bytes(4, 0)));
  flash.ResetCounts();
  machine.system.ResetCalls();
  const Bytes bytes = RandomBytes(MIB, 4);
  std::uint64_t requests = 0;
  for (std::uint32_t at = 0; at < MIB; at += 0x100) {
    if (at % SECTOR == 0) {
      ASSERT_EQ(machine.Ask(Erase(at)), "ACK");
    }
    ASSERT_EQ(machine.Ask(Write(at, {bytes.begin() + at, bytes.begin() + at + 0x100})), "ACK");
    ++requests;
  }
  EXPECT_TRUE(std::ranges::equal(flash.Content(), bytes));
  EXPECT_EQ(flash.Erases(), 256u);
  EXPECT_LE(flash.Programs(), 4096u);
  EXPECT_LE(flash.BytesRead(), MIB * 21 / 10);
  EXPECT_LE(machine.system.Calls(Call::READ) + machine.system.Calls(Call::WRITE) - 256,
            requests * 4);
  EXPECT_EQ(machine.system.Calls(Call::OPEN), 0u);
}

TEST_F(FlashTest, BlankPagesAreNotProgrammed) {
  VirtualFlash& flash = Add();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Erase(0)), "ACK");
  EXPECT_EQ(machine.Ask(Write(0, Bytes(0x1000, 0xFF))), "ACK");
  EXPECT_EQ(flash.Programs(), 0u);
}

TEST_F(FlashTest, AnEraseOfFortySecondsKeepsTheClientWaiting) {
  Add({.erase_size = SECTOR, .erase_time = 40s});
  machine.Serve();
  const auto asked = machine.Send(Erase(0));
  EXPECT_EQ(machine.Wait(asked).answer, "ACK");
  EXPECT_EQ(asked->heartbeats, 8u);
}

TEST_F(FlashTest, OtherFlashesAreServedDuringAnErase) {
  Add({.erase_size = SECTOR, .erase_time = 40s});
  machine.AddFlash(GUID + 1,
                   {.name = "other", .number = 5, .device = "1e620000.spi/spi_master/spi0/spi0.0"},
                   SECTOR);
  machine.Serve();
  const auto erased = machine.Send(Erase(0), 1);
  const auto read = machine.Send("vsFlashReadMulti 1 0x00aa550000000101 0x0 4 0x0 ", 2);
  EXPECT_EQ(machine.Wait(read).answer, "{ACK {data 0xffffffff}}");
  EXPECT_LT(read->answered_at, 1s);
  EXPECT_EQ(machine.Wait(erased).answer, "ACK");
}

TEST_F(FlashTest, AnotherChipThanExpectedIsNotWritten) {
  VirtualFlash& flash = Add();
  Config().mtd->jedec = "ef4018";
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 0))), HasSubstr("c2253a"));
  Config().mtd->jedec = "c2253a";
  Config().mtd->expected_size = 2 * MIB;
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 0))),
              HasSubstr("has 0x100000 bytes, expected were 0x200000"));
  EXPECT_EQ(flash.Programs(), 0u);
}

TEST_F(FlashTest, MemoriesThatAreNoNorFlashAreRefused) {
  const std::pair<FlashSettings, std::string> refused[] = {
      {{.kind = FlashSettings::Kind::NAND}, "Not a NOR flash"},
      {{.kind = FlashSettings::Kind::RAM}, "Not a NOR flash"},
      {{.write_unit = 16}, "Not a NOR flash"},
      {{.is_bit_writable = false}, "Not a NOR flash"},
      {{.has_no_erase = true}, "Not a memory that is erased"},
      {{.erase_regions = 2}, "sectors of several sizes"},
      {{.erase_size = 0x20000}, "The flash is erased in blocks of 0x20000 bytes"}};
  for (const auto& [settings, error] : refused) {
    ServedMachine other;
    VirtualFlash& flash = other.AddFlash(GUID, settings, SECTOR);
    other.Serve();
    EXPECT_THAT(other.Ask(Write(0, Bytes(4, 0))), HasSubstr(error));
    EXPECT_THAT(other.Ask(Erase(0)), HasSubstr(error));
    EXPECT_EQ(flash.Programs() + flash.Erases(), 0u);
  }
}

TEST_F(FlashTest, AFlashThatIsInUseIsNotWritten) {
  VirtualFlash& flash = Add();
  machine.system.AddText("/proc/mounts", "/dev/mtdblock0 /mnt jffs2 rw 0 0");
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 0))), HasSubstr("In use: "));
  EXPECT_EQ(flash.Programs(), 0u);
  EXPECT_EQ(machine.Ask(Text("vsFlashReadMulti 1 ", NAME, " 0x0 4 0x0 ")),
            "{ACK {data 0xffffffff}}");
}

TEST_F(FlashTest, NothingOutsideOfTheWindowIsTouched) {
  VirtualFlash& flash = Add();
  flash.Load(0, Bytes(MIB, 0x5A));
  Config().first = 0x40000;
  Config().size = 0x20000;
  machine.Serve();
  EXPECT_EQ(machine.Ask(Text("vsFlashGetAttrMulti 1 ", NAME, " ")),
            "{{sector_size=10000 size=20000 page_size=100}}");
  EXPECT_EQ(machine.Ask(Erase(0x10000)), "ACK");
  EXPECT_EQ(machine.Ask(Write(0x10000, Bytes(0x100, 0x12))), "ACK");
  EXPECT_EQ(machine.Ask(Erase(0x20000)), Error("Address out of range"));
  Bytes expected(MIB, 0x5A);
  std::fill_n(expected.begin() + 0x50000, 0x10000, 0xFF);
  std::fill_n(expected.begin() + 0x50000, 0x100, 0x12);
  EXPECT_TRUE(std::ranges::equal(flash.Content(), expected));
}

TEST_F(FlashTest, TwoDevicesMayHavePartsOfOneFlash) {
  VirtualFlash& flash = Add();
  Config().size = 0x40000;
  DeviceConfig second = machine.configuration.devices[0];
  second.facts.node_guid = second.facts.sys_guid = GUID + 1;
  second.facts.port_guids = {GUID + 1};
  second.flash->first = 0x40000;
  machine.configuration.devices.push_back(second);
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 0x12)), 1), "ACK");
  EXPECT_EQ(machine.Ask(WriteRequest("vsFlashWriteMulti", {GUID + 1}, 0, 0, Bytes(4, 0x34)), 2),
            "ACK");
  EXPECT_EQ(flash.Content()[0], 0x12);
  EXPECT_EQ(flash.Content()[0x40000], 0x34);
  machine.Disconnect(1);
  // The other one keeps other programs out.
  const int other = machine.system.Open("/dev/mtd0", Access::READ);
  EXPECT_EQ(machine.system.Lock(other), -EWOULDBLOCK);
  machine.Disconnect(2);
  EXPECT_EQ(machine.system.Lock(other), 0);
}

TEST_F(FlashTest, TheSizeIsThatOfTheDeviceWhereNoneIsGiven) {
  Add();
  Config().size = 0;
  machine.Serve();
  EXPECT_EQ(machine.Ask(Text("vsFlashGetAttrMulti 1 ", NAME, " ")),
            "{{sector_size=10000 size=100000 page_size=100}}");
  EXPECT_EQ(machine.Ask(Write(MIB - 4, Bytes(4, 0))), "ACK");
  EXPECT_EQ(machine.Ask(Write(MIB - 4, Bytes(8, 0))), Error("Address out of range"));
}

TEST_F(FlashTest, AFlashThatIsNotThereIsTheErrorOfItsRequest) {
  Add({.is_present = false});
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 0))), HasSubstr("{ERROR:"));
  EXPECT_EQ(machine.Ask("vsMultiMaxGet"), "64");
}

TEST_F(FlashTest, WhatIsAcknowledgedOfAFileIsOnTheDiskUnlessTheFileSaysOtherwise) {
  for (const bool syncs : {true, false}) {
    ServedMachine other;
    other.AddFileFlash(GUID, "/srv/flash.bin", 0x10000, SECTOR).flash->file->syncs = syncs;
    other.Serve();
    other.Ask(Write(0, Bytes(4, 0)));
    EXPECT_EQ(other.system.Calls(hardware::Call::FLUSH), syncs ? 1u : 0u);
    other.Ask(Erase(0));
    EXPECT_EQ(other.system.Calls(hardware::Call::FLUSH), syncs ? 2u : 0u);
  }
}

TEST_F(FlashTest, AFlashMayAppearByItsHook) {
  VirtualFlash& flash = Add({.is_present = false});
  machine.configuration.devices[0].prepare = {"/usr/lib/bind"};
  machine.configuration.devices[0].release = {"/usr/lib/unbind"};
  machine.system.AddProgram("/usr/lib/bind", [&flash](const auto&) {
    flash.SetPresent(true);
    return hardware::ProgramResult{0, 2s};
  });
  machine.system.AddProgram("/usr/lib/unbind", [&flash, this](const auto&) {
    EXPECT_EQ(machine.system.OpenDescriptors(), 0u);
    flash.SetPresent(false);
    return hardware::ProgramResult{};
  });
  machine.Serve();
  EXPECT_EQ(machine.Ask(Text("vsFlashReadMulti 1 ", NAME, " 0x0 4 0x24 ")),
            "{ACK {data 0xffffffff}}");
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 0))), "ACK");
  machine.Disconnect();
  EXPECT_EQ(machine.system.ProgramRuns().size(), 2u);
}

}  // namespace
}  // namespace serve
