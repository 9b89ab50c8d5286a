/// fwpush-verify: compares the memory of devices with what a burn of an image leaves.

#include <unistd.h>

#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "common/GuidList.h"
#include "common/Json.h"
#include "common/OutputFile.h"
#include "common/Program.h"
#include "common/Text.h"
#include "verify/SavedMemory.h"
#include "verify/Verify.h"

namespace {

constexpr int MOST_JOBS = 64;

/// Draws how much is done on a terminal on standard error, and nothing elsewhere.
class ProgressBar {
 public:
  void Show(double part) {
    const auto tenths = static_cast<std::size_t>(part * 10);
    if (!_is_terminal || tenths == _shown) return;
    _shown = tenths;
    std::cerr << "\r" << std::left << std::setw(12) << "verifying"
              << "[" << std::string(2 * tenths, '#') << std::string(2 * (10 - tenths), '.') << "] "
              << tenths * 10 << "%  " << std::flush;
  }
  /// Before other output, and at the end.
  void Remove() {
    if (_shown) std::cerr << "\r\x1b[K" << std::flush;
    _shown.reset();
  }

 private:
  const bool _is_terminal = isatty(STDERR_FILENO) != 0;
  std::optional<std::size_t> _shown;
};

std::string Slots(const std::vector<std::uint32_t>& slots) {
  if (slots.empty()) return "none";
  return slots.size() == 2 ? "0 and 1" : std::to_string(slots.front());
}

/// Which slots were compared, which are marked valid, and which boots.
std::string SlotText(const verify::DeviceFinding& finding) {
  std::string text;
  if (finding.compared > 0) {
    text = finding.slots.empty() ? "compared all sections, "
                                 : "compared slot " + Slots(finding.slots) + ", ";
  }
  text += "marked valid " + Slots(finding.valid_slots) + ", ";
  const auto boots = finding.Boots();
  if (!finding.valid_slots.empty() && !boots) {
    const bool is_different = finding.invariant_sector == verify::InvariantSector::DIFFERENT;
    return text + "invariant sector " + (is_different ? "differs" : "not compared") +
           ": not known whether anything boots";
  }
  return text + (boots ? "boots slot " + std::to_string(*boots) : "nothing boots");
}

void Print(const verify::DeviceFinding& finding) {
  std::cout << common::HexGuid(finding.guid) << " " << Name(finding.state);
  if (finding.compared > 0) {
    std::cout << ": " << std::dec;
    if (finding.state != verify::DeviceFinding::IDENTICAL) std::cout << finding.different << " of ";
    std::cout << finding.compared << " bytes";
  }
  if (!finding.reason.empty()) std::cout << ": " << common::Printable(finding.reason);
  if (finding.knows_slots) std::cout << "; " << SlotText(finding);
  std::cout << "\n";
  for (const verify::Difference& difference : finding.differences) {
    std::cout << common::Text("  ", common::Printable(difference.section), "+0x", std::hex,
                              difference.offset, " at 0x", difference.addr, ": expected ",
                              std::setw(2), std::setfill('0'), std::uint32_t{difference.expected},
                              ", found ", std::setw(2), std::uint32_t{difference.found}, "\n");
  }
  if (finding.different > finding.differences.size() && !finding.differences.empty()) {
    std::cout << "  and " << std::dec << finding.different - finding.differences.size()
              << " more\n";
  }
  std::cout.flush();
}

nlohmann::json InvariantSectorJson(verify::InvariantSector sector) {
  switch (sector) {
    case verify::InvariantSector::IDENTICAL:
      return "identical";
    case verify::InvariantSector::DIFFERENT:
      return "different";
    case verify::InvariantSector::NONE:
    case verify::InvariantSector::NOT_COMPARED:
      break;
  }
  return nullptr;
}

nlohmann::json Json(const verify::DeviceFinding& finding) {
  nlohmann::json differences = nlohmann::json::array();
  for (const verify::Difference& difference : finding.differences) {
    differences.push_back({{"section", difference.section},
                           {"offset", difference.offset},
                           {"address", difference.addr},
                           {"expected", difference.expected},
                           {"found", difference.found}});
  }
  const auto boots = finding.Boots();
  return {{"guid", common::HexGuid(finding.guid)},
          {"state", Name(finding.state)},
          {"reason", finding.reason},
          {"boots", boots ? nlohmann::json(*boots) : nlohmann::json()},
          {"valid_slots", finding.valid_slots},
          {"invariant_sector", InvariantSectorJson(finding.invariant_sector)},
          {"compared_slots", finding.slots},
          {"compared_bytes", finding.compared},
          {"different_bytes", finding.different},
          {"differences", differences}};
}

/// Throws std::runtime_error.
void MakeFolder(const std::string& name) {
  std::error_code error;
  std::filesystem::create_directories(name, error);
  if (!error && !std::filesystem::is_directory(name, error) && !error) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (error) throw std::runtime_error("can't make the folder " + name + ": " + error.message());
}

int TellUsage(const std::string& text) {
  std::cerr << "fwpush-verify: " << common::Printable(text)
            << "\nRun with --help for more information." << std::endl;
  return common::USAGE;
}

struct Options {
  std::string image;
  std::string server;
  std::vector<std::string> guids;
  std::optional<std::string> save;
  std::string slot = "auto";
  unsigned jobs = 8;
  bool is_json = false;
};

/// Verifies all devices. Prints each result at once, or with --json all at the end.
class Run {
 public:
  explicit Run(const Options& options) : _options(options) {}

