#include "RomInterface.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <utility>

using BraidConn::Response;

namespace {

constexpr double REQUIRED_IFC_VERSION = 2.2;
constexpr std::size_t WORD_SIZE = 4;
constexpr u_int32_t NO_ERASE_YET = 0xFFFFFFFF;

struct ServerRow {
  std::string_view word;
  ServerType type;
};
constexpr auto SERVERS = std::to_array<ServerRow>({
    {"I2C", I2C},
    {"PCI", PCI},
    {"PPC", PPC},
    {"IB", IB},
});

/// The command name of each kind of operation: prefix, whether the word for the memory follows,
/// command word.
struct CommandRow {
  std::string_view prefix;
  bool names_memory;
  std::string_view command;
};
constexpr auto COMMANDS = std::to_array<CommandRow>({
    {"vs", true, "Write"},        // WRITE
    {"vs", true, "Read"},         // READ
    {"vs", true, "EraseSector"},  // ERASE
    {"vs", true, "Start"},        // START
    {"vs", true, "Stop"},         // STOP
    {"vs", true, "BurnImage"},    // BURNIMAGE
    {"cr", false, "BSNGet"},      // GETBSN
    {"vs", false, "GetVsd"},      // GETVSD
    {"vs", true, "GetAttr"},      // GETATTR
});

void AppendDecimal(std::string& text, u_int64_t value) { text += std::to_string(value); }

/// Appends "0x" and `value` in hexadecimal, padded with zeros to `digits`.
void AppendHex(std::string& text, u_int64_t value, std::size_t digits = 0) {
  char buffer[16];
  const char* end = std::to_chars(std::begin(buffer), std::end(buffer), value, 16).ptr;
  const auto length = static_cast<std::size_t>(end - buffer);
  text += "0x";
  if (length < digits) text.append(digits - length, '0');
  text.append(buffer, length);
}

/// Fast path for the usual form of an element, "ACK {data 0x1} {data 0x2}": one blank between
/// words, "0x" and at most 8 digits. Appends the data to `out`. For any other form it returns false
/// and does not change `out`.
bool GatherPlainData(std::string_view element, DataVec& out, bool bsn) {
  const std::string_view head = bsn ? " {bsn 0x" : " {data 0x";
  constexpr std::size_t MOST_DIGITS = 8;
  const std::size_t before = out.size();
  const std::size_t width = bsn ? 1 : WORD_SIZE;
  std::size_t at = element.find_first_of(" \t\n\v\f\r{}");
  if (at == 0) return false;
  if (at == std::string_view::npos) return true;  // one word: no data
  // Room for the maximum; the surplus is removed at the end.
  out.resize(before + (element.size() - at) / (head.size() + 2) * width + width);
  u_int8_t* next = out.data() + before;
  while (at < element.size()) {
    if (element.compare(at, head.size(), head) != 0) break;
    at += head.size();
    u_int32_t value = 0;
    std::size_t digits = 0;
    for (; at < element.size() && digits <= MOST_DIGITS; ++at, ++digits) {
      const u_int8_t digit = HexDigit(element[at]);
      if (digit > 15) break;
      value = value << 4 | digit;
    }
    if (digits == 0 || digits > MOST_DIGITS || at == element.size() || element[at] != '}') break;
    ++at;
    for (std::size_t i = width; i > 0; --i) *next++ = static_cast<u_int8_t>(value >> 8 * (i - 1));
    if (at == element.size()) {
      out.resize(static_cast<std::size_t>(next - out.data()));
      return true;
    }
  }
  out.resize(before);
  return false;
}

/// The big-endian word at the start of `bytes`. Missing bytes are 0xFF, as in erased memory.
u_int32_t FirstWord(std::span<const u_int8_t> bytes) {
  if (bytes.size() >= WORD_SIZE) {
    return u_int32_t{bytes[0]} << 24 | u_int32_t{bytes[1]} << 16 | u_int32_t{bytes[2]} << 8 |
           bytes[3];
  }
  u_int32_t word = 0;
  for (std::size_t i = 0; i < WORD_SIZE; ++i)
    word = word << 8 | (i < bytes.size() ? bytes[i] : 0xFF);
  return word;
}

constexpr auto HEX_PAIRS = [] {
  std::array<std::array<char, 2>, 256> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    pairs[i] = {"0123456789abcdef"[i / 16], "0123456789abcdef"[i % 16]};
  }
  return pairs;
}();

