/// fwpush-sim: a bus server over simulated devices.

#include <CLI/CLI.hpp>
#include <charconv>
#include <fstream>
#include <iostream>
#include <optional>

#include "common/ExitStatus.h"
#include "protocol/Server.h"
#include "sim/Boot.h"
#include "sim/FabricFile.h"

namespace {

constexpr char VERSION[] = "fwpush-sim 1.0.0";

void Show(const sim::Fabric& fabric) {
  std::cout << "server " << fabric.facts.type << ", interface version " << fabric.facts.ifc_version
            << ", at most " << fabric.facts.multi_max << " devices a request\n";
  for (const auto& [node_guid, device] : fabric.Devices()) {
    std::cout << sim::HexGuid(node_guid) << " " << device.name << " " << device.attr
              << (device.has_power ? "" : ", without power") << "\n  system "
              << sim::HexGuid(device.sys_guid) << ", ports";
    for (const Guid port : device.port_guids) std::cout << " " << sim::HexGuid(port);
    std::cout << "\n";
    for (const auto& [address, chip] : device.chips) {
      std::cout << Text("  ", chip.IsFlash() ? "flash" : "EEPROM ", std::hex);
      if (!chip.IsFlash()) std::cout << Text(std::hex, u_int32_t{address});
      std::cout << ": " << chip.Size() << " bytes";
      if (chip.IsFlash()) std::cout << ", sectors of " << chip.SectorSize();
      const auto blank = std::count(chip.Bytes().begin(), chip.Bytes().end(), 0xFF);
      std::cout << ", " << blank << " of them blank\n";
    }
  }
  std::cout.flush();
}

/// "HOST:PORT".
std::pair<std::string, u_int16_t> ParseAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  u_int16_t port = 0;
  const char* const end = text.data() + text.size();
  const char* const digits = colon == std::string::npos ? end : text.data() + colon + 1;
  const auto parsed = std::from_chars(digits, end, port);
  if (colon == 0 || digits == end || parsed.ec != std::errc() || parsed.ptr != end) {
    throw CLI::ValidationError("--listen", "must be HOST:PORT");
  }
  return {text.substr(0, colon), port};
}

/// Says at the end what a real chip would not have taken.
void ReportViolations(const sim::Fabric& fabric) {
  for (const auto& [guid, device] : fabric.Devices()) {
    for (const auto& [address, chip] : device.chips) {
      if (chip.Violations().empty()) continue;
      const sim::Violation& first = chip.Violations().front();
      std::cerr << Text("fwpush-sim: device ", sim::HexGuid(guid), ": ", chip.Violations().size(),
                        " bytes programmed without an erase, the first at 0x", std::hex,
                        first.offset, " (held ", u_int32_t{first.held}, ", wanted ",
                        u_int32_t{first.wanted}, ")")
                << std::endl;
    }
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  CLI::App app("A bus server over simulated devices, to rehearse firmware burns on.");
  std::string fabric_file;
  std::string state;
  std::string trace_file;
  std::string listen = "127.0.0.1:0";
  std::vector<std::string> images;
  bool show = false;
  bool boot_report = false;
  app.add_option("FABRIC", fabric_file, "The fabric file (TOML)")->required();
  app.add_option("--state", state, "Folder that keeps each device's memory in files");
  app.add_option("--trace", trace_file, "File that gets every request and answer");
  app.add_option("--listen", listen, "HOST:PORT to listen on; port 0 takes a free one")
      ->capture_default_str();
  app.add_flag("--show", show, "Print the devices and exit");
  app.add_flag("--boot-report", boot_report, "Print whether each device boots, and exit");
  app.add_option("--image", images, "Image file that may get burnt, for the boot report")
      ->check(CLI::ExistingFile);
  app.set_version_flag("--version", VERSION);

  std::pair<std::string, u_int16_t> address;
  try {
    app.parse(argc, argv);
    address = ParseAddress(listen);
  } catch (const CLI::ParseError& error) {
    return sim::EndParsing(app, error);
  }

  try {
    sim::Fabric fabric;
    fabric.faults.log = [](const std::string& line) { std::cerr << line << std::endl; };
    sim::LoadFabric(fabric_file,
                    state.empty() ? std::nullopt : std::optional<std::filesystem::path>(state),
                    fabric);
    if (show) {
      Show(fabric);
      return EXIT_SUCCESS;
    }
    if (boot_report) {
      std::cout << sim::BootReport(fabric, images) << std::flush;
      return EXIT_SUCCESS;
    }
    std::ofstream trace;
    if (!trace_file.empty()) {
      trace.open(trace_file);
      if (!trace) throw std::runtime_error("can't write " + trace_file);
    }
    sim::Server server(fabric, address.first, address.second,
                       [&](const std::string& request, const std::string& answer) {
                         // Flushed, so that it also tells what came before a kill.
                         if (trace.is_open()) {
                           trace << "> " << request << "\n< " << answer << std::endl;
                         }
                       });
    // Whoever reads the address may signal at once.
    server.StopOnSignals();
    std::cout << server.ServerString() << std::endl;
    server.Run();
    std::cout << sim::BootReport(fabric, images) << std::flush;
    ReportViolations(fabric);
    if (trace.is_open() && !trace) throw std::runtime_error("can't write " + trace_file);
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << "fwpush-sim: " << error.what() << std::endl;
    return EXIT_FAILURE;
  }
}
