/// Text and byte utilities: splitting, a POSIX regular expression, formatted texts, the
/// big-endian serialisers of DataVec, and kmap.
#pragma once

#include <regex.h>

#include <array>
#include <cstdarg>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BraidGeneral.h"

/// Splits `s` at delimiters; every character of `delimiters` is one. Without `allow_empty` no piece
/// is empty: ",a,,b," gives "a", "b". With it, each delimiter ends a piece: "a,,b" gives "a", "",
/// "b"; a text of n delimiters and nothing else gives n empty pieces. With an empty `delimiters`,
/// each character of `s` is a piece.
std::list<std::string> splitl(const std::string& s, const char* delimiters, bool allow_empty);
std::vector<std::string> splitv(const std::string& s, const char* delimiters, bool allow_empty);

/// Removes the first token from `s` and returns it. The delimiter behind the token stays in `s`;
/// the next call skips it. Returns "" and does not change `s` when no token is left. With an empty
/// `delimiters`, a token is one character.
std::string next_token(std::string& s, const char* delimiters);

/// Reads a word as an unsigned number of the given base, as strtoull does (leading blanks, a sign
/// and "0x" are accepted), and keeps the low 32 bits. Returns false when characters are left over.
/// An empty word is 0.
bool ParseNumber(const std::string& word, int base, u_int32_t& value);

inline constexpr auto HEX_DIGITS = [] {
  std::array<u_int8_t, 256> digits{};
  digits.fill(0xFF);
  for (u_int8_t i = 0; i < 16; ++i) {
    digits[static_cast<u_int8_t>("0123456789abcdef"[i])] = i;
    digits[static_cast<u_int8_t>("0123456789ABCDEF"[i])] = i;
  }
  return digits;
}();

/// The value of a hexadecimal digit; more than 15 for any other character.
constexpr u_int8_t HexDigit(char c) { return HEX_DIGITS[static_cast<u_int8_t>(c)]; }

/// Formats a text as printf does, into memory from new[] that the caller owns. Prints nothing.
char* vprint(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
char* print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Holds one error text for a class whose operations report failure as false.
class ErrMsg {
 public:
  ErrMsg() = default;
  ErrMsg(const ErrMsg&) = delete;
  ErrMsg& operator=(const ErrMsg&) = delete;
  ~ErrMsg() { err_clear(); }

  /// The text, owned by this object; null when no error is set.
  const char* err() const { return _err; }
  void err_clear();

  /// Stores the formatted text, prints it in a debug line and returns false. Does not release a
  /// text that is already held: call err_clear() first.
  bool errmsg(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  char* _err = nullptr;
};

/// A POSIX extended regular expression and the captures of its last match.
class Regexp {
 public:
  Regexp() = default;
  Regexp(const char* pattern, int cflags) { compile(pattern, cflags); }
  Regexp(const Regexp&) = delete;
  Regexp& operator=(const Regexp&) = delete;
  ~Regexp();

  /// Compiles `pattern` with the regcomp flags `cflags` and REG_EXTENDED. On failure err() is the
  /// library's message, and the object matches nothing.
  bool compile(const char* pattern, int cflags);

  /// Searches `s` for a match and stores the captures: the whole match, then the sub-expressions up
  /// to the first that did not take part. Returns false and keeps the old captures when no valid
  /// expression is compiled.
  bool match(const std::string& s);

  /// Number of captures stored, the whole match included.
  int nmatches() const { return static_cast<int>(_matches.size()); }

  /// Capture `i`; 0 is the whole match. "" when it does not exist.
  std::string cap(unsigned int i) const;

  /// Splits `s` at matches; no piece is empty. `s` is the only piece when nothing matches or no
  /// valid expression is compiled. The pattern must not match the empty text.
  std::list<std::string> splitl(const std::string& s) const;
  std::vector<std::string> splitv(const std::string& s) const;

  /// The message of a failed compile, owned by this object; null when the last compile succeeded.
  const char* err() const { return _err; }
  void err_clear();

 private:
  bool Usable() const { return _compiled && _valid; }
  void Release();

  char* _err = nullptr;
  bool _valid = false;     ///< compiled without error
  bool _compiled = false;  ///< compile was called
  regex_t _re{};
  std::vector<std::string> _matches;
};

/// Append to `out`, most significant byte first on every host; return `out`.
DataVec& operator<<(DataVec& out, u_int32_t value);
// u_int64_t is one of these two types, depending on the host. Both append 8 bytes on every host.
DataVec& operator<<(DataVec& out, unsigned long value);
DataVec& operator<<(DataVec& out, unsigned long long value);
DataVec& operator<<(DataVec& out, u_int8_t value);
DataVec& operator<<(DataVec& out, const DataVec& bytes);
DataVec& operator<<(DataVec& out, const std::vector<u_int32_t>& values);

/// A std::map with exists() and keys().
template <typename K, typename V>
class kmap : public std::map<K, V> {
 public:
  using std::map<K, V>::map;

  /// Whether `key` is present; never inserts.
  bool exists(const K& key) const { return this->contains(key); }

  /// All keys, ascending.
  std::vector<K> keys() const {
    std::vector<K> all;
    all.reserve(this->size());
    for (const auto& [key, value] : *this) all.push_back(key);
    return all;
  }
};
