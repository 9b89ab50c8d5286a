#include "trials/Faults.h"

#include <algorithm>
#include <array>

#include "src/utils.h"

namespace faults {

namespace {

constexpr auto FAULTS = std::to_array<FaultRow>({
    {Fault::ERROR_ANSWER, "error-answer"},
    {Fault::TARGET_ERROR_ANSWER, "target-error-answer"},
    {Fault::ELEMENT_ERROR, "element-error"},
    {Fault::ELEMENT_TARGET_ERROR, "element-target-error"},
    {Fault::ONE_FEWER, "one-element-fewer"},
    {Fault::ONE_MORE, "one-element-more"},
    {Fault::EMPTY, "empty-answer"},
    {Fault::BRACE_OPEN, "brace-too-many-open"},
    {Fault::BRACE_CLOSED, "brace-too-many-closed"},
    {Fault::NOT_HEX, "not-hexadecimal"},
    {Fault::TOO_LITTLE, "too-little-data"},
    {Fault::TOO_MUCH, "too-much-data"},
    {Fault::NUL, "nul-byte"},
    {Fault::LONG_LINE, "long-line"},
    {Fault::LOST, "request-lost"},
    {Fault::CLOSE_BEFORE, "closed-before"},
    {Fault::CLOSE_INSIDE, "closed-inside"},
    {Fault::CLOSE_AFTER, "closed-after"},
    {Fault::RESET, "reset"},
    {Fault::BYTEWISE, "byte-by-byte"},
    {Fault::RETURNS, "carriage-returns"},
    {Fault::ONE_PIECE, "one-continuation"},
    {Fault::TWO_PIECES, "two-continuations"},
    {Fault::MANY_PIECES, "many-continuations"},
    {Fault::TWICE, "answered-twice"},
    {Fault::TWICE_LATE, "answered-twice-late"},
    {Fault::SILENCE, "silence"},
    {Fault::SILENCE_INSIDE, "silence-inside"},
});

/// What the server says to a name that an error element begins with.
std::string HexGuid(Guid guid) {
  return Text("0x", std::hex, std::setw(16), std::setfill('0'), guid);
}

bool IsNumber(Kind kind) { return kind == Kind::MULTI_MAX || kind == Kind::VERSION; }

/// The elements of a right answer, each with its braces.
std::vector<std::string> Elements(const Request& request) {
  // In braces: one bare ACK stands for all.
  if (request.kind == Kind::ACKED) {
    return std::vector<std::string>(request.devices.size(), "{ACK}");
  }
  if (request.kind == Kind::BSN) return {request.answer};
  std::vector<std::string> elements;
  int depth = 0;
  for (const char c : request.answer) {
    if (c == '{' && depth++ == 0) elements.emplace_back();
    if (depth > 0) elements.back() += c;
    if (c == '}') --depth;
  }
  return elements;
}

std::string Join(const std::vector<std::string>& elements) {
  std::string answer;
  for (const std::string& element : elements) answer += (answer.empty() ? "" : " ") + element;
  return answer;
}

/// Which element is the device's: for the list of devices, the first of its records.
std::size_t ElementOf(const Request& request, const std::vector<std::string>& elements,
                      Guid device) {
  if (request.kind == Kind::LIST) {
    const auto found = std::ranges::find_if(elements, [device](const std::string& element) {
      return splitv(element, " ", false).at(4) == HexGuid(device);
    });
    return static_cast<std::size_t>(found - elements.begin());
  }
  return static_cast<std::size_t>(std::ranges::find(request.devices, device) -
                                  request.devices.begin());
}

/// What the fault makes of one element; braces stay.
std::string MangledElement(Fault fault, Kind kind, std::string element) {
  const bool is_braced = element.starts_with('{');
  if (is_braced) element = element.substr(1, element.size() - 2);
  const std::string value = kind == Kind::ATTRIBUTES ? "sector_size="
                            : kind == Kind::BSN      ? "{bsn 0x"
                                                     : "{data 0x";
  const std::size_t start = element.find(value);
  switch (fault) {
    case Fault::NOT_HEX:
      if (kind == Kind::LIST) {
        element.replace(element.find("0x"), 18, "0xZZ");
      } else {
        const std::size_t digits = start + value.size();
        element.replace(digits, element.find_first_of(" }", digits) - digits, "ZZ");
      }
      break;
    case Fault::TOO_LITTLE:
      if (kind == Kind::ATTRIBUTES) {
        element.erase(start, element.find(' ') + 1 - start);
      } else {
        // The last word or the last pair of braces.
        element.resize(element.rfind(kind == Kind::LIST ? " " : " {"));
      }
      break;
    case Fault::TOO_MUCH:
      if (kind == Kind::ATTRIBUTES) {
        element.insert(element.size() - 1, " other=1");
      } else {
        element += kind == Kind::LIST ? " more" : " " + value + "0}";
      }
      break;
    case Fault::NUL:
      if (kind == Kind::LIST) {
        element.insert(0, 1, '\0');
      } else {
        element.insert(kind == Kind::ATTRIBUTES ? start : start + value.size(), 1, '\0');
      }
      break;
    default:
      break;
  }
  return is_braced ? "{" + element + "}" : element;
}

std::string Inside(const std::string& element) { return element.substr(1, element.size() - 2); }

}  // namespace

std::span<const FaultRow> AllFaults() { return FAULTS; }

Request Understand(const std::string& text, const std::string& answer, bool has_written) {
  Request request{text, answer, Kind::ACKED, {}, 0, 0};
  const std::vector<std::string> words = splitv(text, " ", false);
  const std::string& head = words.at(0);
  const bool is_read = head == "vsFlashReadMulti" || head == "vsI2cReadMulti";
  std::size_t after = 1;
  if (head == "vsMultiMaxGet") {
    request.kind = Kind::MULTI_MAX;
  } else if (head == "IfcVersion") {
    request.kind = Kind::VERSION;
  } else if (head == "NsGetDeviceByType") {
    request.kind = Kind::LIST;
  } else {
    const std::size_t count = head == "crBSNGet" ? 1 : std::stoul(words.at(1));
    after = head == "crBSNGet" ? 1 : 2;
    for (std::size_t i = 0; i < count; ++i) {
      request.devices.push_back(std::stoull(words.at(after++), nullptr, 16));
    }
  }
  if (head == "crBSNGet") request.kind = Kind::BSN;
  if (head == "vsGetVsdMulti") request.kind = Kind::VSD;
  if (head == "vsFlashGetAttrMulti") request.kind = Kind::ATTRIBUTES;
  if (!is_read) return request;

  // Where the images keep what is asked for: see Burns.cpp.
  request.size = static_cast<u_int32_t>(std::stoul(words.at(after + 1)));
  request.addr = static_cast<u_int32_t>(std::stoul(words.at(after + 2), nullptr, 16));
  if (head == "vsI2cReadMulti") {
    request.kind = has_written ? Kind::VERIFY : Kind::BOOT_RECORD;
    return request;
  }
  struct ReadRow {
    u_int32_t addr;
    u_int32_t size;
    Kind kind;
  };
  static constexpr auto READS = std::to_array<ReadRow>({
      {0x24, 4, Kind::MARKER},
      {0x0, 64, Kind::INVARIANT},
      {0x408, 4, Kind::SIGNATURE},
      {0x808, 4, Kind::SIGNATURE},
      {0x800, 4, Kind::SECOND_ADDRESS},
      {0x800, 264, Kind::MOVED_RECORD},
  });
  const auto* row = std::ranges::find_if(READS, [&request](const ReadRow& candidate) {
    return candidate.addr == request.addr && candidate.size == request.size;
  });
  request.kind = row == READS.end() ? Kind::MOVED_IMAGE : row->kind;
  return request;
}

std::vector<std::optional<Guid>> Targets(Fault fault, const Request& request) {
  const Kind kind = request.kind;
  const auto each_device = [&request] {
    std::vector<std::optional<Guid>> devices(request.devices.begin(), request.devices.end());
    if (request.kind != Kind::LIST) return devices;
    GuidSet listed;
    for (const std::string& record : Elements(request)) {
      listed.insert(std::stoull(splitv(record, " ", false).at(4), nullptr, 16));
    }
    devices.assign(listed.begin(), listed.end());
    return devices;
  };
  const std::vector<std::optional<Guid>> once = {std::nullopt};
  switch (fault) {
    case Fault::ELEMENT_ERROR:
    case Fault::ELEMENT_TARGET_ERROR:
      return each_device();  // none for what is no list
    case Fault::ONE_FEWER:   // none is missing where there is none
      return IsNumber(kind) || Elements(request).empty() ? each_device() : once;
    case Fault::ONE_MORE:
      return IsNumber(kind) ? each_device() : once;
    case Fault::NOT_HEX:
    case Fault::TOO_LITTLE:
    case Fault::TOO_MUCH:
      if (kind == Kind::ACKED || (fault == Fault::TOO_LITTLE && IsNumber(kind))) return {};
      return IsNumber(kind) ? once : each_device();
    case Fault::NUL:
      return kind == Kind::ACKED || IsNumber(kind) ? once : each_device();
    default:
      return once;
  }
}

std::string Mangled(Fault fault, const Request& request, std::optional<Guid> device) {
  const Kind kind = request.kind;
  std::vector<std::string> elements = Elements(request);
  switch (fault) {
    case Fault::ERROR_ANSWER:
      return std::string("ERROR:0x1:") + REFUSED;
    case Fault::TARGET_ERROR_ANSWER:
      return std::string("TARGET_ERROR:") + REFUSED;
    case Fault::ELEMENT_ERROR:
    case Fault::ELEMENT_TARGET_ERROR: {
      const std::string head = fault == Fault::ELEMENT_ERROR ? "ERROR:" : "TARGET_ERROR:";
      const std::string error = head + HexGuid(*device) + ":" + REFUSED;
      if (kind == Kind::BSN) return error;
      elements.at(ElementOf(request, elements, *device)) = "{" + error + "}";
      return Join(elements);
    }
    case Fault::ONE_FEWER:
      elements.pop_back();
      return Join(elements);
    case Fault::ONE_MORE:
      elements.emplace_back(kind == Kind::LIST ? "{device 99 1 0x9 0x9 0x9 1 stranger none}"
                                               : "ACK");
      return Join(elements);
    case Fault::EMPTY:
      return "";
    case Fault::BRACE_OPEN:
      return "{" + request.answer;
    case Fault::BRACE_CLOSED:
      return request.answer + "}";
    case Fault::NOT_HEX:
    case Fault::TOO_LITTLE:
    case Fault::TOO_MUCH:
    case Fault::NUL:
      if (device) {
        std::string& element = elements.at(ElementOf(request, elements, *device));
        element = MangledElement(fault, kind, element);
        return Join(elements);
      }
      if (fault == Fault::NOT_HEX) return "zz";
      if (fault == Fault::TOO_MUCH) return request.answer + " " + request.answer;
      return std::string(request.answer).insert(1, 1, '\0');
    default:
      return request.answer;
  }
}

// ---- How the run must end

namespace {

/// The rules of one request's answer.
class Oracle {
 public:
  Oracle(const Setting& setting, std::span<const Request> requests, std::size_t k,
         const std::string& answer, std::optional<Guid> device)
      : _setting(setting),
        _requests(requests),
        _k(k),
        _request(requests[k]),
        _answer(answer),
        _device(device) {
    const std::size_t colon = setting.server.find(':');
    _host = setting.server.substr(colon + 1);
  }

