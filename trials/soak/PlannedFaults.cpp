#include "trials/soak/PlannedFaults.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <limits>
#include <thread>

#include "common/Text.h"

namespace soak {

using trials::AnswerFault;
using trials::RequestKind;

namespace {

constexpr std::size_t NEVER = std::numeric_limits<std::size_t>::max();

struct FaultKindRow {
  FaultKind kind;
  const char* name;
  std::uint32_t weight;
};
constexpr auto FAULT_KINDS = std::to_array<FaultKindRow>({
    {FaultKind::ANSWER, "", 44},
    {FaultKind::DEVICE_ERROR, "device error", 10},
    {FaultKind::POWER_OFF, "device without power", 8},
    {FaultKind::CUT, "power lost in a write or an erase", 14},
    {FaultKind::WRITE_WRONG, "wrong bit written", 6},
    {FaultKind::KILL, "burner killed (SIGKILL)", 6},
    {FaultKind::TERMINATE, "burner ended (SIGTERM)", 4},
    {FaultKind::INTERRUPT, "burner ended (SIGINT)", 3},
    {FaultKind::STOP_AND_GO, "burner stopped and continued", 3},
    {FaultKind::DELAY, "answer delayed", 2},
});

/// The fault matrix injects these: they take half a minute, or differ from another fault only in
/// their place.
bool IsLeftToTheMatrix(AnswerFault fault) {
  static constexpr auto LEFT =
      std::to_array({AnswerFault::ELEMENT_TARGET_ERROR, AnswerFault::LOST, AnswerFault::TWICE_LATE,
                     AnswerFault::SILENCE, AnswerFault::SILENCE_INSIDE});
  return std::ranges::count(LEFT, fault) > 0;
}

bool IsWrite(const trials::ParsedExchange& request) {
  return request.text.find("WriteMulti ") != std::string::npos;
}
/// A write of one word: a signature, a CRC, the head of a boot record. These decide whether it
/// boots.
bool IsShortWrite(const trials::ParsedExchange& request) {
  const auto words = common::Words(request.text, " ");
  return IsWrite(request) && words.size() == request.devices.size() + 6 &&
         words[words.size() - 3] == "4";
}
/// A question about the server, a device or its slots. There are few of them in a run.
bool IsQuery(const trials::ParsedExchange& request) {
  return request.kind != RequestKind::ACKED && request.kind != RequestKind::VERIFY;
}
bool IsErase(const trials::ParsedExchange& request) {
  return request.text.find("EraseSectorMulti ") != std::string::npos;
}
bool IsRead(const trials::ParsedExchange& request) {
  return request.text.find("ReadMulti ") != std::string::npos;
}

}  // namespace

std::string PlannedFault::Name() const {
  if (of_memory) {
    return std::string(
        std::ranges::find(trials::AllMemoryFaults(), *of_memory, &trials::MemoryFaultRow::fault)
            ->name);
  }
  if (kind == FaultKind::ANSWER) {
    return std::string(
        std::ranges::find(trials::AllAnswerFaults(), fault, &trials::AnswerFaultRow::fault)->name);
  }
  return std::ranges::find(FAULT_KINDS, kind, &FaultKindRow::kind)->name;
}

std::vector<PlannedFault> PlanFaults(std::uint32_t requests, Random& random) {
  std::vector<PlannedFault> faults(random.OneOf<std::size_t>({0, 1, 1, 1, 2, 3}));
  for (PlannedFault& planned : faults) {
    planned.at = random.Chance(15) ? random.Below(6) : random.Below(requests);
    if (random.Chance(25)) {
      planned.at = NEVER;
      planned.at_short = random.Between(1, 16);
    } else if (random.Chance(20)) {
      planned.at = NEVER;
      planned.at_query = random.Between(1, 16);
    }
    std::uint32_t weight = random.Below(100);
    for (const FaultKindRow& row : FAULT_KINDS) {
      planned.kind = row.kind;
      if (weight < row.weight) break;
      weight -= row.weight;
    }
    do {
      planned.fault =
          trials::AllAnswerFaults()[random.Below(trials::AllAnswerFaults().size())].fault;
      // Rarely: such a line has 16 MiB.
    } while (IsLeftToTheMatrix(planned.fault) ||
             (planned.fault == AnswerFault::LONG_LINE && random.Chance(90)));
    planned.seed = random.Seed();
  }
  return faults;
}

const PlannedFault* PlannedFaultInjector::FaultAt(std::size_t index) const {
  const auto found = std::ranges::find(_planned, index, &PlannedFault::at);
  return found == _planned.end() ? nullptr : &*found;
}

void PlannedFaultInjector::Postpone(std::size_t index) {
  if (FaultAt(index + 1) == nullptr) ++std::ranges::find(_planned, index, &PlannedFault::at)->at;
}

bool PlannedFaultInjector::BeforeRequest(std::size_t index, const std::string& request,
                                         pid_t client) {
  _is_stopped = false;
  const trials::ParsedExchange parsed = trials::ParseExchange(request, "", _has_written);
  const auto plan_here = [&](std::uint32_t PlannedFault::*at, std::uint32_t count) {
    for (PlannedFault& planned : _planned) {
      if (planned.*at == count && FaultAt(index) == nullptr) planned.at = index;
    }
  };
  if (IsShortWrite(parsed)) plan_here(&PlannedFault::at_short, ++_short_writes);
  if (IsQuery(parsed)) plan_here(&PlannedFault::at_query, ++_queries);
  const PlannedFault* planned = FaultAt(index);
  _has_written = _has_written || IsWrite(parsed);
  if (planned == nullptr) return true;
  static constexpr struct {
    FaultKind kind;
    int signal;
  } SIGNALS[] = {{FaultKind::KILL, SIGKILL},
                 {FaultKind::TERMINATE, SIGTERM},
                 {FaultKind::INTERRUPT, SIGINT},
                 {FaultKind::STOP_AND_GO, SIGSTOP}};
  for (const auto& row : SIGNALS) {
    if (row.kind != planned->kind) continue;
    kill(client, row.signal);
    OccurredFault occurred{*planned, parsed};
    _is_stopped = row.signal == SIGSTOP;
    if (!_is_stopped) occurred.signal = row.signal;
    _occurred.push_back(occurred);
    return true;
  }
  if (planned->kind == FaultKind::DELAY) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    _occurred.push_back({*planned, parsed});
  } else if (planned->kind == FaultKind::ANSWER) {
    // The errors are true: the device, or the server, has not executed the request.
    if (planned->fault == AnswerFault::ELEMENT_ERROR && !parsed.devices.empty()) {
      if (_served) {
        InjectIntoMemory(*planned, parsed);
      } else {
        InjectIntoDevice(*planned, parsed);
      }
    }
    return planned->fault != AnswerFault::ERROR_ANSWER &&
           planned->fault != AnswerFault::TARGET_ERROR_ANSWER;
  } else if (_served) {
    InjectIntoMemory(*planned, parsed);
  } else {
    InjectIntoDevice(*planned, parsed);
  }
  return true;
}

