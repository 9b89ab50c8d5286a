#include "hardware/I2cBus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "hardware/VirtualEeprom.h"
#include "hardware/VirtualSystem.h"
#include "serve/Wires.h"

namespace hardware {
namespace {

using namespace std::chrono_literals;
using device::Bytes;
using serve::Access;

constexpr Time BIT = 2500ns;  // at 400 kHz

class I2cBusTest : public ::testing::Test {
 protected:
  int Open(I2cAdapter& adapter) { return _system.Open(adapter.Path(), Access::WRITE); }

  static Bytes AtOffset(std::uint32_t offset, const Bytes& bytes) {
    Bytes message{static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset)};
    message.insert(message.end(), bytes.begin(), bytes.end());
    return message;
  }
  int Send(int adapter, std::uint16_t address, Bytes bytes) {
    const serve::I2cMessage message{.address = address, .is_read = false, .bytes = bytes};
    return _system.TransferI2c(adapter, {&message, 1});
  }
  int WriteAt(int adapter, std::uint16_t address, std::uint32_t offset, const Bytes& bytes) {
    return Send(adapter, address, AtOffset(offset, bytes));
  }
  int ReadAt(int adapter, std::uint16_t address, std::uint32_t offset, Bytes& bytes) {
    Bytes where = AtOffset(offset, {});
    const std::vector<serve::I2cMessage> messages{
        {.address = address, .is_read = false, .bytes = where},
        {.address = address, .is_read = true, .bytes = bytes}};
    return _system.TransferI2c(adapter, messages);
  }
  /// What stands there; empty where the chip cannot be read.
  Bytes Held(int adapter, std::uint16_t address, std::uint32_t offset, std::size_t size) {
    Bytes bytes(size);
    return ReadAt(adapter, address, offset, bytes) == 2 ? bytes : Bytes{};
  }
  void Wait(Time time) { _system.Clock().Advance(time); }

  VirtualSystem _system;
};

TEST_F(I2cBusTest, TransfersTakeTheirBitsOnTheWire) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {.page = 64});
  const int adapter = Open(bus.Root());

  // A page write: a start, an address, two bytes of offset, 64 of data, a stop.
  ASSERT_EQ(WriteAt(adapter, 0x50, 0, Bytes(64, 0xA5)), 1);
  EXPECT_EQ(_system.Now(), ((3 + 64) * 9 + 2) * BIT);
  EXPECT_EQ(bus.PageWriteTime(), 605 * BIT);
  EXPECT_EQ(bus.BusyTime(), 605 * BIT);
  EXPECT_EQ(bus.NakTime(), 0 * BIT);

  // Nobody acknowledges the address: a start, the address, a stop.
  EXPECT_EQ(WriteAt(adapter, 0x50, 64, Bytes(64, 0xA5)), -ENXIO);
  EXPECT_EQ(_system.Now(), (605 + 11) * BIT);
  EXPECT_EQ(bus.Naks(), 1u);
  EXPECT_EQ(bus.NakTime(), 11 * BIT);

  // A read: start, address, offset; start again, address, 16 bytes, stop.
  Wait(5ms);
  const Time begin = _system.Now();
  EXPECT_EQ(Held(adapter, 0x50, 0, 16), Bytes(16, 0xA5));
  EXPECT_EQ(_system.Now() - begin, ((3 * 9 + 1) + ((1 + 16) * 9 + 2)) * BIT);
  EXPECT_EQ(bus.BusyTime(), (605 + 11 + 183) * BIT);
  EXPECT_EQ(bus.PageWriteTime(), 605 * BIT);
  EXPECT_EQ(bus.Transfers(), 3u);
  EXPECT_EQ(bus.PageWrites(), 1u);
}

TEST_F(I2cBusTest, ASlowBusTakesLonger) {
  I2cBus bus(_system, {.khz = 100});
  const VirtualEeprom chip(bus.Root(), {});
  ASSERT_EQ(WriteAt(Open(bus.Root()), 0x50, 0, Bytes(1, 0)), 1);
  EXPECT_EQ(_system.Now(), 38 * 10us);
}

TEST_F(I2cBusTest, AnAdapterSaysInItsOwnWayThatNobodyAnswers) {
  std::uint32_t number = 0;
  for (const int error : {ENXIO, EREMOTEIO, EIO}) {
    I2cBus bus(_system, {.number = number++, .nak_error = error});
    EXPECT_EQ(WriteAt(Open(bus.Root()), 0x50, 0, Bytes(1, 0)), -error);
  }
}

