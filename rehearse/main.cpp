/// fwpush-rehearse: interrupts a burn on simulated devices at every step.

#include <unistd.h>

#include <filesystem>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "common/Json.h"
#include "common/OutputFile.h"
#include "common/Program.h"
#include "common/Text.h"
#include "rehearse/Rehearsal.h"
#include "sim/FabricFile.h"

namespace {

struct Options : rehearse::RehearsalOptions {
  std::string guid_words;
  std::string recover = "100";
  std::string point;
  std::string json_file;
  unsigned chunk_align = 5;
  bool is_not_failsafe = false;
  bool has_no_next = false;
};

/// Prints a progress bar on a terminal, and else a line now and then.
class Progress {
 public:
  void operator()(const std::string& what, std::size_t done, std::size_t total) {
    const std::size_t tenths = total == 0 ? 10 : done * 10 / total;
    if (what == _what && tenths == _tenths) return;
    if (_is_terminal) {
      std::cerr << "\r" << std::left << std::setw(12) << what << "[" << std::string(2 * tenths, '#')
                << std::string(2 * (10 - tenths), '.') << "] " << tenths * 10 << "%  "
                << (tenths == 10 ? "\n" : "") << std::flush;
    } else if (what != _what || tenths % 5 == 0) {
      std::cerr << what << ": " << done << " of " << total << std::endl;
    }
    _what = what;
    _tenths = tenths;
  }

