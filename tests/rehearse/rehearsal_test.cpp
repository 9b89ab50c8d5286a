// The boot rule of the simulated devices, and rehearsals of the built fwpush.
#include "rehearse/Rehearsal.h"

#include <nlohmann/json.hpp>
#include <numeric>
#include <random>

#include "rehearse/Burner.h"
#include "sim/BootReport.h"
#include "sim/FabricFile.h"
#include "sim/Filling.h"
#include "tests/support/Harness.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

using rehearse::CutKind;
using rehearse::Interruption;

class RehearsalTest : public ConsoleTest {
 protected:
  static sim::Device Eeprom() {
    sim::Device device = I2cDevice(0x10, 0);
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(0x100), 0));
    return device;
  }

  /// Writes a fabric file with one device for each set of contents.
  std::string FabricFile(const std::string& memory, const std::vector<std::string>& contents) {
    std::string text;
    for (std::size_t i = 0; i < contents.size(); ++i) {
      text += Text("[[device]]\nnode_guid = \"0x", i + 1, "0\"\nport_guids = [\"0x", i + 1,
                   "1\"]\n", memory, "\n", contents[i]);
    }
    return _folder.Write("fabric.toml", text);
  }
  std::string FlashFabric(const std::string& contents) {
    return FabricFile(Text("[device.flash]\nsize = ", FLASH_SIZE, "\nsector_size = ", SECTOR),
                      {contents});
  }
  static std::string Holds(const std::string& image, int slot, bool is_valid = true) {
    return Text("[[device.contents]]\nimage = \"", image, "\"\nslot = ", slot,
                "\nvalid = ", is_valid ? "true" : "false", "\n");
  }

  rehearse::RehearsalOptions Options(const std::string& fabric_file, std::size_t recoveries = 0) {
    rehearse::RehearsalOptions options;
    options.fabric_file = fabric_file;
    options.image_file = _folder / "new.img";
    options.fwpush = FwpushProgram();
    options.recoveries = recoveries;
    return options;
  }

  /// Images of this kind differ behind their boot records only: no mix of two records adds up.
  static std::string EepromImageWithOneRecord(u_int8_t content) {
    DataVec data = EepromData(0x01);
    std::fill(data.begin() + 16, data.end(), content);
    return EepromText(data);
  }

  /// A burner that runs `command` before burns of which the number is as `test` asks.
  std::string BurnerThat(const std::string& test, const std::string& command) {
    const std::string count = _folder / "count";
    const std::string burner = _folder.Write(
        "burner", Text("#!/bin/sh\necho >>", count, "\nif [ \"$(wc -l <", count, ")\" ", test,
                       " ]; then ", command, "; fi\nexec ", FwpushProgram(), " \"$@\"\n"));
    std::filesystem::permissions(burner, std::filesystem::perms::owner_all);
    return burner;
  }

  void NewImage(const FlashImage& image = {.content = 0x22}) {
    _folder.Write("new.img", image.Text());
  }
  void OldImage(const FlashImage& image = {}) { _folder.Write("old.img", image.Text()); }

  common::ScratchFolder _folder;
};

class BootTest : public RehearsalTest {
 protected:
  BootTest() {
    OldImage();
    NewImage();
    const std::string file = FlashFabric(Holds("old.img", 0));
    sim::LoadFabric(file, {}, _fabric);
  }

  void Poke(u_int32_t addr, const DataVec& bytes) {
    _fabric.Find(0x10)->chips.at(0).Load(addr, bytes);
  }
  std::string Report() const { return sim::BootReport(_fabric, {_folder / "new.img"}); }

  static std::string Line(const std::string& text) { return "0x0000000000000010 " + text + "\n"; }

  sim::Fabric _fabric;
};

TEST_F(BootTest, OldImageBootsAsLongAsItIsWhole) {
  EXPECT_EQ(Report(), Line("boots old: slot 0 old, slot 1 invalid"));
  Poke(IMAGE0 + 0x1F, Hex("10"));
  EXPECT_EQ(Report(), Line("boots BROKEN: slot 0 broken, slot 1 invalid"));
  Poke(IMAGE0 + 0x1F, Hex("11"));
  EXPECT_EQ(Report(), Line("boots old: slot 0 old, slot 1 invalid"));
}

TEST_F(BootTest, SignatureAndCrcMustBothBeRight) {
  Poke(PS0 + 8, Hex("cb84cb80"));
  EXPECT_EQ(Report(), Line("DOES NOT BOOT: slot 0 invalid, slot 1 invalid"));
  Poke(PS0 + 8, Hex("cb84cb84"));
  Poke(PS0 + 100, Hex("5b"));
  EXPECT_EQ(Report(), Line("DOES NOT BOOT: slot 0 invalid, slot 1 invalid"));
  Poke(PS0 + 100, Hex("5a"));
  EXPECT_EQ(Report(), Line("boots old: slot 0 old, slot 1 invalid"));
}

TEST_F(BootTest, PointerToAnotherPlaceIsNoWholeImage) {
  const DataVec record = PointerSector(IMAGE0 + 4, 0x20, true);
  Poke(PS0, record);
  EXPECT_EQ(Report(), Line("boots BROKEN: slot 0 broken, slot 1 invalid"));
}

TEST_F(BootTest, NewImageInEitherSlotIsTold) {
  sim::FillFromFile(_fabric, 0x10, _folder / "new.img", {.slot = 1, .is_valid = true});
  EXPECT_EQ(Report(), Line("boots old or new: slot 0 old, slot 1 new"));
  Poke(PS0 + 8, Hex("00000000"));
  EXPECT_EQ(Report(), Line("boots new: slot 0 invalid, slot 1 new"));
}

TEST_F(BootTest, SecondImageThatWasMovedIsAsWholeAsItWas) {
  sim::FillFromFile(_fabric, 0x10, _folder / "old.img", {.slot = 1, .is_valid = true});
  Poke(PS1 + 8, Hex("00000000"));
  // By hand: the second slot's pointer sector with the address of the copy.
  Poke(PS0, PointerSector(3 * SECTOR, 0x20, true));
  EXPECT_EQ(Report(), Line("boots old: slot 0 old, slot 1 invalid"));
}

TEST_F(BootTest, TornInvariantSectorBootsNothing) {
  Poke(0x30, Hex("76"));
  EXPECT_EQ(Report(), Line("DOES NOT BOOT: slot 0 old, slot 1 invalid, invariant sector broken"));
}

TEST_F(BootTest, DeviceWithoutKnownImagesIsNotJudged) {
  sim::Fabric fabric;
  fabric.Add(FlashDevice(0x10));
  EXPECT_EQ(sim::BootReport(fabric, {}), Line("not judged: no known image; name one with --image"));
}

TEST_F(BootTest, ImageThatIsNotKnownIsNotJudged) {
  sim::FillFromFile(_fabric, 0x10, _folder / "new.img", {.slot = 1, .is_valid = true});
  EXPECT_EQ(sim::BootReport(_fabric, {}),
            Line("not judged: a slot holds an unknown image; name it with --image"));
}