/// A request that needs no memory is not hit: the next one is.
void PlannedFaultInjector::InjectIntoMemory(PlannedFault planned,
                                            const trials::ParsedExchange& request) {
  using trials::MemoryFault;
  Random random(planned.seed);
  const std::size_t index = planned.at;
  if (request.devices.empty()) return Postpone(index);
  const Guid guid = request.devices[random.Below(request.devices.size())];
  const sim::Device* const device = _fabric.Find(guid);
  if (device == nullptr) return;
  auto faults = trials::ServedFabric::FaultsAt(*device, request.text);
  const bool cuts = std::erase(faults, MemoryFault::POWER_LOST) > 0;
  if (planned.kind == FaultKind::CUT && cuts) faults = {MemoryFault::POWER_LOST};
  if (faults.empty()) return Postpone(index);
  const MemoryFault fault = faults[random.Below(faults.size())];
  planned.of_memory = fault;
  const std::uint32_t nth = random.Chance(60) ? 1 : random.Between(1, 4);
  _served->Inject(fault, guid, request.text, nth, random.Seed());
  OccurredFault occurred{planned, request};
  occurred.device = guid;
  if (fault == MemoryFault::POWER_LOST) {
    occurred.ends = {"Failed remote read from server "};
  } else if (fault != MemoryFault::ARBITRATION_LOST) {
    // A write that changes nothing may not meet the fault.
    occurred.ends = {"No more accessible devices"};
    if (IsRead(request)) PredictEffects(occurred);
    if (fault == MemoryFault::STUCK_BUS && _scenario.Slots() == SlotKind::BOOT_RECORDS) {
      occurred.asserts = {"read_data.size() == 16"};
    }
  }
  _occurred.push_back(occurred);
}

