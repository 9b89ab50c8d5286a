// Failsafe burns of several RV52100 devices at once: how they are grouped, what each of them gets,
// and what becomes of the others when one fails at any request.
#include "tests/support/rv52100_support.h"

using namespace rv52100;

namespace {

constexpr Guid LEAF4 = 0x4000;
constexpr Guid LEAF5 = 0x5000;
constexpr Guid LEAF6 = 0x6000;
constexpr Guid LEAF7 = 0x7000;
constexpr Guid LEAF8 = 0x8000;

constexpr char NO_MARKER[] = "Image on device is not failsafe. Can't perform failsafe burn";
constexpr char CHANGED[] =
    "Invariant sector on device differs from invariant sector in the given image. Can't perform "
    "failsafe burn";
constexpr char NONE_VALID[] = "Both images are invalid. Can't perform failsafe burn";

Contents WithChangedInvariant(Contents flash) {
  flash.Load(0, DataVec(36, 0x99));
  return flash;
}

Contents WithNewInvariant(Contents flash) {
  flash.Load(0, DataVec(SECTOR, 0xFF));
  flash.Load(0, NewInvariant());
  flash.Load(0x100, DataVec(8, 0x44));
  return flash;
}

const Step INVALIDATE_SECOND{"Write", 0x408, Hex(NOT_VALID)};

std::string Moving(Guid guid, const std::string& meters) {
  return Text(
      "-I- Device: ", std::hex, guid,
      ": New image too big to fit as first image. Moving image position on the device\n"
      "-D- BurnAlgorithm:522: Repairing device ",
      guid,
      "\n-D- BurnAlgorithm:544: Read PS from addr:400 - Addr: 800, Size: 10, Sig: cb84cb84\n"
      "-D- BurnAlgorithm:546: Reading image from addr: 800, Size: 10\n"
      "-I- Copying device image from address 800 to 600.\n",
      meters);
}

// ---- Devices in mixed states

class Rv52100DevicesTest : public Rv52100Test {
 protected:
  /// Devices in every state there is, and one that is not asked for.
  void OpenMixed() {
    AddDevice(LEAF1, OldFlash(NOT_VALID, VALID));
    AddDevice(LEAF2, OldFlash(VALID, VALID));
    Contents unmarked = OldFlash(VALID, NOT_VALID);
    unmarked.Load(0x24, Hex(ERASED));
    AddDevice(LEAF3, unmarked);
    AddDevice(LEAF4, OldFlash(VALID, NOT_VALID));
    AddDevice(LEAF5, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
    AddDevice(LEAF6, OldFlash(NOT_VALID, NOT_VALID));
    AddDevice(LEAF7, WithChangedInvariant(OldFlash(NOT_VALID, VALID)));
    AddDevice(LEAF8, OldFlash(VALID, VALID));
    AddDevice(0x9000, OldFlash(VALID, VALID));
    OpenFor({LEAF1, LEAF2, LEAF3, LEAF4, LEAF5, LEAF6, LEAF7, LEAF8});
  }

  /// What the mixed devices hold after a burn, whatever becomes of LEAF7.
  void ExpectMixedContents(const std::function<std::optional<Guid>(Guid)>& fields_of) {
    EXPECT_TRUE(Holds(LEAF1, After(OldFlash(NOT_VALID, VALID), SlotSteps(0, fields_of(LEAF1)))));
    EXPECT_TRUE(Holds(LEAF2, After(OldFlash(VALID, VALID),
                                   Steps{INVALIDATE_SECOND} + SlotSteps(1, fields_of(LEAF2)))));
    Contents unmarked = OldFlash(VALID, NOT_VALID);
    unmarked.Load(0x24, Hex(ERASED));
    EXPECT_TRUE(Holds(LEAF3, unmarked));
    EXPECT_TRUE(Holds(LEAF4, After(OldFlash(VALID, NOT_VALID), SlotSteps(1, fields_of(LEAF4)))));
    EXPECT_TRUE(Holds(LEAF5, After(OldFlash(NOT_VALID, VALID, IN_THE_WAY),
                                   MoveSteps() + SlotSteps(1, fields_of(LEAF5)))));
    EXPECT_TRUE(Holds(LEAF6, OldFlash(NOT_VALID, NOT_VALID)));
    EXPECT_TRUE(Holds(LEAF8, After(OldFlash(VALID, VALID),
                                   Steps{INVALIDATE_SECOND} + SlotSteps(1, fields_of(LEAF8)))));
    EXPECT_TRUE(Holds(0x9000, OldFlash(VALID, VALID)));
  }
};

TEST_F(Rv52100DevicesTest, EachDeviceGetsTheSlotThatItDoesNotUse) {
  OpenMixed();
  const GuidSet all{LEAF1, LEAF2, LEAF3, LEAF4, LEAF5, LEAF6, LEAF7, LEAF8};
  const GuidSet marked{LEAF1, LEAF2, LEAF4, LEAF5, LEAF6, LEAF7, LEAF8};
  const GuidSet same{LEAF1, LEAF2, LEAF4, LEAF5, LEAF6, LEAF8};
  const GuidSet second_only{LEAF1, LEAF5};
  const GuidSet to_second_slot{LEAF2, LEAF4, LEAF5, LEAF8};
  // Once a device has failed, percentages are padded with zeros. Counts are decimal again after
  // each query, and after each meter.
  EXPECT_EQ(Go(),
            Querying(all, "24", 4) + Failed(LEAF3, NO_MARKER) + Querying(marked, "0", 40) +
                Querying(marked, "100", 8) + Failed(LEAF7, CHANGED) +
                "-D- BurnAlgorithm:326: Reading signatures, fw size, fw addr for all devices.\n" +
                Querying(same, "208", 4) + Querying(same, "408", 4) +
                Counts("6", "2", "1", "1", "2") + Failed(LEAF6, NONE_VALID) +
                Querying({LEAF1}, "400", 4) +
                "-D- BurnAlgorithm:228: LessThan() : dw1 = a00 , dw2 = 808\n" +
                Querying({LEAF5}, "400", 4) +
                "-D- BurnAlgorithm:228: LessThan() : dw1 = 800 , dw2 = 808\n" +
                Moving(LEAF5, AfterFailure(MOVE_METERS)) + Burning("4") +
                AfterFailure(SECOND_SLOT_METERS) + Burning("1") + AfterFailure(FIRST_SLOT_METERS));
  const Strings invalidate = {Request("Write", {LEAF2, LEAF8}, "4 0x408 0x0")};
  EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery(all)} + InvariantQueries(marked) +
                                  SignatureQueries(same) + invalidate +
                                  Strings{SecondAddressQuery(second_only)} + MoveRequests(LEAF5) +
                                  SecondSlotRequests(to_second_slot) + FirstSlotRequests({LEAF1}));
  ExpectMixedContents([](Guid) { return std::nullopt; });
  EXPECT_TRUE(Holds(LEAF7, WithChangedInvariant(OldFlash(NOT_VALID, VALID))));
  EXPECT_EQ(_rom->_error_devs, (GuidSet{LEAF3, LEAF6, LEAF7}));
  EXPECT_EQ(_rom->GetAccessDevices(), (GuidSet{LEAF1, LEAF2, LEAF4, LEAF5, LEAF8}));
}

