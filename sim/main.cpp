/// fwpush-sim: a bus server over simulated devices.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "common/OutputFile.h"
#include "common/Program.h"
#include "protocol/Server.h"
#include "sim/BootReport.h"
#include "sim/FabricFile.h"

namespace {

struct Options {
  std::string fabric;
  std::string state;
  std::string trace;
  std::string listen = "127.0.0.1:0";
  std::vector<std::string> images;
  bool is_show = false;
  bool is_boot_report = false;
};

void Show(const sim::Fabric& fabric) {
  std::cout << "server " << fabric.facts.type << ", interface version " << fabric.facts.ifc_version
            << ", at most " << fabric.facts.multi_max << " devices a request\n";
  for (const auto& [node_guid, device] : fabric.Devices()) {
    std::cout << sim::HexGuid(node_guid) << " " << device.name << " " << device.attr
              << (device.has_power ? "" : ", without power") << "\n  system "
              << sim::HexGuid(device.sys_guid) << ", ports";
    for (const sim::Guid port : device.port_guids) std::cout << " " << sim::HexGuid(port);
    std::cout << "\n";
    for (const auto& [address, chip] : device.chips) {
      std::cout << common::Text("  ", chip.IsFlash() ? "flash" : "EEPROM ", std::hex);
      if (!chip.IsFlash()) std::cout << common::Text(std::hex, std::uint32_t{address});
      std::cout << ": " << chip.Size() << " bytes";
      if (chip.IsFlash()) std::cout << ", sectors of " << chip.SectorSize();
      const auto blank = std::count(chip.Bytes().begin(), chip.Bytes().end(), 0xFF);
      std::cout << ", " << blank << " of them blank\n";
    }
  }
  std::cout.flush();
}

/// Reports writes that a real chip could not have done.
void ReportViolations(const sim::Fabric& fabric) {
  for (const auto& [guid, device] : fabric.Devices()) {
    for (const auto& [address, chip] : device.chips) {
      if (chip.Violations().empty()) continue;
      const sim::Violation& first = chip.Violations().front();
      std::cerr << common::Text("fwpush-sim: device ", sim::HexGuid(guid), ": ",
                                chip.Violations().size(),
                                " bytes programmed without an erase, the first at 0x", std::hex,
                                first.offset, " (held ", std::uint32_t{first.held}, ", wanted ",
                                std::uint32_t{first.wanted}, ")")
                << std::endl;
    }
  }
}

/// Throws UsageError where a memory or the trace would be written over another file of this run.
void CheckFiles(const Options& options) {
  using common::NamedFile;
  if (options.state.empty() && options.trace.empty()) return;
  const sim::FabricFiles files = sim::FilesOf(options.fabric);
  std::vector<NamedFile> inputs{{"FABRIC", options.fabric}};
  for (const auto& file : files.read) inputs.push_back({"the fabric's", file});
  for (const std::string& file : options.images) inputs.push_back({"--image", file});
  std::vector<NamedFile> outputs;
  if (!options.state.empty()) {
    for (const std::string& name : files.memories) {
      outputs.push_back({"--state", std::filesystem::path(options.state) / name});
    }
  }
  outputs.push_back({"--trace", options.trace});
  common::RefuseSameFiles(inputs, outputs);
}

int Run(const Options& options) {
  const auto address = common::ParseHostPort(options.listen);
  if (!address) throw common::UsageError("--listen", "must be HOST:PORT");
  CheckFiles(options);
  sim::Fabric fabric;
  fabric.faults.log = [](const std::string& line) { std::cerr << line << std::endl; };
  std::optional<std::filesystem::path> state;
  if (!options.state.empty()) state = options.state;
  sim::LoadFabric(options.fabric, state, fabric);
  if (options.is_show) {
    Show(fabric);
    return common::ALL_WELL;
  }
  if (options.is_boot_report) {
    std::cout << sim::BootReport(fabric, options.images) << std::flush;
    return common::ALL_WELL;
  }
  common::LogFile trace(options.trace);
  protocol::Server server(fabric, address->first, address->second,
                          [&trace](const std::string& request, const std::string& answer) {
                            trace.Write("> " + request + "\n< " + answer + "\n");
                          });
  // Handle signals before the address is printed: its reader may signal at once.
  server.StopOnSignals();
  trace.Begin();
  std::cout << server.ServerString() << std::endl;
  if (!std::cout) throw std::runtime_error("can't write the address");
  server.Run();
  std::cout << sim::BootReport(fabric, options.images) << std::flush;
  ReportViolations(fabric);
  trace.Finish();
  return common::ALL_WELL;
}

}  // namespace

int main(int argc, char* argv[]) {
  common::CommandLine line("A bus server over simulated devices, to rehearse firmware burns on.");
  Options options;
  line.Add("FABRIC", options.fabric, "The fabric file (TOML)").Required();
  line.Add("--state", options.state, "Folder that keeps each device's memory in files");
  line.Add("--trace", options.trace, "File that gets every request and answer");
  line.Add("--listen", options.listen, "HOST:PORT to listen on; port 0 takes a free one")
      .ShowDefault();
  line.AddFlag("--show", options.is_show, "Print the devices and exit");
  line.AddFlag("--boot-report", options.is_boot_report,
               "Print whether each device boots, and exit");
  line.Add("--image", options.images, "Image file that may get burnt, for the boot report")
      .ExistingFile();
  line.SetWork([&options] { return Run(options); });
  return common::RunProgram({.name = "fwpush-sim", .failure = EXIT_FAILURE, .is_verbatim = true},
                            line, argc, argv);
}
