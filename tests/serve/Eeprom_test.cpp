#include "serve/Eeprom.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "common/Text.h"
#include "hardware/ServedMachine.h"

namespace serve {
namespace {

using common::Bytes;
using hardware::DataWords;
using hardware::EepromSettings;
using hardware::I2cBus;
using hardware::ServedMachine;
using hardware::VirtualEeprom;
using hardware::WriteRequest;
using namespace std::chrono_literals;

constexpr protocol::Guid GUID = 0xaa550000000010;
constexpr const char* NAME = "0x00aa550000000010";
const EepromSettings CHIP_64 = {.size = 0x8000, .page = 64};

Bytes RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

Bytes Part(const VirtualEeprom& chip, std::size_t offset, std::size_t size) {
  const auto part = chip.Content().subspan(offset, size);
  return {part.begin(), part.end()};
}

std::string Write(std::uint32_t offset, const Bytes& bytes) {
  return WriteRequest("vsI2cWriteMulti", {GUID}, 0x50, offset, bytes);
}

class EepromTest : public testing::Test {
 protected:
  VirtualEeprom& Add(const EepromSettings& settings = CHIP_64) {
    bus = &machine.AddBus(bus_settings);
    return machine.AddEeprom(GUID, *bus, settings);
  }

  hardware::BusSettings bus_settings;
  ServedMachine machine;
  I2cBus* bus = nullptr;
};

TEST_F(EepromTest, WritesAreCutAtPages) {
  VirtualEeprom& chip = Add();
  machine.Serve();
  const Bytes bytes = RandomBytes(200, 1);
  EXPECT_EQ(machine.Ask(Write(0x30, bytes)), "ACK");
  EXPECT_EQ(Part(chip, 0x30, 200), bytes);
  EXPECT_EQ(chip.PageWrites(), 4u);  // 16, 64, 64 and 56 bytes
  EXPECT_EQ(machine.Ask(common::Text("vsI2cReadMulti 1 ", NAME, " 0x50 4 0x30 ")),
            "{ACK {data" + DataWords(Part(chip, 0x30, 4)) + "}}");
}

TEST_F(EepromTest, WritesOfAnyPlaceAndSizeArriveWhole) {
  std::mt19937 random(20261);
  const EepromSettings kinds[] = {
      {.address = 0x50, .size = 2048, .page = 16, .offset_bits = 8},  // spreads over 8 addresses
      {.address = 0x50, .size = 256, .page = 8, .offset_bits = 8},
      {.address = 0x50, .size = 8192, .page = 32},
      {.address = 0x50, .size = 0x20000, .page = 256},  // two addresses
      {.address = 0x50, .size = 0x20000, .page = 128, .bank_bit = 2},
  };
  for (const EepromSettings& settings : kinds) {
    ServedMachine other;
    VirtualEeprom& chip = other.AddEeprom(GUID, other.AddBus(), settings);
    other.Serve();
    Bytes expected(settings.size, 0xFF);
    const std::uint32_t bank = std::min(1u << settings.offset_bits, settings.size);
    for (int i = 0; i < 30; ++i) {
      const auto any = [&](std::uint32_t below) {
        return static_cast<std::uint32_t>(random() % below);
      };
      const std::uint32_t size = std::min(1 + any(400), settings.size);
      // Half of them across the end of a bank.
      const std::uint32_t end = bank * (1 + any(settings.size / bank));
      const std::uint32_t from = any(2) == 0 ? end - std::min(end, any(size + 1)) : any(end);
      const std::uint32_t offset = std::min(from, settings.size - size);
      const Bytes bytes = RandomBytes(size, any(1000));
      ASSERT_EQ(other.Ask(Write(offset, bytes)), "ACK") << offset << " " << size;
      std::ranges::copy(bytes, expected.begin() + offset);
      ASSERT_EQ(Part(chip, 0, settings.size), expected) << offset << " " << size;
    }
  }
}

TEST_F(EepromTest, WriteProtectedIsTold) {
  VirtualEeprom& chip = Add();
  chip.SetWriteProtected(true);
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, RandomBytes(100, 2))),
            common::Text("{ERROR:", NAME, ":Write had no effect (write-protected?)}"));
}

TEST_F(EepromTest, WhatTheChipHoldsAlreadyIsNoError) {
  VirtualEeprom& chip = Add();
  const Bytes bytes = RandomBytes(64, 3);
  chip.Load(0, bytes);
  chip.SetWriteProtected(true);
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, bytes)), "ACK");
}