/// Appends the first `size` bytes of `data` as words, each "0x", its digits and a blank. Optimised:
/// most of the bytes that a burn sends come from here.
void AppendWords(std::string& text, std::span<const u_int8_t> data, std::size_t size) {
  constexpr std::size_t LONGEST = 11;  // "0x", 8 digits, a blank
  const std::size_t before = text.size();
  text.resize(before + (size + WORD_SIZE - 1) / WORD_SIZE * LONGEST);
  char* next = text.data() + before;
  for (std::size_t done = 0; done < size; done += WORD_SIZE) {
    const u_int32_t word = FirstWord(data.subspan(done));
    char digits[8];
    for (std::size_t i = 0; i < WORD_SIZE; ++i) {
      std::memcpy(digits + 2 * i, HEX_PAIRS[word >> (24 - 8 * i) & 0xFF].data(), 2);
    }
    const auto zeros = static_cast<std::size_t>(std::countl_zero(word | 1) / 4);
    *next++ = '0';
    *next++ = 'x';
    std::memcpy(next, digits + zeros, sizeof(digits) - zeros);
    next += sizeof(digits) - zeros;
    *next++ = ' ';
  }
  text.resize(static_cast<std::size_t>(next - text.data()));
}

}  // namespace

BraidResult RomInterface::WriteNoErase(u_int32_t addr, const DataVec& data) {
  return Write(addr, data, false);
}

u_int32_t RomInterface::GetSectorSize() {
  ThrowError("GetSectorSize - Not implemented for interface " + _ifc_name + ".");
}

BraidResult RomInterface::InitResults() {
  const auto is_for = [](const auto& entry, Guid guid) { return entry.first == guid; };
  if (std::equal(_last_result.begin(), _last_result.end(), _active_devs.begin(), _active_devs.end(),
                 is_for)) {
    for (auto& [guid, result] : _last_result) {
      result._error = false;
      result._error_des.clear();
      result._data.clear();
    }
    return BRAID_OK;
  }
  _last_result.clear();
  for (const Guid guid : _active_devs) {
    _last_result.emplace_hint(_last_result.end(), guid, Result(guid));
  }
  return BRAID_OK;
}

const RomInterface::Result* RomInterface::LastActionResult(const Guid& g) const {
  const auto found = _last_result.find(g);
  return found == _last_result.end() ? nullptr : &found->second;
}

BraidResult RomInterface::DeviceError(const std::string& des, Guid g) {
  if (g != 0 && !_active_devs.contains(g)) {
    ThrowError(Text("DeviceError(): 0x", std::hex, g, ": No such device. (error: ", des, ")."));
  }
  PrintBurnError(des, g);
  _error_des[g] = des;
  _active_devs.erase(g);
  ActiveDevicesChanged();
  _access_devs.erase(g);
  _error_devs.insert(g);
  if (g == 0 || _access_devs.empty()) ThrowError("No more accessible devices");
  return BRAID_OK;
}

BraidResult RomInterface::SetAccessDevices(const GuidSet& devs) {
  _access_devs = devs;
  _active_devs = devs;
  ActiveDevicesChanged();
  return BRAID_OK;
}

BraidResult RomInterface::SetActiveDevices() {
  _active_devs = _access_devs;
  ActiveDevicesChanged();
  return BRAID_OK;
}

BraidResult RomInterface::SetActiveDevices(Guid g) {
  GuidSet one{g};
  return SetActiveDevices(one);
}

