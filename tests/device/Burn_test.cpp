#include "device/Burn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/device/images.h"

namespace device {
namespace {

using testing::ElementsAre;

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const BurnError& error) {
    return error.what();
  }
  return "(no error)";
}

/// What a burn of `image` leaves of `before`; it must go well.
Memory Burnt(const Image& image, BurnKind kind, const Memory& before) {
  const Outcome outcome = Burn(image, kind, SomeDevice()).After(before);
  EXPECT_EQ(outcome.refusal, "");
  EXPECT_FALSE(outcome.ends_run);
  return outcome.memory;
}

// ---- What a device has of its own

TEST(IdentityTest, GuidsAreNodePortsAndSystem) {
  EXPECT_EQ(SomeDevice().Value(FieldType::GUIDS),
            (Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0, 0, 0, 0, 0, 0, 0, 0xA1,
                   0,    0,    0,    0,    0,    0,    0,    0xA2, 0, 0, 0, 0, 0, 0, 0, 0x5F}));
}

TEST(IdentityTest, EachFieldHasItsOwnBytes) {
  const Identity device = SomeDevice();
  const Bytes node = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  const Bytes system = {0, 0, 0, 0, 0, 0, 0, 0x5F};
  EXPECT_EQ(device.Value(FieldType::SIGNATURE), (Bytes{0xCB, 0x84, 0xCB, 0x84}));
  EXPECT_EQ(device.Value(FieldType::GUID), node);
  EXPECT_EQ(device.Value(FieldType::SYS_GUID), system);
  EXPECT_EQ(device.Value(FieldType::BSN), Bytes(64, 0xB5));
  EXPECT_EQ(device.Value(FieldType::VSD), Bytes(208, 0xD5));
}

TEST(DeviceTypeTest, OnlyItsKeywordFindsAType) {
  EXPECT_EQ(FindDeviceType("RV61100")->number, 61100u);
  EXPECT_EQ(FindDeviceType("rv61100"), nullptr);
  EXPECT_EQ(FindDeviceType(""), nullptr);
  EXPECT_EQ(BsnWarning(*FindDeviceType("RV61100")),
            "-W- *** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE 61100 ***");
}

TEST(IdentityTest, ASecondPortThatIsMissingFollowsTheFirst) {
  Identity identity = SomeDevice();
  identity.ports = {0xA1FF};
  identity.declared_ports = 1;
  const Bytes value = identity.Value(FieldType::GUIDS);
  EXPECT_EQ(Bytes(value.begin() + 16, value.begin() + 24), (Bytes{0, 0, 0, 0, 0, 0, 0xA2, 0}));
}

TEST(IdentityTest, NoGuidsForOtherThanOneOrTwoPorts) {
  Identity identity = SomeDevice();
  identity.declared_ports = 1;
  EXPECT_EQ(ErrorOf([&] { identity.Value(FieldType::GUIDS); }),
            "the device declares 1 ports and has 2 port GUIDs");
  identity.ports = {1, 2, 3};
  identity.declared_ports = 3;
  EXPECT_EQ(ErrorOf([&] { identity.Value(FieldType::GUIDS); }),
            "the GUIDS of a device with 3 ports: it must have 1 or 2");
  EXPECT_EQ(identity.Value(FieldType::SYS_GUID), (Bytes{0, 0, 0, 0, 0, 0, 0, 0x5F}));
}

// ---- Plain burns

Image PlainImage(Bytes data) {
  Image image;
  image.type = FindDeviceType("RV61100");
  AddSection(image, 4, std::move(data));
  return image;
}

TEST(PlainBurnTest, WritesEachSectionWhereItStands) {
  Image image = PlainImage(Bytes(4, 0x11));
  AddSection(image, 12, Bytes(4, 0x22));
  const Memory after = Burnt(image, BurnKind::FAILSAFE, {Bytes(20, 0xEE), 0});
  EXPECT_EQ(after.bytes, Joined({Bytes(4, 0xEE), Bytes(4, 0x11), Bytes(4, 0xEE), Bytes(4, 0x22),
                                 Bytes(4, 0xEE)}));
}

