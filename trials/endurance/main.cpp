/// The endurance run of the server for real memories: many clients burn devices of a virtual
/// machine for hours of virtual time, with faults of memories and wires. A run follows from its
/// seed alone.

#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <random>

#include "common/Program.h"
#include "trials/endurance/Endurance.h"

namespace endurance {
namespace {

void PrintCount(const std::string& name, std::uint64_t count) {
  std::cout << "  " << std::left << std::setw(44) << name << std::right << std::setw(14) << count
            << "\n";
}

void Print(const Endurance& run) {
  const Counts& counts = run.GetCounts();
  std::cout << std::fixed << std::setprecision(1) << "\n";
  PrintCount("page writes of EEPROMs", counts.page_writes);
  PrintCount("programs of flashes", counts.programs);
  PrintCount("erases of flashes", counts.erases);
  PrintCount("runs of the burner", counts.runs);
  PrintCount("clients that vanished", counts.vanished);
  PrintCount("clients that aborted after a failed read", counts.aborted);
  PrintCount("burns of a device", counts.burns);
  PrintCount("burns that failed", counts.failed);
  PrintCount("burns without failsafe", counts.plain);
  PrintCount("failed burns after which the device boots", counts.judged);
  PrintCount("connections", counts.connections);
  PrintCount("requests", counts.requests);
  PrintCount("reads by others", counts.reads);
  PrintCount("reads that were compared", counts.compared_reads);
  PrintCount("writes that were refused", counts.refusals);
  PrintCount("reloads of the configuration", counts.reloads);
  PrintCount("devices prepared and released", static_cast<std::uint64_t>(counts.prepared));
  PrintCount("bytes compared", counts.bytes);

  std::cout << "\n  " << std::left << std::setw(44) << "fault" << std::right << std::setw(14)
            << "injected" << std::setw(14) << "burnt" << std::setw(14) << "failed"
            << "\n";
  for (const auto& [fault, count] : counts.faults) {
    std::cout << "  " << std::left << std::setw(44) << NameOf(fault) << std::right << std::setw(14)
              << count.injected << std::setw(14) << count.survived << std::setw(14) << count.failed
              << "\n";
  }
  std::cout << "\n  " << std::left << std::setw(44) << "wire" << std::right << std::setw(14)
            << "busy"
            << "\n";
  double sum = 0;
  int wires = 0;
  for (std::size_t i = 0; i < counts.busy.size(); ++i) {
    if (!run.Wires()[i]->TakesTime()) continue;
    sum += counts.busy[i];
    ++wires;
    std::cout << "  " << std::left << std::setw(44) << run.Wires()[i]->name << std::right
              << std::setw(12) << 100 * counts.busy[i] << " %\n";
  }
  std::cout << "  " << std::left << std::setw(44) << "mean" << std::right << std::setw(12)
            << 100 * sum / wires << " %\n";
  std::cout << "\n  " << std::left << std::setw(44) << "nobody connected, after virtual hours"
            << std::right << std::setw(14) << "heap" << std::setw(14) << "descriptors"
            << std::setw(14) << "of the run"
            << "\n";
  for (const Sample& sample : run.Samples()) {
    std::cout << "  " << std::left << std::setw(44) << std::setprecision(2) << sample.hours
              << std::right << std::setw(14) << sample.heap << std::setw(14) << sample.descriptors
              << std::setw(14) << sample.process_descriptors << "\n";
  }
  std::cout << "\n";
}

/// Returns what is wrong; empty where nothing is.
std::string Failure(Endurance& run) {
  const BurnerConsoles consoles;
  try {
    run.Run();
    return "";
  } catch (const Mistake& mistake) {
    return mistake.what();
  }
}

/// One thread runs at a time: on one processor the next one begins sooner.
void StayOnOneProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<std::size_t>(std::max(0, sched_getcpu())), &one);
  // Without it the run only takes longer.
  static_cast<void>(sched_setaffinity(0, sizeof(one), &one));
}

int Run(const Options& options, bool is_repeated) {
  StayOnOneProcessor();
  std::cout << "endurance: --seed " << options.seed << std::endl;
  const auto start = std::chrono::steady_clock::now();
  std::string failure;
  double hours = 0;
  Counts counts;
  {
    Endurance run(options);
    failure = Failure(run);
    Print(run);
    counts = run.GetCounts();
    hours = run.Hours();
  }
  if (is_repeated && failure.empty()) {
    Endurance again(options);
    failure = Failure(again);
    if (failure.empty() && again.GetCounts() != counts) failure = "another run of it differs";
  }
  const bool is_spoilt = options.spoil != Spoil::NOTHING;
  if (is_spoilt) {
    std::cout << (failure.empty() ? "FAILED: what was spoilt was not found" : "found: " + failure)
              << std::endl;
  } else if (!failure.empty()) {
    std::cout << "FAILED: " << failure << std::endl;
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::cout << std::fixed << std::setprecision(2) << "endurance: " << hours << " virtual hours, "
            << counts.runs << " runs, " << (failure.empty() ? 0 : 1) << " failed, "
            << std::setprecision(1) << seconds.count() << " s" << std::endl;
  return failure.empty() == is_spoilt ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace
}  // namespace endurance

int main(int argc, char* argv[]) {
  using endurance::Spoil;
  // Threads with heaps of their own would hide a leak.
  mallopt(M_ARENA_MAX, 1);
  common::CommandLine line(
      "Burns devices of a virtual machine for hours of virtual time, by many clients of one "
      "fwpush-serve, with faults of memories and wires.",
      "served_endurance");
  endurance::Options options;
  options.seed = std::random_device()();
  bool is_repeated = false;
  std::string spoil;
  line.Add("--hours", options.hours, "How long, in virtual time")
      .InRange(0.01, 1000.0)
      .ShowDefault();
  line.Add("--seed", options.seed, "What the run follows from (default: another one each time)");
  line.AddFlag("--twice", is_repeated, "Run it once more: all counts must be the same");
  line.Add("--spoil", spoil, "Do this wrong: the run must find it")
      .OneOf({"descriptor", "lease", "read-back", "memory"});
  line.SetWork([&] {
    if (spoil == "descriptor") options.spoil = Spoil::DESCRIPTOR;
    if (spoil == "lease") options.spoil = Spoil::LEASE;
    if (spoil == "read-back") options.spoil = Spoil::READ_BACK;
    if (spoil == "memory") options.spoil = Spoil::MEMORY;
    return endurance::Run(options, is_repeated);
  });
  return common::RunProgram({.name = "served_endurance"}, line, argc, argv);
}
