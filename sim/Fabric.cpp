#include "sim/Fabric.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <utility>

#include "src/utils.h"

namespace sim {

namespace {

enum class Action {
  MULTI_MAX,
  VERSION,
  LIST,
  WRITE,
  READ,
  ERASE,
  START,
  STOP,
  BURN,
  ATTR,
  VSD,
  BSN
};

constexpr std::size_t WORD_SIZE = 4;

std::string Error(Guid guid, const std::string& text) {
  return "ERROR:" + HexGuid(guid) + ":" + text;
}

/// `bytes` as the words of an answer: " {KEY 0x..}" for each `width` bytes, most significant first.
/// `Words` past the end read as erased memory.
std::string DataWords(std::string_view key, std::span<const u_int8_t> bytes, std::size_t words,
                      std::size_t width) {
  std::string text;
  for (std::size_t i = 0; i < words * width; i += width) {
    u_int32_t word = 0;
    for (std::size_t j = i; j < i + width; ++j) {
      word = word << 8 | (j < bytes.size() ? bytes[j] : 0xFF);
    }
    char digits[8];
    const char* const end = std::to_chars(std::begin(digits), std::end(digits), word, 16).ptr;
    text.append(" {")
        .append(key)
        .append(" 0x")
        .append(digits, static_cast<std::size_t>(end - digits))
        .append("}");
  }
  return text;
}

}  // namespace

struct Fabric::Command {
  std::string_view head;
  Action action;
  std::optional<MemoryKind> memory;  ///< that the device must have
  std::size_t arguments;             ///< least number, after the devices
};

struct Fabric::Request {
  const Command* command = nullptr;
  std::string head;
  u_int32_t count = 0;  ///< of devices, as the request declares it
  GuidVec guids;
  u_int8_t chip = 0;
  u_int32_t size = 0;
  u_int32_t offset = 0;
  DataVec data;  ///< to be written: `size` bytes
};

/// Why a whole request is refused.
struct Fabric::Refusal {
  std::string reason;
};

namespace {

template <typename Number>
bool ParseWord(std::string_view word, int base, Number& number) {
  if (base == 16) {
    if (!word.starts_with("0x")) return false;
    word.remove_prefix(2);
  }
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
  return error == std::errc() && end == word.data() + word.size();
}

}  // namespace

Fabric::Request Fabric::Parse(const std::string& text) {
  constexpr auto FLASH = MemoryKind::FLASH;
  constexpr auto I2C = MemoryKind::I2C;
  static constexpr auto COMMANDS = std::to_array<Command>({
      {"vsMultiMaxGet", Action::MULTI_MAX, {}, 0},
      {"IfcVersion", Action::VERSION, {}, 0},
      {"NsGetDeviceByType", Action::LIST, {}, 1},
      {"vsFlashWriteMulti", Action::WRITE, FLASH, 3},
      {"vsI2cWriteMulti", Action::WRITE, I2C, 3},
      {"vsFlashReadMulti", Action::READ, FLASH, 3},
      {"vsI2cReadMulti", Action::READ, I2C, 3},
      {"vsFlashEraseSectorMulti", Action::ERASE, FLASH, 2},
      {"vsFlashStartMulti", Action::START, FLASH, 1},
      {"vsFlashStopMulti", Action::STOP, FLASH, 0},
      {"vsFlashBurnImageMulti", Action::BURN, FLASH, 0},
      {"vsI2cBurnImageMulti", Action::BURN, I2C, 0},
      {"vsFlashGetAttrMulti", Action::ATTR, FLASH, 0},
      {"vsGetVsdMulti", Action::VSD, {}, 0},
      {"crBSNGet", Action::BSN, {}, 0},
  });

  const std::vector<std::string> words = splitv(text, " \t", false);
  Request request;
  if (words.empty()) throw Refusal{"empty request"};
  request.head = words[0];
  const auto* command = std::ranges::find(COMMANDS, words[0], &Command::head);
  if (command == COMMANDS.end()) throw Refusal{"unknown command"};
  request.command = command;

  auto word = words.begin() + 1;
  const auto left = [&] { return static_cast<std::size_t>(words.end() - word); };
  const Action action = command->action;
  const bool is_multi = command->head.ends_with("Multi");
  if (is_multi) {
    if (left() == 0 || !ParseWord(*word++, 10, request.count)) throw Refusal{"bad device count"};
  } else if (action == Action::BSN) {
    request.count = 1;
  }
  if (left() < request.count) throw Refusal{"fewer devices than counted"};
  for (u_int32_t i = 0; i < request.count; ++i) {
    Guid guid = 0;
    if (!ParseWord(*word++, 16, guid)) throw Refusal{"bad device GUID"};
    request.guids.push_back(guid);
  }
  if (left() < command->arguments) throw Refusal{"missing arguments"};
  if (action != Action::WRITE && left() > command->arguments) throw Refusal{"too many arguments"};

  if (action == Action::LIST && *word != "device") throw Refusal{"unknown type"};
  if (action == Action::START && *word != "1") throw Refusal{"bad start argument"};
  if (action != Action::WRITE && action != Action::READ && action != Action::ERASE) return request;

  if (!ParseWord(*word++, 16, request.chip)) throw Refusal{"bad chip address"};
  if (action != Action::ERASE && !ParseWord(*word++, 10, request.size)) throw Refusal{"bad size"};
  if (!ParseWord(*word++, 16, request.offset)) throw Refusal{"bad offset"};
  if (action != Action::WRITE) return request;

  if (left() != (request.size + WORD_SIZE - 1) / WORD_SIZE) {
    throw Refusal{"the number of data words does not fit the size"};
  }
  for (; word != words.end(); ++word) {
    u_int32_t value = 0;
    if (!ParseWord(*word, 16, value)) throw Refusal{"bad data word"};
    request.data << value;
  }
  request.data.resize(request.size);
  return request;
}

Device& Fabric::Add(Device device) {
  const auto is_word = [](const std::string& text) {
    return !text.empty() && text.find_first_of(" \t\r\n{}") == std::string::npos;
  };
  if (!is_word(device.name) || !is_word(device.attr)) {
    throw std::invalid_argument("a device's name and attribute must each be one word");
  }
  if (device.port_guids.empty()) throw std::invalid_argument("a device must have a port");
  GuidSet guids(device.port_guids.begin(), device.port_guids.end());
  if (guids.size() != device.port_guids.size()) {
    throw std::invalid_argument("two ports with one GUID");
  }
  guids.insert(device.node_guid);
  for (const Guid guid : guids) {
    if (_node_of.contains(guid)) {
      throw std::invalid_argument("GUID " + HexGuid(guid) + " stands for two devices");
    }
  }
  for (const auto& [address, chip] : device.chips) {
    if (chip.IsFlash() != (device.kind == MemoryKind::FLASH)) {
      throw std::invalid_argument("a chip of the other kind of memory");
    }
  }
  if (device.kind == MemoryKind::FLASH && (device.chips.size() != 1 || !device.chips.contains(0))) {
    throw std::invalid_argument("a flash is one chip, at address 0");
  }
  for (const Guid guid : guids) _node_of[guid] = device.node_guid;
  return _devices.try_emplace(device.node_guid, std::move(device)).first->second;
}

void Fabric::CopyDevice(const Device& device) {
  Device copy;
  copy.node_guid = device.node_guid;
  copy.port_guids = device.port_guids;
  copy.sys_guid = device.sys_guid;
  copy.declared_ports = device.declared_ports;
  copy.name = device.name;
  copy.attr = device.attr;
  copy.vsd = device.vsd;
  copy.bsn = device.bsn;
  copy.kind = device.kind;
  copy.has_power = device.has_power;
  copy.images = device.images;
  for (const auto& [address, chip] : device.chips) {
    Chip& twin =
        copy.chips
            .try_emplace(address, Chip(std::make_unique<Cells>(chip.Size()), chip.SectorSize()))
            .first->second;
    twin.Load(0, chip.Bytes());
  }
  Add(std::move(copy));
}

Device* Fabric::Find(Guid guid) {
  const auto node = _node_of.find(guid);
  return node == _node_of.end() ? nullptr : &_devices.at(node->second);
}

std::string Fabric::ListDevices() const {
  std::string list;
  int lid = 0;
  for (const auto& [node_guid, device] : _devices) {
    ++lid;
    if (!device.has_power) continue;
    for (std::size_t port = 0; port < device.port_guids.size(); ++port) {
      if (!list.empty()) list += " ";
      list += Text("{device ", lid, " ", port + 1, " ", HexGuid(device.sys_guid), " ",
                   HexGuid(node_guid), " ", HexGuid(device.port_guids[port]), " ",
                   device.declared_ports, " ", device.name, " ", device.attr, "}");
    }
  }
  return list;
}

void Fabric::CheckCounts(const Request& request) const {
  u_int32_t multi_max = 0;
  // A server that answers nonsense for its maximum has none.
  if (ParseWord(std::string_view(facts.multi_max), 10, multi_max) && request.count > multi_max) {
    throw Refusal{"more devices than the server takes at once"};
  }
  if (request.command->head.ends_with("Multi") && request.count == 0) {
    throw Refusal{"no devices"};
  }
}

Reply Fabric::Execute(const std::string& text) {
  Reply reply;
  try {
    const Request request = Parse(text);
    _fault = faults.Match(request.head, request.guids);
    const auto fires = [this](Fault::Kind kind) { return _fault && _fault->kind == kind; };
    if (fires(Fault::SILENCE)) {
      reply.manner = Reply::SILENCE;
      return reply;
    }
    if (fires(Fault::ANSWER)) {
      reply.text = _fault->text;
      return reply;
    }
    if (fires(Fault::POWER_OFF)) {
      Device* device = _fault->device          ? Find(*_fault->device)
                       : request.guids.empty() ? nullptr
                                               : Find(request.guids.front());
      if (device) device->has_power = false;
    }
    CheckCounts(request);
    reply = Run(request);
    if (fires(Fault::DELAY)) reply.milliseconds = _fault->milliseconds;
    if (fires(Fault::CLOSE_BEFORE)) reply.manner = Reply::CLOSE_BEFORE;
    if (fires(Fault::CLOSE_INSIDE)) reply.manner = Reply::CLOSE_INSIDE;
    if (fires(Fault::CLOSE_AFTER)) reply.manner = Reply::CLOSE_AFTER;
    if (fires(Fault::RESET)) reply.manner = Reply::RESET;
  } catch (const Refusal& refusal) {
    reply.text = "ERROR:" + refusal.reason;
  }
  return reply;
}

Reply Fabric::Run(const Request& request) {
  Reply reply;
  switch (request.command->action) {
    case Action::MULTI_MAX:
      reply.text = facts.multi_max;
      return reply;
    case Action::VERSION:
      reply.text = facts.ifc_version;
      return reply;
    case Action::LIST:
      reply.text = ListDevices();
      return reply;
    default:
      break;
  }
  std::vector<std::string> elements;
  GuidVec willing;  // the devices that took the request
  for (const Guid guid : request.guids) {
    const bool is_hit = _fault && (_fault->device ? *_fault->device == guid : elements.empty());
    Device* device = Find(guid);
    if (device == nullptr) {
      elements.push_back(Error(guid, "No such device"));
    } else if (!device->has_power) {
      elements.push_back(Error(guid, "Device does not respond"));
    } else if (is_hit && _fault->kind == Fault::DEVICE_ERROR) {
      elements.push_back(Error(guid, _fault->text));
    } else {
      const Fault* fault = std::exchange(_fault, is_hit ? _fault : nullptr);
      try {
        elements.push_back(RunOn(request, *device));
        willing.push_back(guid);
      } catch (const Refusal& refusal) {
        elements.push_back(Error(guid, refusal.reason));
      }
      _fault = fault;
    }
  }
  if (request.command->action == Action::BURN && !willing.empty()) reply.burn_images = willing;
  if (_fault && _fault->kind == Fault::DROP_ELEMENT && !elements.empty()) elements.pop_back();
  if (_fault && _fault->kind == Fault::EXTRA_ELEMENT) elements.emplace_back("ACK");
  const bool is_alone = request.command->action == Action::BSN && elements.size() == 1;
  reply.text = is_alone ? elements.front() : Join(request, elements);
  return reply;
}

std::string Fabric::Join(const Request& request, const std::vector<std::string>& elements) {
  const bool may_be_a_word = request.command->action != Action::READ;
  const auto is_ack = [](const std::string& element) { return element == "ACK"; };
  // One word stands for all devices where each says the same word.
  if (may_be_a_word && elements.size() == request.guids.size() &&
      std::ranges::all_of(elements, is_ack)) {
    return "ACK";
  }
  std::string answer;
  for (const std::string& element : elements) {
    if (!answer.empty()) answer += " ";
    answer += may_be_a_word && is_ack(element) ? element : "{" + element + "}";
  }
  return answer;
}

std::string Fabric::RunOn(const Request& request, Device& device) {
  const Action action = request.command->action;
  if (request.command->memory && *request.command->memory != device.kind) {
    throw Refusal{device.kind == MemoryKind::FLASH ? "Device has a flash" : "Device has no flash"};
  }
  if (action == Action::VSD) {
    return "ACK" + DataWords("data", device.vsd, (device.vsd.size() + WORD_SIZE - 1) / WORD_SIZE,
                             WORD_SIZE);
  }
  if (action == Action::BSN) return "ACK" + DataWords("bsn", device.bsn, device.bsn.size(), 1);
  if (action == Action::ATTR) {
    const Chip& flash = device.chips.at(0);
    return Text("{sector_size=", std::hex, flash.SectorSize(), " size=", flash.Size(), "}");
  }
  if (action == Action::START || action == Action::STOP || action == Action::BURN) return "ACK";

  const auto found = device.chips.find(request.chip);
  if (found == device.chips.end()) throw Refusal{"No chip at this address"};
  Chip& chip = found->second;
  if (action == Action::ERASE) {
    if (!chip.Holds(request.offset, 1)) throw Refusal{"Address out of range"};
    if (request.offset % chip.SectorSize() != 0) throw Refusal{"Not the start of a sector"};
    Erase(device, request.chip, request.offset);
    return "ACK";
  }
  if (!chip.Holds(request.offset, request.size)) throw Refusal{"Address out of range"};
  if (action == Action::READ) {
    return "ACK" + DataWords("data", chip.Bytes().subspan(request.offset),
                             (request.size + WORD_SIZE - 1) / WORD_SIZE, WORD_SIZE);
  }
  Program(device, request.chip, request.offset, request.data);
  return "ACK";
}

void Fabric::Program(Device& device, u_int8_t address, u_int32_t offset, DataVec bytes) {
  Chip& chip = device.chips.at(address);
  if (_fault && _fault->kind == Fault::WRITE_WRONG && !bytes.empty()) {
    Rng rng(_fault->seed);
    const std::size_t at = rng() % bytes.size();
    bytes[at] = static_cast<u_int8_t>(bytes[at] ^ (1u << rng() % 8));
  }
  if (observer) {
    observer({Operation::PROGRAM, device.node_guid, address, offset, bytes,
              static_cast<u_int32_t>(bytes.size())});
  }
  if (_fault && _fault->kind == Fault::CUT) {
    Rng rng(_fault->seed);
    chip.ProgramPart(offset, bytes, rng);
    device.has_power = false;
    throw Refusal{"Device does not respond"};
  }
  chip.Program(offset, bytes);
}

void Fabric::Erase(Device& device, u_int8_t address, u_int32_t offset) {
  Chip& chip = device.chips.at(address);
  if (observer) {
    observer({Operation::ERASE, device.node_guid, address, offset, {}, chip.SectorSize()});
  }
  if (_fault && _fault->kind == Fault::CUT) {
    Rng rng(_fault->seed);
    chip.ErasePart(offset, rng);
    device.has_power = false;
    throw Refusal{"Device does not respond"};
  }
  chip.EraseSector(offset);
}

}  // namespace sim