TEST_F(Rv52100DevicesTest, EachDeviceGetsItsOwnFieldsInWhicheverSlot) {
  Load(FieldsImage());
  OpenMixed();
  Go();
  ExpectMixedContents([](Guid guid) { return guid; });
  // Nothing of one device's fields is left in the image for the next.
  EXPECT_EQ(MemoryOf(_fabric, LEAF2, 0, 0xB40, 4), Hex("00007598"));
  EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x740, 4), Hex("00003254"));
}

TEST_F(Rv52100DevicesTest, ChangedDeviceIsBurntWithItsOwnInvariantSectorWhereItMayKeepIt) {
  OpenMixed();
  const std::string console = Go(false, true);
  EXPECT_NE(console.find(Counts("7", "2", "1", "1", "3")), std::string::npos) << console;
  ExpectMixedContents([](Guid) { return std::nullopt; });
  EXPECT_TRUE(Holds(LEAF7, After(WithChangedInvariant(OldFlash(NOT_VALID, VALID)), SlotSteps(0))));
  EXPECT_EQ(_rom->_error_devs, (GuidSet{LEAF3, LEAF6}));
}

TEST_F(Rv52100DevicesTest, OnlyTheChangedDeviceIsRewrittenWhereThatIsAllowed) {
  for (const bool allow_keeping_old_is : {false, true}) {
    Serve();
    Load(PlainImage());
    OpenMixed();
    const std::string console = Go(true, allow_keeping_old_is);
    EXPECT_NE(console.find("-I- Changes in invariant sector detected for 1 devices.\n"
                           "-I- Updating invariant sector (non failsafe) ...  Done.\n"),
              std::string::npos);
    EXPECT_NE(console.find(Counts("7", "2", "1", "1", "3")), std::string::npos) << console;
    ExpectMixedContents([](Guid) { return std::nullopt; });
    EXPECT_TRUE(Holds(LEAF7, WithNewInvariant(After(OldFlash(NOT_VALID, VALID), SlotSteps(0)))));
    const Strings requests = _rom->Requests();
    EXPECT_EQ(Strings(requests.begin() + 3, requests.begin() + 6),
              (Strings{Request("EraseSector", {LEAF7}, "0x0"),
                       Request("Write", {LEAF7}, "40 0x0" + Words(9, "0x33333333") + " 0xcb84cb84"),
                       Request("Write", {LEAF7}, "8 0x100 0x44444444 0x44444444")}));
    // And then all are asked again.
    EXPECT_EQ(requests[6],
              Request("Read", {LEAF1, LEAF2, LEAF4, LEAF5, LEAF6, LEAF7, LEAF8}, "4 0x208"));
  }
}