TEST(PlainBurnTest, FillsFieldsAndCrcsButNotVendorDataAndSignatures) {
  Image image = PlainImage(Bytes(0x100, 0x11));
  image.fields = {{FieldType::GUID, 4}, {FieldType::VSD, 0x10}, {FieldType::SIGNATURE, 0xE4}};
  image.crcs = {{4, 8, 0xE8}};
  const Memory after = Burnt(image, BurnKind::PLAIN, {Bytes(0x104, 0xEE), 0});
  Bytes expected(0x104, 0x11);
  Put(expected, 0, Bytes(4, 0xEE));
  Put(expected, 4, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
  Put(expected, 0xE8, Word(CrcOf(Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88})));
  EXPECT_EQ(after.bytes, expected);
}

TEST(PlainBurnTest, AFailsafeTypeIsBurntPlainlyWhenAsked) {
  const Image image = RecordImage(0x22);
  Memory expected{Bytes(0x100, 0xEE), 0};
  Put(expected.bytes, 0, RecordAndMore(0x22));
  EXPECT_EQ(Burnt(image, BurnKind::PLAIN, {Bytes(0x100, 0xEE), 0}).bytes, expected.bytes);
}

TEST(PlainBurnTest, AFlashIsErasedSectorBySector) {
  Image image = PlainImage(Bytes(4, 0x11));
  image.sections[0].addr = 0;
  AddSection(image, 8, Bytes(4, 0x22));
  const Memory after = Burnt(image, BurnKind::PLAIN, {Bytes(0x40, 0x00), 0x20});
  EXPECT_EQ(after.bytes, Joined({Bytes(4, 0x11), Bytes(4, 0xFF), Bytes(4, 0x22), Bytes(0x14, 0xFF),
                                 Bytes(0x20, 0x00)}));
}

TEST(PlainBurnTest, ASectionThatBeginsInsideASectorOfItsOwnEndsTheRun) {
  const Image image = PlainImage(Bytes(4, 0x11));
  const Outcome outcome =
      Burn(image, BurnKind::PLAIN, SomeDevice()).After({Bytes(0x40, 0x00), 0x20});
  EXPECT_EQ(outcome.refusal, "it cannot erase at address 4, where no sector begins");
  EXPECT_TRUE(outcome.ends_run);
  EXPECT_EQ(outcome.memory.bytes, Bytes(0x40, 0x00));
}

TEST(PlainBurnTest, AnAddressThatComesAgainIsWrittenAgainWithTheFirstBytes) {
  Image image = PlainImage(Bytes(4, 0x11));
  AddSection(image, 0, Bytes(12, 0x22));
  AddSection(image, 4, Bytes(4, 0x33));
  ASSERT_THAT(image.order, ElementsAre(0, 1, 0));
  const Memory after = Burnt(image, BurnKind::PLAIN, {Bytes(12, 0xEE), 0});
  EXPECT_EQ(after.bytes, Joined({Bytes(4, 0x22), Bytes(4, 0x11), Bytes(4, 0x22)}));
}

TEST(PlainBurnTest, ACrcMayStandBeforeItsSection) {
  Image image = PlainImage(Bytes(4, 0x11));
  AddSection(image, 8, Bytes(4, 0x00));
  image.crcs = {{8, 4, 4}};
  const Memory after = Burnt(image, BurnKind::PLAIN, {Bytes(12, 0xEE), 0});
  EXPECT_EQ(after.bytes, Joined({Bytes(4, 0xEE), Word(0x0009), Bytes(4, 0x00)}));
}

TEST(PlainBurnTest, WhatReachesPastItsSectionEndsTheRun) {
  Image image = PlainImage(Bytes(8, 0x11));
  image.fields = {{FieldType::GUID, 8}};
  const Burn burn(image, BurnKind::PLAIN, SomeDevice());
  const Memory before{Bytes(12, 0xEE), 0};
  EXPECT_EQ(burn.After(before).refusal,
            "Replace field (from:8, type:3) crosses image section (addr:4 , size:8).");
  image.crcs = {{4, 8, 12}};
  EXPECT_EQ(burn.After(before).refusal,
            "Replace CRC (from:4, size:8) crosses image section (addr:4 , size:8).");
  EXPECT_EQ(burn.After(before).memory.bytes, before.bytes);
  image.crcs.clear();
  image.fields = {{FieldType::GUID, 0}};  // begins before the section: passed over
  EXPECT_EQ(burn.After(before).refusal, "");
}

