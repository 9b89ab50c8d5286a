/// fwpush-report: runs a burn, passes its output on and reports the result of each device.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <utility>

#include "common/Descriptor.h"
#include "common/GuidList.h"
#include "common/OutputFile.h"
#include "common/Program.h"
#include "common/SystemError.h"
#include "common/Text.h"
#include "report/BurnLog.h"
#include "report/BurnProcess.h"
#include "report/BurnResult.h"
#include "report/BurnSeries.h"
#include "report/ConsoleOutput.h"
#include "report/LineConsole.h"
#include "report/SeriesLog.h"

namespace {

using namespace common;
using namespace report;

constexpr char NAME[] = "fwpush-report";
constexpr std::size_t BLOCK_SIZE = 65536;

struct Options {
  std::string json;
  std::string junit;
  std::string log;
  std::string from;
  bool is_plain = false;
  std::vector<std::string> words;  ///< the burn: program and arguments
};

/// The files that the words of a burn name. A word may be a name, or an option before it: -f=NAME,
/// -fNAME.
std::vector<NamedFile> FilesOfBurn(const std::vector<std::string>& words) {
  std::vector<NamedFile> files;
  for (const std::string& word : words) {
    files.push_back({"the burn's", word});
    if (!word.starts_with("-") || word.size() < 3) continue;
    files.push_back({"the burn's", word.substr(word[2] == '=' ? 3 : 2)});
  }
  if (!words.empty()) {
    for (const GuidSwitch& guids : FindGuidSwitches(std::span(words).subspan(1))) {
      if (IsGuidFile(guids.value)) files.push_back({"-g", guids.value.substr(1)});
    }
  }
  // A word that is no file of this moment is no input.
  std::erase_if(files, [](const NamedFile& file) {
    std::error_code error;
    return !std::filesystem::exists(file.path, error);
  });
  return files;
}

/// Throws UsageError where an output would replace another file of this run.
void CheckFiles(const Options& options) {
  std::vector<NamedFile> inputs = FilesOfBurn(options.words);
  inputs.push_back({"--from", options.from});
  RefuseSameFiles(inputs,
                  {{"--json", options.json}, {"--junit", options.junit}, {"--log", options.log}});
}

/// Hands over a saved console.
void ReadLog(const std::string& name, const std::function<void(std::string_view)>& take) {
  const Descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) ThrowSystemError("can't read " + name);
  std::vector<char> block(BLOCK_SIZE);
  while (true) {
    const ssize_t got = read(file.Get(), block.data(), block.size());
    if (got < 0) ThrowSystemError("can't read " + name);
    if (got == 0) return;
    take({block.data(), static_cast<std::size_t>(got)});
  }
}

/// What the run hands on of its burns' output, and where: standard output and --log.
class Outputs {
 public:
  Outputs(const Options& options, LogFile& log) : _options(options), _log(log) {}

  void Write(std::string_view piece) {
    if (piece.empty()) return;
    WriteMark();
    _log.Write(piece);
    _is_line_open = piece.back() != '\n';
    if (_options.is_plain) {
      _console.Write(_plain.Feed(piece));
    } else if (_options.from.empty()) {
      _console.Write(piece);
    }
  }
  /// Stands in the log before the output of a burn of a series, on a line of its own.
  void Mark(const BurnMark& mark) { _mark = ToLine(mark) + "\n"; }
  /// To be called at the end of each burn.
  void Finish() {
    WriteMark();
    if (_options.is_plain) _console.Write(std::exchange(_plain, LineConsole()).Finish());
  }
  /// Whether the console is left inside of a line.
  bool IsInsideLine() const { return _console.IsInsideLine(); }

 private:
  // Not before the burn has started: if it cannot be, the log stays as it was.
  void WriteMark() {
    if (_mark.empty()) return;
    _log.Write((_is_line_open ? "\n" : "") + std::exchange(_mark, ""));
    _is_line_open = false;
  }

  const Options& _options;
  LogFile& _log;
  ConsoleOutput _console;
  LineConsole _plain;
  std::string _mark;           ///< to be written to the log
  bool _is_line_open = false;  ///< in the log
};

/// Judges the log of --from. Throws std::runtime_error where it cannot be judged.
SeriesReport JudgeLog(const Options& options, const std::vector<PlannedBurn>& burns,
                      Outputs& outputs) {
  std::vector<SavedBurn> saved(1);
  MarkFinder finder(
      [&](std::string_view text) {
        outputs.Write(text);
        BurnLog& log = saved.back().log;
        log.Feed(text);
        // Nothing to go on with: it may never end.
        if (log.IsOverlong()) {
          throw std::runtime_error(Text(options.from, ": a line of more than ",
                                        BurnLog::LONGEST_LINE, " bytes: not the output of fwpush"));
        }
      },
      [&](const BurnMark& mark) {
        outputs.Finish();
        saved.push_back({.mark = mark, .log = {}});
      });
  ReadLog(options.from, [&finder](std::string_view piece) { finder.Feed(piece); });
  finder.Finish();
  outputs.Finish();
  std::set<Guid> asked;
  for (const PlannedBurn& burn : burns) asked.insert(burn.asked.begin(), burn.asked.end());
  try {
    return JudgeSavedBurns(saved, asked, burns.size());
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(options.from + ": " + error.what());
  }
}

