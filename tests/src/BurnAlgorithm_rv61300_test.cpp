// Failsafe burns of RV61300 devices: which slot is judged valid, what is written in which order,
// and what the console shows of it.
#include "tests/support/rv61300_support.h"

using namespace rv61300;

namespace {

// ---- The judgement of a record

class RecordTest : public ConsoleTest {
 protected:
  static bool First(const std::string& record, std::string& console) {
    bool is_valid = false;
    console = OutputOf(
        [&] { is_valid = Burn::VerifyFirstPllBootRecordChecksum(Hex(record), DataVec(16)); });
    return is_valid;
  }
  static bool Second(const std::string& record, std::string& console) {
    bool is_valid = false;
    console =
        OutputOf([&] { is_valid = Burn::VerifyPllBootRecordChecksum(Hex(record), DataVec(16)); });
    return is_valid;
  }
};

TEST_F(RecordTest, BytesThatAddUpToAbAreValid) {
  std::string console;
  EXPECT_TRUE(First(VALID, console));
  EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: ab\n");
  EXPECT_TRUE(Second(VALID, console));
  EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: ab\n");
}

TEST_F(RecordTest, BytesThatAddUpToSomethingElseAreNotValid) {
  const std::pair<std::string, std::string> cases[] = {
      {"40000000 00000000 00000000 0000006a", "aa"}, {"40000000 00000000 00000000 0000006c", "ac"},
      {"00000000 00000000 00000000 00000000", "0"},  {"00000000 00000000 00000000 00000007", "7"},
      {"ffffffff ffffffff ffffffff ffffffff", "f0"},  // 16 x FF is FF0
  };
  for (const auto& [record, sum] : cases) {
    std::string console;
    EXPECT_FALSE(First(record, console)) << record;
    EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: " + sum + "\n");
    EXPECT_FALSE(Second(record, console)) << record;
    EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: " + sum + "\n");
  }
}

TEST_F(RecordTest, SumIsTakenModulo256) {
  for (const std::string record :
       {"ffac0000 00000000 00000000 00000000",     // 1AB
        "ffffffff ffffff00 00000000 000000b2"}) {  // 7 x FF is 6F9; with B2 it is 7AB
    std::string console;
    EXPECT_TRUE(First(record, console)) << record;
    EXPECT_TRUE(Second(record, console)) << record;
    EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: ab\n");
  }
}

TEST_F(RecordTest, OneInByte7MakesAFirstRecordInvalidWithoutSumming) {
  std::string console = "?";
  EXPECT_FALSE(First("aa000000 00000001 00000000 00000000", console));
  EXPECT_EQ(console, "");
}

TEST_F(RecordTest, OneInByte7DoesNotMatterInASecondRecord) {
  std::string console;
  EXPECT_TRUE(Second("aa000000 00000001 00000000 00000000", console));
  EXPECT_EQ(console, "-D- BurnAlgorithm:817: Checksum is: ab\n");
}

TEST_F(RecordTest, OtherValuesInByte7AndOnesElsewhereAreOrdinaryBytes) {
  std::string console;
  EXPECT_TRUE(First("a9000000 00000002 00000000 00000000", console));
  EXPECT_TRUE(First("9a000000 00000011 00000000 00000000", console));
  EXPECT_TRUE(First("aa000000 00000100 00000000 00000000", console));
  EXPECT_TRUE(First("aa000000 00000000 01000000 00000000", console));
}

TEST_F(RecordTest, ReferenceIsNotLookedAt) {
  OutputOf([] {
    EXPECT_TRUE(Burn::VerifyPllBootRecordChecksum(Hex(VALID), {}));
    EXPECT_TRUE(Burn::VerifyFirstPllBootRecordChecksum(Hex(VALID), Hex(INVALID)));
    EXPECT_FALSE(Burn::VerifyPllBootRecordChecksum(Hex(INVALID), Hex(VALID)));
  });
}

TEST_F(RecordTest, SumLeavesTheConsoleHexadecimalAndItsLineNumberIsDecimal) {
  EXPECT_EQ(OutputOf([] {
              std::cout << std::hex;
              Burn::VerifyPllBootRecordChecksum(Hex(VALID), {});
              std::cout << std::dec;
              Burn::VerifyPllBootRecordChecksum(Hex(INVALID), {});
              std::cout << 255;
            }),
            "-D- BurnAlgorithm:817: Checksum is: ab\n"
            "-D- BurnAlgorithm:817: Checksum is: b5\n"
            "ff");
}

TEST_F(RecordTest, RecordOfAnotherLengthStopsTheProgram) {
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 4, 15, 17}) {
    EXPECT_EXIT(Burn::VerifyPllBootRecordChecksum(DataVec(size), DataVec(16)),
                testing::KilledBySignal(SIGABRT), "read_data.size\\(\\) == 16");
    EXPECT_EXIT(Burn::VerifyFirstPllBootRecordChecksum(DataVec(size, 1), DataVec(16)),
                testing::KilledBySignal(SIGABRT), "read_data.size\\(\\) == 16");
  }
}