 private:
  const bool _is_terminal = isatty(STDERR_FILENO) != 0;
  std::string _what;
  std::size_t _tenths = 0;
};

std::size_t At(const auto& counts, auto key) {
  const auto found = counts.find(key);
  return found == counts.end() ? 0 : found->second;
}

/// "1 point", "2 points"; `many` where that is not `one` and an s.
std::string Counted(std::uint64_t count, const std::string& one, const std::string& many = "") {
  return common::Text(count, " ", count == 1 ? one : many.empty() ? one + "s" : many);
}

std::string TextOf(const rehearse::TornRecords& torn) {
  if (torn.valid == 0) {
    return common::Text(Counted(torn.words, "word"), ": none of ",
                        Counted(torn.mixes, "mix", "mixes"), " adds up");
  }
  return common::Text(Counted(torn.words, "word"), ": ", torn.valid, " of ",
                      Counted(torn.mixes, "mix", "mixes"), " of old and new bits ",
                      torn.valid == 1 ? "adds" : "add", " up by chance, about 1 in ",
                      Counted(torn.OneIn(), "torn word"));
}

/// What is known of an image that no file explains.
std::string TextOf(const device::PresentImage& image) {
  const std::string size = image.record_size ? common::Text("its record gives 0x", std::hex,
                                                            *image.record_size, " bytes")
                                             : "its boot record gives no size";
  return common::Text("slot ", image.slot, ", which no image file explains: ", size);
}

/// That every device boots a whole image; as far as records tell where nothing else is known.
std::string SafeEnd(const rehearse::RehearsalReport& report) {
  const std::string begin = "no interruption that was tried leaves a device that does not boot";
  if (report.known_by_record.empty()) return begin + " a whole image";
  std::set<std::uint32_t> slots;
  bool has_sizes = true;
  for (const rehearse::KnownByRecord& known : report.known_by_record) {
    for (const device::PresentImage& image : known.images) {
      slots.insert(image.slot);
      has_sizes = has_sizes && image.record_size.has_value();
    }
  }
  const std::string end = begin + ";\n    an old image that it may boot is whole as far as ";
  const std::string first = std::to_string(*slots.begin());
  if (slots.size() > 1) {
    return end + (has_sizes ? "the records of slots 0 and 1 give its size" : "its slot reaches");
  }
  return end + (has_sizes ? "the record of slot " + first + " gives its size"
                          : "slot " + first + " reaches");
}

/// The good end, and exactly what it is about.
void PrintSafe(const rehearse::RehearsalReport& report, const Options& options) {
  using rehearse::Interruption;
  if (options.at) {
    std::cout << "  every device boots after this interruption (torn words and erases by --seed "
              << options.seed;
    if (options.at->second_seed) {
      std::cout << ", those of the recovery by " << *options.at->second_seed;
    }
    std::cout << ")" << std::endl;
    return;
  }
  std::cout << "  tried: power lost at " << Counted(report.Points(), "point") << " of this burn";
  if (report.next.burns > 0) {
    std::cout << ", " << report.next.points << " of the next one and " << report.interrupted.points
              << " of " << Counted(report.interrupted.burns, "recovery", "recoveries");
  }
  std::cout << ";\n    the burner killed "
            << Counted(At(report.recoveries, Interruption::KILLED), "time")
            << ", the connection dropped "
            << Counted(At(report.recoveries, Interruption::DROPPED), "time")
            << ";\n    torn words and erases in one way each, by --seed " << options.seed;
  if (report.torn_records.words > 0) std::cout << ", torn boot records in every way";
  std::cout << "\n  " << SafeEnd(report) << std::endl;
}

void PrintTable(const rehearse::RehearsalReport& report, const Options& options) {
  using rehearse::CutKind;
  using rehearse::Interruption;
  const auto row = [](const std::string& name, const std::string& text) {
    std::cout << "  " << std::left << std::setw(18) << name << text << "\n";
  };
  std::cout << std::dec << std::setfill(' ') << "rehearsal: " << report.algorithm << ", "
            << report.devices << " device(s)\n";
  row("operations",
      common::Text(Counted(report.writes, "write"), ", ", Counted(report.erases, "erase"), ", in ",
                   Counted(report.requests, "request")));
  row("points",
      common::Text(report.Points(), ": ", At(report.points, CutKind::AFTER_WORD), " after a word, ",
                   At(report.points, CutKind::TORN_WORD), " in a torn word, ",
                   At(report.points, CutKind::TORN_ERASE), " in an erase, ",
                   At(report.points, CutKind::AFTER_ERASE), " after one"));
  row("device x points", common::Text(report.boot_old, " boot old, ", report.boot_new,
                                      " boot new, ", report.unbootable, " do not boot"));
  if (report.may_not_boot > 0) {
    row("",
        common::Text(report.may_not_boot,
                     " may not boot: another slot is marked valid, and its image is not whole"));
  }
  if (report.torn_records.words > 0) row("torn boot records", TextOf(report.torn_records));
  if (report.unbootable_at_start > 0) {
    row("",
        common::Text(report.unbootable_at_start, " device(s) did not boot before the burn either"));
  }
  for (const rehearse::KnownByRecord& known : report.known_by_record) {
    for (const device::PresentImage& image : known.images) {
      row("known by record", common::HexGuid(known.device) + ", " + TextOf(image));
    }
  }
  const std::size_t recoveries = At(report.recoveries, Interruption::POWER) +
                                 At(report.recoveries, Interruption::KILLED) +
                                 At(report.recoveries, Interruption::DROPPED);
  row("recoveries",
      common::Text(recoveries, ": ", At(report.recoveries, Interruption::POWER),
                   " from lost power, ", At(report.recoveries, Interruption::KILLED),
                   " from a killed burner, ", At(report.recoveries, Interruption::DROPPED),
                   " from a dropped connection; ", report.unrecovered, " failed"));
  if (report.not_tried.empty()) {
    const auto states = [](const rehearse::FurtherBurns& further) {
      return common::Text(further.points - further.unsafe, " boot, ", further.unsafe,
                          " do not boot or may not");
    };
    if (report.next.burns > 0) {
      row("next burn", common::Text("of the same image, ", Counted(report.next.points, "point"),
                                    ": ", states(report.next)));
    }
    if (report.interrupted.burns > 0) {
      row("interrupted again",
          common::Text(Counted(report.interrupted.burns, "recovery", "recoveries"), ", ",
                       Counted(report.interrupted.points, "point"), ": ",
                       states(report.interrupted), "; ",
                       Counted(report.interrupted.recoveries, "third burn"), ", ",
                       report.interrupted.unrecovered, " failed"));
    }
  } else {
    row("not tried", "the next burn, and a second interruption: " + report.not_tried);
  }
  row("wall time", common::Text(std::fixed, std::setprecision(1), report.seconds, " s"));
  if (report.IsWell()) {
    PrintSafe(report, options);
    return;
  }
  std::cout << "exceptions:\n";
  for (const rehearse::RehearsalException& exception : report.exceptions) {
    std::cout << "  " << common::HexGuid(exception.device) << ", ";
    if (exception.first) {
      std::cout << "point " << Describe(*exception.first);
      if (exception.seed) std::cout << " (with --seed " << *exception.seed << ")";
      if (exception.points > 1) std::cout << " and " << exception.points - 1 << " more";
      std::cout << ", request " << exception.first_request;
      if (exception.last_request != exception.first_request) {
        std::cout << " to " << exception.last_request;
      }
      std::cout << (exception.command.empty() ? "" : " (" + exception.command + ")") << ", ";
    }
    std::cout << exception.step << ": " << exception.state << "; " << exception.reason;
    if (exception.is_without_seed) std::cout << "; no seed that was tried shows it with --at";
    std::cout << "\n";
  }
  if (report.exceptions_left_out > 0) {
    std::cout << "  and " << report.exceptions_left_out << " more\n";
  }
  std::cout << "  NOT FAILSAFE: replay one with --at POINT --seed SEED" << std::endl;
}

nlohmann::json Json(const rehearse::TornRecords& torn) {
  return {{"words", torn.words},
          {"mixes", torn.mixes},
          {"valid", torn.valid},
          {"one_in", torn.OneIn()}};
}

nlohmann::json Json(const rehearse::FurtherBurns& further) {
  return {{"burns", further.burns},           {"points", further.points},
          {"unsafe", further.unsafe},         {"torn_records", Json(further.torn_records)},
          {"recoveries", further.recoveries}, {"failed", further.unrecovered}};
}

/// As the report for machines has it.
const char* Word(rehearse::Burning burning) {
  switch (burning) {
    case rehearse::Burning::FIRST:
      return "burn";
    case rehearse::Burning::NEXT:
      return "next-burn";
    case rehearse::Burning::RECOVERY:
      return "recovery";
  }
  return "?";
}

nlohmann::json Json(const rehearse::RehearsalReport& report, unsigned seed) {
  using rehearse::CutKind;
  using rehearse::Interruption;
  nlohmann::json exceptions = nlohmann::json::array();
  for (const rehearse::RehearsalException& exception : report.exceptions) {
    const nlohmann::json seed_of =
        exception.seed ? nlohmann::json(*exception.seed) : nlohmann::json(nullptr);
    exceptions.push_back({{"device", common::HexGuid(exception.device)},
                          {"during", Word(exception.during)},
                          {"seed", seed_of},
                          {"at", exception.first ? Describe(*exception.first) : ""},
                          {"points", exception.points},
                          {"first_request", exception.first_request},
                          {"last_request", exception.last_request},
                          {"command", exception.command},
                          {"step", exception.step},
                          {"state", exception.state},
                          {"reason", exception.reason}});
  }
  nlohmann::json known_by_record = nlohmann::json::array();
  for (const rehearse::KnownByRecord& known : report.known_by_record) {
    nlohmann::json slots = nlohmann::json::array();
    for (const device::PresentImage& image : known.images) {
      slots.push_back({{"slot", image.slot},
                       {"record_size", image.record_size ? nlohmann::json(*image.record_size)
                                                         : nlohmann::json(nullptr)}});
    }
    known_by_record.push_back({{"device", common::HexGuid(known.device)}, {"slots", slots}});
  }
  return {{"version", 1},
          {"algorithm", report.algorithm},
          {"devices", report.devices},
          {"unbootable_at_start", report.unbootable_at_start},
          {"known_by_record", known_by_record},
          {"seed", seed},
          {"requests", report.requests},
          {"writes", report.writes},
          {"erases", report.erases},
          {"points",
           {{"after_word", At(report.points, CutKind::AFTER_WORD)},
            {"torn_word", At(report.points, CutKind::TORN_WORD)},
            {"torn_erase", At(report.points, CutKind::TORN_ERASE)},
            {"after_erase", At(report.points, CutKind::AFTER_ERASE)}}},
          {"boot_old", report.boot_old},
          {"boot_new", report.boot_new},
          {"unbootable", report.unbootable},
          {"may_not_boot", report.may_not_boot},
          {"torn_records", Json(report.torn_records)},
          {"recoveries",
           {{"power", At(report.recoveries, Interruption::POWER)},
            {"killed", At(report.recoveries, Interruption::KILLED)},
            {"dropped", At(report.recoveries, Interruption::DROPPED)},
            {"failed", report.unrecovered}}},
          {"next_burn", Json(report.next)},
          {"interrupted_again", Json(report.interrupted)},
          {"not_tried", report.not_tried},
          {"seconds", report.seconds},
          {"exceptions_left_out", report.exceptions_left_out},
          {"exceptions", exceptions}};
}

/// The devices of -g, in the syntax of fwpush; none means all.
std::vector<device::Guid> ParseGuids(const std::string& list) {
  std::set<device::Guid> guids;
  try {
    common::ParseGuids(list, guids);
  } catch (const std::runtime_error& error) {
    throw common::UsageError("--guids", error.what());
  }
  if (!list.empty() && guids.empty()) throw common::UsageError("--guids", "no device given");
  return {guids.begin(), guids.end()};
}

/// Converts the values of the command line to options of the rehearsal. Throws UsageError.
void TakeWords(Options& options) {
  options.guids = ParseGuids(options.guid_words);
  if (options.recover == "all") {
    options.recoveries = SIZE_MAX;
  } else if (const auto number = rehearse::ParseInterruptionPoint(options.recover);
             number && number->IsOfThisBurn() && number->kind == rehearse::Interruption::POWER) {
    options.recoveries = number->place;
  } else {
    throw common::UsageError("--recover", "must be a number or all");
  }
  if (!options.point.empty() && !(options.at = rehearse::ParseInterruptionPoint(options.point))) {
    throw common::UsageError("--at",
                             "must be a point such as 1234, killed:28, dropped:28, next:1234 "
                             "or 1234+567");
  }
  options.has_next = !options.has_no_next;
  if (options.has_no_next && options.at && !options.at->IsOfThisBurn()) {
    throw common::UsageError("--at", "names a point that --no-next leaves out");
  }
  options.extra_args = {"-m", std::to_string(options.chunk_align)};
  if (options.is_not_failsafe) options.extra_args.emplace_back("-n");
}

/// Throws UsageError where the report would be written over another file of this run.
void CheckFiles(const Options& options) {
  std::vector<common::NamedFile> inputs{{"FABRIC", options.fabric_file},
                                        {"--image", options.image_file},
                                        {"--fwpush", options.fwpush}};
  for (const auto& file : sim::FilesOf(options.fabric_file).read) {
    inputs.push_back({"the fabric's", file});
  }
  common::RefuseSameFiles(inputs, {{"--json", options.json_file}});
}

int Run(Options& options) {
  TakeWords(options);
  CheckFiles(options);
  // Open the file first: the rehearsal takes long, and this may fail.
  std::optional<common::OutputFile> json;
  if (!options.json_file.empty()) json.emplace(options.json_file);
  Progress progress;
  const rehearse::RehearsalReport report = rehearse::Rehearse(options, std::ref(progress));
  PrintTable(report, options);
  if (json) {
    json->Write(common::DumpJson(Json(report, options.seed)) + "\n");
    json->Keep();
  }
  if (!std::cout) throw std::runtime_error("can't write the report");
  return report.IsWell() ? common::ALL_WELL : common::DIFFERS;
}

}  // namespace