TEST_F(BootTest, ImagesThatKeepTheirRecordsElsewhereAreNotMixed) {
  std::string text = FlashImage().Text();
  text.replace(text.find("PS 1 800"), 8, "PS 1 1c00");
  _folder.Write("new.img", text);
  EXPECT_THAT(Report(),
              testing::MatchesRegex("0x0000000000000010 not judged: .*old.img places its slots at "
                                    "other addresses than the image being judged\n"));
}

TEST_F(RehearsalTest, BootRecordsSumAndMarkTellAnEepromsImages) {
  _folder.Write("new.img", EepromImage(0x01));
  sim::Fabric fabric;
  fabric.Add(Eeprom());
  sim::FillFromFile(fabric, 0x10, _folder / "new.img", {.slot = 0, .is_valid = true});
  sim::FillFromFile(fabric, 0x10, _folder / "new.img", {.slot = 1, .is_valid = true});
  const auto report = [&] { return sim::BootReport(fabric, {_folder / "new.img"}); };
  const auto poke = [&](u_int32_t addr, u_int8_t byte) {
    fabric.Find(0x10)->chips.at(0).Load(addr, std::span(&byte, 1));
  };
  EXPECT_EQ(report(), "0x0000000000000010 boots new: slot 0 new, slot 1 new\n");
  // The mark makes the first record invalid whatever its sum, and the second not.
  poke(7, 1);
  poke(15, static_cast<u_int8_t>(0xAB - 4 * 0x01 - 1));
  EXPECT_EQ(report(), "0x0000000000000010 boots new: slot 0 invalid, slot 1 new\n");
  poke(0x80 + 7, 1);
  poke(0x80 + 15, static_cast<u_int8_t>(0xAB - 4 * 0x01 - 1));
  EXPECT_EQ(report(), "0x0000000000000010 boots BROKEN: slot 0 invalid, slot 1 broken\n");
  poke(0x80 + 15, 0);
  EXPECT_EQ(report(), "0x0000000000000010 DOES NOT BOOT: slot 0 invalid, slot 1 invalid\n");
}

TEST_F(RehearsalTest, EveryWordAndEraseOfAFailsafeBurnIsAPointAndAllOfThemBoot) {
  OldImage();
  NewImage();
  const rehearse::RehearsalReport report =
      rehearse::Rehearse(Options(FlashFabric(Holds("old.img", 0)), 20));
  EXPECT_EQ(report.algorithm, "RV52100FailsafeBurn");
  // Second signature cleared: 1 word. Image: 8 words. Pointer sector: 66 words, then its CRC.
  // Second signature set, first one cleared: 2 words.
  const std::size_t words = 1 + 8 + 66 + 1 + 2;
  EXPECT_EQ(report.points.at(CutKind::AFTER_WORD), words);
  EXPECT_EQ(report.points.at(CutKind::TORN_WORD), words);
  EXPECT_EQ(report.points.at(CutKind::TORN_ERASE), 2u);
  EXPECT_EQ(report.points.at(CutKind::AFTER_ERASE), 2u);
  EXPECT_EQ(report.Points(), 2 * words + 4);
  EXPECT_EQ(report.unbootable, 0u);
  // New from the moment that its signature is whole: that word, and the next one twice.
  EXPECT_EQ(report.boot_new, 3u);
  EXPECT_EQ(report.boot_old, 2 * words + 4 - 3);
  EXPECT_EQ(report.recoveries.at(Interruption::POWER), 12u);
  EXPECT_EQ(report.recoveries.at(Interruption::KILLED), 4u);
  EXPECT_EQ(report.recoveries.at(Interruption::DROPPED), 4u);
  EXPECT_EQ(report.unrecovered, 0u);
  EXPECT_TRUE(report.IsWell());
}

TEST_F(RehearsalTest, BurnThatIsNotFailsafeIsFoundOut) {
  OldImage();
  NewImage();
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)), 10);
  options.extra_args = {"-n"};
  const rehearse::RehearsalReport report = rehearse::Rehearse(options);
  EXPECT_EQ(report.algorithm, "GenericBurn");
  EXPECT_GT(report.unbootable, 0u);
  EXPECT_FALSE(report.IsWell());
  ASSERT_FALSE(report.exceptions.empty());
  EXPECT_EQ(report.exceptions.front().step, "invariant sector at 0x0");
}

TEST_F(RehearsalTest, ExceptionIsReplayedByItsPoint) {
  OldImage({.invariant = 0x78});
  NewImage();
  const std::string fabric = FlashFabric(Holds("old.img", 0));
  const rehearse::RehearsalReport report = rehearse::Rehearse(Options(fabric));
  ASSERT_FALSE(report.exceptions.empty());
  const rehearse::RehearsalException& first = report.exceptions.front();
  ASSERT_TRUE(first.first.has_value());
  EXPECT_EQ(Describe(*first.first), "0");  // the torn erase, the first change of all
  EXPECT_EQ(first.command, "erase");
  EXPECT_EQ(first.step, "invariant sector at 0x0");
  EXPECT_EQ(first.state, "DOES NOT BOOT: slot 0 old, slot 1 invalid, invariant sector broken");
  EXPECT_EQ(first.reason, "the invariant sector was being rewritten; the device has only one");

  rehearse::RehearsalOptions again = Options(fabric);
  again.at = first.first;
  const rehearse::RehearsalReport replayed = rehearse::Rehearse(again);
  EXPECT_EQ(replayed.Points(), 1u);
  ASSERT_EQ(replayed.exceptions.size(), 1u);
  EXPECT_EQ(replayed.exceptions.front().state, first.state);
  again.at = rehearse::InterruptionPoint{Interruption::POWER, report.Points()};
  EXPECT_THROW(rehearse::Rehearse(again), std::runtime_error);
}

TEST_F(RehearsalTest, SeveralDevicesAreEachJudgedByTheirOwnLog) {
  _folder.Write("old.img", EepromImageWithOneRecord(0x01));
  _folder.Write("new.img", EepromImageWithOneRecord(0x02));
  const std::string both = Holds("old.img", 0) + Holds("old.img", 1);
  const std::string first = Holds("old.img", 0) + Holds("old.img", 1, false);
  const std::string second = Holds("old.img", 0, false) + Holds("old.img", 1);
  const rehearse::RehearsalReport report = rehearse::Rehearse(
      Options(FabricFile("chip = [{ address = 0, size = 0x100 }]", {both, first, second}), 20));
  EXPECT_EQ(report.algorithm, "RV61300FailsafeBurn");
  // Each device: two slots, each of 16 words and the first one once more.
  EXPECT_EQ(report.Points(), 3u * 2 * 2 * 17);
  EXPECT_EQ(report.unbootable, 0u);
  EXPECT_EQ(report.unrecovered, 0u);
  EXPECT_TRUE(report.IsWell());
}