TEST_F(Rv52100DevicesTest, DevicesThatDifferInDifferentSectionsAreRewrittenTogether) {
  AddDevice(LEAF1, WithChangedInvariant(OldFlash(VALID, NOT_VALID)));
  AddDevice(LEAF2, OldFlash(VALID, NOT_VALID));
  Contents flash = OldFlash(VALID, NOT_VALID);
  flash.Load(0x100, DataVec(8, 0x99));
  AddDevice(LEAF3, flash);
  OpenAll();
  const std::string console = Go(true);
  EXPECT_NE(console.find("-I- Changes in invariant sector detected for 2 devices.\n"),
            std::string::npos);
  const Contents expected = After(OldFlash(VALID, NOT_VALID), SlotSteps(1));
  EXPECT_TRUE(Holds(LEAF1, WithNewInvariant(expected)));
  EXPECT_TRUE(Holds(LEAF2, expected));
  EXPECT_TRUE(Holds(LEAF3, WithNewInvariant(expected)));
}

TEST_F(Rv52100DevicesTest, ImagesInTheWayAreMovedOneDeviceAfterTheOther) {
  AddDevice(LEAF1, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  AddDevice(LEAF2, OldFlash(NOT_VALID, VALID));
  AddDevice(LEAF3, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  OpenAll();
  EXPECT_EQ(Go(), QueriesShown({LEAF1, LEAF2, LEAF3}) + Counts("3", "0", "0", "0", "3") +
                      Querying({LEAF1}, "400", 4) +
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = 800 , dw2 = 808\n" +
                      Querying({LEAF2}, "400", 4) +
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = a00 , dw2 = 808\n" +
                      Querying({LEAF3}, "400", 4) +
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = 800 , dw2 = 808\n" +
                      Moving(LEAF1, MOVE_METERS) + Moving(LEAF3, MOVE_METERS) + Burning("2") +
                      SECOND_SLOT_METERS + Burning("1") + FIRST_SLOT_METERS);
  EXPECT_EQ(_rom->Requests(), Queries({LEAF1, LEAF2, LEAF3}) +
                                  Strings{SecondAddressQuery({LEAF1, LEAF2, LEAF3})} +
                                  MoveRequests(LEAF1) + MoveRequests(LEAF3) +
                                  SecondSlotRequests({LEAF1, LEAF3}) + FirstSlotRequests({LEAF2}));
  for (const Guid guid : {LEAF1, LEAF3}) {
    EXPECT_TRUE(
        Holds(guid, After(OldFlash(NOT_VALID, VALID, IN_THE_WAY), MoveSteps() + SlotSteps(1))));
  }
  EXPECT_TRUE(Holds(LEAF2, After(OldFlash(NOT_VALID, VALID), SlotSteps(0))));
}

TEST_F(Rv52100DevicesTest, EveryFailedDeviceIsToldAndTheLastOneEndsTheRun) {
  AddDevice(LEAF1, OldFlash(NOT_VALID, NOT_VALID));
  AddDevice(LEAF2, WithChangedInvariant(OldFlash(VALID, VALID)));
  AddDevice(LEAF3, OldFlash(NOT_VALID, NOT_VALID));
  OpenAll();
  std::string console;
  EXPECT_EQ(GoError(console), "No more accessible devices");
  EXPECT_TRUE(console.ends_with(Counts("2", "0", "2", "0", "0") + Failed(LEAF1, NONE_VALID) +
                                Failed(LEAF3, NONE_VALID)))
      << console;
  EXPECT_EQ(Changes(), Strings{});
}

// ---- The base that numbers are shown in

class Rv52100ConsoleTest : public Rv52100Test {
 protected:
  void Add(Guid first, int count, const Contents& flash) {
    for (int i = 0; i < count; ++i) AddDevice(first + static_cast<Guid>(i) * 0x10, flash);
  }
  static std::string BurnLines(const std::string& console) {
    std::string found;
    std::istringstream lines(console);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("-I- Burning new FW")) found += line + "\n";
    }
    return found;
  }
};