TEST_F(EepromTest, EveryDroppedPageIsTold) {
  for (std::uint64_t nth = 1; nth <= 8; ++nth) {
    ServedMachine other;
    VirtualEeprom& chip = other.AddEeprom(GUID, other.AddBus(), CHIP_64);
    chip.DropPageWrite(nth);
    other.Serve();
    const std::string place = common::Text(std::hex, (nth - 1) * 64);
    EXPECT_THAT(other.Ask(Write(0, RandomBytes(512, 4))),
                testing::StartsWith(
                    common::Text("{ERROR:", NAME, ":Verification failed at 0x", place, ":")))
        << nth;
  }
}

TEST_F(EepromTest, AFlippedBitIsTold) {
  Add().FlipBitOfPageWrite(2, 0);
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(128, 0x10))),
            common::Text("{ERROR:", NAME,
                         ":Verification failed at 0x40: wrote 10101010, read 11101010}"));
}

TEST_F(EepromTest, AStuckCellIsNotTakenForProtection) {
  Add().StickCell(5, 0);
  machine.Serve();
  EXPECT_EQ(
      machine.Ask(Write(0, Bytes(64, 0x5A))),
      common::Text("{ERROR:", NAME, ":Verification failed at 0x5: wrote 5a5a5a5a, read 005a5a5a}"));
}

TEST_F(EepromTest, AnAdapterForSmallTransfersServesChipsOfBothWidths) {
  I2cBus& small = machine.AddBus({.max_write = 2});
  machine.AddEeprom(GUID, small, {.address = 0x50, .size = 256, .page = 8, .offset_bits = 8});
  machine.AddEeprom(GUID + 1, small, {.address = 0x52, .size = 8192, .page = 64});
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(8, 1))), "ACK");
  // An offset of two bytes leaves no room for data.
  const auto asked =
      machine.Send(WriteRequest("vsI2cWriteMulti", {GUID + 1}, 0x50, 0, Bytes(8, 1)));
  machine.loop.RunUntil(machine.loop.Now() + 60s);
  EXPECT_THAT(asked->answer, testing::HasSubstr("Write failed at 0x0: "));
  EXPECT_EQ(machine.Ask(Write(0, Bytes(8, 2))), "ACK");
}

TEST_F(EepromTest, ABusStaysLockedUntilItsLastChipIsReleased) {
  I2cBus& both = machine.AddBus();
  machine.AddEeprom(GUID, both, CHIP_64);
  machine.AddEeprom(GUID + 1, both, {.address = 0x51, .size = 8192, .page = 64});
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 1)), 1), "ACK");
  EXPECT_EQ(machine.Ask(WriteRequest("vsI2cWriteMulti", {GUID + 1}, 0x50, 0, Bytes(4, 1)), 2),
            "ACK");
  machine.Disconnect(1);
  std::string lock;
  for (const std::string& file : machine.system.List("/run/fwpush-serve")) {
    if (file.starts_with("i2c-")) lock = "/run/fwpush-serve/" + file;
  }
  const int other = machine.system.Open(lock, Access::LOCK);
  EXPECT_EQ(machine.system.Lock(other), -EWOULDBLOCK);
  machine.Disconnect(2);
  EXPECT_EQ(machine.system.Lock(other), 0);
}

TEST_F(EepromTest, ADriverMayOwnAnyAddressOfAChip) {
  Add({.address = 0x50, .size = 0x20000, .page = 128});
  bus->Root().Bind(0x51);
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 1))), testing::HasSubstr("Address in use by driver"));
  EXPECT_EQ(bus->Transfers(), 0u);
}

TEST_F(EepromTest, AbsentChipIsNotThere) {
  Add().SetAbsent(true);
  machine.Serve();
  const std::string error = common::Text("{ERROR:", NAME, ":Device not there}");
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 0))), error);
  EXPECT_EQ(machine.Ask(common::Text("vsI2cReadMulti 1 ", NAME, " 0x50 4 0x0 ")), error);
}

TEST_F(EepromTest, AChipThatABrokenWriteLeftBusyIsWaitedFor) {
  Add({.size = 0x8000, .page = 64, .write_time = 20ms});
  machine.Serve();
  const auto broken = machine.Send(Write(0, Bytes(128, 1)));
  machine.loop.RunUntil(machine.loop.Now() + 100us);
  bus->LoseArbitration(10);
  EXPECT_THAT(machine.Wait(broken).answer, testing::HasSubstr("Write failed at 0x40"));
  EXPECT_LT(machine.loop.Now(), 20ms);
  EXPECT_EQ(machine.Ask(Write(0, Bytes(128, 1))), "ACK");
}