TEST_F(RehearsalTest, TornBootRecordOfARecoveryIsReplayedByItsPointAndSeed) {
  _folder.Write("old.img", EepromImage(0x01));
  _folder.Write("new.img", EepromImage(0x02));
  rehearse::RehearsalOptions options = Options(FabricFile(
      "chip = [{ address = 0, size = 0x100 }]", {Holds("old.img", 0) + Holds("old.img", 1)}));
  const rehearse::RehearsalReport report = rehearse::Rehearse(options);
  unsigned replayed = 0;
  for (const rehearse::RehearsalException& exception : report.exceptions) {
    if (exception.during != rehearse::Burning::RECOVERY) continue;
    ASSERT_TRUE(exception.first && exception.first->second_seed);
    EXPECT_EQ(exception.seed, std::nullopt);
    options.at = rehearse::ParseInterruptionPoint(Describe(*exception.first));
    ASSERT_TRUE(options.at.has_value());
    const rehearse::RehearsalReport again = rehearse::Rehearse(options);
    ASSERT_EQ(again.exceptions.size(), 1u);
    EXPECT_EQ(again.exceptions.front().state, exception.state);
    EXPECT_EQ(Describe(again.exceptions.front().first.value()), Describe(*exception.first));
    ++replayed;
  }
  EXPECT_GE(replayed, 1u);
}

TEST_F(RehearsalTest, DeviceThatDidNotBootBeforeIsTold) {
  _folder.Write("old.img", EepromImageWithOneRecord(0x01));
  _folder.Write("new.img", EepromImageWithOneRecord(0x02));
  const rehearse::RehearsalReport report = rehearse::Rehearse(Options(
      FabricFile("chip = [{ address = 0, size = 0x100 }]",
                 {Holds("old.img", 0) + Holds("old.img", 1, false), Holds("old.img", 0, false)}),
      5));
  EXPECT_EQ(report.unbootable_at_start, 1u);
  ASSERT_EQ(report.exceptions.size(), 1u);
  EXPECT_EQ(report.exceptions.front().device, 0x20u);
  EXPECT_EQ(report.exceptions.front().step, "before the burn");
  EXPECT_EQ(report.exceptions.front().reason, "the device did not boot before the burn");
}

TEST_F(RehearsalTest, TornBootRecordThatAddsUpIsFoundOutWhateverTheSeed) {
  // Bytes 0 to 2 go from 1 to 2, byte 3 from 1 to 12: torn, each of bytes 0 to 2 is 0 to 3, and
  // byte 3 any part of 13. The record adds up where the sum of the four is 4, as that of the old
  // word is. The last word of the record is torn in one bit only, and the others stay as they are.
  _folder.Write("old.img", EepromImage(0x01));
  _folder.Write("new.img", EepromImage(0x02));
  std::uint64_t sums = 0;
  for (unsigned word = 0; word < 0x1000000; ++word) {
    const unsigned bytes[] = {word & 0xFF, word >> 8 & 0xFF, word >> 16};
    if (bytes[0] > 3 || bytes[1] > 3 || bytes[2] > 3) continue;
    for (const unsigned last : {0u, 1u, 4u, 5u, 8u, 9u, 12u, 13u}) {
      if (bytes[0] + bytes[1] + bytes[2] + last == 4) ++sums;
    }
  }
  const std::string fabric = FabricFile("chip = [{ address = 0, size = 0x100 }]",
                                        {Holds("old.img", 0) + Holds("old.img", 1)});
  for (const unsigned seed : {1u, 2u, 3u}) {
    rehearse::RehearsalOptions options = Options(fabric);
    options.seed = seed;
    options.has_next = false;
    const rehearse::RehearsalReport report = rehearse::Rehearse(options);
    EXPECT_FALSE(report.IsWell());
    EXPECT_EQ(report.torn_records.valid, 2 * (sums - 1));
    ASSERT_EQ(report.exceptions.size(), 2u);  // one for each slot
    const rehearse::RehearsalException& first = report.exceptions.front();
    EXPECT_EQ(first.step, Text("boot record of slot 0, torn: ", sums - 1, " of ", 64 * 8 - 2,
                               " mixes of old and new bits add up"));
    EXPECT_EQ(first.state, "boots old or BROKEN: slot 0 broken, slot 1 old");
    EXPECT_EQ(first.reason, "a mix of an old and a new boot record happens to have a valid sum");
    // The point and the seed that it names show it.
    ASSERT_TRUE(first.seed.has_value());
    options.seed = *first.seed;
    options.at = first.first;
    const rehearse::RehearsalReport replayed = rehearse::Rehearse(options);
    ASSERT_EQ(replayed.exceptions.size(), 1u);
    EXPECT_EQ(replayed.exceptions.front().state, first.state);
  }
}

TEST_F(RehearsalTest, BurnThatFailsByItselfIsNoRehearsal) {
  OldImage();
  NewImage();
  try {
    rehearse::Rehearse(Options(FlashFabric(Holds("old.img", 0, false))));
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), testing::StartsWith("the burn fails without any interruption:\n"));
    EXPECT_THAT(error.what(), testing::HasSubstr("Both images are invalid."));
  }
}

TEST_F(RehearsalTest, SlotThatIsNotWholeBeforeIsNotTakenForWhole) {
  OldImage();
  NewImage();
  _folder.Write("spot.bin", "spot");
  const std::string raw = Text("[[device.contents]]\nraw = \"spot.bin\"\nat = ", IMAGE0 + 8, "\n");
  const rehearse::RehearsalReport report =
      rehearse::Rehearse(Options(FlashFabric(Holds("old.img", 0) + Holds("old.img", 1) + raw)));
  // The broken first image stays marked valid to the end, where the new second one boots alone.
  EXPECT_EQ(report.boot_old, 0u);
  EXPECT_GT(report.unbootable, 0u);
  ASSERT_FALSE(report.exceptions.empty());
  EXPECT_EQ(report.exceptions.front().reason,
            "a slot was marked valid before the burn, and its image was not whole");
}

