// What fwimg check foretells, against what burns of the same images do.
#include <algorithm>

#include "common/Text.h"
#include "device/Boot.h"
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
    _console = OutputOf([&] {
      reason = ErrorOf([&] {
        FwImage image;
        image.Open(_folder.Write("fw.img", text).c_str(), READ);
        Rom rom(_fabric, _log2_chunk);
        rom.SetAddressConvertor(image.GetAddressConvertor());
        rom.SetAccessDevices({DEVICE});
        rom.Open(rom.ServerString().c_str());
        Algorithm(rom, flags...).Go(image);
      });
    });
    return reason;
  }
  std::string BurnFlash(const std::string& text, bool may_change_invariant_sector = false) {
    return Burn<InProcessFlash, RV52100FailsafeBurn>(text, may_change_invariant_sector, false);
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

  /// A flash whose first slot holds this image.
  void AddFlash(const std::string& old_text = FlashImage{}.Text(), u_int32_t size = FLASH_SIZE) {
    _fabric = {};
    _fabric.Add(FlashDevice(DEVICE, size, SECTOR));
    sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", old_text), {.slot = 0});
  }
  bool SlotOfTheFlashBoots(u_int32_t slot) const {
    const device::BootLayout layout{.records = {PS0, PS1}, .sector_size = SECTOR};
    return device::SlotBoots(layout, slot, Memory(0, 0, FLASH_SIZE));
  }

  common::ScratchFolder _folder;
  sim::Fabric _fabric;
  unsigned _log2_chunk = 5;
  std::string _console;  ///< of the last burn

 private:
  std::vector<fwimg::Problem> Problems(const std::string& text) {
    return fwimg::Check(_folder.Write("fw.img", text),
                        {.sector_size = SECTOR, .log2_chunk = _log2_chunk});
  }
};

/// Random images show something only where a tenth at least is accepted, and a tenth is not.
void ExpectBothKinds(unsigned accepted, unsigned tries) {
  EXPECT_GT(accepted, tries / 10);
  EXPECT_LT(accepted, tries - tries / 10);
}

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

TEST_F(FwimgBurnsTest, WithOtherChunksTheEndOfADeviceIsToldJustWhereTheBurnFails) {
  unsigned failed = 0;
  for (_log2_chunk = 4; _log2_chunk <= 8; ++_log2_chunk) {
    for (u_int32_t end = 8; end <= 0x208; end += 0x18) {
      SCOPED_TRACE(Text("-m ", _log2_chunk, ", end ", end));
      const DataVec data(0x200, 0x11);
      const std::string text = Text("DEVICE_TYPE RV61100\n", std::hex, "DEVMAP ", end,
                                    " 50\nDEVMAP 400 51\n", Section("A", 0, data, "50"));
      _fabric = {};
      AddEeproms({end, 0x400});
      Burn<InProcessI2c, GenericBurn>(text);
      DataVec burnt = Memory(0x50, 0, std::min(end, 0x200u));
      burnt << Memory(0x51, 0, 0x200 - std::min(end, 0x200u));
      EXPECT_EQ(!Errors(text).empty(), burnt != data);
      failed += burnt != data ? 1 : 0;
    }
  }
  EXPECT_GT(failed, 50u);
  EXPECT_LT(failed, 100u);
}

TEST_F(FwimgBurnsTest, ABootRecordIsAcceptedJustWhereTheBurnCanReadIt) {
  unsigned accepted = 0;
  _log2_chunk = 4;
  for (u_int32_t end = 4; end <= 0xD0; end += 4) {
    SCOPED_TRACE(end);
    const auto place = [end](u_int32_t addr) {
      return addr < end ? Text(std::hex, addr, " 50") : Text(std::hex, addr - end, " 51");
    };
    const std::string text =
        Text("DEVICE_TYPE RV61300\n", std::hex, "DEVMAP ", end, " 50\nDEVMAP 200 51\nIMAGE 0 ",
             place(0x48), "\nIMAGE 1 ", place(0x88), "\n");
    const auto section = [&](u_int8_t content) {
      return Section("A", end > 0x48 ? 0x48 : 0x48 - end, EepromData(content),
                     end > 0x48 ? "50" : "51");
    };
    _fabric = {};
    AddEeproms({end, 0x200});
    sim::FillFromFile(_fabric, DEVICE, _folder.Write("old.img", text + section(1)), {.slot = 0});
    const std::string reason = Burn<InProcessI2c, RV61300FailsafeBurn>(text + section(2), false);
    DataVec burnt = Memory(0x50, 0, end);
    burnt << Memory(0x51, 0, 0x100);
    DataVec slots = EepromData(2);
    slots << EepromData(2);
    const bool is_good =
        reason == "(no error)" && std::equal(slots.begin(), slots.end(), burnt.begin() + 0x48);
    const auto errors = Errors(text + section(2));
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors) << reason;
    if (is_good) ++accepted;
    if (end == 0x90) {
      EXPECT_EQ(errors, std::set<std::string>{"record-crosses-device"});
    }
  }
  EXPECT_GT(accepted, 20u);
}

