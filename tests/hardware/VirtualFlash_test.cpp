#include "hardware/VirtualFlash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "hardware/VirtualLoop.h"
#include "hardware/VirtualSystem.h"
#include "serve/Wires.h"

namespace hardware {
namespace {

using namespace std::chrono_literals;
using device::Bytes;
using serve::Access;

class VirtualFlashTest : public ::testing::Test {
 protected:
  int Open(const std::string& path = "/dev/mtd0", Access access = Access::WRITE) {
    const int descriptor = _system.Open(path, access);
    EXPECT_GT(descriptor, 2) << path;
    return descriptor;
  }
  Bytes Held(int flash, std::uint64_t offset, std::size_t size) {
    Bytes bytes(size);
    bytes.resize(static_cast<std::size_t>(_system.Read(flash, offset, bytes)));
    return bytes;
  }

  VirtualSystem _system;
};

TEST_F(VirtualFlashTest, AProgramOnlyClearsBits) {
  const VirtualFlash flash(_system, {});
  const int mtd = Open();
  EXPECT_EQ(_system.Write(mtd, 0x10, Bytes{0x0F, 0xF0}), 2);
  EXPECT_EQ(_system.Write(mtd, 0x10, Bytes{0xF3, 0xFF}), 2);
  EXPECT_EQ(Held(mtd, 0x0F, 4), (Bytes{0xFF, 0x03, 0xF0, 0xFF}));
}

TEST_F(VirtualFlashTest, AWriteIsCutIntoProgramsOfPages) {
  VirtualFlash flash(_system, {.page = 256, .program_time = 1ms, .byte_time = 1us});
  const int mtd = Open();
  EXPECT_EQ(_system.Write(mtd, 0xF0, Bytes(0x120, 0)), 0x120);
  EXPECT_EQ(flash.Programs(), 3u);  // 16 bytes, a page, 16 bytes
  EXPECT_EQ(_system.Now(), 3 * 1ms + 0x120 * 1us);
  EXPECT_EQ(flash.BusyTime(), _system.Now());
  EXPECT_EQ(flash.Content()[0xEF], 0xFF);
  EXPECT_EQ(flash.Content()[0xF0], 0);
  EXPECT_EQ(flash.Content()[0x20F], 0);
  EXPECT_EQ(flash.Content()[0x210], 0xFF);
  EXPECT_EQ(_system.GetPower().Changes(), 3u);
}

TEST_F(VirtualFlashTest, ReadsTakeTheTimeOfTheirBytesAndAreCounted) {
  VirtualFlash flash(_system, {.byte_time = 160ns});
  const int mtd = Open();
  EXPECT_EQ(Held(mtd, 0, 1000).size(), 1000u);
  EXPECT_EQ(_system.Now(), 160us);
  EXPECT_EQ(flash.BytesRead(), 1000u);
  flash.ResetCounts();
  EXPECT_EQ(flash.BytesRead(), 0u);
}

TEST_F(VirtualFlashTest, AnEraseSetsItsBlocksAndTakesTheTimeOfEach) {
  for (const std::uint32_t block : {0x1000u, 0x10000u}) {
    VirtualFlash flash(_system, {.erase_size = block, .erase_time = 50ms});
    flash.Load(0, Bytes(4 * block, 0x00));
    const Time begin = _system.Now();
    EXPECT_EQ(_system.EraseMtd(Open(), block, 2 * block), 0);
    EXPECT_EQ(_system.Now() - begin, 100ms);
    EXPECT_EQ(flash.Erases(), 2u);
    EXPECT_EQ(flash.Content()[block - 1], 0x00);
    EXPECT_EQ(flash.Content()[block], 0xFF);
    EXPECT_EQ(flash.Content()[3 * block - 1], 0xFF);
    EXPECT_EQ(flash.Content()[3 * block], 0x00);
    _system.TakeAway("/dev/mtd0");
  }
}

TEST_F(VirtualFlashTest, AnEraseOf40SecondsLetsTimersFire) {
  const VirtualFlash flash(_system, {.erase_time = 40s});
  const int mtd = Open();
  VirtualLoop loop(_system, _system.Clock());
  struct Erase : serve::WireWork {
    explicit Erase(int descriptor) : mtd(descriptor) {}
    std::optional<Time> Step(serve::System& system) override {
      EXPECT_EQ(system.EraseMtd(mtd, 0, 0x1000), 0);
      return std::nullopt;
    }
    int mtd;
  };
  std::vector<Time> fired;
  Time done{};
  loop.Run(0, std::make_unique<Erase>(mtd), [&](auto) { done = loop.Now(); });
  for (int i = 1; i < 8; ++i) loop.CallAt(i * 5s, [&] { fired.push_back(loop.Now()); });
  loop.RunUntilIdle();
  EXPECT_EQ(fired, (std::vector<Time>{5s, 10s, 15s, 20s, 25s, 30s, 35s}));
  EXPECT_EQ(done, 40s);
}

TEST_F(VirtualFlashTest, TheStartOfAnEraseIsNotCheckedAndTheWholeBlockIsWiped) {
  VirtualFlash flash(_system, {});
  flash.Load(0, Bytes(0x3000, 0x00));
  const int mtd = Open();
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1100, 0x1000), 0);
  EXPECT_EQ(flash.Content()[0xFFF], 0x00);
  EXPECT_EQ(flash.Content()[0x1000], 0xFF);
  EXPECT_EQ(flash.Content()[0x1FFF], 0xFF);
  EXPECT_EQ(flash.Content()[0x2000], 0x00);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1000, 0x100), -EINVAL);
  EXPECT_EQ(_system.EraseMtd(mtd, 0xFF000, 0x2000), -EINVAL);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x100000, 0x1000), -EINVAL);
  EXPECT_EQ(flash.Erases(), 1u);
}