/// Runs the burns, one after the other, up to the first that fails, or
/// during which this process is asked to end. `seconds` is the time since the
/// start of the run; `ending` becomes that of the last burn.
SeriesReport RunSeries(const Options& options, const std::vector<PlannedBurn>& burns,
                       Outputs& outputs, const std::function<double()>& seconds,
                       std::optional<Ending>& ending) {
  SeriesReport series{.burns = burns.size(), .burns_run = 0};
  std::vector<BurnReport> reports;
  NotStarted not_started;
  bool is_asked_to_end = false;
  for (const PlannedBurn& planned : burns) {
    if (not_started.reason.empty() && !reports.empty()) {
      is_asked_to_end |= IsAskedToEnd();
      if (!reports.back().is_succeeded) {
        not_started.reason = BURN_BEFORE_FAILED;
      } else if (is_asked_to_end) {
        not_started.reason = "asked to end";
      }
    }
    if (!not_started.reason.empty()) {
      not_started.devices.insert(planned.asked.begin(), planned.asked.end());
      continue;
    }
    if (burns.size() > 1) outputs.Mark(MarkOf(burns, reports.size()));
    BurnLog log;
    const bool is_terminal = !options.is_plain && isatty(STDOUT_FILENO) != 0;
    const BurnRun burn = RunBurn(planned.words, is_terminal, [&](std::string_view piece) {
      outputs.Write(piece);
      log.Feed(piece, seconds());
    });
    if (burn.has_left_processes) {
      std::cerr << NAME << ": the burner has ended; processes that it started still run; their "
                << "output is no longer read" << std::endl;
    }
    ending = burn.ending;
    is_asked_to_end |= burn.is_asked_to_end;
    outputs.Finish();
    reports.push_back(log.Conclude(planned.asked, ending));
    series.is_fwpush &= log.IsFwpush();
  }
  series.burns_run = reports.size();
  series.burn = Join(std::move(reports), not_started);
  return series;
}

int Run(const Options& options) {
  const bool is_live = options.from.empty();
  if (is_live && options.words.empty()) {
    std::cerr << NAME << ": give the burn, \"-- fwpush ARGS...\", or --from LOG" << std::endl;
    return USAGE;
  }
  CheckFiles(options);
  std::vector<PlannedBurn> burns;
  try {
    burns = PlanBurns(options.words, is_live ? LongestArgument() : LONGEST_ARGUMENT);
  } catch (const std::runtime_error& error) {
    throw UsageError("-g", error.what());
  }
  std::optional<OutputFile> json;
  std::optional<OutputFile> junit;
  if (!options.json.empty()) json.emplace(options.json);
  if (!options.junit.empty()) junit.emplace(options.junit);
  LogFile saved(options.log);
  Outputs outputs(options, saved);

  RunReport run;
  run.words = options.words;
  SeriesReport& series = run;
  if (is_live) {
    if (burns.size() > 1) {
      std::cerr << NAME << ": the devices are too many for one command line: " << burns.size()
                << " burns, one after the other" << std::endl;
    }
    const auto start = std::chrono::steady_clock::now();
    const auto seconds = [start] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    series = RunSeries(options, burns, outputs, seconds, run.ending);
    run.seconds = seconds();
  } else {
    series = JudgeLog(options, burns, outputs);
  }
  if (outputs.IsInsideLine() && isatty(STDERR_FILENO) != 0) std::cerr << std::endl;

  bool is_kept = true;
  const auto keep = [&is_kept](const std::function<void()>& file) {
    try {
      file();
    } catch (const std::runtime_error& error) {
      std::cerr << NAME << ": " << error.what() << std::endl;
      is_kept = false;
    }
  };
  const auto write = [&keep](std::optional<OutputFile>& file, auto text) {
    if (!file) return;
    keep([&] {
      file->Write(text());
      file->Keep();
    });
  };
  write(json, [&run] { return ToJson(run); });
  write(junit, [&run] { return ToJUnit(run); });
  keep([&] { saved.Finish(); });
  if (!run.is_fwpush && !(run.ending && run.ending->signal != 0)) {
    std::cerr << NAME << ": " << (is_live ? options.words[0] : options.from)
              << ": not the output of fwpush" << std::endl;
    return CANNOT;
  }
  std::cerr << Summary(run, MayColour(STDERR_FILENO)) << std::flush;
  if (!run.burn.is_all_burnt) return DIFFERS;
  return is_kept ? ALL_WELL : CANNOT;
}

}  // namespace

int main(int argc, char* argv[]) {
  Options options;
  // Every word of the burn is the burn's: none may be taken for one of ours, or changed.
  int own_words = 1;
  while (own_words < argc && std::strcmp(argv[own_words], "--") != 0) ++own_words;
  for (int i = own_words + 1; i < argc; ++i) options.words.emplace_back(argv[i]);

  CommandLine line(
      "Runs a burn, passes its output on and reports the result of each device.\n"
      "  fwpush-report [OPTIONS] -- fwpush ARGS...\n"
      "  fwpush-report [OPTIONS] --from LOG [-- fwpush ARGS...]",
      NAME);
  line.SetFooter(
      "The burn's -g may be @FILE, with a device on each line; there are several burns if the "
      "list\n"
      "is too long for one.\n"
      "Ends with 0 when every device asked for was burnt, with 1 when one was not, with 2 when\n"
      "fwpush could not be run or this is not its output, with 64 on a wrong command line.");
  line.Add("--json", options.json, "Write the result into this file, as JSON");
  line.Add("--junit", options.junit, "Write the result into this file, a test case a device");
  const Option log = line.Add("--log", options.log, "Keep the console in this file");
  line.Add("--from", options.from,
           "Run nothing: read the console of an earlier burn from this file. The words of\n"
           "that burn, behind --, tell which devices it was asked for")
      .Excludes(log);
  line.AddFlag("--plain", options.is_plain,
               "Print whole lines only, fit for logs: one for each tenth of a progress meter");
  line.SetWork([&options] { return Run(options); });
  return RunProgram({.name = NAME}, line, own_words, argv);
}