TEST_F(FwimgBurnsTest, AnInvariantSectorIsAcceptedJustWhereASecondBurnFindsItAsItIs) {
  unsigned accepted = 0;
  const unsigned tries = 300;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    // The first 0x40 bytes, cut into pieces some of which are left out.
    DataVec bytes = RandomBytes(rng, 0x40);
    std::ranges::copy(Hex("cb84cb84"), bytes.begin() + 0x24);
    std::vector<u_int32_t> cuts{0};
    while (cuts.back() < 0x40) {
      const u_int32_t next = cuts.back() + 4 * static_cast<u_int32_t>(1 + rng() % 24);
      cuts.push_back(std::min(next, 0x40u));
    }
    std::string marks;
    const std::size_t piece = rng() % (cuts.size() - 1);
    const u_int32_t from = cuts[piece];
    const u_int32_t words = (cuts[piece + 1] - from) / 4;
    if (rng() % 4 == 0) {
      const auto at = from + 4 * static_cast<u_int32_t>(rng() % words);
      marks = Text("REPLACE SIGNATURE ", std::hex, at, " 0\n");
      if (rng() % 2 == 0) std::fill_n(bytes.begin() + at, 4, u_int8_t{0xFF});
    } else if (words > 1 && rng() % 4 != 0) {
      const auto size = 4 * static_cast<u_int32_t>(1 + rng() % (words - 1));
      marks =
          Text("REPLACE CRC ", std::hex, from, " 0 ", from + size - 4, " 0 ", from + size, " 0\n");
      const DataVec covered(bytes.begin() + from, bytes.begin() + from + size);
      const auto kind = rng() % 3;  // right, blank, and what it is
      if (kind == 0) std::ranges::copy(Number(ReferenceCrc(covered)), bytes.begin() + from + size);
      if (kind == 1) std::fill_n(bytes.begin() + from + size, 4, u_int8_t{0xFF});
    }
    std::string sections;
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
      if (i != piece && rng() % 8 == 0) continue;
      sections += Section("PART" + std::to_string(i), cuts[i],
                          DataVec(bytes.begin() + cuts[i], bytes.begin() + cuts[i + 1]));
    }
    std::string text = FlashImage{}.Text();
    const std::size_t start = text.find("START INVARIANT");
    text.replace(start, text.find("START PS0") - start, marks + sections);
    AddFlash();
    const std::string reason = BurnFlash(text, true);
    const std::string second = BurnFlash(text, true);
    const bool is_good = reason == "(no error)" && second == "(no error)" &&
                         _console.find("Changes in invariant sector") == std::string::npos;
    const auto errors = Errors(text);
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors) << reason << "\n"
                                       << second << "\n"
                                       << text;
    if (is_good) ++accepted;
  }
  ExpectBothKinds(accepted, tries);
}

TEST_F(FwimgBurnsTest, WithAnyChunksAFlashIsAcceptedJustWhereItIsBurntWhole) {
  unsigned accepted = 0;
  const unsigned tries = 400;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    _log2_chunk = 4 + static_cast<unsigned>(rng() % 10);
    std::string text = "DEVICE_TYPE RV52100\n";
    std::vector<std::pair<u_int32_t, DataVec>> sections;
    auto at = static_cast<u_int32_t>(rng() % 3 * SECTOR);
    for (unsigned i = 0; i < 2 + rng() % 3; ++i) {
      const DataVec data = RandomBytes(rng, 4 * (1 + rng() % 0x240));
      sections.emplace_back(at, data);
      text += Section("S" + std::to_string(i), at, data);
      at += static_cast<u_int32_t>(data.size());
      // The next one right behind, a little later, or where a sector begins.
      const auto kind = rng() % 4;
      if (kind == 1) at += 4 * static_cast<u_int32_t>(rng() % 0x180);
      if (kind >= 2) at = (at + SECTOR - 1) / SECTOR * SECTOR;
    }
    if (rng() % 4 == 0) std::swap(sections[0], sections[1]);
    text = "DEVICE_TYPE RV52100\n";
    for (std::size_t i = 0; i < sections.size(); ++i) {
      text += Section("S" + std::to_string(i), sections[i].first, sections[i].second);
    }
    _fabric = {};
    _fabric.Add(FlashDevice(DEVICE, 0x8000, SECTOR));
    _fabric.Find(DEVICE)->chips.at(0).Load(0, DataVec(0x8000, 0));
    bool is_good = BurnFlashWhole(text) == "(no error)";
    for (const auto& [addr, data] : sections) {
      is_good = is_good && Memory(0, addr, static_cast<u_int32_t>(data.size())) == data;
    }
    const bool is_accepted = !Finds(text, "erase-unaligned") && !Finds(text, "erase-spoils");
    EXPECT_EQ(is_accepted, is_good) << "-m " << _log2_chunk;
    if (is_good) ++accepted;
  }
  ExpectBothKinds(accepted, tries);
}