TEST_F(I2cBusTest, LostArbitrationEndsByItself) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  bus.LoseArbitration(2);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), -EAGAIN);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), -EAGAIN);
  EXPECT_EQ(chip.PageWrites(), 0u);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), 1);
}

TEST_F(I2cBusTest, AWireThatIsHeldTimesOutFromThenOn) {
  I2cBus bus(_system, {.stuck_timeout = 1s});
  const VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  bus.HoldWireFrom(1ms);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), 1);
  Wait(1ms);
  const Time begin = _system.Now();
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), -ETIMEDOUT);
  EXPECT_EQ(_system.Now() - begin, 1s);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), -ETIMEDOUT);
  bus.ReleaseWire();
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), 1);
}

TEST_F(I2cBusTest, LimitsOfTheAdapterAreOnlyFoundByATransfer) {
  I2cBus bus(_system, {.takes_empty_messages = false, .max_write = 34, .max_read = 4});
  const VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  EXPECT_EQ(_system.HasPlainI2c(adapter), 1);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(33, 0)), -EOPNOTSUPP);
  EXPECT_EQ(Send(adapter, 0x50, {}), -EOPNOTSUPP);
  EXPECT_EQ(_system.Now(), Time{});
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(32, 0)), 1);
  Wait(5ms);
  Bytes bytes(5);
  EXPECT_EQ(ReadAt(adapter, 0x50, 0, bytes), -EOPNOTSUPP);
  bytes.resize(4);
  EXPECT_EQ(ReadAt(adapter, 0x50, 0, bytes), 2);
}

TEST_F(I2cBusTest, AnSmbusAdapterMakesNoTransfers) {
  I2cBus bus(_system, {.has_plain_i2c = false});
  const int adapter = Open(bus.Root());
  EXPECT_EQ(_system.HasPlainI2c(adapter), 0);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), -EOPNOTSUPP);
}

TEST_F(I2cBusTest, ATransferHas42MessagesOf8192BytesAtMost) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  Bytes byte(1);
  std::vector<serve::I2cMessage> messages(43, {.address = 0x50, .is_read = true, .bytes = byte});
  EXPECT_EQ(_system.TransferI2c(adapter, messages), -EINVAL);
  messages.pop_back();
  EXPECT_EQ(_system.TransferI2c(adapter, messages), 42);
  EXPECT_EQ(_system.TransferI2c(adapter, {}), -EINVAL);
  EXPECT_EQ(Send(adapter, 0x50, Bytes(8193, 0)), -EINVAL);
}

TEST_F(I2cBusTest, ADriversAddressIsBusyForWhoAsksAndOpenToTransfers) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {});
  bus.Root().Bind(0x50);
  const int adapter = Open(bus.Root());
  EXPECT_EQ(_system.CheckI2cAddress(adapter, 0x50), -EBUSY);
  EXPECT_EQ(_system.CheckI2cAddress(adapter, 0x51), 0);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes(1, 0)), 1);
}

TEST_F(I2cBusTest, ADriverIsSeenFromParentsAndFromChannelsOfTheWay) {
  I2cBus bus(_system, {});
  I2cMux& mux = bus.Root().AddMux(0x70, 16);
  mux.Channel(2).Bind(0x52);
  bus.Root().Bind(0x51);
  EXPECT_EQ(_system.CheckI2cAddress(Open(bus.Root()), 0x52), -EBUSY);
  EXPECT_EQ(_system.CheckI2cAddress(Open(bus.Root()), 0x70), -EBUSY);
  EXPECT_EQ(_system.CheckI2cAddress(Open(mux.Channel(2)), 0x52), -EBUSY);
  EXPECT_EQ(_system.CheckI2cAddress(Open(mux.Channel(3)), 0x52), 0);
  EXPECT_EQ(_system.CheckI2cAddress(Open(mux.Channel(3)), 0x51), -EBUSY);
}