TEST_F(RehearsalTest, CopyOfAPartOfTheSecondImageIsFoundOutAndExplained) {
  // The record of the old second image gives 0x200 bytes; the image has 0x600. It is in the way of
  // the new one, which moves it.
  OldImage({.size = 0x600, .image1 = 0x1800, .missing = 0x400});
  NewImage({.content = 0x22, .size = 0xE00, .image1 = 0x1C00});
  const std::string fabric =
      FabricFile(Text("[device.flash]\nsize = ", 2 * FLASH_SIZE, "\nsector_size = ", SECTOR),
                 {Holds("old.img", 1)});
  const rehearse::RehearsalReport report = rehearse::Rehearse(Options(fabric));
  EXPECT_FALSE(report.IsWell());
  EXPECT_GT(report.unbootable, 0u);  // from the end of the move to that of the burn
  ASSERT_FALSE(report.exceptions.empty());
  for (const rehearse::RehearsalException& exception : report.exceptions) {
    EXPECT_EQ(exception.device, 0x10u);
    EXPECT_EQ(exception.reason,
              "the second image was moved by its record, and only a part of it was copied: the "
              "record of slot 1 gives 0x200 bytes, and its image has 0x600");
  }

  // The same device as the move leaves it, as the simulator reports it.
  const DataVec record = PointerSector(3 * SECTOR, 0x200, true);
  sim::Fabric moved;
  sim::LoadFabric(fabric, {}, moved);
  sim::Chip& flash = moved.Find(0x10)->chips.at(0);
  flash.Load(3 * SECTOR, DataVec(0x200, 0x11));
  flash.Load(PS0, record);
  flash.Load(PS1 + 8, Hex("00000000"));
  EXPECT_EQ(sim::BootReport(moved, {_folder / "new.img"}),
            "0x0000000000000010 boots BROKEN: slot 0 broken, slot 1 invalid; the record of slot 0 "
            "gives 0x200 bytes, and its image has 0x600\n");

  // Where the record is right, nothing is wrong.
  OldImage({.size = 0x600, .image1 = 0x1800});
  EXPECT_TRUE(rehearse::Rehearse(Options(fabric, 10)).IsWell());
}

/// A device of which a fabric file gives the bytes only, or images of which some lie elsewhere.
class PresentImageTest : public RehearsalTest {
 protected:
  std::string LargeFlash(const std::string& contents) {
    return FabricFile(Text("[device.flash]\nsize = ", 2 * FLASH_SIZE, "\nsector_size = ", SECTOR),
                      {contents});
  }
  /// Contents that hold what the device of `contents` does, without the names of its images.
  std::string RawOf(const std::string& contents) {
    sim::Fabric fabric;
    sim::LoadFabric(LargeFlash(contents), {}, fabric);
    const auto bytes = fabric.Find(0x10)->chips.at(0).Bytes();
    _folder.Write("dump.bin", std::string(bytes.begin(), bytes.end()));
    return "[[device.contents]]\nraw = \"dump.bin\"\n";
  }
  /// An image that keeps all its parts where no other one does.
  static std::string ElsewhereImage() {
    const FlashImage image{.content = 0x33, .size = 0x20, .image1 = 0x3C00, .image0 = 0x3800};
    std::string text = image.Text();
    const auto move = [&text](const std::string& from, const std::string& to) {
      for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
      }
    };
    move(" 400 ", " 3000 ");
    move(" 408 ", " 3008 ");
    move(" 500 ", " 3100 ");
    move(" 504 ", " 3104 ");
    move(" 800 ", " 3400 ");
    move(" 808 ", " 3408 ");
    move(" 900 ", " 3500 ");
    move(" 904 ", " 3504 ");
    return text;
  }
  rehearse::RehearsalReport RehearsalOf(const std::string& contents) {
    rehearse::RehearsalOptions options = Options(LargeFlash(contents));
    options.has_next = false;  // what is known of the old images is the same there
    return rehearse::Rehearse(options);
  }
  /// The slots of the only device of which the report says that only records tell of them.
  static std::vector<device::PresentImage> KnownByRecord(const rehearse::RehearsalReport& report) {
    if (report.known_by_record.empty()) return {};
    EXPECT_EQ(report.known_by_record.size(), 1u);
    EXPECT_EQ(report.known_by_record.front().device, 0x10u);
    return report.known_by_record.front().images;
  }
  /// What a report finds: where, in which state, why.
  static std::vector<std::string> Findings(const rehearse::RehearsalReport& report) {
    std::vector<std::string> findings;
    for (const rehearse::RehearsalException& exception : report.exceptions) {
      findings.push_back(Text(exception.first ? Describe(*exception.first) : "", " ",
                              exception.points, " ", exception.step, " ", exception.state, " ",
                              exception.reason));
    }
    return findings;
  }
};

TEST_F(PresentImageTest, LengthThatOnlyARecordTellsIsNotTakenForCertain) {
  // As above: what is moved is less than the image.
  OldImage({.size = 0x600, .image1 = 0x1800, .missing = 0x400});
  NewImage({.content = 0x22, .size = 0xE00, .image1 = 0x1C00});
  _folder.Write("elsewhere.img", ElsewhereImage());
  const std::string old_image = Holds("old.img", 1);
  const std::string elsewhere = Holds("elsewhere.img", 1);
  const rehearse::RehearsalReport truth = RehearsalOf(old_image);
  EXPECT_FALSE(truth.IsWell());
  EXPECT_TRUE(truth.known_by_record.empty());

  const rehearse::RehearsalReport raw = RehearsalOf(RawOf(old_image));
  EXPECT_TRUE(raw.IsWell());
  EXPECT_EQ(KnownByRecord(raw),
            (std::vector<device::PresentImage>{{.slot = 1, .record_size = 0x200}}));

  for (const std::string& contents : {old_image + elsewhere, elsewhere + old_image}) {
    const rehearse::RehearsalReport report = RehearsalOf(contents);
    EXPECT_EQ(Findings(report), Findings(truth));
    EXPECT_TRUE(report.known_by_record.empty());
  }
}

TEST_F(PresentImageTest, DamagedImageOfANamedFileIsNotTakenAsItIs) {
  OldImage();
  NewImage();
  _folder.Write("elsewhere.img", ElsewhereImage());
  _folder.Write("spot.bin", "spot");
  const std::string spot = Text("[[device.contents]]\nraw = \"spot.bin\"\nat = ", IMAGE0 + 8, "\n");
  const rehearse::RehearsalReport report =
      RehearsalOf(Holds("old.img", 0) + Holds("old.img", 1) + spot + Holds("elsewhere.img", 1));
  EXPECT_FALSE(report.IsWell());
  EXPECT_TRUE(report.known_by_record.empty());
}

TEST_F(PresentImageTest, NewImageInADumpIsKnownByItsFile) {
  NewImage();
  const rehearse::RehearsalReport report = RehearsalOf(RawOf(Holds("new.img", 1)));
  EXPECT_TRUE(report.IsWell());
  EXPECT_TRUE(report.known_by_record.empty());
}