BraidResult RomInterface::SetActiveDevices(GuidSet& devs) {
  _active_devs.clear();
  ActiveDevicesChanged();
  std::ostringstream strange;
  for (const Guid guid : devs) {
    if (_access_devs.contains(guid) || _error_devs.contains(guid)) continue;
    strange << "0x" << std::hex << std::setw(16) << std::setfill('0') << guid << " ";
  }
  if (strange.tellp() > 0) {
    // The message ends in an address, not in the GUIDs: its form is fixed.
    ThrowError(
        Text("Internal Error: RomInterface::SetActiveDevices() : Tried to set unknown guids: ",
             static_cast<const void*>(&strange)));
  }
  std::erase_if(devs, [this](Guid guid) { return !_access_devs.contains(guid); });
  _active_devs = devs;
  return BRAID_OK;
}

BraidResult RomInterface::GetField(Guid g, FieldType type, DataVec& out) {
  const auto found = _devs_data.find(g);
  if (found == _devs_data.end()) {
    ThrowError(Text("RomInterface::GetField() : Tried to get field ", static_cast<int>(type),
                    " for non existing device 0x", g, "."));
  }
  const DeviceData& device = *found->second;
  switch (type) {
    case GUIDS: {
      const std::size_t ports = device.port_guids.size();
      if (ports != device.ports_num) {
        ThrowError(Text("Internal Error: Device ", std::hex, device.node_guid, " declares ",
                        device.ports_num, " ports, but ", ports,
                        " port guids are detected for it."));
      }
      if (ports != 1 && ports != 2) {
        ThrowError(Text("RomInterface::GetField(GUIDS) with port guids size of ", ports,
                        " (must be 1 or 2)."));
      }
      const Guid first_port = device.port_guids.front();
      const Guid second_port = ports == 2 ? device.port_guids.back() : first_port + 1;
      out << device.node_guid << first_port << second_port << device.sys_guid;
      return BRAID_OK;
    }
    case GUID:
      out << device.node_guid;
      return BRAID_OK;
    case SYS_GUID:
      out << device.sys_guid;
      return BRAID_OK;
    case BSN:
      return GetBsn(g, out);
    case VSD:
      return GetVsd(g, out);
    default:
      ThrowError(Text("RomInterface::GetField() : Unknown field type: ", static_cast<int>(type)));
  }
}

GuidSet RomInterface::Query(u_int32_t addr, const DataVec& expected, Comparison cmp, bool want) {
  Read(addr, static_cast<u_int32_t>(expected.size()));
  GuidSet answer;
  for (const auto& [guid, result] : _last_result) {
    Debug() << "Querying device " << std::hex << guid << ", addr " << addr << " size " << std::dec
            << expected.size() << std::endl;
    if (cmp(result._data, expected) == want) answer.insert(guid);
  }
  return answer;
}

std::ostream& operator<<(std::ostream& out, const ServerAccess& server) {
  const auto row = std::ranges::find(SERVERS, server.type, &ServerRow::type);
  if (row == SERVERS.end()) {
    out << "UNKNOWN";
  } else {
    out << row->word << ":";
  }
  return out << server.ip << ":" << std::dec << server.port;
}

RemoteRomInterface::RemoteRomInterface(const std::string& ifc_name, RomType type,
                                       u_int32_t log2_chunk_align, double req_ifc_version)
    : RomInterface(ifc_name),
      _rom_type(type),
      _log2_chunk_align(log2_chunk_align),
      _req_ifc_version(req_ifc_version) {}

BraidResult RemoteRomInterface::Open(const char* server) {
  ASSERT_ALWAYS(server != nullptr);
  _access = ParseServer(server);
  if (Connect() != BRAID_OK) return BRAID_ERROR;
  AskMultiMax();
  AskIfcVersion();
  return CheckAccess();
}

BraidResult RemoteRomInterface::Close() { return _socket.Close(); }