  Expected Of(Fault fault) const {
    switch (fault) {
      case Fault::LONG_LINE:
      case Fault::LOST:
      case Fault::CLOSE_BEFORE:
      case Fault::CLOSE_INSIDE:
        return Fails({ReadError("Response too large. Probably server is down.")});
      case Fault::CLOSE_AFTER:
        if (IsLast()) return Succeeds();
        // Whether the next request, or the wait for its answer, meets the end first.
        return Fails({ReadError("Response too large. Probably server is down."),
                      ReadError("Connection reset by peer"), ReadError("Broken pipe"),
                      "Failed remote read: Connection reset by peer",
                      "Failed remote read: Broken pipe"});
      case Fault::RESET:
        return Fails({ReadError("Connection reset by peer")});
      case Fault::SILENCE:
      case Fault::SILENCE_INSIDE:
        return Fails({"Failed remote read: timeout while waiting for data from " + _host + "."});
      case Fault::BYTEWISE:
      case Fault::RETURNS:
      case Fault::ONE_PIECE:
      case Fault::TWO_PIECES:
      case Fault::MANY_PIECES:
        return Succeeds();
      case Fault::TWICE:
        return OfTwice();
      case Fault::TWICE_LATE:
        return OfTwiceLate();
      default:
        break;
    }
    switch (_request.kind) {
      case Kind::MULTI_MAX:
        return CountOfOne();
      case Kind::VERSION:
        return Fails(
            {"Server " + _setting.server + ": Cant get interface version. Got: " + _answer});
      case Kind::LIST:
        return OfList(fault);
      case Kind::ATTRIBUTES:
        return OfAttributes(fault);
      case Kind::BSN:
        return OfBsn(fault);
      default:
        return OfElements(fault);
    }
  }

