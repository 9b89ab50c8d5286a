// What a console of fwpush tells of a burn, and the texts that it is known by.

#include "report/BurnLog.h"

#include <signal.h>

#include <regex>

#include "common/Text.h"
#include "src/BraidConn.h"
#include "src/main.h"
#include "tests/support/Harness.h"
#include "tests/support/burn_reports.h"
#include "tests/support/consoles.h"

namespace {

using namespace report;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

// ---- The texts, held against the program's sources.

/// A string literal of a source file.
struct Literal {
  std::string before;  ///< the code just before it
  std::string text;    ///< what it means, those that follow it directly joined to it
};

/// The string literals of `code`.
std::vector<Literal> LiteralsIn(const std::string& code) {
  const std::map<char, char> escapes = {{'n', '\n'},  {'r', '\r'}, {'t', '\t'}, {'v', '\v'},
                                        {'f', '\f'},  {'0', '\0'}, {'"', '"'},  {'\'', '\''},
                                        {'\\', '\\'}, {'x', 'x'}};
  std::vector<Literal> literals;
  bool is_joined = false;  // nothing but blanks since the last
  for (std::size_t at = 0; at < code.size(); ++at) {
    if (code.compare(at, 2, "//") == 0) {
      at = std::min(code.find('\n', at), code.size());
    } else if (code[at] == '\'' && at > 0 && std::isalnum(code[at - 1]) == 0) {
      at = code.find('\'', at + (code[at + 1] == '\\' ? 3 : 2));
      is_joined = false;
    } else if (code[at] == '"') {
      std::string text;
      const std::size_t start = at;
      for (++at; code[at] != '"'; ++at)
        text += code[at] == '\\' ? escapes.at(code[++at]) : code[at];
      if (is_joined) {
        literals.back().text += text;
      } else {
        literals.push_back(
            {code.substr(start < 60 ? 0 : start - 60, std::min<std::size_t>(start, 60)), text});
      }
      is_joined = true;
    } else if (std::isspace(code[at]) == 0) {
      is_joined = false;
    }
  }
  return literals;
}

class SourcesTest : public testing::Test {
 protected:
  SourcesTest() {
    for (const auto& entry : std::filesystem::directory_iterator(SOURCE_FOLDER)) {
      _literals[entry.path().filename()] = LiteralsIn(ReadText(entry.path()));
    }
  }

  /// Whether a literal of `file`, or of any file where that is empty, contains `text`.
  bool Has(const std::string& text, const std::string& file = "") const {
    for (const auto& [name, literals] : _literals) {
      if (!file.empty() && name != file) continue;
      for (const Literal& literal : literals) {
        if (literal.text.find(text) != std::string::npos) return true;
      }
    }
    return false;
  }

  /// The literals that come right after something that `pattern` fits.
  std::vector<std::string> Behind(const std::string& file, const std::string& pattern) const {
    std::vector<std::string> texts;
    const std::regex before("(^|[^A-Za-z])" + pattern + "\\s*$");
    for (const Literal& literal : _literals.at(file)) {
      if (std::regex_search(literal.before, before)) texts.push_back(literal.text);
    }
    return texts;
  }

  static bool IsKnown(const std::string& text, std::string_view unit) {
    return std::ranges::any_of(Texts(), [&](const TextRow& row) {
      return row.unit == unit && row.kind != LineKind::METER &&
             text.find(row.head) != std::string::npos;
    });
  }