/// The truth is the image that was filled in: what is said to be certain must hold for it.
TEST_F(PresentImageTest, NothingIsCertainThatTheImageOnTheDeviceDoesNotBear) {
  const unsigned seed = 11;
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  const auto any_of = [&](std::initializer_list<u_int32_t> values) {
    return values.begin()[rng() % values.size()];
  };
  _folder.Write("elsewhere.img", ElsewhereImage());
  const std::string elsewhere = Holds("elsewhere.img", 1);
  unsigned safe = 0;
  unsigned unsafe = 0;
  unsigned not_certain = 0;  // said to be safe as far as a record tells, and is not
  for (int i = 0; i < 40; ++i) {
    SCOPED_TRACE(i);
    const u_int32_t size = any_of({0x200, 0x600});
    OldImage({.size = size,
              .image1 = any_of({0x1400, 0x1800}),
              .missing = size * any_of({0, 1, 1, 2}) / 4});
    NewImage({.content = 0x22,
              .size = any_of({0x20, 0xE00, 0xE00}),
              .image1 = any_of({0x1C00, 0x2400})});
    const std::string slots[] = {Holds("old.img", 1), Holds("old.img", 1), Holds("old.img", 0),
                                 Holds("old.img", 0) + Holds("old.img", 1)};
    const std::string& contents = slots[rng() % std::size(slots)];
    const rehearse::RehearsalReport truth = RehearsalOf(contents);
    ++(truth.IsWell() ? safe : unsafe);

    const bool is_first = rng() % 2 == 0;
    const rehearse::RehearsalReport two =
        RehearsalOf(is_first ? elsewhere + contents : contents + elsewhere);
    ASSERT_EQ(Findings(two), Findings(truth));
    ASSERT_TRUE(two.known_by_record.empty());

    const std::string dump = RawOf(contents);
    const rehearse::RehearsalReport raw = RehearsalOf(rng() % 2 == 0 ? dump : dump + elsewhere);
    std::size_t valid = 0;
    for (std::size_t at = 0; (at = contents.find("old.img", at)) != std::string::npos; ++at) {
      ++valid;
    }
    ASSERT_EQ(KnownByRecord(raw).size(), valid);
    if (raw.IsWell() && !truth.IsWell()) ++not_certain;
    // What the bytes show is true.
    if (!raw.IsWell()) {
      ASSERT_FALSE(truth.IsWell());
    }
  }
  EXPECT_GE(safe, 6u);
  EXPECT_GE(unsafe, 3u);
  EXPECT_GE(not_certain, 2u);
}

TEST_F(RehearsalTest, FirstEepromImageThatReachesIntoTheSecondSlotIsFoundOutAndExplained) {
  // The second slot of the old image begins behind that of the new one.
  DataVec data = EepromData(0x01);
  data.resize(0x90, 0x01);
  _folder.Write("old.img",
                "DEVICE_TYPE RV61300\nIMAGE 0 0 0\nIMAGE 1 a0 0\n" + Section("A", 0, data));
  _folder.Write("new.img", EepromImageWithOneRecord(0x02));
  const auto rehearse = [&](const std::string& contents) {
    return rehearse::Rehearse(
        Options(FabricFile("chip = [{ address = 0, size = 0x100 }]", {contents})));
  };
  const rehearse::RehearsalReport report = rehearse(Holds("old.img", 0));
  EXPECT_FALSE(report.IsWell());
  ASSERT_FALSE(report.exceptions.empty());
  EXPECT_EQ(report.exceptions.front().reason, "the old first image reaches into the second slot");

  // From its bytes alone nobody can know.
  sim::Fabric fabric;
  sim::LoadFabric(_folder / "fabric.toml", {}, fabric);
  const auto bytes = fabric.Find(0x10)->chips.at(0).Bytes();
  _folder.Write("dump.bin", std::string(bytes.begin(), bytes.end()));
  const rehearse::RehearsalReport raw =
      rehearse("[[device.contents]]\nraw = \"dump.bin\"\nchip = 0\n");
  EXPECT_TRUE(raw.IsWell());
  ASSERT_EQ(raw.known_by_record.size(), 1u);
  EXPECT_EQ(raw.known_by_record.front().images, (std::vector<device::PresentImage>{{.slot = 0}}));
}

TEST_F(RehearsalTest, BurntSlotThatIsNotValidIsToldAsThat) {
  // The device's GUID stands where the record has the address of the image.
  OldImage();
  std::string text = FlashImage{.content = 0x22}.Text();
  text.insert(text.find("REPLACE CRC"),
              Text(std::hex, "REPLACE GUID ", PS0, " 0\nREPLACE GUID ", PS1, " 0\n"));
  _folder.Write("new.img", text);
  for (const int slot : {0, 1}) {
    const std::string fabric = _folder.Write(
        "fabric.toml", Text("[[device]]\nnode_guid = \"0xaa55000000000010\"\nport_guids = "
                            "[\"0x11\"]\n[device.flash]\nsize = ",
                            FLASH_SIZE, "\nsector_size = ", SECTOR, "\n", Holds("old.img", slot)));
    const rehearse::RehearsalReport report = rehearse::Rehearse(Options(fabric));
    EXPECT_EQ(report.unbootable, 2u);
    EXPECT_EQ(report.may_not_boot, 1u);
    ASSERT_EQ(report.exceptions.size(), 3u);
    for (const rehearse::RehearsalException& exception : report.exceptions) {
      EXPECT_EQ(exception.reason, "the burnt slot does not hold a valid new image");
    }
  }
}

TEST_F(RehearsalTest, NextBurnThatBricksIsFoundOut) {
  // The first slot of the new image is 0x1000 to 0x1600, which is behind 3 sectors, and its second
  // slot begins at 0x1400. This burn writes the second slot, and is safe. The next one writes the
  // first, into the only image that boots.
  OldImage();
  NewImage({.content = 0x22, .size = 0x600, .image1 = 0x1400, .image0 = 0x1000});
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  const rehearse::RehearsalReport report = rehearse::Rehearse(options);
  EXPECT_EQ(report.unbootable + report.may_not_boot, 0u);
  EXPECT_FALSE(report.IsWell());
  EXPECT_EQ(report.next.burns, 1u);
  EXPECT_GT(report.next.unsafe, 0u);
  const auto in_next = std::ranges::find_if(report.exceptions, [](const auto& exception) {
    return exception.during == rehearse::Burning::NEXT && exception.first;
  });
  ASSERT_NE(in_next, report.exceptions.end());
  EXPECT_THAT(Describe(*in_next->first), testing::StartsWith("next:"));
  EXPECT_EQ(in_next->step, "next burn, image slot 1 at 0x1400");
  EXPECT_EQ(in_next->state, "boots BROKEN: slot 0 invalid, slot 1 broken");
  EXPECT_EQ(in_next->reason, "the new first image reaches into the second slot");

  options.at = in_next->first;
  const rehearse::RehearsalReport replayed = rehearse::Rehearse(options);
  EXPECT_EQ(replayed.next.points, 1u);
  EXPECT_EQ(replayed.next.unsafe, 1u);
  EXPECT_EQ(replayed.interrupted.burns, 0u);

  options.at.reset();
  options.has_next = false;
  const rehearse::RehearsalReport without = rehearse::Rehearse(options);
  EXPECT_TRUE(without.IsWell());
  EXPECT_EQ(without.next.burns, 0u);
  EXPECT_EQ(without.not_tried, "--no-next");
}