TEST_F(Rv52100ConsoleTest, CountsAreDecimalAfterAQuery) {
  Add(0x1000, 10, OldFlash(VALID, NOT_VALID));
  Add(0x2000, 12, OldFlash(VALID, VALID));
  OpenAll();
  const std::string console = Go();
  EXPECT_NE(console.find(Counts("22", "12", "0", "10", "0")), std::string::npos) << console;
  EXPECT_EQ(BurnLines(console), Burning("22"));
}

TEST_F(Rv52100ConsoleTest, CountOfTheFirstBurnIsHexadecimalAfterTheComparedWords) {
  Add(0x1000, 10, OldFlash(VALID, NOT_VALID));
  Add(0x2000, 11, OldFlash(NOT_VALID, VALID));
  OpenAll();
  // The meters of the first burn make the second count decimal again.
  EXPECT_EQ(BurnLines(Go()), Burning("a") + Burning("11"));
}

TEST_F(Rv52100ConsoleTest, CountIsDecimalAfterTheMetersOfAMove) {
  Add(0x1000, 10, OldFlash(VALID, NOT_VALID));
  Add(0x2000, 1, OldFlash(NOT_VALID, VALID, IN_THE_WAY));
  OpenAll();
  EXPECT_EQ(BurnLines(Go()), Burning("11"));
}

TEST_F(Rv52100ConsoleTest, CountIsHexadecimalAfterAFailureLine) {
  Add(0x1000, 10, OldFlash(VALID, NOT_VALID));
  Add(0x2000, 1, OldFlash(NOT_VALID, NOT_VALID));
  OpenAll();
  const std::string console = Go();
  EXPECT_NE(console.find(Counts("11", "0", "1", "10", "0")), std::string::npos) << console;
  EXPECT_EQ(BurnLines(console), Burning("a"));
}

TEST_F(Rv52100ConsoleTest, CountIsHexadecimalAfterAMoveThatIsRefused) {
  Add(0x1000, 10, OldFlash(VALID, NOT_VALID));
  Add(0x2000, 1, OldFlash(NOT_VALID, VALID, 0x600));
  OpenAll();
  EXPECT_EQ(BurnLines(Go()), Burning("a"));
}