 private:
  static Expected Succeeds() { return {}; }
  static Expected Fails(const std::vector<std::string>& texts) {
    Expected expected;
    expected.end = Expected::FAILS;
    expected.texts = texts;
    return expected;
  }
  static Expected Aborts(const std::string& assertion) {
    Expected expected = Fails({assertion});
    expected.end = Expected::ABORTS;
    return expected;
  }
  std::string ReadError(const std::string& reason) const {
    return "Failed remote read from server " + _host + ". " + reason;
  }
  bool IsLast() const { return _k + 1 == _requests.size(); }

  /// The run ends where its last device is lost, and goes on where others are left.
  Expected Loses(const std::string& text, std::size_t asked_again = 0) const {
    Expected expected = _setting.devices == 1 ? Fails({"No more accessible devices"}) : Succeeds();
    expected.lost = {_device ? *_device : _request.devices.at(0)};
    expected.lost_text = text;
    expected.asked_again = asked_again;
    return expected;
  }
  static Expected LosesAll() {
    Expected expected = Fails({"No more accessible devices"});
    expected.all_lost = true;
    expected.lost_text = REFUSED;
    return expected;
  }
  Expected Miscounts(std::size_t elements) const {
    return Miscounts(_request.devices.size(), elements, _answer);
  }
  Expected Miscounts(std::size_t devices, std::size_t elements, const std::string& answer) const {
    return Fails({Text("Error accessing to ", _setting.server, ": Tried to access ", devices,
                       " devices, got response for ", elements, " devices. Response: ", answer)});
  }
  /// Of an answer that begins with a brace too many.
  Expected StaysOpen() const {
    return Fails({"Response::TclSplit(): Can't parse '" + _answer +
                  "' : Unbalanced starts (1) and ends (0) ."});
  }
  Expected CountOfOne() const {
    if (_setting.devices == 1) return Succeeds();
    return Fails({Text("Multi max violation. Server capability: 1 devices. Trying to access ",
                       _setting.devices, " devices while performing command '' to server ",
                       _setting.server, " .")});
  }

