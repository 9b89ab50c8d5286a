// All programs beside fwpush: where their results go, and what stays of other files.
#include <signal.h>
#include <sys/stat.h>

#include <regex>
#include <thread>

#include "tests/support/Harness.h"
#include "tests/support/consoles.h"
#include "tests/support/slot_images.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Words = std::vector<std::string>;

/// A program with one output option. In its words, "@name" is a file of the folder, and "%" the
/// output.
struct Case {
  Words words;
  std::vector<std::string> inputs;  ///< all that it reads
  std::string extension;            ///< that the output must have
  bool is_result_on_stdout = true;  ///< a closed standard output is an error
  bool is_server = false;           ///< goes on until it is ended
};

const std::vector<Case>& Cases() {
  static const std::vector<Case> CASES = [] {
    std::vector<Case> cases;
    for (const std::string option : {"--json", "--junit", "--log"}) {
      cases.push_back(
          {{REPORT_PROGRAM, option, "%", "--", "/bin/cat", "@console"}, {"console"}, "", false});
      for (const std::string image : {"-f=@fw.img", "-f@fw.img"}) {
        cases.push_back({{REPORT_PROGRAM, option, "%", "--", FwpushProgram(), image, "-s",
                          "PPC:127.0.0.1:1", "-g", "10"},
                         {"fw.img"},
                         "",
                         false});
      }
      if (option == "--log") continue;
      cases.push_back(
          {{REPORT_PROGRAM, "--from", "@console", option, "%"}, {"console"}, "", false});
    }
    cases.push_back({{RehearseProgram(), "@fabric.toml", "-f", "@new.img", "--fwpush",
                      FwpushProgram(), "--recover", "0", "--json", "%"},
                     {"fabric.toml", "new.img", "old.img", "raw.bin"},
                     ""});
    cases.push_back({{SimProgram(), "@fabric.toml", "--image", "@new.img", "--trace", "%"},
                     {"fabric.toml", "new.img", "old.img", "raw.bin"},
                     "",
                     true,
                     true});
    cases.push_back(
        {{FWIMG_PROGRAM, "make", "@layout.toml", "-o", "%"}, {"layout.toml", "part.bin"}, ".img"});
    cases.push_back(
        {{FWIMG_PROGRAM, "extract", "@fw.img", "--section", "A", "-o", "%"}, {"fw.img"}, ""});
    cases.push_back(
        {{FWIMG_PROGRAM, "convert", "@fw.img", "%", "--format", "intel"}, {"fw.img"}, ".hex"});
    cases.push_back({{FWIMG_PROGRAM, "convert", "@fw.hex", "%", "--layout", "@device.toml"},
                     {"fw.hex", "device.toml"},
                     ".img"});
    return cases;
  }();
  return CASES;
}

class ProgramTest : public ConsoleTest {
 protected:
  ProgramTest() {
    _folder.Write("console", std::string(PREAMBLE) + GENERIC +
                                 "\r\\ Burning  - %50\rBurning - OK      \n-I- BURN SUCCEEDED\n");
    _folder.Write("fw.img", "DEVICE_TYPE RV61100\nSTART A 0 0\n1 2 3 4\nEND A\n");
    _folder.Write("fw.hex", ":0400000001020304F2\n:00000001FF\n");
    _folder.Write("device.toml", "device_type = \"RV61100\"\n");
    _folder.Write("layout.toml",
                  "device_type = \"RV61100\"\n[[section]]\nname = \"A\"\nat = 0\n"
                  "file = \"part.bin\"\n");
    _folder.Write("part.bin", "abcd");
    _folder.Write("raw.bin", "raw!");
    _folder.Write("old.img", EepromImage(0x11));
    _folder.Write("new.img", EepromImage(0x22));
    _folder.Write("fabric.toml",
                  "[server]\ntype = \"PPC\"\n[[device]]\nname = \"leaf\"\nattribute = \"a\"\n"
                  "node_guid = \"0x10\"\nport_guids = [\"0x11\"]\n"
                  "chip = [{ address = 0, size = 0x100 }]\n"
                  "[[device.contents]]\nraw = \"raw.bin\"\nat = 0xF0\n"
                  "[[device.contents]]\nimage = \"old.img\"\nslot = 0\nvalid = true\n");
  }