ServerAccess RemoteRomInterface::ParseServer(const std::string& server) {
  const std::vector<std::string> fields = splitv(server, ":", false);
  if (fields.size() != 3) {
    ThrowError("Given server must be in a TYPE:IP:PORT format (Got " + server + ").");
  }
  const auto row = std::ranges::find(SERVERS, fields[0], &ServerRow::word);
  if (row == SERVERS.end()) {
    ThrowError("Internal Error: Trying to burn using RemoteI2cInterface  when Server = " + server +
               ".");
  }
  char* end = nullptr;
  const long long port = std::strtoll(fields[2].c_str(), &end, 10);
  if (end != fields[2].c_str() + fields[2].size()) {
    ThrowError("Bad port format (" + fields[2] + ").");
  }
  // Connect refuses a number that is no port and reports it. A number that does not fit an int
  // would be reported as another one.
  if (!std::in_range<int>(port)) {
    ThrowError("Failed connecting to " + fields[1] + ":" + fields[2] + " .");
  }
  return ServerAccess{row->type, fields[1], static_cast<int>(port)};
}

void RemoteRomInterface::AskMultiMax() {
  const Response answer = Exchange("vsMultiMaxGet");
  if (answer.GotErr() || answer.empty() || !ParseNumber(answer, 10, _multi_max)) {
    Debug() << "RemoteRomInterface::Open() " << _access
            << ": Error quering vsMultiMaxGet. Using 1. Received : " << answer << std::endl;
    _multi_max = 1;
  }
}

void RemoteRomInterface::AskIfcVersion() {
  const Response answer = Exchange("IfcVersion");
  char* end = nullptr;
  _srv_ifc_version = std::strtod(answer.c_str(), &end);
  if (answer.GotErr() || answer.empty() || end != answer.c_str() + answer.size()) {
    ThrowError(Text("Server ", _access, ": Cant get interface version. Got: ", answer));
  }
  // Written this way, NaN is refused.
  if (!(_srv_ifc_version >= _req_ifc_version)) {
    ThrowError(Text(_access, " interface version is ", _srv_ifc_version,
                    ". The required version is ", _req_ifc_version,
                    " or above. Please update BRAID on the remote machine."));
  }
  Debug() << "Interface verson of server " << _access << ": " << _srv_ifc_version << std::endl;
}

BraidResult RemoteRomInterface::CheckAccess() {
  InitResults();
  const Response answer = Exchange("NsGetDeviceByType device");
  if (answer.GotErr()) {
    ThrowError(Text("Failed checking access through server ", _access, ". ", answer.Error()));
  }
  // The whole answer must be a list before any record is added. The records are processed one by
  // one as views: a fabric may be large.
  BraidConn::TclSplit(answer, [](std::string_view) {});
  BraidConn::TclSplit(
      answer, [this](std::string_view record) { AddDeviceRecord(Response(std::string(record))); });

  std::size_t found = 0;
  for (auto& [guid, result] : _last_result) {
    if (_devs_data.exists(guid)) {
      result._error = false;
      ++found;
    } else {
      result._error_des = Text("Device not accessible by server ", _access, " .");
      DeviceError(result._error_des, guid);
    }
  }
  if (_last_result.empty()) return BRAID_ERR_SOME;
  if (found == _last_result.size()) return BRAID_OK;
  return found == 0 ? BRAID_ERR_ALL : BRAID_ERR_SOME;
}

BraidResult RemoteRomInterface::AddDeviceRecord(const Response& record) {
  std::istringstream fields(record);
  std::string unused;
  int lid_port = 0;
  char prefix[2];
  Guid sys_guid = 0;
  Guid node_guid = 0;
  Guid port_guid = 0;
  u_int32_t ports_num = 0;
  std::string name;
  std::string attr;
  fields >> unused >> unused >> lid_port;
  for (Guid* guid : {&sys_guid, &node_guid, &port_guid}) {
    fields >> prefix[0] >> prefix[1] >> std::hex >> *guid;
  }
  fields >> std::dec >> ports_num >> name >> attr;
  if (!fields) ThrowError("Bad device record format: " + record);

  if (const auto known = _devs_data.find(node_guid); known != _devs_data.end()) {
    // The record is of another port of a known device.
    const std::shared_ptr<DeviceData> device = known->second;
    if (!_devs_data.exists(port_guid)) {
      device->port_guids.push_back(port_guid);
      _devs_data[port_guid] = device;
    }
    if (device->ports_num != ports_num) {
      ThrowError(Text("Inconsistent ports num report for device ", std::hex, node_guid,
                      " Current = ", device->ports_num, ". Received record: \"", record, "\" ."));
    }
    return BRAID_OK;
  }
  const auto device = std::make_shared<DeviceData>(node_guid);
  device->sys_guid = sys_guid;
  device->port_guids.push_back(port_guid);
  device->ports_num = ports_num;
  device->name = name;
  device->attr = attr;
  _devs_data[node_guid] = device;
  _devs_data[port_guid] = device;
  return BRAID_OK;
}