TEST_F(Rv52100ConsoleTest, CountOfChangedDevicesIsDecimal) {
  Add(0x1000, 10, WithChangedInvariant(OldFlash(VALID, NOT_VALID)));
  OpenAll();
  EXPECT_NE(Go(true).find("-I- Changes in invariant sector detected for 10 devices.\n"),
            std::string::npos);
}

// ---- A device that fails

/// One device among others in every state that is burnt; the image has all fields.
class Rv52100FaultTest : public Rv52100Test {
 protected:
  Rv52100FaultTest() { Load(FieldsImage()); }

  struct Victim {
    Guid guid;
    Contents flash;
    Steps steps;  ///< of its burn, after the queries
  };

  static std::vector<Victim> Victims() {
    return {
        {LEAF1, OldFlash(VALID, VALID), Steps{INVALIDATE_SECOND} + SlotSteps(1, LEAF1)},
        {LEAF2, OldFlash(VALID, NOT_VALID), SlotSteps(1, LEAF2)},
        {LEAF3, OldFlash(NOT_VALID, VALID), Steps{{"Read", 0, {}}} + SlotSteps(0, LEAF3)},
        {LEAF4, OldFlash(NOT_VALID, VALID, IN_THE_WAY),
         Steps{{"Read", 0, {}}} + MoveSteps() + SlotSteps(1, LEAF4)},
    };
  }

  void OpenVictims(const std::vector<Victim>& victims) {
    _rom.reset();
    Serve();
    Load(FieldsImage());
    for (const Victim& victim : victims) AddDevice(victim.guid, victim.flash);
    OpenAll();
  }

  void ExpectOthersBurnt(const Victim& failed) {
    for (const Victim& other : Victims()) {
      if (other.guid == failed.guid) continue;
      EXPECT_TRUE(Holds(other.guid, After(other.flash, other.steps)));
    }
    EXPECT_EQ(_rom->_error_devs, GuidSet{failed.guid});
  }

  /// A second address that can't be read stops the program, and a refused serial number, whose
  /// answer names no device's element, the run.
  static bool HasATestOfItsOwn(const Steps& steps, std::size_t step) {
    return (step == 0 && steps[step].command == "Read") || steps[step].command == "BSNGet";
  }

  bool HasValidImage(Guid guid) const {
    return MemoryOf(_fabric, guid, 0, 0x208, 4) == Hex(VALID) ||
           MemoryOf(_fabric, guid, 0, 0x408, 4) == Hex(VALID);
  }

  /// Where in its like the step stands, from 1; the queries before the burn read five times.
  static u_int32_t Nth(const Steps& steps, std::size_t step) {
    u_int32_t nth = steps[step].command == "Read" ? 5 : 0;
    for (std::size_t i = 0; i <= step; ++i) nth += steps[i].command == steps[step].command;
    return nth;
  }
};

TEST_F(Rv52100FaultTest, DeviceThatFailsAtAnyStepIsLeftThereAndTheOthersAreBurnt) {
  std::size_t tried = 0;
  for (const Victim& victim : Victims()) {
    for (std::size_t step = 0; step < victim.steps.size(); ++step) {
      if (HasATestOfItsOwn(victim.steps, step)) continue;
      SCOPED_TRACE(Text(std::hex, victim.guid, " at step ", std::dec, step, ": ",
                        victim.steps[step].command, " ", std::hex, victim.steps[step].addr));
      OpenVictims(Victims());
      Refuse(victim.guid, victim.steps[step].command, Nth(victim.steps, step));
      const std::string console = Go();
      const std::string failure = Failed(victim.guid, "stuck");
      const std::size_t at = console.find(failure);
      ASSERT_NE(at, std::string::npos) << console;
      EXPECT_EQ(console.find("BURN FAILED", at + failure.size()), std::string::npos) << console;
      EXPECT_TRUE(Holds(victim.guid, After(victim.flash, victim.steps, step)));
      EXPECT_TRUE(HasValidImage(victim.guid));
      ExpectOthersBurnt(victim);
      ExpectNoMeter();
      ++tried;
    }
  }
  EXPECT_EQ(tried, 18u + 17 + 17 + 27);
}