  Words Filled(const Words& words, const std::string& output) const {
    Words filled;
    for (std::string word : words) {
      if (word == "%") word = output;
      const std::size_t at = word.find('@');
      if (at != std::string::npos) word = word.substr(0, at) + (_folder / word.substr(at + 1));
      filled.push_back(word);
    }
    return filled;
  }

  /// Runs words by a shell, with redirections such as ">&-".
  static Outcome Redirected(const std::string& redirections, Words words) {
    words.insert(words.begin(), {"/bin/sh", "-c", "exec \"$@\" " + redirections, "sh"});
    return RunProgram(words);
  }

  /// What is in the folder: path and content, or "link", or "" for a folder.
  std::map<std::string, std::string> Snapshot() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(_folder.Path())) {
      files[entry.path()] = entry.is_symlink()        ? "link"
                            : entry.is_regular_file() ? ReadText(entry.path())
                                                      : "";
    }
    return files;
  }

  /// Without times.
  static std::string Stable(const std::string& text) {
    static const std::regex SECONDS("(\"seconds\": |time=\")[0-9.e-]+");
    return std::regex_replace(text, SECONDS, "$1T");
  }

  /// The status that a case ends with, and the result that it writes to a plain file.
  std::pair<int, std::string> Reference(const Case& test) {
    const std::string file = _folder / ("reference" + test.extension);
    const Outcome outcome = RunProgram(Filled(test.words, file));
    EXPECT_TRUE(fs::exists(file)) << outcome.errors;
    const std::string text = Stable(ReadText(file));
    EXPECT_NE(text, "");
    fs::remove(file);
    return {outcome.status, text};
  }

  /// The trace of words of that kind for a case: "fwpush-report --json".
  static std::string Name(const Case& test) {
    std::string name;
    for (const std::string& word : test.words) name += word + " ";
    return name;
  }

  common::ScratchFolder _folder;
};

TEST_F(ProgramTest, NoOutputReplacesAnInputWhateverItIsCalled) {
  fs::create_directory_symlink(".", _folder / "here");
  for (const Case& test : Cases()) {
    for (const std::string& input : test.inputs) {
      SCOPED_TRACE(Name(test) + "over " + input);
      const std::string link = _folder / ("link" + test.extension);
      const std::string hard = _folder / ("hard" + test.extension);
      fs::create_symlink(input, link);
      fs::create_hard_link(_folder / input, hard);
      const auto before = Snapshot();
      for (const std::string& output :
           {_folder / input, _folder / ("./" + input), _folder / ("here/" + input), link, hard}) {
        const Outcome outcome = RunProgram(Filled(test.words, output));
        EXPECT_EQ(outcome.status, 64) << output;
        EXPECT_EQ(outcome.output, "");
        EXPECT_TRUE(Snapshot() == before) << output;
        if (output != link && output != hard) continue;
        EXPECT_THAT(outcome.errors, HasSubstr(" is the same file as "));
        EXPECT_THAT(outcome.errors, HasSubstr(input));
      }
      fs::remove(link);
      fs::remove(hard);
    }
  }
}