TEST_F(VirtualFlashTest, OtherChipsWipeBytesOfTheNextBlockOrRefuse) {
  using Unaligned = FlashSettings::UnalignedErase;
  VirtualFlash emulated(_system, {.unaligned_erase = Unaligned::WIPES_FROM_START});
  VirtualFlash strict(_system, {.number = 1, .unaligned_erase = Unaligned::REFUSED});
  emulated.Load(0, Bytes(0x3000, 0x00));
  EXPECT_EQ(_system.EraseMtd(Open(), 0x1100, 0x1000), 0);
  EXPECT_EQ(emulated.Content()[0x10FF], 0x00);
  EXPECT_EQ(emulated.Content()[0x1100], 0xFF);
  EXPECT_EQ(emulated.Content()[0x20FF], 0xFF);
  EXPECT_EQ(emulated.Content()[0x2100], 0x00);
  EXPECT_EQ(_system.EraseMtd(Open("/dev/mtd1"), 0x1100, 0x1000), -EINVAL);
  EXPECT_EQ(_system.EraseMtd(Open("/dev/mtd1"), 0x1000, 0x1000), 0);
}

TEST_F(VirtualFlashTest, TheEndCutsReadsAndWritesAndRefusesWritesBeyond) {
  const VirtualFlash flash(_system, {.size = 0x2000});
  const int mtd = Open();
  EXPECT_EQ(Held(mtd, 0x1FFE, 8).size(), 2u);
  EXPECT_EQ(Held(mtd, 0x2000, 8).size(), 0u);
  EXPECT_EQ(_system.Write(mtd, 0x1FFE, Bytes(8, 0)), 2);
  EXPECT_EQ(_system.Write(mtd, 0x2000, Bytes(8, 0)), -ENOSPC);
}

TEST_F(VirtualFlashTest, WhatIsProtectedIgnoresProgramsAndErasesInSilence) {
  VirtualFlash flash(_system, {});
  flash.Load(0x1000, Bytes(0x1000, 0x55));
  flash.Protect(0x1000, 0x1000);
  const int mtd = Open();
  EXPECT_EQ(_system.Write(mtd, 0x1000, Bytes(4, 0)), 4);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1000, 0x1000), 0);
  EXPECT_EQ(Held(mtd, 0x1000, 4), Bytes(4, 0x55));
  EXPECT_EQ(_system.GetPower().Changes(), 0u);
  EXPECT_EQ(_system.Write(mtd, 0xFFF, Bytes(1, 0)), 1);
  EXPECT_EQ(_system.Write(mtd, 0x2000, Bytes(1, 0)), 1);
  EXPECT_EQ(flash.Content()[0xFFF], 0);
  EXPECT_EQ(flash.Content()[0x2000], 0);
  flash.Unprotect();
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1000, 0x1000), 0);
  EXPECT_EQ(Held(mtd, 0x1000, 4), Bytes(4, 0xFF));
}

