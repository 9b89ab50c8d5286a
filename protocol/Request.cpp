#include "protocol/Request.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "common/Text.h"

namespace protocol {

namespace {

constexpr auto COMMANDS = std::to_array<Command>({
    {"vsMultiMaxGet", Action::MULTI_MAX, {}, 0},
    {"IfcVersion", Action::VERSION, {}, 0},
    {"NsGetDeviceByType", Action::LIST, {}, 1},
    {"vsFlashWriteMulti", Action::WRITE, Memory::FLASH, 3},
    {"vsI2cWriteMulti", Action::WRITE, Memory::EEPROM, 3},
    {"vsFlashReadMulti", Action::READ, Memory::FLASH, 3},
    {"vsI2cReadMulti", Action::READ, Memory::EEPROM, 3},
    {"vsFlashEraseSectorMulti", Action::ERASE, Memory::FLASH, 2},
    {"vsFlashStartMulti", Action::START, Memory::FLASH, 1},
    {"vsFlashStopMulti", Action::STOP, Memory::FLASH, 0},
    {"vsFlashBurnImageMulti", Action::BURN, Memory::FLASH, 0},
    {"vsI2cBurnImageMulti", Action::BURN, Memory::EEPROM, 0},
    {"vsFlashGetAttrMulti", Action::ATTRIBUTES, Memory::FLASH, 0},
    {"vsGetVsdMulti", Action::VSD, {}, 0},
    {"crBSNGet", Action::BSN, {}, 0},
});

/// Reads a word as a number in base 10, or in base 16 with "0x" before it. False where any of the
/// word is left over.
template <typename Number>
bool ParseWord(std::string_view word, int base, Number& number) {
  if (base == 16) {
    if (!word.starts_with("0x")) return false;
    word.remove_prefix(2);
  }
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
  return error == std::errc() && end == word.data() + word.size();
}

void AppendWord(Bytes& bytes, std::uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(word >> shift));
  }
}

}  // namespace

std::span<const Command> Commands() { return COMMANDS; }

Request ParseRequest(std::string_view text) {
  const std::vector<std::string_view> words = common::Words(text);
  if (words.empty()) throw Refusal("empty request");
  const auto* command = std::ranges::find(COMMANDS, words[0], &Command::word);
  if (command == COMMANDS.end()) throw Refusal("unknown command");
  Request request;
  request.command = command;

  auto word = words.begin() + 1;
  const auto left = [&] { return static_cast<std::size_t>(words.end() - word); };
  const Action action = command->action;
  if (command->IsMulti()) {
    if (left() == 0 || !ParseWord(*word++, 10, request.count)) throw Refusal("bad device count");
  } else if (action == Action::BSN) {
    request.count = 1;
  }
  if (left() < request.count) throw Refusal("fewer devices than counted");
  for (std::uint32_t i = 0; i < request.count; ++i) {
    Guid guid = 0;
    if (!ParseWord(*word++, 16, guid)) throw Refusal("bad device GUID");
    request.devices.push_back(guid);
  }
  if (left() < command->arguments) throw Refusal("missing arguments");
  if (action != Action::WRITE && left() > command->arguments) throw Refusal("too many arguments");

  if (action == Action::LIST && *word != "device") throw Refusal("unknown type");
  if (action == Action::START && *word != "1") throw Refusal("bad start argument");
  if (action != Action::WRITE && action != Action::READ && action != Action::ERASE) return request;

  if (!ParseWord(*word++, 16, request.chip)) throw Refusal("bad chip address");
  if (action != Action::ERASE && !ParseWord(*word++, 10, request.size)) throw Refusal("bad size");
  if (!ParseWord(*word++, 16, request.offset)) throw Refusal("bad offset");
  if (action != Action::WRITE) return request;

  if (left() != (request.size + WORD_SIZE - 1) / WORD_SIZE) {
    throw Refusal("the number of data words does not fit the size");
  }
  for (; word != words.end(); ++word) {
    std::uint32_t value = 0;
    if (!ParseWord(*word, 16, value)) throw Refusal("bad data word");
    AppendWord(request.data, value);
  }
  request.data.resize(request.size);
  return request;
}

void CheckCount(const Request& request, std::string_view multi_max) {
  std::uint32_t most = 0;
  if (ParseWord(multi_max, 10, most) && request.count > most) {
    throw Refusal("more devices than the server takes at once");
  }
  if (request.command->IsMulti() && request.count == 0) throw Refusal("no devices");
}

}  // namespace protocol