TEST_F(FwimgBurnsTest, SignaturesUnderCrcsAreAcceptedJustWhereTheCrcsFitWhatIsBurnt) {
  unsigned accepted = 0;
  const unsigned tries = 200;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    const auto word = [&](u_int32_t first, u_int32_t count) {
      return first + 4 * static_cast<u_int32_t>(rng() % count);
    };
    std::string text = FlashImage{}.Text();
    // In the record, behind it, or in the firmware; at the same place in both slots.
    const bool in_record = rng() % 2 == 0;
    const u_int32_t signature = in_record ? word(12, 63) : word(0, 6);
    const std::array<u_int32_t, 2> bases =
        in_record ? std::array{PS0, PS1} : std::array{IMAGE0, IMAGE1};
    const u_int32_t size = word(4, 5);  // of the firmware, that a CRC covers
    const bool has_crc = rng() % 2 == 0;
    if (!in_record && signature == size) continue;  // the CRC's own place
    for (const u_int32_t base : bases)
      text += Text("REPLACE SIGNATURE ", std::hex, base + signature, " 0\n");
    for (const u_int32_t base : {IMAGE0, IMAGE1}) {
      if (has_crc)
        text += Text("REPLACE CRC ", std::hex, base, " 0 ", base + size - 4, " 0 ", base + size,
                     " 0\n");
    }
    AddFlash();
    bool is_good = BurnFlash(text) == "(no error)" && SlotOfTheFlashBoots(1);
    if (has_crc) {
      is_good =
          is_good && Memory(0, IMAGE1 + size, 4) == Number(ReferenceCrc(Memory(0, IMAGE1, size)));
    }
    const auto errors = Errors(text);
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors) << text;
    if (is_good) ++accepted;
  }
  ExpectBothKinds(accepted, tries);
}

TEST_F(FwimgBurnsTest, ARecordIsToldJustWhereItsBurnLeavesOneThatDoesNotBootTheImage) {
  unsigned good = 0;
  const unsigned tries = 400;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    // The CRC in the file is right for the signature that the record gets.
    std::string text = Text("DEVICE_TYPE RV52100\nPS 0 400 0\nPS 1 800 0\nSIGNATURE 0 408 0\n",
                            "SIGNATURE 1 808 0\nIMAGE 0 c00 0\nIMAGE 1 1400 0\n");
    const bool has_crc = rng() % 2 == 0;
    if (has_crc) text += "REPLACE CRC 400 0 500 0 504 0\nREPLACE CRC 800 0 900 0 904 0\n";
    // One more mark, at the same place of both records.
    const u_int32_t at = 4 * static_cast<u_int32_t>(rng() % 66);
    const u_int32_t size = 4 * static_cast<u_int32_t>(1 + rng() % 65);
    const char* const fields[] = {"GUID", "SYSGUID", "GUIDS", "VSD", "SIGNATURE"};
    const auto kind = rng() % 7;
    for (const u_int32_t base : {PS0, PS1}) {
      if (kind < 5) {
        text += Text("REPLACE ", fields[kind], " ", std::hex, base + at, " 0\n");
      } else if (kind == 5) {
        text +=
            Text("REPLACE CRC ", std::hex, base, " 0 ", base + size - 4, " 0 ", base + at, " 0\n");
      }
    }
    text += Section("PS0", PS0, PointerSector(IMAGE0, 0x20, true)) +
            Section("PS1", PS1, PointerSector(IMAGE1, 0x20, true)) +
            Section("FIRMWARE", IMAGE0, DataVec(0x20, 0x11));
    AddFlash();
    bool is_good = true;
    bool is_over = true;
    for (const u_int32_t slot : {1u, 0u}) {
      is_over = is_over && BurnFlash(text) == "(no error)";
      const DataVec record = Memory(0, slot == 0 ? PS0 : PS1, 264);
      is_good =
          is_good && is_over && SlotOfTheFlashBoots(slot) &&
          DataVec(record.begin(), record.begin() + 4) == Number(slot == 0 ? IMAGE0 : IMAGE1) &&
          DataVec(record.begin() + 4, record.begin() + 8) == Number(0x20);
    }
    const auto errors = Errors(text);
    EXPECT_TRUE(is_good || !errors.empty()) << text;
    const bool is_told = errors.contains("ps-crc") || errors.contains("ps-record") ||
                         errors.contains("ps-size") || Finds(text, "ps-size-large");
    if (is_over && !errors.contains("field-overlap")) {
      EXPECT_EQ(is_told, !is_good) << testing::PrintToString(errors) << text;
    }
    if (is_good) ++good;
  }
  EXPECT_GT(good, tries / 10);
  EXPECT_LT(good, tries - tries / 10);
}

