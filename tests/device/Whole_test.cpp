#include "device/Whole.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "tests/device/images.h"

namespace device {
namespace {

BootLayout FlashLayout() { return *LayoutOf(FlashImage(0), SECTOR); }

/// A flash that was filled with an old image in one slot, and its judge.
class FlashJudgeTest : public testing::Test {
 protected:
  Judge JudgeOf(const Memory& memory) const {
    Judge judge(FlashLayout(), memory.bytes);
    EXPECT_TRUE(judge.AddKnownImage(_old, SomeDevice(), memory, Whole::OLD));
    EXPECT_TRUE(judge.AddKnownImage(_new, SomeDevice(), memory, Whole::NEW));
    return judge;
  }
  Memory FilledWith(const Image& image, std::uint32_t slot) const {
    Memory memory{Bytes(16 * SECTOR, 0xEE), SECTOR};
    Burn(image, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = slot});
    return memory;
  }

  Image _old = FlashImage(0x11);
  Image _new = FlashImage(0x22);
};

TEST_F(FlashJudgeTest, ABurnEndsWithOneWholeNewSlot) {
  const Memory before = FilledWith(_old, 0);
  Judge judge = JudgeOf(before);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 old, slot 1 invalid");
  judge.SetAll(Burn(_new, BurnKind::FAILSAFE, SomeDevice()).After(before).memory.bytes);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots new: slot 0 invalid, slot 1 new");
  EXPECT_TRUE(judge.CurrentVerdict().IsSafe());
  EXPECT_EQ(judge.CurrentVerdict().CountNew(), 1u);
  EXPECT_EQ(judge.CurrentVerdict().CountInvalid(), 1u);
}

TEST_F(FlashJudgeTest, BothImagesCanBeWholeAtOnce) {
  Memory memory = FilledWith(_old, 0);
  Burn(_new, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = 1});
  EXPECT_EQ(Describe(JudgeOf(memory).CurrentVerdict()), "boots old or new: slot 0 old, slot 1 new");
}

TEST_F(FlashJudgeTest, AChangedByteOfTheImageBootsAndIsNotWhole) {
  const Memory before = FilledWith(_old, 0);
  for (const std::uint32_t addr : {SLOT[0], SLOT[0] + 0xF}) {
    Judge judge = JudgeOf(before);
    judge.Set(addr, 0x10);
    EXPECT_EQ(judge.CurrentVerdict().slots[0],
              (SlotVerdict{.boots = true, .whole = Whole::NOT_KNOWN}));
    EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots BROKEN: slot 0 broken, slot 1 invalid");
    judge.Set(addr, 0x11);
    EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 old, slot 1 invalid");
  }
}

TEST_F(FlashJudgeTest, AChangedByteOfTheRecordDoesNotBoot) {
  Judge judge = JudgeOf(FilledWith(_old, 0));
  judge.Set(PS[0] + 100, 0);
  EXPECT_FALSE(judge.Boots(0));
  EXPECT_TRUE(judge.IsSigned(0));
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "DOES NOT BOOT: slot 0 invalid, slot 1 invalid");
}

TEST_F(FlashJudgeTest, ARecordOfAnotherImageIsNoWholeImage) {
  // All bytes of the old image, and a valid record that was never made for it.
  Memory memory = FilledWith(_old, 0);
  Put(memory.bytes, PS[0], ValidRecord(SLOT[0], 0x10, 0x33));
  EXPECT_EQ(JudgeOf(memory).CurrentVerdict().slots[0], (SlotVerdict{.boots = true}));
}

TEST_F(FlashJudgeTest, TheDevicesOwnFieldsAndCrcsAreOfTheImage) {
  _new.sections.back().data.assign(0x20, 0x22);
  _new.fields.push_back({FieldType::GUID, SLOT[1]});
  _new.crcs.push_back({SLOT[1], 8, SLOT[1] + 8});
  const Memory before = FilledWith(_old, 0);
  Judge judge = JudgeOf(before);
  const Memory after = Burn(_new, BurnKind::FAILSAFE, SomeDevice()).After(before).memory;
  judge.SetAll(after.bytes);
  EXPECT_TRUE(judge.CurrentVerdict().BootsNew());
  for (const std::uint32_t addr : {SLOT[1] + 7, SLOT[1] + 11}) {
    judge.Set(addr, static_cast<std::uint8_t>(after.bytes[addr] ^ 1));
    EXPECT_TRUE(judge.CurrentVerdict().slots[1].BootsBroken());
    judge.Set(addr, after.bytes[addr]);
  }
}

