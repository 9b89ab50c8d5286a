/// Small text and byte utilities: splitting, a POSIX regular expression, formatted texts, the
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

/// The pieces of `s` between delimiters; every character of `delimiters` is one. Without
/// `allow_empty`, runs of delimiters act as one and those at both ends vanish: ",a,,b," gives
/// "a", "b". With it, each delimiter ends a piece: "a,,b" gives "a", "", "b"; a text of n
/// delimiters only gives n empty pieces. An empty `delimiters` cuts `s` into its characters.
std::list<std::string> splitl(const std::string& s, const char* delimiters, bool allow_empty);
std::vector<std::string> splitv(const std::string& s, const char* delimiters, bool allow_empty);

/// Takes the first token off the front of `s` and returns it; the delimiter behind it stays, to be
/// skipped by the next call. Returns "" and leaves `s` alone when no token is left. An empty
/// `delimiters` takes one character.
std::string next_token(std::string& s, const char* delimiters);

/// Reads a whole word as an unsigned number of the given base, as strtoull does (blanks, a sign and
/// "0x" in front included), cut to 32 bits. False when anything is left over, or when there is
/// nothing but a word that strtoull cannot begin on; an empty word reads as 0.
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

/// What a hexadecimal digit is worth; more than 15 for any other character.
constexpr u_int8_t HexDigit(char c) { return HEX_DIGITS[static_cast<u_int8_t>(c)]; }

/// A formatted text, newly allocated with new[]: the caller owns it. Nothing is printed.
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

  /// Stores the formatted text, notes it on the console and returns false. A text already held is
  /// not released: call err_clear() first.
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

  /// Compiles `pattern` with the regcomp flags `cflags` and REG_EXTENDED. On failure err() tells
  /// the library's reason, and the object matches nothing.
  bool compile(const char* pattern, int cflags);

  /// Matches against the whole of `s` and stores the captures, the whole match first, up to the
  /// first sub-expression that took no part. False, captures kept, when nothing valid is compiled.
  bool match(const std::string& s);

  /// How many captures are stored, the whole match included.
  int nmatches() const { return static_cast<int>(_matches.size()); }

  /// Capture `i`, 0 being the whole match; "" when there is none.
  std::string cap(unsigned int i) const;

  /// The pieces of `s` between matches, none of them empty; `s` alone when nothing matches, or
  /// nothing valid is compiled. The pattern must not match the empty text.
  std::list<std::string> splitl(const std::string& s) const;
  std::vector<std::string> splitv(const std::string& s) const;

  /// Why the last compile failed, owned by this object; null when it did not.
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

/// Append to `out`, most significant byte first whatever the host's order; return `out`.
DataVec& operator<<(DataVec& out, u_int32_t value);
// u_int64_t is one of these two, which one depends on the host. Both give 8 bytes everywhere.
DataVec& operator<<(DataVec& out, unsigned long value);
DataVec& operator<<(DataVec& out, unsigned long long value);
DataVec& operator<<(DataVec& out, u_int8_t value);
DataVec& operator<<(DataVec& out, const DataVec& bytes);
DataVec& operator<<(DataVec& out, const std::vector<u_int32_t>& values);

/// A std::map with two conveniences.
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
