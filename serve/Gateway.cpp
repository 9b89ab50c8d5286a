#include "serve/Gateway.h"

#include <algorithm>
#include <utility>

#include "common/Text.h"

namespace serve {

using protocol::Action;
using protocol::Answer;
using protocol::ClientId;
using protocol::Refusal;
using protocol::Request;

namespace {

/// Bytes that one request may read, over all its devices. The answer is some five times as long: a
/// client takes no line that is longer.
constexpr std::uint64_t MOST_READ = 4 << 20;

}  // namespace

/// One request under way.
struct Gateway::Exchange {
  ClientId client = 0;
  std::shared_ptr<protocol::Reply> reply;
  Request request;
  std::vector<ServedDevicePointer> devices;  ///< of each element; null where there is none
  std::vector<std::string> elements;
  std::vector<bool> needs_memory;  ///< of each element
  std::vector<ServedChip> chips;   ///< of each element that needs it, as it was checked
  std::size_t unplanned = 0;       ///< elements
  std::size_t works = 0;           ///< that wires have not done yet
  bool is_finished = false;
  std::optional<Loop::TimerId> timer;  ///< of the next heartbeat; none before the first is due
};

Gateway::Gateway(System& system, Loop& loop, const Configuration& configuration,
                 ServedDevices::Options options, Outputs outputs)
    : _loop(loop),
      _configuration(configuration),
      _devices(system, options),
      _leases(system, loop, {_devices.WireOf("books"), _devices.WireOf("audit")},
              std::move(outputs.audit), outputs.log, options.is_dry_run) {
  _leases.SetFolder(configuration.state);
  _leases.freed = [this](const ServedDevicePointer& device) {
    _devices.Settle(device);
    CheckIdle();
  };
  _devices.log = outputs.log;
  _devices.log = std::move(outputs.log);
  _devices.Set(configuration);
}

void Gateway::Reload(const Configuration& configuration) {
  // The folder of leases stays: open ones are in it.
  const auto state = _configuration.state;
  _configuration = configuration;
  _configuration.state = state;
  _devices.Set(_configuration);
}

void Gateway::Connected(ClientId client, const std::string& peer) {
  _clients[client] = {.peer = peer, .multi_max = _configuration.multi_max};
}

void Gateway::Disconnected(ClientId client) {
  const auto found = _clients.find(client);
  if (found == _clients.end()) return;
  found->second.is_gone = true;
  if (found->second.is_asking) return;
  _clients.erase(found);
  _leases.Release(client, "the client disconnected");
}

void Gateway::Start(ClientId client, std::string_view text,
                    std::shared_ptr<protocol::Reply> reply) {
  const auto exchange = std::make_shared<Exchange>();
  exchange->client = client;
  exchange->reply = std::move(reply);
  try {
    exchange->request = protocol::ParseRequest(text);
    const std::uint32_t multi_max = _clients[client].multi_max;
    protocol::CheckCount(exchange->request, std::to_string(multi_max));
    if (auto answer = AnswerAlone(exchange->request)) {
      return exchange->reply->Send(*std::move(answer));
    }
    const Request& request = exchange->request;
    if (request.command->action == Action::READ &&
        std::uint64_t{request.size} * request.count > MOST_READ) {
      throw Refusal("more bytes than the server reads at once");
    }
  } catch (const Refusal& refusal) {
    return exchange->reply->Send({.text = protocol::RequestError(refusal.what())});
  }
  ++_under_way;
  _clients[client].is_asking = true;
  const std::size_t count = exchange->request.devices.size();
  exchange->devices.resize(count);
  exchange->elements.resize(count);
  exchange->needs_memory.resize(count);
  exchange->chips.resize(count);
  // One more, so that the last device is not the last before all were looked at.
  exchange->unplanned = count + 1;
  try {
    for (std::size_t i = 0; i < count; ++i) Plan(exchange, i);
    Planned(exchange);
    if (!exchange->is_finished) WaitForBeat(exchange);
  } catch (const std::exception& error) {
    Abort(exchange, error.what());
  }
}

std::optional<Answer> Gateway::AnswerAlone(const Request& request) const {
  switch (request.command->action) {
    case Action::MULTI_MAX:
      return Answer{.text = std::to_string(_configuration.multi_max)};
    case Action::VERSION:
      return Answer{.text = "2.2"};
    case Action::BURN:
      throw Refusal("image burns are not supported");
    case Action::LIST: {
      std::string list;
      std::size_t number = 0;
      for (const auto& [guid, device] : _devices.All()) {
        if (!list.empty()) list += " ";
        list += protocol::RecordElements(device->config.facts, ++number);
      }
      return Answer{.text = list};
    }
    default:
      return {};
  }
}

void Gateway::Plan(const ExchangePointer& exchange, std::size_t i) {
  const Request& request = exchange->request;
  const Action action = request.command->action;
  const auto fail = [exchange, i](const std::string& why) {
    exchange->needs_memory[i] = false;
    exchange->elements[i] = protocol::DeviceError(exchange->request.devices[i], why);
  };
  const auto again = [this, exchange, i] { Plan(exchange, i); };
  const ServedDevicePointer device = exchange->devices[i] = _devices.Find(request.devices[i]);
  const bool changes = action == Action::WRITE || action == Action::ERASE;
  bool needs_lease = false;
  try {
    if (!device) throw Refusal("No such device");
    if (changes || action == Action::READ || action == Action::ATTRIBUTES) {
      _devices.LearnSize(*device);
    }
    auto element = protocol::ElementWithoutMemory(request, device->config.facts, device->facts);
    exchange->needs_memory[i] = !element;
    if (element) {
      exchange->elements[i] = *std::move(element);
    } else {
      exchange->chips[i] = device->chips.at(request.chip);
      exchange->chips[i].sector_size = device->facts.at(request.chip).sector_size;
    }
    if (changes || action == Action::START) CheckWritable(request, *device);
    needs_lease = changes || action == Action::START;
    // Until it is prepared, such a device may not even be there to be read.
    if (action == Action::READ && !device->config.prepare.empty()) {
      const Lease* const lease = device->lease.get();
      if (lease != nullptr && lease->state == Lease::PREPARING) {
        return Leases::Wait(*device, again);
      }
      needs_lease = lease == nullptr || lease->state == Lease::RELEASING;
    }
  } catch (const Refusal& refusal) {
    needs_lease = false;
    fail(refusal.what());
  }
  if (!needs_lease) return Planned(exchange);
  _leases.Take(device, exchange->client, _clients[exchange->client].peer, action == Action::READ,
               {.held =
                    [this, exchange, fail](const std::string& error) {
                      if (!error.empty()) fail(error);
                      Planned(exchange);
                    },
                .again = again});
}

void Gateway::CheckWritable(const Request& request, const ServedDevice& device) {
  if (device.config.is_read_only) throw Refusal("Read-only");
  const Action action = request.command->action;
  if (!device.config.write || action == Action::START) return;
  const std::uint64_t size =
      action == Action::ERASE ? device.facts.at(request.chip).sector_size : request.size;
  std::uint64_t at = request.offset;
  const std::uint64_t end = at + size;
  // Ranges may touch each other: what is left after one must be in another.
  for (bool is_found = true; is_found && at < end;) {
    is_found = false;
    for (const Range& range : *device.config.write) {
      if (range.first > at || at > range.last) continue;
      at = std::uint64_t{range.last} + 1;
      is_found = true;
    }
  }
  if (at < end) throw Refusal("Read-only");
}

void Gateway::Planned(const ExchangePointer& exchange) {
  if (--exchange->unplanned > 0) return;
  try {
    if (!PlanAgain(exchange)) Execute(exchange);
  } catch (const std::exception& error) {
    Abort(exchange, error.what());
  }
}

bool Gateway::PlanAgain(const ExchangePointer& exchange) {
  if (exchange->request.command->action != Action::READ) return false;
  std::vector<std::size_t> elements;
  for (std::size_t i = 0; i < exchange->elements.size(); ++i) {
    if (!exchange->needs_memory[i]) continue;
    const ServedDevice& device = *exchange->devices[i];
    // Its holder has left while other devices were prepared.
    const bool is_ready = device.lease && device.lease->state == Lease::HELD;
    if (!device.config.prepare.empty() && !is_ready) elements.push_back(i);
  }
  if (elements.empty()) return false;
  exchange->unplanned = elements.size() + 1;
  for (const std::size_t i : elements) Plan(exchange, i);
  Planned(exchange);
  return true;
}

void Gateway::Execute(const ExchangePointer& exchange) {
  const Request& request = exchange->request;
  const Action action = request.command->action;
  // A request may name a device twice: then its chip has two works, one after the other.
  std::map<std::pair<WireId, std::size_t>, std::vector<ChipWork::Item>> works;
  std::map<const Memory*, std::size_t> named;
  for (std::size_t i = 0; i < exchange->elements.size(); ++i) {
    if (!exchange->needs_memory[i]) continue;
    if (action != Action::ERASE && request.size == 0) {
      exchange->elements[i] = protocol::ACK;
      continue;
    }
    const ServedChip& chip = exchange->chips[i];
    ChipWork::Item item{.memory = chip.memory, .job = {}, .element = i};
    item.job.kind = action == Action::READ    ? Job::READ
                    : action == Action::WRITE ? Job::WRITE
                                              : Job::ERASE;
    item.job.offset = request.offset;
    item.job.size = action == Action::ERASE ? chip.sector_size : request.size;
    item.job.data = request.data;
    works[{chip.wire, named[chip.memory.get()]++}].push_back(std::move(item));
  }
  exchange->works = works.size();
  if (works.empty()) return Finish(exchange);
  for (auto& [wire, items] : works) {
    _loop.Run(wire.first, std::make_unique<ChipWork>(std::move(items)),
              [this, exchange](const std::unique_ptr<WireWork>& work) {
                const bool is_last = --exchange->works == 0;
                if (exchange->is_finished) return;
                try {
                  TakeResults(exchange, static_cast<ChipWork&>(*work));
                  if (is_last) Finish(exchange);
                } catch (const std::exception& error) {
                  Abort(exchange, error.what());
                }
              });
  }
}

void Gateway::TakeResults(const ExchangePointer& exchange, ChipWork& work) {
  for (ChipWork::Item& item : work.Items()) {
    const Job& job = item.job;
    std::string& element = exchange->elements[item.element];
    if (!job.error.empty()) {
      element = protocol::DeviceError(exchange->request.devices[item.element], job.error);
    } else if (job.kind == Job::READ) {
      element = protocol::DataElement(job.data, job.size);
    } else {
      element = protocol::ACK;
    }
    Lease* lease = Leases::Of(*exchange->devices[item.element], exchange->client);
    if (lease == nullptr || !job.error.empty()) continue;
    if (job.kind == Job::WRITE) {
      lease->record.bytes += job.size;
      lease->digest.Add(job.data);
    } else if (job.kind == Job::ERASE) {
      ++lease->record.erases;
    }
  }
}

void Gateway::Note(const Exchange& exchange) {
  for (std::size_t i = 0; i < exchange.elements.size(); ++i) {
    if (!exchange.devices[i]) continue;
    Lease* const lease = Leases::Of(*exchange.devices[i], exchange.client);
    if (lease == nullptr) continue;
    ++lease->record.requests;
    const std::string begin = protocol::DeviceError(exchange.request.devices[i], "");
    if (!exchange.elements[i].starts_with(begin)) continue;
    ++lease->record.failed;
    lease->record.last_error = exchange.elements[i].substr(begin.size());
  }
}

void Gateway::Finish(const ExchangePointer& exchange) {
  Note(*exchange);
  const bool is_alone =
      exchange->request.command->action == Action::BSN && exchange->elements.size() == 1;
  Answer answer{.text = is_alone ? exchange->elements.front()
                                 : protocol::JoinElements(exchange->request, exchange->elements)};
  exchange->is_finished = true;
  if (exchange->timer) _loop.Cancel(*exchange->timer);
  exchange->reply->Send(std::move(answer));
  EndRequest(exchange->client);
}

void Gateway::Abort(const ExchangePointer& exchange, const std::string& why) {
  if (std::exchange(exchange->is_finished, true)) return;
  if (exchange->timer) _loop.Cancel(*exchange->timer);
  exchange->reply->Send({.text = protocol::RequestError(why)});
  EndRequest(exchange->client);
}

void Gateway::WaitForBeat(const ExchangePointer& exchange) {
  exchange->timer = _loop.CallAt(_loop.Now() + HEARTBEAT, [this, exchange] {
    exchange->reply->KeepWaiting();
    WaitForBeat(exchange);
  });
}

void Gateway::EndRequest(ClientId client) {
  --_under_way;
  const auto found = _clients.find(client);
  if (found != _clients.end()) {
    found->second.is_asking = false;
    if (found->second.is_gone) {
      _clients.erase(found);
      _leases.Release(client, "the client disconnected");
    }
  }
  CheckIdle();
}

void Gateway::WhenIdle(std::function<void()> call) {
  _when_idle.push_back(std::move(call));
  CheckIdle();
}

void Gateway::CheckIdle() {
  if (_under_way > 0 || !_leases.IsEmpty()) return;
  for (const auto& call : std::exchange(_when_idle, {})) call();
}

}  // namespace serve
