#include "trials/AnswerFaults.h"

#include <algorithm>
#include <array>
#include <set>

#include "common/Text.h"

namespace trials {

using common::HexGuid;
using common::Text;

namespace {

constexpr auto FAULTS = std::to_array<AnswerFaultRow>({
    {AnswerFault::ERROR_ANSWER, "error-answer"},
    {AnswerFault::TARGET_ERROR_ANSWER, "target-error-answer"},
    {AnswerFault::ELEMENT_ERROR, "element-error"},
    {AnswerFault::ELEMENT_TARGET_ERROR, "element-target-error"},
    {AnswerFault::ONE_FEWER, "one-element-fewer"},
    {AnswerFault::ONE_MORE, "one-element-more"},
    {AnswerFault::EMPTY, "empty-answer"},
    {AnswerFault::BRACE_OPEN, "brace-too-many-open"},
    {AnswerFault::BRACE_CLOSED, "brace-too-many-closed"},
    {AnswerFault::NOT_HEX, "not-hexadecimal"},
    {AnswerFault::TOO_LITTLE, "too-little-data"},
    {AnswerFault::TOO_MUCH, "too-much-data"},
    {AnswerFault::NUL, "nul-byte"},
    {AnswerFault::LONG_LINE, "long-line"},
    {AnswerFault::LOST, "request-lost"},
    {AnswerFault::CLOSE_BEFORE, "closed-before"},
    {AnswerFault::CLOSE_INSIDE, "closed-inside"},
    {AnswerFault::CLOSE_AFTER, "closed-after"},
    {AnswerFault::RESET, "reset"},
    {AnswerFault::BYTEWISE, "byte-by-byte"},
    {AnswerFault::RETURNS, "carriage-returns"},
    {AnswerFault::ONE_PIECE, "one-continuation"},
    {AnswerFault::TWO_PIECES, "two-continuations"},
    {AnswerFault::MANY_PIECES, "many-continuations"},
    {AnswerFault::TWICE, "answered-twice"},
    {AnswerFault::TWICE_LATE, "answered-twice-late"},
    {AnswerFault::SILENCE, "silence"},
    {AnswerFault::SILENCE_INSIDE, "silence-inside"},
});

std::vector<std::string> Words(const std::string& text) {
  const auto words = common::Words(text, " ");
  return {words.begin(), words.end()};
}

bool IsNumber(RequestKind kind) {
  return kind == RequestKind::MULTI_MAX || kind == RequestKind::VERSION;
}

/// The elements of a right answer, each with its braces.
std::vector<std::string> Elements(const ParsedExchange& request) {
  // A bare ACK stands for the ACK of every device.
  if (request.kind == RequestKind::ACKED) {
    return std::vector<std::string>(request.devices.size(), "{ACK}");
  }
  if (request.kind == RequestKind::BSN) return {request.answer};
  std::vector<std::string> elements = ElementsOf(request.answer);
  std::erase_if(elements, [](const std::string& element) { return !element.starts_with('{'); });
  return elements;
}

std::string Join(const std::vector<std::string>& elements) {
  std::string answer;
  for (const std::string& element : elements) answer += (answer.empty() ? "" : " ") + element;
  return answer;
}

/// Index of the device's element; in the list of devices, of its first record.
std::size_t ElementOf(const ParsedExchange& request, const std::vector<std::string>& elements,
                      Guid device) {
  if (request.kind == RequestKind::LIST) {
    const auto found = std::ranges::find_if(elements, [device](const std::string& element) {
      return Words(element).at(4) == HexGuid(device);
    });
    return static_cast<std::size_t>(found - elements.begin());
  }
  return static_cast<std::size_t>(std::ranges::find(request.devices, device) -
                                  request.devices.begin());
}

/// An element with the fault in it; its braces stay.
std::string FaultyElement(AnswerFault fault, RequestKind kind, std::string element) {
  const bool is_braced = element.starts_with('{');
  if (is_braced) element = element.substr(1, element.size() - 2);
  const std::string value = kind == RequestKind::ATTRIBUTES ? "sector_size="
                            : kind == RequestKind::BSN      ? "{bsn 0x"
                                                            : "{data 0x";
  const std::size_t start = element.find(value);
  switch (fault) {
    case AnswerFault::NOT_HEX:
      if (kind == RequestKind::LIST) {
        element.replace(element.find("0x"), 18, "0xZZ");
      } else {
        const std::size_t digits = start + value.size();
        element.replace(digits, element.find_first_of(" }", digits) - digits, "ZZ");
      }
      break;
    case AnswerFault::TOO_LITTLE:
      if (kind == RequestKind::ATTRIBUTES) {
        element.erase(start, element.find(' ') + 1 - start);
      } else {
        // The last word or the last pair of braces.
        element.resize(element.rfind(kind == RequestKind::LIST ? " " : " {"));
      }
      break;
    case AnswerFault::TOO_MUCH:
      if (kind == RequestKind::ATTRIBUTES) {
        element.insert(element.size() - 1, " other=1");
      } else {
        element += kind == RequestKind::LIST ? " more" : " " + value + "0}";
      }
      break;
    case AnswerFault::NUL:
      if (kind == RequestKind::LIST) {
        element.insert(0, 1, '\0');
      } else {
        element.insert(kind == RequestKind::ATTRIBUTES ? start : start + value.size(), 1, '\0');
      }
      break;
    default:
      break;
  }
  return is_braced ? "{" + element + "}" : element;
}

std::string Inside(const std::string& element) { return element.substr(1, element.size() - 2); }

}  // namespace

std::vector<std::string> ElementsOf(const std::string& answer) {
  std::vector<std::string> elements;
  int depth = 0;
  bool is_new = true;
  for (const char c : answer) {
    if (depth == 0 && (c == ' ' || c == '{')) is_new = true;
    if (depth == 0 && c == ' ') continue;
    if (is_new) elements.emplace_back();
    is_new = false;
    elements.back() += c;
    if (c == '{') ++depth;
    if (c == '}' && --depth == 0) is_new = true;
  }
  return elements;
}

std::span<const AnswerFaultRow> AllAnswerFaults() { return FAULTS; }

ParsedExchange ParseExchange(const std::string& text, const std::string& answer, bool has_written) {
  ParsedExchange request{text, answer, RequestKind::ACKED, {}, 0, 0};
  const std::vector<std::string> words = Words(text);
  const std::string& head = words.at(0);
  const bool is_read = head == "vsFlashReadMulti" || head == "vsI2cReadMulti";
  std::size_t after = 1;
  if (head == "vsMultiMaxGet") {
    request.kind = RequestKind::MULTI_MAX;
  } else if (head == "IfcVersion") {
    request.kind = RequestKind::VERSION;
  } else if (head == "NsGetDeviceByType") {
    request.kind = RequestKind::LIST;
  } else {
    const std::size_t count = head == "crBSNGet" ? 1 : std::stoul(words.at(1));
    after = head == "crBSNGet" ? 1 : 2;
    for (std::size_t i = 0; i < count; ++i) {
      request.devices.push_back(std::stoull(words.at(after++), nullptr, 16));
    }
  }
  if (head == "crBSNGet") request.kind = RequestKind::BSN;
  if (head == "vsGetVsdMulti") request.kind = RequestKind::VSD;
  if (head == "vsFlashGetAttrMulti") request.kind = RequestKind::ATTRIBUTES;
  if (!is_read) return request;

  // The addresses are those of the images in MatrixBurns.cpp.
  request.size = static_cast<std::uint32_t>(std::stoul(words.at(after + 1)));
  request.addr = static_cast<std::uint32_t>(std::stoul(words.at(after + 2), nullptr, 16));
  if (head == "vsI2cReadMulti") {
    request.kind = has_written ? RequestKind::VERIFY : RequestKind::BOOT_RECORD;
    return request;
  }
  struct ReadRow {
    std::uint32_t addr;
    std::uint32_t size;
    RequestKind kind;
  };
  static constexpr auto READS = std::to_array<ReadRow>({
      {0x24, 4, RequestKind::MARKER},
      {0x0, 64, RequestKind::INVARIANT},
      {0x408, 4, RequestKind::SIGNATURE},
      {0x808, 4, RequestKind::SIGNATURE},
      {0x800, 4, RequestKind::SECOND_ADDRESS},
      {0x800, 264, RequestKind::MOVED_RECORD},
  });
  const auto* row = std::ranges::find_if(READS, [&request](const ReadRow& candidate) {
    return candidate.addr == request.addr && candidate.size == request.size;
  });
  request.kind = row == READS.end() ? RequestKind::MOVED_IMAGE : row->kind;
  return request;
}

std::vector<std::optional<Guid>> FaultTargets(AnswerFault fault, const ParsedExchange& request) {
  const RequestKind kind = request.kind;
  const auto each_device = [&request] {
    std::vector<std::optional<Guid>> devices(request.devices.begin(), request.devices.end());
    if (request.kind != RequestKind::LIST) return devices;
    std::set<Guid> listed;
    for (const std::string& record : Elements(request)) {
      listed.insert(std::stoull(Words(record).at(4), nullptr, 16));
    }
    devices.assign(listed.begin(), listed.end());
    return devices;
  };
  const std::vector<std::optional<Guid>> once = {std::nullopt};
  switch (fault) {
    case AnswerFault::ELEMENT_ERROR:
    case AnswerFault::ELEMENT_TARGET_ERROR:
      return each_device();       // none for what is no list
    case AnswerFault::ONE_FEWER:  // none is missing where there is none
      return IsNumber(kind) || Elements(request).empty() ? each_device() : once;
    case AnswerFault::ONE_MORE:
      return IsNumber(kind) ? each_device() : once;
    case AnswerFault::NOT_HEX:
    case AnswerFault::TOO_LITTLE:
    case AnswerFault::TOO_MUCH:
      if (kind == RequestKind::ACKED || (fault == AnswerFault::TOO_LITTLE && IsNumber(kind)))
        return {};
      return IsNumber(kind) ? once : each_device();
    case AnswerFault::NUL:
      return kind == RequestKind::ACKED || IsNumber(kind) ? once : each_device();
    default:
      return once;
  }
}

std::string FaultyAnswer(AnswerFault fault, const ParsedExchange& request,
                         std::optional<Guid> device) {
  const RequestKind kind = request.kind;
  std::vector<std::string> elements = Elements(request);
  switch (fault) {
    case AnswerFault::ERROR_ANSWER:
      return std::string("ERROR:0x1:") + REFUSED;
    case AnswerFault::TARGET_ERROR_ANSWER:
      return std::string("TARGET_ERROR:") + REFUSED;
    case AnswerFault::ELEMENT_ERROR:
    case AnswerFault::ELEMENT_TARGET_ERROR: {
      const std::string head = fault == AnswerFault::ELEMENT_ERROR ? "ERROR:" : "TARGET_ERROR:";
      const std::string error = head + HexGuid(*device) + ":" + REFUSED;
      if (kind == RequestKind::BSN) return error;
      elements.at(ElementOf(request, elements, *device)) = "{" + error + "}";
      return Join(elements);
    }
    case AnswerFault::ONE_FEWER:
      elements.pop_back();
      return Join(elements);
    case AnswerFault::ONE_MORE:
      elements.emplace_back(kind == RequestKind::LIST ? "{device 99 1 0x9 0x9 0x9 1 stranger none}"
                                                      : "ACK");
      return Join(elements);
    case AnswerFault::EMPTY:
      return "";
    case AnswerFault::BRACE_OPEN:
      return "{" + request.answer;
    case AnswerFault::BRACE_CLOSED:
      return request.answer + "}";
    case AnswerFault::NOT_HEX:
    case AnswerFault::TOO_LITTLE:
    case AnswerFault::TOO_MUCH:
    case AnswerFault::NUL:
      if (device) {
        std::string& element = elements.at(ElementOf(request, elements, *device));
        element = FaultyElement(fault, kind, element);
        return Join(elements);
      }
      if (fault == AnswerFault::NOT_HEX) return "zz";
      if (fault == AnswerFault::TOO_MUCH) return request.answer + " " + request.answer;
      return std::string(request.answer).insert(1, 1, '\0');
    default:
      return request.answer;
  }
}

// ---- How the run must end

namespace {

/// Predicts the end of a run from the one faulty answer in it.
class EndPredictor {
 public:
  EndPredictor(const BurnFacts& facts, std::span<const ParsedExchange> requests, std::size_t k,
               const std::string& answer, std::optional<Guid> device)
      : _facts(facts),
        _requests(requests),
        _k(k),
        _request(requests[k]),
        _answer(answer),
        _device(device) {
    const std::size_t colon = facts.server.find(':');
    _host = facts.server.substr(colon + 1);
  }

