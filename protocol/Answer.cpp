#include "protocol/Answer.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "common/Text.h"

namespace protocol {

namespace {

constexpr std::uint8_t ERASED = 0xFF;

/// " {KEY 0x..}" for each `width` bytes, most significant byte first. Bytes past the end are FF.
std::string KeyWords(std::string_view key, std::span<const std::uint8_t> bytes, std::size_t words,
                     std::size_t width) {
  std::string text;
  for (std::size_t i = 0; i < words * width; i += width) {
    std::uint32_t word = 0;
    for (std::size_t j = i; j < i + width; ++j) {
      word = word << 8 | (j < bytes.size() ? bytes[j] : ERASED);
    }
    // Without a stream, which is slow: an answer has thousands of words.
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

std::string RequestError(const std::string& reason) { return "ERROR:" + reason; }

std::string DeviceError(Guid guid, const std::string& reason) {
  return RequestError(common::HexGuid(guid) + ":" + reason);
}

std::string DataElement(std::span<const std::uint8_t> bytes, std::size_t size) {
  return ACK + KeyWords("data", bytes, (size + WORD_SIZE - 1) / WORD_SIZE, WORD_SIZE);
}

std::string BsnElement(std::span<const std::uint8_t> bytes) {
  return ACK + KeyWords("bsn", bytes, bytes.size(), 1);
}

std::string AttributesElement(std::uint32_t sector_size, std::uint64_t size,
                              std::uint32_t page_size) {
  const std::string page = page_size == 0 ? "" : common::Text(" page_size=", std::hex, page_size);
  return common::Text("{sector_size=", std::hex, sector_size, " size=", size, page, "}");
}

std::string RecordElement(const DeviceRecord& record) {
  return common::Text("{device ", record.device, " ", record.port, " ",
                      common::HexGuid(record.system_guid), " ", common::HexGuid(record.node_guid),
                      " ", common::HexGuid(record.port_guid), " ", record.ports, " ", record.name,
                      " ", record.attribute, "}");
}

std::string JoinElements(const Request& request, const std::vector<std::string>& elements) {
  const bool may_be_a_word = request.command->action != Action::READ;
  const auto is_ack = [](const std::string& element) { return element == ACK; };
  if (may_be_a_word && elements.size() == request.devices.size() &&
      std::ranges::all_of(elements, is_ack)) {
    return ACK;
  }
  std::string answer;
  for (const std::string& element : elements) {
    if (!answer.empty()) answer += " ";
    answer += may_be_a_word && is_ack(element) ? element : "{" + element + "}";
  }
  return answer;
}

}  // namespace protocol
