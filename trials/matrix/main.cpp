/// The fault matrix: injects every fault that an answer can have at every request of a burn of the
/// real program, and checks how the burn ends, what it leaves on every device, and the next burn.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "common/Parallel.h"
#include "common/Program.h"
#include "common/ScratchFolder.h"
#include "common/Text.h"
#include "trials/BurnOutput.h"
#include "trials/MisbehavingServer.h"
#include "trials/matrix/MatrixBurns.h"

namespace trials {

using common::Text;

namespace {

/// Time limit of a run. The longest wait in it is for an answer that does not come: half a second.
constexpr std::chrono::seconds LIMIT{20};

/// One fault at one request of one burn.
struct Case {
  const MatrixBurn* burn;
  const AnswerFaultRow* fault;
  std::size_t at;  ///< from 0
  std::optional<Guid> device;

  /// For --case: "rv61300:nul-byte:17:200", the request from 1.
  std::string Name() const {
    std::string name = Text(burn->Name(), ":", fault->name, ":", at + 1);
    if (device) name += Text(":", std::hex, *device);
    return name;
  }
};

struct CaseResult {
  std::string end;             ///< how the run ended: a column of the table
  std::string row;             ///< of the short list, where a device may not boot
  bool not_recovered = false;  ///< by the next burn
  std::string failure;
  RunOutcome outcome;
};

/// Runs cases, one after the other.
class CaseRunner {
 public:
  CaseResult Run(const Case& of) {
    CaseResult result;
    const MatrixBurn& burn = *of.burn;
    const AnswerFault fault = of.fault->fault;
    BurnFacts facts = burn.Facts();
    facts.server = _server.Name(burn.ServerType());
    const Expected expected = Expect(fault, facts, burn.requests, of.at, of.device);

    const InjectedFault injected{of.at, fault, of.device,
                                 FaultyAnswer(fault, burn.requests[of.at], of.device)};
    sim::Fabric fabric = burn.Start();
    const bool is_silence = fault == AnswerFault::SILENCE || fault == AnswerFault::SILENCE_INSIDE;
    const std::string program = is_silence ? SHORT_TIMEOUT_PROGRAM : FWPUSH_PROGRAM;
    result.outcome = RunBurn(burn, program, fabric, &injected);
    for (int again = 0; is_silence && result.outcome.requests.size() <= of.at && again < 3;
         ++again) {
      // On a busy machine, the half second may be over before the fault was injected.
      fabric = burn.Start();
      result.outcome = RunBurn(burn, program, fabric, &injected);
    }
    const RunOutcome& outcome = result.outcome;
    const auto fail = [&result](const std::string& text) {
      result.failure += (result.failure.empty() ? "" : "; ") + text;
    };
    if (!outcome.in_time) fail("it does not end by itself");
    if (!outcome.protocol_error.empty()) fail(outcome.protocol_error);
    if (!outcome.server_error.empty()) fail(outcome.server_error);
    const bool is_well = EndsLikeFaultFreeRun(burn, outcome);
    result.end = HasSucceeded(outcome) ? "succeeded" : outcome.signal != 0 ? "aborted" : "ended";
    CheckEnd(of, expected, outcome, is_well, fail);
    const std::vector<FailedDevice> reports = FailedDevicesIn(outcome.output);
    CheckReports(of, expected, outcome, fail);
    CheckRequests(of, expected, outcome, fail);

    for (const auto& [guid, device] : fabric.Devices()) {
      const RunVerdict verdict = burn.Judge(device);
      if (!verdict.is_safe) {
        result.row = verdict.row;
        if (result.row.empty()) fail(Text("device ", std::hex, guid, " ", verdict.text));
      }
      const bool is_lost =
          std::ranges::any_of(reports, [&, name = guid](const FailedDevice& report) {
            return report.device == name && std::ranges::count(burn.Refused(), report) == 0;
          });
      if (is_well && !is_lost && !verdict.is_burnt) {
        fail(Text("device ", std::hex, guid, " is not whole: ", verdict.text));
      }
    }
    CheckNextRun(burn, fabric, result, fail);
    return result;
  }