TEST_F(FwimgBurnsTest, AnImageInPiecesIsAcceptedJustWhereBothSlotsGetAllOfThem) {
  unsigned accepted = 0;
  const unsigned tries = 400;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    const DataVec bytes = EepromData(static_cast<u_int8_t>(rng()));
    std::vector<std::string> pieces;
    for (u_int32_t at = 0; at < bytes.size();) {
      const auto size = std::min<u_int32_t>(4 * static_cast<u_int32_t>(1 + rng() % 8),
                                            static_cast<u_int32_t>(bytes.size()) - at);
      pieces.push_back(Section("PART" + std::to_string(at), at,
                               DataVec(bytes.begin() + at, bytes.begin() + at + size), "50"));
      at += size;
    }
    if (rng() % 2 == 0) std::swap(pieces.front(), pieces[rng() % pieces.size()]);
    const std::string slots = "DEVICE_TYPE RV61300\nDEVMAP 100 50\nIMAGE 0 0 50\nIMAGE 1 80 50\n";
    std::string text = slots;
    for (const std::string& piece : pieces) text += piece;
    _fabric = {};
    AddEeproms({0x100});
    sim::FillFromFile(_fabric, DEVICE,
                      _folder.Write("old.img", slots + Section("A", 0, EepromData(1), "50")),
                      {.slot = 0});
    bool is_good = Burn<InProcessI2c, RV61300FailsafeBurn>(text, false) == "(no error)";
    for (const u_int32_t slot : {0u, 0x80u}) {
      is_good = is_good && Memory(0x50, slot, static_cast<u_int32_t>(bytes.size())) == bytes;
    }
    const auto errors = Errors(text);
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors) << text;
    if (is_good) ++accepted;
  }
  ExpectBothKinds(accepted, tries);
}

TEST_F(FwimgBurnsTest, ADeviceMapOfAFlashIsAcceptedJustWhereItsBurnGoesWell) {
  constexpr auto SIZES = std::to_array<u_int32_t>({0, 0x20, 0x400, 0x1400, 0x1420, 0x2000});
  unsigned accepted = 0;
  unsigned seen = 0;
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    std::vector<std::pair<u_int32_t, u_int32_t>> map;  // chip and size
    for (unsigned i = 0; i < 1 + rng() % 3; ++i) {
      map.emplace_back(rng() % 4 == 0 ? 0x50 : 0, SIZES.at(rng() % SIZES.size()));
    }
    // A location by chip and offset, if the map has one that means the address.
    const auto place = [&](u_int32_t addr) -> std::string {
      u_int32_t from = 0;
      std::set<u_int32_t> chips;
      for (const auto& [chip, size] : map) {
        if (chips.insert(chip).second && addr >= from && addr - from < size) {
          return Text(std::hex, addr - from, " ", chip);
        }
        from += size;
      }
      return "";
    };
    std::string text;
    for (const auto& [chip, size] : map) text += Text("DEVMAP ", std::hex, size, " ", chip, "\n");
    bool can_be_said = true;
    const std::string plain = FlashImage{}.Text();
    for (const std::string_view line : common::Lines(plain)) {
      auto words = common::Words(line);
      const bool has_locations = words[0] == "PS" || words[0] == "IMAGE" || words[0] == "START" ||
                                 words[0] == "SIGNATURE" || words[0] == "REPLACE";
      std::string changed(words[0]);
      for (std::size_t i = 1; i < words.size(); ++i) {
        if (has_locations && i >= 2 && i % 2 == 0) {
          const std::string where =
              place(static_cast<u_int32_t>(std::stoul(std::string(words[i]), nullptr, 16)));
          can_be_said = can_be_said && !where.empty();
          changed += " " + where;
        } else if (!has_locations || i < 2) {
          changed += " " + std::string(words[i]);
        }
      }
      text += changed + "\n";
    }
    if (!can_be_said) continue;
    ++seen;
    AddFlash();
    const std::string reason = BurnFlash(text);
    const bool is_good = reason == "(no error)" && SlotOfTheFlashBoots(1) &&
                         Memory(0, IMAGE1, 0x20) == DataVec(0x20, 0x11);
    const auto errors = Errors(text);
    EXPECT_EQ(errors.empty(), is_good) << testing::PrintToString(errors) << reason << "\n" << text;
    if (is_good) ++accepted;
  }
  EXPECT_GT(accepted, 5u);
  EXPECT_GT(seen, accepted + 5);
}