  std::map<std::string, std::vector<Literal>> _literals;
};

TEST(LiteralsTest, AreFoundJoinedUnescapedAndOutsideOfComments) {
  std::vector<std::string> texts;
  for (const Literal& literal :
       LiteralsIn("a(\"x\\r\\\"\"  // \"no\"\n \"y\", '\"', 1'000, \"z\") << '\\'' << \"\"")) {
    texts.push_back(literal.text);
  }
  EXPECT_THAT(texts, ElementsAre("x\r\"y", "z", ""));
}

TEST_F(SourcesTest, EveryTextThatIsLookedForIsOneOfTheProgram) {
  for (const TextRow& row : Texts()) {
    const std::string file = row.unit.empty() ? "" : std::string(row.unit) + ".cpp";
    EXPECT_TRUE(Has(std::string(row.head), file)) << row.head;
    EXPECT_TRUE(Has(std::string(row.tail), file)) << row.tail;
  }
  EXPECT_FALSE(Has("-I- BURN SUCCEDED"));
  EXPECT_FALSE(Has("-I- BURN SUCCEEDED", "FwImage.cpp"));
}

TEST_F(SourcesTest, EveryLineThatTheProgramPrintsForPeopleIsKnown) {
  int lines = 0;
  for (const auto& [file, literals] : _literals) {
    for (const Literal& literal : literals) {
      if (!std::regex_search(literal.text, std::regex("^\r?-[IWE]- ."))) continue;
      EXPECT_TRUE(IsKnown(literal.text, "")) << file << ": " << literal.text;
      ++lines;
    }
  }
  EXPECT_EQ(lines, 21);
}

TEST_F(SourcesTest, EveryDebugLineIsKnown) {
  std::size_t lines = 0;
  for (const std::string unit : {"main", "RomInterface", "BurnAlgorithm"}) {
    for (const std::string& text : Behind(unit + ".cpp", "Debug\\([A-Z_]*\\)\\s*<<")) {
      EXPECT_TRUE(IsKnown(text, unit)) << unit << ": " << text;
      ++lines;
    }
  }
  EXPECT_EQ(lines, 16u);
  for (const std::string unit : {"BraidConn", "BraidGeneral", "FwImage", "utils"}) {
    EXPECT_THAT(Behind(unit + ".cpp", "Debug\\([A-Z_]*\\)\\s*<<"), IsEmpty());
  }
}

TEST_F(SourcesTest, EveryTextOfTheCommandLineIsKnown) {
  const std::vector<std::string> texts = Behind("main.cpp", "ConsolePrintf\\(");
  EXPECT_EQ(texts.size(), 11u);
  for (const std::string& text : texts) EXPECT_TRUE(IsKnown(text, "")) << text;
}

TEST_F(SourcesTest, EveryLabelOfAMeterIsKnown) {
  std::size_t labels = 0;
  for (const std::string pattern :
       {"start_phase\\(", "PercentProgressMeter [a-z]+\\(", "SetMsg\\("}) {
    for (const std::string& label : Behind("BurnAlgorithm.cpp", pattern)) {
      if (label.empty()) continue;
      ++labels;
      const auto frame = ReadMeter("\\ " + label + "x - % 7");
      ASSERT_TRUE(frame) << label;
      EXPECT_EQ(frame->percent, 7u);
    }
  }
  EXPECT_EQ(labels, 8u);
  for (const std::string text : {" - ", " OK ", "%", "-\\|/-\\|/\r"}) {
    EXPECT_TRUE(Has(text)) << text;
  }
}

TEST_F(SourcesTest, SwitchesAreThoseOfTheProgram) {
  const std::string code = ReadText(std::string(SOURCE_FOLDER) + "/main.cpp");
  const std::regex row("\\{\"([A-Za-z]+)\", (true|false), ");
  std::vector<std::pair<std::string, bool>> theirs;
  for (auto it = std::sregex_iterator(code.begin(), code.end(), row); it != std::sregex_iterator();
       ++it) {
    theirs.emplace_back((*it)[1], (*it)[2] == "true");
  }
  std::vector<std::pair<std::string, bool>> ours;
  for (const SwitchText& text : SwitchTexts()) ours.emplace_back(text.name, text.takes_value);
  EXPECT_EQ(ours, theirs);
}

TEST(BurnerTest, ItsLimitsAndRulesAreOurs) {
  EXPECT_EQ(BurnLog::LONGEST_SERVER_LINE, std::size_t{BraidConn::MAX_LINE});
  for (const std::string list : {"", ",", "10", "0x10,20", " 10", "10 ", "10,,0xFF,", "-1", "+5",
                                 "0x", "x", "1,2,z,4", "10000000000000000", "1 2"}) {
    GuidSet theirs;
    std::string their_error = ErrorOf([&] { GetTargeGuids(list, theirs); });
    std::set<Guid> ours;
    std::string our_error = "(no error)";
    try {
      common::ParseGuids(list, ours);
    } catch (const std::runtime_error& error) {
      our_error = error.what();
    }
    EXPECT_EQ(ours, theirs) << list;
    EXPECT_EQ(our_error, their_error) << list;
  }
}

// ---- The devices that a command line asks for.

GuidSet Asked(const std::vector<std::string>& words) { return AskedDevices(words); }

TEST(AskedDevicesTest, AreThoseOfEveryGuidSwitchHoweverItIsSpelt) {
  EXPECT_THAT(Asked({"-f", "x.img", "-g", "0x1234,abcd", "-s", "I2C:h:1"}),
              ElementsAre(0x1234, 0xABCD));
  EXPECT_THAT(Asked({"-g=10", "--g", "20,,30,"}), ElementsAre(0x10, 0x20, 0x30));
  EXPECT_THAT(Asked({"-g", "a", "-n", "-g", "a"}), ElementsAre(0xA));
  EXPECT_THAT(Asked({"-n", "-m", "8"}), IsEmpty());
}

TEST(AskedDevicesTest, AreNotTheValuesOfOtherSwitches) {
  EXPECT_THAT(Asked({"-f", "-g", "-g", "1"}), ElementsAre(1));
  EXPECT_THAT(Asked({"-", "-g", "-V", "-g=5", "-s", "-g", "-g", "2"}), ElementsAre(2));
  EXPECT_THAT(Asked({"-f=-g", "-g", "3"}), ElementsAre(3));
}

TEST(AskedDevicesTest, AreKnownForACommandLineThatIsRefused) {
  EXPECT_THAT(Asked({"-x", "stray", "-g", "10,zz,20", "-g"}), ElementsAre(0x10));
  EXPECT_THAT(Asked({"fwpush", "-v", "-g", "10"}), ElementsAre(0x10));
}

// ---- Consoles.

constexpr char GENERIC_END[] = "\r- Burning  -  OK \n-I- BURN SUCCEEDED\n";

TEST(BurnLogTest, GenericBurnOfTwoDevicesIsToldWhole) {
  const BurnReport report = ReportOf(GoldenConsole("rv61100"), {0x10, 0x20});
  EXPECT_TRUE(report.is_all_burnt);
  EXPECT_TRUE(report.is_succeeded);
  EXPECT_TRUE(report.is_devices_known);
  EXPECT_EQ(report.failure, "");
  EXPECT_EQ(report.algorithm, "GenericBurn");
  EXPECT_EQ(report.image, "fw.img");
  EXPECT_EQ(report.server, "I2C:10.0.0.1:5000");
  EXPECT_THAT(DevicesOf(report), ElementsAre("10 burnt", "20 burnt"));
  EXPECT_THAT(PhasesOf(report), ElementsAre("Burning 100 done"));
  EXPECT_THAT(report.counts, IsEmpty());
  EXPECT_THAT(report.warnings,
              ElementsAre("*** REPLACES OF TYPE BSN ARE IGNORED FOR DEVICE TYPE 61100 ***"));
}

TEST(BurnLogTest, OtherGenericBurnsAreToldWhole) {
  for (const std::string name : {"rv52100-generic", "rv61300-generic"}) {
    const BurnReport report = ReportOf(GoldenConsole(name), {0x10}, Ending{0, 0});
    EXPECT_TRUE(report.is_all_burnt) << name;
    EXPECT_THAT(DevicesOf(report), ElementsAre("10 burnt"));
    EXPECT_THAT(PhasesOf(report), ElementsAre("Burning 100 done"));
  }
}

TEST(BurnLogTest, DeviceThatReadsBackSomethingElseHasFailed) {
  const BurnReport report = ReportOf(GoldenConsole("verify-failure"), {0x10, 0x20}, Ending{0, 0});
  EXPECT_FALSE(report.is_all_burnt);
  EXPECT_TRUE(report.is_succeeded);
  EXPECT_THAT(
      DevicesOf(report),
      ElementsAre("10 burnt", "20 failed: Error verifying data on address 6. Wrote 77, read 7f ."));
}

TEST(BurnLogTest, DeviceWithoutAValidImageIsOnlyReportedAndHasFailedAllTheSame) {
  const BurnReport report = ReportOf(GoldenConsole("rv61300-failsafe"), {0x10, 0x20, 0x30});
  EXPECT_FALSE(report.is_all_burnt);
  EXPECT_TRUE(report.is_succeeded);
  EXPECT_EQ(report.algorithm, "RV61300FailsafeBurn");
  EXPECT_THAT(
      DevicesOf(report),
      ElementsAre("10 burnt", "20 burnt",
                  "30 failed same: Both images are invalid - Can't perform failsafe burn."));
  EXPECT_THAT(report.counts, ElementsAre(Pair("both_valid", 1), Pair("first_only_valid", 1),
                                         Pair("second_only_valid", 0), Pair("total", 3)));
  EXPECT_THAT(PhasesOf(report),
              ElementsAre("Burning first image with invalidated signature 100 done",
                          "Validating first image 100 done",
                          "Burning second image with invalidated signature 100 done",
                          "Validating second image 100 done",
                          "Burning second image with invalidated signature 100 done",
                          "Validating second image 100 done",
                          "Burning first image with invalidated signature 100 done",
                          "Validating first image 100 done"));
}

TEST(BurnLogTest, FailsafeBurnOfAFlashIsToldInItsPhases) {
  const BurnReport report = ReportOf(GoldenConsole("rv52100-failsafe-first"), {0x10});
  EXPECT_TRUE(report.is_all_burnt);
  EXPECT_EQ(report.algorithm, "RV52100FailsafeBurn");
  EXPECT_THAT(report.counts,
              ElementsAre(Pair("both_valid", 0), Pair("first_only_valid", 1), Pair("none_valid", 0),
                          Pair("second_only_valid", 0), Pair("total", 1)));
  EXPECT_THAT(PhasesOf(report),
              ElementsAre("Invalidating second image signature 100 done",
                          "Burning second image 100 done", "Burning second pointer sector 100 done",
                          "Validating second image 100 done", "Invalidating first image 100 done"));
}

TEST(BurnLogTest, MoveAndBurnAreBothTold) {
  const BurnReport report = ReportOf(GoldenConsole("rv52100-failsafe-moved"), {0x10});
  EXPECT_TRUE(report.is_all_burnt);
  EXPECT_EQ(report.counts.at("second_only_valid"), 1u);
  ASSERT_EQ(report.phases.size(), 10u);
  EXPECT_EQ(report.phases[0].label, "Invalidating first image signature");
  EXPECT_EQ(report.phases[9].label, "Invalidating first image");
}

TEST(BurnLogTest, ReportDoesNotDependOnWhereTheConsoleIsCut) {
  const std::string console = GoldenConsole("rv61300-failsafe");
  const BurnReport whole = ReportOf(console, {0x10, 0x20, 0x30});
  for (std::size_t cut = 0; cut <= console.size(); ++cut) {
    BurnLog log;
    log.Feed(std::string_view(console).substr(0, cut));
    log.Feed(std::string_view(console).substr(cut));
    const BurnReport report = log.Conclude({0x10, 0x20, 0x30});
    ASSERT_EQ(DevicesOf(report), DevicesOf(whole)) << cut;
    ASSERT_EQ(PhasesOf(report), PhasesOf(whole)) << cut;
    ASSERT_EQ(report.counts, whole.counts) << cut;
  }
}

TEST(BurnLogTest, NoBeginningOfABurnPassesForAWholeOne) {
  for (const std::string name : {"rv61100", "rv52100-failsafe-moved"}) {
    const std::string console = GoldenConsole(name);
    // Without the last line end it still says all.
    for (std::size_t size = 0; size < console.size() - 1; ++size) {
      BurnLog log;
      log.Feed(console.substr(0, size));
      const BurnReport report = log.Conclude({0x10});
      ASSERT_FALSE(report.is_all_burnt) << size;
      ASSERT_NE(report.devices.at(0).status, DeviceStatus::BURNT) << size;
      ASSERT_EQ(report.failure, "the log ends before the burn does");
    }
  }
}

TEST(BurnLogTest, CarriageReturnsOfATerminalChangeNothing) {
  std::string console = GoldenConsole("verify-failure");
  for (std::size_t at = 0; (at = console.find('\n', at)) != std::string::npos; at += 2) {
    console.replace(at, 1, "\r\n");
  }
  EXPECT_EQ(DevicesOf(ReportOf(console, {0x10, 0x20})),
            DevicesOf(ReportOf(GoldenConsole("verify-failure"), {0x10, 0x20})));
  EXPECT_TRUE(ReportOf(console, {0x10, 0x20}).is_succeeded);
}

TEST(BurnLogTest, CountsAreReadInTheBaseThatTheConsoleIsLeftIn) {
  const std::string counts =
      "-I- Total devices:   10\n-I- Both valid:      a\n-I- Frst only valid: 6\n"
      "-I- Scnd only valid: 0\n";
  const std::string query = "-D- RomInterface:5: Querying device 1, addr 0 size 16\n";
  EXPECT_EQ(
      ReportOf(query + "-D- BurnAlgorithm:817: Checksum is: ab\n" + counts, {1}).counts,
      (std::map<std::string, u_int64_t>{
          {"total", 16}, {"both_valid", 10}, {"first_only_valid", 6}, {"second_only_valid", 0}}));
  EXPECT_EQ(ReportOf(query + "-I- Total devices:      10\n", {1}).counts.at("total"), 10u);
  EXPECT_EQ(
      ReportOf(query + "\r-E- BURN FAILED:0x0000000000000001:x\n-I- Total devices:   10\n", {1})
          .counts.at("total"),
      16u);
}

TEST(BurnLogTest, RunThatEndsWithoutADeviceNamesEachOnesReason) {
  const BurnReport report = ReportOf(std::string(PREAMBLE) + GENERIC +
                                         "\r-E- BURN FAILED:0x0000000000000010:one\n"
                                         "\r| Burning  - %50"
                                         "\r-E- BURN FAILED:0x0000000000000020:two: three\n"
                                         "\r-E- BURN FAILED:ALL:No more accessible devices\n",
                                     {0x10, 0x20}, Ending{1, 0});
  EXPECT_FALSE(report.is_succeeded);
  EXPECT_EQ(report.failure, "No more accessible devices");
  EXPECT_THAT(DevicesOf(report), ElementsAre("10 failed: one", "20 failed: two: three"));
  EXPECT_THAT(PhasesOf(report), ElementsAre("Burning 50"));
}

TEST(BurnLogTest, RunThatEndsInTheMiddleFailsEveryDeviceThatItMayHaveWrittenTo) {
  const BurnReport report = ReportOf(std::string(PREAMBLE) + GENERIC +
                                         "\r-E- BURN FAILED:ALL:bus stuck\n"
                                         "\r-E- BURN FAILED:ALL:No more accessible devices\n",
                                     {0x10, 0x20}, Ending{1, 0});
  EXPECT_EQ(report.failure, "bus stuck; No more accessible devices");
  EXPECT_THAT(DevicesOf(report), ElementsAre("10 failed: bus stuck; No more accessible devices",
                                             "20 failed: bus stuck; No more accessible devices"));
}

TEST(BurnLogTest, RunThatEndsBeforeAnythingIsWrittenNeverReachesItsDevices) {
  const BurnReport report = ReportOf(
      std::string(PREAMBLE) +
          "\r-E- BURN FAILED:0x0000000000000077:Device not accessible by server PPC:h:1 .\n"
          "\r-E- BURN FAILED:ALL:timeout\n",
      {0x10, 0x77}, Ending{1, 0});
  EXPECT_THAT(DevicesOf(report),
              ElementsAre("10 never same: timeout",
                          "77 failed same: Device not accessible by server PPC:h:1 ."));
  EXPECT_EQ(report.algorithm, "");
}

TEST(BurnLogTest, FlashWithTwoValidImagesMayBeWrittenToBeforeAMeterShows) {
  const auto after = [](const std::string& counts) {
    return DevicesOf(
        ReportOf(std::string(PREAMBLE) + counts + "\r-E- BURN FAILED:ALL:gone\n", {1}));
  };
  EXPECT_THAT(after("-I- Total devices:      1\n-I- Both images valid:  1\n"),
              ElementsAre("1 failed: gone"));
  EXPECT_THAT(after("-I- Total devices:      1\n-I- Both images valid:  0\n"
                    "-I- No image valid:     0\n-I- First  image valid: 0\n"
                    "-I- Second image valid: 1\n"),
              ElementsAre("1 never same: gone"));
}

TEST(BurnLogTest, CheckThatWritesNothingIsNoBurn) {
  const BurnReport report =
      ReportOf(std::string(PREAMBLE) +
                   "-D- main:4: Running burn algorithm: RV61300FailsafeBurn\n"
                   "-I- Total devices:   1\n-I- Both valid:      1\n-I- Frst only valid: 0\n"
                   "-I- Scnd only valid: 0\n-I- BURN SUCCEEDED\n",
               {0x10}, Ending{0, 0});
  EXPECT_TRUE(report.is_succeeded);
  EXPECT_FALSE(report.is_all_burnt);
  EXPECT_THAT(DevicesOf(report), ElementsAre("10 never same: nothing was written"));
}

TEST(BurnLogTest, ImageWithoutContentBurnsNothing) {
  const BurnReport report =
      ReportOf(std::string(PREAMBLE) + GENERIC + "-I- BURN SUCCEEDED\n", {0x10}, Ending{0, 0});
  EXPECT_FALSE(report.is_all_burnt);
  // Nor does it when no device is known by name.
  EXPECT_FALSE(ReportOf(std::string(PREAMBLE) + GENERIC + "-I- BURN SUCCEEDED\n", {}).is_all_burnt);
}

TEST(BurnLogTest, InvariantSectorIsAPhaseWhateverFailsInIt) {
  const std::string start = std::string(PREAMBLE) +
                            "-I- Changes in invariant sector detected for 1 devices.\n"
                            "-I- Updating invariant sector (non failsafe) ... ";
  const BurnReport updated = ReportOf(start + " Done.\n", {1});
  EXPECT_THAT(PhasesOf(updated), ElementsAre("Updating invariant sector 100 done"));
  EXPECT_EQ(updated.counts.at("changed_invariant_sector"), 1u);
  const BurnReport failed =
      ReportOf(start + "\r-E- BURN FAILED:0x0000000000000001:broken\n Done.\n", {1, 2});
  EXPECT_THAT(PhasesOf(failed), ElementsAre("Updating invariant sector 100 done"));
  EXPECT_EQ(DevicesOf(failed)[0], "1 failed: broken");
  EXPECT_THAT(PhasesOf(ReportOf(start, {1})), ElementsAre("Updating invariant sector 0"));
}

TEST(BurnLogTest, BurnerThatIsKilledIsTold) {
  const BurnReport report =
      ReportOf(std::string(PREAMBLE) + GENERIC + "\r| Burn", {0x10}, Ending{0, SIGKILL});
  EXPECT_EQ(report.failure, "the burner was ended by signal 9 (Killed)");
  EXPECT_THAT(DevicesOf(report),
              ElementsAre("10 failed: the burner was ended by signal 9 (Killed)"));
}

TEST(BurnLogTest, SuccessThatTheExitStatusDeniesIsNone) {
  const std::string console = std::string(PREAMBLE) + GENERIC + GENERIC_END;
  EXPECT_TRUE(ReportOf(console, {0x10}, Ending{0, 0}).is_all_burnt);
  EXPECT_FALSE(ReportOf(console, {0x10}, Ending{1, 0}).is_all_burnt);
  EXPECT_FALSE(ReportOf(console, {0x10}, Ending{0, SIGABRT}).is_all_burnt);
  EXPECT_FALSE(ReportOf(console + PREAMBLE, {0x10}, Ending{0, 0}).is_all_burnt);
}

TEST(BurnLogTest, DevicesOfAnUnknownCommandLineAreThoseThatTheLogNames) {
  const BurnReport failed = ReportOf(GoldenConsole("verify-failure"), {});
  EXPECT_FALSE(failed.is_devices_known);
  EXPECT_FALSE(failed.is_all_burnt);
  EXPECT_EQ(DevicesOf(failed).size(), 1u);
  EXPECT_THAT(DevicesOf(ReportOf(GoldenConsole("rv52100-failsafe-first"), {})),
              ElementsAre("10 burnt"));
  // Whoever fails is named: nobody has.
  EXPECT_TRUE(ReportOf(GoldenConsole("rv61100"), {}).is_all_burnt);
}

TEST(BurnLogTest, GuidZeroIsToldApartFromAllDevices) {
  const BurnReport report =
      ReportOf(std::string(PREAMBLE) +
                   "\r-E- BURN FAILED:ALL:Both images are invalid - Can't perform failsafe burn.\n"
                   "\r- Validating first  image                            -  OK \n"
                   "-I- BURN SUCCEEDED\n",
               {0, 0x10}, Ending{0, 0});
  EXPECT_FALSE(report.is_all_burnt);
  EXPECT_THAT(DevicesOf(report),
              ElementsAre("0 failed same: Both images are invalid - Can't perform failsafe burn.",
                          "10 burnt"));
}

TEST(BurnLogTest, FailureLineThatIsCutShortIsStillAFailure) {
  for (const std::string line :
       {"\r-E- BURN FAILED:", "\r-E- BURN FAILED:0x00000", "-E- BURN FAILED:A"}) {
    const BurnReport report = ReportOf(std::string(PREAMBLE) + GENERIC + line, {0x10});
    EXPECT_FALSE(report.is_all_burnt);
    EXPECT_THAT(report.devices.size(), 1u);
  }
  EXPECT_FALSE(
      ReportOf(std::string(PREAMBLE) + GENERIC + "\r-E- BURN FAILED:0x12\n" + GENERIC_END, {0x10})
          .is_all_burnt);
}

TEST(BurnLogTest, CommandLineThatIsRefusedIsTold) {
  const std::string refusals[] = {
      "-E- -s <server> flag must be specified\n",
      "-E- No target devices given (-g <guids> flag).\n",
      "Unexpected parameter \"x\" is specified.\n",
      "Invalid switch \"-x\" is specified.\n",
      "Missed parameter after \"-f\" switch\n",
      "FW image file may be specified onyl once.\nNew FW image file: \"b\", Old FW image file",
      "Bad argument to -m flag",
      "Illegal value to -m flag: 3"};
  for (const std::string& refusal : refusals) {
    const BurnReport report = ReportOf(refusal, {0x10}, Ending{1, 0});
    EXPECT_EQ(report.failure + "\n", refusal.substr(0, refusal.find('\n')) + "\n");
    EXPECT_EQ(report.devices.at(0).status, DeviceStatus::NEVER_REACHED);
  }
}

TEST(BurnLogTest, VersionAndHelpAreNoBurns) {
  for (const std::string& console :
       {Golden("wrong-version.console"), std::string("fwpush\n\n     FirmWare Burning Tool\n")}) {
    const BurnReport report = ReportOf(console, {}, Ending{0, 0});
    EXPECT_FALSE(report.is_all_burnt);
    EXPECT_EQ(report.failure, "the burner ended without a burn");
  }
}

TEST(BurnLogTest, OtherTextIsNotTakenForFwpush) {
  for (const std::string text :
       {"", "hello\n", "\r100%\n", "-D- other:1: Setting addr convertor.\n",
        "-D- main: Setting addr convertor.\n", "-D- nothing", "Burning - %12\n"}) {
    BurnLog log;
    log.Feed(text);
    EXPECT_FALSE(log.Conclude({}).is_all_burnt);
    EXPECT_FALSE(log.IsFwpush()) << text;
  }
}

TEST(BurnLogTest, PhaseLastsFromTheTextBeforeItToItsEnd) {
  BurnLog log;
  log.Feed("-D- main:4: Running burn algorithm: RV61300FailsafeBurn\n", 1);
  log.Feed("\r\\ Burning    first  image with inval", 2);
  log.Feed("idated signature - %50", 2.25);
  log.Feed("\r- Burning    first  image with invalidated signature -  OK \n", 4.5);
  log.Feed("\r- Validating first  image                            -  OK \n", 5);
  const BurnReport report = log.Conclude({1});
  ASSERT_EQ(report.phases.size(), 2u);
  EXPECT_EQ(report.phases[0].start, 1);
  EXPECT_EQ(report.phases[0].end, 4.5);
  EXPECT_EQ(report.phases[1].start, 4.5);
  EXPECT_EQ(report.phases[1].end, 5);
}

TEST(BurnLogTest, OfALineOnlyTheBeginningIsHeld) {
  const std::string piece(std::size_t{1} << 20, 'x');
  BurnLog log;
  log.Feed("-E- BURN FAILED:0x0000000000000010:");
  for (int i = 0; i < 31; ++i) log.Feed(piece);
  EXPECT_FALSE(log.IsOverlong());  // an answer of 16 MiB is quoted whole
  for (int i = 0; i < 10; ++i) log.Feed(piece);
  EXPECT_TRUE(log.IsOverlong());
  log.Feed("\n");
  const BurnReport report = log.Conclude({0x10});
  ASSERT_EQ(report.devices.size(), 1u);
  EXPECT_EQ(report.devices[0].status, DeviceStatus::FAILED);
  EXPECT_EQ(report.devices[0].text.size(), (std::size_t{1} << 25) - 35);
}

}  // namespace