TEST_F(Rv52100FaultTest, DeviceThatFailsAloneEndsTheRunAtThatStep) {
  for (const Victim& victim : Victims()) {
    for (std::size_t step = 0; step < victim.steps.size(); ++step) {
      if (HasATestOfItsOwn(victim.steps, step)) continue;
      SCOPED_TRACE(Text(std::hex, victim.guid, " at step ", std::dec, step));
      OpenVictims({victim});
      Refuse(victim.guid, victim.steps[step].command, Nth(victim.steps, step));
      std::string console;
      EXPECT_EQ(GoError(console), "No more accessible devices");
      EXPECT_TRUE(console.ends_with(Failed(victim.guid, "stuck"))) << console;
      EXPECT_TRUE(Holds(victim.guid, After(victim.flash, victim.steps, step)));
      // What fails is the last that is asked: five queries come before the steps.
      EXPECT_EQ(_rom->Requests().size(), 5 + step + 1);
      ExpectNoMeter();
    }
  }
}

TEST_F(Rv52100FaultTest, RefusedSerialNumberEndsTheRunOfAllAndLeavesEachAValidImage) {
  for (const Victim& victim : Victims()) {
    SCOPED_TRACE(Text(std::hex, victim.guid));
    OpenVictims(Victims());
    Refuse(victim.guid, "BSNGet", 1);
    std::string console;
    EXPECT_EQ(GoError(console), "No more accessible devices");
    EXPECT_TRUE(console.ends_with("\r-E- BURN FAILED:ALL:stuck\n")) << console;
    std::size_t step = 0;
    while (victim.steps[step].command != "BSNGet") ++step;
    EXPECT_TRUE(Holds(victim.guid, After(victim.flash, victim.steps, step)));
    for (const Victim& other : Victims()) EXPECT_TRUE(HasValidImage(other.guid));
    ExpectNoMeter();
  }
}

// ---- Queries that fail

TEST_F(Rv52100FaultTest, DeviceWhoseMarkerCantBeReadEndsTheRunOfAllBeforeAnyWrite) {
  OpenVictims(Victims());
  Refuse(LEAF2, "Read", 1);
  std::string console;
  EXPECT_EQ(GoError(console),
            std::string("DeviceError(): 0x2000: No such device. (error: ") + NO_MARKER + ").");
  EXPECT_EQ(console, Failed(LEAF2, "stuck") + Querying({LEAF1, LEAF2, LEAF3, LEAF4}, "24", 4));
  EXPECT_EQ(_rom->Requests(), Strings{MarkerQuery({LEAF1, LEAF2, LEAF3, LEAF4})});
}

TEST_F(Rv52100FaultTest, DeviceWhoseInvariantSectorCantBeReadEndsTheRunOfAllBeforeAnyWrite) {
  for (const u_int32_t nth : {2u, 3u}) {
    OpenVictims(Victims());
    Refuse(LEAF3, "Read", nth);
    EXPECT_EQ(GoError(),
              std::string("DeviceError(): 0x3000: No such device. (error: ") + CHANGED + ").");
    EXPECT_EQ(Changes(), Strings{});
  }
}

TEST_F(Rv52100FaultTest, DeviceWhoseInvariantSectorCantBeReadIsLeftOutWhereItMayDiffer) {
  for (const bool allow_non_fs_burn : {false, true}) {
    for (const u_int32_t nth : {2u, 3u}) {
      OpenVictims(Victims());
      Refuse(LEAF3, "Read", nth);
      const std::string console = Go(allow_non_fs_burn, true);
      // The rewrite finds nobody left to write to.
      EXPECT_EQ(console.find("-I- Changes in invariant sector detected for 0 devices.\n"
                             "-I- Updating invariant sector (non failsafe) ...  Done.\n") !=
                    std::string::npos,
                allow_non_fs_burn)
          << console;
      EXPECT_NE(console.find(Counts("3", "1", "0", "1", "1")), std::string::npos) << console;
      EXPECT_TRUE(Holds(LEAF3, OldFlash(NOT_VALID, VALID)));
      ExpectOthersBurnt(Victims()[2]);
    }
  }
}