  /// Runs a burn without faults. Throws std::runtime_error where it does not succeed.
  void RunClean(MatrixBurn& burn) {
    RunOutcome outcome;
    const std::string wrong = RunFaultFree(burn, burn.Start(), outcome);
    if (!wrong.empty()) {
      throw std::runtime_error(burn.Name() + ": a fault-free burn: " + wrong + "\n" +
                               outcome.output + outcome.errors);
    }
    bool has_written = false;
    for (std::size_t i = 0; i < outcome.requests.size(); ++i) {
      burn.requests.push_back(ParseExchange(outcome.requests[i], outcome.answers[i], has_written));
      has_written = has_written || outcome.requests[i].find("Write") != std::string::npos;
    }
  }

 private:
  using Fail = std::function<void(const std::string&)>;

  RunOutcome RunBurn(const MatrixBurn& burn, const std::string& program, sim::Fabric& fabric,
                     const InjectedFault* injected, const std::vector<std::string>& switches = {}) {
    std::vector<std::string> words = burn.Words(program);
    words.insert(words.end(), switches.begin(), switches.end());
    words.insert(words.end(), {"-s", _server.Name(burn.ServerType())});
    return _server.Run(words, *burn.Answering(fabric), injected, LIMIT);
  }

  /// Whether the run ends as the fault-free one.
  static bool EndsLikeFaultFreeRun(const MatrixBurn& burn, const RunOutcome& outcome) {
    if (!burn.RefusesAll()) return HasSucceeded(outcome);
    return outcome.status == 1 && FinalErrorIn(outcome.output) == "No more accessible devices";
  }

  static void CheckEnd(const Case& of, const Expected& expected, const RunOutcome& outcome,
                       bool is_well, const Fail& fail) {
    const std::string end = FinalErrorIn(outcome.output);
    const std::string assertion = FailedAssertionIn(outcome.errors);
    const bool has_failed = outcome.status == 1 && !end.empty();
    const bool has_aborted = outcome.signal == SIGABRT && !assertion.empty();
    bool is_expected = false;
    switch (expected.end) {
      case Expected::SUCCEEDS:
        is_expected = is_well;
        break;
      case Expected::FAILS:
        is_expected = has_failed && std::ranges::count(expected.texts, end) > 0;
        break;
      case Expected::ABORTS:
        is_expected = has_aborted && expected.texts.at(0) == assertion;
        break;
      case Expected::OUT_OF_STEP:
        // With a third request the burner would have noticed an answer too many.
        is_expected = (is_well && outcome.requests.size() <= of.at + 2) ||
                      (has_failed && IsDesignedText(end)) ||
                      (has_aborted && IsDesignedAssertion(assertion));
        break;
    }
    if (!is_expected) {
      fail(Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"", end,
                assertion, "\" instead of ",
                expected.texts.empty() ? "a success" : "\"" + expected.texts[0] + "\""));
    }
    if (!has_aborted && !outcome.errors.empty()) fail("standard error: " + outcome.errors);
  }

  /// The failed devices are reported, and no others.
  static void CheckReports(const Case& of, const Expected& expected, const RunOutcome& outcome,
                           const Fail& fail) {
    if (expected.end == Expected::OUT_OF_STEP) return;
    std::vector<FailedDevice> reports = FailedDevicesIn(outcome.output);
    const auto text_of = [](const FailedDevice& report) {
      return sim::HexGuid(report.device) + ":" + report.text;
    };
    for (const Guid guid : expected.lost) {
      const FailedDevice report{guid, expected.lost_text};
      if (std::erase(reports, report) != 1) fail("does not report " + text_of(report));
    }
    const std::vector<FailedDevice>& refused = of.burn->Refused();
    for (const FailedDevice& report : reports) {
      if (std::ranges::count(refused, report) == 0) fail("reports " + text_of(report));
    }
    if (expected.end == Expected::SUCCEEDS && expected.lost.empty() && reports != refused) {
      fail("does not report the devices that cannot be burnt");
    }
    if (expected.all_lost && outcome.output.find("\r-E- BURN FAILED:ALL:" + expected.lost_text +
                                                 "\n") == std::string::npos) {
      fail("does not report the refusal");
    }
  }