TEST_F(FlashJudgeTest, TheSecondImageIsAsWholeWhereItIsMoved) {
  const Memory before = FilledWith(FlashImage(0x11, 5), 1);
  _old = FlashImage(0x11, 5);
  _new = FlashImage(0x22, 0xA04);
  Judge judge = JudgeOf(before);
  Memory moved = before;
  Put(moved.bytes, 3 * SECTOR, Bytes(5, 0x11));
  Put(moved.bytes, PS[0], ValidRecord(3 * SECTOR, 5, 0x11));
  judge.SetAll(moved.bytes);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 old, slot 1 old");
  judge.Set(3 * SECTOR + 4, 0);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old or BROKEN: slot 0 broken, slot 1 old");
  EXPECT_FALSE(judge.CurrentVerdict().IsSafe());
}

TEST_F(FlashJudgeTest, APlainBurnLeavesAWholeImageInTheFirstSlot) {
  _new.sections[1].data = ValidRecord(SLOT[0], 0x10, 0x22);
  _new.fields.clear();
  const Memory before = FilledWith(_old, 1);
  Judge judge = JudgeOf(before);
  judge.SetAll(Burn(_new, BurnKind::PLAIN, SomeDevice()).After(before).memory.bytes);
  EXPECT_TRUE(judge.CurrentVerdict().slots[0].BootsNew());
}

TEST_F(FlashJudgeTest, AFailsafeBurnThatLeavesAFieldAsAPlainBurnIsNotWhole) {
  // The record that the image ships is valid, so only the bytes of the field tell the burns apart.
  const std::uint32_t size = RowOf(FieldType::VSD).size;
  _new = FlashImage(0x22, size);
  _new.sections[1].data = ValidRecord(SLOT[0], size, 0x22);
  _new.fields = {{FieldType::VSD, SLOT[0]}, {FieldType::VSD, SLOT[1]}};
  const Memory before = FilledWith(_old, 1);
  Memory after = before;
  const Burn burn(_new, BurnKind::FAILSAFE, SomeDevice());
  burn.Fill(after, {.slot = 0});
  Judge judge(FlashLayout(), before.bytes);
  ASSERT_TRUE(judge.AddKnownImage(_new, SomeDevice(), before, Whole::NEW, Origin::FAILSAFE_BURN));
  judge.SetAll(after.bytes);
  ASSERT_TRUE(judge.CurrentVerdict().slots[0].BootsNew());
  Put(after.bytes, SLOT[0], _new.sections.back().data);
  judge.SetAll(after.bytes);
  EXPECT_TRUE(judge.CurrentVerdict().slots[0].BootsBroken());
}

TEST_F(FlashJudgeTest, WhatFollowsTheRecordInItsSectionIsOfTheImage) {
  _new.sections[1].data.resize(POINTER_RECORD_SIZE + 0x40, 0x44);
  _new.sections[2].data.resize(POINTER_RECORD_SIZE + 0x40, 0x44);
  const Memory before = FilledWith(_old, 0);
  Judge judge = JudgeOf(before);
  judge.SetAll(Burn(_new, BurnKind::FAILSAFE, SomeDevice()).After(before).memory.bytes);
  ASSERT_TRUE(judge.CurrentVerdict().slots[1].BootsNew());
  judge.Set(PS[1] + POINTER_RECORD_SIZE + 0x3F, 0);
  EXPECT_TRUE(judge.CurrentVerdict().slots[1].BootsBroken());
}

