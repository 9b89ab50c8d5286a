#include "trials/soak/Trouble.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <limits>
#include <thread>

#include "src/utils.h"

namespace soak {

using faults::Fault;
using faults::Kind;

namespace {

constexpr std::size_t NEVER = std::numeric_limits<std::size_t>::max();

struct ActRow {
  Act act;
  const char* name;
  u_int32_t weight;
};
constexpr auto ACTS = std::to_array<ActRow>({
    {Act::ANSWER, "", 44},
    {Act::DEVICE_ERROR, "device error", 10},
    {Act::POWER_OFF, "device without power", 8},
    {Act::CUT, "power lost in a write or an erase", 14},
    {Act::WRITE_WRONG, "wrong bit written", 6},
    {Act::KILL, "burner killed (SIGKILL)", 6},
    {Act::TERMINATE, "burner ended (SIGTERM)", 4},
    {Act::INTERRUPT, "burner ended (SIGINT)", 3},
    {Act::STOP_AND_GO, "burner stopped and continued", 3},
    {Act::DELAY, "answer delayed", 2},
});

/// The fault matrix has them: they take half a minute, or are as one of the others but for where
/// they are.
bool IsLeftToTheMatrix(Fault fault) {
  static constexpr auto LEFT =
      std::to_array({Fault::ELEMENT_TARGET_ERROR, Fault::LOST, Fault::TWICE, Fault::TWICE_LATE,
                     Fault::SILENCE, Fault::SILENCE_INSIDE});
  return std::ranges::count(LEFT, fault) > 0;
}

bool IsWrite(const faults::Request& request) {
  return request.text.find("WriteMulti ") != std::string::npos;
}
/// A signature, a CRC, the head of a boot record: little else decides more.
bool IsShortWrite(const faults::Request& request) {
  const auto words = splitv(request.text, " ", false);
  return IsWrite(request) && words.size() == request.devices.size() + 6 &&
         words[words.size() - 3] == "4";
}
bool IsErase(const faults::Request& request) {
  return request.text.find("EraseSectorMulti ") != std::string::npos;
}
bool IsRead(const faults::Request& request) {
  return request.text.find("ReadMulti ") != std::string::npos;
}

}  // namespace

std::string Hit::Name() const {
  if (act == Act::ANSWER) {
    return std::string(
        std::ranges::find(faults::AllFaults(), fault, &faults::FaultRow::fault)->name);
  }
  return std::ranges::find(ACTS, act, &ActRow::act)->name;
}

std::vector<Hit> MakeHits(u_int32_t requests, Dice& dice) {
  std::vector<Hit> hits(dice.OneOf<std::size_t>({0, 1, 1, 1, 2, 3}));
  for (Hit& hit : hits) {
    hit.at = dice.Chance(15) ? dice.Below(6) : dice.Below(requests);
    if (dice.Chance(25)) {
      hit.at = NEVER;
      hit.at_short = dice.Between(1, 16);
    }
    u_int32_t weight = dice.Below(100);
    for (const ActRow& row : ACTS) {
      hit.act = row.act;
      if (weight < row.weight) break;
      weight -= row.weight;
    }
    do {
      hit.fault = faults::AllFaults()[dice.Below(faults::AllFaults().size())].fault;
      // One of 16 MiB is a burst.
    } while (IsLeftToTheMatrix(hit.fault) || (hit.fault == Fault::LONG_LINE && dice.Chance(90)));
    hit.seed = dice.Seed();
  }
  return hits;
}

const Hit* Trouble::HitAt(std::size_t index) const {
  const auto found = std::ranges::find(_hits, index, &Hit::at);
  return found == _hits.end() ? nullptr : &*found;
}

bool Trouble::Comes(std::size_t index, const std::string& request, pid_t client) {
  _is_stopped = false;
  const faults::Request parsed = faults::Understand(request, "", _has_written);
  if (IsShortWrite(parsed)) {
    ++_short_writes;
    for (Hit& hit : _hits) {
      if (hit.at_short == _short_writes && HitAt(index) == nullptr) hit.at = index;
    }
  }
  const Hit* hit = HitAt(index);
  _has_written = _has_written || IsWrite(parsed);
  if (hit == nullptr) return true;
  static constexpr struct {
    Act act;
    int signal;
  } SIGNALS[] = {{Act::KILL, SIGKILL},
                 {Act::TERMINATE, SIGTERM},
                 {Act::INTERRUPT, SIGINT},
                 {Act::STOP_AND_GO, SIGSTOP}};
  for (const auto& row : SIGNALS) {
    if (row.act != hit->act) continue;
    kill(client, row.signal);
    Fired fired{*hit, parsed};
    _is_stopped = row.signal == SIGSTOP;
    if (!_is_stopped) fired.signal = row.signal;
    _fired.push_back(fired);
    return true;
  }
  if (hit->act == Act::DELAY) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    _fired.push_back({*hit, parsed});
  } else if (hit->act == Act::ANSWER) {
    // What is said of devices and of the whole is so: nothing was done.
    if (hit->fault == Fault::ELEMENT_ERROR && !parsed.devices.empty()) Spoil(*hit, parsed);
    return hit->fault != Fault::ERROR_ANSWER && hit->fault != Fault::TARGET_ERROR_ANSWER;
  } else {
    Spoil(*hit, parsed);
  }
  return true;
}

