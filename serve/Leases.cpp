#include "serve/Leases.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/Text.h"

namespace serve {

namespace {

constexpr std::string_view FILE_END = ".lease";

/// "12:03:11", local time.
std::string ClockTime(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  localtime_r(&time, &parts);
  char text[16];
  return {text, std::strftime(text, sizeof(text), "%H:%M:%S", &parts)};
}

/// A call that may wait for a disk or a program.
class CallWork : public WireWork {
 public:
  /// `call` returns why it has failed; an empty text when it has not.
  using Call = std::function<std::string(System& system)>;

  explicit CallWork(Call call) : _call(std::move(call)) {}

  std::optional<Time> Step(System& system) override {
    try {
      error = _call(system);
    } catch (const std::exception& failure) {
      error = failure.what();
    }
    return {};
  }
  void Fail(System&, const std::string& why) override { error = why; }

  std::string error;

 private:
  Call _call;
};

/// Runs the program of `name`; returns why it has failed.
std::string RunHook(System& system, const char* name, const std::vector<std::string>& words,
                    Time limit) {
  const int status = system.RunProgram(words, limit);
  if (status == 0) return "";
  if (status == -ETIME) return common::Text("'", name, "' takes too long");
  if (status > 0) return common::Text("'", name, "' has ended with ", status);
  return common::Text("'", name, "' can't be run: ", std::generic_category().message(-status));
}

class CloseWork : public WireWork {
 public:
  explicit CloseWork(std::vector<std::shared_ptr<Memory>> memories)
      : _memories(std::move(memories)) {}

  std::optional<Time> Step(System& system) override {
    for (const auto& memory : _memories) memory->Close(system);
    return {};
  }
  void Fail(System& system, const std::string&) override { Step(system); }