BraidResult RemoteRomInterface::Connect() { return _socket.Connect(_access.ip, _access.port); }

void RemoteRomInterface::CheckNoSurplus() const {
  if (_socket.HasSurplus()) {
    ThrowError(Text("Error accessing to ", _access, ": Got an answer that nobody asked for."));
  }
}

Response RemoteRomInterface::ExchangeText(const std::string& text) {
  CheckNoSurplus();
  _socket.Respond(text);
  Response answer;
  _socket.Receive(answer);
  return answer;
}

Response RemoteRomInterface::Exchange(const std::string& request) {
  CheckNoSurplus();
  _socket.Request(request);
  Response answer;
  _socket.Receive(answer);
  return answer;
}

const char* RemoteRomInterface::RomType2Str() const {
  switch (_rom_type) {
    case I2C_ROM:
      return "I2c";
    case FLASH_ROM:
      return "Flash";
    default:
      return "Unknown";
  }
}

BraidResult RemoteRomInterface::GenBaseRequest(OpType op, std::string& req) {
  if (static_cast<std::size_t>(op) >= COMMANDS.size()) {
    ThrowError(Text("Internal error: RemoteRomInterface::GenBaseRequest() : Unknown op type: ",
                    static_cast<int>(op)));
  }
  const CommandRow& row = COMMANDS[op];
  req = row.prefix;
  if (row.names_memory) req += RomType2Str();
  req += row.command;
  if (op != GETBSN) {
    req += "Multi ";
    AppendDecimal(req, _active_devs.size());
  } else if (_active_devs.size() > 1) {
    ThrowError(Text("Fatal Error - Tried to run a single target command ", row.command,
                    " whith more than 1 active devices (", _active_devs.size(), ")"));
  }
  req += " ";
  if (_listed_version != _active_version) {
    _active_list.clear();
    for (const Guid guid : _active_devs) {
      AppendHex(_active_list, guid, 16);
      _active_list += " ";
    }
    _listed_version = _active_version;
  }
  req += _active_list;
  return BRAID_OK;
}

void RemoteRomInterface::ThrowCommandError(const std::string& reason, u_int32_t line) const {
  // The quotes stay empty: the form of the message is fixed.
  ThrowError(Text(reason, " while performing command '' to server ", _access, " ."),
             __builtin_FILE(), line);
}

BraidResult RemoteRomInterface::GenRwRequest(OpType op, u_int32_t addr, u_int32_t size,
                                             std::span<const u_int8_t> data, std::string& req) {
  GenBaseRequest(op, req);
  if (_conv == nullptr) ThrowCommandError("Address convertor not initiated");
  if (_active_devs.size() > _multi_max) {
    ThrowCommandError(Text("Multi max violation. Server capability: ", _multi_max,
                           " devices. Trying to access ", _active_devs.size(), " devices"));
  }
  const EeLoc loc = static_cast<const AddressConvertor*>(_conv)->Convert(addr);
  AppendHex(req, loc.dev);
  req += " ";
  if (op != ERASE) {
    AppendDecimal(req, size);
    req += " ";
  }
  AppendHex(req, loc.offset);
  req += " ";
  if (op != WRITE) return BRAID_OK;
  AppendWords(req, data, size);
  return BRAID_OK;
}