TEST_F(VirtualFlashTest, AWriteThatFailsInTheMiddleLeavesAPart) {
  VirtualFlash flash(_system, {});
  const int mtd = Open();
  flash.FailProgram(2);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes(0x300, 0)), -EIO);
  EXPECT_EQ(std::ranges::count(flash.Content(), 0), 0x180);
  EXPECT_EQ(flash.Content()[0x17F], 0);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes(0x300, 0)), 0x300);
}

TEST_F(VirtualFlashTest, TheNthProgramIsDroppedAndTheNthEraseFailsOrIsSpoilt) {
  VirtualFlash flash(_system, {});
  flash.Load(0x1000, Bytes(0x2000, 0x00));
  const int mtd = Open();
  flash.DropProgram(2);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes(0x300, 0)), 0x300);
  EXPECT_EQ(std::ranges::count(flash.Content().first(0x1000), 0), 0x200);
  EXPECT_EQ(flash.Content()[0x100], 0xFF);
  flash.FailErase(1);
  flash.SpoilErase(3);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1000, 0x1000), -EIO);
  EXPECT_EQ(flash.Content()[0x1000], 0x00);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x1000, 0x2000), 0);
  EXPECT_EQ(flash.Content()[0x1FFF], 0xFF);
  EXPECT_EQ(flash.Content()[0x27FF], 0xFF);
  EXPECT_EQ(flash.Content()[0x2800], 0x00);
  flash.FlipBit(0x2800, 7);
  EXPECT_EQ(flash.Content()[0x2800], 0x80);
}

TEST_F(VirtualFlashTest, AccessDecidesWhatIsAllowed) {
  VirtualFlash flash(_system, {});
  flash.AddPartition(1, "boot", 0, 0x1000, false);
  const int mtd = Open("/dev/mtd0", Access::READ);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes(1, 0)), -EBADF);
  EXPECT_EQ(_system.EraseMtd(mtd, 0, 0x1000), -EPERM);
  EXPECT_EQ(Held(mtd, 0, 1), Bytes{0xFF});
  EXPECT_EQ(_system.Open("/dev/mtd0ro", Access::WRITE), -EACCES);
  EXPECT_EQ(_system.Open("/dev/mtd1", Access::WRITE), -EACCES);
  EXPECT_EQ(_system.Flush(Open("/dev/mtd0", Access::WRITE)), -EINVAL);
  EXPECT_EQ(flash.Programs() + flash.Erases(), 0u);
}

TEST_F(VirtualFlashTest, APartitionHasOffsetsOfItsOwn) {
  VirtualFlash flash(_system, {});
  flash.AddPartition(1, "image", 0x2000, 0x3000);
  flash.Load(0x4000, Bytes(0x2000, 0x00));
  const int mtd = Open("/dev/mtd1");
  EXPECT_EQ(_system.Write(mtd, 0, Bytes{0x77}), 1);
  EXPECT_EQ(flash.Content()[0x2000], 0x77);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x2000, 0x1000), 0);
  EXPECT_EQ(_system.EraseMtd(mtd, 0x3000, 0x1000), -EINVAL);
  EXPECT_EQ(flash.Content()[0x4FFF], 0xFF);
  EXPECT_EQ(flash.Content()[0x5000], 0x00);
  EXPECT_EQ(_system.Write(mtd, 0x3000, Bytes{0}), -ENOSPC);
}

