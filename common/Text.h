/// Small texts: numbers as people read them, words and lines of a text, and what may go onto a
/// terminal.
#pragma once

#include <cstdint>
#include <iomanip>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace common {

/// All `parts` as one text, as a fresh stream writes them: numbers are decimal until a part is
/// std::hex.
template <typename... Parts>
std::string Text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

/// `text` with everything that a terminal would not show as it is written as \xNN.
std::string Printable(std::string_view text);

/// What a hexadecimal digit is worth, 0 to 15; none for any other character.
std::optional<std::uint8_t> HexDigit(char c);

/// "0x1f000"
std::string HexText(std::uint64_t number);
/// A device's GUID as requests have it: "0x" and 16 lower-case digits.
std::string HexGuid(std::uint64_t guid);

/// Adds the GUIDs of a comma-separated list, hexadecimal with or without 0x, by the rules of
/// fwpush -g. Throws std::runtime_error at the first entry that is no number; those before it are
/// added.
void ParseGuids(const std::string& list, std::set<std::uint64_t>& guids);

/// A number of bytes, more than 0 and less than 2^32, as a command line has it: decimal, or 0x and
/// hexadecimal, or 0 and octal. None for any other text.
std::optional<std::uint32_t> ParseByteCount(const std::string& text);
/// The same as a test of an option: what is wrong with the text, "" where nothing is.
std::string ByteCountCheck(const std::string& text);

/// The pieces of `text` between delimiters, none of them empty; every character of `delimiters` is
/// one. They last as long as the text does.
std::vector<std::string_view> Words(std::string_view text, std::string_view delimiters = " \t");
/// The lines of `text` without their ends, empty ones included; the last needs no end. They last as
/// long as the text does.
std::vector<std::string_view> Lines(std::string_view text);

}  // namespace common
