// What fwimg check foretells, against what burns of the same images do.
#include <algorithm>

#include "fwimg/ImageCheck.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

constexpr Guid DEVICE = 0x10;

class FwimgBurnsTest : public ConsoleTest {
 protected:
  /// The errors that the check finds.
  std::set<std::string> Errors(const std::string& text) {
    std::set<std::string> kinds;
    for (const auto& problem : Problems(text)) {
      if (problem.kind->severity == fwimg::Severity::ERROR) kinds.emplace(problem.kind->word);
    }
    return kinds;
  }
  bool Finds(const std::string& text, const std::string& kind) {
    return std::ranges::any_of(Problems(text),
                               [&](const auto& problem) { return problem.kind->word == kind; });
  }

  /// Burns the image into the device; returns what ended the burn, or why the device failed.
  template <typename Rom, typename Algorithm>
  std::string Burn(const std::string& text, const auto&... flags) {
    std::string reason = "(no error)";
    OutputOf([&] {
      reason = ErrorOf([&] {
        FwImage image;
        image.Open(_folder.Write("fw.img", text).c_str(), READ);
        Rom rom(_fabric, 5);
        rom.SetAddressConvertor(image.GetAddressConvertor());
        rom.SetAccessDevices({DEVICE});
        rom.Open(rom.ServerString().c_str());
        Algorithm(rom, flags...).Go(image);
      });
    });
    return reason;
  }
  std::string BurnFlash(const std::string& text) {
    return Burn<InProcessFlash, RV52100FailsafeBurn>(text, false, false);
  }
  std::string BurnFlashWhole(const std::string& text) {
    return Burn<InProcessFlash, GenericBurn>(text);
  }

  sim::Device& AddEeproms(const std::vector<u_int32_t>& sizes) {
    sim::Device device = I2cDevice(DEVICE, 0);
    u_int8_t address = 0x50;
    for (const u_int32_t size : sizes) {
      device.chips.try_emplace(address++, sim::Chip(std::make_unique<sim::Cells>(size), 0));
    }
    return _fabric.Add(std::move(device));
  }
  DataVec Memory(u_int8_t chip, u_int32_t from, u_int32_t size) const {
    return MemoryOf(_fabric, DEVICE, chip, from, size);
  }

  common::ScratchFolder _folder;
  sim::Fabric _fabric;

 private:
  std::vector<fwimg::Problem> Problems(const std::string& text) {
    return fwimg::Check(_folder.Write("fw.img", text), SECTOR);
  }
};

/// A flash image whose second pointer sector may lie anywhere.
struct Movable {
  static constexpr u_int32_t SECOND = 0x1800;
  static constexpr u_int32_t SIZE = 0x810;  ///< of the firmware: a little more than two sectors
  u_int32_t ps1;

  static DataVec Firmware() {
    TestRng rng(1);
    return RandomBytes(rng, SIZE);
  }
  std::string Text() const {
    DataVec invariant(0x40, 0x77);
    std::ranges::copy(Hex("cb84cb84"), invariant.begin() + 0x24);
    return ::Text("DEVICE_TYPE RV52100\nPS 0 400 0\nSIGNATURE 0 408 0\nIMAGE 0 c00 0\n", std::hex,
                  "PS 1 ", ps1, " 0\nSIGNATURE 1 ", ps1 + 8, " 0\nIMAGE 1 ", SECOND, " 0\n",
                  Section("INVARIANT", 0, invariant),
                  Section("PS0", PS0, PointerSector(IMAGE0, SIZE, true)),
                  // Its CRC is right for the signature that it gets.
                  Section("PS1", ps1, PointerSector(SECOND, SIZE, true)),
                  Section("FIRMWARE", IMAGE0, Firmware()));
  }
};

TEST_F(FwimgBurnsTest, APointerSectorIsAcceptedJustWhereBothSlotsBootAfterTheirBurns) {
  unsigned accepted = 0;
  for (u_int32_t ps1 = SECTOR; ps1 <= 0x2800; ps1 += SECTOR) {
    SCOPED_TRACE(sim::HexGuid(ps1));
    const Movable image{ps1};
    _fabric = {};
    _fabric.Add(FlashDevice(DEVICE, 0x3000, SECTOR));
    // The first slot as an earlier burn has left it.
    const std::string first = FlashImage{}.Text();
    sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", first), {.slot = 0});
    const DataVec before = Memory(0, IMAGE0, 0x20);
    const auto is_whole = [&](u_int32_t ps, u_int32_t at) {
      return Memory(0, ps, 264) == PointerSector(at, Movable::SIZE, true) &&
             Memory(0, at, Movable::SIZE) == Movable::Firmware();
    };
    bool is_good = BurnFlash(image.Text()) == "(no error)" && is_whole(ps1, Movable::SECOND) &&
                   Memory(0, IMAGE0, 0x20) == before;
    is_good = is_good && BurnFlash(image.Text()) == "(no error)" && is_whole(PS0, IMAGE0) &&
              Memory(0, Movable::SECOND, Movable::SIZE) == Movable::Firmware();
    const auto errors = Errors(image.Text());
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors);
    if (is_good) ++accepted;
  }
  EXPECT_EQ(accepted, 3u);  // 0x800, and behind the image at 0x2400 and 0x2800
}