  /// Up to the fault, the requests are those of a fault-free run. After it, none names a failed
  /// device.
  static void CheckRequests(const Case& of, const Expected& expected, const RunOutcome& outcome,
                            const Fail& fail) {
    for (std::size_t i = 0; i <= of.at; ++i) {
      if (i >= outcome.requests.size() || outcome.requests[i] != of.burn->requests[i].text) {
        return fail(Text("request ", i + 1, " is not that of a fault-free burn"));
      }
    }
    for (std::size_t i = of.at + expected.asked_again + 1; i < outcome.requests.size(); ++i) {
      for (const Guid guid : expected.lost) {
        if (outcome.requests[i].find(sim::HexGuid(guid)) != std::string::npos) {
          return fail(Text("request ", i + 1, " names a failed device: ", outcome.requests[i]));
        }
      }
    }
  }

  /// Burns devices that hold what `before` holds. Returns what is wrong with the run, or empty.
  std::string RunFaultFree(const MatrixBurn& burn, const sim::Fabric& before, RunOutcome& outcome) {
    sim::Fabric fabric = burn.Repaired(before);
    std::map<Guid, std::vector<device::MemoryChange>> changes;
    fabric.observer = [&](const sim::Operation& operation) {
      changes[operation.device].push_back(burn.ChangeOf(operation));
    };
    outcome = RunBurn(burn, FWPUSH_PROGRAM, fabric, nullptr);
    const std::string wrong = WrongAfter(burn, outcome, fabric);
    if (!wrong.empty()) return wrong;
    for (const auto& [guid, device] : before.Devices()) {
      const std::string error = burn.OrderError(device, changes[guid]);
      if (!error.empty()) return Text("device ", std::hex, guid, ": ", error);
    }
    return "";
  }

  std::string WrongAfter(const MatrixBurn& burn, const RunOutcome& outcome,
                         const sim::Fabric& fabric) {
    if (!outcome.in_time) return "does not end by itself";
    if (!outcome.protocol_error.empty()) return outcome.protocol_error;
    if (!outcome.server_error.empty()) return outcome.server_error;
    if (!EndsLikeFaultFreeRun(burn, outcome)) {
      return Text("ends with status ", outcome.status, ", signal ", outcome.signal, ", \"",
                  FinalErrorIn(outcome.output), "\"");
    }
    if (FailedDevicesIn(outcome.output) != burn.Refused())
      return "does not report the devices that cannot be burnt";
    for (const auto& [guid, device] : fabric.Devices()) {
      const RunVerdict verdict = burn.Judge(device);
      if (!verdict.is_burnt) return Text("leaves device ", std::hex, guid, ": ", verdict.text);
    }
    return "";
  }

  void CheckNextRun(const MatrixBurn& burn, const sim::Fabric& left, CaseResult& result,
                    const Fail& fail) {
    RunOutcome outcome;
    const std::string wrong = RunFaultFree(burn, left, outcome);
    if (wrong.empty()) return;
    // A failsafe burn refuses a device without a valid image.
    if (result.row.empty() || !burn.IsFailsafe()) return fail("the next burn: " + wrong);
    CheckBurnWithN(burn, left, fail);
    result.not_recovered = true;
  }

  /// A device without a valid image is burnt with -n.
  void CheckBurnWithN(const MatrixBurn& burn, const sim::Fabric& left, const Fail& fail) {
    sim::Fabric fabric = burn.Repaired(left);
    const RunOutcome outcome = RunBurn(burn, FWPUSH_PROGRAM, fabric, nullptr, {"-n"});
    if (!outcome.server_error.empty()) fail(outcome.server_error);
    if (outcome.status != 0) fail(Text("a burn with -n ends with status ", outcome.status));
    for (const auto& [guid, device] : fabric.Devices()) {
      const RunVerdict verdict = burn.Judge(device, device::BurnKind::PLAIN);
      if (!burn.IsLeftAlone(guid) && !verdict.is_safe) {
        fail(Text("a burn with -n leaves device ", std::hex, guid, ": ", verdict.text));
      }
    }
  }

