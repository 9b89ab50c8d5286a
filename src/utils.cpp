#include "utils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

namespace {

constexpr std::size_t FIRST_TEXT_SIZE = 1024;

template <typename Pieces>
Pieces Split(const std::string& s, const char* delimiters, bool allow_empty) {
  Pieces pieces;
  if (*delimiters == '\0') {
    for (const char c : s) pieces.emplace_back(1, c);
    return pieces;
  }
  std::size_t pos = s.find_first_not_of(delimiters);
  if (allow_empty) {
    // Each delimiter before the first piece ends an empty piece. In a text of delimiters only, each
    // of them does.
    pieces.resize(pos == std::string::npos ? s.size() : pos);
  }
  while (pos != std::string::npos) {
    const std::size_t end = s.find_first_of(delimiters, pos);
    pieces.push_back(s.substr(pos, end - pos));
    if (end == std::string::npos) break;
    pos = s.find_first_not_of(delimiters, end);
    if (allow_empty) {
      const std::size_t run = (pos == std::string::npos ? s.size() : pos) - end;
      // The first delimiter of a run ends the piece before it, except at the end of the text.
      pieces.resize(pieces.size() + (pos == std::string::npos ? run : run - 1));
    }
  }
  return pieces;
}

template <typename Pieces>
Pieces SplitAtMatches(const regex_t& separator, const std::string& s) {
  Pieces pieces;
  const char* rest = s.c_str();
  do {
    regmatch_t found{};
    if (regexec(&separator, rest, 1, &found, 0) != 0) {
      pieces.emplace_back(rest);
      break;
    }
    ASSERT_ALWAYS(found.rm_eo > 0);  // an empty match would never advance
    if (found.rm_so > 0) pieces.emplace_back(rest, static_cast<std::size_t>(found.rm_so));
    rest += found.rm_eo;
  } while (*rest != '\0');
  return pieces;
}

void AppendBigEndian(DataVec& out, u_int64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<u_int8_t>(value >> shift));
  }
}

}  // namespace

std::list<std::string> splitl(const std::string& s, const char* delimiters, bool allow_empty) {
  return Split<std::list<std::string>>(s, delimiters, allow_empty);
}

std::vector<std::string> splitv(const std::string& s, const char* delimiters, bool allow_empty) {
  return Split<std::vector<std::string>>(s, delimiters, allow_empty);
}

std::string next_token(std::string& s, const char* delimiters) {
  if (s.empty()) return "";
  if (*delimiters == '\0') {
    std::string first = s.substr(0, 1);
    s.erase(0, 1);
    return first;
  }
  const std::size_t start = s.find_first_not_of(delimiters);
  if (start == std::string::npos) return "";
  const std::size_t end = s.find_first_of(delimiters, start);
  std::string token = s.substr(start, end - start);
  s.erase(0, end);  // npos: everything
  return token;
}

bool ParseNumber(const std::string& word, int base, u_int32_t& value) {
  char* end = nullptr;
  value = static_cast<u_int32_t>(std::strtoull(word.c_str(), &end, base));
  return end == word.c_str() + word.size();
}

char* vprint(const char* format, va_list args) {
  for (std::size_t size = FIRST_TEXT_SIZE;; size *= 2) {
    auto text = std::make_unique<char[]>(size);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(text.get(), size - 1, format, copy);
    va_end(copy);
    // A negative length means that the format cannot be written; more room would not help.
    if (length < 0 || static_cast<std::size_t>(length) < size - 1) return text.release();
  }
}

char* print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = vprint(format, args);
  va_end(args);
  return text;
}

void ErrMsg::err_clear() {
  delete[] _err;
  _err = nullptr;
}

bool ErrMsg::errmsg(const char* format, ...) {
  va_list args;
  va_start(args, format);
  _err = vprint(format, args);
  va_end(args);
  ConsolePrintf("-D- Error set for %p: %s\n", static_cast<void*>(this), _err);
  return false;
}

Regexp::~Regexp() {
  Release();
  err_clear();
}

void Regexp::Release() {
  if (Usable()) regfree(&_re);
  _valid = false;
}

void Regexp::err_clear() {
  delete[] _err;
  _err = nullptr;
}

bool Regexp::compile(const char* pattern, int cflags) {
  Release();
  err_clear();
  _compiled = true;
  const int failure = regcomp(&_re, pattern, (cflags | REG_EXTENDED) & ~REG_NOSUB);
  _valid = failure == 0;
  if (!_valid) {
    const std::size_t size = regerror(failure, &_re, nullptr, 0);
    _err = new char[size];
    regerror(failure, &_re, _err, size);
  }
  return _valid;
}

bool Regexp::match(const std::string& s) {
  if (!Usable()) return false;
  _matches.clear();
  std::vector<regmatch_t> found(_re.re_nsub + 1);
  if (regexec(&_re, s.c_str(), found.size(), found.data(), 0) != 0) return false;
  for (const regmatch_t& part : found) {
    if (part.rm_so < 0) break;
    _matches.push_back(s.substr(static_cast<std::size_t>(part.rm_so),
                                static_cast<std::size_t>(part.rm_eo - part.rm_so)));
  }
  return true;
}

std::string Regexp::cap(unsigned int i) const {
  return Usable() && i < _matches.size() ? _matches[i] : "";
}

std::list<std::string> Regexp::splitl(const std::string& s) const {
  return Usable() ? SplitAtMatches<std::list<std::string>>(_re, s) : std::list<std::string>{s};
}

std::vector<std::string> Regexp::splitv(const std::string& s) const {
  return Usable() ? SplitAtMatches<std::vector<std::string>>(_re, s) : std::vector<std::string>{s};
}

DataVec& operator<<(DataVec& out, u_int32_t value) {
  AppendBigEndian(out, value, 4);
  return out;
}

DataVec& operator<<(DataVec& out, unsigned long value) {
  AppendBigEndian(out, value, 8);
  return out;
}

DataVec& operator<<(DataVec& out, unsigned long long value) {
  AppendBigEndian(out, value, 8);
  return out;
}

DataVec& operator<<(DataVec& out, u_int8_t value) {
  out.push_back(value);
  return out;
}

DataVec& operator<<(DataVec& out, const DataVec& bytes) {
  const std::size_t count = bytes.size();  // `bytes` may be `out` itself
  out.reserve(out.size() + count);
  for (std::size_t i = 0; i < count; ++i) out.push_back(bytes[i]);
  return out;
}

DataVec& operator<<(DataVec& out, const std::vector<u_int32_t>& values) {
  for (const u_int32_t value : values) out << value;
  return out;
}