TEST_F(EepromTest, EveryErrorNumberForBusyIsUnderstood) {
  for (const int error : {ENXIO, EREMOTEIO, EIO}) {
    ServedMachine other;
    VirtualEeprom& chip = other.AddEeprom(GUID, other.AddBus({.nak_error = error}), CHIP_64);
    other.Serve();
    const Bytes bytes = RandomBytes(256, 5);
    EXPECT_EQ(other.Ask(Write(0, bytes)), "ACK") << error;
    EXPECT_EQ(Part(chip, 0, 256), bytes);
  }
}

TEST_F(EepromTest, LostArbitrationIsTriedAgain) {
  Add();
  machine.Serve();
  bus->LoseArbitration(5);
  EXPECT_EQ(machine.Ask(Write(0, Bytes(64, 1))), "ACK");
  bus->LoseArbitration(1000);
  EXPECT_THAT(machine.Ask(Write(0, Bytes(64, 2))), testing::HasSubstr("Write failed at 0x0: "));
}

TEST_F(EepromTest, TransfersThatTheAdapterCannotMakeAreHalvedAndRemembered) {
  bus_settings.max_write = 18;
  bus_settings.max_read = 31;
  VirtualEeprom& chip = Add();
  machine.Serve();
  const Bytes bytes = RandomBytes(512, 6);
  EXPECT_EQ(machine.Ask(Write(0, bytes)), "ACK");
  EXPECT_EQ(Part(chip, 0, 512), bytes);
  const auto calls = machine.system.Calls(hardware::Call::TRANSFER_I2C);
  const auto transfers = bus->Transfers();
  EXPECT_EQ(machine.Ask(Write(512, bytes)), "ACK");
  // Nothing was tried that the adapter refuses.
  EXPECT_EQ(machine.system.Calls(hardware::Call::TRANSFER_I2C) - calls,
            bus->Transfers() - transfers);
}

TEST_F(EepromTest, AStuckBusIsToldOnceAndNotHammered) {
  I2cBus& stuck = machine.AddBus();
  I2cBus& well = machine.AddBus();
  std::vector<protocol::Guid> guids;
  for (std::uint16_t i = 0; i < 4; ++i) {
    guids.push_back(GUID + i);
    machine.AddEeprom(GUID + i, i < 3 ? stuck : well,
                      {.address = static_cast<std::uint16_t>(0x50 + i), .size = 8192, .page = 64});
  }
  stuck.HoldWireFrom(0s);
  machine.Serve();
  const auto asked =
      machine.Send(WriteRequest("vsI2cWriteMulti", guids, 0x50, 0, RandomBytes(128, 7)));
  const std::string answer = machine.Wait(asked).answer;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_THAT(answer, testing::HasSubstr(common::Text("{ERROR:", common::HexGuid(guids[i]),
                                                        ":I2C bus is stuck: ")));
  }
  EXPECT_THAT(answer, testing::EndsWith(" ACK"));
  EXPECT_LT(asked->answered_at - asked->asked_at, 2s);
}

TEST_F(EepromTest, AChipThatNeverEndsItsWriteIsTold) {
  Add({.size = 8192, .page = 64, .write_time = 10s});
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(64, 1))),
              testing::HasSubstr("Chip stays busy after a write at 0x0"));
}

TEST_F(EepromTest, AnAddressThatADriverOwnsIsRefused) {
  Add();
  bus->Root().Bind(0x50);
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(64, 1))),
              testing::HasSubstr("Address in use by driver at24"));
  EXPECT_EQ(bus->Transfers(), 0u);
}

TEST_F(EepromTest, AnAdapterWithoutPlainTransfersIsRefused) {
  bus_settings.has_plain_i2c = false;
  Add();
  machine.Serve();
  EXPECT_THAT(machine.Ask(Write(0, Bytes(64, 1))),
              testing::HasSubstr("The adapter makes no plain I2C transfers"));
}