void Trouble::Spoil(const Hit& hit, const faults::Request& request) {
  Dice dice(hit.seed);
  if (request.devices.empty()) return;
  const Guid guid = request.devices[dice.Below(request.devices.size())];
  sim::Device* device = _fabric.Find(guid);
  if (device == nullptr || !device->has_power) return;
  sim::Fault fault;
  fault.device = guid;
  fault.seed = static_cast<u_int32_t>(dice.Seed());
  fault.text = faults::REFUSED;
  switch (hit.act) {
    case Act::CUT:
      fault.kind = IsWrite(request) || IsErase(request) ? sim::Fault::CUT : sim::Fault::POWER_OFF;
      break;
    case Act::WRITE_WRONG:
      if (!IsWrite(request)) return;
      fault.kind = sim::Fault::WRITE_WRONG;
      break;
    case Act::POWER_OFF:
      fault.kind = sim::Fault::POWER_OFF;
      break;
    default:
      fault.kind = sim::Fault::DEVICE_ERROR;
      break;
  }
  _fabric.faults = sim::FaultLayer();
  _fabric.faults.Add(fault);
  Fired fired{hit, request};
  fired.device = guid;
  if (fault.kind == sim::Fault::WRITE_WRONG) {
    fired.is_silent = !_story.Verifies();
    if (!fired.is_silent) {
      fired.ends = {"No more accessible devices"};
      fired.loses_device_at = hit.at + 1;  // which compares
    }
  } else {
    Explain(fired);
  }
  _fired.push_back(fired);
}

/// Of a device that answers an error.
void Trouble::Explain(Fired& fired) const {
  fired.ends = {"No more accessible devices"};
  // Such an answer is no list, and is the error of all.
  if (fired.request.kind == Kind::BSN) {
    fired.must_fail = true;
    fired.may_lose_all = true;
  }
  // Its record is judged all the same, and has no bytes.
  if (_story.burn == BurnKind::RECORDS && fired.request.kind == Kind::BOOT_RECORD) {
    fired.asserts = {"read_data.size() == 16"};
    fired.must_fail = true;
  }
}

const faults::Misdeed* Trouble::Answers(std::size_t index, const std::string& request,
                                        const std::string& answer) {
  const Hit* hit = HitAt(index);
  if (hit == nullptr || hit->act != Act::ANSWER) return nullptr;
  // The fabric itself says so.
  if (!_fired.empty() && _fired.back().hit.at == index) return nullptr;
  Fired fired{*hit, faults::Understand(request, answer, _has_written)};
  const auto targets = faults::Targets(hit->fault, fired.request);
  // An answer with an error in it is no right one to be mangled.
  if (targets.empty() || answer.find("ERROR:") != std::string::npos) return nullptr;
  fired.device = targets[Dice(hit->seed).Below(targets.size())];
  _misdeed = {index, hit->fault, fired.device,
              faults::Mangled(hit->fault, fired.request, fired.device)};
  ExplainAnswer(fired);
  _fired.push_back(fired);
  return &_misdeed;
}