void PlannedFaultInjector::InjectIntoDevice(const PlannedFault& planned,
                                            const trials::ParsedExchange& request) {
  Random random(planned.seed);
  if (request.devices.empty()) return;
  const Guid guid = request.devices[random.Below(request.devices.size())];
  sim::Device* device = _fabric.Find(guid);
  if (device == nullptr || !device->has_power) return;
  sim::Fault fault;
  fault.device = guid;
  fault.seed = static_cast<std::uint32_t>(random.Seed());
  fault.text = trials::REFUSED;
  switch (planned.kind) {
    case FaultKind::CUT:
      fault.kind = IsWrite(request) || IsErase(request) ? sim::Fault::CUT : sim::Fault::POWER_OFF;
      break;
    case FaultKind::WRITE_WRONG:
      if (!IsWrite(request)) return;
      fault.kind = sim::Fault::WRITE_WRONG;
      break;
    case FaultKind::POWER_OFF:
      fault.kind = sim::Fault::POWER_OFF;
      break;
    default:
      fault.kind = sim::Fault::DEVICE_ERROR;
      break;
  }
  _fabric.faults = sim::FaultLayer();
  _fabric.faults.Add(fault);
  OccurredFault occurred{planned, request};
  occurred.device = guid;
  if (fault.kind == sim::Fault::WRITE_WRONG) {
    occurred.is_undetected = !_scenario.Verifies();
    if (!occurred.is_undetected) {
      occurred.ends = {"No more accessible devices"};
      occurred.loses_device_at = planned.at + 1;  // the read that verifies
    }
  } else {
    PredictEffects(occurred);
  }
  _occurred.push_back(occurred);
}

/// The effects of a device that answers with an error.
void PlannedFaultInjector::PredictEffects(OccurredFault& occurred) const {
  occurred.ends = {"No more accessible devices"};
  // The answer has no elements: the error counts for all devices.
  if (occurred.request.kind == RequestKind::BSN) {
    occurred.must_fail = true;
    occurred.may_lose_all = true;
  }
  // The burner examines the record of the failed device as well, which is empty.
  if (_scenario.Slots() == SlotKind::BOOT_RECORDS &&
      occurred.request.kind == RequestKind::BOOT_RECORD) {
    occurred.asserts = {"read_data.size() == 16"};
    occurred.must_fail = true;
  }
}

const trials::InjectedFault* PlannedFaultInjector::FaultFor(std::size_t index,
                                                            const std::string& request,
                                                            const std::string& answer) {
  const PlannedFault* planned = FaultAt(index);
  if (planned == nullptr || planned->kind != FaultKind::ANSWER) return nullptr;
  // The devices answer with the fault themselves.
  if (_served && planned->fault == AnswerFault::ELEMENT_ERROR) return nullptr;
  if (!_occurred.empty() && _occurred.back().planned.at == index) return nullptr;
  OccurredFault occurred{*planned, trials::ParseExchange(request, answer, _has_written)};
  const auto targets = trials::FaultTargets(planned->fault, occurred.request);
  if (targets.empty()) {
    Postpone(index);
    return nullptr;
  }
  // The answer is wrong already.
  if (answer.find("ERROR:") != std::string::npos) return nullptr;
  occurred.device = targets[Random(planned->seed).Below(targets.size())];
  _injected = {index, planned->fault, occurred.device,
               trials::FaultyAnswer(planned->fault, occurred.request, occurred.device)};
  PredictEffectsOfAnswer(occurred);
  _occurred.push_back(occurred);
  return &_injected;
}