TEST_F(VirtualFlashTest, FactsTellNorNandAndRamApart) {
  using Kind = FlashSettings::Kind;
  const VirtualFlash nor(_system, {.erase_size = 0x10000, .erase_regions = 2});
  const VirtualFlash nand(_system, {.name = "n", .number = 1, .kind = Kind::NAND});
  const VirtualFlash ram(_system, {.name = "r", .number = 2, .kind = Kind::RAM});
  serve::MtdFacts facts;
  EXPECT_EQ(_system.GetMtdFacts(Open(), facts), 0);
  EXPECT_EQ(facts, (serve::MtdFacts{.is_nor = true,
                                    .is_bit_writable = true,
                                    .has_no_erase = false,
                                    .size = 0x100000,
                                    .erase_size = 0x10000,
                                    .write_size = 1,
                                    .erase_regions = 2}));
  EXPECT_EQ(_system.GetMtdFacts(Open("/dev/mtd1"), facts), 0);
  EXPECT_FALSE(facts.is_nor || facts.is_bit_writable || facts.has_no_erase);
  EXPECT_EQ(facts.write_size, 2048u);
  EXPECT_EQ(_system.Write(Open("/dev/mtd1"), 0, Bytes(4, 0)), -EINVAL);
  EXPECT_EQ(_system.GetMtdFacts(Open("/dev/mtd2"), facts), 0);
  EXPECT_TRUE(!facts.is_nor && facts.is_bit_writable && facts.has_no_erase);
  const int overwritten = Open("/dev/mtd2");
  EXPECT_EQ(_system.Write(overwritten, 0, Bytes{0x0F}), 1);
  EXPECT_EQ(_system.Write(overwritten, 0, Bytes{0xF0}), 1);
  EXPECT_EQ(Held(overwritten, 0, 1), Bytes{0xF0});
}

TEST_F(VirtualFlashTest, SysfsTellsOfTheChipWhatTheServerLooksFor) {
  VirtualFlash flash(_system, {.number = 3, .size = 0x200000});
  flash.AddPartition(4, "image", 0x10000, 0x20000);
  const std::vector<serve::FoundMtd> found = serve::ListMtds(_system);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].node, "/dev/mtd3");
  EXPECT_EQ(found[0].name, "pnor");
  EXPECT_EQ(found[0].type, "nor");
  EXPECT_EQ(found[0].jedec, "c2253a");
  EXPECT_EQ(found[0].path, "/sys/devices/platform/ahb/1e630000.spi/spi_master/spi1/spi1.0");
  EXPECT_EQ(found[0].size, 0x200000u);
  EXPECT_EQ(found[0].erase_size, 0x1000u);
  EXPECT_EQ(found[0].write_size, 1u);
  EXPECT_EQ(found[0].erase_regions, 0u);
  EXPECT_EQ(found[0].offset, 0u);
  EXPECT_TRUE(found[0].is_writable);
  EXPECT_EQ(found[1].name, "image");
  EXPECT_EQ(found[1].path, found[0].path);
  EXPECT_EQ(found[1].offset, 0x10000u);
}

TEST_F(VirtualFlashTest, ItsNodesAppearWhenADriverIsBound) {
  VirtualFlash flash(_system, {.is_present = false});
  EXPECT_TRUE(serve::ListMtds(_system).empty());
  EXPECT_EQ(_system.Open("/dev/mtd0", Access::READ), -ENOENT);
  flash.SetPresent(true);
  const int mtd = Open();
  EXPECT_EQ(serve::ListMtds(_system).size(), 1u);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes{0x12}), 1);
  flash.SetPresent(false);
  EXPECT_TRUE(serve::ListMtds(_system).empty());
  EXPECT_EQ(_system.Write(mtd, 0, Bytes{0x00}), -ENODEV);
  flash.SetPresent(true);
  EXPECT_EQ(Held(Open(), 0, 1), Bytes{0x12});
}

// --- Power

TEST_F(VirtualFlashTest, PowerThatGoesAfterAProgramLeavesThatOneWhole) {
  const VirtualFlash flash(_system, {});
  _system.GetPower().CutAfter(2);
  EXPECT_EQ(_system.Write(Open(), 0, Bytes(0x400, 0)), -EIO);
  EXPECT_EQ(std::ranges::count(flash.Content().first(0x200), 0), 0x200);
  EXPECT_EQ(std::ranges::count(flash.Content(), 0), 0x200);
  EXPECT_EQ(_system.GetPower().Changes(), 2u);
}

TEST_F(VirtualFlashTest, PowerThatGoesInsideAProgramTearsOneWord) {
  std::size_t torn_words = 0;
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    VirtualSystem system;
    const VirtualFlash flash(system, {});
    const int mtd = system.Open("/dev/mtd0", Access::WRITE);
    system.GetPower().CutInside(2, seed);
    EXPECT_EQ(system.Write(mtd, 0, Bytes(0x300, 0)), -EIO);
    const auto first_word = flash.Content().subspan(0x100);
    std::size_t at = 0;
    while (at < 0x100 && first_word[at] == 0) ++at;
    EXPECT_EQ(std::ranges::count(flash.Content().first(0x100), 0), 0x100);
    const std::size_t next_word = (at + 4) / 4 * 4;
    torn_words += static_cast<std::size_t>(at % 4 != 0 || first_word[at] != 0xFF);
    for (std::size_t i = next_word; i < 0x200; ++i) EXPECT_EQ(first_word[i], 0xFF) << i;
  }
  EXPECT_GT(torn_words, 25u);
}