BraidResult RemoteRomInterface::ProcessResponse(OpType op, const Response& resp) {
  if (op == WRITE && resp == "ACK") {
    for (auto& [guid, result] : _last_result) result._error = false;
    return BRAID_OK;
  }
  _fresh_version = 0;
  if (resp.GotErr()) {
    for (auto& [guid, result] : _last_result) {
      result._error = true;
      result._error_des = resp.Error();
      DeviceError(result._error_des, 0);  // ends the run
    }
    return BRAID_ERR_ALL;
  }

  // The answer to GETBSN is not a list: it is the element of the one device.
  const std::size_t wanted = _active_devs.size();
  std::size_t count = 0;
  _elements.clear();
  const auto take = [&](std::string_view element) {
    if (count++ < wanted) _elements.push_back(element);
  };
  if (op == GETBSN) {
    take(resp);
  } else {
    BraidConn::TclSplit(resp, take);
  }
  if (count != wanted) {
    ThrowError(Text("Error accessing to ", _access, ": Tried to access ", wanted,
                    " devices, got response for ", count, " devices. Response: ", resp));
  }
  bool any_error = false;
  auto element = _elements.begin();
  auto next_result = _last_result.begin();
  for (const Guid guid : _active_devs) {
    Result& result = ResultOf(guid, next_result);
    if (BraidConn::TellsError(*element)) {
      result._error = true;
      result._error_des = Response(std::string(*element)).Error();
      any_error = true;
    } else if (op == READ || op == GETBSN) {
      GatherData(*element, result._data, op == GETBSN);
    }
    ++element;
  }
  if (!any_error) return BRAID_OK;
  for (const auto& [guid, result] : _last_result) {
    if (result._error) DeviceError(result._error_des, guid);
  }
  return BRAID_ERR_SOME;
}

RomInterface::Result& RemoteRomInterface::ResultOf(Guid guid, kmap<Guid, Result>::iterator& next) {
  if (next == _last_result.end() || next->first != guid) {
    next = _last_result.try_emplace(guid, Result(guid)).first;
  }
  return next++->second;
}

void RemoteRomInterface::FreshResults() {
  if (_fresh_version == _active_version) return;
  InitResults();
  _fresh_version = _active_version;
}

BraidResult RemoteRomInterface::GatherData(std::string_view element, DataVec& out, bool bsn) {
  if (GatherPlainData(element, out, bsn)) return BRAID_OK;
  const std::string_view key = bsn ? "bsn" : "data";
  std::vector<std::string_view> words;
  std::vector<std::string_view> parts;
  BraidConn::TclSplit(element, words);
  for (std::size_t i = 1; i < words.size(); ++i) {
    BraidConn::TclSplit(words[i], parts);
    if (parts.size() != 2 || !parts[0].starts_with(key)) continue;
    u_int32_t value = 0;
    if (!ParseNumber(std::string(parts[1]), 16, value)) {
      ThrowError(Text("Fatal Error: Failed extracting data out of response: \"", words[i], "\" ."));
    }
    if (bsn) {
      out << static_cast<u_int8_t>(value);
    } else {
      out << value;
    }
  }
  return BRAID_OK;
}

BraidResult RemoteRomInterface::Read(u_int32_t addr, u_int32_t size) {
  FreshResults();
  if (_active_devs.empty() || size == 0) return BRAID_OK;
  GenRwRequest(READ, addr, size, {}, _request);
  return ProcessResponse(READ, Exchange(_request));
}

BraidResult RemoteRomInterface::WriteInternal(u_int32_t addr, u_int32_t size,
                                              std::span<const u_int8_t> data) {
  FreshResults();
  if (_active_devs.empty()) return BRAID_OK;
  GenRwRequest(WRITE, addr, size, data, _request);
  const Response answer = Exchange(_request);
  // The Results are empty, which means success. Nothing to update for a plain ACK.
  return answer == "ACK" ? BRAID_OK : ProcessResponse(WRITE, answer);
}

