#include "hardware/VirtualSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace hardware {
namespace {

using namespace std::chrono_literals;
using device::Bytes;
using serve::Access;
using Names = std::vector<std::string>;

class VirtualSystemTest : public ::testing::Test {
 protected:
  VirtualSystemTest() {
    _system.AddFile("/data/chip.bin", Bytes{1, 2, 3, 4});
    _system.AddText("/sys/devices/spi1.0/mtd/mtd0/name", "pnor\n");
    _system.AddLink("/sys/devices/spi1.0/mtd/mtd0/device", "../../../spi1.0");
    _system.AddText("/sys/devices/spi1.0/jedec", "c2253a");
    _system.AddLink("/sys/class/mtd/mtd0", "../../devices/spi1.0/mtd/mtd0");
  }

  VirtualSystem _system;
};

TEST_F(VirtualSystemTest, LinksAreFollowedInTheMiddleOfAPath) {
  EXPECT_EQ(_system.ReadText("/sys/class/mtd/mtd0/name"), "pnor");
  EXPECT_EQ(_system.ReadText("/sys/class/mtd/mtd0/device/jedec"), "c2253a");
  EXPECT_EQ(_system.ReadText("/sys/class/mtd/mtd0/size"), std::nullopt);
  EXPECT_EQ(_system.ReadText("/sys/class/mtd"), std::nullopt);
  EXPECT_EQ(_system.Resolve("/sys/class/mtd/mtd0/device"), "/sys/devices/spi1.0");
  EXPECT_EQ(_system.Resolve("/sys//class/./mtd/"), "/sys/class/mtd");
  EXPECT_EQ(_system.Resolve("/sys/class/mtd/mtd1"), "");
}

TEST_F(VirtualSystemTest, LinksThatGoRoundLeadNowhere) {
  _system.AddLink("/a", "/b");
  _system.AddLink("/b", "/a");
  EXPECT_EQ(_system.Resolve("/a"), "");
}

TEST_F(VirtualSystemTest, AFolderListsWhatIsDirectlyInItSorted) {
  EXPECT_EQ(_system.List("/sys"), (Names{"class", "devices"}));
  EXPECT_EQ(_system.List("/sys/class/mtd/mtd0"), (Names{"device", "name"}));
  EXPECT_EQ(_system.List("/"), (Names{"data", "run", "sys"}));
  EXPECT_EQ(_system.List("/nothing"), Names{});
}

TEST_F(VirtualSystemTest, AFileIsReadAndWrittenAndGrows) {
  const int file = _system.Open("/data/chip.bin", Access::WRITE);
  ASSERT_GT(file, 2);
  Bytes bytes(8);
  EXPECT_EQ(_system.Read(file, 1, bytes), 3);
  EXPECT_EQ(bytes, (Bytes{2, 3, 4, 0, 0, 0, 0, 0}));
  EXPECT_EQ(_system.Read(file, 4, bytes), 0);
  EXPECT_EQ(_system.Write(file, 3, Bytes{7, 8}), 2);
  EXPECT_EQ(_system.SizeOf(file), 5);
  EXPECT_EQ(_system.Flush(file), 0);
  EXPECT_EQ(_system.FileContent("/data/chip.bin"), (Bytes{1, 2, 3, 7, 8}));
}

TEST_F(VirtualSystemTest, WhatWasOpenedToBeReadIsNotWritten) {
  const int file = _system.Open("/data/chip.bin", Access::READ);
  EXPECT_EQ(_system.Write(file, 0, Bytes{9}), -EBADF);
  EXPECT_EQ(_system.EraseMtd(file, 0, 1), -EPERM);
  EXPECT_EQ(_system.FileContent("/data/chip.bin"), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(_system.Open("/sys/class/mtd/mtd0/name", Access::WRITE), -EACCES);
}

TEST_F(VirtualSystemTest, CallsForAnotherKindOfFileFail) {
  const int file = _system.Open("/data/chip.bin", Access::WRITE);
  serve::MtdFacts facts;
  EXPECT_EQ(_system.HasPlainI2c(file), -ENOTTY);
  EXPECT_EQ(_system.CheckI2cAddress(file, 0x50), -ENOTTY);
  EXPECT_EQ(_system.TransferI2c(file, {}), -ENOTTY);
  EXPECT_EQ(_system.GetMtdFacts(file, facts), -ENOTTY);
  EXPECT_EQ(_system.EraseMtd(file, 0, 1), -ENOTTY);
}

TEST_F(VirtualSystemTest, WhatIsNotThereCannotBeOpenedButALockFileIsMade) {
  EXPECT_EQ(_system.Open("/dev/mtd9", Access::READ), -ENOENT);
  EXPECT_EQ(_system.Open("/run/fwpush-serve/lock", Access::WRITE), -ENOENT);
  EXPECT_GT(_system.Open("/run/fwpush-serve/lock", Access::LOCK), 2);
  EXPECT_EQ(_system.Resolve("/run/fwpush-serve/lock"), "/run/fwpush-serve/lock");
}

TEST_F(VirtualSystemTest, ALockIsHeldByOneDescriptorUntilItIsClosed) {
  const int first = _system.Open("/run/fwpush-serve/lock", Access::LOCK);
  const int second = _system.Open("/run/fwpush-serve/lock", Access::LOCK);
  EXPECT_EQ(_system.Lock(first), 0);
  EXPECT_EQ(_system.Lock(first), 0);
  EXPECT_EQ(_system.Lock(second), -EWOULDBLOCK);
  _system.Close(second);
  EXPECT_EQ(_system.Lock(second), -EBADF);
  const int third = _system.Open("/run/fwpush-serve/lock", Access::LOCK);
  EXPECT_EQ(_system.Lock(third), -EWOULDBLOCK);
  _system.Close(first);
  EXPECT_EQ(_system.Lock(third), 0);
  EXPECT_EQ(_system.OpenDescriptors(), 1u);
}

TEST_F(VirtualSystemTest, ADescriptorOfADeviceThatWasTakenAwayFails) {
  class Device : public Node {
    std::int64_t Read(std::uint64_t, std::span<std::uint8_t>) override { return 1; }
  };
  _system.AddNode("/dev/chip", std::make_shared<Device>());
  const int chip = _system.Open("/dev/chip", Access::READ);
  Bytes bytes(1);
  EXPECT_EQ(_system.Read(chip, 0, bytes), 1);
  _system.TakeAway("/dev");
  EXPECT_EQ(_system.Read(chip, 0, bytes), -ENODEV);
  EXPECT_EQ(_system.Open("/dev/chip", Access::READ), -ENOENT);
  _system.AddNode("/dev/chip", std::make_shared<Device>());
  EXPECT_EQ(_system.Read(chip, 0, bytes), -ENODEV);
}

TEST_F(VirtualSystemTest, ASmallFileIsReplacedReadAndRemoved) {
  EXPECT_EQ(_system.WriteText("/run/fwpush-serve/lease", "one\n"), 0);
  EXPECT_EQ(_system.ReadText("/run/fwpush-serve/lease"), "one");
  const int file = _system.Open("/run/fwpush-serve/lease", Access::READ);
  EXPECT_EQ(_system.WriteText("/run/fwpush-serve/lease", "2"), 0);
  EXPECT_EQ(_system.ReadText("/run/fwpush-serve/lease"), "2");
  EXPECT_EQ(_system.SizeOf(file), 4);  // the file that it replaced
  EXPECT_EQ(_system.Remove("/run/fwpush-serve/lease"), 0);
  EXPECT_EQ(_system.Remove("/run/fwpush-serve/lease"), -ENOENT);
  EXPECT_EQ(_system.List("/run/fwpush-serve"), Names{});
  EXPECT_EQ(_system.Resolve("/run/fwpush-serve"), "/run/fwpush-serve");
  EXPECT_EQ(_system.GetPower().Changes(), 0u);
}

TEST_F(VirtualSystemTest, AFileIsMadeOnlyInAFolderThatExists) {
  EXPECT_EQ(_system.WriteText("/var/lib/state", "1"), -ENOENT);
  EXPECT_EQ(_system.Open("/var/lib/lock", Access::LOCK), -ENOENT);
  EXPECT_EQ(_system.WriteText("/data/chip.bin/state", "1"), -ENOENT);
  _system.AddFolder("/var/lib");
  _system.AddLink("/state", "/var/lib");
  EXPECT_EQ(_system.WriteText("/state/one", "1"), 0);
  EXPECT_EQ(_system.Resolve("/state/one"), "/var/lib/one");
  EXPECT_EQ(_system.WriteText("/var/lib", "1"), -EACCES);
  EXPECT_EQ(_system.WriteText("/sys/class/mtd/mtd0/name", "1"), -EACCES);
  EXPECT_EQ(_system.Remove("/sys/class/mtd/mtd0/name"), -EACCES);
  EXPECT_EQ(_system.Remove("/var/lib"), -EISDIR);
}

TEST_F(VirtualSystemTest, WallTimePassesWithTheClock) {
  _system.SetWallSeconds(1'000);
  _system.Clock().Advance(2500ms);
  EXPECT_EQ(_system.WallSeconds(), 1'002);
}

TEST_F(VirtualSystemTest, AProgramReturnsItsStatusTakesItsTimeAndIsKilledAfterItsLimit) {
  _system.AddProgram("/usr/lib/host-off", [](const Names& words) {
    return ProgramResult{.status = words.size() > 1 ? 3 : 0, .takes = 20s};
  });
  EXPECT_EQ(_system.RunProgram({"/usr/lib/host-off"}, 60s), 0);
  EXPECT_EQ(_system.Now(), 20s);
  EXPECT_EQ(_system.RunProgram({"/usr/lib/host-off", "spine-1"}, 60s), 3);
  EXPECT_EQ(_system.RunProgram({"/usr/lib/host-off"}, 5s), -ETIME);
  EXPECT_EQ(_system.Now(), 45s);
  EXPECT_EQ(_system.RunProgram({"/usr/lib/host-on"}, 5s), -ENOENT);
  EXPECT_EQ(_system.ProgramRuns(),
            (std::vector<Names>{
                {"/usr/lib/host-off"}, {"/usr/lib/host-off", "spine-1"}, {"/usr/lib/host-off"}}));
}

TEST_F(VirtualSystemTest, AProgramMayMakeANodeAppear) {
  _system.AddProgram("/usr/lib/bind", [this](const Names&) {
    _system.AddFile("/dev/late", Bytes{1});
    return ProgramResult{};
  });
  EXPECT_EQ(_system.Open("/dev/late", Access::READ), -ENOENT);
  EXPECT_EQ(_system.RunProgram({"/usr/lib/bind"}, 1s), 0);
  EXPECT_GT(_system.Open("/dev/late", Access::READ), 2);
}

TEST_F(VirtualSystemTest, CallsAreCountedByKindFailedOnesToo) {
  const int file = _system.Open("/data/chip.bin", Access::READ);
  Bytes bytes(1);
  _system.Read(file, 0, bytes);
  _system.Read(99, 0, bytes);
  _system.Open("/nothing", Access::READ);
  EXPECT_EQ(_system.Calls(Call::OPEN), 2u);
  EXPECT_EQ(_system.Calls(Call::READ), 2u);
  EXPECT_EQ(_system.Calls(Call::WRITE), 0u);
  _system.ResetCalls();
  EXPECT_EQ(_system.Calls(Call::OPEN), 0u);
}

TEST_F(VirtualSystemTest, TheNthCallOfAKindOnAPathFails) {
  _system.AddFile("/data/other.bin", Bytes{5});
  _system.Fail(
      {.call = Call::READ, .path = "/data/chip.bin", .nth = 2, .times = 2, .error = EBUSY});
  const int file = _system.Open("/data/chip.bin", Access::READ);
  const int other = _system.Open("/data/other.bin", Access::READ);
  Bytes bytes(1);
  std::vector<std::int64_t> results;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(_system.Read(other, 0, bytes), 1);
    results.push_back(_system.Read(file, 0, bytes));
  }
  EXPECT_EQ(results, (std::vector<std::int64_t>{1, -EBUSY, -EBUSY, 1}));
}

TEST_F(VirtualSystemTest, FaultsOfAPathThatAreForgottenDoNotComeTrue) {
  _system.AddFile("/data/other.bin", Bytes{5});
  for (const char* path : {"/data/chip.bin", "/data/other.bin"}) {
    _system.Fail({.call = Call::OPEN, .path = path, .nth = 2, .error = EBUSY});
    EXPECT_GT(_system.Open(path, Access::READ), 2);
  }
  _system.StopFailing("/data/chip.bin");
  EXPECT_GT(_system.Open("/data/chip.bin", Access::READ), 2);
  EXPECT_EQ(_system.Open("/data/other.bin", Access::READ), -EBUSY);
}

TEST_F(VirtualSystemTest, EveryKindOfCallCanBeMadeToFail) {
  const int file = _system.Open("/data/chip.bin", Access::WRITE);
  Bytes bytes(1);
  serve::MtdFacts facts;
  const auto fails = [&](Call call, auto make) {
    EXPECT_NE(make(), -EDOM);
    _system.Fail({.call = call, .error = EDOM});
    EXPECT_EQ(make(), -EDOM);
    EXPECT_NE(make(), -EDOM);
  };
  fails(Call::OPEN, [&] { return _system.Open("/data/chip.bin", Access::READ); });
  fails(Call::LOCK, [&] { return _system.Lock(file); });
  fails(Call::READ, [&] { return _system.Read(file, 0, bytes); });
  fails(Call::WRITE, [&] { return _system.Write(file, 0, bytes); });
  fails(Call::SIZE_OF, [&] { return _system.SizeOf(file); });
  fails(Call::FLUSH, [&] { return _system.Flush(file); });
  fails(Call::HAS_PLAIN_I2C, [&] { return _system.HasPlainI2c(file); });
  fails(Call::CHECK_I2C_ADDRESS, [&] { return _system.CheckI2cAddress(file, 0x50); });
  fails(Call::TRANSFER_I2C, [&] { return _system.TransferI2c(file, {}); });
  fails(Call::GET_MTD_FACTS, [&] { return _system.GetMtdFacts(file, facts); });
  fails(Call::ERASE_MTD, [&] { return _system.EraseMtd(file, 0, 1); });
  fails(Call::WRITE_TEXT, [&] { return _system.WriteText("/run/fwpush-serve/x", ""); });
  fails(Call::REMOVE, [&] { return _system.Remove("/run/fwpush-serve/x"); });
  fails(Call::RUN_PROGRAM, [&] { return _system.RunProgram({"/x"}, 1s); });
  _system.Fail({.call = Call::READ_TEXT});
  _system.Fail({.call = Call::LIST});
  _system.Fail({.call = Call::RESOLVE});
  EXPECT_EQ(_system.ReadText("/sys/class/mtd/mtd0/name"), std::nullopt);
  EXPECT_EQ(_system.List("/sys"), Names{});
  EXPECT_EQ(_system.Resolve("/sys"), "");
  EXPECT_EQ(_system.ReadText("/sys/class/mtd/mtd0/name"), "pnor");
  EXPECT_EQ(_system.List("/sys").size(), 2u);
  EXPECT_EQ(_system.Resolve("/sys"), "/sys");
}

TEST_F(VirtualSystemTest, CallsTakeTheTimeThatTheyAreSaidToTake) {
  _system.SetCallTime(10us);
  _system.Resolve("/sys");
  _system.Resolve("/sys");
  EXPECT_EQ(_system.Now(), 20us);
}

TEST_F(VirtualSystemTest, WithoutPowerEveryCallFailsAndFilesStay) {
  const int file = _system.Open("/data/chip.bin", Access::WRITE);
  ASSERT_EQ(_system.Lock(file), 0);
  _system.GetPower().CutAfter(2);
  EXPECT_EQ(_system.Write(file, 0, Bytes{9}), 1);
  EXPECT_EQ(_system.Flush(file), 0);
  EXPECT_EQ(_system.Write(file, 1, Bytes{8}), -EIO);
  EXPECT_EQ(_system.Write(file, 2, Bytes{7}), -EIO);
  Bytes bytes(1);
  EXPECT_EQ(_system.Read(file, 0, bytes), -EIO);
  EXPECT_EQ(_system.Open("/data/chip.bin", Access::READ), -EIO);
  EXPECT_EQ(_system.Resolve("/sys"), "");
  _system.PowerUp();
  EXPECT_EQ(_system.Read(file, 0, bytes), -EBADF);
  const int again = _system.Open("/data/chip.bin", Access::WRITE);
  EXPECT_EQ(_system.Lock(again), 0);
  EXPECT_EQ(_system.FileContent("/data/chip.bin"), (Bytes{9, 8, 3, 4}));
  EXPECT_EQ(_system.GetPower().Changes(), 2u);
}

TEST_F(VirtualSystemTest, WhatWasNotFlushedMayBeLostWithThePower) {
  std::size_t lost = 0;
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    VirtualSystem system;
    system.AddFile("/data/chip.bin", Bytes(2048, 1));
    const int file = system.Open("/data/chip.bin", Access::WRITE);
    EXPECT_EQ(system.Write(file, 0, Bytes(1024, 2)), 1024);
    EXPECT_EQ(system.Flush(file), 0);
    EXPECT_EQ(system.Write(file, 1024, Bytes(1024, 3)), 1024);
    system.GetPower().CutNow(seed);
    const Bytes left = system.FileContent("/data/chip.bin");
    for (std::size_t i = 0; i < 1024; ++i) EXPECT_EQ(left[i], 2) << i;
    for (std::size_t block = 1024; block < 2048; block += 512) {
      EXPECT_TRUE(left[block] == 1 || left[block] == 3);
      for (std::size_t i = block; i < block + 512; ++i) EXPECT_EQ(left[i], left[block]) << i;
      if (left[block] == 1) ++lost;
    }
  }
  EXPECT_GT(lost, 5u);
  EXPECT_LT(lost, 35u);
}

}  // namespace
}  // namespace hardware