TEST(PlainBurnTest, ACrcOverABrokenWordEndsTheRun) {
  Image image = PlainImage(Bytes(8, 0x11));
  image.crcs = {{4, 6, 8}};
  const Outcome outcome = Burn(image, BurnKind::PLAIN, SomeDevice()).After({Bytes(12, 0), 0});
  EXPECT_EQ(outcome.refusal, "a CRC covers 6 bytes, which are no whole words");
  EXPECT_TRUE(outcome.ends_run);
}

TEST(PlainBurnTest, ACrcThatCrossesItsSectionIsToldBeforeOneOverABrokenWord) {
  Image image = PlainImage(Bytes(8, 0x11));
  image.crcs = {{4, 6, 8}, {8, 8, 8}};
  EXPECT_EQ(Burn(image, BurnKind::PLAIN, SomeDevice()).After({Bytes(12, 0), 0}).refusal,
            "Replace CRC (from:8, size:8) crosses image section (addr:4 , size:8).");
}

TEST(PlainBurnTest, AValueOfAnotherSizeThanItsFieldEndsTheRun) {
  Image image = PlainImage(Bytes(80, 0x11));
  image.fields = {{FieldType::BSN, 4}};
  Identity device = SomeDevice();
  device.bsn.resize(60);
  const Outcome outcome = Burn(image, BurnKind::PLAIN, device).After({Bytes(100, 0), 0});
  EXPECT_EQ(outcome.refusal, "the device's BSN has 60 bytes, the image needs 64");
  EXPECT_TRUE(outcome.ends_run);
}

TEST(PlainBurnTest, NothingIsWrittenPastTheLastAddress) {
  Image image = PlainImage(Bytes(8, 0x11));
  image.sections[0].addr = 0xFFFFFFFC;
  const Outcome outcome = Burn(image, BurnKind::PLAIN, SomeDevice()).After({Bytes(12, 0), 0});
  EXPECT_EQ(outcome.refusal, "it would write past the last address");
  EXPECT_TRUE(outcome.ends_run);
}

TEST(PlainBurnTest, ADeviceThatIsTooSmallRefuses) {
  const Outcome outcome =
      Burn(PlainImage(Bytes(8, 0x11)), BurnKind::PLAIN, SomeDevice()).After({Bytes(8, 0xEE), 0});
  EXPECT_EQ(outcome.refusal, "Address out of range");
  EXPECT_FALSE(outcome.ends_run);
}

TEST(PlainBurnTest, ItsStepsAreItsSectionsAndTheirCrcs) {
  Image image = PlainImage(Bytes(4, 0x11));
  AddSection(image, 8, Bytes(4, 0x22));
  image.crcs = {{8, 4, 4}};
  const Memory before{Bytes(12, 0xEE), 0};
  const std::vector<Step> steps = Burn(image, BurnKind::PLAIN, SomeDevice()).Steps(before, {});
  ASSERT_EQ(steps.size(), 2u);
  EXPECT_THAT(steps[0].ranges, ElementsAre(Range{4, 4}));
  EXPECT_THAT(steps[1].ranges, ElementsAre(Range{8, 4}, Range{4, 4}));
}

// ---- Devices with boot records

std::vector<std::string> NamesOf(const std::vector<Step>& steps) {
  std::vector<std::string> names;
  for (const Step& step : steps) names.push_back(step.name);
  return names;
}

TEST(RecordBurnTest, LeavesTheImageInBothSlots) {
  Memory before{Bytes(0x100, 0xEE), 0};
  Put(before.bytes, 0x80, RecordAndMore(0x11));
  Memory expected = before;
  Put(expected.bytes, 0, RecordAndMore(0x22));
  Put(expected.bytes, 0x80, RecordAndMore(0x22));
  EXPECT_EQ(Burnt(RecordImage(0x22), BurnKind::FAILSAFE, before).bytes, expected.bytes);
}

TEST(RecordBurnTest, TheSlotThatIsNeededToBootComesLast) {
  const Image image = RecordImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory memory{Bytes(0x100, 0x00), 0};
  EXPECT_EQ(burn.PlanFor(memory, {}).refusal,
            "Both images are invalid - Can't perform failsafe burn.");
  memory.bytes[3] = 0xAB;
  EXPECT_THAT(burn.PlanFor(memory, {}).slots, ElementsAre(1, 0));
  memory.bytes[0x83] = 0xAB;
  EXPECT_THAT(burn.PlanFor(memory, {}).slots, ElementsAre(0, 1));
  memory.bytes[3] = 0;
  EXPECT_THAT(burn.PlanFor(memory, {}).slots, ElementsAre(0, 1));
  EXPECT_THAT(NamesOf(burn.Steps(memory, {})),
              ElementsAre("writing section S0 at 0", "validating slot 0",
                          "writing section S0 at 80", "validating slot 1"));
}

