// Cutting texts, numbers, and the regular expression.
#include <algorithm>
#include <array>

#include "fuzz/Fuzz.h"
#include "src/utils.h"

namespace {

std::string Joined(const std::vector<std::string>& pieces) {
  std::string all;
  for (const std::string& piece : pieces) all += piece;
  return all;
}

void Split(const std::string& text, const std::string& delimiters) {
  const auto is_delimiter = [&](char c) { return delimiters.find(c) != std::string::npos; };
  std::string without = text;
  if (!delimiters.empty()) std::erase_if(without, is_delimiter);
  for (const bool allow_empty : {false, true}) {
    const std::vector<std::string> pieces = splitv(text, delimiters.c_str(), allow_empty);
    const std::list<std::string> list = splitl(text, delimiters.c_str(), allow_empty);
    fuzz::Must(std::ranges::equal(pieces, list), "vector and list hold the same");
    fuzz::Must(Joined(pieces) == without, "only delimiters are lost");
    fuzz::Must(allow_empty || std::ranges::none_of(pieces, &std::string::empty),
               "empty pieces are left out unless allowed");
  }
  // Token by token it is the same as at once.
  std::vector<std::string> tokens;
  std::string rest = text;
  for (std::string token; !(token = next_token(rest, delimiters.c_str())).empty();) {
    tokens.push_back(token);
    fuzz::Must(tokens.size() <= text.size(), "tokens come to an end");
  }
  fuzz::Must(tokens == splitv(text, delimiters.c_str(), false), "tokens are the pieces");
}

void Number(const std::string& word) {
  for (const int base : {10, 16}) {
    u_int32_t value = 0;
    const bool is_number = ParseNumber(word, base, value);
    const bool is_plain = !word.empty() && word.size() <= 8 &&
                          word.find_first_not_of("0123456789") == std::string::npos;
    fuzz::Must(!is_plain || is_number, "digits are a number");
    fuzz::Must(!is_plain || base != 10 || value == std::stoul(word), "a number is its digits");
  }
}

/// Patterns that people use; a fuzzed one would try the C library, not us.
struct Pattern {
  const char* text;
  /// Whether it matches nothing at all at the beginning of a text, so that a split stands still.
  bool (*stands_still)(const std::string& text) = [](const std::string&) { return false; };
};
constexpr auto PATTERNS = std::to_array<Pattern>({
    {"^([0-9]+):([^:]*)(:(x+))?$"},
    {"[ \t]+"},
    {",|;"},
    {"a+b?"},
    {"$", [](const std::string& text) { return text.empty(); }},
    // Its matches eat the b's, up to another letter.
    {"b*",
     [](const std::string& text) {
       return text.empty() || text.find_first_not_of('b') != text.npos;
     }},
    {"("},  // no pattern at all
});

void Match(const Pattern& pattern, const std::string& text) {
  Regexp re(pattern.text, 0);
  const bool is_usable = re.err() == nullptr;
  if (re.match(text)) {
    fuzz::Must(is_usable, "what is no pattern matches nothing");
    fuzz::Must(re.nmatches() > 0 && text.find(re.cap(0)) != std::string::npos,
               "a match is a part of the text");
    for (int i = 0; i <= re.nmatches(); ++i) {
      fuzz::Must(re.cap(0).find(re.cap(static_cast<unsigned>(i))) != std::string::npos,
                 "a capture is a part of the match");
    }
  }
  std::vector<std::string> pieces;
  const fuzz::Ending ending = fuzz::RunToAnyEnd([&] { pieces = re.splitv(text); });
  const bool must_fail = pattern.stands_still(text);
  fuzz::Must(must_fail == ending.assertion.has_value(),
             "only a pattern that matches nothing at all must not split");
  if (must_fail) {
    fuzz::Must(*ending.assertion == "found.rm_eo > 0", "this is what tells of it");
    return;
  }
  fuzz::Must(Joined(pieces).size() <= text.size(), "pieces are parts of the text");
  fuzz::Must(is_usable || pieces == std::vector<std::string>{text},
             "what is no pattern splits nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  const u_int32_t kind = input.Below(3);
  // Both are C strings to the code in question.
  std::string first(input.Until("\n"));
  first = first.c_str();
  std::string text(input.Rest());
  if (text.size() > 2000 || first.size() > 40) return 0;
  if (kind == 0) {
    Number(first);
  } else if (kind == 1) {
    text = text.c_str();
    Split(text, first);
  } else {
    text = text.c_str();
    Match(PATTERNS[first.empty() ? 0 : static_cast<u_int8_t>(first[0]) % PATTERNS.size()], text);
  }
  return 0;
}