// ---- Whole burns: requests, console and contents

TEST_F(Rv61300Test, DeviceWithBothValidGetsTheFirstSlotAndThenTheSecond) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  EXPECT_EQ(Go(),
            "-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
            "-D- BurnAlgorithm:817: Checksum is: ab\n"
            "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
            "-D- BurnAlgorithm:817: Checksum is: ab\n"
            "-I- Total devices:   1\n"
            "-I- Both valid:      1\n"
            "-I- Frst only valid: 0\n"
            "-I- Scnd only valid: 0\n"
            "\r\\ Burning    first  image with invalidated signature - %66"
            "\r- Burning    first  image with invalidated signature -  OK \n"
            "\r- Validating first  image                            -  OK \n"
            "\r\\ Burning    second image with invalidated signature - %66"
            "\r- Burning    second image with invalidated signature -  OK \n"
            "\r- Validating second image                            -  OK \n");
  EXPECT_EQ(_rom->Requests(),
            (Strings{"vsI2cReadMulti 1 0x0000000000001000 0x0 16 0x100 ",
                     "vsI2cReadMulti 1 0x0000000000001000 0x0 16 0x200 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 16 0x100 "
                     "0x102030e 0x5060708 0x90a0b0c 0xd0e0f33 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0x120 0xcafebabe 0x22222222 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x100 0x1020304 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 16 0x200 "
                     "0x102030e 0x5060708 0x90a0b0c 0xd0e0f33 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 8 0x220 0xcafebabe 0x22222222 ",
                     "vsI2cWriteMulti 1 0x0000000000001000 0x0 4 0x200 0x1020304 "}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(NewSlot(), NewSlot()));
}