TEST_F(FwimgBurnsTest, AChunkAcrossTheEndOfADeviceIsToldJustWhereTheBurnFails) {
  unsigned failed = 0;
  for (u_int32_t end = 4; end <= 0x84; end += 4) {
    SCOPED_TRACE(end);
    const DataVec data(0x80, 0x11);
    const std::string text = Text("DEVICE_TYPE RV61100\n", std::hex, "DEVMAP ", end,
                                  " 50\nDEVMAP 100 51\n", Section("A", 0, data, "50"));
    _fabric = {};
    AddEeproms({end, 0x100});
    Burn<InProcessI2c, GenericBurn>(text);
    DataVec burnt = Memory(0x50, 0, std::min(end, 0x80u));
    const DataVec rest = Memory(0x51, 0, 0x80 - std::min(end, 0x80u));
    burnt.insert(burnt.end(), rest.begin(), rest.end());
    EXPECT_EQ(Finds(text, "chunk-crosses-device"), burnt != data);
    failed += burnt != data ? 1 : 0;
  }
  EXPECT_EQ(failed, 28u);  // of the 31 ends below 0x80, all but 0x20, 0x40 and 0x60
}

TEST_F(FwimgBurnsTest, ASectionInASlotIsDestroyedByItsBurn) {
  // In the sector that the second slot's image begins in, and in one that no slot has.
  for (const auto& [at, is_spared] : {std::pair(0x1600u, false), std::pair(0x1800u, true)}) {
    SCOPED_TRACE(sim::HexGuid(at));
    const DataVec extra(0x10, 0x33);
    // Between the pointer sectors and the image, so that it is no part of the image.
    std::string text = FlashImage{}.Text();
    text.insert(text.find("START FIRMWARE"), Section("EXTRA", at, extra));
    _fabric = {};
    _fabric.Add(FlashDevice(DEVICE, 0x2000, SECTOR));
    sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", FlashImage{}.Text()), {.slot = 0});
    auto& chip = _fabric.Find(DEVICE)->chips.at(0);
    chip.Program(at, extra);
    ASSERT_EQ(Memory(0, at, 0x10), extra);
    EXPECT_EQ(BurnFlash(text), "(no error)");
    EXPECT_EQ(Memory(0, at, 0x10) == extra, is_spared);
    EXPECT_EQ(Finds(text, "section-in-slot"), !is_spared);
    EXPECT_EQ(Finds(text, "section-not-burnt"), is_spared);
  }
}

TEST_F(FwimgBurnsTest, TheRestOfALongCommentIsBurnt) {
  const std::string text = "DEVICE_TYPE RV61100\nDEVMAP 100 50\nSTART A 0 50\n11 11 11 11\n#" +
                           std::string(1022, ' ') + "22 22 22 22\nEND A\n";
  AddEeproms({0x100});
  EXPECT_EQ((Burn<InProcessI2c, GenericBurn>(text)), "(no error)");
  EXPECT_EQ(Memory(0x50, 0, 8), Hex("11111111 22222222"));
  EXPECT_EQ(Errors(text), std::set<std::string>{"long-line-rest"});
}

TEST_F(FwimgBurnsTest, VsdAndSignatureStayAsTheImageHasThemInAGenericBurn) {
  const DataVec data(0x100, 0x44);
  const std::string text =
      "DEVICE_TYPE RV61100\nDEVMAP 200 50\nREPLACE VSD 0 50\n"
      "REPLACE SIGNATURE d8 50\n" +
      Section("A", 0, data, "50");
  AddEeproms({0x200}).vsd = DataVec(sim::VSD_SIZE, 0x99);
  EXPECT_EQ((Burn<InProcessI2c, GenericBurn>(text)), "(no error)");
  EXPECT_EQ(Memory(0x50, 0, 0x100), data);
  EXPECT_TRUE(Finds(text, "field-not-replaced"));
}

TEST_F(FwimgBurnsTest, ASignatureOfAnEepromIsLeftBlankByAFailsafeBurn) {
  AddEeproms({0x100});
  const std::string old_text =
      Text("DEVICE_TYPE RV61300\nDEVMAP 100 50\nIMAGE 0 0 50\nIMAGE 1 80 50\n",
           Section("A", 0, EepromData(1), "50"));
  sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", old_text), {.slot = 0});
  const std::string text = old_text + "REPLACE SIGNATURE 20 50\nREPLACE SIGNATURE a0 50\n";
  EXPECT_EQ((Burn<InProcessI2c, RV61300FailsafeBurn>(text, false)), "(no error)");
  EXPECT_EQ(Memory(0x50, 0x1c, 12), Hex("01010101 ffffffff 01010101"));
  EXPECT_TRUE(Finds(text, "signature-elsewhere"));
}

TEST_F(FwimgBurnsTest, WithoutSectionsAGenericBurnSucceedsAndAFailsafeOneEnds) {
  AddEeproms({0x100});
  const std::string slots = "DEVMAP 100 50\nIMAGE 0 0 50\nIMAGE 1 80 50\n";
  const DataVec blank = Memory(0x50, 0, 0x100);
  EXPECT_EQ((Burn<InProcessI2c, GenericBurn>("DEVICE_TYPE RV61100\n" + slots)), "(no error)");
  // A slot that is valid, so that the burn goes on to the image.
  const std::string old_text =
      "DEVICE_TYPE RV61300\n" + slots + Section("A", 0, EepromData(1), "50");
  sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", old_text), {.slot = 0});
  const DataVec before = Memory(0x50, 0, 0x100);
  EXPECT_NE(before, blank);
  EXPECT_NE((Burn<InProcessI2c, RV61300FailsafeBurn>("DEVICE_TYPE RV61300\n" + slots, false)),
            "(no error)");
  EXPECT_EQ(Memory(0x50, 0, 0x100), before);
}

}  // namespace