TEST_F(EepromTest, ChipsBehindAMuxAreWrittenTogether) {
  I2cBus& root = machine.AddBus();
  hardware::I2cMux& mux = root.Root().AddMux(0x70, 16, hardware::I2cAdapter::Idle::DISCONNECT);
  std::vector<protocol::Guid> guids;
  std::vector<VirtualEeprom*> chips;
  for (std::uint32_t i = 0; i < 8; ++i) {
    guids.push_back(GUID + i);
    // Two on each channel, at addresses that come again on the next one.
    const std::uint32_t channel = i / 2;
    chips.push_back(&machine.AddEeprom(
        GUID + i, mux.Channel(channel), {{0x70, channel}},
        {.address = static_cast<std::uint16_t>(0x50 + i % 2), .size = 8192, .page = 64}));
  }
  machine.Serve();
  const Bytes bytes = RandomBytes(512, 8);
  const auto asked = machine.Send(WriteRequest("vsI2cWriteMulti", guids, 0x50, 0, bytes));
  EXPECT_EQ(machine.Wait(asked).answer, "ACK");
  for (const VirtualEeprom* chip : chips) EXPECT_EQ(Part(*chip, 0, 512), bytes);
  // One after the other they would take 8 times 8 pages of 6.5 ms, and to be read.
  EXPECT_LT(asked->answered_at - asked->asked_at, 300ms);
}

TEST_F(EepromTest, AMuxIsSwitchedOnceForAllChipsOfAChannelThatAreReady) {
  I2cBus& root = machine.AddBus();
  hardware::I2cMux& mux = root.Root().AddMux(0x70, 16, hardware::I2cAdapter::Idle::AS_IS);
  std::vector<protocol::Guid> guids;
  for (std::uint32_t i = 0; i < 8; ++i) {
    // In the order of the request each one is on another channel than the one before.
    const std::uint32_t channel = i % 2;
    guids.push_back(GUID + i);
    machine.AddEeprom(
        GUID + i, mux.Channel(channel), {{0x70, channel}},
        {.address = static_cast<std::uint16_t>(0x50 + i / 2), .size = 8192, .page = 64});
  }
  machine.Serve();
  EXPECT_EQ(machine.Ask(WriteRequest("vsI2cWriteMulti", guids, 0x50, 0, RandomBytes(512, 8))),
            "ACK");
  // 64 pages, and a reading of each chip: in turns, the channels would be switched 72 times.
  EXPECT_LT(root.MuxWrites(), 40u);
}

TEST_F(EepromTest, TransfersKeepWithinWhatTheConfigurationSays) {
  Add();
  I2cConfig& config = *machine.configuration.devices[0].eeproms.at(0x50).i2c;
  config.max_write = 18;  // two of them are the offset
  config.max_read = 32;
  machine.Serve();
  const Bytes bytes = RandomBytes(128, 1);
  EXPECT_EQ(machine.Ask(Write(0, bytes)), "ACK");
  // 8 pieces of 16 bytes; 4 of 32 read them back. Those of a busy chip do not count.
  EXPECT_EQ(bus->Transfers() - bus->Naks(), 8u + 4u);
}

TEST_F(EepromTest, TheTimeOfAWriteCycleIsLearnt) {
  Add();
  machine.Serve();
  machine.Ask(Write(0, RandomBytes(64, 1)));
  const std::uint64_t first = bus->Naks();
  bus->ResetCounts();
  machine.Ask(Write(0, RandomBytes(1024, 2)));
  // 5 ms are 20 polls; what is known saves almost all of them.
  EXPECT_GE(first, 10u);
  EXPECT_LE(bus->Naks(), 16u);
}

TEST_F(EepromTest, AnAddressOfADriverIsReachedWhereTheConfigurationSaysSo) {
  VirtualEeprom& chip = Add();
  bus->Root().Bind(0x50);
  machine.configuration.devices[0].eeproms.at(0x50).i2c->allow_bound = true;
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 1))), "ACK");
  EXPECT_EQ(Part(chip, 0, 4), Bytes(4, 1));
}

TEST_F(EepromTest, TheBusIsLockedWhileItIsLeased) {
  Add();
  machine.Serve();
  EXPECT_EQ(machine.Ask(Write(0, Bytes(4, 1))), "ACK");
  std::string lock;
  for (const std::string& file : machine.system.List("/run/fwpush-serve")) {
    if (file.ends_with(".lock")) lock = "/run/fwpush-serve/" + file;
  }
  const int other = machine.system.Open(lock, Access::LOCK);
  EXPECT_EQ(machine.system.Lock(other), -EWOULDBLOCK);
  machine.Disconnect();
  EXPECT_EQ(machine.system.Lock(other), 0);
  EXPECT_THAT(machine.Ask(Write(0, Bytes(4, 2)), 2),
              testing::HasSubstr("I2C bus in use by another program"));
}

}  // namespace
}  // namespace serve