TEST_F(ProgramTest, NoFileOfAnOutputFolderIsAnInput) {
  struct FolderCase {
    Words words;
    std::string file;  ///< in the folder "out", that the program would write
    std::vector<std::string> inputs;
  };
  for (const FolderCase& test :
       {FolderCase{{SimProgram(), "@fabric.toml", "--show", "--state", "@out"},
                   "0x0000000000000010.0.i2c",
                   {"fabric.toml", "old.img", "raw.bin"}},
        {{SimProgram(), "@fabric.toml", "--boot-report", "--image", "@new.img", "--state", "@out"},
         "0x0000000000000010.0.i2c",
         {"new.img"}},
        {{FWIMG_PROGRAM, "extract", "@fw.img", "--all", "@out"}, "A.bin", {"fw.img"}},
        {{VERIFY_PROGRAM, "-f", "@new.img", "-s", "PPC:127.0.0.1:1", "-g", "10", "--save", "@out"},
         "0x0000000000000010.0.i2c",
         {"new.img"}}}) {
    for (const std::string& input : test.inputs) {
      for (const bool is_link : {false, true}) {
        SCOPED_TRACE(test.words[0] + " over " + input);
        fs::create_directory(_folder / "out");
        const std::string file = _folder / ("out/" + test.file);
        if (is_link) {
          fs::create_symlink("../" + input, file);
        } else {
          fs::create_hard_link(_folder / input, file);
        }
        const auto before = Snapshot();
        const Outcome outcome = RunProgram(Filled(test.words, ""));
        EXPECT_EQ(outcome.status, 64);
        EXPECT_THAT(outcome.errors, HasSubstr(" is the same file as "));
        EXPECT_TRUE(Snapshot() == before);
        fs::remove_all(_folder / "out");
      }
    }
  }
}

TEST_F(ProgramTest, NewMemoryOfTheSimulatorIsNotWrittenThroughALink) {
  fs::create_directory(_folder / "out");
  fs::create_symlink("../old.img", _folder / "out/0x0000000000000010.0.i2c.new");
  const std::string before = ReadText(_folder / "old.img");
  EXPECT_EQ(
      RunProgram({SimProgram(), _folder / "fabric.toml", "--show", "--state", _folder / "out"})
          .status,
      0);
  EXPECT_EQ(ReadText(_folder / "old.img"), before);
  EXPECT_EQ(ReadText(_folder / "out/0x0000000000000010.0.i2c").size(), 0x100u);
}

TEST_F(ProgramTest, OneFileIsNotTwoOutputs) {
  fs::create_symlink("trace", _folder / "link");
  fs::create_directory(_folder / "out");
  const std::string memory = _folder.Write("out/0x0000000000000010.0.i2c", std::string(0x100, 'x'));
  const auto before = Snapshot();
  for (const Words& words :
       {Words{REPORT_PROGRAM, "--json", "@trace", "--junit", "@link", "--", "/bin/cat", "@console"},
        {REPORT_PROGRAM, "--json", "@trace", "--log", "@./trace", "--", "/bin/cat", "@console"},
        {REPORT_PROGRAM, "--from", "@console", "--json", "@link", "--junit", "@trace"},
        {SimProgram(), "@fabric.toml", "--state", "@out", "--trace", memory}}) {
    const Outcome outcome = RunProgram(Filled(words, ""));
    EXPECT_EQ(outcome.status, 64);
    EXPECT_THAT(outcome.errors, HasSubstr(" is the same file as "));
    EXPECT_TRUE(Snapshot() == before);
  }
}

TEST_F(ProgramTest, FileThatTheConsoleGoesToIsNoOutput) {
  for (const Case& test : Cases()) {
    SCOPED_TRACE(Name(test));
    const std::string file = _folder / ("console-here" + test.extension);
    for (const std::string redirection : {">>", "2>>"}) {
      EXPECT_EQ(Redirected(redirection + "'" + file + "'", Filled(test.words, file)).status, 64);
    }
    fs::remove(file);
  }
}