BraidResult RemoteRomInterface::WriteChunks(u_int32_t addr, const DataVec& data, bool erase_first,
                                            bool verify) {
  constexpr u_int64_t ADDRESS_SPACE = u_int64_t{1} << 32;
  if (addr + u_int64_t{data.size()} > ADDRESS_SPACE) {
    ThrowError(Text("Writing ", data.size(), " bytes at address ", std::hex, addr,
                    " would reach past the last address."));
  }
  const u_int64_t boundary = u_int64_t{1} << _log2_chunk_align;
  std::span<const u_int8_t> rest = data;
  while (!rest.empty()) {
    const auto size =
        static_cast<u_int32_t>(std::min<u_int64_t>(rest.size(), boundary - addr % boundary));
    if (erase_first) Erase(addr, size);
    // The result is not needed: devices that fail are no longer active, the others go on.
    WriteInternal(addr, size, rest);
    if (verify) VerifyWrittenData(addr, rest.first(size));
    if (_progress) _progress->Add(size);
    addr += size;
    rest = rest.subspan(size);
  }
  return BRAID_OK;
}

BraidResult RemoteRomInterface::VerifyWrittenData(u_int32_t addr,
                                                  std::span<const u_int8_t> written) {
  Read(addr, static_cast<u_int32_t>(written.size()));
  BraidResult outcome = BRAID_OK;
  const GuidSet visited = _active_devs;  // a copy: DeviceError changes the set
  for (const Guid guid : visited) {
    Result& result = _last_result.at(guid);
    const auto [wrote, read] =
        std::ranges::mismatch(written, std::span<const u_int8_t>(result._data));
    if (wrote != written.end()) {
      std::ostringstream text;
      text << "Error verifying data on address " << std::hex << addr + (wrote - written.begin())
           << ". Wrote " << u_int32_t{*wrote} << ", read ";
      if (read != std::span<const u_int8_t>(result._data).end()) {
        text << u_int32_t{*read} << " .";
      } else {
        text << "nothing .";
      }
      result._error = true;
      result._error_des = text.str();
      outcome = BRAID_ERR_SOME;
      DeviceError(result._error_des, guid);
    }
    result._data.clear();
  }
  return outcome;
}

BraidResult RemoteRomInterface::GetVsd(const Guid& g, DataVec& out) {
  return GetDeviceBytes(g, GETVSD, READ, out);
}

BraidResult RemoteRomInterface::GetBsn(const Guid& g, DataVec& out) {
  return GetDeviceBytes(g, GETBSN, GETBSN, out);
}

BraidResult RemoteRomInterface::GetDeviceBytes(Guid g, OpType request_op, OpType answer_op,
                                               DataVec& out) {
  GuidSet saved = _active_devs;
  SetActiveDevices(g);
  InitResults();
  if (!_active_devs.empty()) {
    std::string req;
    GenBaseRequest(request_op, req);
    const BraidResult result = ProcessResponse(answer_op, Exchange(req));
    if (result != BRAID_OK) return result;
    out = _last_result.at(g)._data;
  }
  return SetActiveDevices(saved);
}

BraidResult RemoteRomInterface::BurnImage(const std::string& text) {
  if (_active_devs.empty()) return InitResults();
  std::string req;
  GenBaseRequest(BURNIMAGE, req);
  const Response agreement = Exchange(req);
  Debug() << "Received " << agreement << std::endl;
  ProcessResponse(WRITE, agreement);
  ProcessResponse(WRITE, ExchangeText(text));
  return BRAID_OK;
}

RemoteFlashInterface::RemoteFlashInterface(u_int32_t log2_chunk_align)
    : RemoteRomInterface("Remote Flash", FLASH_ROM, log2_chunk_align, REQUIRED_IFC_VERSION),
      _last_erase_address(NO_ERASE_YET) {}

BraidResult RemoteFlashInterface::Open(const char* server) {
  if (RemoteRomInterface::Open(server) != BRAID_OK) return BRAID_ERROR;
  return InitAttributes();
}

