/// Texts: formatting and parsing of numbers, splitting, and escaping for terminals.
#pragma once

#include <cstdint>
#include <iomanip>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace common {

/// All `parts` written to a new stream: numbers are decimal until a part is std::hex.
template <typename... Parts>
std::string Text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

/// `text` with control characters, C1's too, and bytes that are no UTF-8 written as \xNN.
std::string Printable(std::string_view text);

/// The value of a hexadecimal digit, 0 to 15; nothing for any other character.
std::optional<std::uint8_t> HexDigit(char c);

/// Two digits for each byte: "01ff".
std::string HexBytes(std::span<const std::uint8_t> bytes);
/// "0x1f000"
std::string HexText(std::uint64_t number);
/// A GUID in the form of requests: "0x" and 16 lower-case digits.
std::string HexGuid(std::uint64_t guid);

/// Adds the GUIDs of a comma-separated list, hexadecimal with or without 0x, as fwpush -g reads it.
/// Throws std::runtime_error at the first entry that is not a number; those before it are added.
void ParseGuids(const std::string& list, std::set<std::uint64_t>& guids);

/// Reads a number of bytes, more than 0 and less than 2^32: decimal, hexadecimal with 0x before it,
/// or octal with 0 before it. Nothing for any other text.
std::optional<std::uint32_t> ParseByteCount(const std::string& text);
/// The same as a check of an option: what is wrong with the text, "" where nothing is.
std::string ByteCountCheck(const std::string& text);

/// Splits "HOST:PORT". Nothing for any other text, and for a port above 65535.
std::optional<std::pair<std::string, std::uint16_t>> ParseHostPort(const std::string& text);

/// The non-empty pieces of `text` between characters of `delimiters`. They are views of `text`.
std::vector<std::string_view> Words(std::string_view text, std::string_view delimiters = " \t");
/// The lines of `text` without their line feeds, empty ones included. The last one needs no line
/// feed. They are views of `text`.
std::vector<std::string_view> Lines(std::string_view text);

}  // namespace common