void PlannedFaultInjector::PredictEffectsOfAnswer(OccurredFault& occurred) const {
  const AnswerFault fault = occurred.planned.fault;
  const RequestKind kind = occurred.request.kind;
  const bool is_one = occurred.request.devices.size() == 1;
  auto& ends = occurred.ends;
  const auto fails = [&](std::vector<std::string> texts) {
    occurred.must_fail = true;
    ends = std::move(texts);
  };
  switch (fault) {
    case AnswerFault::BYTEWISE:
    case AnswerFault::RETURNS:
    case AnswerFault::ONE_PIECE:
    case AnswerFault::TWO_PIECES:
    case AnswerFault::MANY_PIECES:
      return;
    case AnswerFault::LONG_LINE:
    case AnswerFault::CLOSE_BEFORE:
    case AnswerFault::CLOSE_INSIDE:
    case AnswerFault::RESET:
      return fails({"Failed remote read from server "});
    case AnswerFault::CLOSE_AFTER:  // harmless behind the last request
      ends = {"Failed remote read"};
      return;
    case AnswerFault::TWICE:  // harmless behind the last request, too
      ends = {"Error accessing to "};
      occurred.is_last = true;
      return;
    default:
      break;
  }
  const bool is_error =
      fault == AnswerFault::ERROR_ANSWER || fault == AnswerFault::TARGET_ERROR_ANSWER;
  const bool is_size = fault == AnswerFault::TOO_LITTLE || fault == AnswerFault::TOO_MUCH;
  switch (kind) {
    case RequestKind::MULTI_MAX:  // counts as 1
      ends = {"Multi max violation. Server capability: 1 devices."};
      return;
    case RequestKind::VERSION:
      return fails({"Server "});
    case RequestKind::LIST:
      occurred.may_lose_all = fault == AnswerFault::EMPTY || fault == AnswerFault::ONE_FEWER;
      if (is_error) return fails({"Failed checking access through server "});
      if (fault == AnswerFault::ELEMENT_ERROR || fault == AnswerFault::NOT_HEX ||
          fault == AnswerFault::TOO_LITTLE) {
        return fails({"Bad device record format: "});
      }
      if (fault == AnswerFault::BRACE_OPEN) return fails({"Response::TclSplit(): "});
      if (fault == AnswerFault::EMPTY) return fails({"No more accessible devices"});
      if (fault == AnswerFault::ONE_FEWER) {
        ends = {"No more accessible devices", "Internal Error: Device ",
                "All devices can't be failsafe burnt"};
      }
      return;
    case RequestKind::ATTRIBUTES:
      if (fault == AnswerFault::NOT_HEX)
        return fails({"Internal Error: Expected numeric value in "});
      if (fault == AnswerFault::TOO_LITTLE || fault == AnswerFault::NUL) {
        return fails({"The flash sector size is unknown. Can't perform failsafe burn",
                      "RemoteFlashInterface::Erase() : Can't erase address "});
      }
      if (fault == AnswerFault::TOO_MUCH) return;
      break;
    case RequestKind::BSN:
      occurred.may_lose_all = is_error;
      if (is_error) return fails({"No more accessible devices"});
      if (fault == AnswerFault::BRACE_OPEN) return fails({"Response::TclSplit(): "});
      if (fault == AnswerFault::NOT_HEX || fault == AnswerFault::NUL) {
        return fails({"Fatal Error: Failed extracting data out of response: "});
      }
      if (is_size || fault == AnswerFault::EMPTY || fault == AnswerFault::ONE_FEWER) {
        occurred.must_fail = true;
        occurred.asserts = {"rep_data.size() == fit->size"};
      }
      return;
    default:
      break;
  }
  switch (fault) {
    case AnswerFault::ERROR_ANSWER:
    case AnswerFault::TARGET_ERROR_ANSWER:
      occurred.may_lose_all = true;
      return fails({"No more accessible devices"});
    case AnswerFault::ONE_FEWER:
    case AnswerFault::ONE_MORE:
    case AnswerFault::EMPTY:
      return fails({"Error accessing to "});
    case AnswerFault::BRACE_OPEN:
      return fails({"Response::TclSplit(): "});
    case AnswerFault::BRACE_CLOSED:
      if (kind == RequestKind::ACKED && !is_one) return fails({"Error accessing to "});
      return;
    case AnswerFault::NOT_HEX:
      return fails({"Fatal Error: Failed extracting data out of response: "});
    case AnswerFault::NUL:
      if (kind != RequestKind::ACKED) {
        return fails({"Fatal Error: Failed extracting data out of response: "});
      }
      if (!is_one) return fails({"Error accessing to "});
      return;
    default:
      break;
  }
  if (kind == RequestKind::VSD) {
    occurred.must_fail = true;
    occurred.asserts = {"rep_data.size() == fit->size"};
  } else if (kind == RequestKind::BOOT_RECORD && _scenario.Slots() == SlotKind::BOOT_RECORDS) {
    occurred.must_fail = true;
    occurred.asserts = {"read_data.size() == 16"};
  } else if (kind == RequestKind::VERIFY) {
    if (fault == AnswerFault::TOO_LITTLE) {
      ends = {"No more accessible devices"};
      occurred.loses_device_at = occurred.planned.at;
    }
  } else if (IsRead(occurred.request)) {
    // An address of another size than a word is an assertion; other data of another size differ
    // from what is expected.
    occurred.is_misread = true;
    ends = {"No more accessible devices"};
    const bool is_address = _scenario.image.slots[1].pointer_sector == occurred.request.addr &&
                            occurred.request.size == 4;
    if (is_address) {
      occurred.must_fail = true;
      occurred.asserts = {"d1.size() == 4"};
    }
  }
}

void PlannedFaultInjector::AfterAnswer(std::size_t index, pid_t client) {
  const PlannedFault* planned = FaultAt(index);
  if (planned == nullptr || !_is_stopped) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  kill(client, SIGCONT);
}

}  // namespace soak
