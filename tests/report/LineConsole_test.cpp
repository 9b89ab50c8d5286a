// The console of fwpush as whole lines: meters, open lines, and any cut of it.

#include "report/LineConsole.h"

#include "tests/support/burn_reports.h"

namespace {

using namespace report;

std::string InLines(const std::string& console, std::size_t piece = std::string::npos) {
  LineConsole lines;
  std::string out;
  for (std::size_t at = 0; at < console.size(); at += std::min(piece, console.size())) {
    out += lines.Feed(std::string_view(console).substr(at, piece));
  }
  return out + lines.Finish();
}

TEST(LineConsoleTest, MeterBecomesALineATenth) {
  EXPECT_EQ(InLines("-I- Generic Burning:\n"
                    "\r\\ Burning  - % 0\r| Burning  - % 5\r/ Burning  - %12\r- Burning  - %19"
                    "\r\\ Burning  - %50\r- Burning  -  OK \n"
                    "\r- Validating first  image                            -  OK \n"
                    "-I- BURN SUCCEEDED\n"),
            "-I- Generic Burning:\n"
            "Burning - % 0\nBurning - %12\nBurning - %50\nBurning - OK\n"
            "Validating first image - OK\n"
            "-I- BURN SUCCEEDED\n");
}

TEST(LineConsoleTest, FailuresAndOpenLinesGetLinesOfTheirOwn) {
  EXPECT_EQ(InLines("-I- Updating invariant sector (non failsafe) ... "
                    "\r-E- BURN FAILED:0x0000000000000001:x\n Done.\n\n"
                    "\r\\ Burning  - %07\r-E- BURN FAILED:ALL:y\n"),
            "-I- Updating invariant sector (non failsafe) ... \n"
            "-E- BURN FAILED:0x0000000000000001:x\n Done.\n\n"
            "Burning - % 7\n-E- BURN FAILED:ALL:y\n");
  EXPECT_EQ(InLines("Bad argument to -m flag"), "Bad argument to -m flag");
  EXPECT_EQ(InLines("a\r\n\r\\ Burning  -  OK \r\nb\r\n"), "a\nBurning - OK\nb\n");
}

TEST(LineConsoleTest, TextGoesOutAsItComes) {
  LineConsole lines;
  EXPECT_EQ(lines.Feed("-I"), "-I");
  EXPECT_EQ(lines.Feed("- Updating invariant sector"), "- Updating invariant sector");
  EXPECT_EQ(lines.Feed("\n\r\\ Burning  - %"), "\n");
  EXPECT_EQ(lines.Feed(" "), "");
  EXPECT_EQ(lines.Feed("7"), "Burning - % 7\n");
}

TEST(LineConsoleTest, ResultDoesNotDependOnHowTheConsoleIsCut) {
  for (const std::string name : {"rv61300-failsafe", "verify-failure", "rv52100-failsafe-moved"}) {
    const std::string console = GoldenConsole(name);
    const std::string whole = InLines(console);
    EXPECT_EQ(whole.find('\r'), std::string::npos);
    for (std::size_t piece = 1; piece < 80; ++piece) EXPECT_EQ(InLines(console, piece), whole);
  }
}

TEST(LineConsoleTest, ReportOfItIsThatOfTheConsole) {
  for (const std::string name : {"rv61300-failsafe", "verify-failure", "rv52100-failsafe-moved"}) {
    const GuidSet asked = {0x10, 0x20, 0x30};
    const BurnReport report = ReportOf(GoldenConsole(name), asked);
    const BurnReport lines = ReportOf(InLines(GoldenConsole(name)), asked);
    EXPECT_EQ(DevicesOf(lines), DevicesOf(report));
    EXPECT_EQ(PhasesOf(lines), PhasesOf(report));
    EXPECT_EQ(lines.counts, report.counts);
  }
}

TEST(LineConsoleTest, WhatIsTooLongForAMeterGoesOutAsItComes) {
  LineConsole lines;
  const std::string text = "Burning " + std::string(2000, 'x');
  EXPECT_EQ(lines.Feed("\r" + text), text);
  EXPECT_EQ(lines.Feed("y\n"), "y\n");
}

}  // namespace
