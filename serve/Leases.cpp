#include "serve/Leases.h"

#include <cerrno>
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

class HookWork : public WireWork {
 public:
  HookWork(std::vector<std::string> words, Time limit) : _words(std::move(words)), _limit(limit) {}

  std::optional<Time> Step(System& system) override {
    status = system.RunProgram(_words, _limit);
    return {};
  }

  int status = 0;

 private:
  std::vector<std::string> _words;
  Time _limit;
};

class CloseWork : public WireWork {
 public:
  explicit CloseWork(std::vector<std::shared_ptr<Memory>> memories)
      : _memories(std::move(memories)) {}

  std::optional<Time> Step(System& system) override {
    for (const auto& memory : _memories) memory->Close(system);
    return {};
  }

 private:
  std::vector<std::shared_ptr<Memory>> _memories;
};

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
    lease.record.peer = peer;
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
  const LeaseRecord& record = device->lease->record;
  const std::string file = FileOf(record.device);
  const int result =
      _is_dry_run ? 0 : _system.WriteText(file, common::Text(record.peer, " ", record.since, "\n"));
  if (result != 0) {
    const std::string error =
        file + ": " + std::generic_category().message(-result) + ": nothing is written";
    device->lease->record.end = "no lease";
    End(device, error);
    return then(error);
  }
  RunHook(*device, "prepare", device->config.prepare,
          [this, device, then = std::move(then)](const std::string& error) {
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
}

void Leases::RunHook(const ServedDevice& device, const char* name,
                     const std::vector<std::string>& words,
                     std::function<void(const std::string&)> then) {
  if (words.empty() || _is_dry_run) return then("");
  _loop.Run(device.hook_wire, std::make_unique<HookWork>(words, device.config.hook_limit),
            [name, then = std::move(then)](std::unique_ptr<WireWork> work) {
              const int status = static_cast<HookWork&>(*work).status;
              if (status == 0) return then("");
              if (status == -ETIME) return then(common::Text("'", name, "' takes too long"));
              then(status < 0
                       ? common::Text("'", name,
                                      "' can't be run: ", std::generic_category().message(-status))
                       : common::Text("'", name, "' has ended with ", status));
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
  LeaseRecord& record = lease.record;
  if (!error.empty()) {
    record.last_error = error;
    Log(common::HexGuid(record.device) + ": " + error);
  }
  record.until = _system.WallSeconds();
  record.sha256 = lease.digest.Finish();
  if (record.end.empty()) record.end = error;
  // A device that could not be released is released at the next start.
  if (!_is_dry_run && error.empty()) _system.Remove(FileOf(record.device));
  try {
    if (_audit) _audit(record);
  } catch (const std::exception& failure) {
    Log(failure.what());
  }
  _held.erase(record.device);
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
    for (const auto& [guid, device] : devices.All()) {
      if (device->lease || _folder / name != FileOf(guid)) continue;
      device->lease = std::make_unique<Lease>();
      LeaseRecord& record = device->lease->record;
      const std::string text = _system.ReadText((_folder / name).string()).value_or("");
      record.peer = text.substr(0, text.find(' '));
      record.device = guid;
      record.name = device->config.facts.name;
      record.since =
          std::strtoll(text.c_str() + std::min(text.size(), record.peer.size()), nullptr, 10);
      _held.emplace(guid, device);
      Log(common::HexGuid(guid) + ": the server ended while " + record.peer + " held it");
      Release(device, "the server was killed");
    }
  }
}

std::string Leases::FileOf(protocol::Guid device) const {
  return (_folder / (common::HexGuid(device) + std::string(FILE_END))).string();
}

void Leases::Log(const std::string& text) const {
  if (_log) _log(text);
}

}  // namespace serve