TEST_F(Rv52100FaultTest, DeviceThatFailsTheRewriteOfItsInvariantSectorIsLeftThere) {
  const std::pair<std::string, u_int32_t> cases[] = {
      {"EraseSector", 1}, {"Write", 1}, {"Write", 2}};
  Contents expected[] = {WithChangedInvariant(OldFlash(VALID, NOT_VALID)),
                         WithChangedInvariant(OldFlash(VALID, NOT_VALID)),
                         WithChangedInvariant(OldFlash(VALID, NOT_VALID))};
  expected[1].Erase(0);
  expected[2].Erase(0);
  expected[2].Program(0, NewInvariant());
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    for (const bool is_alone : {false, true}) {
      Serve();
      Load(PlainImage());
      AddDevice(LEAF1, WithChangedInvariant(OldFlash(VALID, NOT_VALID)));
      if (!is_alone) AddDevice(LEAF2, WithChangedInvariant(OldFlash(VALID, NOT_VALID)));
      OpenAll();
      Refuse(LEAF1, cases[i].first, cases[i].second);
      std::string console;
      EXPECT_EQ(GoError(console, true), is_alone ? "No more accessible devices" : "(no error)");
      EXPECT_NE(console.find("-I- Updating invariant sector (non failsafe) ... " +
                             Failed(LEAF1, "stuck") + (is_alone ? "" : " Done.\n")),
                std::string::npos)
          << console;
      EXPECT_TRUE(Holds(LEAF1, expected[i]));
      if (is_alone) continue;
      EXPECT_TRUE(Holds(LEAF2, WithNewInvariant(After(OldFlash(VALID, NOT_VALID), SlotSteps(1)))));
    }
  }
}

TEST_F(Rv52100FaultTest, DeviceWhoseSignatureCantBeReadIsLeftOutUntouched) {
  // The first signature unread, a device counts nowhere. The second unread, it counts by its first
  // alone, though it is gone by then.
  struct Case {
    Guid guid;
    u_int32_t nth;
    std::string counts;
  };
  const Case cases[] = {
      {LEAF1, 4, Counts("3", "0", "0", "1", "2")}, {LEAF2, 4, Counts("3", "1", "0", "0", "2")},
      {LEAF3, 4, Counts("3", "1", "0", "1", "1")}, {LEAF4, 4, Counts("3", "1", "0", "1", "1")},
      {LEAF1, 5, Counts("3", "0", "0", "2", "2")}, {LEAF2, 5, Counts("3", "1", "0", "1", "2")},
      {LEAF3, 5, Counts("3", "1", "0", "1", "1")}, {LEAF4, 5, Counts("3", "1", "0", "1", "1")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Text(std::hex, c.guid, " ", c.nth));
    OpenVictims(Victims());
    Refuse(c.guid, "Read", c.nth);
    const std::string console = Go();
    EXPECT_NE(console.find(c.counts), std::string::npos) << console;
    const Victim victim = Victims().at(static_cast<std::size_t>((c.guid >> 12) - 1));
    EXPECT_TRUE(Holds(c.guid, victim.flash));
    ExpectOthersBurnt(victim);
  }
}

TEST_F(Rv52100FaultTest, DeviceThatFailsAnyQueryAloneEndsTheRunBeforeAnyWrite) {
  for (const Victim& victim : Victims()) {
    for (u_int32_t nth = 1; nth <= 5; ++nth) {
      OpenVictims({victim});
      Refuse(victim.guid, "Read", nth);
      std::string console;
      EXPECT_EQ(GoError(console, true, true), "No more accessible devices");
      EXPECT_TRUE(console.ends_with(Failed(victim.guid, "stuck"))) << console;
      EXPECT_EQ(Changes(), Strings{});
      EXPECT_TRUE(Holds(victim.guid, victim.flash));
    }
  }
}