  Expected OfList(Fault fault) const {
    Expected expected;
    switch (fault) {
      case Fault::ERROR_ANSWER:
      case Fault::TARGET_ERROR_ANSWER:
        return Fails({"Failed checking access through server " + _setting.server + ". " + REFUSED});
      case Fault::ELEMENT_ERROR:
        return Fails({"Bad device record format: ERROR:" + HexGuid(*_device) + ":" + REFUSED});
      case Fault::ELEMENT_TARGET_ERROR:
        return Fails(
            {"Bad device record format: TARGET_ERROR:" + HexGuid(*_device) + ":" + REFUSED});
      case Fault::NOT_HEX:
      case Fault::TOO_LITTLE: {
        const std::vector<std::string> records = Elements(_request);
        const std::string& record = records.at(ElementOf(_request, records, *_device));
        return Fails(
            {"Bad device record format: " + Inside(MangledElement(fault, Kind::LIST, record))});
      }
      case Fault::EMPTY:
        expected = Fails({"No more accessible devices"});
        for (const auto& device : Targets(Fault::ELEMENT_ERROR, _request)) {
          expected.lost.push_back(*device);
        }
        expected.lost_text = "Device not accessible by server " + _setting.server + " .";
        return expected;
      case Fault::ONE_FEWER:
        // A port of the last device is not known: only its GUIDs ask for it.
        if (!_setting.has_guids_field) return Succeeds();
        return Fails({Text("Internal Error: Device ", std::hex, LastListed(),
                           " declares 2 ports, but 1 port guids are detected for it.")});
      case Fault::BRACE_OPEN:
        return StaysOpen();
      default:
        return Succeeds();
    }
  }

