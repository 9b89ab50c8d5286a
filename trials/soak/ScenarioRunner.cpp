#include "trials/soak/ScenarioRunner.h"

#include <algorithm>
#include <filesystem>
#include <memory>

#include "common/Text.h"
#include "sim/Filling.h"
#include "trials/ServedFabric.h"
#include "trials/soak/RunChecker.h"

namespace soak {

using common::Text;
using sim::MemoryOf;

namespace {

/// Time limit of a run, which takes milliseconds on an idle machine.
constexpr std::chrono::seconds LIMIT{20};

/// The runs of one scenario.
class ScenarioRun {
 public:
  ScenarioRun(trials::MisbehavingServer& server, const std::string& program,
              const std::string& file, Scenario& scenario, std::ostream* out, Spoil spoil,
              Statistics& statistics)
      : _server(server),
        _program(program),
        _file(file),
        _scenario(scenario),
        _out(out),
        _spoil(spoil),
        _statistics(statistics),
        _checker(scenario, statistics, out),
        _simulated(scenario.fabric) {
    if (!scenario.is_served) return;
    _served = std::make_unique<trials::ServedFabric>(scenario.fabric);
    ++statistics.served;
  }

  void Run() {
    Show();
    if (_scenario.refusal.empty()) {
      RunBurns();
    } else {
      _checker.CheckRefusal(Burn({}, true));
    }
    if (!_signs.empty()) CheckSpoil();
  }

 private:
  void RunBurns() {
    Random random(_scenario.seed + 0x50AC);
    const std::uint32_t faulty_runs = random.OneOf<std::uint32_t>({0, 1, 1, 1, 2, 3});
    for (std::uint32_t i = 0; i < faulty_runs && _statistics.failure.empty(); ++i) {
      RunBurn(PlanFaults(_scenario.requests, random), false);
      if (random.Chance(50)) PowerBack();
    }
    PowerBack();
    if (_statistics.failure.empty()) RunBurn({}, true);
  }

  void RunBurn(const std::vector<PlannedFault>& faults, bool is_last) {
    BurnRun run = Burn(faults, is_last);
    _checker.Check(run, is_last);
    if (_out) *_out << "=> " << run.end << "\n\n";
  }

  BurnRun Burn(const std::vector<PlannedFault>& faults, bool is_last) {
    ++_statistics.runs;
    BurnRun run = _checker.Begin();
    sim::Fabric& fabric = _scenario.fabric;
    fabric.observer = [this, &run](const sim::Operation& operation) {
      run.changes[operation.device].push_back(sim::ChangeOf(operation, _scenario.image));
    };
    std::vector<std::string> words = {_program, "-f", _file};
    words.insert(words.end(), _scenario.switches.begin(), _scenario.switches.end());
    words.insert(words.end(), {"-s", _server.Name(_scenario.server_type)});
    PlannedFaultInjector injector(_scenario, fabric, _served.get(), faults);
    trials::Responder* devices = &_simulated;
    if (_served) devices = _served.get();
    run.outcome = _server.Run(words, *devices, injector, LIMIT);
    fabric.observer = nullptr;
    fabric.faults = sim::FaultLayer();
    run.occurred = injector.Occurred();
    if (is_last && _spoil == Spoil::DEVICE) SpoilDevice();
    if (is_last && _spoil == Spoil::ORDER) SpoilOrder(run);
    Show(run);
    return run;
  }

  void PowerBack() {
    for (auto& [guid, device] : _scenario.fabric.Devices()) device.has_power = true;
  }

  /// Changes one byte of one device, a target or not.
  void SpoilDevice() {
    Random random(_scenario.seed);
    auto& devices = _scenario.fabric.Devices();
    sim::Device& device = std::next(devices.begin(), random.Below(devices.size()))->second;
    Memory memory = MemoryOf(device, _scenario.image);
    memory.bytes[random.Below(memory.bytes.size())] ^= 0x10;
    sim::LoadMemory(device, _scenario.image, memory);
    _signs = {DeviceName(device.node_guid)};
    for (const Guid name : _scenario.targets) {
      if (_scenario.fabric.Find(name) == &device) _signs.push_back(DeviceName(name));
    }
  }

  void SpoilOrder(BurnRun& run) {
    if (_scenario.burn == BurnKind::PLAIN || _scenario.check_only || run.outcome.status != 0) {
      return;
    }
    for (auto& [node, changes] : run.changes) std::ranges::reverse(changes);
    _signs = {device::OUT_OF_ORDER};
  }