TEST_F(Rv61300Test, DeviceWithOnlyTheSecondValidGetsTheFirstSlotFirst) {
  AddDevice(LEAF1, INVALID, VALID);
  OpenAll();
  EXPECT_EQ(Go(), std::string("-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-I- Total devices:   1\n"
                              "-I- Both valid:      0\n"
                              "-I- Frst only valid: 0\n"
                              "-I- Scnd only valid: 1\n") +
                      FIRST_METERS + SECOND_METERS);
  EXPECT_EQ(_rom->Requests(),
            Queries({LEAF1}) + FirstSlotWrites({LEAF1}) + SecondSlotWrites({LEAF1}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(NewSlot(), NewSlot()));
}

TEST_F(Rv61300Test, DeviceWithOnlyTheFirstValidGetsTheSecondSlotFirst) {
  AddDevice(LEAF1, VALID, INVALID);
  OpenAll();
  EXPECT_EQ(Go(), std::string("-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-I- Total devices:   1\n"
                              "-I- Both valid:      0\n"
                              "-I- Frst only valid: 1\n"
                              "-I- Scnd only valid: 0\n") +
                      SECOND_METERS + FIRST_METERS);
  EXPECT_EQ(_rom->Requests(),
            Queries({LEAF1}) + SecondSlotWrites({LEAF1}) + FirstSlotWrites({LEAF1}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(NewSlot(), NewSlot()));
}

TEST_F(Rv61300Test, AllStatesAtOnceAreBurntGroupByGroup) {
  AddDevice(0x1000, VALID, VALID);
  AddDevice(0x2000, VALID, INVALID);
  AddDevice(0x3000, INVALID, VALID);
  AddDevice(0x4000, INVALID, INVALID);
  AddDevice(0x5000, VALID, INVALID);
  AddDevice(0x6000, VALID, VALID);
  AddDevice(0x7000, INVALID, INVALID);
  OpenAll();
  EXPECT_EQ(Go(), std::string("-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 2000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 3000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 4000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 5000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 6000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 7000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 2000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 3000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 4000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 5000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 6000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 7000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "\r-E- BURN FAILED:0x0000000000004000:"
                              "Both images are invalid - Can't perform failsafe burn.\n"
                              "\r-E- BURN FAILED:0x0000000000007000:"
                              "Both images are invalid - Can't perform failsafe burn.\n"
                              "-I- Total devices:   7\n"
                              "-I- Both valid:      2\n"
                              "-I- Frst only valid: 2\n"
                              "-I- Scnd only valid: 1\n") +
                      FIRST_METERS + SECOND_METERS + SECOND_METERS + FIRST_METERS);
  const GuidSet second_valid{0x1000, 0x3000, 0x6000};
  const GuidSet first_only{0x2000, 0x5000};
  EXPECT_EQ(_rom->Requests(), Queries({0x1000, 0x2000, 0x3000, 0x4000, 0x5000, 0x6000, 0x7000}) +
                                  FirstSlotWrites(second_valid) + SecondSlotWrites(second_valid) +
                                  SecondSlotWrites(first_only) + FirstSlotWrites(first_only));
  for (const Guid guid : GuidSet{0x1000, 0x2000, 0x3000, 0x5000, 0x6000}) {
    EXPECT_EQ(Memory(guid), ChipOf(NewSlot(), NewSlot())) << guid;
  }
  for (const Guid guid : GuidSet{0x4000, 0x7000}) {
    EXPECT_EQ(Memory(guid), ChipOf(OldSlot(INVALID), OldSlot(INVALID))) << guid;
  }
}

TEST_F(Rv61300Test, EveryMixOfStatesOverFiveDevicesIsBurntInItsOrder) {
  enum State { BOTH, FIRST_ONLY, SECOND_ONLY, NONE };
  int burns = 0;
  int refusals = 0;
  for (int mix = 0; mix < 4 * 4 * 4 * 4 * 4; ++mix) {
    SCOPED_TRACE("mix " + std::to_string(mix));
    Serve();
    std::map<Guid, State> states;
    for (int i = 0, rest = mix; i < 5; ++i, rest /= 4) {
      states[LEAF1 + static_cast<Guid>(i) * 0x10] = static_cast<State>(rest % 4);
    }
    GuidSet all, second_valid, first_only, none;
    std::string console;
    std::map<State, int> counts;
    for (const auto& [guid, state] : states) {
      const bool first = state == BOTH || state == FIRST_ONLY;
      const bool second = state == BOTH || state == SECOND_ONLY;
      AddDevice(guid, first ? VALID : INVALID, second ? VALID : INVALID);
      all.insert(guid);
      if (second) second_valid.insert(guid);
      if (state == FIRST_ONLY) first_only.insert(guid);
      if (state == NONE) none.insert(guid);
      ++counts[state];
      console += Text(
          "-D- RomInterface:N: Querying device ", std::hex, guid,
          ", addr 100 size 16\n-D- BurnAlgorithm:817: Checksum is: ", first ? "ab" : "b5", "\n");
    }
    for (const auto& [guid, state] : states) {
      console += Text("-D- RomInterface:N: Querying device ", std::hex, guid,
                      ", addr 200 size 16\n-D- BurnAlgorithm:817: Checksum is: ",
                      state == BOTH || state == SECOND_ONLY ? "ab" : "b5", "\n");
    }
    for (const Guid guid : none) {
      console += Text("\r-E- BURN FAILED:0x000000000000", std::hex, guid,
                      ":Both images are invalid - Can't perform failsafe burn.\n");
    }
    Strings requests = Queries(all);
    OpenAll();

    // Before every change the device must have a slot that boots, and it is not the one to change.
    int changes = 0;
    _fabric.observer = [&](const sim::Operation& change) {
      ++changes;
      const bool is_second = change.offset >= SECOND;
      const bool was_valid = states.at(change.device) == BOTH ||
                             states.at(change.device) == (is_second ? SECOND_ONLY : FIRST_ONLY);
      const DataVec other = MemoryOf(_fabric, change.device, 0, is_second ? FIRST : SECOND, 0x28);
      EXPECT_FALSE(none.contains(change.device));
      EXPECT_TRUE(other == NewSlot() || other == OldSlot(VALID));
      EXPECT_TRUE(!was_valid || other == NewSlot() || states.at(change.device) == BOTH);
    };

    if (none.size() == 5) {
      std::string shown;
      EXPECT_EQ(GoError(shown), "All devices can't be failsafe burnt");
      EXPECT_EQ(shown, console);
      EXPECT_EQ(_rom->Requests(), requests);
      EXPECT_EQ(changes, 0);
      ++refusals;
      continue;
    }
    console += Text("-I- Total devices:   5\n-I- Both valid:      ", counts[BOTH],
                    "\n-I- Frst only valid: ", counts[FIRST_ONLY],
                    "\n-I- Scnd only valid: ", counts[SECOND_ONLY], "\n");
    if (!second_valid.empty()) {
      requests = requests + FirstSlotWrites(second_valid) + SecondSlotWrites(second_valid);
      console += std::string(FIRST_METERS) + SECOND_METERS;
    }
    if (!first_only.empty()) {
      requests = requests + SecondSlotWrites(first_only) + FirstSlotWrites(first_only);
      console += std::string(SECOND_METERS) + FIRST_METERS;
    }
    EXPECT_EQ(Go(), console);
    EXPECT_EQ(_rom->Requests(), requests);
    EXPECT_EQ(changes, 6 * static_cast<int>(5 - none.size()));
    for (const Guid guid : all) {
      EXPECT_TRUE(Memory(guid) == (none.contains(guid) ? ChipOf(OldSlot(INVALID), OldSlot(INVALID))
                                                       : ChipOf(NewSlot(), NewSlot())))
          << guid;
    }
    ++burns;
    if (HasFailure()) break;
  }
  EXPECT_EQ(burns, 1023);
  EXPECT_EQ(refusals, 1);
}

TEST_F(Rv61300Test, RecordIsJudgedByItsSlot) {
  const std::string marked = "aa000000 00000001 00000000 00000000";
  const std::string wrapped = "ffac0000 00000000 00000000 00000000";
  AddDevice(0x1000, marked, VALID);     // second only
  AddDevice(0x2000, VALID, marked);     // both
  AddDevice(0x3000, marked, marked);    // second only
  AddDevice(0x4000, marked, INVALID);   // none
  AddDevice(0x5000, wrapped, wrapped);  // both
  AddDevice(0x6000, wrapped, INVALID);  // first only
  OpenAll();
  EXPECT_EQ(Go(), std::string("-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
                              "-D- RomInterface:N: Querying device 2000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 3000, addr 100 size 16\n"
                              "-D- RomInterface:N: Querying device 4000, addr 100 size 16\n"
                              "-D- RomInterface:N: Querying device 5000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 6000, addr 100 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 2000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 3000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 4000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "-D- RomInterface:N: Querying device 5000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: ab\n"
                              "-D- RomInterface:N: Querying device 6000, addr 200 size 16\n"
                              "-D- BurnAlgorithm:817: Checksum is: b5\n"
                              "\r-E- BURN FAILED:0x0000000000004000:"
                              "Both images are invalid - Can't perform failsafe burn.\n"
                              "-I- Total devices:   6\n"
                              "-I- Both valid:      2\n"
                              "-I- Frst only valid: 1\n"
                              "-I- Scnd only valid: 2\n") +
                      FIRST_METERS + SECOND_METERS + SECOND_METERS + FIRST_METERS);
  const GuidSet second_valid{0x1000, 0x2000, 0x3000, 0x5000};
  EXPECT_EQ(_rom->Requests(), Queries({0x1000, 0x2000, 0x3000, 0x4000, 0x5000, 0x6000}) +
                                  FirstSlotWrites(second_valid) + SecondSlotWrites(second_valid) +
                                  SecondSlotWrites({0x6000}) + FirstSlotWrites({0x6000}));
  EXPECT_EQ(Memory(0x4000), ChipOf(OldSlot(marked), OldSlot(INVALID)));
}

TEST_F(Rv61300Test, DevicesWithoutAValidImageAreOnlyReported) {
  AddDevice(LEAF1, INVALID, INVALID);
  AddDevice(LEAF2, VALID, VALID);
  OpenAll();
  Go();
  EXPECT_TRUE(_rom->_error_devs.empty());
  EXPECT_EQ(_rom->GetAccessDevices(), (GuidSet{LEAF1, LEAF2}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(OldSlot(INVALID), OldSlot(INVALID)));
}

TEST_F(Rv61300Test, OnlyActiveDevicesAreCountedAndBurnt) {
  for (const Guid guid : {LEAF1, LEAF2, LEAF3}) AddDevice(guid, VALID, VALID);
  OpenAll();
  GuidSet some{LEAF1, LEAF3};
  _rom->SetActiveDevices(some);
  EXPECT_NE(Go().find("-I- Total devices:   2\n-I- Both valid:      2\n"), std::string::npos);
  EXPECT_EQ(_rom->Requests(), Queries(some) + FirstSlotWrites(some) + SecondSlotWrites(some));
  EXPECT_EQ(Memory(LEAF2), ChipOf(OldSlot(VALID), OldSlot(VALID)));
}

TEST_F(Rv61300Test, NoDeviceAtAllCantBeBurnt) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  GuidSet nobody;
  _rom->SetActiveDevices(nobody);
  std::string console;
  EXPECT_EQ(GoError(console), "All devices can't be failsafe burnt");
  EXPECT_EQ(console, "");
  EXPECT_TRUE(_rom->Requests().empty());
}

TEST_F(Rv61300Test, SecondBurnFindsBothValidAndLeavesTheSameContents) {
  AddDevice(LEAF1, VALID, INVALID);
  OpenAll();
  Go();
  _rom->SetActiveDevices();
  _rom->Requests();
  EXPECT_NE(Go().find("-I- Both valid:      1\n"), std::string::npos);
  EXPECT_EQ(_rom->Requests(),
            Queries({LEAF1}) + FirstSlotWrites({LEAF1}) + SecondSlotWrites({LEAF1}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(NewSlot(), NewSlot()));
}

// ---- Check only

TEST_F(Rv61300Test, CheckOnlyCountsAndWritesNothing) {
  AddDevice(0x1000, VALID, VALID);
  AddDevice(0x2000, VALID, INVALID);
  AddDevice(0x3000, INVALID, VALID);
  AddDevice(0x4000, INVALID, INVALID);
  AddDevice(0x5000, VALID, VALID);
  OpenAll();
  const std::string console = Go(true);
  EXPECT_TRUE(
      console.ends_with("-D- BurnAlgorithm:817: Checksum is: ab\n"
                        "\r-E- BURN FAILED:0x0000000000004000:"
                        "Both images are invalid - Can't perform failsafe burn.\n"
                        "-I- Total devices:   5\n"
                        "-I- Both valid:      2\n"
                        "-I- Frst only valid: 1\n"
                        "-I- Scnd only valid: 1\n"))
      << console;
  EXPECT_EQ(_rom->Requests(), Queries({0x1000, 0x2000, 0x3000, 0x4000, 0x5000}));
  EXPECT_EQ(Memory(0x1000), ChipOf(OldSlot(VALID), OldSlot(VALID)));
  EXPECT_EQ(Memory(0x2000), ChipOf(OldSlot(VALID), OldSlot(INVALID)));
  EXPECT_EQ(Memory(0x3000), ChipOf(OldSlot(INVALID), OldSlot(VALID)));
  EXPECT_EQ(Memory(0x4000), ChipOf(OldSlot(INVALID), OldSlot(INVALID)));
}

TEST_F(Rv61300Test, AllInvalidIsAnErrorWithAndWithoutCheckOnly) {
  for (const bool check_only : {true, false}) {
    Serve();
    AddDevice(LEAF1, INVALID, INVALID);
    AddDevice(LEAF2, "aa000000 00000001 00000000 00000000", INVALID);
    OpenAll();
    std::string console;
    EXPECT_EQ(GoError(console, check_only), "All devices can't be failsafe burnt");
    EXPECT_EQ(console,
              "-D- RomInterface:N: Querying device 1000, addr 100 size 16\n"
              "-D- BurnAlgorithm:817: Checksum is: b5\n"
              "-D- RomInterface:N: Querying device 2000, addr 100 size 16\n"
              "-D- RomInterface:N: Querying device 1000, addr 200 size 16\n"
              "-D- BurnAlgorithm:817: Checksum is: b5\n"
              "-D- RomInterface:N: Querying device 2000, addr 200 size 16\n"
              "-D- BurnAlgorithm:817: Checksum is: b5\n"
              "\r-E- BURN FAILED:0x0000000000001000:"
              "Both images are invalid - Can't perform failsafe burn.\n"
              "\r-E- BURN FAILED:0x0000000000002000:"
              "Both images are invalid - Can't perform failsafe burn.\n");
    EXPECT_EQ(_rom->Requests(), Queries({LEAF1, LEAF2}));
    EXPECT_EQ(Memory(LEAF1), ChipOf(OldSlot(INVALID), OldSlot(INVALID)));
  }
}

// ---- The console

TEST_F(Rv61300Test, CountsAreHexadecimalAfterTheChecksums) {
  Guid guid = 0x1000;
  for (int i = 0; i < 10; ++i) AddDevice(guid += 0x10, VALID, VALID);
  for (int i = 0; i < 11; ++i) AddDevice(guid += 0x10, VALID, INVALID);
  for (int i = 0; i < 12; ++i) AddDevice(guid += 0x10, INVALID, VALID);
  OpenAll();
  const std::string console = Go(true);
  EXPECT_TRUE(
      console.ends_with("-D- RomInterface:N: Querying device 1210, addr 200 size 16\n"
                        "-D- BurnAlgorithm:817: Checksum is: ab\n"
                        "-I- Total devices:   21\n"
                        "-I- Both valid:      a\n"
                        "-I- Frst only valid: b\n"
                        "-I- Scnd only valid: c\n"))
      << console;
}

TEST_F(Rv61300Test, LinesOfTheMetersAlign) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  const std::string console = Go();
  std::vector<std::size_t> lengths;
  for (std::size_t end = 0; (end = console.find("-  OK \n", end)) != std::string::npos; ++end) {
    lengths.push_back(end - console.rfind('\r', end));
  }
  EXPECT_EQ(lengths, std::vector<std::size_t>(4, 54));  // CR, spinner, blank, 50 of label, blank
}

class ChunksTest : public Rv61300Test {
 protected:
  // 240 bytes in one section, in chunks of 16.
  ChunksTest() {
    Serve("PPC", 4);
    std::string text =
        "IMAGE 0 100 0\nIMAGE 1 200 0\nSTART ALL 100 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33\n";
    for (int i = 0; i < 14; ++i) text += "0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n";
    Load(text + "END ALL\n");
    AddDevice(LEAF1, VALID, VALID);
  }
};

TEST_F(ChunksTest, MeterAdvancesWithEveryChunkAndTurnsItsSpinner) {
  OpenAll();
  const std::string console = Go();
  const std::string label = " Burning    first  image with invalidated signature - ";
  EXPECT_NE(
      console.find("\r\\" + label + "% 6\r|" + label + "%13\r/" + label + "%20\r-" + label +
                   "%26\r\\" + label + "%33\r|" + label + "%40\r/" + label + "%46\r-" + label +
                   "%53\r\\" + label + "%60\r|" + label + "%66\r/" + label + "%73\r-" + label +
                   "%80\r\\" + label + "%86\r|" + label + "%93\r-" + label +
                   " OK \n\r- Validating first  image                            -  OK \n"
                   "\r\\ Burning    second image with invalidated signature - % 6"),
      std::string::npos)
      << console;
}

TEST_F(ChunksTest, FillOfAFailureLineShowsInTheMeters) {
  AddDevice(LEAF2, INVALID, INVALID);
  OpenAll();
  const std::string console = Go();
  EXPECT_NE(console.find("-I- Scnd only valid: 0\n"
                         "\r\\ Burning    first  image with invalidated signature - %06"
                         "\r| Burning    first  image with invalidated signature - %13"),
            std::string::npos)
      << console;
}

TEST_F(Rv61300Test, MeterOfASecondImageBelowTheFirstStaysAtZero) {
  // The image's size counts sections from the first image's address to the second's: none here.
  Load(
      "IMAGE 0 200 0\nIMAGE 1 100 0\nSTART BOOT 200 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33\nEND BOOT\n"
      "START CODE 220 0\nCA FE BA BE 22 22 22 22\nEND CODE\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  const std::string console = Go();
  EXPECT_TRUE(
      console.ends_with("\r\\ Burning    first  image with invalidated signature - % 0"
                        "\r| Burning    first  image with invalidated signature - % 0"
                        "\r- Validating first  image                            -  OK \n"
                        "\r\\ Burning    second image with invalidated signature - % 0"
                        "\r| Burning    second image with invalidated signature - % 0"
                        "\r- Validating second image                            -  OK \n"))
      << console;
  EXPECT_EQ(Writes(), SecondSlotWrites({LEAF1}) + FirstSlotWrites({LEAF1}));
  EXPECT_EQ(Memory(LEAF1), ChipOf(NewSlot(), NewSlot()));
}

// ---- What the slots hold

TEST_F(Rv61300Test, Byte3WrapsWhenRaised) {
  const struct {
    std::string record;  // each adds up to 1AB
    std::string spoilt;  // its first word while the slot is written
    std::string restored;
  } cases[] = {{"0 0 0 F5 B6 0 0 0", "0xff 0xb6000000", "0xf5"},
               {"0 0 0 F6 B5 0 0 0", "0x0 0xb5000000", "0xf6"},
               {"0 0 0 FF AC 0 0 0", "0x9 0xac000000", "0xff"},
               {"7F FF FF FB 33 0 0 0", "0x7fffff05 0x33000000", "0x7ffffffb"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.record);
    Serve();
    Load("IMAGE 0 100 0\nIMAGE 1 200 0\nSTART A 100 0\n" + test.record +
         " 0 0 0 0 0 0 0 0\nEND A\n");
    AddDevice(LEAF1, VALID, VALID);
    OpenAll();
    Go();
    EXPECT_EQ(Writes(), (Strings{Request("Write", {LEAF1}, "16 0x100 " + test.spoilt + " 0x0 0x0"),
                                 Request("Write", {LEAF1}, "4 0x100 " + test.restored),
                                 Request("Write", {LEAF1}, "16 0x200 " + test.spoilt + " 0x0 0x0"),
                                 Request("Write", {LEAF1}, "4 0x200 " + test.restored)}));
  }
}

TEST_F(Rv61300Test, ImageInMemoryHasItsFirstBytesBackAfterEachSlot) {
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  Burn burn(*_rom, false);
  for (const u_int32_t slot : {0u, 1u}) {
    OutputOf([&] { EXPECT_EQ(burn.BurnImage(*_image, slot), BRAID_OK); });
    EXPECT_EQ(_image->GetSection(0x100)->data, Hex("0102030405060708 090a0b0c0d0e0f33"));
    EXPECT_EQ(_image->GetSection(0x120)->data, Hex("cafebabe 22222222"));
  }
  EXPECT_EQ(_rom->Requests(), FirstSlotWrites({LEAF1}) + SecondSlotWrites({LEAF1}));
}

TEST_F(Rv61300Test, SectionsOutsideTheImageAreNotBurnt) {
  // The image's sections are those in file order from its first address on, up to the second's.
  Load(
      "IMAGE 0 100 0\nIMAGE 1 200 0\n"
      "START BEFORE 40 0\n1 1 1 1\nEND BEFORE\n"
      "START BOOT 100 0\n1 2 3 4 5 6 7 8 9 A B C D E F 33\nEND BOOT\n"
      "START CODE 120 0\nCA FE BA BE 22 22 22 22\nEND CODE\n"
      "START OTHER 200 0\n2 2 2 2\nEND OTHER\n"
      "START AFTER 300 0\n3 3 3 3\nEND AFTER\n");
  AddDevice(LEAF1, VALID, INVALID);
  OpenAll();
  Go();
  EXPECT_EQ(_rom->Requests(),
            Queries({LEAF1}) + SecondSlotWrites({LEAF1}) + FirstSlotWrites({LEAF1}));
}

TEST_F(Rv61300Test, ImageWhoseOwnRecordIsNotValidIsBurntAsItIs) {
  Load("IMAGE 0 100 0\nIMAGE 1 200 0\nSTART A 100 0\n1 2 3 4\nEND A\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  Go();
  EXPECT_EQ(Writes(), (Strings{Request("Write", {LEAF1}, "4 0x100 0x102030e"),
                               Request("Write", {LEAF1}, "4 0x100 0x1020304"),
                               Request("Write", {LEAF1}, "4 0x200 0x102030e"),
                               Request("Write", {LEAF1}, "4 0x200 0x1020304")}));
}

// ---- Images that can't be burnt

TEST_F(Rv61300Test, ImageWithoutSlotAddressesIsRefusedBeforeTheFirstWrite) {
  const std::pair<std::string, std::string> cases[] = {{"", "0"}, {"IMAGE 0 100 0\n", "1"}};
  for (const auto& [directives, slot] : cases) {
    Serve();
    Load(directives + "START BOOT 100 0\n1 2 3 4\nEND BOOT\n");
    AddDevice(LEAF1, VALID, VALID);
    OpenAll();
    EXPECT_EQ(GoError(), "FwImage: Tried to access uninitiated field Image Addr[" + slot +
                             "] . Check file " + _image->GetFileName());
    EXPECT_TRUE(Writes().empty());
  }
}

TEST_F(Rv61300Test, ImageWithoutASectionAtItsAddressIsRefusedBeforeTheFirstWrite) {
  Load("IMAGE 0 100 0\nIMAGE 1 200 0\nSTART CODE 120 0\n1 2 3 4\nEND CODE\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  EXPECT_EQ(GoError(),
            "Can't find a sector addres that matches first image address (0x100. Check file \"" +
                _image->GetFileName() + "\" .");
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1}));
}

TEST_F(Rv61300Test, ImageWithoutImageSectionsIsRefusedBeforeTheFirstWrite) {
  Load("IMAGE 0 100 0\nIMAGE 1 100 0\nSTART BOOT 100 0\n1 2 3 4\nEND BOOT\n");
  AddDevice(LEAF1, VALID, VALID);
  OpenAll();
  EXPECT_THAT(GoError(), testing::HasSubstr(_image->GetFileName()));
  EXPECT_TRUE(Writes().empty());
}

TEST_F(Rv61300Test, FirstSectionOfLessThanFourBytesIsRefusedBeforeTheFirstWrite) {
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 3}) {
    Serve();
    AddDevice(LEAF1, VALID, VALID);
    AddDevice(LEAF2, VALID, INVALID);
    OpenAll();
    FwImage::Section section("BOOT", 0x100);
    section.data.assign(size, 0x11);
    FwImage::Section other("CODE", 0x120);
    other.data.assign(8, 0x22);
    FwImage image;
    image.SetSection(&section);
    image.SetSection(&other);
    image.SetImageAddr(0, 0x100);
    image.SetImageAddr(1, 0x200);
    std::string error;
    OutputOf([&] { error = ErrorOf([&] { Burn(*_rom, false).Go(image); }); });
    EXPECT_NE(error, "");
    EXPECT_NE(error, "(no error)");
    EXPECT_TRUE(Writes().empty());
    EXPECT_EQ(section.data, DataVec(size, 0x11));
    EXPECT_EQ(Memory(LEAF1), ChipOf(OldSlot(VALID), OldSlot(VALID)));
  }
}

TEST_F(Rv61300Test, AlgorithmIsCalledByItsName) {
  EXPECT_EQ(Burn(*_rom, false).GetName(), "RV61300FailsafeBurn");
}

}  // namespace