TEST_F(FlashJudgeTest, ACopyOfLessThanTheImageIsNotWhole) {
  _old = FlashImage(0x11, 16);
  for (const std::size_t i : {1u, 2u}) {
    _old.sections[i].data = ValidRecord(SLOT[i - 1], 8, 0x11);  // half of the image
  }
  const Memory before = FilledWith(_old, 1);
  _new = FlashImage(0x22, 0xA04);
  Judge judge = JudgeOf(before);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 invalid, slot 1 old");
  EXPECT_EQ(judge.ShortRecordOf(1), (ShortRecord{1, 8, 16}));
  EXPECT_EQ(judge.ShortRecordOf(0), std::nullopt);
  Memory moved = before;
  Put(moved.bytes, 3 * SECTOR, Bytes(8, 0x11));
  Put(moved.bytes, PS[0], ValidRecord(3 * SECTOR, 8, 0x11));
  judge.SetAll(moved.bytes);
  EXPECT_TRUE(judge.CurrentVerdict().slots[0].BootsBroken());
  ASSERT_EQ(judge.ShortRecordOf(0), (ShortRecord{0, 8, 16}));
  EXPECT_EQ(Describe(*judge.ShortRecordOf(0)),
            "the record of slot 0 gives 0x8 bytes, and its image has 0x10");
  Put(moved.bytes, 3 * SECTOR, Bytes(16, 0x11));
  judge.SetAll(moved.bytes);
  EXPECT_FALSE(judge.CurrentVerdict().slots[0].BootsBroken());
}

TEST_F(FlashJudgeTest, ARecordThatGivesAllOfItsImageIsNotShort) {
  for (const std::uint32_t slot : {0u, 1u}) {
    Judge judge = JudgeOf(FilledWith(_old, slot));
    EXPECT_EQ(judge.ShortRecordOf(slot), std::nullopt);
    judge.Set(SLOT[slot], 0x10);  // the image is damaged, and the record is right
    EXPECT_EQ(judge.ShortRecordOf(slot), std::nullopt);
  }
}

TEST_F(FlashJudgeTest, AnImageThatDoesNotFitIsNeverWhole) {
  Memory memory = FilledWith(_old, 0);
  memory.bytes.resize(SLOT[1]);
  Judge judge = JudgeOf(memory);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 old, slot 1 invalid");
  const Bytes record = ValidRecord(SLOT[1], 0x10, 0x22);
  for (std::uint32_t i = 0; i < record.size(); ++i) judge.Set(PS[1] + i, record[i]);
  EXPECT_TRUE(judge.CurrentVerdict().slots[1].BootsBroken());
}

TEST_F(FlashJudgeTest, ATornInvariantSectorStartsNothing) {
  Judge judge = JudgeOf(FilledWith(_old, 0));
  judge.Set(0x30, 0);
  EXPECT_EQ(Describe(judge.CurrentVerdict()),
            "DOES NOT BOOT: slot 0 old, slot 1 invalid, invariant sector broken");
}

TEST_F(FlashJudgeTest, WithoutImagesWhatBootsNowIsWhole) {
  const Memory memory = FilledWith(_old, 1);
  Judge judge(FlashLayout(), memory.bytes);
  judge.AddPresentImages();
  judge.AddPresentInvariantSector();
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 invalid, slot 1 old");
  judge.Set(SLOT[1], 0);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots BROKEN: slot 0 invalid, slot 1 broken");
}

TEST_F(FlashJudgeTest, OnlyWhatNoKnownImageExplainsIsTakenAsItIs) {
  const Memory first = FilledWith(_old, 0);
  Memory both = first;
  Burn(_new, BurnKind::FAILSAFE, SomeDevice()).Fill(both, {.slot = 1});
  const std::vector<PresentImage> second = {{.slot = 1, .record_size = 0x10}};

  Judge judge(FlashLayout(), both.bytes);
  judge.AddKnownImage(_old, SomeDevice(), first, Whole::OLD);
  EXPECT_EQ(judge.UnexplainedSlots(), std::vector<std::uint32_t>{1});
  EXPECT_EQ(judge.AddPresentImages(), second);
  EXPECT_EQ(judge.UnexplainedSlots(), std::vector<std::uint32_t>{});
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 old, slot 1 old");

  // The record of a known old image, and not the image: that is no image of its own.
  judge = Judge(FlashLayout(), both.bytes);
  judge.AddKnownImage(_old, SomeDevice(), first, Whole::OLD);
  judge.Set(SLOT[0] + 3, 0x10);
  EXPECT_EQ(judge.UnexplainedSlots(), (std::vector<std::uint32_t>{0, 1}));
  EXPECT_EQ(judge.AddPresentImages(), second);
  EXPECT_TRUE(judge.CurrentVerdict().slots[0].BootsBroken());

  // An unknown image may have the record of the new one, which is not there yet.
  judge = Judge(FlashLayout(), both.bytes);
  judge.AddKnownImage(_new, SomeDevice(), first, Whole::NEW);
  judge.Set(SLOT[1] + 3, 0x10);
  EXPECT_EQ(judge.AddPresentImages(),
            (std::vector<PresentImage>{{.slot = 0, .record_size = 0x10}, second.front()}));
}