void Trouble::ExplainAnswer(Fired& fired) const {
  const Fault fault = fired.hit.fault;
  const Kind kind = fired.request.kind;
  const bool is_one = fired.request.devices.size() == 1;
  auto& ends = fired.ends;
  const auto fails = [&](std::vector<std::string> texts) {
    fired.must_fail = true;
    ends = std::move(texts);
  };
  switch (fault) {
    case Fault::BYTEWISE:
    case Fault::RETURNS:
    case Fault::ONE_PIECE:
    case Fault::TWO_PIECES:
    case Fault::MANY_PIECES:
      return;
    case Fault::LONG_LINE:
    case Fault::CLOSE_BEFORE:
    case Fault::CLOSE_INSIDE:
    case Fault::RESET:
      return fails({"Failed remote read from server "});
    case Fault::CLOSE_AFTER:  // harmless behind the last request
      ends = {"Failed remote read"};
      return;
    default:
      break;
  }
  const bool is_error = fault == Fault::ERROR_ANSWER || fault == Fault::TARGET_ERROR_ANSWER;
  const bool is_size = fault == Fault::TOO_LITTLE || fault == Fault::TOO_MUCH;
  switch (kind) {
    case Kind::MULTI_MAX:  // counts as 1
      ends = {"Multi max violation. Server capability: 1 devices."};
      return;
    case Kind::VERSION:
      return fails({"Server "});
    case Kind::LIST:
      fired.may_lose_all = fault == Fault::EMPTY || fault == Fault::ONE_FEWER;
      if (is_error) return fails({"Failed checking access through server "});
      if (fault == Fault::ELEMENT_ERROR || fault == Fault::NOT_HEX || fault == Fault::TOO_LITTLE) {
        return fails({"Bad device record format: "});
      }
      if (fault == Fault::BRACE_OPEN) return fails({"Response::TclSplit(): "});
      if (fault == Fault::EMPTY) return fails({"No more accessible devices"});
      if (fault == Fault::ONE_FEWER) {
        ends = {"No more accessible devices", "Internal Error: Device ",
                "All devices can't be failsafe burnt"};
      }
      return;
    case Kind::ATTRIBUTES:
      if (fault == Fault::NOT_HEX) return fails({"Internal Error: Expected numeric value in "});
      if (fault == Fault::TOO_LITTLE || fault == Fault::NUL) {
        return fails({"The flash sector size is unknown. Can't perform failsafe burn",
                      "RemoteFlashInterface::Erase() : Can't erase address "});
      }
      if (fault == Fault::TOO_MUCH) return;
      break;
    case Kind::BSN:
      fired.may_lose_all = is_error;
      if (is_error) return fails({"No more accessible devices"});
      if (fault == Fault::BRACE_OPEN) return fails({"Response::TclSplit(): "});
      if (fault == Fault::NOT_HEX || fault == Fault::NUL) {
        return fails({"Fatal Error: Failed extracting data out of response: "});
      }
      if (is_size || fault == Fault::EMPTY || fault == Fault::ONE_FEWER) {
        fired.must_fail = true;
        fired.asserts = {"rep_data.size() == fit->size"};
      }
      return;
    default:
      break;
  }
  switch (fault) {
    case Fault::ERROR_ANSWER:
    case Fault::TARGET_ERROR_ANSWER:
      fired.may_lose_all = true;
      return fails({"No more accessible devices"});
    case Fault::ONE_FEWER:
    case Fault::ONE_MORE:
    case Fault::EMPTY:
      return fails({"Error accessing to "});
    case Fault::BRACE_OPEN:
      return fails({"Response::TclSplit(): "});
    case Fault::BRACE_CLOSED:
      if (kind == Kind::ACKED && !is_one) return fails({"Error accessing to "});
      return;
    case Fault::NOT_HEX:
      return fails({"Fatal Error: Failed extracting data out of response: "});
    case Fault::NUL:
      if (kind != Kind::ACKED) {
        return fails({"Fatal Error: Failed extracting data out of response: "});
      }
      if (!is_one) return fails({"Error accessing to "});
      return;
    default:
      break;
  }
  if (kind == Kind::VSD) {
    fired.must_fail = true;
    fired.asserts = {"rep_data.size() == fit->size"};
  } else if (kind == Kind::BOOT_RECORD && _story.burn == BurnKind::RECORDS) {
    fired.must_fail = true;
    fired.asserts = {"read_data.size() == 16"};
  } else if (kind == Kind::VERIFY) {
    if (fault == Fault::TOO_LITTLE) {
      ends = {"No more accessible devices"};
      fired.loses_device_at = fired.hit.at;
    }
  } else if (IsRead(fired.request)) {
    // The word at the second pointer sector is asserted to be one; the others are taken for others.
    fired.is_misread = true;
    ends = {"No more accessible devices"};
    const bool is_address = fired.request.addr == _story.image.ps[1] && fired.request.size == 4;
    if (is_address) {
      fired.must_fail = true;
      fired.asserts = {"d1.size() == 4"};
    }
  }
}

void Trouble::Answered(std::size_t index, pid_t client) {
  const Hit* hit = HitAt(index);
  if (hit == nullptr || !_is_stopped) return;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  kill(client, SIGCONT);
}

}  // namespace soak
