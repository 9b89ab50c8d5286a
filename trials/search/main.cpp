/// The search: looks by chance for an image, a starting state and a burn of which a tool says
/// something false: a check that passes and a burn that leaves a device that does not boot or lacks
/// bytes; a rehearsal that says "safe" and a power loss that does not; a verification that says
/// "identical" where a byte differs. A case follows from its seed alone.

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "common/Parallel.h"
#include "common/Program.h"
#include "trials/search/Case.h"

namespace search {
namespace {

struct Options {
  std::uint64_t count = 200;
  std::uint64_t seed = std::random_device()();
  std::optional<std::uint64_t> repeated;
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  std::uint64_t least_of_kind = 0;
  Programs programs{FWPUSH_PROGRAM, FWIMG_PROGRAM, REHEARSE_PROGRAM, VERIFY_PROGRAM};
};

void PrintCounts(const char* name, const std::map<std::string, std::uint64_t>& counts) {
  std::cout << "\n  " << name << "\n";
  for (const auto& [what, count] : counts) {
    std::cout << "    " << std::left << std::setw(60) << what << std::right << std::setw(8) << count
              << "\n";
  }
}

std::string ImageCheckDocument() {
  std::ifstream file(IMAGE_CHECK_DOCUMENT);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The kinds of problems that docs/image-check.md lists: the rows of its tables that have a
/// severity.
std::set<std::string> ListedKinds() {
  const std::string text = ImageCheckDocument();
  const std::regex row(R"(\| `([a-z-]+)` \| (error|warning) \|)");
  std::set<std::string> kinds;
  for (std::sregex_iterator match(text.begin(), text.end(), row), end; match != end; ++match) {
    kinds.insert((*match)[1]);
  }
  return kinds;
}

/// Which of these kinds docs/image-check.md does not list among the errors in images that burn.
std::vector<std::string> UnlistedKinds(const std::map<std::string, std::uint64_t>& kinds) {
  std::string text = ImageCheckDocument();
  text.erase(0, text.find("\n## Errors in images that burn\n") + 1);
  text.resize(std::min(text.find("\n## "), text.size()));
  std::vector<std::string> unlisted;
  for (const auto& [kind, count] : kinds) {
    if (text.find("`" + kind + "`") == std::string::npos) unlisted.push_back(kind);
  }
  return unlisted;
}

void Print(const Statistics& sum) {
  PrintCounts("mistakes made in images", sum.mistakes);
  PrintCounts("images by kind of problem", sum.kinds);
  PrintCounts("images whose only errors are of a kind, and that every burn burnt",
              sum.burnt_with_error);
  for (const auto& [kind, example] : sum.case_of) {
    std::cout << "    " << kind << ": --case " << example << "\n";
  }
  std::cout << "\n";
  const std::pair<const char*, std::uint64_t> rows[] = {
      {"images", sum.images},
      {"images without an error", sum.passed},
      {"burns", sum.burns},
      {"rehearsals", sum.rehearsals},
      {"rehearsals that say safe", sum.rehearsed_safe},
      {"rehearsals that cannot be", sum.not_rehearsed},
      {"power losses after them", sum.cuts},
      {"mixes of torn boot records", sum.mixes},
      {"verifications", sum.verified},
      {"changed bytes", sum.flipped},
      {"pairs of images", sum.compared},
      {"pairs that leave the same", sum.said_same},
      {"false claims", sum.false_claims.size()},
  };
  for (const auto& [name, count] : rows) {
    std::cout << "  " << std::left << std::setw(30) << name << std::right << std::setw(10) << count
              << "\n";
  }
}

void PrintFailures(const Statistics& statistics) {
  for (const std::string& claim : statistics.false_claims) {
    std::cout << "FAILED: " << claim << std::endl;
  }
  for (const std::string& reason : statistics.not_run) {
    std::cout << "FAILED: could not be run: " << reason << std::endl;
  }
}

int Run(const Options& options) {
  const common::ScratchFolder folder("search");
  if (options.repeated) {
    const Statistics statistics =
        CaseRunner(folder, options.programs, &std::cout).Run(*options.repeated);
    PrintFailures(statistics);
    return statistics.false_claims.empty() && statistics.not_run.empty() ? EXIT_SUCCESS
                                                                         : EXIT_FAILURE;
  }
  std::cout << "search: --seed " << options.seed << std::endl;
  std::atomic<std::uint64_t> next = 0;
  std::mutex mutex;
  Statistics sum;
  common::ForEachIndex(options.jobs, options.jobs, [&](std::size_t) {
    CaseRunner runner(folder, options.programs, nullptr);
    for (std::uint64_t i; (i = next++) < options.count;) {
      const Statistics statistics = runner.Run(options.seed + i);
      const std::lock_guard lock(mutex);
      sum += statistics;
      PrintFailures(statistics);
    }
  });
  Print(sum);
  bool is_well =
      sum.false_claims.empty() && sum.not_run.empty() && sum.passed > 0 && sum.flipped > 0;
  for (const std::string& kind : UnlistedKinds(sum.burnt_with_error)) {
    std::cout << "FAILED: docs/image-check.md does not say why " << kind
              << " is an error: its images burn (--case " << sum.case_of.at(kind) << ")\n";
    is_well = false;
  }
  if (options.least_of_kind > 0) {
    if (sum.passed * 100 < sum.images * 30) {
      std::cout << "FAILED: less than 30 % of the images pass the check\n";
      is_well = false;
    }
    if (sum.rehearsed_safe * 100 < sum.rehearsals * 30) {
      std::cout << "FAILED: less than 30 % of the rehearsals say safe\n";
      is_well = false;
    }
    const std::set<std::string> listed = ListedKinds();
    if (listed.empty()) throw std::runtime_error("docs/image-check.md lists no kind");
    for (const std::string& kind : listed) sum.kinds.try_emplace(kind, 0);
    for (const auto& [kind, count] : sum.kinds) {
      if (count >= options.least_of_kind) continue;
      std::cout << "FAILED: only " << count << " images have " << kind << "\n";
      is_well = false;
    }
  }
  std::cout << "search: " << sum.images << " images, " << sum.burns << " burns, "
            << sum.false_claims.size() << " false claims" << std::endl;
  return is_well ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace search

int main(int argc, char* argv[]) {
  common::CommandLine line(
      "Looks by chance for images and burns of which a tool says something false.", "search");
  search::Options options;
  std::uint64_t repeated = 0;
  line.Add("--count", options.count, "How many images").ShowDefault();
  line.Add("--seed", options.seed, "Seed of the first case (default: another one each time)");
  const common::Option one =
      line.Add("--case", repeated, "Run only the case of this seed, and show all of it");
  line.Add("--jobs", options.jobs, "Cases side by side").InRange(1, 64).ShowDefault();
  line.Add(
      "--least", options.least_of_kind,
      "Fail where fewer images have a kind of problem, less than 30 % pass, or less than 30 % of "
      "the rehearsals say safe");
  line.Add("--fwimg", options.programs.fwimg, "The fwimg to test");
  line.Add("--fwpush", options.programs.fwpush, "The fwpush to burn with");
  line.Add("--rehearse", options.programs.rehearse, "The fwpush-rehearse to test");
  line.Add("--verify", options.programs.verify, "The fwpush-verify to test");
  line.SetWork([&] {
    if (one.IsGiven()) options.repeated = repeated;
    return search::Run(options);
  });
  return common::RunProgram({.name = "search"}, line, argc, argv);
}