TEST(RecordBurnTest, ADeviceWithNothingValidIsLeftAlone) {
  const Memory before{Bytes(0x100, 0xEE), 0};
  const Outcome outcome = Burn(RecordImage(0x22), BurnKind::FAILSAFE, SomeDevice()).After(before);
  EXPECT_EQ(outcome.refusal, "Both images are invalid - Can't perform failsafe burn.");
  EXPECT_EQ(outcome.memory.bytes, before.bytes);
}

TEST(RecordBurnTest, ACrcOverTheRecordIsComputedWhileItIsSpoilt) {
  Image image = RecordImage(0x00);
  image.crcs = {{0, 4, 0x1C}};
  Memory before{Bytes(0x100, 0xEE), 0};
  Put(before.bytes, 0x80, RecordAndMore(0x11));
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  EXPECT_TRUE(burn.HasCrcOverDeferredBytes());
  const Memory after = burn.After(before).memory;
  EXPECT_EQ(after.Word(0), 0xABu);
  EXPECT_EQ(after.Word(0x1C), CrcOf(Bytes{0, 0, 0, 0xB5}));
  Memory filled = before;
  burn.Fill(filled, {.slot = 0});
  EXPECT_EQ(filled.Word(0x1C), CrcOf(Bytes{0, 0, 0, 0xAB}));
}

TEST(RecordBurnTest, AFieldOfOneSlotIsLeftInTheOther) {
  Image image = RecordImage(0x22);
  image.fields = {{FieldType::GUID, 0x10}};
  Memory before{Bytes(0x100, 0xEE), 0};
  Put(before.bytes, 0x80, RecordAndMore(0x11));
  const Memory after = Burnt(image, BurnKind::FAILSAFE, before);
  EXPECT_EQ(after.Part(0x10, 8), SomeDevice().Value(FieldType::GUID));
  EXPECT_EQ(after.Part(0x90, 8), SomeDevice().Value(FieldType::GUID));
  Put(before.bytes, 0, RecordAndMore(0x11));
  Put(before.bytes, 0x80, Bytes(16, 0));
  // Now the second slot goes first, and nobody has put anything there yet.
  EXPECT_EQ(Burnt(image, BurnKind::FAILSAFE, before).Part(0x90, 8), Bytes(8, 0x22));
}

TEST(RecordBurnTest, ASlotIsBurntAlone) {
  const Image image = RecordImage(0x22);
  Memory memory{Bytes(0x100, 0xEE), 0};
  Burn(image, BurnKind::FAILSAFE, SomeDevice()).BurnSlot(memory, 1);
  Bytes expected(0x100, 0xEE);
  Put(expected, 0x80, RecordAndMore(0x22));
  EXPECT_EQ(memory.bytes, expected);
}

TEST(RecordBurnTest, AnImageWithoutARecordCannotBeBurnt) {
  Image image = RecordImage(0x22);
  image.sections[0].data.clear();
  const Outcome outcome =
      Burn(image, BurnKind::FAILSAFE, SomeDevice()).After({Bytes(0x100, 0xEE), 0});
  EXPECT_EQ(outcome.refusal, "the image's first section holds no boot record");
  EXPECT_TRUE(outcome.ends_run);
}

TEST(RecordFillTest, LeavesTheSlotValidOrNot) {
  const Image image = RecordImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory memory{Bytes(0x100, 0xEE), 0};
  burn.Fill(memory, {.slot = 1});
  EXPECT_EQ(memory.Part(0x80, 32), RecordAndMore(0x22));
  EXPECT_EQ(memory.Part(0, 0x80), Bytes(0x80, 0xEE));
  burn.Fill(memory, {.slot = 0, .is_valid = false});
  EXPECT_EQ(memory.bytes[3], 0xB5);
  EXPECT_FALSE(burn.Boots(memory, 0));
  EXPECT_TRUE(burn.Boots(memory, 1));
}

// ---- Devices with pointer sectors