TEST(RecordJudgeTest, ABootRecordGivesNoSizeOfAPresentImage) {
  const Image image = RecordImage(0x11);
  Memory memory{Bytes(0x100, 0xEE), 0};
  Burn(image, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = 1});
  Judge judge(*LayoutOf(image, 0), memory.bytes);
  EXPECT_EQ(judge.AddPresentImages(), (std::vector<PresentImage>{{.slot = 1}}));
}

TEST_F(FlashJudgeTest, AnImageIsKnownInTheSlotsThatAreWhereTheJudgeLooks) {
  Memory memory = FilledWith(_old, 0);
  Burn(_old, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = 1});
  Judge judge(FlashLayout(), memory.bytes);
  Image elsewhere = _old;
  elsewhere.slots[1].pointer_sector = 0x1C00;
  elsewhere.sections[2].addr = 0x1C00;
  EXPECT_FALSE(judge.AddKnownImage(elsewhere, SomeDevice(), memory, Whole::OLD));
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old or BROKEN: slot 0 old, slot 1 broken");
}

TEST_F(FlashJudgeTest, OneThatFollowsAgreesWithOneThatLooksAfresh) {
  const unsigned seed = 7;
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  Memory memory = FilledWith(_old, 0);
  const Memory start = memory;
  const Judge first = JudgeOf(memory);
  Judge follower = first;
  std::set<std::string> verdicts;
  for (int i = 0; i < 1500; ++i) {
    // Mostly where it matters, and mostly there and back.
    static constexpr std::uint32_t PLACES[] = {0,       PS[0],       PS[0] + 8, PS[0] + 200,
                                               SLOT[0], SLOT[0] + 8, PS[1],     SLOT[1]};
    const std::uint32_t addr = PLACES[rng() % std::size(PLACES)] + rng() % 4;
    memory.bytes[addr] =
        static_cast<std::uint8_t>(rng() % 3 == 0 ? rng() : std::uint32_t{start.bytes[addr]});
    follower.Set(addr, memory.bytes[addr]);
    Judge fresh = first;
    fresh.SetAll(memory.bytes);
    ASSERT_EQ(follower.CurrentVerdict(), fresh.CurrentVerdict()) << i;
    verdicts.insert(Describe(fresh.CurrentVerdict()));
  }
  EXPECT_GE(verdicts.size(), 4u);  // the walk met good and bad states
}

TEST(RecordJudgeTest, WholeAndBootingAreTwoThings) {
  Image wrong_sum = RecordImage(0x22);
  ++wrong_sum.sections[0].data[0];
  const Memory blank{Bytes(0x100, 0xEE), 0};
  Memory memory = blank;
  Burn(wrong_sum, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = 1});
  Judge judge(*LayoutOf(wrong_sum, 0), memory.bytes);
  judge.AddKnownImage(wrong_sum, SomeDevice(), blank, Whole::NEW);
  EXPECT_EQ(judge.CurrentVerdict().slots[1], (SlotVerdict{.boots = false, .whole = Whole::NEW}));
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "DOES NOT BOOT: slot 0 invalid, slot 1 invalid");
  EXPECT_FALSE(judge.CurrentVerdict().BootsWhole());
}