 private:
  std::vector<std::shared_ptr<Memory>> _memories;
};

std::string NoteText(const Leases::Note& note) {
  return common::Text(note.peer, " ", note.since, "\n");
}

/// Nothing where the text is no note.
std::optional<Leases::Note> ParseNote(const std::string& text) {
  const std::vector<std::string_view> words = common::Words(text, " \n");
  if (words.size() != 2 || !common::ParseHostPort(std::string(words[0]))) return {};
  Leases::Note note{std::string(words[0]), 0};
  const char* const end = words[1].data() + words[1].size();
  const auto [rest, error] = std::from_chars(words[1].data(), end, note.since);
  if (error != std::errc() || rest != end) return {};
  return note;
}

}  // namespace

Leases::~Leases() {
  if (_folder_lock >= 0) _system.Close(_folder_lock);
}

Lease* Leases::Of(const ServedDevice& device, protocol::ClientId client) {
  Lease* lease = device.lease.get();
  return lease != nullptr && lease->client == client && lease->state == Lease::HELD ? lease
                                                                                    : nullptr;
}

void Leases::Take(const ServedDevicePointer& device, protocol::ClientId client,
                  const std::string& peer, bool is_for_reading, Taken taken) {
  if (!device->lease) {
    device->lease = std::make_unique<Lease>();
    device->lease->client = client;
    device->lease->is_for_reading = is_for_reading;
    LeaseRecord& record = device->lease->record;
    record.peer = peer;
    record.device = device->config.facts.node_guid;
    record.name = device->config.facts.name;
    record.since = _system.WallSeconds();
    _held.emplace(record.device, device);
    return Begin(device, std::move(taken.held));
  }
  Lease& lease = *device->lease;
  if (lease.state == Lease::HELD && lease.is_for_reading && !is_for_reading) {
    lease.is_for_reading = false;
    lease.client = client;
    // What the reader did is none of the writer's.
    LeaseRecord record;
    record.peer = peer;
    record.device = lease.record.device;
    record.name = lease.record.name;
    record.since = _system.WallSeconds();
    lease.record = std::move(record);
    return WriteFile(*device, [held = std::move(taken.held)](const std::string& failure) {
      held(failure.empty() ? "" : failure + ": nothing is written");
    });
  }
  const bool is_own = lease.client == client;
  if (is_own && lease.state == Lease::HELD) return taken.held("");
  if (lease.state == Lease::RELEASING || is_own ||
      (lease.state == Lease::PREPARING && lease.is_for_reading)) {
    return Wait(*device, std::move(taken.again));
  }
  taken.held("Device is being burnt by " + lease.record.peer + " since " +
             ClockTime(lease.record.since));
}

void Leases::Wait(const ServedDevice& device, std::function<void()> call) {
  device.lease->waiting.push_back(std::move(call));
}

void Leases::Begin(const ServedDevicePointer& device,
                   std::function<void(const std::string&)> then) {
  WriteFile(*device, [this, device, then = std::move(then)](const std::string& failure) {
    if (!failure.empty()) {
      const std::string error = failure + ": nothing is written";
      device->lease->record.end = "no lease";
      End(device, error);
      return then(error);
    }
    RunHook(*device, "prepare", device->config.prepare, [this, device, then](const auto& error) {
      if (!error.empty()) {
        // What it has done before it failed is undone.
        device->lease->record.last_error = error;
        Release(device, error);
        return then(error);
      }
      device->lease->state = Lease::HELD;
      then("");
      if (device->lease) CallWaiting(*device->lease);
    });
  });
}

void Leases::WriteFile(const ServedDevice& device, Then then) {
  if (_is_dry_run) return then("");
  const LeaseRecord& record = device.lease->record;
  Call(
      _wires.books,
      [file = FileOf(record.device),
       text = NoteText({record.peer, record.since})](System& system) -> std::string {
        const int result = system.WriteText(file, text);
        return result == 0 ? "" : file + ": " + std::generic_category().message(-result);
      },
      std::move(then));
}

void Leases::RunHook(const ServedDevice& device, const char* name,
                     const std::vector<std::string>& words, Then then) {
  if (words.empty() || _is_dry_run) return then("");
  Call(
      device.hook_wire,
      [name, words, limit = device.config.hook_limit](System& system) {
        return serve::RunHook(system, name, words, limit);
      },
      std::move(then));
}

void Leases::Call(WireId wire, std::function<std::string(System&)> call, Then then) {
  _loop.Run(wire, std::make_unique<CallWork>(std::move(call)),
            [then = std::move(then)](const std::unique_ptr<WireWork>& work) {
              then(static_cast<CallWork&>(*work).error);
            });
}

void Leases::Release(protocol::ClientId client, const std::string& why) {
  const auto held = _held;
  for (const auto& [guid, device] : held) {
    if (Of(*device, client) != nullptr) Release(device, why);
  }
}

void Leases::Release(const ServedDevicePointer& device, const std::string& why) {
  device->lease->state = Lease::RELEASING;
  device->lease->record.end = why;
  std::map<WireId, std::vector<std::shared_ptr<Memory>>> memories;
  for (const auto& [address, chip] : device->chips) {
    memories[chip.wire].push_back(chip.memory);
  }
  const auto left = std::make_shared<std::size_t>(memories.size());
  for (auto& [wire, closed] : memories) {
    _loop.Run(wire, std::make_unique<CloseWork>(std::move(closed)),
              [this, device, left](const std::unique_ptr<WireWork>&) {
                if (--*left > 0) return;
                RunHook(*device, "release", device->config.release,
                        [this, device](const std::string& error) { End(device, error); });
              });
  }
}

void Leases::End(const ServedDevicePointer& device, const std::string& error) {
  Lease& lease = *device->lease;
  lease.state = Lease::RELEASING;
  LeaseRecord& record = lease.record;
  if (!error.empty()) {
    record.last_error = error;
    Log(common::HexGuid(record.device) + ": " + error);
  }
  record.until = _system.WallSeconds();
  record.sha256 = lease.digest.Finish();
  if (record.end.empty()) record.end = error;
  // A device that could not be released is released at the next start.
  const bool is_released = !_is_dry_run && error.empty();
  Call(
      _wires.books,
      [this, device = record.device, is_released](System& system) -> std::string {
        if (is_released) system.Remove(FileOf(device));
        return "";
      },
      [this, device](const std::string&) {
        Call(
            _wires.audit,
            [this, record = device->lease->record](System&) -> std::string {
              if (_audit) _audit(record);
              return "";
            },
            [this, device](const std::string& failure) {
              if (!failure.empty()) Log(failure);
              Forget(device);
            });
      });
}

void Leases::Forget(const ServedDevicePointer& device) {
  _held.erase(device->lease->record.device);
  const std::unique_ptr<Lease> ended = std::move(device->lease);
  if (freed) freed(device);
  CallWaiting(*ended);
}

void Leases::CallWaiting(Lease& lease) {
  for (const auto& call : std::exchange(lease.waiting, {})) call();
}

void Leases::KeepFolder() {
  const std::string file = _folder / "server.lock";
  _folder_lock = _system.Open(file, Access::LOCK);
  if (_folder_lock < 0) {
    throw std::runtime_error(file + ": " + std::generic_category().message(-_folder_lock));
  }
  if (_system.Lock(_folder_lock) != 0) {
    _system.Close(std::exchange(_folder_lock, -1));
    throw std::runtime_error(_folder.string() + ": another server uses this 'state'");
  }
}

void Leases::ReleaseLeftOvers(const ServedDevices& devices) {
  if (_is_dry_run) return;
  KeepFolder();
  for (const std::string& name : _system.List(_folder.string())) {
    if (!name.ends_with(FILE_END)) continue;
    const std::string file = (_folder / name).string();
    const auto note = ParseNote(_system.ReadText(file).value_or(""));
    const auto found = std::ranges::find_if(
        devices.All(), [&](const auto& entry) { return FileOf(entry.first) == file; });
    if (!note) {
      Log(file + " is no note of a lease: it is left alone");
    } else if (found == devices.All().end()) {
      Log(file + ": the server ended while " + note->peer +
          " held a device that is not served any more: it is not released");
    } else if (!found->second->lease) {
      ReleaseLeftOver(found->second, *note);
    }
  }
}

void Leases::ReleaseLeftOver(const ServedDevicePointer& device, const Note& note) {
  device->lease = std::make_unique<Lease>();
  LeaseRecord& record = device->lease->record;
  record.peer = note.peer;
  record.device = device->config.facts.node_guid;
  record.name = device->config.facts.name;
  record.since = note.since;
  _held.emplace(record.device, device);
  Log(common::HexGuid(record.device) + ": the server ended while " + record.peer + " held it");
  Release(device, "the server was killed");
}

std::string Leases::FileOf(protocol::Guid device) const {
  return (_folder / (common::HexGuid(device) + std::string(FILE_END))).string();
}

void Leases::Log(const std::string& text) const {
  if (_log) _log(text);
}

}  // namespace serve
