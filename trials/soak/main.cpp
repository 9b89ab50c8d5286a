/// The soak: burns random images onto random fabrics with random faults, and checks every burn. A
/// scenario follows from its seed alone.

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <mutex>
#include <thread>

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

int Main(int argc, char** argv) {
  CLI::App app("Burns random images onto random fabrics with random faults.", "soak");
  double minutes = 0;
  std::uint64_t count = 0;
  std::uint64_t seed = std::random_device()();
  std::uint64_t repeated = 0;
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  Spoil spoil = Spoil::NOTHING;
  std::string program = FWPUSH_PROGRAM;
  CLI::Option* bound = app.add_option("--minutes", minutes, "How long");
  bound->check(CLI::Range(0.0, 1440.0));
  app.add_option("--count", count, "How many scenarios")->excludes(bound);
  app.add_option("--seed", seed, "Seed of the first scenario (default: another one each time)");
  CLI::Option* one =
      app.add_option("--case", repeated, "Run only the scenario of this seed, and show all of it");
  app.add_option("--jobs", jobs, "Stories side by side")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  app.add_option("--fwpush", program, "The burner to test");
  app.add_option("--spoil", spoil,
                 "Change this behind the burner's back: the checks must detect it")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, Spoil>{{"device", Spoil::DEVICE}, {"order", Spoil::ORDER}}));
  CLI11_PARSE(app, argc, argv);

  const common::ScratchFolder folder("soak-");
  if (one->count() > 0) {
    const Statistics statistics = ScenarioRunner(folder, program, &std::cout, spoil).Run(repeated);
    std::cout << (statistics.failure.empty() ? "passed" : "FAILED: " + statistics.failure)
              << std::endl;
    return statistics.failure.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  if (minutes == 0 && count == 0) count = 300;
  std::cout << "soak: --seed " << seed << std::endl;
  const auto start = steady_clock::now();
  const auto end = start + std::chrono::duration_cast<steady_clock::duration>(
                               std::chrono::duration<double, std::ratio<60>>(minutes));
  std::atomic<std::uint64_t> next = 0;
  std::mutex mutex;
  Statistics sum;
  std::uint64_t failed = 0;
  const auto work = [&] {
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
  };
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < jobs; ++i) workers.emplace_back(work);
  for (std::thread& worker : workers) worker.join();

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

int main(int argc, char** argv) {
  try {
    return soak::Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << std::endl;
  }
  return 2;
}