  /// The failure must name what was changed.
  void CheckSpoil() {
    std::string& failure = _statistics.failure;
    const bool is_found = std::ranges::any_of(_signs, [&failure](const std::string& sign) {
      return failure.find(sign) != std::string::npos;
    });
    if (is_found) {
      failure.clear();
      ++_statistics.detected;
    } else if (failure.empty()) {
      failure = "a deliberate change is not detected:" + _signs.front();
    } else {
      failure = "not the deliberate change (" + _signs.front() + ") is detected, but " + failure;
    }
  }

  // ---- For --case

  void Show() const {
    if (_out == nullptr) return;
    *_out << "scenario " << std::dec << _scenario.seed << ": " << _scenario.kind
          << (_scenario.is_served ? ", served by fwpush-serve" : ", simulated") << ", server "
          << _scenario.server_type << ", version " << _scenario.fabric.facts.ifc_version
          << ", at once " << _scenario.fabric.facts.multi_max << "\n"
          << _scenario.text << "\nfwpush";
    for (const std::string& word : _scenario.switches) *_out << " " << word;
    *_out << "\n";
    for (const auto& [guid, device] : _scenario.fabric.Devices()) {
      *_out << DeviceName(guid) << (IsTarget(guid) ? ", target" : "") << ", ports";
      for (const Guid port : device.port_guids) *_out << " " << sim::HexGuid(port);
      *_out << ", system " << sim::HexGuid(device.sys_guid);
      for (const auto& [address, chip] : device.chips) {
        *_out << ", chip " << std::hex << std::uint32_t{address} << " of " << chip.Size()
              << " bytes";
        if (chip.IsFlash()) *_out << " in sectors of " << chip.SectorSize();
      }
      const auto judge = _scenario.judges.find(guid);
      if (judge != _scenario.judges.end())
        *_out << "; " << Describe(judge->second.CurrentVerdict());
      *_out << std::dec << "\n";
    }
    if (!_scenario.refusal.empty()) *_out << "to be refused: " << _scenario.refusal << "\n";
    *_out << "\n";
  }
  bool IsTarget(Guid node) const {
    return std::ranges::any_of(_scenario.targets, [&](Guid name) {
      const sim::Device* device = _scenario.fabric.Find(name);
      return device && device->node_guid == node;
    });
  }

  void Show(const BurnRun& run) const {
    if (_out == nullptr) return;
    const trials::RunOutcome& outcome = run.outcome;
    *_out << std::dec << "run " << _statistics.runs << "\n";
    for (std::size_t i = 0; i < outcome.requests.size(); ++i) {
      *_out << std::setw(4) << i + 1 << " > " << outcome.requests[i] << "\n     < "
            << outcome.answers[i] << "\n";
      for (const OccurredFault& occurred : run.occurred) {
        if (occurred.planned.at != i) continue;
        *_out << "     *** " << occurred.planned.Name();
        if (occurred.device) *_out << " of " << sim::HexGuid(*occurred.device);
        *_out << "\n";
      }
    }
    *_out << outcome.output << outcome.errors << "status " << std::dec << outcome.status
          << ", signal " << outcome.signal << "\n";
  }

  trials::MisbehavingServer& _server;
  std::string _program;
  std::string _file;
  Scenario& _scenario;
  std::ostream* _out;
  Spoil _spoil;
  Statistics& _statistics;
  RunChecker _checker;
  trials::FabricResponder _simulated;
  std::unique_ptr<trials::ServedFabric> _served;  ///< null where the fabric answers
  std::vector<std::string>
      _signs;  ///< texts, one of which a failure has that detects the deliberate change
};

}  // namespace

Statistics ScenarioRunner::Run(std::uint64_t seed) {
  Statistics statistics;
  statistics.scenarios = 1;
  try {
    Scenario scenario = MakeScenario(seed);
    ++statistics.kinds[scenario.kind];
    const std::string file = _folder.Write(Text("scenario-", seed, ".img"), scenario.text);
    ScenarioRun(_server, _program, file, scenario, _out, _spoil, statistics).Run();
    std::filesystem::remove(file);
  } catch (const std::exception& error) {
    statistics.failure = error.what();
  }
  return statistics;
}

}  // namespace soak
