// Every state in which an interruption can leave a device, and what the next run makes of it. Each
// row of the tables in docs/fail-safety.md names its test here.
#include "sim/BootReport.h"
#include "sim/Filling.h"
#include "src/BurnAlgorithm.h"
#include "tests/support/InProcessRom.h"
#include "tests/support/fabric_support.h"
#include "tests/support/slot_images.h"

namespace {

/// An interruption, and what is expected after it.
struct Row {
  const char* name;
  const char* start;  ///< what the slots hold at first: a letter for each, see Fill
  sim::Fault::Kind kind;
  u_int32_t write;  ///< the write request at which it happens, from 1
  const char* then;
  const char* next;  ///< the class that the next run counts the device in
  const char* end;   ///< after that run
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

std::string NameOf(const testing::TestParamInfo<Row>& info) { return info.param.name; }

constexpr auto CUT = sim::Fault::CUT;
constexpr auto BEFORE = sim::Fault::POWER_OFF;

class FailSafetyTest : public ConsoleTest, public testing::WithParamInterface<Row> {
 protected:
  /// A letter for each slot: o holds the old image, n the new one, x one that is not valid, - none.
  void Fill(const char* slots) {
    for (u_int32_t slot = 0; slot < 2; ++slot) {
      if (slots[slot] == '-') continue;
      const std::string file = slots[slot] == 'n' ? _new : _old;
      sim::FillFromFile(_fabric, 0x10, file, {.slot = slot, .is_valid = slots[slot] != 'x'});
    }
    _fabric.Find(0x10)->images = {_old};
  }

  template <typename Rom, typename Algorithm>
  std::string Burn(const auto&... flags) {
    return OutputOf([&] {
      FwImage image;
      image.Open(_new.c_str(), READ);
      Rom rom(_fabric, 12);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices({0x10});
      try {
        rom.Open("IB:host:1");
        Algorithm(rom, flags...).Go(image);
      } catch (const BraidError& error) {
        std::cout << error.Des() << std::endl;
      }
    });
  }

  void Interrupt(sim::Fault::Kind kind, u_int32_t write) {
    sim::Fault fault;
    fault.kind = kind;
    fault.command = "Write";
    fault.nth = write;
    fault.seed = 3;
    _fabric.faults.Add(fault);
  }

  std::string Report() {
    const std::string line = sim::BootReport(_fabric, {_new});
    const std::string head = "0x0000000000000010 ";
    EXPECT_TRUE(line.starts_with(head));
    return line.substr(head.size(), line.size() - head.size() - 1);
  }

  /// Burns to the interruption and looks, gives the power back, burns again and looks.
  void Run(const Row& row, const std::function<std::string()>& burn) {
    Fill(row.start);
    Interrupt(row.kind, row.write);
    EXPECT_THAT(burn(), testing::EndsWith("No more accessible devices\n"));
    _fabric.Find(0x10)->has_power = true;
    EXPECT_EQ(Report(), row.then);
    const std::string console = burn();
    EXPECT_THAT(console, testing::HasSubstr(row.next));
    EXPECT_THAT(console, testing::Not(testing::HasSubstr("BURN FAILED")));
    EXPECT_EQ(Report(), row.end);
  }

  common::ScratchFolder _folder;
  std::string _old;
  std::string _new;
  sim::Fabric _fabric;
};

class FlashFailSafetyTest : public FailSafetyTest {
 protected:
  FlashFailSafetyTest() { _fabric.Add(FlashDevice(0x10, FLASH_SIZE, SECTOR)); }