TEST_F(I2cBusTest, AChannelReachesItsOwnChipsAndCostsOneRegisterWriteAChange) {
  I2cBus bus(_system, {});
  I2cMux& mux = bus.Root().AddMux(0x70, 16);
  const VirtualEeprom first(mux.Channel(0), {});
  const VirtualEeprom second(mux.Channel(7), {});
  const int to_first = Open(mux.Channel(0));
  const int to_second = Open(mux.Channel(7));

  ASSERT_EQ(WriteAt(to_first, 0x50, 0, Bytes{1}), 1);
  EXPECT_EQ(bus.BusyTime(), (20 + 38) * BIT);  // the register: two bytes, start and stop
  ASSERT_EQ(WriteAt(to_second, 0x50, 0, Bytes{2}), 1);
  EXPECT_EQ(bus.BusyTime(), (20 + 38) * 2 * BIT);
  Wait(5ms);
  ASSERT_EQ(WriteAt(to_second, 0x50, 1, Bytes{3}), 1);
  EXPECT_EQ(bus.BusyTime(), ((20 + 38) * 2 + 38) * BIT);
  EXPECT_EQ(bus.MuxWrites(), 2u);
  EXPECT_EQ(bus.PageWriteTime(), 3 * 38 * BIT);

  EXPECT_EQ(first.Content()[0], 1);
  EXPECT_EQ(second.Content()[0], 2);
  EXPECT_EQ(second.Content()[1], 3);
}

TEST_F(I2cBusTest, AChannelThatStaysSelectedCollidesWithEqualAddressesOfItsParent) {
  I2cBus bus(_system, {});
  I2cMux& mux = bus.Root().AddMux(0x70, 16);
  VirtualEeprom parents(bus.Root(), {});
  VirtualEeprom childs(mux.Channel(0), {});
  parents.Load(0, Bytes{0xF0});
  childs.Load(0, Bytes{0x3C});
  const int root = Open(bus.Root());
  EXPECT_EQ(Held(root, 0x50, 0, 1), Bytes{0xF0});
  EXPECT_EQ(Held(Open(mux.Channel(0)), 0x50, 0, 1), Bytes{0x30});
  EXPECT_EQ(Held(root, 0x50, 0, 1), Bytes{0x30});
  EXPECT_EQ(WriteAt(root, 0x50, 0, Bytes{0x77}), 1);
  EXPECT_EQ(childs.Content()[0], 0x77);
  EXPECT_EQ(parents.Content()[0], 0x77);
}

TEST_F(I2cBusTest, AMuxThatDisconnectsKeepsItsChipsApartForOneMoreWriteATransfer) {
  I2cBus bus(_system, {});
  I2cMux& mux = bus.Root().AddMux(0x70, 16, I2cAdapter::Idle::DISCONNECT);
  VirtualEeprom parents(bus.Root(), {.address = 0x51});
  VirtualEeprom childs(mux.Channel(0), {});
  ASSERT_EQ(WriteAt(Open(mux.Channel(0)), 0x50, 0, Bytes{0x11}), 1);
  EXPECT_EQ(bus.MuxWrites(), 2u);
  Wait(5ms);
  EXPECT_EQ(Held(Open(bus.Root()), 0x50, 0, 1), Bytes{});
  EXPECT_EQ(Held(Open(bus.Root()), 0x51, 0, 1), Bytes{0xFF});
}

TEST_F(I2cBusTest, AMuxBehindAMuxIsReachedThroughBoth) {
  I2cBus bus(_system, {});
  I2cMux& outer = bus.Root().AddMux(0x70, 16);
  I2cMux& inner = outer.Channel(1).AddMux(0x71, 24);
  const VirtualEeprom chip(inner.Channel(4), {});
  ASSERT_EQ(WriteAt(Open(inner.Channel(4)), 0x50, 0, Bytes{9}), 1);
  EXPECT_EQ(chip.Content()[0], 9);
  EXPECT_EQ(bus.MuxWrites(), 2u);
  EXPECT_EQ(bus.BusyTime(), (2 * 20 + 38) * BIT);
}

