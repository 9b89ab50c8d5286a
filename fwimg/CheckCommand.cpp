/// fwimg check: all problems of image files at once.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "common/Json.h"
#include "common/OutputFile.h"
#include "device/ImageFile.h"
#include "fwimg/CheckTarget.h"
#include "fwimg/Commands.h"
#include "fwimg/FabricTargets.h"
#include "fwimg/ImageCheck.h"
#include "fwimg/Layout.h"
#include "fwimg/Names.h"

namespace fwimg {

namespace {

using common::ParseByteCount;

struct Options {
  std::vector<std::string> files;
  std::string sector_size = common::HexText(USUAL_SECTOR_SIZE);
  std::string flash_size;
  std::string fabric;
  int log2_chunk = USUAL_LOG2_CHUNK;
  bool is_strict = false;
  bool as_json = false;
};

struct Report {
  std::string file;
  std::vector<Problem> problems;
  std::string trouble;  ///< why the file could not be looked at

  std::size_t Count(Severity severity) const {
    return static_cast<std::size_t>(std::ranges::count_if(
        problems,
        [severity](const Problem& problem) { return problem.kind->severity == severity; }));
  }
};

const char* Word(Severity severity) { return severity == Severity::ERROR ? "error" : "warning"; }

std::string Plural(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void Print(const Report& report) {
  if (!report.trouble.empty()) return;
  const bool in_colour = MayColour(STDOUT_FILENO);
  for (const Problem& problem : report.problems) {
    const bool is_error = problem.kind->severity == Severity::ERROR;
    std::cout << Printable(report.file);
    if (problem.line != 0) std::cout << ":" << problem.line;
    std::cout << ": " << (in_colour ? is_error ? "\033[31m" : "\033[33m" : "")
              << Word(problem.kind->severity) << (in_colour ? "\033[0m" : "") << ": "
              << problem.text << " [" << problem.kind->word
              << "]\n    at the burn: " << problem.burn << "\n";
  }
  std::cout << Printable(report.file) << ": " << Plural(report.Count(Severity::ERROR), "error")
            << ", " << Plural(report.Count(Severity::WARNING), "warning") << "\n";
}

nlohmann::ordered_json Json(const std::vector<Report>& reports) {
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  for (const Report& report : reports) {
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    for (const Problem& problem : report.problems) {
      problems.push_back({{"line", problem.line},
                          {"severity", Word(problem.kind->severity)},
                          {"kind", problem.kind->word},
                          {"text", problem.text},
                          {"burn", problem.burn}});
    }
    nlohmann::ordered_json file{{"file", report.file}};
    if (!report.trouble.empty()) file["cannot"] = report.trouble;
    file["errors"] = report.Count(Severity::ERROR);
    file["warnings"] = report.Count(Severity::WARNING);
    file["problems"] = std::move(problems);
    files.push_back(std::move(file));
  }
  return {{"version", 1}, {"command", "check"}, {"files", std::move(files)}};
}

/// What the options say that images are checked against.
TargetsFor TargetsOf(const Options& options) {
  const CheckTarget usual{.sector_size = ParseByteCount(options.sector_size).value(),
                          .flash_size = ParseByteCount(options.flash_size),
                          .log2_chunk = static_cast<unsigned>(options.log2_chunk)};
  if (options.fabric.empty()) {
    return [usual](const device::DeviceType*) { return std::vector{usual}; };
  }
  const FabricTargets fabric(options.fabric, usual.log2_chunk);
  return [usual, fabric](const device::DeviceType* type) {
    return type == nullptr ? std::vector{usual} : fabric.For(*type);
  };
}

int Run(const Options& options) {
  std::vector<common::NamedFile> inputs{{"--fabric", options.fabric}};
  for (const std::string& file : options.files) inputs.push_back({"FILE", file});
  common::RefuseSameFiles(inputs, {});
  const TargetsFor targets_for = TargetsOf(options);
  std::vector<Report> reports;
  int status = ALL_WELL;
  for (const std::string& file : options.files) {
    Report report{file, {}, ""};
    try {
      report.problems = CheckEach(file, targets_for);
    } catch (const device::ImageError& error) {
      report.trouble = error.what();
    } catch (const NoTargetError& error) {
      report.trouble = file + ": " + error.what();
    }
    if (!report.trouble.empty()) {
      std::cerr << "fwimg: " << Printable(report.trouble) << std::endl;
    }
    const bool is_bad = report.Count(Severity::ERROR) > 0 ||
                        (options.is_strict && report.Count(Severity::WARNING) > 0);
    if (!report.trouble.empty()) {
      status = CANNOT;
    } else if (is_bad && status == ALL_WELL) {
      status = DIFFERS;
    }
    if (!options.as_json) Print(report);
    reports.push_back(std::move(report));
  }
  if (options.as_json) {
    std::cout << common::DumpJson(Json(reports)) << "\n";
  }
  return status;
}

}  // namespace

void AddCheck(CommandLine& program) {
  const auto options = std::make_shared<Options>();
  CommandLine& command = program.AddCommand(
      "check", "Lists all problems of image files, with line and effect on a burn");
  command.Add("FILE", options->files, "Image files").Required();
  command.AddFlag("--strict", options->is_strict, "Warnings fail the check, too");
  const Option sector_size = command
                                 .Add("--sector-size", options->sector_size,
                                      "Bytes of a sector of the flash that the image is for")
                                 .ShowDefault()
                                 .Check(SectorSizeCheck);
  const Option flash_size =
      command
          .Add("--flash-size", options->flash_size,
               "Bytes of the flash that the image is for; its end is not checked without")
          .Check(common::ByteCountCheck);
  command
      .Add("--fabric", options->fabric,
           "Check against the devices of this fabric file, or of this configuration of "
           "fwpush-serve, "
           "that have the image's kind of memory")
      .Excludes(sector_size)
      .Excludes(flash_size);
  command.Add("-m", options->log2_chunk, "Chunks of the burn have 2 to the power of this bytes")
      .ShowDefault()
      .InRange(MIN_LOG2_CHUNK, MAX_LOG2_CHUNK);
  command.AddFlag("--json", options->as_json, "Prints one JSON object");
  command.SetWork([options] { return Run(*options); });
}

}  // namespace fwimg