  Expected Of(AnswerFault fault) const {
    switch (fault) {
      case AnswerFault::LONG_LINE:
      case AnswerFault::LOST:
      case AnswerFault::CLOSE_BEFORE:
      case AnswerFault::CLOSE_INSIDE:
        return Fails({ReadError("Response too large. Probably server is down.")});
      case AnswerFault::CLOSE_AFTER:
        if (IsLast()) return Succeeds();
        // Either the next request fails, or the wait for its answer.
        return Fails({ReadError("Response too large. Probably server is down."),
                      ReadError("Connection reset by peer"), ReadError("Broken pipe"),
                      "Failed remote read: Connection reset by peer",
                      "Failed remote read: Broken pipe"});
      case AnswerFault::RESET:
        return Fails({ReadError("Connection reset by peer")});
      case AnswerFault::SILENCE:
      case AnswerFault::SILENCE_INSIDE:
        return Fails({"Failed remote read: timeout while waiting for data from " + _host + "."});
      case AnswerFault::BYTEWISE:
      case AnswerFault::RETURNS:
      case AnswerFault::ONE_PIECE:
      case AnswerFault::TWO_PIECES:
      case AnswerFault::MANY_PIECES:
        return Succeeds();
      case AnswerFault::TWICE:
        return OfTwice();
      case AnswerFault::TWICE_LATE:
        return OfTwiceLate();
      default:
        break;
    }
    switch (_request.kind) {
      case RequestKind::MULTI_MAX:
        return CountOfOne();
      case RequestKind::VERSION:
        return Fails({"Server " + _facts.server + ": Cant get interface version. Got: " + _answer});
      case RequestKind::LIST:
        return OfList(fault);
      case RequestKind::ATTRIBUTES:
        return OfAttributes(fault);
      case RequestKind::BSN:
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

  /// The device is lost. The run ends where it was the last one.
  Expected Loses(const std::string& text, std::size_t asked_again = 0) const {
    Expected expected = _facts.devices == 1 ? Fails({"No more accessible devices"}) : Succeeds();
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
    return Fails({Text("Error accessing to ", _facts.server, ": Tried to access ", devices,
                       " devices, got response for ", elements, " devices. Response: ", answer)});
  }
  /// The end after an answer that begins with a brace too many.
  Expected StaysOpen() const {
    return Fails({"Response::TclSplit(): Can't parse '" + _answer +
                  "' : Unbalanced starts (1) and ends (0) ."});
  }
  Expected CountOfOne() const {
    if (_facts.devices == 1) return Succeeds();
    return Fails({Text("Multi max violation. Server capability: 1 devices. Trying to access ",
                       _facts.devices, " devices while performing command '' to server ",
                       _facts.server, " .")});
  }

  Expected OfList(AnswerFault fault) const {
    Expected expected;
    switch (fault) {
      case AnswerFault::ERROR_ANSWER:
      case AnswerFault::TARGET_ERROR_ANSWER:
        return Fails({"Failed checking access through server " + _facts.server + ". " + REFUSED});
      case AnswerFault::ELEMENT_ERROR:
        return Fails({"Bad device record format: ERROR:" + HexGuid(*_device) + ":" + REFUSED});
      case AnswerFault::ELEMENT_TARGET_ERROR:
        return Fails(
            {"Bad device record format: TARGET_ERROR:" + HexGuid(*_device) + ":" + REFUSED});
      case AnswerFault::NOT_HEX:
      case AnswerFault::TOO_LITTLE: {
        const std::vector<std::string> records = Elements(_request);
        const std::string& record = records.at(ElementOf(_request, records, *_device));
        return Fails({"Bad device record format: " +
                      Inside(FaultyElement(fault, RequestKind::LIST, record))});
      }
      case AnswerFault::EMPTY:
        expected = Fails({"No more accessible devices"});
        for (const auto& device : FaultTargets(AnswerFault::ELEMENT_ERROR, _request)) {
          expected.lost.push_back(*device);
        }
        expected.lost_text = "Device not accessible by server " + _facts.server + " .";
        return expected;
      case AnswerFault::ONE_FEWER:
        // A port of the last device is missing. Only the field GUIDS needs all ports.
        if (!_facts.has_guids_field) return Succeeds();
        return Fails({Text("Internal Error: Device ", std::hex, LastListed(),
                           " declares 2 ports, but 1 port guids are detected for it.")});
      case AnswerFault::BRACE_OPEN:
        return StaysOpen();
      default:
        return Succeeds();
    }
  }

  Guid LastListed() const { return *FaultTargets(AnswerFault::ELEMENT_ERROR, _request).back(); }

  Expected OfAttributes(AnswerFault fault) const {
    switch (fault) {
      case AnswerFault::NOT_HEX:
        return Fails(
            {"Internal Error: Expected numeric value in Attribute response: " + _answer + "."});
      case AnswerFault::TOO_LITTLE:
      case AnswerFault::NUL:  // another name than sector_size
        return Fails({"The flash sector size is unknown. Can't perform failsafe burn"});
      case AnswerFault::TOO_MUCH:
        return Succeeds();
      default:
        return OfElements(fault);
    }
  }

  Expected OfBsn(AnswerFault fault) const {
    switch (fault) {
      case AnswerFault::ERROR_ANSWER:
      case AnswerFault::TARGET_ERROR_ANSWER:
      case AnswerFault::ELEMENT_ERROR:  // the whole answer is the one element
      case AnswerFault::ELEMENT_TARGET_ERROR:
        return LosesAll();
      case AnswerFault::BRACE_OPEN:
        return StaysOpen();
      case AnswerFault::NOT_HEX:
        return NoNumber("bsn 0xZZ");
      case AnswerFault::NUL:
        return NoNumber(WordWithNul("{bsn 0x"));
      case AnswerFault::EMPTY:
      case AnswerFault::ONE_FEWER:
      case AnswerFault::TOO_LITTLE:
      case AnswerFault::TOO_MUCH:
        return Aborts("rep_data.size() == fit->size");
      default:
        return Succeeds();
    }
  }

  static Expected NoNumber(const std::string& word) {
    return Fails({"Fatal Error: Failed extracting data out of response: \"" + word + "\" ."});
  }
  /// The word of the faulty answer that holds a NUL, without its braces.
  std::string WordWithNul(const std::string& key) const {
    const std::size_t nul = _answer.find('\0');
    const std::size_t start = _answer.rfind(key, nul) + 1;
    return _answer.substr(start, _answer.find('}', nul) - start);
  }

  Expected OfElements(AnswerFault fault) const {
    const std::size_t count = _request.devices.size();
    // A word with a NUL or a brace in it counts as one element without an error.
    const Expected one_word = count == 1 ? Succeeds() : Miscounts(1);
    switch (fault) {
      case AnswerFault::ERROR_ANSWER:
      case AnswerFault::TARGET_ERROR_ANSWER:
        return LosesAll();
      case AnswerFault::ELEMENT_ERROR:
      case AnswerFault::ELEMENT_TARGET_ERROR: {
        if (_request.kind != RequestKind::BOOT_RECORD) return Loses(REFUSED);
        // The burner examines the record of the failed device as well, which is empty.
        Expected expected = Aborts("read_data.size() == 16");
        expected.lost = {*_device};
        expected.lost_text = REFUSED;
        return expected;
      }
      case AnswerFault::ONE_FEWER:
        return Miscounts(count - 1);
      case AnswerFault::ONE_MORE:
        return Miscounts(count + 1);
      case AnswerFault::EMPTY:
        return Miscounts(0);
      case AnswerFault::BRACE_OPEN:
        return StaysOpen();
      case AnswerFault::BRACE_CLOSED:
        return _request.kind == RequestKind::ACKED ? one_word : Succeeds();
      case AnswerFault::NOT_HEX:
        return NoNumber("data 0xZZ");
      case AnswerFault::NUL:
        return _request.kind == RequestKind::ACKED ? one_word : NoNumber(WordWithNul("{data 0x"));
      default:
        return OfSize(fault == AnswerFault::TOO_LITTLE);
    }
  }

  /// The end after data that are 4 bytes too short or too long.
  Expected OfSize(bool is_short) const {
    switch (_request.kind) {
      case RequestKind::MARKER:
        return Loses("Image on device is not failsafe. Can't perform failsafe burn");
      case RequestKind::INVARIANT:
        return Succeeds();  // taken for another one, and rewritten
      case RequestKind::SIGNATURE: {
        // It counts as no signature. The burn depends on that of the other slot.
        const bool is_second = _request.addr == 0x808;
        if (_facts.is_signed[is_second ? 0 : 1]) return Succeeds();
        // The device is dropped only when both signatures have been read.
        return Loses("Both images are invalid. Can't perform failsafe burn", is_second ? 0 : 1);
      }
      case RequestKind::SECOND_ADDRESS:
        return Aborts("d1.size() == 4");
      case RequestKind::MOVED_RECORD:
      case RequestKind::MOVED_IMAGE: {
        if (!is_short) return Succeeds();
        const char* what = _request.kind == RequestKind::MOVED_RECORD ? "pointer sector" : "image";
        return Loses(Text("Can't move image: read ", _request.size - 4, " bytes of ", _request.size,
                          " of the ", what, " at address ", std::hex, _request.addr));
      }
      case RequestKind::BOOT_RECORD:
        return Aborts("read_data.size() == 16");
      case RequestKind::VERIFY: {
        if (!is_short) return Succeeds();
        // The last word of the right answer is what was written.
        const std::vector<std::string> elements = Elements(_request);
        const std::string& element = elements.at(ElementOf(_request, elements, *_device));
        const auto last = static_cast<std::uint32_t>(
            std::stoul(element.substr(element.rfind("0x")), nullptr, 16));
        return Loses(Text("Error verifying data on address ", std::hex,
                          _request.addr + _request.size - 4, ". Wrote ", last >> 24,
                          ", read nothing ."));
      }
      case RequestKind::VSD:
        return Aborts("rep_data.size() == fit->size");
      default:
        return Succeeds();
    }
  }

  /// The answer comes twice, both before the next request.
  Expected OfTwice() const { return OfOneTooMany(_k); }
  Expected OfOneTooMany(std::size_t at) const {
    if (at + 1 == _requests.size()) return Succeeds();
    return Fails(
        {"Error accessing to " + _facts.server + ": Got an answer that nobody asked for."});
  }
  /// The second answer comes along with the answer to the next request and is taken for that. The
  /// right one is then one too many.
  Expected OfTwiceLate() const {
    if (IsLast()) return Succeeds();
    const ParsedExchange& next = _requests[_k + 1];
    const bool says_the_same =
        next.answer == _request.answer ||
        (next.kind == RequestKind::ACKED && _request.kind == RequestKind::ACKED &&
         next.devices.size() == _request.devices.size());
    if (says_the_same) return OfOneTooMany(_k + 1);
    Expected expected;
    expected.end = Expected::OUT_OF_STEP;
    return expected;
  }

  const BurnFacts& _facts;
  std::span<const ParsedExchange> _requests;
  std::size_t _k;
  const ParsedExchange& _request;
  const std::string& _answer;
  std::optional<Guid> _device;
  std::string _host;
};

}  // namespace

Expected Expect(AnswerFault fault, const BurnFacts& facts, std::span<const ParsedExchange> requests,
                std::size_t k, std::optional<Guid> device) {
  const std::string answer = FaultyAnswer(fault, requests[k], device);
  return EndPredictor(facts, requests, k, answer, device).Of(fault);
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

}  // namespace trials