/// What the sectors of a slot hold that was burnt and is valid.
void PutSlot(Memory& memory, std::uint32_t slot, std::uint8_t content, std::uint32_t size = 0x10) {
  Put(memory.bytes, PS[slot], Bytes(SECTOR, 0xFF));
  Put(memory.bytes, PS[slot], ValidRecord(SLOT[slot], size, content));
  Put(memory.bytes, SLOT[slot], Bytes((size + SECTOR - 1) / SECTOR * SECTOR, 0xFF));
  Put(memory.bytes, SLOT[slot], Bytes(size, content));
}

void ClearSignature(Memory& memory, std::uint32_t slot) {
  Put(memory.bytes, PS[slot] + 8, Word(0));
}

TEST(FlashBurnTest, GoesIntoTheSlotThatIsNotValid) {
  for (const std::uint32_t valid : {0u, 1u}) {
    Memory before = PreparedFlash();
    PutSlot(before, valid, 0x11);
    Memory expected = before;
    PutSlot(expected, 1 - valid, 0x22);
    ClearSignature(expected, valid);
    EXPECT_EQ(Burnt(FlashImage(0x22), BurnKind::FAILSAFE, before).bytes, expected.bytes) << valid;
  }
}

TEST(FlashBurnTest, OfTwoValidImagesTheSecondIsGivenUp) {
  Memory before = PreparedFlash();
  PutSlot(before, 0, 0x11);
  PutSlot(before, 1, 0x33);
  Memory expected = before;
  PutSlot(expected, 1, 0x22);
  ClearSignature(expected, 0);
  const Image image = FlashImage(0x22);
  EXPECT_EQ(Burnt(image, BurnKind::FAILSAFE, before).bytes, expected.bytes);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  EXPECT_THAT(
      NamesOf(burn.Steps(before, burn.Observe(before))),
      ElementsAre("clearing signature 1", "clearing signature 1", "writing section S3 at 1000",
                  "writing section S2 at 400", "setting signature 1", "clearing signature 0"));
}

TEST(FlashBurnTest, ADeviceIsRefusedWithoutMarkerOrImage) {
  const Image image = FlashImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory before = PreparedFlash();
  EXPECT_EQ(burn.After(before).refusal, "Both images are invalid. Can't perform failsafe burn");
  EXPECT_EQ(burn.After(before).memory.bytes, before.bytes);
  PutSlot(before, 0, 0x11);
  before.bytes[FAILSAFE_MARKER] = 0;
  EXPECT_EQ(burn.After(before).refusal,
            "Image on device is not failsafe. Can't perform failsafe burn");
  EXPECT_EQ(burn.After(before).memory.bytes, before.bytes);
}

TEST(FlashBurnTest, AnotherInvariantSectorIsRewrittenEvenWhereNoImageIsValid) {
  Image image = FlashImage(0x22);
  image.sections[0].data = Invariant(0x66);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  const Memory before = PreparedFlash();
  EXPECT_TRUE(burn.Observe(before).invariant_changed);
  Memory expected = before;
  Put(expected.bytes, 0, Invariant(0x66));
  const Outcome outcome = burn.After(before);
  EXPECT_EQ(outcome.refusal, "Both images are invalid. Can't perform failsafe burn");
  EXPECT_EQ(outcome.memory.bytes, expected.bytes);
}

TEST(FlashBurnTest, SlotsAreLookedAtWhenTheInvariantSectorIsRewritten) {
  // The first pointer sector lies in the sector that is rewritten first, which clears its
  // signature.
  constexpr std::uint32_t INNER_PS = 0x80;
  Image image = FlashImage(0x22);
  Bytes record = image.SectionAt(PS[0])->data;
  record.resize(POINTER_RECORD_SIZE);
  image.sections[1].addr = INNER_PS;
  image.slots[0] = {SLOT[0], INNER_PS, INNER_PS + RECORD_SIGNATURE};
  image.fields[0].addr = INNER_PS + RECORD_SIGNATURE;
  image.crcs[0] = {INNER_PS, RECORD_CRC, INNER_PS + RECORD_CRC};
  Memory before = PreparedFlash();
  Put(before.bytes, INNER_PS, ValidRecord(SLOT[0], 0x10, 0x11));
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  EXPECT_TRUE(burn.IsSigned(before, 0));
  EXPECT_TRUE(burn.Observe(before).invariant_changed);
  EXPECT_FALSE(burn.Observe(before).is_signed[0]);
  EXPECT_EQ(burn.After(before).refusal, "Both images are invalid. Can't perform failsafe burn");
}

