#include <algorithm>
#include <cctype>
#include <optional>
#include <utility>

#include "trials/search/Mistakes.h"

namespace search {

using soak::Random;

namespace {

bool IsDirective(const std::string& line) {
  return !line.empty() && line[0] >= 'A' && line[0] <= 'Z' && !line.starts_with("END");
}

/// The index of a random line of that sort; nothing where there is none.
std::optional<std::size_t> PickLine(const std::vector<std::string>& lines, Random& random,
                                    const std::function<bool(const std::string&)>& is_wanted) {
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (is_wanted(lines[i])) found.push_back(i);
  }
  if (found.empty()) return {};
  return found[random.Below(found.size())];
}

TextMistake AtDirective(const char* name,
                        std::function<bool(std::vector<std::string>&, std::size_t, Random&)> make) {
  return {name, [make = std::move(make)](std::vector<std::string>& lines, Random& random) {
            const auto at = PickLine(lines, random, IsDirective);
            return at && make(lines, *at, random);
          }};
}

TextMistake AtData(const char* name,
                   std::function<bool(std::vector<std::string>&, std::size_t, Random&)> make) {
  return {name, [make = std::move(make)](std::vector<std::string>& lines, Random& random) {
            const auto at = PickLine(lines, random, [](const std::string& line) {
              return !line.empty() && isxdigit(static_cast<unsigned char>(line[0])) != 0 &&
                     !IsDirective(line);
            });
            return at && make(lines, *at, random);
          }};
}

TextMistake Inserted(const char* name, std::vector<std::string> texts) {
  return {name, [texts = std::move(texts)](std::vector<std::string>& lines, Random& random) {
            // Before a directive, so that it does not come into a section.
            const auto at = PickLine(lines, random, IsDirective);
            if (!at) return false;
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(*at),
                         texts[random.Below(texts.size())]);
            return true;
          }};
}

}  // namespace

const std::vector<TextMistake>& TextMistakes() {
  using Lines = std::vector<std::string>;
  static const std::vector<TextMistake> mistakes = {
      AtDirective("a line missing",
                  [](Lines& lines, std::size_t at, Random&) {
                    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
                    return true;
                  }),
      AtDirective("a line twice",
                  [](Lines& lines, std::size_t at, Random& random) {
                    const std::string line = lines[at];
                    if (line.starts_with("START")) return false;
                    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(random.Below(at + 1)),
                                 line);
                    return true;
                  }),
      AtDirective("a line moved to the end",
                  [](Lines& lines, std::size_t at, Random&) {
                    if (lines[at].starts_with("START")) return false;
                    std::rotate(lines.begin() + static_cast<std::ptrdiff_t>(at),
                                lines.begin() + static_cast<std::ptrdiff_t>(at) + 1, lines.end());
                    return true;
                  }),
      AtDirective("a directive misspelt",
                  [](Lines& lines, std::size_t at, Random& random) {
                    std::string& line = lines[at];
                    if (random.Chance(50)) {
                      line[0] = static_cast<char>(line[0] + ('a' - 'A'));
                    } else {
                      line.erase(1, 1);
                    }
                    return true;
                  }),
      AtDirective("a number changed",
                  [](Lines& lines, std::size_t at, Random& random) {
                    std::string& line = lines[at];
                    const std::size_t digit = line.find_last_of("0123456789abcdef");
                    if (digit == std::string::npos || digit < 4) return false;
                    line[digit] = "0123456789abcdefg"[random.Below(17)];
                    return true;
                  }),
      AtDirective("a number too large",
                  [](Lines& lines, std::size_t at, Random& random) {
                    const std::size_t last = lines[at].rfind(' ');
                    const std::size_t before = lines[at].rfind(' ', last - 1);
                    const std::size_t place = random.Chance(50) ? before : last;
                    if (last == std::string::npos || place == std::string::npos) return false;
                    lines[at].insert(place + 1, random.Chance(70) ? "1000000000" : "-");
                    return true;
                  }),
      AtDirective("words too many",
                  [](Lines& lines, std::size_t at, Random&) {
                    lines[at] += " 7";
                    return true;
                  }),
      {"an END missing",
       [](Lines& lines, Random& random) {
         const auto at = PickLine(lines, random,
                                  [](const std::string& line) { return line.starts_with("END"); });
         if (at) lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*at));
         return at.has_value();
       }},
      AtData("a line of data missing",
             [](Lines& lines, std::size_t at, Random&) {
               lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
               return true;
             }),
      AtData("more than a byte",
             [](Lines& lines, std::size_t at, Random&) {
               lines[at].insert(0, "1f");
               return true;
             }),
      AtData("a NUL in a line",
             [](Lines& lines, std::size_t at, Random&) {
               lines[at] += std::string(" ") + '\0' + " 1 2 3 4";
               return true;
             }),
      AtData("a line that is too long",
             [](Lines& lines, std::size_t at, Random& random) {
               lines[at] += std::string(1024, ' ') + (random.Chance(50) ? "1 2 3 4" : "");
               return true;
             }),
      Inserted("a comment that is too long",
               {"#" + std::string(1022, ' ') + "1 2 3 4", "#" + std::string(1100, '-')}),
      Inserted("an unknown directive", {"PRODUCT 7", "NOTE something", "LICENCE none"}),
      Inserted("a version of words", {"MAJ_FW_VER", "MIN_FW_VER 1 2", "SUB_MIN_FW_VER x"}),
      Inserted("data outside of sections", {"1 2 3 4"}),
      Inserted("an END outside of sections", {"END"}),
      Inserted("a device type twice", {"DEVICE_TYPE RV61100", "DEVICE_TYPE RV52100"}),
      Inserted("a device type that nobody knows", {"DEVICE_TYPE RV99999"}),
      {"no device type",
       [](Lines& lines, Random&) {
         return std::erase_if(lines, [](const std::string& line) {
                  return line.starts_with("DEVICE_TYPE");
                }) > 0;
       }},
      {"a map behind what needs it",
       [](Lines& lines, Random& random) {
         const auto at = PickLine(
             lines, random, [](const std::string& line) { return line.starts_with("DEVMAP"); });
         if (!at) return false;
         const std::string line = lines[*at];
         lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*at));
         lines.insert(lines.begin() + random.Below(lines.size() + 1), line);
         return true;
       }},
      {"the line ends of another system",
       [](Lines& lines, Random&) {
         for (std::string& line : lines) line += '\r';
         return true;
       }},
      {"no sections",
       [](Lines& lines, Random&) {
         const auto first = std::ranges::find_if(
             lines, [](const std::string& line) { return line.starts_with("START"); });
         lines.erase(first, lines.end());
         return true;
       }},
  };
  return mistakes;
}

}  // namespace search