  /// Returns the exit status.
  int VerifyAll(const std::set<device::Guid>& devices) {
    try {
      if (_options.save) {
        RefuseImageAmongMemories();
        MakeFolder(*_options.save);
      }
      verify::Verifier verifier(_options.image, _options.server, CHOICES.at(_options.slot),
                                _options.save);
      std::cerr << verifier.Warnings();
      if (!verifier.HasSlots() && (_options.slot == "0" || _options.slot == "1")) {
        return TellUsage("--slot " + _options.slot + ": the image has no slots; use --slot none");
      }
      verifier.Verify(
          devices, _options.jobs, [this](const verify::DeviceFinding& finding) { Take(finding); },
          [this](double part) { _bar.Show(part); });
    } catch (const common::UsageError&) {
      throw;
    } catch (const std::exception& error) {
      Fail(error.what());
    }
    _bar.Remove();
    if (_options.is_json) {
      const nlohmann::json result = {{"version", 1},
                                     {"image", _options.image},
                                     {"server", _options.server},
                                     {"failure", _failure},
                                     {"devices", _findings}};
      std::cout << common::DumpJson(result) << "\n";
    }
    if (!_failure.empty()) return common::CANNOT;
    return _is_well ? common::ALL_WELL : common::DIFFERS;
  }

  static inline const std::map<std::string, verify::SlotChoice> CHOICES = {
      {"0", verify::SlotChoice::FIRST},
      {"1", verify::SlotChoice::SECOND},
      {"auto", verify::SlotChoice::AUTO},
      {"none", verify::SlotChoice::NONE}};

 private:
  /// Throws UsageError where the image is a memory of the folder that memories are saved in.
  void RefuseImageAmongMemories() const {
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(*_options.save, missing)) {
      if (!verify::IsMemoryName(entry.path().filename())) continue;
      common::RefuseSameFiles({{"-f", _options.image}}, {{"--save", entry.path()}});
    }
  }

  void Take(const verify::DeviceFinding& finding) {
    _bar.Remove();
    _is_well &= finding.state == verify::DeviceFinding::IDENTICAL;
    if (_options.is_json) {
      _findings.push_back(Json(finding));
    } else {
      Print(finding);
    }
    if (!finding.failure.empty()) Fail(finding.failure);
  }

  /// Records a failure, and prints it unless it repeats the previous one.
  void Fail(const std::string& text) {
    if (_failure.empty()) _failure = text;
    _bar.Remove();
    if (text != _last_failure) {
      std::cerr << "fwpush-verify: " << common::Printable(text) << std::endl;
    }
    _last_failure = text;
  }

  const Options& _options;
  nlohmann::json _findings = nlohmann::json::array();
  std::string _failure;  ///< the first
  std::string _last_failure;
  ProgressBar _bar;
  bool _is_well = true;
};

}  // namespace

int main(int argc, char* argv[]) {
  common::CommandLine line(
      "Compares the memory of devices with what a burn of the image leaves. Never writes.",
      "fwpush-verify");
  Options options;
  line.Add("-f", options.image, "The image file").Required();
  line.Add("-s", options.server, "The bus server: TYPE:IP:PORT").Required();
  line.Add("-g", options.guids,
           "The devices, separated by commas, or @FILE with one on each line;\n"
           "may be given again")
      .Required();
  line.Add("--slot", options.slot, "The slot to compare: 0, 1, auto (those marked valid) or none")
      .OneOf({"0", "1", "auto", "none"})
      .ShowDefault();
  line.Add("--jobs", options.jobs, "How many flashes are read at the same time")
      .InRange(1, MOST_JOBS)
      .ShowDefault();
  line.Add("--save", options.save, "Folder that gets each device's memory");
  line.AddFlag("--json", options.is_json, "Print the result for machines");
  line.AcceptEquals({"-f", "-s", "-g"});
  line.SetWork([&] {
    std::set<device::Guid> devices;
    try {
      for (const std::string& list : options.guids) common::AddGuids(list, devices);
      verify::CheckServerForm(options.server);
    } catch (const std::exception& error) {
      return TellUsage(error.what());
    }
    if (devices.empty()) return TellUsage("No device given (-g)");
    std::vector<common::NamedFile> inputs{{"-f", options.image}};
    for (const std::string& list : options.guids) {
      if (common::IsGuidFile(list)) inputs.push_back({"-g", list.substr(1)});
    }
    common::RefuseSameFiles(inputs, {});
    return Run(options).VerifyAll(devices);
  });
  return common::RunProgram({.name = "fwpush-verify"}, line, argc, argv);
}
