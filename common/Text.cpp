#include "common/Text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace common {

namespace {

/// Bytes of the character that `text` begins with, if it is one of UTF-8 and no control character;
/// else 0. `text` must not be empty.
std::size_t PrintableSize(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t size = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (size == 0 || first > 0xF4 || text.size() < size) return 0;
  std::uint32_t code = first & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3Fu);
  }
  // Of several ways to write a code, the shortest counts; surrogates are no characters.
  constexpr std::uint32_t LEAST[] = {0, 0, 0xA0, 0x800, 0x10000};  // below 0xA0: C1
  const bool is_surrogate = code >= 0xD800 && code < 0xE000;
  return code >= LEAST[size] && code <= 0x10FFFF && !is_surrogate ? size : 0;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t size = PrintableSize(text);
    if (size > 0) {
      result += text.substr(0, size);
    } else {
      const auto byte = static_cast<unsigned char>(text[0]);
      result += "\\x" + HexBytes(std::span(&byte, 1));
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

std::optional<std::uint8_t> HexDigit(char c) {
  if ('0' <= c && c <= '9') return static_cast<std::uint8_t>(c - '0');
  if ('a' <= c && c <= 'f') return static_cast<std::uint8_t>(c - 'a' + 10);
  if ('A' <= c && c <= 'F') return static_cast<std::uint8_t>(c - 'A' + 10);
  return std::nullopt;
}

std::string HexBytes(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 15];
  }
  return text;
}

std::string HexText(std::uint64_t number) { return Text("0x", std::hex, number); }

std::string HexGuid(std::uint64_t guid) {
  return Text("0x", std::hex, std::setw(16), std::setfill('0'), guid);
}

void ParseGuids(const std::string& list, std::set<std::uint64_t>& guids) {
  std::size_t number = 0;
  for (const std::string_view word : Words(list, ",")) {
    char* end = nullptr;
    const std::string digits(word);
    const std::uint64_t guid = std::strtoull(digits.c_str(), &end, 16);
    if (*end != '\0') {
      throw std::runtime_error(Text("Error parsing guid #", number, " in the given list."));
    }
    guids.insert(guid);
    ++number;
  }
}

std::optional<std::uint32_t> ParseByteCount(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const auto size = std::strtoull(text.c_str(), &end, 0);
  const bool is_number = errno == 0 && !text.empty() && *end == '\0' && text[0] != '-';
  if (!is_number || size == 0 || size > 0xFFFFFFFF) return std::nullopt;
  return static_cast<std::uint32_t>(size);
}

std::string ByteCountCheck(const std::string& text) {
  return ParseByteCount(text) ? "" : "must be a number of bytes, such as 0x10000";
}

std::optional<std::pair<std::string, std::uint16_t>> ParseHostPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::uint16_t port = 0;
  const char* const digits = text.data() + colon + 1;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(digits, end, port);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return std::pair(text.substr(0, colon), port);
}

std::vector<std::string_view> Words(std::string_view text, std::string_view delimiters) {
  std::vector<std::string_view> words;
  std::size_t from = text.find_first_not_of(delimiters);
  while (from != std::string_view::npos) {
    const std::size_t end = std::min(text.find_first_of(delimiters, from), text.size());
    words.push_back(text.substr(from, end - from));
    from = text.find_first_not_of(delimiters, end);
  }
  return words;
}

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

}  // namespace common