TEST_F(FwimgBurnsTest, WhetherAPlainBurnLeavesAFlashThatBootsIsTold) {
  unsigned booted = 0;
  for (unsigned signatures = 0; signatures < 4; ++signatures) {
    for (const bool has_crcs : {false, true}) {
      SCOPED_TRACE(Text(signatures, has_crcs));
      std::string text = FlashImage{}.Text();
      const auto record = [&](const char* name, u_int32_t addr, u_int32_t image, bool is_signed) {
        const std::size_t start = text.find(Text("START ", name));
        const std::size_t end = text.find(Text("END ", name));
        text.replace(start, text.find('\n', end) + 1 - start,
                     Section(name, addr, PointerSector(image, 0x20, is_signed)));
      };
      record("PS0", PS0, IMAGE0, signatures % 2 != 0);
      record("PS1", PS1, IMAGE1, signatures / 2 != 0);
      if (!has_crcs) {
        text.erase(text.find("REPLACE CRC"),
                   text.find("START INVARIANT") - text.find("REPLACE CRC"));
      }
      _fabric = {};
      _fabric.Add(FlashDevice(DEVICE, FLASH_SIZE, SECTOR));
      EXPECT_EQ(BurnFlashWhole(text), "(no error)");
      const bool boots = SlotOfTheFlashBoots(0) || SlotOfTheFlashBoots(1);
      EXPECT_EQ(Finds(text, "none-shipped-signed"), !boots);
      if (boots) ++booted;
    }
  }
  EXPECT_EQ(booted, 6u);
}

TEST_F(FwimgBurnsTest, ACopyInTheSecondSlotIsAcceptedJustWhereABurnOfTheSlotLeavesItAsItIs) {
  unsigned accepted = 0;
  const unsigned tries = 100;
  for (unsigned seed = 1; seed <= tries; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TestRng rng(seed);
    DataVec copy(0x20, 0x11);
    copy.resize(4 * (1 + rng() % 10), 0xFF);  // some end before the image, some behind it
    if (rng() % 3 == 0) copy[rng() % copy.size()] ^= 0x40;
    const std::string text = FlashImage{}.Text() + Section("COPY", IMAGE1, copy);
    _fabric = {};
    _fabric.Add(FlashDevice(DEVICE, FLASH_SIZE, SECTOR));
    ASSERT_EQ(BurnFlashWhole(text), "(no error)");
    const auto size = static_cast<u_int32_t>(copy.size());
    ASSERT_EQ(Memory(0, IMAGE1, size), copy);
    ASSERT_EQ(BurnFlash(text), "(no error)");
    const bool is_spared = Memory(0, IMAGE1, size) == copy;
    EXPECT_EQ(Finds(text, "section-in-slot"), !is_spared) << text;
    if (is_spared) ++accepted;
  }
  ExpectBothKinds(accepted, tries);
}

TEST_F(FwimgBurnsTest, AnAddressThatMeansUnsetIsToldForEachDirectiveThatABurnNeeds) {
  for (const char* directive :
       {"IMAGE 0", "IMAGE 1", "PS 0", "PS 1", "SIGNATURE 0", "SIGNATURE 1"}) {
    SCOPED_TRACE(directive);
    std::string text = FlashImage{}.Text();
    const std::size_t start = text.find(directive);
    text.replace(start, text.find('\n', start) - start, Text(directive, " ffffffff 0"));
    AddFlash();
    EXPECT_NE(BurnFlash(text), "(no error)");
    EXPECT_TRUE(Errors(text).contains("slot-unset"));
  }
}

}  // namespace