TEST_F(I2cBusTest, AdaptersAndMuxesStandInSysfsAsLinuxShowsThem) {
  I2cBus bus(_system, {.name = "1e78a300.i2c-bus", .number = 5});
  bus.Root().AddMux(0x70, 16);
  EXPECT_EQ(_system.ReadText("/sys/bus/i2c/devices/i2c-5/name"), "1e78a300.i2c-bus");
  EXPECT_EQ(_system.ReadText("/sys/bus/i2c/devices/i2c-18/name"), "i2c-5-mux (chan_id 2)");
  EXPECT_EQ(_system.Resolve("/sys/bus/i2c/devices/i2c-18/mux_device"),
            _system.Resolve("/sys/bus/i2c/devices/5-0070"));
  EXPECT_EQ(_system.Resolve("/sys/bus/i2c/devices/5-0070/channel-2"),
            _system.Resolve("/sys/bus/i2c/devices/i2c-18"));
  EXPECT_EQ(_system.Resolve("/sys/bus/i2c/devices/i2c-18/.."),
            _system.Resolve("/sys/bus/i2c/devices/i2c-5"));
  EXPECT_EQ(_system.ReadText("/sys/bus/i2c/devices/5-0070/idle_state"), "-1");
  EXPECT_EQ(_system.Resolve("/sys/bus/i2c/devices/5-0070/driver"), "/sys/bus/i2c/drivers/pca954x");
  EXPECT_EQ(_system.Resolve("/sys/class/i2c-dev/i2c-18/device"),
            _system.Resolve("/sys/bus/i2c/devices/i2c-18"));
}

TEST_F(I2cBusTest, TheServerFindsItsAdapters) {
  I2cBus bus(_system, {.name = "1e78a300.i2c-bus", .number = 5});
  I2cMux& outer = bus.Root().AddMux(0x70, 16);
  outer.Channel(2).AddMux(0x71, 24);
  outer.Channel(3).Bind(0x50);
  const serve::AdapterConfig root{.adapter = "1e78a300.i2c-bus", .muxes = {}};
  const serve::AdapterConfig inner{.adapter = "1e78a300.i2c-bus", .muxes = {{0x70, 2}, {0x71, 7}}};
  EXPECT_EQ(serve::FindAdapter(_system, root).node, "/dev/i2c-5");
  EXPECT_EQ(serve::FindAdapter(_system, inner).node, "/dev/i2c-31");
  EXPECT_EQ(serve::RootKey(_system, inner), serve::RootKey(_system, root));
  EXPECT_EQ(serve::FindAdapter(_system, {.adapter = "/dev/i2c-19", .muxes = {}}).name,
            "i2c-5-mux (chan_id 3)");
}

// --- EEPROMs

TEST_F(I2cBusTest, AWriteWrapsWithinItsPage) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {.page = 8});
  const int adapter = Open(bus.Root());
  ASSERT_EQ(WriteAt(adapter, 0x50, 0x16, Bytes{1, 2, 3, 4}), 1);
  Wait(5ms);
  EXPECT_EQ(Held(adapter, 0x50, 0x10, 9), (Bytes{3, 4, 255, 255, 255, 255, 1, 2, 255}));
  // More than a page: the last bytes stay.
  ASSERT_EQ(WriteAt(adapter, 0x50, 0x20, Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), 1);
  Wait(5ms);
  EXPECT_EQ(Held(adapter, 0x50, 0x20, 9), (Bytes{9, 10, 3, 4, 5, 6, 7, 8, 255}));
}

TEST_F(I2cBusTest, AChipIsBusyFromTheStopUntilItsWriteTimeIsOver) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {.write_time = 3ms});
  const int adapter = Open(bus.Root());
  ASSERT_EQ(WriteAt(adapter, 0x50, 0, Bytes{1}), 1);
  const Time ready = _system.Now() + 3ms;
  while (_system.Now() < ready)
    EXPECT_EQ(Held(adapter, 0x50, 0, 1), Bytes{}) << _system.Now() / 1us;
  EXPECT_EQ(Held(adapter, 0x50, 0, 1), Bytes{1});
}

TEST_F(I2cBusTest, AWriteThatARepeatedStartFollowsIsLost) {
  I2cBus bus(_system, {});
  const VirtualEeprom first(bus.Root(), {.address = 0x50});
  const VirtualEeprom second(bus.Root(), {.address = 0x51});
  const int adapter = Open(bus.Root());
  Bytes bytes = AtOffset(0, {0x11});
  const std::vector<serve::I2cMessage> messages{
      {.address = 0x50, .is_read = false, .bytes = bytes},
      {.address = 0x51, .is_read = false, .bytes = bytes}};
  EXPECT_EQ(_system.TransferI2c(adapter, messages), 2);
  EXPECT_EQ(first.Content()[0], 0xFF);
  EXPECT_EQ(second.Content()[0], 0x11);
}

