/// The soak: burns random images onto random fabrics with random faults, and checks every burn. A
/// scenario follows from its seed alone.

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <mutex>
#include <thread>

#include "common/Parallel.h"
#include "common/Program.h"
#include "trials/soak/ScenarioRunner.h"

namespace soak {
namespace {

using std::chrono::steady_clock;

constexpr const char* ENDS[] = {"succeeded", "ended", "aborted", "killed"};

void PrintTable(const Statistics& statistics) {
  std::cout << "\n  scenarios" << std::setw(35) << statistics.scenarios << "\n";
  for (const auto& [kind, count] : statistics.kinds) {
    std::cout << "    " << std::left << std::setw(32) << kind << std::right << std::setw(10)
              << count << "\n";
  }
  std::cout << "\n  " << std::left << std::setw(34) << "injected fault" << std::right;
  for (const char* end : ENDS) std::cout << std::setw(10) << end;
  std::cout << "\n";
  for (const auto& [fault, by_end] : statistics.ends) {
    std::cout << "    " << std::left << std::setw(32) << fault << std::right;
    for (const char* end : ENDS) {
      const auto found = by_end.find(end);
      std::cout << std::setw(10) << (found == by_end.end() ? 0 : found->second);
    }
    std::cout << "\n";
  }
  std::vector<std::pair<const char*, std::uint64_t>> counts = {
      {"scenarios served by fwpush-serve", statistics.served},
      {"runs of fwpush", statistics.runs},
      {"requests", statistics.requests},
      {"devices burnt", statistics.burnt},
      {"devices reported as failed", statistics.failed},
      {"devices unchanged", statistics.left_alone},
      {"devices checked for booting", statistics.judged},
      {"bytes compared", statistics.bytes},
  };
  if (statistics.detected > 0) {
    counts.emplace_back("deliberate changes detected", statistics.detected);
  }
  std::cout << "\n";
  for (const auto& [name, count] : counts) {
    std::cout << "  " << std::left << std::setw(34) << name << std::right << std::setw(10) << count
              << "\n";
  }
  std::cout << "\n";
}

/// Prints how many devices may not boot by each row of docs/fail-safety.md. Returns how many rows
/// that page lacks.
std::uint64_t PrintRows(const Statistics& statistics) {
  std::ifstream file(FAIL_SAFETY_DOCUMENT);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  std::uint64_t missing = 0;
  for (const auto& [row, count] : statistics.rows) {
    std::cout << "  " << count << " devices may not boot, as docs/fail-safety.md says: " << row
              << " (--case " << statistics.row_cases.at(row) << ")\n";
    if (text.find("| " + row + " |") != std::string::npos) continue;
    ++missing;
    std::cout << "FAILED: docs/fail-safety.md says nothing of: " << row << "\n";
  }
  return missing;
}

struct Options {
  double minutes = 0;
  std::uint64_t count = 0;
  std::uint64_t seed = std::random_device()();
  std::optional<std::uint64_t> repeated;
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  Spoil spoil = Spoil::NOTHING;
  std::string program = FWPUSH_PROGRAM;
};

int Run(const Options& options) {
  const std::string& program = options.program;
  const Spoil spoil = options.spoil;
  const std::uint64_t seed = options.seed;
  const common::ScratchFolder folder("soak");
  if (options.repeated) {
    const Statistics statistics =
        ScenarioRunner(folder, program, &std::cout, spoil).Run(*options.repeated);
    std::cout << (statistics.failure.empty() ? "passed" : "FAILED: " + statistics.failure)
              << std::endl;
    return statistics.failure.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  const std::uint64_t count = options.minutes == 0 && options.count == 0 ? 300 : options.count;
  std::cout << "soak: --seed " << seed << std::endl;
  const auto start = steady_clock::now();
  const auto end = start + std::chrono::duration_cast<steady_clock::duration>(
                               std::chrono::duration<double, std::ratio<60>>(options.minutes));
  std::atomic<std::uint64_t> next = 0;
  std::mutex mutex;
  Statistics sum;
  std::uint64_t failed = 0;
  // Each worker takes scenarios until the count, or the time, is over.
  common::ForEachIndex(options.jobs, options.jobs, [&](std::size_t) {
    ScenarioRunner runner(folder, program, nullptr, spoil);
    for (;;) {
      const std::uint64_t i = next++;
      if (count > 0 ? i >= count : steady_clock::now() >= end) return;
      const Statistics statistics = runner.Run(seed + i);
      const std::lock_guard lock(mutex);
      sum += statistics;
      if (statistics.failure.empty()) continue;
      ++failed;
      std::cout << "FAILED: --case " << seed + i << ": " << statistics.failure << std::endl;
    }
  });

  PrintTable(sum);
  failed += PrintRows(sum);
  if (spoil != Spoil::NOTHING && sum.detected == 0) ++failed;
  const std::chrono::duration<double> seconds = steady_clock::now() - start;
  std::cout << "soak: " << sum.scenarios << " scenarios, " << sum.runs << " runs, " << failed
            << " failed, " << std::fixed << std::setprecision(1) << seconds.count() << " s, "
            << sum.runs / seconds.count() << " runs a second" << std::endl;
  return failed == 0 && sum.runs > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace soak

int main(int argc, char* argv[]) {
  using soak::Spoil;
  common::CommandLine line("Burns random images onto random fabrics with random faults.", "soak");
  soak::Options options;
  std::uint64_t repeated = 0;
  std::string spoil;
  const common::Option minutes =
      line.Add("--minutes", options.minutes, "How long").InRange(0.0, 1440.0);
  line.Add("--count", options.count, "How many scenarios").Excludes(minutes);
  line.Add("--seed", options.seed, "Seed of the first scenario (default: another one each time)");
  const common::Option one =
      line.Add("--case", repeated, "Run only the scenario of this seed, and show all of it");
  line.Add("--jobs", options.jobs, "Scenarios side by side").InRange(1, 64).ShowDefault();
  line.Add("--fwpush", options.program, "The burner to test");
  line.Add("--spoil", spoil, "Change this behind the burner's back: the checks must detect it")
      .OneOf({"device", "order"});
  line.SetWork([&] {
    if (one.IsGiven()) options.repeated = repeated;
    if (!spoil.empty()) options.spoil = spoil == "device" ? Spoil::DEVICE : Spoil::ORDER;
    return soak::Run(options);
  });
  return common::RunProgram({.name = "soak"}, line, argc, argv);
}