TEST_F(Rv52100FaultTest, DeviceWhoseSecondAddressCantBeReadStopsTheProgram) {
  OpenVictims(Victims());
  Refuse(LEAF3, "Read", 6);
  EXPECT_EXIT(
      {
        std::cout.rdbuf(nullptr);  // the queries are of no interest here
        Burn(*_rom, true, false).Go(*_image);
      },
      testing::KilledBySignal(SIGABRT), "d1.size\\(\\) == 4");
}

// ---- Who is left when a group has lost its only device

TEST_F(Rv52100Test, GroupThatHasLostItsOnlyDeviceIsBurntForNobody) {
  AddDevice(LEAF1, OldFlash(VALID, VALID));
  AddDevice(LEAF2, OldFlash(NOT_VALID, VALID));
  OpenAll();
  Refuse(LEAF1, "Write", 1);
  EXPECT_EQ(Go(), QueriesShown({LEAF1, LEAF2}) + Counts("2", "1", "0", "0", "1") +
                      Failed(LEAF1, "stuck") + Querying({LEAF2}, "400", 4) +
                      "-D- BurnAlgorithm:228: LessThan() : dw1 = a00 , dw2 = 808\n" + Burning("0") +
                      AfterFailure(SECOND_SLOT_METERS) + Burning("1") +
                      AfterFailure(FIRST_SLOT_METERS));
  EXPECT_EQ(Changes(),
            Strings{Request("Write", {LEAF1}, "4 0x408 0x0")} + FirstSlotRequests({LEAF2}));
  EXPECT_TRUE(Holds(LEAF1, OldFlash(VALID, VALID)));
  EXPECT_TRUE(Holds(LEAF2, After(OldFlash(NOT_VALID, VALID), SlotSteps(0))));
}

TEST_F(Rv52100Test, MoveThatFailsLeavesTheNextDevicesMoveItsErase) {
  // What was erased for the device that is gone must not count as erased for the next one.
  const Contents flash = OldFlash(NOT_VALID, VALID, IN_THE_WAY);
  const std::pair<std::string, u_int32_t> cases[] = {
      {"Read", 7},        {"Read", 8},  {"Write", 1}, {"EraseSector", 1}, {"Write", 2},
      {"EraseSector", 2}, {"Write", 3}, {"Write", 4}, {"Write", 5},       {"Write", 6},
  };
  for (const auto& [command, nth] : cases) {
    SCOPED_TRACE(command + " " + std::to_string(nth));
    Serve();
    Load(PlainImage());
    AddDevice(LEAF1, flash);
    AddDevice(LEAF2, flash);
    OpenAll();
    Refuse(LEAF1, command, nth);
    Go();
    EXPECT_TRUE(Holds(LEAF2, After(flash, MoveSteps() + SlotSteps(1))));
    // Whatever its copy came to, the failed one has its original.
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x400, 264), OldRecord(IN_THE_WAY, OLD_SIZE, VALID));
    EXPECT_EQ(MemoryOf(_fabric, LEAF1, 0, 0x800, OLD_SIZE), DataVec(OLD_SIZE, 0xC1));
  }
}

TEST_F(Rv52100Test, EraseThatFailsRightAfterAnothersWriteReportsThatOneAgainAndEndsTheRun) {
  // An erase leaves the results of the write before it, and their errors, in place.
  AddDevice(LEAF1, OldFlash(VALID, NOT_VALID));
  AddDevice(LEAF2, OldFlash(VALID, NOT_VALID));
  AddDevice(LEAF3, OldFlash(VALID, NOT_VALID));
  OpenAll();
  Refuse(LEAF1, "Write", 1);
  Refuse(LEAF2, "EraseSector", 1);
  std::string console;
  EXPECT_EQ(GoError(console), "DeviceError(): 0x1000: No such device. (error: stuck).");
  // None of them has lost its image.
  EXPECT_TRUE(Holds(LEAF1, OldFlash(VALID, NOT_VALID)));
  EXPECT_TRUE(Holds(LEAF2, OldFlash(VALID, NOT_VALID)));
  Contents erased = OldFlash(VALID, NOT_VALID);
  erased.Erase(0xA00);
  EXPECT_TRUE(Holds(LEAF3, erased));
  ExpectNoMeter();
}

}  // namespace