  MisbehavingServer _server;
};

/// All cases of all burns.
std::vector<Case> AllCases(const std::vector<std::unique_ptr<MatrixBurn>>& burns) {
  std::vector<Case> cases;
  for (const auto& burn : burns) {
    for (const AnswerFaultRow& row : AllAnswerFaults()) {
      for (std::size_t at = 0; at < burn->requests.size(); ++at) {
        for (const auto& device : FaultTargets(row.fault, burn->requests[at])) {
          cases.push_back({burn.get(), &row, at, device});
        }
      }
    }
  }
  return cases;
}

/// Orders the cases so that the first N, for any N, hold about the same number of each fault at
/// each kind of request, and every third one is served by fwpush-serve's gateway, while there are
/// such.
void Balance(std::vector<Case>& cases, unsigned seed) {
  std::shuffle(cases.begin(), cases.end(), std::mt19937(seed));
  std::map<std::pair<const AnswerFaultRow*, RequestKind>, std::size_t> counts[2];
  std::vector<std::pair<std::size_t, Case>> ranked[2];
  for (const Case& each : cases) {
    const bool is_served = each.burn->IsServed();
    const RequestKind kind = each.burn->requests[each.at].kind;
    ranked[is_served].emplace_back(counts[is_served][{each.fault, kind}]++, each);
  }
  for (auto& list : ranked) {
    std::ranges::stable_sort(list, {}, &std::pair<std::size_t, Case>::first);
  }
  std::size_t taken[2] = {};
  for (std::size_t i = 0; i < cases.size(); ++i) {
    std::size_t list = i % 3 == 2 ? 1 : 0;
    if (taken[list] == ranked[list].size()) list = 1 - list;
    cases[i] = ranked[list][taken[list]++].second;
  }
}

/// Counts of the cases of one burn and one fault.
struct Tally {
  std::uint32_t cases = 0;
  std::map<std::string, std::uint32_t> ends;
  std::uint32_t not_booting = 0;
  std::uint32_t failed = 0;