  Guid LastListed() const { return *Targets(Fault::ELEMENT_ERROR, _request).back(); }

  Expected OfAttributes(Fault fault) const {
    switch (fault) {
      case Fault::NOT_HEX:
        return Fails(
            {"Internal Error: Expected numeric value in Attribute response: " + _answer + "."});
      case Fault::TOO_LITTLE:
      case Fault::NUL:  // another name than sector_size
        return Fails({"The flash sector size is unknown. Can't perform failsafe burn"});
      case Fault::TOO_MUCH:
        return Succeeds();
      default:
        return OfElements(fault);
    }
  }

  Expected OfBsn(Fault fault) const {
    switch (fault) {
      case Fault::ERROR_ANSWER:
      case Fault::TARGET_ERROR_ANSWER:
      case Fault::ELEMENT_ERROR:  // the whole answer is the one element
      case Fault::ELEMENT_TARGET_ERROR:
        return LosesAll();
      case Fault::BRACE_OPEN:
        return StaysOpen();
      case Fault::NOT_HEX:
        return NoNumber("bsn 0xZZ");
      case Fault::NUL:
        return NoNumber(WordWithNul("{bsn 0x"));
      case Fault::EMPTY:
      case Fault::ONE_FEWER:
      case Fault::TOO_LITTLE:
      case Fault::TOO_MUCH:
        return Aborts("rep_data.size() == fit->size");
      default:
        return Succeeds();
    }
  }

  static Expected NoNumber(const std::string& word) {
    return Fails({"Fatal Error: Failed extracting data out of response: \"" + word + "\" ."});
  }
  /// The word of the mangled answer that holds a NUL, without its braces.
  std::string WordWithNul(const std::string& key) const {
    const std::size_t nul = _answer.find('\0');
    const std::size_t start = _answer.rfind(key, nul) + 1;
    return _answer.substr(start, _answer.find('}', nul) - start);
  }

  Expected OfElements(Fault fault) const {
    const std::size_t count = _request.devices.size();
    // A word with a NUL or a brace in it is one element that is no error, and so is good for one.
    const Expected one_word = count == 1 ? Succeeds() : Miscounts(1);
    switch (fault) {
      case Fault::ERROR_ANSWER:
      case Fault::TARGET_ERROR_ANSWER:
        return LosesAll();
      case Fault::ELEMENT_ERROR:
      case Fault::ELEMENT_TARGET_ERROR: {
        if (_request.kind != Kind::BOOT_RECORD) return Loses(REFUSED);
        // Its record is judged all the same, and has no bytes.
        Expected expected = Aborts("read_data.size() == 16");
        expected.lost = {*_device};
        expected.lost_text = REFUSED;
        return expected;
      }
      case Fault::ONE_FEWER:
        return Miscounts(count - 1);
      case Fault::ONE_MORE:
        return Miscounts(count + 1);
      case Fault::EMPTY:
        return Miscounts(0);
      case Fault::BRACE_OPEN:
        return StaysOpen();
      case Fault::BRACE_CLOSED:
        return _request.kind == Kind::ACKED ? one_word : Succeeds();
      case Fault::NOT_HEX:
        return NoNumber("data 0xZZ");
      case Fault::NUL:
        return _request.kind == Kind::ACKED ? one_word : NoNumber(WordWithNul("{data 0x"));
      default:
        return OfSize(fault == Fault::TOO_LITTLE);
    }
  }