TEST(FlashBurnTest, ASlotIsBurntAloneAndLeavesTheOther) {
  const Image image = FlashImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory memory = PreparedFlash();
  PutSlot(memory, 0, 0x11);
  Memory expected = memory;
  Put(expected.bytes, PS[1], Bytes(SECTOR, ERASED));
  Put(expected.bytes, PS[1], ValidRecord(SLOT[1], 0x10, 0x22));
  Put(expected.bytes, SLOT[1], Bytes(SECTOR, ERASED));
  Put(expected.bytes, SLOT[1], Bytes(0x10, 0x22));
  burn.BurnSlot(memory, 1);
  EXPECT_EQ(memory.bytes, expected.bytes);
}

TEST(FlashBurnTest, AnInvariantSectorThatCannotBeWrittenIsLookedAtAsItIs) {
  Image image = FlashImage(0x22);
  image.sections[0].data = Invariant(0x66);
  image.crcs.push_back({0x10, 0x400, 0x20});  // reaches past its section
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory before = PreparedFlash();
  PutSlot(before, 1, 0x11);
  EXPECT_TRUE(burn.Observe(before).invariant_changed);
  EXPECT_TRUE(burn.Observe(before).is_signed[1]);
  EXPECT_TRUE(burn.After(before).ends_run);
}

TEST(FlashBurnTest, ASecondRecordPastTheEndRefusesTheDevice) {
  const Image image = FlashImage(0x22);
  Memory before = PreparedFlash();
  before.bytes.resize(PS[1] + 4);
  ObservedState seen;
  seen.is_signed[1] = true;
  const Outcome outcome = Burn(image, BurnKind::FAILSAFE, SomeDevice()).After(before, seen);
  EXPECT_EQ(outcome.refusal, "Address out of range");
  EXPECT_EQ(outcome.memory.bytes, before.bytes);
}

TEST(FlashBurnTest, OnlySectionsThatStandFirstAreOfTheInvariantSector) {
  Image image = FlashImage(0x22);
  AddSection(image, 0x100, Bytes(4, 0x55));
  EXPECT_THAT(Burn(image, BurnKind::FAILSAFE, SomeDevice()).InvariantSections(SECTOR),
              ElementsAre(0));
}

TEST(FlashBurnTest, ASecondImageInTheWayIsMovedWithAllBytesThatAReadAnswers) {
  // 3 sectors and the new image end at 0x1004; the old second image, of 5 bytes, begins at 0x1000.
  const Image image = FlashImage(0x22, 0xA04);
  Memory before = PreparedFlash();
  PutSlot(before, 1, 0x33, 5);
  Memory expected = before;
  Put(expected.bytes, PS[0], Bytes(SECTOR, 0xFF));
  Put(expected.bytes, PS[0], ValidRecord(3 * SECTOR, 5, 0x33));
  Put(expected.bytes, 3 * SECTOR, Bytes(SECTOR, 0xFF));
  Put(expected.bytes, 3 * SECTOR, Joined({Bytes(5, 0x33), Bytes(3, 0xFF)}));
  PutSlot(expected, 1, 0x22, 0xA04);
  ClearSignature(expected, 0);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  EXPECT_TRUE(burn.PlanFor(before, burn.Observe(before)).moves_second);
  EXPECT_EQ(Burnt(image, BurnKind::FAILSAFE, before).bytes, expected.bytes);
  const std::vector<Step> steps = burn.Steps(before, burn.Observe(before));
  EXPECT_THAT(steps[1].ranges, ElementsAre(Range{3 * SECTOR, 8}));
  EXPECT_THAT(NamesOf(steps),
              ElementsAre("clearing signature 0", "copying the image", "copying its pointer sector",
                          "setting signature 0", "clearing signature 1", "clearing signature 1",
                          "writing section S3 at 1000", "writing section S2 at 400",
                          "setting signature 1", "clearing signature 0"));
}

TEST(FlashBurnTest, WhatCannotBeMovedIsLeftAlone) {
  const Image image = FlashImage(0x22, 0xA04);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  const auto refusal_of = [&](const Memory& before) {
    const Outcome outcome = burn.After(before);
    EXPECT_EQ(outcome.memory.bytes, before.bytes);
    return outcome.refusal;
  };
  Memory before = PreparedFlash();
  PutSlot(before, 1, 0x33, 0);
  EXPECT_EQ(refusal_of(before), "Can't move image: ");
  PutSlot(before, 1, 0x33, 16);
  Put(before.bytes, PS[1], Word(3 * SECTOR));
  EXPECT_EQ(refusal_of(before), "Can't move image: ");
  Put(before.bytes, PS[1], Joined({Word(0x800), Word(0x10000)}));
  EXPECT_EQ(refusal_of(before), "Address out of range");
}