TEST_F(ProgramTest, NamesOfOpenDescriptorsAreWrittenThroughThem) {
  const std::string file = _folder / "file";
  for (const Case& test : Cases()) {
    if (test.is_server) continue;
    SCOPED_TRACE(Name(test));
    const auto reference = Reference(test);
    const std::string& expected = reference.second;
    const auto run = [&](const std::string& redirection, const std::string& output) {
      _folder.Write("file", "before\n");
      const Outcome outcome =
          Redirected(redirection + "'" + file + "'", Filled(test.words, output));
      EXPECT_EQ(outcome.status, reference.first) << output << ": " << outcome.errors;
      return Stable(ReadText(file));
    };
    const std::string link = _folder / ("link" + test.extension);
    const auto named = [&](const std::string& descriptor) {
      if (test.extension.empty()) return descriptor;
      fs::remove(link);
      fs::create_symlink(descriptor, link);
      return link;
    };
    for (const std::string descriptor : {"/dev/fd/7", "/proc/self/fd/7", "/dev/../dev/fd/7"}) {
      EXPECT_EQ(run("7>>", named(descriptor)), "before\n" + expected) << descriptor;
      EXPECT_EQ(run("7>", named(descriptor)), expected) << descriptor;
    }
    for (const auto& [redirection, descriptor] :
         {std::pair<std::string, std::string>{">>", "/dev/stdout"},
          {"2>>", "/dev/stderr"},
          {">>", "/proc/self/fd/1"}}) {
      const std::string text = run(redirection, named(descriptor));
      EXPECT_THAT(text, testing::StartsWith("before\n")) << descriptor;
      if (test.words[1] == "--log") continue;  // it comes with the console, piece by piece
      EXPECT_THAT(text, HasSubstr(expected)) << descriptor;
    }
    const Outcome closed = RunProgram(Filled(test.words, named("/dev/fd/9")));
    EXPECT_EQ(closed.status, 2);
    EXPECT_THAT(closed.errors, HasSubstr(": Bad file descriptor\n"));
    fs::remove(link);
  }
}

TEST_F(ProgramTest, PipesAndDevicesStayWhatTheyAre) {
  for (const Case& test : Cases()) {
    if (test.is_server) continue;
    SCOPED_TRACE(Name(test));
    const auto [status, expected] = Reference(test);
    const std::string pipe = _folder / ("pipe" + test.extension);
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Words words = Filled(test.words, pipe);
    words.insert(
        words.begin(),
        {"/bin/sh", "-c", "cat \"$0\" >\"$0.got\" & \"$@\"; status=$?; wait; exit $status", pipe});
    EXPECT_EQ(RunProgram(words).status, status);
    EXPECT_EQ(Stable(ReadText(pipe + ".got")), expected);
    EXPECT_TRUE(fs::is_fifo(pipe));
    fs::remove(pipe);
    const std::string full = _folder / ("full" + test.extension);
    fs::create_symlink("/dev/full", full);
    // A device that is not burnt is the worse result of a report.
    const bool is_unburnt = test.words[0] == REPORT_PROGRAM && status == 1;
    EXPECT_EQ(RunProgram(Filled(test.words, full)).status, is_unburnt ? 1 : 2);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
    fs::remove(full);
  }
}