  Tally& operator+=(const Tally& other) {
    cases += other.cases;
    for (const auto& [end, count] : other.ends) ends[end] += count;
    not_booting += other.not_booting;
    failed += other.failed;
    return *this;
  }
};

void PrintRow(const std::string& name, Tally tally) {
  std::cout << "  " << std::left << std::setw(24) << name << std::right << std::dec
            << std::setfill(' ');
  for (const std::uint32_t count : {tally.cases, tally.ends["succeeded"], tally.ends["ended"],
                                    tally.ends["aborted"], tally.not_booting, tally.failed}) {
    std::cout << std::setw(10) << count;
  }
  std::cout << "\n";
}

void PrintTable(const std::vector<std::unique_ptr<MatrixBurn>>& burns,
                std::map<const MatrixBurn*, std::map<const AnswerFaultRow*, Tally>>& tallies) {
  Tally all;
  for (const auto& burn : burns) {
    Tally sum;
    std::cout << burn->Name() << ", " << std::dec << burn->requests.size() << " requests\n  "
              << std::left << std::setw(24) << "fault" << std::right;
    for (const char* head : {"cases", "succeeded", "ended", "aborted", "no boot", "FAILED"}) {
      std::cout << std::setw(10) << head;
    }
    std::cout << "\n";
    for (const AnswerFaultRow& row : AllAnswerFaults()) {
      const Tally& tally = tallies[burn.get()][&row];
      if (tally.cases > 0) PrintRow(std::string(row.name), tally);
      sum += tally;
    }
    PrintRow("all", sum);
    all += sum;
  }
  std::cout << "all burns\n";
  PrintRow("all", all);
}

/// Whether docs/fail-safety.md has this row.
bool IsInDocument(const std::string& row) {
  std::ifstream file(FAIL_SAFETY_DOCUMENT);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  return text.find("| " + row + " |") != std::string::npos ||
         text.find("## " + row + "\n") != std::string::npos;
}

/// Runs the cases side by side; returns how many failed.
std::size_t RunAll(const std::vector<Case>& cases,
                   const std::vector<std::unique_ptr<MatrixBurn>>& burns, unsigned jobs,
                   bool with_table) {
  std::map<const MatrixBurn*, std::map<const AnswerFaultRow*, Tally>> tallies;
  std::map<std::string, std::uint32_t> rows;
  std::size_t failed = 0;
  std::uint32_t lost = 0;
  std::mutex mutex;
  common::ForEachIndex(jobs, cases.size(), [&](std::size_t i) {
    CaseResult result;
    try {
      result = CaseRunner().Run(cases[i]);
    } catch (const std::exception& error) {
      result.failure = error.what();
    }
    const std::lock_guard lock(mutex);
    Tally& tally = tallies[cases[i].burn][cases[i].fault];
    ++tally.cases;
    ++tally.ends[result.end];
    if (!result.row.empty()) {
      ++tally.not_booting;
      ++rows[result.row];
      lost += result.not_recovered ? 1 : 0;
    }
    if (result.failure.empty()) return;
    ++tally.failed;
    ++failed;
    std::cout << "FAILED: --case " << cases[i].Name() << ": " << result.failure << std::endl;
  });

  if (with_table) PrintTable(burns, tallies);
  for (const auto& [row, count] : rows) {
    if (!IsInDocument(row)) {
      std::cout << "FAILED: docs/fail-safety.md says nothing of: " << row << "\n";
      ++failed;
    }
    std::cout << count
              << " runs leave a device that does not boot, as docs/fail-safety.md says: " << row
              << "\n";
  }
  if (lost > 0)
    std::cout << lost << " of these devices are refused by the next burn, and burnt with -n\n";
  return failed;
}

/// Runs one case and prints all of it; returns whether it passed.
bool ShowCase(const Case& of) {
  CaseRunner runner;
  const CaseResult result = runner.Run(of);
  std::cout << "request:   " << of.burn->requests[of.at].text
            << "\nanswer:    " << of.burn->requests[of.at].answer << "\nafterwards:\n";
  for (std::size_t i = of.at; i < result.outcome.requests.size(); ++i) {
    std::cout << "> " << result.outcome.requests[i] << "\n";
  }
  std::cout << result.outcome.output << result.outcome.errors << result.end << "\n"
            << (result.failure.empty() ? "passed" : "FAILED: " + result.failure) << std::endl;
  return result.failure.empty();
}

struct Options {
  bool all = false;
  bool list = false;
  std::string name;
  std::size_t sample = 300;
  unsigned seed = std::random_device()();
  // More than there are processors: a case that waits for an answer uses none.
  unsigned jobs = 2 * std::max(1u, std::thread::hardware_concurrency());
};

int Run(const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  const common::ScratchFolder folder("fault-matrix");
  const auto burns = MatrixBurn::All(folder);
  for (const auto& burn : burns) CaseRunner().RunClean(*burn);
  std::vector<Case> cases = AllCases(burns);
  if (options.list) {
    for (const Case& each : cases) std::cout << each.Name() << "\n";
    return EXIT_SUCCESS;
  }
  if (!options.name.empty()) {
    const auto found = std::ranges::find(cases, options.name, &Case::Name);
    if (found == cases.end()) throw std::runtime_error("no such case: " + options.name);
    return ShowCase(*found) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  const std::size_t count = cases.size();
  Balance(cases, options.seed);
  if (!options.all) cases.resize(std::min(options.sample, count));
  std::cout << "fault_matrix: " << cases.size() << " of " << count << " cases, --seed "
            << options.seed << std::endl;
  const std::size_t failed = RunAll(cases, burns, options.jobs, options.all);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::cout << "fault_matrix: " << std::dec << cases.size() << " cases, " << failed << " failed, "
            << std::fixed << std::setprecision(1) << seconds.count() << " s" << std::endl;
  return failed == 0 && !cases.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace trials

int main(int argc, char* argv[]) {
  common::CommandLine line("Injects every fault of an answer at every request of burns.",
                           "fault_matrix");
  trials::Options options;
  line.AddFlag("--all", options.all, "All cases, and a table at the end");
  line.AddFlag("--list", options.list, "Only print the names of all cases");
  line.Add("--case", options.name, "Only this case, as a failure names it, and show it");
  line.Add("--sample", options.sample, "How many cases, when not all").ShowDefault();
  line.Add("--seed", options.seed, "Seed of the choice of cases (default: another one each time)");
  line.Add("--jobs", options.jobs, "Cases side by side").InRange(1, 64).ShowDefault();
  line.SetWork([&options] { return trials::Run(options); });
  return common::RunProgram({.name = "fault_matrix"}, line, argc, argv);
}
