#include "device/WriteOrder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/device/images.h"

namespace device {
namespace {

using testing::HasSubstr;

constexpr std::uint32_t SIGNATURE_AT = 0x108;

/// A record of 0x20 bytes at 0x100, signed last; then the other one's signature goes.
std::vector<Step> Steps() {
  return {{.name = "the record", .ranges = {{0x100, 0x20}}, .blank = {{SIGNATURE_AT, 4}}},
          {.name = "signing", .ranges = {{SIGNATURE_AT, 4}}, .bytes = Word(VALID_SIGNATURE)},
          {.name = "giving up", .ranges = {{0x208, 4}}, .bytes = Word(0)}};
}

MemoryChange Program(std::uint64_t addr, Bytes bytes) {
  const auto size = static_cast<std::uint32_t>(bytes.size());
  return {.addr = addr, .size = size, .bytes = std::move(bytes)};
}
MemoryChange Erase(std::uint64_t addr, std::uint32_t size) {
  return {.is_erase = true, .addr = addr, .size = size};
}
MemoryChange Record() {
  Bytes bytes(0x20, 0x11);
  Put(bytes, 8, Bytes(4, ERASED));
  return Program(0x100, bytes);
}

TEST(WriteOrderTest, TheStepsInTheirOrderAreRight) {
  EXPECT_EQ(
      OrderError(Steps(), {Erase(0x100, 0x100), Record(),
                           Program(SIGNATURE_AT, Word(VALID_SIGNATURE)), Program(0x208, Word(0))}),
      "");
  EXPECT_EQ(OrderError(Steps(), {}), "");
}

TEST(WriteOrderTest, AStepMayBeCutIntoPiecesOrLeftOut) {
  const Bytes all = Record().bytes;
  EXPECT_EQ(
      OrderError(Steps(), {Program(0x100, {all.begin(), all.begin() + 10}),
                           Program(0x10A, {all.begin() + 10, all.end()}), Program(0x208, Word(0))}),
      "");
}

TEST(WriteOrderTest, NothingIsWrittenOfAnEarlierStep) {
  const std::string error =
      OrderError(Steps(), {Program(SIGNATURE_AT, Word(VALID_SIGNATURE)), Record()});
  EXPECT_EQ(error, "writes 32 bytes at 100, when the burn is at signing");
  EXPECT_EQ(OrderError(Steps(), {Record(), Program(0x208, Word(0)), Erase(0x100, 0x100)}),
            "erases 256 bytes at 100, when the burn is at giving up");
}

TEST(WriteOrderTest, ARecordIsNotSignedAsItIsWritten) {
  Bytes early = Record().bytes;
  Put(early, 8, Word(VALID_SIGNATURE));
  EXPECT_THAT(OrderError(Steps(), {Program(0x100, early)}), HasSubstr("no part of the burn"));
  // Nor between its parts.
  const Bytes all = Record().bytes;
  EXPECT_EQ(OrderError(Steps(), {Program(0x100, {all.begin(), all.begin() + 12}),
                                 Program(SIGNATURE_AT, Word(VALID_SIGNATURE)),
                                 Program(0x10C, {all.begin() + 12, all.end()})}),
            "writes 20 bytes at 10c, when the burn is at signing");
}

TEST(WriteOrderTest, ASignatureIsSetOrClearedAndNothingElse) {
  EXPECT_THAT(OrderError(Steps(), {Record(), Program(SIGNATURE_AT, Word(VALID_SIGNATURE + 1))}),
              HasSubstr("no part of the burn"));
  EXPECT_THAT(OrderError(Steps(), {Program(0x208, Word(VALID_SIGNATURE))}),
              HasSubstr("no part of the burn"));
}

TEST(WriteOrderTest, NothingIsWrittenElsewhere) {
  EXPECT_EQ(OrderError(Steps(), {Program(0x120, {1})}),
            "writes 1 bytes at 120 that are no part of the burn");
  EXPECT_EQ(OrderError(Steps(), {Program(0x11F, {1, 2})}),
            "writes 2 bytes at 11f that are no part of the burn");
  EXPECT_NE(OrderError(Steps(), {Erase(NOT_MAPPED, 0x100)}), "");
}

}  // namespace
}  // namespace device