TEST(FlashBurnTest, ABeliefDecidesWhereItIsWrong) {
  Memory before = PreparedFlash();
  PutSlot(before, 0, 0x11);
  const Image image = FlashImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory expected = before;
  PutSlot(expected, 0, 0x22);
  expected.bytes[PS[1] + 8] = expected.bytes[PS[1] + 9] = 0;
  expected.bytes[PS[1] + 10] = expected.bytes[PS[1] + 11] = 0;
  Put(before.bytes, PS[1], Word(SLOT[1]));
  Put(expected.bytes, PS[1], Word(SLOT[1]));
  EXPECT_EQ(burn.After(before, {.is_signed = {false, true}}).memory.bytes, expected.bytes);
}

TEST(FlashBurnTest, FieldsLieWhereTheSlotDoes) {
  Image image = FlashImage(0x22, 0x200);
  image.fields.push_back({FieldType::VSD, SLOT[1] + 0x10});
  image.crcs.push_back({SLOT[1] + 0x10, 208, SLOT[1]});
  Memory before = PreparedFlash();
  PutSlot(before, 0, 0x11);
  const Memory after = Burnt(image, BurnKind::FAILSAFE, before);
  EXPECT_EQ(after.Part(SLOT[1] + 0x10, 208), Bytes(208, 0xD5));
  EXPECT_EQ(after.Word(SLOT[1]), CrcOf(Bytes(208, 0xD5)));
}

TEST(FlashBurnTest, AnImageThatLacksSomethingEndsTheRun) {
  Memory before = PreparedFlash();
  PutSlot(before, 0, 0x11);
  const auto refusal_of = [&](const std::function<void(Image&)>& change) {
    Image image = FlashImage(0x22);
    change(image);
    const Outcome outcome = Burn(image, BurnKind::FAILSAFE, SomeDevice()).After(before);
    EXPECT_TRUE(outcome.ends_run);
    EXPECT_EQ(outcome.memory.bytes, before.bytes);
    return outcome.refusal;
  };
  EXPECT_EQ(refusal_of([](Image& image) { image.slots[1].signature.reset(); }),
            "the image sets no SIGNATURE 1");
  EXPECT_EQ(refusal_of([](Image& image) { image.slots[0].image.reset(); }),
            "the image sets no IMAGE 0");
  EXPECT_EQ(refusal_of([](Image& image) { image.sections[2].addr += 4; }),
            "the image has no section at its PS 1");
  EXPECT_EQ(refusal_of([](Image& image) { image.sections[3].addr += 4; }),
            "the image has no sections between IMAGE 0 and IMAGE 1");
}

TEST(FlashFillTest, LeavesTheSlotSignedOrNot) {
  const Image image = FlashImage(0x22);
  const Burn burn(image, BurnKind::FAILSAFE, SomeDevice());
  Memory memory{Bytes(16 * SECTOR, 0xEE), SECTOR};
  Memory expected = PreparedFlash();
  burn.Fill(memory, {.slot = 0});
  PutSlot(expected, 0, 0x22);
  EXPECT_EQ(memory.bytes, expected.bytes);
  burn.Fill(memory, {.slot = 1, .is_valid = false});
  PutSlot(expected, 1, 0x22);
  Put(expected.bytes, PS[1] + 8, Word(0xFFFFFFFF));
  EXPECT_EQ(memory.bytes, expected.bytes);
  EXPECT_TRUE(burn.Boots(memory, 0));
  EXPECT_FALSE(burn.Boots(memory, 1));
  EXPECT_FALSE(burn.IsSigned(memory, 1));
}

TEST(FlashFillTest, OfAllSectionsIsAsAPlainBurn) {
  const Image image = FlashImage(0x22);
  Memory memory{Bytes(16 * SECTOR, 0xEE), SECTOR};
  const Memory burnt = Burnt(image, BurnKind::PLAIN, memory);
  Burn(image, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {});
  EXPECT_EQ(memory.bytes, burnt.bytes);
  EXPECT_EQ(memory.Word(PS[0] + 8), 0x12345678u);
}

}  // namespace
}  // namespace device
