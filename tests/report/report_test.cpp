// The built fwpush-report: whole burns, and what it makes of them.
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/support/Harness.h"
#include "tests/support/consoles.h"
#include "tests/support/slot_images.h"

namespace {

using testing::ElementsAre;

constexpr char FLAT_IMAGE[] = "DEVICE_TYPE RV61100\nSTART ALL 0 0\n";

/// Adapters 10, 20 and so on with one small EEPROM each, and an image of 32 bytes for them.
class ReportTest : public ConsoleTest {
 protected:
  ReportTest() {
    std::string image = FLAT_IMAGE;
    for (int i = 0; i < 8; ++i) image += "77 77 77 77\n";
    _image = _folder.Write("fw.img", image + "END ALL\n");
  }

  void Serve(int devices, const std::string& faults = "") {
    std::string fabric = "[server]\ntype = \"PPC\"\n";
    for (int i = 1; i <= devices; ++i) {
      fabric +=
          Text("[[device]]\nname = \"leaf\"\nattribute = \"a\"\nnode_guid = \"0x", i,
               "0\"\nport_guids = [\"0x", i, "1\"]\n", "chip = [{ address = 0, size = 0x100 }]\n");
    }
    std::filesystem::remove_all(_folder / "state");
    _simulator = std::make_unique<Simulator>(_folder, fabric + faults);
  }

  static std::string Fault(const std::string& kind, const std::string& more) {
    return "[[fault]]\nkind = \"" + kind + "\"\ncommand = \"Write\"\n" + more + "\n";
  }

  std::vector<std::string> Burn(const std::string& guids) const {
    return {FwpushProgram(), "-m", "4", "-f", _image, "-s", _simulator->Server(), "-g", guids};
  }

  static std::vector<std::string> Words(std::vector<std::string> options,
                                        const std::vector<std::string>& burn) {
    options.insert(options.begin(), REPORT_PROGRAM);
    options.emplace_back("--");
    options.insert(options.end(), burn.begin(), burn.end());
    return options;
  }

  static Outcome Report(const std::vector<std::string>& options,
                        const std::vector<std::string>& burn, Through through = Through::PIPE) {
    return RunProgram(Words(options, burn), through);
  }

  nlohmann::json Json() const {
    return nlohmann::json::parse(ReadText(_folder / "report.json"), nullptr, false);
  }

  bool IsBurnt(int device) const {
    DataVec expected(32, 0x77);
    expected.resize(0x100, 0xFF);
    return _simulator->Memory(Text("0x00000000000000", device, ".0.i2c")) == expected;
  }

  common::ScratchFolder _folder;
  std::unique_ptr<Simulator> _simulator;
  std::string _image;
};

TEST_F(ReportTest, ConsoleOfABurnPassesUnchanged) {
  Serve(2);
  const Outcome direct = RunProgram(Burn("10,20"));
  const Outcome reported = Report({}, Burn("10,20"));
  EXPECT_EQ(direct.status, 0);
  EXPECT_EQ(reported.status, 0) << reported.errors;
  EXPECT_EQ(reported.output, direct.output);
  EXPECT_NE(reported.errors.find("\n  0x0000000000000020  burnt\n"), std::string::npos)
      << reported.errors;
  EXPECT_TRUE(reported.errors.ends_with("\n  every device is burnt\n")) << reported.errors;
}

TEST_F(ReportTest, ConsoleOfABurnPassesUnchangedThroughATerminal) {
  Serve(1);
  const Outcome direct = RunProgram(Burn("10"), Through::TERMINAL);
  const Outcome reported = Report({}, Burn("10"), Through::TERMINAL);
  EXPECT_EQ(reported.status, 0);
  // The summary comes behind it, on the same terminal.
  EXPECT_TRUE(reported.output.starts_with(direct.output + "fwpush-report: GenericBurn, "))
      << reported.output;
}

TEST_F(ReportTest, BurnRunsOnATerminalJustWhereItWouldWithoutAReport) {
  const std::vector<std::string> ask = {"/bin/sh", "-c", "test -t 1 && echo terminal || echo pipe"};
  EXPECT_TRUE(Report({}, ask, Through::TERMINAL).output.starts_with("terminal\r\n"));
  EXPECT_TRUE(Report({"--plain"}, ask, Through::TERMINAL).output.starts_with("pipe\r\n"));
  EXPECT_EQ(Report({}, ask).output, "pipe\n");
}

TEST_F(ReportTest, DevicesOfAFileAreBurnt) {
  Serve(3);
  const std::string list = _folder.Write("guids", "# two of three\r\n0x30\r\n\r\n10\r\n");
  const Outcome outcome = Report({"--json", _folder / "report.json"}, Burn("@" + list));
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(IsBurnt(10));
  EXPECT_FALSE(IsBurnt(20));
  EXPECT_TRUE(IsBurnt(30));
  EXPECT_EQ(Json()["command"].back(), "@" + list);
  EXPECT_EQ(Json()["devices"].size(), 2u);
  const Outcome wrong = Report({}, Burn("@" + _folder.Write("wrong", "10\nzz\n")));
  EXPECT_EQ(wrong.status, 64);
  EXPECT_THAT(wrong.errors, testing::HasSubstr("wrong:2: not a GUID: zz"));
  EXPECT_EQ(Report({}, Burn("@" + (_folder / "none"))).status, 64);
}

/// Stands in for the burner: no simulated fabric has so many devices for one command line.
class SeriesTest : public ReportTest {
 protected:
  SeriesTest() {
    std::string guids;
    for (u_int64_t i = 0; i < 20000; ++i) guids += Text(std::hex, 0xAA550000000000 + i, "\n");
    _list = "@" + _folder.Write("guids", guids);
  }