TEST_F(VirtualFlashTest, PowerThatGoesInsideAnEraseErasesSomeCellsByTheSeed) {
  std::vector<Bytes> left;
  for (const std::uint64_t seed : {1u, 2u, 1u}) {
    VirtualSystem system;
    VirtualFlash flash(system, {});
    flash.Load(0, Bytes(0x3000, 0x00));
    const int mtd = system.Open("/dev/mtd0", Access::WRITE);
    system.GetPower().CutInside(2, seed);
    EXPECT_EQ(system.EraseMtd(mtd, 0, 0x3000), -EIO);
    const auto erased = [&](std::size_t first) {
      return std::ranges::count(flash.Content().subspan(first, 0x1000), 0xFF);
    };
    EXPECT_EQ(erased(0), 0x1000);
    EXPECT_GT(erased(0x1000), 0x400);
    EXPECT_LT(erased(0x1000), 0xC00);
    EXPECT_EQ(erased(0x2000), 0);
    left.emplace_back(flash.Content().begin(), flash.Content().end());
  }
  EXPECT_EQ(left[0], left[2]);
  EXPECT_NE(left[0], left[1]);
}

TEST_F(VirtualFlashTest, MemoriesStayAsTheyAreUntilThePowerIsBack) {
  const VirtualFlash flash(_system, {});
  const int mtd = Open();
  _system.GetPower().CutAfter(1);
  EXPECT_EQ(_system.Write(mtd, 0, Bytes{0x01}), -EIO);
  EXPECT_EQ(_system.Write(mtd, 1, Bytes{0x01}), -EIO);
  EXPECT_EQ(_system.EraseMtd(mtd, 0, 0x1000), -EIO);
  EXPECT_EQ(_system.Open("/dev/mtd0", Access::READ), -EIO);
  EXPECT_EQ(flash.Content()[0], 0x01);
  _system.PowerUp();
  const int again = Open();
  EXPECT_EQ(Held(again, 0, 2), (Bytes{0x01, 0xFF}));
  EXPECT_EQ(_system.Write(again, 1, Bytes{0x02}), 1);
  EXPECT_EQ(_system.GetPower().Changes(), 2u);
}

/// The wire of one flash writes for a second in one step; another's power goes inside that second.
TEST_F(VirtualFlashTest, AStepThatRanAheadIsUndoneFromTheMomentThePowerGoes) {
  const VirtualFlash slow(_system, {.program_time = 100ms, .byte_time = 0ns});
  const VirtualFlash other(_system, {.number = 1, .program_time = 1ms, .byte_time = 0ns});
  VirtualLoop loop(_system, _system.Clock());
  struct Write : serve::WireWork {
    Write(int descriptor, std::size_t bytes) : mtd(descriptor), size(bytes) {}
    std::optional<Time> Step(serve::System& system) override {
      system.Write(mtd, 0, Bytes(size, 0));
      return std::nullopt;
    }
    int mtd;
    std::size_t size;
  };
  const int slow_mtd = Open();
  const int other_mtd = Open("/dev/mtd1");
  _system.GetPower().CutAfter(11);  // 10 programs of the slow one, then the other's
  loop.Run(0, std::make_unique<Write>(slow_mtd, 0xA00), [](auto) {});
  loop.CallAt(250ms, [&] { loop.Run(1, std::make_unique<Write>(other_mtd, 1), [](auto) {}); });
  loop.RunUntilIdle();
  EXPECT_EQ(other.Content()[0], 0);
  // Two programs are over at 250 ms, the third is torn, the fourth has not begun.
  EXPECT_EQ(std::ranges::count(slow.Content().first(0x200), 0), 0x200);
  EXPECT_EQ(std::ranges::count(slow.Content().subspan(0x300), 0xFF), 0x100000 - 0x300);
}

}  // namespace
}  // namespace hardware
