#include "trials/soak/Player.h"

#include <algorithm>
#include <filesystem>

#include "src/utils.h"
#include "trials/soak/Rules.h"

namespace soak {

namespace {

/// A run takes milliseconds; a busy machine may take its time.
constexpr std::chrono::seconds LIMIT{20};

/// One story in hand.
class Stage {
 public:
  Stage(faults::Server& server, const std::string& program, const std::string& file, Story& story,
        std::ostream* out, Spoil spoil, Account& account)
      : _server(server),
        _program(program),
        _file(file),
        _story(story),
        _out(out),
        _spoil(spoil),
        _account(account),
        _rules(story, account, out) {}

  void Play() {
    Show();
    if (_story.refusal.empty()) {
      PlayRuns();
    } else {
      _rules.CheckRefusal(Burn({}, true));
    }
    if (!_signs.empty()) CheckSpoil();
  }

 private:
  void PlayRuns() {
    Dice dice(_story.seed + 0x50AC);
    const u_int32_t disturbed = dice.OneOf<u_int32_t>({0, 1, 1, 1, 2, 3});
    for (u_int32_t i = 0; i < disturbed && _account.failure.empty(); ++i) {
      PlayRun(MakeHits(_story.requests, dice), false);
      if (dice.Chance(50)) PowerBack();
    }
    PowerBack();
    if (_account.failure.empty()) PlayRun({}, true);
  }

  void PlayRun(const std::vector<Hit>& hits, bool is_last) {
    Run run = Burn(hits, is_last);
    _rules.Check(run, is_last);
    if (_out) *_out << "=> " << run.end << "\n\n";
  }

  Run Burn(const std::vector<Hit>& hits, bool is_last) {
    ++_account.runs;
    Run run = _rules.Begin();
    sim::Fabric& fabric = _story.fabric;
    fabric.observer = [&run](const sim::Operation& operation) {
      run.changes.push_back(
          {operation.kind, operation.device, operation.chip, operation.offset, operation.size});
    };
    std::vector<std::string> words = {_program, "-f", _file};
    words.insert(words.end(), _story.switches.begin(), _story.switches.end());
    words.insert(words.end(), {"-s", _server.Name(_story.server_type)});
    Trouble trouble(_story, fabric, hits);
    run.outcome = _server.Run(words, fabric, trouble, LIMIT);
    fabric.observer = nullptr;
    fabric.faults = sim::FaultLayer();
    run.fired = trouble.Happened();
    if (is_last && _spoil == Spoil::DEVICE) SpoilDevice();
    if (is_last && _spoil == Spoil::ORDER) SpoilOrder(run);
    Show(run);
    return run;
  }

  void PowerBack() {
    for (auto& [guid, device] : _story.fabric.Devices()) device.has_power = true;
  }

  /// One byte of one device, given or not.
  void SpoilDevice() {
    Dice dice(_story.seed);
    auto& devices = _story.fabric.Devices();
    sim::Device& device = std::next(devices.begin(), dice.Below(devices.size()))->second;
    Memory memory = MemoryOf(device, _story.image);
    memory.bytes[dice.Below(memory.bytes.size())] ^= 0x10;
    Load(device, _story.image, memory);
    _signs = {DeviceName(device.node_guid)};
    for (const Guid name : _story.targets) {
      if (_story.fabric.Find(name) == &device) _signs.push_back(DeviceName(name));
    }
  }

  void SpoilOrder(Run& run) {
    if (_story.burn == BurnKind::GENERIC || _story.check_only || run.outcome.status != 0) return;
    std::ranges::reverse(run.changes);
    _signs = {OUT_OF_ORDER};
  }

  /// What was spoilt must be what is found.
  void CheckSpoil() {
    std::string& failure = _account.failure;
    const bool is_found = std::ranges::any_of(_signs, [&failure](const std::string& sign) {
      return failure.find(sign) != std::string::npos;
    });
    if (is_found) {
      failure.clear();
      ++_account.found_out;
    } else if (failure.empty()) {
      failure = "what is spoilt goes unseen:" + _signs.front();
    } else {
      failure = "not what is spoilt (" + _signs.front() + "), but " + failure;
    }
  }

  // ---- For --case

  void Show() const {
    if (_out == nullptr) return;
    *_out << "story " << std::dec << _story.seed << ": " << _story.kind << ", server "
          << _story.server_type << ", version " << _story.fabric.facts.ifc_version << ", at once "
          << _story.fabric.facts.multi_max << "\n"
          << _story.text << "\nfwpush";
    for (const std::string& word : _story.switches) *_out << " " << word;
    *_out << "\n";
    for (const auto& [guid, device] : _story.fabric.Devices()) {
      *_out << DeviceName(guid) << (IsGiven(guid) ? ", given" : "") << ", ports";
      for (const Guid port : device.port_guids) *_out << " " << sim::HexGuid(port);
      *_out << ", system " << sim::HexGuid(device.sys_guid);
      for (const auto& [address, chip] : device.chips) {
        *_out << ", chip " << std::hex << u_int32_t{address} << " of " << chip.Size() << " bytes";
        if (chip.IsFlash()) *_out << " in sectors of " << chip.SectorSize();
      }
      const auto rule = _story.rules.find(guid);
      if (rule != _story.rules.end()) {
        const Memory memory = MemoryOf(device, _story.image);
        *_out << "; " << rule->second.Judge(_story.image, device, memory).Text();
      }
      *_out << std::dec << "\n";
    }
    if (!_story.refusal.empty()) *_out << "to be refused: " << _story.refusal << "\n";
    *_out << "\n";
  }
  bool IsGiven(Guid node) const {
    return std::ranges::any_of(_story.targets, [&](Guid name) {
      const sim::Device* device = _story.fabric.Find(name);
      return device && device->node_guid == node;
    });
  }

  void Show(const Run& run) const {
    if (_out == nullptr) return;
    const faults::Outcome& outcome = run.outcome;
    *_out << std::dec << "run " << _account.runs << "\n";
    for (std::size_t i = 0; i < outcome.requests.size(); ++i) {
      *_out << std::setw(4) << i + 1 << " > " << outcome.requests[i] << "\n     < "
            << outcome.answers[i] << "\n";
      for (const Fired& hit : run.fired) {
        if (hit.hit.at != i) continue;
        *_out << "     *** " << hit.hit.Name();
        if (hit.device) *_out << " of " << sim::HexGuid(*hit.device);
        *_out << "\n";
      }
    }
    *_out << outcome.output << outcome.errors << "status " << std::dec << outcome.status
          << ", signal " << outcome.signal << "\n";
  }

  faults::Server& _server;
  std::string _program;
  std::string _file;
  Story& _story;
  std::ostream* _out;
  Spoil _spoil;
  Account& _account;
  Rules _rules;
  std::vector<std::string> _signs;  ///< any of which tells that what was spoilt is found out
};

}  // namespace

Account Player::Play(u_int64_t seed) {
  Account account;
  account.stories = 1;
  try {
    Story story = MakeStory(seed);
    ++account.kinds[story.kind];
    const std::string file = _folder.Write(Text("story-", seed, ".img"), story.text);
    Stage(_server, _program, file, story, _out, _spoil, account).Play();
    std::filesystem::remove(file);
  } catch (const BraidError& error) {
    account.failure = error.Des();
  } catch (const std::exception& error) {
    account.failure = error.what();
  }
  return account;
}

}  // namespace soak
