#include "src/BraidGeneral.h"

#include <thread>

#include "tests/support/support.h"

namespace {

class BraidGeneralTest : public ConsoleTest {};

TEST_F(BraidGeneralTest, ResultCodesHaveTheirFixedValues) {
  EXPECT_EQ(BRAID_OK, 0);
  EXPECT_EQ(BRAID_ERROR, 1);
  EXPECT_EQ(BRAID_ERR_SOME, 2);
  EXPECT_EQ(BRAID_ERR_ALL, 3);
  EXPECT_EQ(BRAID_NOT_IMPLEMENTED, 4);
}

TEST_F(BraidGeneralTest, ErrorKeepsWhatItWasGiven) {
  const BraidError error("what went wrong", BRAID_ERR_SOME, "Unit", 17);
  EXPECT_EQ(error.Des(), "what went wrong");
  EXPECT_EQ(error.Num(), BRAID_ERR_SOME);
  EXPECT_EQ(error.File(), "Unit");
  EXPECT_EQ(error.Line(), 17u);
}

TEST_F(BraidGeneralTest, ThrownErrorNamesUnitAndLineOfItsThrowSite) {
  const u_int32_t line = __LINE__ + 2;
  try {
    ThrowError("text");
    FAIL();
  } catch (const BraidError& error) {
    EXPECT_EQ(error.Des(), "text");
    EXPECT_EQ(error.Num(), BRAID_ERROR);
    EXPECT_EQ(error.File(), "BraidGeneral_test");
    EXPECT_EQ(error.Line(), line);
  }
}

TEST_F(BraidGeneralTest, UnitNameIsTheFileNameWithoutFolderAndExtension) {
  EXPECT_EQ(UnitName("src/FwImage.cpp"), "FwImage");
  EXPECT_EQ(UnitName("/a/b.c/RomInterface.h"), "RomInterface");
  EXPECT_EQ(UnitName("main"), "main");
}

TEST_F(BraidGeneralTest, TextStartsDecimalAndTurnsHexadecimalWhereTold) {
  std::cout << std::hex;
  EXPECT_EQ(Text("a", 16, "b", std::hex, 255, "c"), "a16bffc");
}

TEST_F(BraidGeneralTest, FailureOfTheRunIsPrintedAsAll) {
  EXPECT_EQ(OutputOf([] { PrintBurnError("x", 0); }), "\r-E- BURN FAILED:ALL:x\n");
}

TEST_F(BraidGeneralTest, FailureOfADeviceIsPrintedWithItsGuidInSixteenDigits) {
  EXPECT_EQ(OutputOf([] { PrintBurnError("x", 0x1234); }),
            "\r-E- BURN FAILED:0x0000000000001234:x\n");
  EXPECT_EQ(OutputOf([] { PrintBurnError("y", 0xFEDCBA9876543210); }),
            "\r-E- BURN FAILED:0xfedcba9876543210:y\n");
}

TEST_F(BraidGeneralTest, FailureLineLeavesTheConsoleHexadecimalAndZeroFilled) {
  for (const Guid guid : {Guid{0}, Guid{0x1234}}) {
    std::cout << std::dec << std::setfill(' ');
    OutputOf([guid] { PrintBurnError("x", guid); });
    EXPECT_EQ(OutputOf([] { std::cout << 255 << " " << std::setw(4) << 10; }), "ff 000a");
  }
}

TEST_F(BraidGeneralTest, DebugLineNamesUnitAndLineInDecimalAndLeavesTheBase) {
  std::cout << std::hex << std::setfill('0');
  EXPECT_EQ(OutputOf([] { Debug(326) << "count " << 255 << std::endl; }),
            "-D- BraidGeneral_test:326: count ff\n");
  const int line = __LINE__ + 1;
  const std::string shown = OutputOf([] { Debug() << "here" << std::endl; });
  EXPECT_EQ(shown, "-D- BraidGeneral_test:" + std::to_string(line) + ": here\n");
}

TEST_F(BraidGeneralTest, PrintfToTheConsoleKeepsItsPlaceAmongStreamOutputAndItsOwnBase) {
  EXPECT_EQ(OutputOf([] {
              std::cout << std::hex << "a";
              ConsolePrintf("%d|", 255);
              std::cout << 255;
            }),
            "a255|ff");
}

TEST_F(BraidGeneralTest, FailedAssertionStopsTheProgramAndShowsItsExpression) {
  EXPECT_EXIT(ASSERT_ALWAYS(1 + 1 == 3), testing::KilledBySignal(SIGABRT),
              "BraidGeneral_test.cpp:[0-9]+: .*Assertion `1 \\+ 1 == 3' failed");
}

TEST_F(BraidGeneralTest, HoldingAssertionDoesNothing) {
  EXPECT_EQ(OutputOf([] { ASSERT_ALWAYS(1 + 1 == 2); }), "");
}

TEST_F(BraidGeneralTest, RedrawnLinesAreFlushedNowAndThenOnly) {
  OutputOf([] {
    std::this_thread::sleep_for(CONSOLE_DELAY);
    FlushConsoleSoon();
    EXPECT_FALSE(ConsoleIsPending());
    while (!ConsoleIsPending()) FlushConsoleSoon();  // the machine may be slow, but not for ever
    std::this_thread::sleep_for(CONSOLE_DELAY);
    FlushConsoleSoon();
    EXPECT_FALSE(ConsoleIsPending());
  });
}

}  // namespace