BraidResult RemoteFlashInterface::InitAttributes() {
  if (_active_devs.size() != 1) {
    ThrowError(Text("Tried to GetSectorSize() for ", _active_devs.size(),
                    " devices. GetSectorSize() is currently supported for 1 device only."));
  }
  InitResults();
  std::string req;
  GenBaseRequest(GETATTR, req);
  const Response answer = Exchange(req);
  if (ProcessResponse(GETATTR, answer) != BRAID_OK) return BRAID_ERROR;

  kmap<std::string, u_int32_t> attributes;
  // One element for the one device. It contains one list of words.
  const std::vector<Response> lists = answer.TclSplit().front().TclSplit();
  const Response list = lists.empty() ? Response() : lists.front();
  for (const std::string& word : splitv(list, " ", false)) {
    const std::vector<std::string> parts = splitv(word, "=", false);
    if (parts.size() != 2) {
      ThrowError("Internal Error: Bad format of Attribute response: " + word +
                 ". Full response: " + answer + " .");
    }
    if (!ParseNumber(parts[1], 16, attributes[parts[0]])) {
      ThrowError("Internal Error: Expected numeric value in Attribute response: " + answer + ".");
    }
  }
  _sector_size = attributes["sector_size"];
  _flash_size = attributes["size"];
  Debug() << "Flash size: " << std::hex << _flash_size << ", sector size: " << _sector_size << "."
          << std::endl;
  return BRAID_OK;
}

BraidResult RemoteFlashInterface::Start() { return start_stop(true); }

BraidResult RemoteFlashInterface::Stop() { return start_stop(false); }

BraidResult RemoteFlashInterface::start_stop(bool start) {
  if (_active_devs.empty()) return InitResults();
  std::string req;
  GenBaseRequest(start ? START : STOP, req);
  if (start) req += " 1";
  return ProcessResponse(WRITE, Exchange(req));
}

BraidResult RemoteFlashInterface::Write(u_int32_t addr, const DataVec& data, bool erase) {
  return WriteChunks(addr, data, erase, false);
}

BraidResult RemoteFlashInterface::Erase(u_int32_t addr, u_int32_t size) {
  if (_active_devs.empty()) {
    // The sector is not erased on the devices that are addressed next.
    _last_erase_address = NO_ERASE_YET;
    return InitResults();
  }
  if (size == 0) return BRAID_OK;
  if (_sector_size == 0) {
    ThrowError(Text("RemoteFlashInterface::Erase() : Can't erase address ", std::hex, addr,
                    ", the flash sector size is unknown."));
  }
  const u_int32_t sector = addr / _sector_size;
  // WriteChunks calls this for every chunk; each sector must be erased only once.
  if (_last_erase_address != NO_ERASE_YET && _last_erase_address / _sector_size == sector &&
      (addr + size - 1) / _sector_size == sector) {
    return BRAID_OK;
  }
  if (addr % _sector_size != 0) {
    ThrowError(Text("RemoteFlashInterface::Erase() : Trying to erase address ", std::hex, addr,
                    ", not aligned to flash sector size (", _sector_size, ")."));
  }
  const u_int32_t sectors = (size - 1) / _sector_size + 1;
  for (u_int32_t i = 0; i < sectors; ++i) {
    EraseSector(addr + i * _sector_size);
    _last_erase_address = addr;
  }
  return BRAID_OK;
}

BraidResult RemoteFlashInterface::EraseSector(u_int32_t addr) {
  if (_active_devs.empty()) return InitResults();
  std::string req;
  GenRwRequest(ERASE, addr, 0, {}, req);
  return ProcessResponse(WRITE, Exchange(req));
}

u_int32_t RemoteFlashInterface::GetSectorSize() { return _sector_size; }

RemoteI2cInterface::RemoteI2cInterface(u_int32_t log2_chunk_align)
    : RemoteRomInterface("Remote I2C", I2C_ROM, log2_chunk_align, REQUIRED_IFC_VERSION) {}

BraidResult RemoteI2cInterface::Write(u_int32_t addr, const DataVec& data, bool) {
  // Servers of the other types verify writes themselves.
  return WriteChunks(addr, data, true, _access.type == I2C);
}