TEST(RecordJudgeTest, ABurnOfAnImageWithAFieldInOneSlotEndsWithTwoWholeSlots) {
  Image image = RecordImage(0x22);
  image.fields = {{FieldType::GUID, image.sections[0].addr + BOOT_RECORD_SIZE}};
  image.sections[0].data.resize(BOOT_RECORD_SIZE + 16, 0x22);
  const Image old_image = RecordImage(0x11);
  for (const std::uint32_t valid : {0u, 1u}) {
    Memory memory{Bytes(0x100, 0xEE), 0};
    Burn(old_image, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = valid});
    Judge judge(*LayoutOf(image, 0), memory.bytes);
    judge.AddKnownImage(image, SomeDevice(), memory, Whole::NEW, Origin::FAILSAFE_BURN);
    judge.SetAll(Burn(image, BurnKind::FAILSAFE, SomeDevice()).After(memory).memory.bytes);
    EXPECT_EQ(judge.CurrentVerdict().CountNew(), 2u) << valid;
  }
}

TEST(RecordJudgeTest, ABurnEndsWithTwoWholeNewSlots) {
  const Image old_image = RecordImage(0x11);
  const Image new_image = RecordImage(0x22);
  Memory memory{Bytes(0x100, 0xEE), 0};
  Burn(old_image, BurnKind::FAILSAFE, SomeDevice()).Fill(memory, {.slot = 1});
  Judge judge(*LayoutOf(new_image, 0), memory.bytes);
  judge.AddPresentImages();
  judge.AddKnownImage(new_image, SomeDevice(), memory, Whole::NEW);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots old: slot 0 invalid, slot 1 old");
  judge.SetAll(Burn(new_image, BurnKind::FAILSAFE, SomeDevice()).After(memory).memory.bytes);
  EXPECT_EQ(Describe(judge.CurrentVerdict()), "boots new: slot 0 new, slot 1 new");
  EXPECT_EQ(judge.CurrentVerdict().CountNew(), 2u);
}

TEST(VerdictTest, IsBurntWhenTheSlotsAreAsABurnOfTheirKindLeavesThem) {
  constexpr SlotVerdict NEW{.boots = true, .whole = Whole::NEW};
  constexpr SlotVerdict OLD{.boots = true, .whole = Whole::OLD};
  constexpr SlotVerdict INVALID{.boots = false, .whole = Whole::NEW};
  const auto is_burnt = [](const Verdict& verdict) {
    return std::pair(verdict.IsBurnt(SlotKind::BOOT_RECORDS),
                     verdict.IsBurnt(SlotKind::POINTER_SECTORS));
  };
  EXPECT_EQ(is_burnt({.slots = {NEW, NEW}}), std::pair(true, false));
  EXPECT_EQ(is_burnt({.slots = {NEW, INVALID}}), std::pair(false, true));
  EXPECT_EQ(is_burnt({.slots = {INVALID, NEW}}), std::pair(false, true));
  EXPECT_EQ(is_burnt({.slots = {OLD, NEW}}), std::pair(false, false));
  EXPECT_EQ(is_burnt({.slots = {INVALID, INVALID}}), std::pair(false, false));
  EXPECT_EQ(is_burnt({.slots = {NEW, NEW}, .invariant_is_whole = false}), std::pair(false, false));
  EXPECT_EQ(is_burnt({.slots = {NEW, INVALID}, .invariant_is_whole = false}),
            std::pair(false, false));
}

TEST(VerdictTest, InvariantSectorIsToldApart) {
  constexpr SlotVerdict OLD{.boots = true, .whole = Whole::OLD};
  constexpr SlotVerdict BROKEN{.boots = true, .whole = Whole::NOT_KNOWN};
  const Verdict torn{.slots = {OLD, {}}, .invariant_is_whole = false};
  EXPECT_TRUE(torn.IsSafeButForInvariantSector());
  EXPECT_FALSE(torn.IsSafe());
  EXPECT_FALSE((Verdict{.slots = {OLD, {}}}).IsSafeButForInvariantSector());
  const Verdict broken{.slots = {OLD, BROKEN}, .invariant_is_whole = false};
  EXPECT_FALSE(broken.IsSafeButForInvariantSector());
}

}  // namespace
}  // namespace device