TEST_F(ProgramTest, ClosedDescriptorsPutNothingIntoResults) {
  for (const Case& test : Cases()) {
    if (test.is_server) continue;
    SCOPED_TRACE(Name(test));
    const auto [status, expected] = Reference(test);
    const std::string file = _folder / ("result" + test.extension);
    for (const std::string closed :
         {"<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
      SCOPED_TRACE(closed);
      fs::remove(file);
      const Outcome outcome = Redirected(closed, Filled(test.words, file));
      const bool is_lost =
          test.is_result_on_stdout && (" " + closed).find(" >&-") != std::string::npos;
      if (is_lost) {
        EXPECT_EQ(outcome.status, 2);
      } else {
        EXPECT_EQ(outcome.status, status) << outcome.errors;
      }
      ASSERT_TRUE(fs::exists(file)) << outcome.errors;
      EXPECT_EQ(Stable(ReadText(file)), expected);
    }
  }
}

TEST_F(ProgramTest, SimulatorWhoseAddressNobodyGetsEndsWithAnError) {
  for (const std::string lost : {">&-", ">/dev/full"}) {
    const Outcome outcome =
        Redirected(lost, {SimProgram(), _folder / "fabric.toml", "--trace", _folder / "trace"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("can't write the address"));
    EXPECT_EQ(ReadText(_folder / "trace"), "");
  }
}

TEST_F(ProgramTest, TraceOfTheSimulatorGoesWhereItsNameLeads) {
  for (const auto& [redirection, name] :
       {std::pair<std::string, std::string>{"", _folder / "trace"},
        {"7>'" + (_folder / "trace") + "'", "/dev/fd/7"},
        {"2>&- <&-", _folder / "trace"}}) {
    SCOPED_TRACE(name);
    _folder.Write("trace", "before");
    Child server({"/bin/sh", "-c", "exec \"$@\" " + redirection, "sh", SimProgram(),
                  _folder / "fabric.toml", "--trace", name},
                 _folder / "errors");
    const std::string address = server.ReadLine();
    EXPECT_EQ(
        RunProgram({FwpushProgram(), "-f", _folder / "new.img", "-s", address, "-g", "10"}).status,
        0);
    // All of it is there, even now.
    server.Signal(SIGKILL);
    EXPECT_EQ(server.Wait(), -SIGKILL);
    const std::string trace = ReadText(_folder / "trace");
    EXPECT_THAT(trace, testing::StartsWith("> "));
    EXPECT_THAT(trace, testing::EndsWith("\n"));
    EXPECT_THAT(trace, HasSubstr("\n< {ACK "));
    EXPECT_EQ(trace.find("fwpush-sim"), std::string::npos);
  }
}

TEST_F(ProgramTest, InterruptedRunLeavesTheEarlierResult) {
  const std::string burner =
      _folder.Write("burner", "#!/bin/sh\ncat '" + (_folder / "console") + "'\necho $$ >'" +
                                  (_folder / "started") + "'\nexec sleep 5\n");
  fs::permissions(burner, fs::perms::owner_all);
  for (const std::string name : {"a.json", "a.xml"}) _folder.Write(name, "before");
  for (const Words& words :
       {Words{REPORT_PROGRAM, "--json", "@a.json", "--junit", "@a.xml", "--", burner},
        {RehearseProgram(), "@fabric.toml", "-f", "@new.img", "--json", "@a.json", "--fwpush",
         burner}}) {
    for (const int number : {SIGKILL, SIGINT, SIGTERM}) {
      // The report passes these on, and then has a result.
      if (words[0] == REPORT_PROGRAM && number != SIGKILL) continue;
      SCOPED_TRACE(words[0] + " " + std::to_string(number));
      fs::remove(_folder / "started");
      Child run(Filled(words, ""), _folder / "errors");
      for (int i = 0; i < 1000 && !fs::exists(_folder / "started"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      ASSERT_TRUE(fs::exists(_folder / "started"));
      run.Signal(number);
      EXPECT_EQ(run.Wait(), -number);
      EXPECT_EQ(ReadText(_folder / "a.json"), "before");
      EXPECT_EQ(ReadText(_folder / "a.xml"), "before");
      for (const auto& entry : fs::directory_iterator(_folder.Path())) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(!name.starts_with("a.") || name == "a.json" || name == "a.xml") << name;
      }
    }
  }
}

TEST_F(ProgramTest, TextThatIsAskedForAndLostIsAnError) {
  for (const std::string& program : {std::string(FWIMG_PROGRAM), SimProgram(), RehearseProgram(),
                                     std::string(REPORT_PROGRAM), std::string(VERIFY_PROGRAM)}) {
    SCOPED_TRACE(program);
    std::vector<Words> asked{{program, "--help"}, {program, "--version"}};
    if (program == FWIMG_PROGRAM) {
      asked.push_back({program, "info", "--help"});
      asked.push_back({program, "info", _folder / "fw.img"});
    }
    if (program == SimProgram()) {
      asked.push_back({program, _folder / "fabric.toml", "--show"});
      asked.push_back({program, _folder / "fabric.toml", "--boot-report"});
    }
    for (const Words& words : asked) {
      for (const std::string lost : {">/dev/full", ">&-"}) {
        const Outcome outcome = Redirected(lost, words);
        EXPECT_EQ(outcome.status, program == SimProgram() ? 1 : 2) << words.back() << lost;
        EXPECT_THAT(outcome.errors, HasSubstr("can't write the result"));
      }
    }
  }
}

}  // namespace
