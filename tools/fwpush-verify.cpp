/// fwpush-verify: looks whether devices hold what a burn must have left.

#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "Fabric.h"
#include "Tool.h"
#include "Verify.h"
#include "main.h"

namespace {

std::string Slots(const std::vector<u_int32_t>& slots) {
  if (slots.empty()) return "none";
  return slots.size() == 2 ? "0 and 1" : std::to_string(slots.front());
}

void Print(const tools::Finding& finding, bool has_slots) {
  std::cout << sim::HexGuid(finding.guid) << " " << Name(finding.state);
  if (finding.compared > 0) {
    std::cout << ": " << std::dec;
    if (finding.different > 0) std::cout << finding.different << " of ";
    std::cout << finding.compared << " bytes";
  }
  if (!finding.reason.empty()) std::cout << ": " << finding.reason;
  if (finding.compared > 0 && has_slots) {
    std::cout << "; compared slot " << Slots(finding.slots) << ", marked valid "
              << Slots(finding.valid_slots);
  }
  std::cout << "\n";
  for (const tools::Difference& difference : finding.differences) {
    std::cout << Text("  ", difference.section, "+0x", std::hex, difference.offset, " at 0x",
                      difference.addr, ": expected ", std::setw(2), std::setfill('0'),
                      u_int32_t{difference.expected}, ", found ", std::setw(2),
                      u_int32_t{difference.found}, "\n");
  }
  if (finding.different > finding.differences.size() && !finding.differences.empty()) {
    std::cout << "  and " << std::dec << finding.different - finding.differences.size()
              << " more\n";
  }
  std::cout.flush();
}

nlohmann::json Json(const tools::Finding& finding) {
  nlohmann::json differences = nlohmann::json::array();
  for (const tools::Difference& difference : finding.differences) {
    differences.push_back({{"section", difference.section},
                           {"offset", difference.offset},
                           {"address", difference.addr},
                           {"expected", difference.expected},
                           {"found", difference.found}});
  }
  return {{"guid", sim::HexGuid(finding.guid)},
          {"state", Name(finding.state)},
          {"reason", finding.reason},
          {"valid_slots", finding.valid_slots},
          {"compared_slots", finding.slots},
          {"compared_bytes", finding.compared},
          {"different_bytes", finding.different},
          {"differences", differences}};
}

}  // namespace

int main(int argc, char* argv[]) {
  CLI::App app("Looks whether devices hold what a burn of an image must have left. Only reads.",
               "fwpush-verify");
  std::string image;
  std::string server;
  std::vector<std::string> guids;
  std::optional<std::string> save;
  std::string slot = "auto";
  bool is_json = false;
  const std::map<std::string, tools::SlotChoice> choices = {{"0", tools::SlotChoice::FIRST},
                                                            {"1", tools::SlotChoice::SECOND},
                                                            {"auto", tools::SlotChoice::AUTO},
                                                            {"none", tools::SlotChoice::NONE}};
  app.add_option("-f", image, "The image file")->required();
  app.add_option("-s", server, "The bus server: TYPE:IP:PORT")->required();
  app.add_option("-g", guids, "The devices, separated by commas; may be given again")->required();
  app.add_option("--slot", slot, "The slot to compare: 0, 1, auto (those marked valid) or none")
      ->check(CLI::IsMember({"0", "1", "auto", "none"}))
      ->capture_default_str();
  app.add_option("--save", save, "Folder that gets each device's memory");
  app.add_flag("--json", is_json, "Print the result for machines");
  return tools::RunTool(app, argc, argv, [&] {
    GuidSet devices;
    for (const std::string& list : guids) GetTargeGuids(list, devices);
    if (devices.empty()) ThrowError("No device given (-g)");
    if (save) std::filesystem::create_directories(*save);
    const tools::Verifier verifier(image, server, choices.at(slot), save);
    std::cerr << verifier.Warnings();
    nlohmann::json findings = nlohmann::json::array();
    bool is_well = true;
    for (const Guid guid : devices) {
      const tools::Finding finding = verifier.Verify(guid);
      is_well &= finding.state == tools::Finding::IDENTICAL;
      if (is_json) {
        findings.push_back(Json(finding));
      } else {
        Print(finding, verifier.HasSlots());
      }
    }
    if (is_json) {
      std::cout << nlohmann::json{{"version", 1},
                                  {"image", image},
                                  {"server", server},
                                  {"devices", findings}}
                       .dump(2)
                << "\n";
    }
    return is_well ? tools::ALL_WELL : tools::DIFFERS;
  });
}