  /// A burn that adds a line to the file `runs`, and whose run number `fails_at` fails.
  std::vector<std::string> Burner(const std::string& runs, int fails_at) {
    const std::string burner = _folder.Write("burner",
                                             "echo run >>$1\n"
                                             "echo '-I- Generic Burning:'\n"
                                             "if [ $(wc -l <$1) = $2 ]; then\n"
                                             "  echo '-E- BURN FAILED:ALL:gone'; exit 1\n"
                                             "fi\n"
                                             "echo 'Burning - OK'\n"
                                             "printf %s '-I- BURN SUCCEEDED'\n");
    return {"/bin/sh", burner, runs, std::to_string(fails_at), "-g", _list};
  }

  std::string _list;
};

TEST_F(SeriesTest, DevicesThatDoNotFitIntoACommandLineAreBurntInSeveralBurns) {
  const std::string log = _folder / "console";
  for (const int fails_at : {0, 1, 2}) {
    SCOPED_TRACE(fails_at);
    const std::string runs = _folder / Text("runs", fails_at);
    const int run = fails_at == 0 ? 3 : fails_at;
    const Outcome outcome =
        Report({"--json", _folder / "report.json", "--log", log}, Burner(runs, fails_at));
    EXPECT_THAT(outcome.errors, testing::StartsWith("fwpush-report: the devices are too many for "
                                                    "one command line: 3 burns, one after the "
                                                    "other\n"));
    EXPECT_THAT(outcome.errors, testing::HasSubstr(fails_at == 0   ? " s, in 3 burns\n"
                                                   : fails_at == 1 ? " s, in 1 of 3 burns\n"
                                                                   : " s, in 2 of 3 burns\n"));
    EXPECT_EQ(outcome.output.find("fwpush-report"), std::string::npos);
    nlohmann::json json = Json();
    EXPECT_EQ(json["burns"], 3);
    EXPECT_EQ(json["burns_run"], run);
    ASSERT_EQ(json["devices"].size(), 20000u);
    EXPECT_EQ(json["all_burnt"], fails_at == 0);
    EXPECT_EQ(outcome.status, fails_at == 0 ? 0 : 1);
    std::string expected_runs;
    for (int i = 0; i < run; ++i) expected_runs += "run\n";
    EXPECT_EQ(ReadText(runs), expected_runs);
    const nlohmann::json& last = json["devices"].back();
    EXPECT_EQ(last["outcome"], fails_at == 0 ? "burnt" : "never-reached");
    if (fails_at != 0) {
      EXPECT_EQ(json["failure"], "gone");
      EXPECT_EQ(json["devices"][0]["outcome"], fails_at == 1 ? "failed" : "burnt");
      EXPECT_EQ(last["reason"], "not started: the burn before it failed");
    }

    // The log tells the same.
    const Outcome again =
        Report({"--json", _folder / "report.json", "--from", log}, {"/bin/sh", "-g", _list});
    EXPECT_EQ(again.status, outcome.status) << again.errors.substr(0, 200);
    const nlohmann::json read = Json();
    for (const char* key : {"burns", "burns_run", "all_burnt", "failure", "devices"}) {
      EXPECT_EQ(read[key], json[key]) << key;
    }
  }
}

TEST_F(SeriesTest, SeriesThatCannotStartLeavesTheLogOfBefore) {
  const std::string log = _folder.Write("console", "before");
  EXPECT_EQ(Report({"--log", log}, {_folder / "no-such-program", "-g", _list}).status, 2);
  EXPECT_EQ(ReadText(log), "before");
}

/// A signal ends a series even if the burn succeeds in spite of it, or has ended and something that
/// it started holds its console.
TEST_F(SeriesTest, RequestToEndEndsTheSeries) {
  const std::string late = "sleep 60 2>/dev/null & echo $! >\"$0.pid\"; ";
  for (const std::string& rest :
       {std::string("for i in 1 2 3 4 5 6 7 8 9; do sleep 0.1; done"), late + "exit 0"}) {
    for (const int number : {SIGINT, SIGTERM}) {
      if (rest.starts_with(late) && number == SIGINT) continue;
      SCOPED_TRACE(rest + std::to_string(number));
      const std::string runs = _folder / "runs";
      _folder.Write("runs", "");
      const std::string log = _folder / "console";
      const std::vector<std::string> burn = {
          "/bin/sh",
          "-c",
          "trap '' INT TERM; echo run >>\"$0\"; echo '-I- Generic Burning:'; "
          "echo 'Burning - OK'; echo '-I- BURN SUCCEEDED'; " +
              rest,
          runs,
          "-g",
          _list};
      Child report(Words({"--json", _folder / "report.json", "--log", log}, burn),
                   _folder / "errors");
      while (true) {
        const std::string line = report.ReadLine();
        if (line == "-I- BURN SUCCEEDED" || line.empty()) break;
      }
      // Until the burner has ended, where it does: a zombie of the report, or gone.
      if (rest.starts_with(late)) {
        for (int i = 0; i < 100 && !std::filesystem::exists(runs + ".pid"); ++i) usleep(10000);
        usleep(200000);
      }
      report.Signal(number);
      EXPECT_EQ(report.Wait(), 1);
      EXPECT_EQ(ReadText(runs), "run\n");
      EXPECT_EQ(Json()["burns_run"], 1);
      EXPECT_EQ(Json()["failure"], "not all burns were started: asked to end");
      EXPECT_EQ(Json()["devices"][0]["outcome"], "burnt");
      EXPECT_EQ(Json()["devices"].back()["reason"], "not started: asked to end");
      EXPECT_EQ(Report({"--from", log}, {"fwpush", "-g", _list}).status, 1);
      if (rest.starts_with(late)) {
        kill(std::stoi(ReadText(runs + ".pid")), SIGKILL);
        std::filesystem::remove(runs + ".pid");
      }
    }
  }
}

TEST_F(SeriesTest, SmallStackTakesMoreBurns) {
  const std::string runs = _folder / "runs";
  std::vector<std::string> words = {"/bin/sh", "-c", "ulimit -S -s 256 && exec \"$0\" \"$@\""};
  const std::vector<std::string> report = Words({}, Burner(runs, 0));
  words.insert(words.end(), report.begin(), report.end());
  const Outcome outcome = RunProgram(words);
  EXPECT_EQ(outcome.status, 0) << outcome.errors.substr(0, 300);
  EXPECT_GT(ReadText(runs).size(), std::string("run\n").size() * 3);
}

TEST_F(SeriesTest, LogThatEndsBeforeTheSeriesDoesIsNoSuccess) {
  const std::string log = _folder / "console";
  EXPECT_EQ(Report({"--log", log}, Burner(_folder / "runs", 0)).status, 0);
  const std::string console = ReadText(log);
  const std::string cut =
      _folder.Write("cut", console.substr(0, console.find("fwpush-report: burn 2 of 3: ")));
  const std::vector<std::string> options = {"--json", _folder / "report.json", "--from", cut};
  const Outcome outcome = Report(options, {"fwpush", "-g", _list});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(Json()["burns_run"], 1);
  EXPECT_EQ(Json()["devices"][0]["outcome"], "burnt");
  EXPECT_EQ(Json()["devices"].back()["reason"], "not started: the log ends before it");
  EXPECT_EQ(Report(options, {}).status, 1);  // it does not depend on the devices' being known

  // Without its marks, it does not tell which devices its burn had.
  _folder.Write("cut", "-I- Generic Burning:\nBurning - OK\n-I- BURN SUCCEEDED\n");
  const Outcome undivided = Report(options, {"fwpush", "-g", _list});
  EXPECT_EQ(undivided.status, 2);
  EXPECT_THAT(undivided.errors, testing::HasSubstr("cut: the devices need 3 burns"));
}

TEST_F(ReportTest, OneDeviceOfThreeThatFailsIsToldEverywhere) {
  Serve(3, Fault("device-error", "device = \"0x20\"\nnth = 2\ntext = \"<bro&ken>\""));
  const Outcome outcome = Report({"--json", _folder / "report.json", "--junit",
                                  _folder / "report.xml", "--log", _folder / "console"},
                                 Burn("10,20,30"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(IsBurnt(10));
  EXPECT_FALSE(IsBurnt(20));
  EXPECT_TRUE(IsBurnt(30));
  EXPECT_EQ(ReadText(_folder / "console"), outcome.output);

  nlohmann::json json = Json();
  EXPECT_GT(json["seconds"], 0);
  EXPECT_GE(json["phases"][0]["seconds"], 0);
  EXPECT_LE(json["phases"][0]["seconds"], json["seconds"]);
  json.erase("seconds");
  json["phases"][0].erase("seconds");
  for (const char* burns : {"burns", "burns_run"}) {
    EXPECT_EQ(json[burns], 1);
    json.erase(burns);
  }
  const nlohmann::json expected = {
      {"version", 1},
      {"all_burnt", false},
      {"succeeded", true},
      {"failure", nullptr},
      {"command", Burn("10,20,30")},
      {"exit_status", 0},
      {"signal", nullptr},
      {"image", _image},
      {"server", _simulator->Server()},
      {"algorithm", "GenericBurn"},
      {"devices_known", true},
      {"devices",
       {{{"guid", "0x0000000000000010"},
         {"outcome", "burnt"},
         {"reason", nullptr},
         {"may_have_changed", true}},
        {{"guid", "0x0000000000000020"},
         {"outcome", "failed"},
         {"reason", "<bro&ken>"},
         {"may_have_changed", true}},
        {{"guid", "0x0000000000000030"},
         {"outcome", "burnt"},
         {"reason", nullptr},
         {"may_have_changed", true}}}},
      {"phases", nlohmann::json::array({{{"label", "Burning"}, {"done", true}, {"percent", 100}}})},
      {"counts", nlohmann::json::object()},
      {"warnings", nlohmann::json::array()}};
  EXPECT_EQ(json, expected) << json.dump(2);

  const std::string junit =
      std::regex_replace(ReadText(_folder / "report.xml"), std::regex(" time=\"[0-9.e-]+\""), "");
  EXPECT_EQ(junit,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<testsuites>\n"
            "  <testsuite name=\"GenericBurn\" tests=\"3\" failures=\"1\" errors=\"0\" "
            "skipped=\"0\">\n"
            "    <testcase classname=\"GenericBurn\" name=\"0x0000000000000010\"/>\n"
            "    <testcase classname=\"GenericBurn\" name=\"0x0000000000000020\">\n"
            "      <failure message=\"&lt;bro&amp;ken&gt;\"/>\n"
            "    </testcase>\n"
            "    <testcase classname=\"GenericBurn\" name=\"0x0000000000000030\"/>\n"
            "  </testsuite>\n"
            "</testsuites>\n");
}

TEST_F(ReportTest, DeviceThatTheServerLacksFailsAndTheOthersAreBurnt) {
  Serve(1);
  const Outcome outcome = Report({}, Burn("10,77"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(IsBurnt(10));
  EXPECT_NE(outcome.errors.find("\n  0x0000000000000010  burnt\n  0x0000000000000077  FAILED: "
                                "Device not accessible by server " +
                                _simulator->Server() + " . (nothing was written)\n"),
            std::string::npos)
      << outcome.errors;
}

TEST_F(ReportTest, DevicesThatAreNeverReachedAreErrorsOfTheirTests) {
  const Outcome outcome =
      Report({"--junit", _folder / "report.xml"},
             {FwpushProgram(), "-f", _image, "-s", "PPC:127.0.0.1", "-g", "10"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(
      ReadText(_folder / "report.xml")
          .find("    <testcase classname=\"fwpush\" name=\"0x0000000000000010\">\n"
                "      <error message=\"never reached: Given server must be in a TYPE:IP:PORT "
                "format (Got PPC:127.0.0.1).\"/>\n"),
      std::string::npos);
}

TEST_F(ReportTest, WrongCommandLineOfTheBurnIsAFailedRun) {
  const Outcome outcome =
      Report({"--junit", _folder / "report.xml"}, {FwpushProgram(), "-g", "10", "-x"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.errors.find("the run failed: Invalid switch \"-x\" is specified.\n"),
            std::string::npos);
  EXPECT_EQ(Report({}, {FwpushProgram(), "-v"}).status, 1);
  EXPECT_EQ(Report({}, {FwpushProgram()}).status, 1);
}

TEST_F(ReportTest, BurnThatAbortsIsToldWithItsSignal) {
  const Outcome outcome = Report({"--json", _folder / "report.json"},
                                 {FwpushProgram(), "-s", "PPC:127.0.0.1:1", "-g", "10"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(Json()["signal"], SIGABRT);
  EXPECT_EQ(Json()["exit_status"], nullptr);
  EXPECT_EQ(Json()["devices"][0]["outcome"], "never-reached");
  EXPECT_EQ(Json()["failure"], "the burner was ended by signal 6 (Aborted)");
}

TEST_F(ReportTest, ConsoleComesAtOnceAndSignalsReachTheBurn) {
  for (const int number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(number);
    Serve(1, Fault("silence", "nth = 2"));
    Child report(Words({"--json", _folder / "report.json", "--plain"}, Burn("10")),
                 _folder / "errors");
    bool is_half_done = false;
    for (int i = 0; i < 100 && !is_half_done; ++i) {
      is_half_done = report.ReadLine() == "Burning - %50";
    }
    EXPECT_TRUE(is_half_done);
    report.Signal(number);
    EXPECT_EQ(report.Wait(), 1);
    EXPECT_EQ(Json()["signal"], number);
    EXPECT_EQ(Json()["devices"][0]["outcome"], "failed");
    EXPECT_EQ(Json()["devices"][0]["may_have_changed"], true);
    EXPECT_EQ(Json()["phases"][0]["percent"], 50);
    EXPECT_EQ(Json()["phases"][0]["done"], false);
  }
}

TEST_F(ReportTest, BurnGoesOnWhenNobodyReadsTheConsole) {
  Serve(1);
  std::string command;
  for (const std::string& word : Words({"--json", _folder / "report.json"}, Burn("10"))) {
    command += "'" + word + "' ";
  }
  for (const std::string reader : {"| head -c 1 >/dev/null", ">/dev/full"}) {
    RunProgram({"/bin/sh", "-c", command + reader});
    EXPECT_TRUE(IsBurnt(10));
    EXPECT_EQ(Json()["all_burnt"], true);
  }
}

TEST_F(ReportTest, FailsafeBurnTellsOfTheDeviceThatItOnlyReported) {
  const std::string old_image = _folder.Write("old.img", EepromImage(0x11));
  const std::string image = _folder.Write("new.img", EepromImage(0x22));
  std::string fabric = "[server]\ntype = \"PPC\"\n";
  for (const int node : {1, 2}) {
    fabric +=
        Text("[[device]]\nname = \"leaf\"\nattribute = \"a\"\nnode_guid = \"0x", node,
             "0\"\nport_guids = [\"0x", node, "1\"]\nchip = [{ address = 0, size = 0x100 }]\n");
    if (node != 1) continue;
    fabric += Text("[[device.contents]]\nimage = \"", old_image, "\"\nslot = 0\nvalid = true\n");
  }
  _simulator = std::make_unique<Simulator>(_folder, fabric);
  const Outcome outcome =
      Report({"--json", _folder / "report.json"},
             {FwpushProgram(), "-f", image, "-s", _simulator->Server(), "-g", "10,20"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(Json()["algorithm"], "RV61300FailsafeBurn");
  EXPECT_EQ(Json()["exit_status"], 0);
  EXPECT_EQ(
      Json()["counts"],
      nlohmann::json(
          {{"total", 2}, {"both_valid", 0}, {"first_only_valid", 1}, {"second_only_valid", 0}}));
  EXPECT_EQ(Json()["devices"][0]["outcome"], "burnt");
  EXPECT_EQ(Json()["devices"][1]["outcome"], "failed");
  EXPECT_EQ(Json()["devices"][1]["reason"],
            "Both images are invalid - Can't perform failsafe burn.");
  EXPECT_EQ(Json()["devices"][1]["may_have_changed"], false);
  std::vector<std::string> labels;
  const nlohmann::json phases = Json()["phases"];
  for (const auto& phase : phases) labels.push_back(phase["label"]);
  EXPECT_THAT(
      labels,
      ElementsAre("Burning second image with invalidated signature", "Validating second image",
                  "Burning first image with invalidated signature", "Validating first image"));
  DataVec memory = EepromData(0x22);
  memory.resize(0x80, 0xFF);
  memory.insert(memory.end(), memory.begin(), memory.begin() + 0x80);
  EXPECT_EQ(_simulator->Memory("0x0000000000000010.0.i2c"), memory);
  EXPECT_EQ(_simulator->Memory("0x0000000000000020.0.i2c"), DataVec(0x100, 0xFF));
}

TEST_F(ReportTest, CheckOnlyIsNoBurn) {
  const std::string image = _folder.Write("new.img", EepromImage(0x22));
  _simulator = std::make_unique<Simulator>(
      _folder,
      "[server]\ntype = \"PPC\"\n[[device]]\nname = \"leaf\"\nattribute = \"a\"\nnode_guid = "
      "\"0x10\"\nport_guids = [\"0x11\"]\nchip = [{ address = 0, size = 0x100 }]\n"
      "[[device.contents]]\nimage = \"" +
          image + "\"\n");
  const Outcome outcome =
      Report({}, {FwpushProgram(), "-c", "-f", image, "-s", _simulator->Server(), "-g", "10"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("-I- BURN SUCCEEDED\n"), std::string::npos);
  EXPECT_NE(outcome.errors.find("  0x0000000000000010  never reached: nothing was written\n"),
            std::string::npos)
      << outcome.errors;
}

TEST_F(ReportTest, SavedLogIsJudgedAsItsBurnWas) {
  Serve(2, Fault("device-error", "device = \"0x20\"\ntext = \"broken\""));
  const std::string log = _folder / "console";
  EXPECT_EQ(Report({"--log", log}, Burn("10,20")).status, 1);
  const Outcome outcome =
      Report({"--from", log, "--json", _folder / "report.json"}, {"fwpush", "-g", "20,10"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(Json()["devices"].size(), 2u);
  EXPECT_EQ(Json()["devices"][0]["outcome"], "burnt");
  EXPECT_EQ(Json()["devices"][1]["reason"], "broken");
  EXPECT_EQ(Json()["seconds"], nullptr);
  EXPECT_EQ(Json()["phases"][0]["seconds"], nullptr);

  EXPECT_EQ(Report({"--log", log}, Burn("10")).status, 0);
  const Outcome plain = RunProgram({REPORT_PROGRAM, "--from", log, "--plain"});
  EXPECT_EQ(plain.status, 0) << plain.errors;
  EXPECT_TRUE(plain.output.ends_with(
      "-I- Generic Burning:\nBurning - % 0\nBurning - %50\nBurning - OK\n-I- BURN SUCCEEDED\n"))
      << plain.output;
  EXPECT_NE(plain.errors.find("other devices may have been asked for"), std::string::npos);
}

TEST_F(ReportTest, WhatIsNoBurnCannotBeReported) {
  EXPECT_EQ(Report({}, {"/bin/echo", "hello"}).status, 2);
  EXPECT_EQ(Report({}, {"/bin/false"}).status, 2);
  const Outcome missing = Report({}, {_folder / "no-such-program"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.errors, "fwpush-report: can't run " + (_folder / "no-such-program") +
                                ": No such file or directory\n");
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "--from", _image}).status, 2);
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "--from", _folder / "none"}).status, 2);
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "--from", _folder.Path()}).status, 2);
}

TEST_F(ReportTest, ResultThatCannotBeKeptCostsNoBurn) {
  Serve(1);
  for (const std::string option : {"--json", "--junit", "--log"}) {
    const Outcome outcome = Report({option, _folder / "none/file"}, Burn("10"));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "fwpush-report: can't write " + (_folder / "none/file") +
                                  ": No such file or directory\n");
  }
  EXPECT_EQ(_simulator->Trace(), "");
  EXPECT_EQ(Report({"--json", "/dev/full"}, Burn("10")).status, 2);
  EXPECT_TRUE(IsBurnt(10));
}

TEST_F(ReportTest, FilesOfOneNameAreRefusedBeforeAnythingIsLost) {
  const std::string log = _folder.Write("burn.log", "before");
  std::filesystem::create_symlink("burn.log", _folder / "link");
  std::filesystem::create_hard_link(log, _folder / "other-name");
  const std::string fresh = _folder / "fresh";
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{"--json", log, "--junit", log},
        {"--json", log, "--log", _folder / "link"},
        {"--junit", _folder / "other-name", "--log", log},
        {"--json", fresh, "--log", _folder.Path().string() + "/./fresh"},
        {"--from", log, "--json", log},
        {"--from", log, "--junit", _folder / "link"}}) {
    const Outcome outcome =
        Report(options, options[0] == "--from" ? std::vector<std::string>{}
                                               : std::vector<std::string>{"/bin/echo", "burnt"});
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors.find(" is the same file as "), std::string::npos) << outcome.errors;
    EXPECT_EQ(ReadText(log), "before");
    EXPECT_FALSE(std::filesystem::exists(fresh));
  }
  EXPECT_EQ(Report({"--json", "/dev/null", "--log", "/dev/null"}, {"/bin/echo", "x"}).status, 2);
}

TEST_F(ReportTest, BurnThatCannotStartLeavesTheResultsOfBefore) {
  for (const std::string name : {"report.json", "report.xml", "console"}) {
    _folder.Write(name, "before");
  }
  EXPECT_EQ(Report({"--json", _folder / "report.json", "--junit", _folder / "report.xml", "--log",
                    _folder / "console"},
                   {_folder / "no-such-program"})
                .status,
            2);
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(_folder.Path())) {
    if (entry.path() == _image) continue;
    EXPECT_EQ(ReadText(entry.path()), "before") << entry.path();
    ++files;
  }
  EXPECT_EQ(files, 3u);  // and nothing half done beside them
}

TEST_F(ReportTest, BurnThatCannotStartLeavesNoNewFiles) {
  const Outcome outcome = Report({"--json", _folder / "report.json", "--junit",
                                  _folder / "report.xml", "--log", _folder / "console"},
                                 {_folder / "no-such-program"});
  EXPECT_EQ(outcome.status, 2);
  for (const auto& entry : std::filesystem::directory_iterator(_folder.Path())) {
    EXPECT_EQ(entry.path(), _image);
  }
}

TEST_F(ReportTest, LogOfABurnThatSaysNothingIsEmptyAndStays) {
  EXPECT_EQ(Report({"--log", _folder / "console"}, {"/bin/false"}).status, 2);
  EXPECT_EQ(ReadText(_folder / "console"), "");
}

TEST_F(ReportTest, NewResultsReplaceThoseOfBeforeWhole) {
  Serve(1);
  const std::string before(100000, 'x');
  for (const std::string name : {"report.json", "report.xml", "console"}) {
    _folder.Write(name, before);
  }
  const Outcome outcome = Report({"--json", _folder / "report.json", "--junit",
                                  _folder / "report.xml", "--log", _folder / "console"},
                                 Burn("10"));
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(Json()["all_burnt"], true);
  EXPECT_TRUE(ReadText(_folder / "report.xml").ends_with("</testsuites>\n"));
  EXPECT_EQ(ReadText(_folder / "console"), outcome.output);
}

TEST_F(ReportTest, BurnInheritsNoneOfTheFiles) {
  const Outcome outcome = Report({"--json", _folder / "report.json", "--junit",
                                  _folder / "report.xml", "--log", _folder / "console"},
                                 {"/bin/ls", "-l", "/proc/self/fd"});
  EXPECT_NE(outcome.output.find("pipe:"), std::string::npos);  // the console
  EXPECT_EQ(outcome.output.find(_folder.Path().filename()), std::string::npos) << outcome.output;
}

/// Ends the process whose id stands in the file. Returns false where it had ended by itself.
bool EndIfRunning(const std::string& pid_file) {
  const pid_t pid = std::stoi(ReadText(pid_file));
  // A process that has ended and that nobody has waited for has no program.
  std::error_code none;
  const auto program = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", none);
  return !program.empty() && kill(pid, SIGTERM) == 0;
}

TEST_F(ReportTest, WhatTheBurnStartedHoldsTheReportUpForSecondsOnly) {
  const std::string console = _folder.Write("shown", std::string(PREAMBLE) + GENERIC);
  const Outcome outcome =
      Report({"--json", _folder / "report.json"},
             {"/bin/sh", "-c", "cat \"$0\"; sleep 60 2>/dev/null & echo $! >\"$1\"; exit 3",
              console, _folder / "pid"});
  EXPECT_TRUE(EndIfRunning(_folder / "pid"));  // the report has not waited for its end
  EXPECT_EQ(outcome.output, ReadText(console));
  EXPECT_EQ(Json()["exit_status"], 3);
  EXPECT_NE(outcome.errors.find("their output is no longer read"), std::string::npos);
}

TEST_F(ReportTest, WhatChattersOnAfterTheBurnIsLeftToItself) {
  const std::string chatter = "trap '' PIPE; while echo y || sleep 0.1; do :; done";
  Report({"--log", _folder / "console"},
         {"/bin/sh", "-c", "timeout 60 sh -c \"$1\" 2>/dev/null & echo $! >\"$0\"; exit 0",
          _folder / "pid", chatter});
  EXPECT_TRUE(EndIfRunning(_folder / "pid"));  // the report has not waited for its end
}

TEST_F(ReportTest, LineWithoutEndIsNoConsole) {
  const Outcome outcome =
      RunProgram({REPORT_PROGRAM, "--from", "/dev/zero", "--json", _folder / "report.json"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors,
            "fwpush-report: /dev/zero: a line of more than 33554432 bytes: not the output of "
            "fwpush\n");
  EXPECT_FALSE(std::filesystem::exists(_folder / "report.json"));
}

TEST_F(ReportTest, WrongCommandLineIsRefused) {
  EXPECT_EQ(RunProgram({REPORT_PROGRAM}).status, 64);
  EXPECT_EQ(Report({}, {}).status, 64);
  EXPECT_EQ(Report({"--nonsense"}, {"/bin/true"}).status, 64);
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "fwpush"}).status, 64);
  EXPECT_EQ(Report({"--from", _image, "--log", _folder / "console"}, {}).status, 64);
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "--help"}).status, 0);
  EXPECT_EQ(RunProgram({REPORT_PROGRAM, "--version"}).output, "fwpush-report " FWPUSH_VERSION "\n");
}

TEST_F(ReportTest, WordsOfAServerThatAreNoTextAreKeptOutOfTheWay) {
  Serve(1);
  const std::string log =
      _folder.Write("console", std::string(PREAMBLE) + GENERIC +
                                   "\r-E- BURN FAILED:0x0000000000000010:\xFF\x9B\x1B[2J\n");
  const Outcome outcome = RunProgram({REPORT_PROGRAM, "--from", log, "--json",
                                      _folder / "report.json", "--junit", _folder / "report.xml"});
  EXPECT_EQ(outcome.status, 1);
  // To a terminal, 9B alone is what 1B and a bracket are.
  EXPECT_THAT(outcome.errors, testing::HasSubstr("FAILED: \\xff\\x9b\\x1b[2J\n"));
  EXPECT_EQ(Json()["devices"][0]["reason"], "\uFFFD\uFFFD\x1B[2J");
  EXPECT_NE(ReadText(_folder / "report.xml").find("message=\"\uFFFD\uFFFD?[2J\""),
            std::string::npos);
}

}  // namespace