int main(int argc, char* argv[]) {
  common::CommandLine line("Interrupts a burn at every step, on simulated devices.");
  Options options;
  options.fwpush =
      (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "fwpush").string();
  line.Add("FABRIC", options.fabric_file, "The fabric file (TOML)").Required();
  line.Add("-f,--image", options.image_file, "The image file to burn").Required();
  line.Add("-g,--guids", options.guid_words, "The devices, separated by commas (default: all)");
  line.Add("-m,--chunk-align", options.chunk_align, "Chunk alignment (log2), as for fwpush")
      .InRange(4, 15)
      .ShowDefault();
  line.AddFlag("-n", options.is_not_failsafe,
               "Rehearse the burn that is not failsafe, as for fwpush");
  line.Add("--recover", options.recover, "How many recoveries to run: a number, or all")
      .ShowDefault();
  line.Add("--jobs", options.jobs, "Recoveries side by side").InRange(1, 64).ShowDefault();
  line.Add("--seed", options.seed, "Seed of torn words, torn erases and the choice of recoveries")
      .ShowDefault();
  line.Add("--at", options.point,
           "Only this point, as an exception names it: 1234, killed:28, dropped:28, next:1234, "
           "1234+567");
  line.AddFlag("--no-next", options.has_no_next,
               "Leave out the next burn, and second interruptions while a burn recovers");
  line.Add("--json", options.json_file, "File for the report, for machines");
  line.Add("--fwpush", options.fwpush,
           "The burner to rehearse with (default: fwpush beside this program)");
  line.SetWork([&options] { return Run(options); });
  line.AcceptEquals({"-f", "-g", "-m"});
  return common::RunProgram({.name = "fwpush-rehearse", .is_verbatim = true}, line, argc, argv);
}