TEST_F(I2cBusTest, ASmallChipHasItsBanksAtSeveralAddresses) {
  I2cBus bus(_system, {});
  VirtualEeprom chip(bus.Root(),
                     {.size = 2048, .page = 16, .offset_bits = 8, .rolls_over_banks = false});
  chip.Load(0, Bytes{0xA0});
  chip.Load(0x100, Bytes{0xA1});
  const int adapter = Open(bus.Root());
  EXPECT_EQ(Send(adapter, 0x57, {0xFF, 0x42}), 1);
  EXPECT_EQ(chip.Content()[2047], 0x42);
  Wait(5ms);
  EXPECT_EQ(Send(adapter, 0x58, {0xFF, 0x42}), -ENXIO);
  Bytes where{0xFF};
  Bytes bytes(2);
  const std::vector<serve::I2cMessage> read{{.address = 0x50, .is_read = false, .bytes = where},
                                            {.address = 0x50, .is_read = true, .bytes = bytes}};
  EXPECT_EQ(_system.TransferI2c(adapter, read), 2);
  EXPECT_EQ(bytes, (Bytes{0xFF, 0xA0}));  // its own bank again
}

TEST_F(I2cBusTest, AReadRollsOverIntoTheNextBankWhereTheChipDoesThat) {
  I2cBus bus(_system, {});
  VirtualEeprom chip(bus.Root(), {.size = 2048, .page = 16, .offset_bits = 8});
  chip.Load(0, Bytes{0xA0});
  chip.Load(0x100, Bytes{0xA1});
  const int adapter = Open(bus.Root());
  Bytes where{0xFF};
  Bytes bytes(2);
  for (const auto& [address, next] : {std::pair{0x50, 0xA1}, std::pair{0x57, 0xA0}}) {
    const auto bank = static_cast<std::uint16_t>(address);
    const std::vector<serve::I2cMessage> read{{.address = bank, .is_read = false, .bytes = where},
                                              {.address = bank, .is_read = true, .bytes = bytes}};
    EXPECT_EQ(_system.TransferI2c(adapter, read), 2);
    EXPECT_EQ(bytes, (Bytes{0xFF, static_cast<std::uint8_t>(next)}));
  }
}

TEST_F(I2cBusTest, ALargeChipTakesBitsOfItsAddressAndItsBankBitMayBeAnother) {
  I2cBus bus(_system, {});
  const VirtualEeprom chip(bus.Root(), {.size = 0x20000, .page = 256});
  const VirtualEeprom other(bus.Root(),
                            {.address = 0x52, .size = 0x20000, .page = 128, .bank_bit = 2});
  const int adapter = Open(bus.Root());
  ASSERT_EQ(WriteAt(adapter, 0x51, 0x1234, Bytes{7}), 1);
  ASSERT_EQ(WriteAt(adapter, 0x56, 0x1234, Bytes{8}), 1);
  EXPECT_EQ(chip.Content()[0x11234], 7);
  EXPECT_EQ(other.Content()[0x11234], 8);
}

TEST_F(I2cBusTest, AWriteProtectedChipAcknowledgesAndForgets) {
  I2cBus bus(_system, {});
  VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  chip.SetWriteProtected(true);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes{1}), 1);
  EXPECT_EQ(Held(adapter, 0x50, 0, 1), Bytes{0xFF});
  EXPECT_EQ(bus.PageWriteTime(), Time{});
  chip.SetWriteProtected(false);
  EXPECT_EQ(WriteAt(adapter, 0x50, 0, Bytes{1}), 1);
  EXPECT_EQ(chip.Content()[0], 1);
}

TEST_F(I2cBusTest, AnAbsentChipDoesNotAnswer) {
  I2cBus bus(_system, {});
  VirtualEeprom chip(bus.Root(), {});
  chip.SetAbsent(true);
  EXPECT_EQ(Held(Open(bus.Root()), 0x50, 0, 1), Bytes{});
}

TEST_F(I2cBusTest, TheNthPageWriteIsDroppedOrHasABitFlipped) {
  I2cBus bus(_system, {});
  VirtualEeprom chip(bus.Root(), {});
  const int adapter = Open(bus.Root());
  chip.DropPageWrite(2);
  chip.FlipBitOfPageWrite(3, 4);
  for (std::uint32_t i = 0; i < 4; ++i) {
    ASSERT_EQ(WriteAt(adapter, 0x50, i * 2, Bytes{0x11, 0x22}), 1);
    EXPECT_EQ(Held(adapter, 0x50, 0, 1), Bytes{});  // a dropped one is busy, too
    Wait(5ms);
  }
  EXPECT_EQ(Held(adapter, 0x50, 0, 8), (Bytes{0x11, 0x22, 0xFF, 0xFF, 0x01, 0x22, 0x11, 0x22}));
  chip.FlipBit(1, 0);
  EXPECT_EQ(chip.Content()[1], 0x23);
}