TEST_F(RehearsalTest, SecondInterruptionThatBricksIsFoundOut) {
  OldImage();
  NewImage();
  // A wrong burner: when it recovers, it first burns without regard to what boots. That ends well,
  // unless it is interrupted, too. The first two burns are this one and the next one.
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  options.fwpush = BurnerThat("-gt 2", FwpushProgram() + " \"$@\" -n || exit");
  const rehearse::RehearsalReport report = rehearse::Rehearse(options);
  EXPECT_EQ(report.unbootable + report.may_not_boot, 0u);
  EXPECT_EQ(report.next.unsafe, 0u);
  EXPECT_GT(report.interrupted.unsafe, 0u);
  EXPECT_EQ(report.interrupted.unrecovered, 0u);
  EXPECT_FALSE(report.IsWell());
  ASSERT_FALSE(report.exceptions.empty());
  const rehearse::RehearsalException& first = report.exceptions.front();
  EXPECT_EQ(first.during, rehearse::Burning::RECOVERY);
  ASSERT_TRUE(first.first.has_value());
  ASSERT_TRUE(first.first->second.has_value());
  EXPECT_EQ(first.reason, "the burn is not failsafe: it overwrites the image that boots");

  // Alone, at its point. This burn and the recovery are the only two.
  _folder.Write("count", "\n");
  options.at = first.first;
  const rehearse::RehearsalReport replayed = rehearse::Rehearse(options);
  EXPECT_EQ(replayed.Points(), 0u);
  EXPECT_EQ(replayed.interrupted.points, 1u);
  EXPECT_EQ(replayed.interrupted.unsafe, 1u);

  _folder.Write("count", "");
  options.at.reset();
  options.has_next = false;
  EXPECT_TRUE(rehearse::Rehearse(options).IsWell());
}

TEST_F(RehearsalTest, NextBurnThatFailsIsAnException) {
  OldImage();
  NewImage();
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  options.fwpush = BurnerThat("-eq 2", "echo no more; exit 1");
  const rehearse::RehearsalReport report = rehearse::Rehearse(options);
  ASSERT_EQ(report.exceptions.size(), 1u);
  EXPECT_EQ(report.exceptions.front().during, rehearse::Burning::NEXT);
  EXPECT_EQ(report.exceptions.front().reason, "the burn fails: no more");
}

TEST_F(RehearsalTest, FurtherBurnsAreLeftOutWhereThisOneIsNotSafeInItself) {
  OldImage();
  NewImage();
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  options.extra_args = {"-n"};
  EXPECT_EQ(rehearse::Rehearse(options).not_tried, "the burn is not failsafe");
}

/// What a rehearsal finds safe is burnt with the simulator's own power cuts, three times in a row
/// and at random, and must boot a whole image each time.
TEST_F(RehearsalTest, WhatIsSaidToBeSafeSurvivesRandomCuts) {
  const unsigned seed = 5;
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  const auto any_of = [&](std::initializer_list<u_int32_t> values) {
    return values.begin()[rng() % values.size()];
  };
  unsigned safe = 0;
  unsigned unsafe = 0;
  unsigned cuts = 0;
  // Under the sanitizers all of them take a minute.
  const int fabrics = IS_SANITIZED ? 6 : 24;
  for (int i = 0; i < fabrics; ++i) {
    SCOPED_TRACE(i);
    const std::string slots[] = {Holds("old.img", 0), Holds("old.img", 1),
                                 Holds("old.img", 0) + Holds("old.img", 1)};
    const std::string& start = slots[rng() % std::size(slots)];
    std::string fabric;
    if (rng() % 3 == 0) {
      const bool is_same = rng() % 2 == 0;
      _folder.Write("old.img", is_same ? EepromImageWithOneRecord(1) : EepromImage(1));
      _folder.Write("new.img", is_same ? EepromImageWithOneRecord(2) : EepromImage(2));
      fabric = FabricFile("chip = [{ address = 0, size = 0x100 }]", {start});
    } else {
      const u_int32_t old_size = any_of({0x20, 0x300, 0x700});
      OldImage({.size = old_size, .image1 = any_of({0x1000, 0x1400, 0x1800})});
      NewImage({.content = 0x22,
                .size = any_of({0x20, 0x300, 0x700}),
                .image1 = any_of({0x1400, 0x1800}),
                .image0 = any_of({IMAGE0, IMAGE0, 0x1000})});
      fabric = FlashFabric(start);
    }
    const rehearse::RehearsalOptions options = Options(fabric);
    const rehearse::RehearsalReport report = rehearse::Rehearse(options);
    ++(report.IsWell() ? safe : unsafe);
    if (!report.IsWell()) continue;
    const rehearse::Burner burner(options, {0x10});
    for (int chain = 0; chain < 6; ++chain) {
      sim::Fabric devices;
      sim::LoadFabric(fabric, {}, devices);
      std::string history;
      for (int burn = 0; burn < 3; ++burn) {
        sim::Fault cut;
        cut.kind = sim::Fault::CUT;
        cut.command = rng() % 4 == 0 ? "Erase" : "Write";
        cut.nth = 1 + static_cast<u_int32_t>(rng() % (report.writes + 1));
        cut.seed = static_cast<u_int32_t>(rng());
        history += Text(cut.command, " ", cut.nth, " seed ", cut.seed, ", ");
        devices.faults.Add(cut);
        std::atomic<std::size_t> requests{0};
        burner.Burn(devices, requests);
        devices.faults = {};
        sim::Device& device = *devices.Find(0x10);
        cuts += device.has_power ? 0 : 1;
        device.has_power = true;
        ASSERT_THAT(sim::BootReport(devices, {_folder / "new.img"}),
                    testing::MatchesRegex("0x0000000000000010 boots (old|new|old or new): .*\n"))
            << history;
      }
    }
  }
  // Of 24 fabrics; of the first of them, too.
  EXPECT_GE(safe, IS_SANITIZED ? 1u : 6u);
  EXPECT_GE(unsafe, IS_SANITIZED ? 1u : 3u);
  EXPECT_GE(cuts, IS_SANITIZED ? 10u : 50u);
}

TEST_F(RehearsalTest, DeviceNamedByTwoGuidsIsOneDevice) {
  OldImage();
  NewImage();
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  options.guids = {0x10, 0x11};
  EXPECT_EQ(rehearse::Rehearse(options).devices, 1u);
}

TEST_F(RehearsalTest, InterruptionPointsAreNamedAndFoundAgain) {
  for (const std::string text :
       {"0", "1234", "killed:28", "dropped:1", "next:7", "12+34", "12+34@5"}) {
    ASSERT_TRUE(rehearse::ParseInterruptionPoint(text).has_value()) << text;
    EXPECT_EQ(Describe(*rehearse::ParseInterruptionPoint(text)), text);
  }
  for (const std::string text :
       {"", "-1", "killed:", "lost:1", "1x", "99999999999999999999", "next:", "next:killed:1",
        "killed:next:1", "1+", "+1", "1+2+3", "1@2", "1+2@", "1+2@x", "next:1+2", "killed:1+2"}) {
    EXPECT_FALSE(rehearse::ParseInterruptionPoint(text).has_value()) << text;
  }
}