  void Images(const FlashImage& old_image, const FlashImage& new_image) {
    _old = _folder.Write("old.img", old_image.Text());
    _new = _folder.Write("new.img", new_image.Text());
  }
  std::string BurnFlash() { return Burn<InProcessFlash, RV52100FailsafeBurn>(true, false); }
};

constexpr char BOTH[] = "-I- Both images valid:  1\n";
constexpr char FIRST[] = "-I- First  image valid: 1\n";
constexpr char SECOND[] = "-I- Second image valid: 1\n";

constexpr char OLD_FIRST[] = "boots old: slot 0 old, slot 1 invalid";
constexpr char OLD_SECOND[] = "boots old: slot 0 invalid, slot 1 old";
constexpr char NEW_FIRST[] = "boots new: slot 0 new, slot 1 invalid";
constexpr char NEW_SECOND[] = "boots new: slot 0 invalid, slot 1 new";
constexpr char OLD_BOTH[] = "boots old: slot 0 old, slot 1 old";

class TwoSlotTest : public FlashFailSafetyTest {};

TEST_P(TwoSlotTest, IsLeftAndRecoveredAsTheTableSays) {
  Images({}, {.content = 0x22});
  Run(GetParam(), [this] { return BurnFlash(); });
}

// The writes of a burn into one slot: 1 its signature is cleared, 2 the image, 3 the pointer
// sector, 4 its CRC, 5 the signature is set, 6 the other signature is cleared. With both images
// valid one more comes first: the second signature is cleared.
INSTANTIATE_TEST_SUITE_P(
    FirstValid, TwoSlotTest,
    testing::Values(Row{"ClearingTheSecondSignature", "ox", CUT, 1, OLD_FIRST, FIRST, NEW_SECOND},
                    Row{"WritingTheSecondImage", "o-", CUT, 2, OLD_FIRST, FIRST, NEW_SECOND},
                    Row{"WritingTheSecondPointerSector", "o-", CUT, 3, OLD_FIRST, FIRST,
                        NEW_SECOND},
                    Row{"WritingItsCrc", "o-", CUT, 4, OLD_FIRST, FIRST, NEW_SECOND},
                    Row{"SettingTheSecondSignature", "o-", CUT, 5, OLD_FIRST, FIRST, NEW_SECOND},
                    Row{"BetweenTheSignatures", "o-", BEFORE, 6,
                        "boots old or new: slot 0 old, slot 1 new", BOTH, NEW_SECOND},
                    Row{"ClearingTheFirstSignature", "o-", CUT, 6, NEW_SECOND, SECOND, NEW_FIRST}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    SecondValid, TwoSlotTest,
    testing::Values(Row{"ClearingTheFirstSignature", "xo", CUT, 1, OLD_SECOND, SECOND, NEW_FIRST},
                    Row{"WritingTheFirstImage", "-o", CUT, 2, OLD_SECOND, SECOND, NEW_FIRST},
                    Row{"WritingTheFirstPointerSector", "-o", CUT, 3, OLD_SECOND, SECOND,
                        NEW_FIRST},
                    Row{"WritingItsCrc", "-o", CUT, 4, OLD_SECOND, SECOND, NEW_FIRST},
                    Row{"SettingTheFirstSignature", "-o", CUT, 5, OLD_SECOND, SECOND, NEW_FIRST},
                    Row{"BetweenTheSignatures", "-o", BEFORE, 6,
                        "boots old or new: slot 0 new, slot 1 old", BOTH, NEW_SECOND},
                    Row{"ClearingTheSecondSignature", "-o", CUT, 6, NEW_FIRST, FIRST, NEW_SECOND}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    BothValid, TwoSlotTest,
    testing::Values(Row{"BeforeAnything", "oo", BEFORE, 1, OLD_BOTH, BOTH, NEW_SECOND},
                    Row{"ClearingTheSecondSignature", "oo", CUT, 1, OLD_FIRST, FIRST, NEW_SECOND},
                    Row{"WritingTheSecondImage", "oo", CUT, 3, OLD_FIRST, FIRST, NEW_SECOND}),
    NameOf);

class MoveTest : public FlashFailSafetyTest {};

TEST_P(MoveTest, IsLeftAndRecoveredAsTheTableSays) {
  // The old second image starts at 0x1000, the new first one would end at 0xC00 + 0x500.
  Images({.image1 = 0x1000}, {.content = 0x22, .size = 0x500});
  Run(GetParam(), [this] { return BurnFlash(); });
}

// The copy goes into the first slot by the six writes of a burn; then the new image follows into
// the second slot by six more.
INSTANTIATE_TEST_SUITE_P(
    SecondInTheWay, MoveTest,
    testing::Values(
        Row{"CopyingTheImage", "-o", CUT, 2, OLD_SECOND, SECOND, NEW_SECOND},
        Row{"CopyingThePointerSector", "-o", CUT, 3, OLD_SECOND, SECOND, NEW_SECOND},
        Row{"SettingTheSignatureOfTheCopy", "-o", CUT, 5, OLD_SECOND, SECOND, NEW_SECOND},
        Row{"BetweenTheSignatures", "-o", BEFORE, 6, OLD_BOTH, BOTH, NEW_SECOND},
        Row{"ClearingTheSignatureOfTheOriginal", "-o", CUT, 6, OLD_FIRST, FIRST, NEW_SECOND},
        Row{"AfterTheMove", "-o", BEFORE, 7, OLD_FIRST, FIRST, NEW_SECOND},
        Row{"WritingTheSecondImage", "-o", CUT, 8, OLD_FIRST, FIRST, NEW_SECOND}),
    NameOf);

/// What no order of writes can save.
class NotFailsafe : public FlashFailSafetyTest {
 protected:
  void CutAt(const char* start, u_int32_t write) {
    Fill(start);
    Interrupt(CUT, write);
    BurnFlash();
    _fabric.Find(0x10)->has_power = true;
  }
};

TEST_F(NotFailsafe, RewritingTheInvariantSector) {
  Images({}, {.content = 0x22, .invariant = 0x78});
  CutAt("o-", 1);
  EXPECT_EQ(Report(), "DOES NOT BOOT: slot 0 old, slot 1 invalid, invariant sector broken");
}

TEST_F(NotFailsafe, CopyingAnImageOverItself) {
  // From 0x1000 to 0xC00, 0x500 bytes: the copy ends at 0x1100.
  Images({.size = 0x500, .image1 = 0x1000}, {.content = 0x22, .size = 0x800});
  CutAt("-o", 3);
  EXPECT_EQ(Report(), "boots BROKEN: slot 0 invalid, slot 1 broken");
}

TEST_F(NotFailsafe, MovingAnImageByAShortRecord) {
  // The old second image has 0x100 bytes, of which its record gives half. The move is its six
  // writes.
  Images({.size = 0x100, .image1 = 0x1000, .missing = 0x80}, {.content = 0x22, .size = 0x500});
  CutAt("-o", 8);
  EXPECT_EQ(Report(),
            "boots BROKEN: slot 0 broken, slot 1 invalid; the record of slot 0 gives 0x80 bytes, "
            "and its image has 0x100");
}

TEST_F(NotFailsafe, FirstImageThatReachesIntoTheSecondSlot) {
  // The old first image ends at 0x1500, the new second one starts at 0x1400.
  Images({.size = 0x900, .image1 = 0x1800}, {.content = 0x22});
  CutAt("o-", 2);
  EXPECT_EQ(Report(), "boots BROKEN: slot 0 broken, slot 1 invalid");
}

TEST_F(NotFailsafe, FirstImageWithAGap) {
  // The new first image has 0x40 bytes and needs no move, by their number; its second section lies
  // at 0x1400, in the old second image.
  Images({.image1 = 0x1400}, {.content = 0x22});
  _new = _folder.Write("new.img", FlashImage{.content = 0x22, .image1 = 0x1800}.Text() +
                                      Section("TAIL", 0x1400, DataVec(0x20, 0x33)));
  CutAt("-o", 3);
  EXPECT_EQ(Report(), "boots BROKEN: slot 0 invalid, slot 1 broken");
}

TEST_F(NotFailsafe, FirstImageBehindTheFourthSector) {
  // Reckoned from 0xC00 the new first image ends at 0xC40; it goes to 0x1400, where the old second
  // one is.
  Images({.image1 = 0x1400}, {.content = 0x22, .size = 0x40, .image1 = 0x1800, .image0 = 0x1400});
  CutAt("-o", 2);
  EXPECT_EQ(Report(), "boots BROKEN: slot 0 invalid, slot 1 broken");
}

TEST_F(NotFailsafe, SignatureOverAWrongRecord) {
  Images({}, {.content = 0x22});
  Fill("oo");
  const DataVec spot = Hex("5b");
  _fabric.Find(0x10)->chips.at(0).Load(PS0 + 100, spot);
  EXPECT_EQ(Report(), OLD_SECOND);
  Interrupt(BEFORE, 2);  // the first write cleared the second signature
  BurnFlash();
  _fabric.Find(0x10)->has_power = true;
  EXPECT_EQ(Report(), "DOES NOT BOOT: slot 0 invalid, slot 1 invalid");
}

class BootRecordTest : public FailSafetyTest {
 protected:
  BootRecordTest() {
    sim::Device device = I2cDevice(0x10, 0);
    device.chips.try_emplace(u_int8_t{0}, sim::Chip(std::make_unique<sim::Cells>(0x100), 0));
    _fabric.Add(std::move(device));
    _old = _folder.Write("old.img", EepromImage(0x01));
    _new = _folder.Write("new.img", EepromImage(0x02));
  }
};

TEST_P(BootRecordTest, IsLeftAndRecoveredAsTheTableSays) {
  Run(GetParam(), [this] { return Burn<InProcessI2c, RV61300FailsafeBurn>(false); });
}

constexpr char BOTH_RECORDS[] = "-I- Both valid:      1\n";
constexpr char FIRST_RECORD[] = "-I- Frst only valid: 1\n";
constexpr char SECOND_RECORD[] = "-I- Scnd only valid: 1\n";
constexpr char NEW_BOTH[] = "boots new: slot 0 new, slot 1 new";
constexpr char NEW_THEN_OLD[] = "boots old or new: slot 0 new, slot 1 old";
constexpr char OLD_THEN_NEW[] = "boots old or new: slot 0 old, slot 1 new";

// The writes: 1 the slot that goes first, 2 its record; 3 the other slot, 4 its record.
INSTANTIATE_TEST_SUITE_P(
    SecondRecordValid, BootRecordTest,
    testing::Values(
        Row{"BeforeAnything", "oo", BEFORE, 1, OLD_BOTH, BOTH_RECORDS, NEW_BOTH},
        Row{"WritingTheFirstSlot", "oo", CUT, 1, OLD_SECOND, SECOND_RECORD, NEW_BOTH},
        Row{"WritingTheFirstSlotThatWasInvalid", "xo", CUT, 1, OLD_SECOND, SECOND_RECORD, NEW_BOTH},
        Row{"ValidatingTheFirstSlot", "oo", CUT, 2, OLD_SECOND, SECOND_RECORD, NEW_BOTH},
        Row{"BetweenTheSlots", "oo", BEFORE, 3, NEW_THEN_OLD, BOTH_RECORDS, NEW_BOTH},
        Row{"WritingTheSecondSlot", "oo", CUT, 3, NEW_FIRST, FIRST_RECORD, NEW_BOTH},
        Row{"ValidatingTheSecondSlot", "oo", CUT, 4, NEW_FIRST, FIRST_RECORD, NEW_BOTH}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    FirstRecordOnly, BootRecordTest,
    testing::Values(Row{"WritingTheSecondSlot", "ox", CUT, 1, OLD_FIRST, FIRST_RECORD, NEW_BOTH},
                    Row{"ValidatingTheSecondSlot", "ox", CUT, 2, OLD_FIRST, FIRST_RECORD, NEW_BOTH},
                    Row{"BetweenTheSlots", "ox", BEFORE, 3, OLD_THEN_NEW, BOTH_RECORDS, NEW_BOTH},
                    Row{"WritingTheFirstSlot", "ox", CUT, 3, NEW_SECOND, SECOND_RECORD, NEW_BOTH},
                    Row{"ValidatingTheFirstSlot", "ox", CUT, 4, NEW_SECOND, SECOND_RECORD,
                        NEW_BOTH}),
    NameOf);

/// Records with which no order of writes ends well.
class NotFailsafeRecord : public BootRecordTest {
 protected:
  /// Burns an image that is as the new one but for some bytes of its record.
  void BurnWith(const std::function<void(DataVec&)>& change, const std::string& directives = "") {
    DataVec data = EepromData(0x02);
    change(data);
    _new = _folder.Write("new.img", EepromText(data) + directives);
    Burn<InProcessI2c, RV61300FailsafeBurn>(false);
  }
};

TEST_F(NotFailsafeRecord, WithAWrongSum) {
  Fill("oo");
  BurnWith([](DataVec& data) { ++data[0]; });
  EXPECT_EQ(Report(), "DOES NOT BOOT: slot 0 invalid, slot 1 invalid");
}

TEST_F(NotFailsafeRecord, MarkedInvalid) {
  Fill("oo");
  Interrupt(CUT, 3);
  BurnWith([](DataVec& data) {
    ++data[7];
    --data[15];
  });
  _fabric.Find(0x10)->has_power = true;
  EXPECT_EQ(Report(), "DOES NOT BOOT: slot 0 invalid, slot 1 invalid");
}

TEST_F(NotFailsafeRecord, CoveredByACrc) {
  Fill("oo");
  BurnWith([](DataVec&) {}, "REPLACE CRC 0 0 38 0 3C 0\nREPLACE CRC 80 0 B8 0 BC 0\n");
  EXPECT_EQ(Report(), "boots BROKEN: slot 0 broken, slot 1 broken");
}

TEST_F(NotFailsafeRecord, TornSoThatItAddsUp) {
  bool adds_up = false;
  for (u_int32_t seed = 1; seed <= 2000 && !adds_up; ++seed) {
    Fill("oo");
    sim::Fault fault;
    fault.kind = CUT;
    fault.command = "Write";
    fault.seed = seed;
    _fabric.faults.Add(fault);
    Burn<InProcessI2c, RV61300FailsafeBurn>(false);
    _fabric.Find(0x10)->has_power = true;
    const std::string report = Report();
    adds_up = report == "boots old or BROKEN: slot 0 broken, slot 1 old";
    EXPECT_TRUE(adds_up || report == OLD_SECOND || report == OLD_BOTH) << report;
  }
  EXPECT_TRUE(adds_up);
}

/// The tests of this file as the document names them: "FirstValid/WritingTheSecondImage".
std::set<std::string> RowsTested() {
  std::set<std::string> rows;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    const std::string suite_name = suite.name();
    if (suite_name == "DocumentTest") continue;
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const testing::TestInfo& test = *suite.GetTestInfo(j);
      if (std::string_view(test.file()) != __FILE__) continue;  // of another document
      const std::string name = test.name();
      rows.insert(suite_name.substr(0, suite_name.find('/')) + "/" +
                  name.substr(name.rfind('/') + 1));
    }
  }
  return rows;
}

TEST(DocumentTest, EveryRowHasItsTestAndEveryTestItsRow) {
  std::ifstream file(FAIL_SAFETY_DOCUMENT);
  ASSERT_TRUE(file.good());
  std::set<std::string> rows;
  bool has_tests = false;  // the table in hand has a column of tests
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with("|")) has_tests = false;
    if (line.ends_with("| test |")) {
      has_tests = true;
      continue;
    }
    if (!line.starts_with("| ") || !has_tests) continue;
    EXPECT_NE(line.find("/"), std::string::npos) << line;
    for (std::size_t at; (at = line.find('`')) != std::string::npos;) {
      line.erase(0, at + 1);
      const std::string quoted = line.substr(0, line.find('`'));
      if (quoted.find('/') != std::string::npos) rows.insert(quoted);
      line.erase(0, quoted.size() + 1);
    }
  }
  EXPECT_EQ(rows, RowsTested());
}

}  // namespace