// --- Power

TEST_F(I2cBusTest, PowerThatGoesInsideAPageWriteLeavesSomeWordsOneTornAndTheRestOld) {
  const Bytes wanted(32, 0x00);
  bool has_torn = false;
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    VirtualSystem system;
    I2cBus bus(system, {});
    const VirtualEeprom chip(bus.Root(), {});
    const int adapter = system.Open("/dev/i2c-0", Access::WRITE);
    system.GetPower().CutInside(1, seed);
    Bytes bytes = AtOffset(32, wanted);
    const serve::I2cMessage message{.address = 0x50, .is_read = false, .bytes = bytes};
    EXPECT_EQ(system.TransferI2c(adapter, {&message, 1}), -EIO);
    EXPECT_EQ(system.TransferI2c(adapter, {&message, 1}), -EIO);
    const auto page = chip.Content().subspan(32, 32);
    std::size_t word = 0;
    const auto all = [&](std::uint8_t value) {
      return std::ranges::all_of(page.subspan(word * 4, 4), [&](auto b) { return b == value; });
    };
    while (word < 8 && all(0x00)) ++word;
    if (word < 8 && !all(0xFF)) {
      has_torn = true;
      ++word;
    }
    for (; word < 8; ++word) EXPECT_TRUE(all(0xFF)) << word;
    EXPECT_EQ(chip.Content()[31], 0xFF);
    EXPECT_EQ(chip.Content()[64], 0xFF);
  }
  EXPECT_TRUE(has_torn);
}

TEST_F(I2cBusTest, PowerThatGoesTearsTheWriteCyclesOfOtherChipsToo) {
  bool has_torn = false;
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    VirtualSystem system;
    I2cBus bus(system, {});
    const VirtualEeprom early(bus.Root(), {.address = 0x50});
    const VirtualEeprom busy(bus.Root(), {.address = 0x51});
    const VirtualEeprom last(bus.Root(), {.address = 0x52});
    const int adapter = system.Open("/dev/i2c-0", Access::WRITE);
    const auto write = [&](std::uint16_t address) {
      Bytes bytes = AtOffset(0, Bytes(32, 0x00));
      const serve::I2cMessage message{.address = address, .is_read = false, .bytes = bytes};
      return system.TransferI2c(adapter, {&message, 1});
    };
    system.GetPower().CutAfter(3, seed);
    EXPECT_EQ(write(0x50), 1);
    system.Clock().Advance(6ms);
    EXPECT_EQ(write(0x51), 1);
    EXPECT_EQ(write(0x52), -EIO);
    const auto is_whole = [](const VirtualEeprom& chip) {
      return std::ranges::count(chip.Content(), 0x00) == 32;
    };
    EXPECT_TRUE(is_whole(early));
    EXPECT_TRUE(is_whole(last));
    has_torn = has_torn || !is_whole(busy);
    EXPECT_EQ(system.GetPower().Changes(), 3u);

    system.PowerUp();
    const int again = system.Open("/dev/i2c-0", Access::READ);
    Bytes byte(1);
    const serve::I2cMessage read{.address = 0x52, .is_read = true, .bytes = byte};
    EXPECT_EQ(system.TransferI2c(again, {&read, 1}), 1);  // no write cycle is left
    EXPECT_EQ(byte, Bytes{0x00});
  }
  EXPECT_TRUE(has_torn);
}

TEST_F(I2cBusTest, PowerUpForgetsTheChannelOfAMux) {
  I2cBus bus(_system, {});
  I2cMux& mux = bus.Root().AddMux(0x70, 16);
  const VirtualEeprom chip(mux.Channel(0), {});
  EXPECT_EQ(Held(Open(mux.Channel(0)), 0x50, 0, 1), Bytes{0xFF});
  EXPECT_EQ(Held(Open(bus.Root()), 0x50, 0, 1), Bytes{0xFF});
  _system.GetPower().CutNow();
  _system.PowerUp();
  EXPECT_EQ(Held(Open(bus.Root()), 0x50, 0, 1), Bytes{});
  EXPECT_EQ(Held(Open(mux.Channel(0)), 0x50, 0, 1), Bytes{0xFF});
}

}  // namespace
}  // namespace hardware