TEST_F(RehearsalTest, KilledBurnerIsReplayedAtItsRequest) {
  OldImage();
  NewImage();
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  for (const Interruption kind : {Interruption::KILLED, Interruption::DROPPED}) {
    options.at = rehearse::InterruptionPoint{kind, 12};
    const rehearse::RehearsalReport report = rehearse::Rehearse(options);
    EXPECT_EQ(report.Points(), 0u);
    EXPECT_EQ(report.recoveries.at(kind), 1u);
    EXPECT_TRUE(report.IsWell());
    options.at->place = report.requests + 1;
    EXPECT_THROW(rehearse::Rehearse(options), std::runtime_error);
  }
}

TEST_F(RehearsalTest, ImagesThatNoRehearsalFitsAreRefused) {
  const auto refusal_of = [](const rehearse::RehearsalOptions& options) -> std::string {
    try {
      rehearse::Rehearse(options);
    } catch (const sim::JudgeError& error) {
      return error.what();
    }
    return "(no error)";
  };
  OldImage();
  NewImage();
  const std::string fabric = FlashFabric(Holds("old.img", 0));
  _folder.Write("new.img", "DEVICE_TYPE RV61100\n" + Section("A", 0, DataVec(16)));
  EXPECT_EQ(refusal_of(Options(fabric)),
            (_folder / "new.img") + " is for a device without two image slots");
  // A device map that ends before the slots.
  _folder.Write("new.img", "DEVMAP 200 0\n" + FlashImage{.content = 0x22}.Text());
  EXPECT_EQ(refusal_of(Options(fabric)),
            "The image's slots lie past the 512 bytes of its device map");
}

TEST_F(RehearsalTest, BurnerThatLeavesAChildBehindIsNotWaitedFor) {
  OldImage();
  NewImage();
  const std::string burner =
      _folder.Write("burner", "#!/bin/sh\nsleep 10 &\nexec " + FwpushProgram() + " \"$@\"\n");
  std::filesystem::permissions(burner, std::filesystem::perms::owner_all);
  rehearse::RehearsalOptions options = Options(FlashFabric(Holds("old.img", 0)));
  options.fwpush = burner;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(rehearse::Rehearse(options).IsWell());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

class RehearseProgramTest : public RehearsalTest {
 protected:
  Outcome Run(std::vector<std::string> words) {
    words.insert(words.begin(), {RehearseProgram(), _folder / "fabric.toml", "-f",
                                 _folder / "new.img", "--fwpush", FwpushProgram()});
    return RunProgram(words);
  }
};

TEST_F(RehearseProgramTest, StatusTellsWhetherAllInterruptionsAreSurvived) {
  OldImage();
  NewImage();
  FlashFabric(Holds("old.img", 0));
  const Outcome good = Run({"--recover", "10", "--jobs", "2", "--json", _folder / "report.json"});
  EXPECT_EQ(good.status, 0) << good.errors;
  EXPECT_THAT(good.output, testing::HasSubstr("rehearsal: RV52100FailsafeBurn, 1 device(s)\n"));
  std::ifstream file(_folder / "report.json");
  const nlohmann::json report = nlohmann::json::parse(file);
  EXPECT_EQ(report["version"], 1);
  EXPECT_EQ(report["points"]["after_word"], 78);
  EXPECT_EQ(report["unbootable"], 0);
  EXPECT_EQ(report["recoveries"]["power"], 6);
  EXPECT_TRUE(report["exceptions"].empty());
  EXPECT_EQ(report["not_tried"], "");
  EXPECT_EQ(report["next_burn"]["points"], 160);
  const nlohmann::json again = report["interrupted_again"];
  EXPECT_GE(again["burns"], 4);
  EXPECT_GE(again["points"], 4 * 150);  // each recovery writes a slot, as this burn does
  EXPECT_THAT(
      good.output,
      testing::EndsWith(Text(
          "\n  tried: power lost at 160 points of this burn, 160 of the next one and ",
          again["points"], " of ", again["burns"],
          " recoveries;\n    the burner killed 2 times, the connection dropped 2 times;\n"
          "    torn words and erases in one way each, by --seed 1\n"
          "  no interruption that was tried leaves a device that does not boot a whole image\n")));
  EXPECT_EQ(report["interrupted_again"]["recoveries"], report["interrupted_again"]["burns"]);

  const Outcome no_next = Run({"--recover", "0", "--no-next"});
  EXPECT_EQ(no_next.status, 0) << no_next.errors;
  EXPECT_THAT(no_next.output,
              testing::HasSubstr(
                  "  not tried         the next burn, and a second interruption: --no-next\n"));
  EXPECT_THAT(no_next.output,
              testing::HasSubstr("  tried: power lost at 160 points of this burn;\n"));

  OldImage({.invariant = 0x78});
  const Outcome bad = Run({"--recover", "0"});
  EXPECT_EQ(bad.status, 1) << bad.errors;
  EXPECT_THAT(bad.output, testing::HasSubstr("point 0 and "));
  EXPECT_THAT(bad.output, testing::HasSubstr("the device has only one"));
  EXPECT_THAT(bad.output, testing::HasSubstr("NOT FAILSAFE"));
}

TEST_F(RehearseProgramTest, WhatOnlyRecordsTellIsSaidSo) {
  OldImage();
  NewImage();
  const std::string fabric = FlashFabric(Holds("old.img", 0) + Holds("old.img", 1));
  sim::Fabric device;
  sim::LoadFabric(fabric, {}, device);
  const auto bytes = device.Find(0x10)->chips.at(0).Bytes();
  _folder.Write("dump.bin", std::string(bytes.begin(), bytes.end()));
  FlashFabric("[[device.contents]]\nraw = \"dump.bin\"\n");
  const Outcome outcome = Run({"--recover", "5", "--json", _folder / "report.json"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  for (const int slot : {0, 1}) {
    EXPECT_THAT(
        outcome.output,
        testing::HasSubstr(Text("\n  known by record   0x0000000000000010, slot ", slot,
                                ", which no image file explains: its record gives 0x20 bytes\n")));
  }
  EXPECT_THAT(outcome.output, testing::Not(testing::HasSubstr("boot a whole image")));
  EXPECT_THAT(
      outcome.output,
      testing::EndsWith(
          "\n  no interruption that was tried leaves a device that does not boot;\n"
          "    an old image that it may boot is whole as far as the records of slots 0 and 1 "
          "give its size\n"));
  std::ifstream file(_folder / "report.json");
  const nlohmann::json known = {
      {{"device", "0x0000000000000010"},
       {"slots", {{{"slot", 0}, {"record_size", 0x20}}, {{"slot", 1}, {"record_size", 0x20}}}}}};
  EXPECT_EQ(nlohmann::json::parse(file)["known_by_record"], known);
}

TEST_F(RehearseProgramTest, TornRecordsAreReportedWithPointsAndSeeds) {
  _folder.Write("old.img", EepromImage(0x01));
  _folder.Write("new.img", EepromImage(0x02));
  FabricFile("chip = [{ address = 0, size = 0x100 }]", {Holds("old.img", 0) + Holds("old.img", 1)});
  const Outcome outcome = Run({"--recover", "0", "--json", _folder / "report.json"});
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_THAT(outcome.output,
              testing::ContainsRegex("\n  torn boot records [0-9]+ words: [0-9]+ of "
                                     "[0-9]+ mixes of old and new bits add up by "
                                     "chance, about 1 in [0-9]+ torn words\n"));
  EXPECT_THAT(outcome.output, testing::ContainsRegex("point [0-9]+ \\(with --seed [0-9]+\\)"));
  EXPECT_THAT(outcome.output, testing::Not(testing::HasSubstr("no interruption")));
  std::ifstream file(_folder / "report.json");
  const nlohmann::json report = nlohmann::json::parse(file);
  EXPECT_GT(report["torn_records"]["valid"], 0);
  bool is_in_recovery = false;
  for (const nlohmann::json& exception : report["exceptions"]) {
    if (exception["during"] == "recovery") {
      is_in_recovery = true;
      EXPECT_THAT(exception["at"].get<std::string>(), testing::ContainsRegex("[+][0-9]+@[0-9]+$"));
    }
  }
  EXPECT_TRUE(is_in_recovery);
}

TEST_F(RehearseProgramTest, WhatItCannotRehearseEndsItWithTwo) {
  OldImage();
  NewImage();
  FlashFabric(Holds("old.img", 0));
  EXPECT_EQ(Run({"-g", "77"}).status, 2);
  EXPECT_EQ(Run({"--at", "160"}).status, 2);
  EXPECT_EQ(Run({"--at", "killed:1000"}).status, 2);
  const Outcome outcome = RunProgram({RehearseProgram(), _folder / "fabric.toml", "-f",
                                      _folder / "new.img", "--fwpush", _folder / "none"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, testing::HasSubstr("can't run "));
  EXPECT_EQ(Run({"--json", _folder / "none/report.json"}).status, 2);
  _folder.Write("fabric.toml", "nonsense");
  EXPECT_EQ(Run({}).status, 2);
}

TEST_F(RehearseProgramTest, PointThatNobodyLooksAtIsAnError) {
  OldImage();
  NewImage();
  const auto refuses = [this](const std::vector<std::string>& words, const std::string& why) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 2) << words.back();
    EXPECT_THAT(outcome.errors, testing::HasSubstr(why)) << words.back();
    EXPECT_THAT(outcome.output, testing::Not(testing::HasSubstr("boots"))) << words.back();
  };
  FlashFabric(Holds("old.img", 0));
  for (const std::string point : {"next:5", "next:99999999", "5+6"}) {
    refuses({"-n", "--at", point}, point + ": there is no such burn: the burn is not failsafe");
  }
  refuses({"--at", "next:99999999"}, "the burn has no such point");
  refuses({"--at", "5+99999999"}, "the burn has no such point");
  // A device that boots nothing at the start.
  FlashFabric(Holds("old.img", 0, false));
  for (const std::string point : {"5", "killed:5", "5+6"}) {
    refuses({"-n", "--at", point}, point + ": nothing to look at: the device");
  }
}

TEST_F(RehearseProgramTest, WrongCommandLineIsRefused) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"--recover", "some"},
                                                {"--recover=-1"},
                                                {"--at", "x"},
                                                {"--at", "next:1", "--no-next"},
                                                {"--at", "1+1", "--no-next"},
                                                {"--recover", "next:1"},
                                                {"--recover", "1+1"},
                                                {"-m", "3"},
                                                {"-m=3"},
                                                {"-m="},
                                                {"-g", "zz"},
                                                {"-g", ","},
                                                {"-g=zz"},
                                                {"--jobs", "0"},
                                                {"--what"}}) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 64) << words.front();
    EXPECT_EQ(outcome.output, "") << words.front();
    EXPECT_FALSE(outcome.errors.empty()) << words.front();
  }
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{SimProgram()},
        {SimProgram(), "fabric.toml", "--listen", "nowhere"},
        {SimProgram(), "fabric.toml", "--what"},
        {RehearseProgram()}}) {
    EXPECT_EQ(RunProgram(words).status, 64);
  }
  EXPECT_EQ(RunProgram({SimProgram(), "--help"}).status, 0);
  EXPECT_EQ(RunProgram({RehearseProgram(), "--version"}).status, 0);
}