  /// Of data that are 4 bytes too short or too long.
  Expected OfSize(bool is_short) const {
    switch (_request.kind) {
      case Kind::MARKER:
        return Loses("Image on device is not failsafe. Can't perform failsafe burn");
      case Kind::INVARIANT:
        return Succeeds();  // taken for another one, and rewritten
      case Kind::SIGNATURE: {
        // Taken for none. The burn then goes by the other one.
        const bool is_second = _request.addr == 0x808;
        if (_setting.is_signed[is_second ? 0 : 1]) return Succeeds();
        // Not before the second one is known, too.
        return Loses("Both images are invalid. Can't perform failsafe burn", is_second ? 0 : 1);
      }
      case Kind::SECOND_ADDRESS:
        return Aborts("d1.size() == 4");
      case Kind::MOVED_RECORD:
      case Kind::MOVED_IMAGE: {
        if (!is_short) return Succeeds();
        const char* what = _request.kind == Kind::MOVED_RECORD ? "pointer sector" : "image";
        return Loses(Text("Can't move image: read ", _request.size - 4, " bytes of ", _request.size,
                          " of the ", what, " at address ", std::hex, _request.addr));
      }
      case Kind::BOOT_RECORD:
        return Aborts("read_data.size() == 16");
      case Kind::VERIFY: {
        if (!is_short) return Succeeds();
        // The right answer's last word tells what was written there.
        const std::vector<std::string> elements = Elements(_request);
        const std::string& element = elements.at(ElementOf(_request, elements, *_device));
        const auto last =
            static_cast<u_int32_t>(std::stoul(element.substr(element.rfind("0x")), nullptr, 16));
        return Loses(Text("Error verifying data on address ", std::hex,
                          _request.addr + _request.size - 4, ". Wrote ", last >> 24,
                          ", read nothing ."));
      }
      case Kind::VSD:
        return Aborts("rep_data.size() == fit->size");
      default:
        return Succeeds();
    }
  }

  /// The second answer is there before the next request.
  Expected OfTwice() const { return OfOneTooMany(_k); }
  Expected OfOneTooMany(std::size_t at) const {
    if (at + 1 == _requests.size()) return Succeeds();
    return Fails(
        {"Error accessing to " + _setting.server + ": Got an answer that nobody asked for."});
  }
  /// It comes with the answer to the next request, for which it is taken; then that one is the
  /// second.
  Expected OfTwiceLate() const {
    if (IsLast()) return Succeeds();
    const Request& next = _requests[_k + 1];
    const bool says_the_same = next.answer == _request.answer ||
                               (next.kind == Kind::ACKED && _request.kind == Kind::ACKED &&
                                next.devices.size() == _request.devices.size());
    if (says_the_same) return OfOneTooMany(_k + 1);
    Expected expected;
    expected.end = Expected::CONFUSED;
    return expected;
  }

  const Setting& _setting;
  std::span<const Request> _requests;
  std::size_t _k;
  const Request& _request;
  const std::string& _answer;
  std::optional<Guid> _device;
  std::string _host;
};

}  // namespace

Expected Expect(Fault fault, const Setting& setting, std::span<const Request> requests,
                std::size_t k, std::optional<Guid> device) {
  const std::string answer = Mangled(fault, requests[k], device);
  return Oracle(setting, requests, k, answer, device).Of(fault);
}

bool IsDesignedText(std::string_view text) {
  static constexpr std::string_view TEXTS[] = {
      "No more accessible devices",
      "Bad device record format: ",
      "Error accessing to ",
      "Fatal Error: Failed extracting data out of response: ",
      "All devices can't be failsafe burnt",
  };
  return std::ranges::any_of(TEXTS,
                             [text](std::string_view known) { return text.starts_with(known); });
}

bool IsDesignedAssertion(std::string_view expression) {
  static constexpr std::string_view ASSERTIONS[] = {
      "read_data.size() == 16",
      "d1.size() == 4",
      "rep_data.size() == fit->size",
  };
  return std::ranges::count(ASSERTIONS, expression) > 0;
}

}  // namespace faults