TEST_F(RehearseProgramTest, SwitchesOfTheBurnerTakeTheirValuesAsTheBurnerDoes) {
  OldImage();
  NewImage();
  FlashFabric(Holds("old.img", 0));
  const auto requests = [&](const std::vector<std::string>& words) {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return outcome.output.substr(0, outcome.output.find("  points"));
  };
  const std::string large = requests({"--recover", "0", "-m", "10"});
  EXPECT_EQ(requests({"--recover", "0", "-m=10", "-g=10"}), large);
  EXPECT_NE(requests({"--recover", "0", "-m=4"}), large);
  EXPECT_EQ(Run({"--recover", "0", "-g=77"}).status, 2);  // a device that is not there
}

TEST_F(RehearseProgramTest, HelpDoesNotTellWhereTheProgramLies) {
  const Outcome outcome = RunProgram({RehearseProgram(), "--help"});
  EXPECT_THAT(outcome.output, testing::HasSubstr("fwpush beside this program"));
  // Its own name on the line of usage apart.
  const std::size_t options = outcome.output.find("Options:");
  ASSERT_NE(options, std::string::npos);
  const std::string folder = std::filesystem::path(RehearseProgram()).parent_path();
  EXPECT_EQ(outcome.output.find(folder, options), std::string::npos);
}

TEST_F(RehearseProgramTest, SimulatorReportsWhatBootsOnRequestAndAtItsEnd) {
  OldImage();
  NewImage();
  const std::string fabric = FlashFabric(Holds("old.img", 0));
  const std::string state = _folder / "state";
  const std::vector<std::string> words = {SimProgram(), fabric,    "--state",
                                          state,        "--image", _folder / "new.img"};
  std::vector<std::string> asked = words;
  asked.emplace_back("--boot-report");
  EXPECT_EQ(RunProgram(asked).output, "0x0000000000000010 boots old: slot 0 old, slot 1 invalid\n");
  Child simulator(words, _folder / "errors");
  const std::string server = simulator.ReadLine();
  EXPECT_EQ(
      RunProgram({FwpushProgram(), "-f", _folder / "new.img", "-s", server, "-g", "10"}).status, 0);
  simulator.Signal(SIGTERM);
  EXPECT_EQ(simulator.ReadLine(), "0x0000000000000010 boots new: slot 0 invalid, slot 1 new");
  EXPECT_EQ(simulator.Wait(), 0);
  EXPECT_EQ(RunProgram(asked).output, "0x0000000000000010 boots new: slot 0 invalid, slot 1 new\n");
}

}  // namespace
