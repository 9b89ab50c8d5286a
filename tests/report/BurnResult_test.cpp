// The results of burns in their forms for machines, whatever bytes the burns' texts are.
#include "report/BurnResult.h"

#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/Harness.h"

namespace {

using report::DeviceStatus;

/// Prints the messages that python3's parser finds in files of XML, one line of JSON each.
constexpr char PARSE[] =
    "import json, sys, xml.etree.ElementTree as tree\n"
    "for name in sys.argv[1:]:\n"
    "    root = tree.parse(name).getroot()\n"
    "    found = [e.get('message') for e in root.iter() if e.tag in ('failure', 'error')]\n"
    "    print(json.dumps(found))\n";

/// Texts that are likely to be wrong in XML: bytes, and encoded characters of every kind.
std::string RandomText(std::mt19937& rng) {
  static const std::vector<std::string> PIECES{"\xEF\xBF\xBE",      // U+FFFE
                                               "\xEF\xBF\xBF",      // U+FFFF
                                               "\xED\xA0\x80",      // a surrogate
                                               "\xED\xBF\xBF",      // the last one
                                               "\xF4\x90\x80\x80",  // past U+10FFFF
                                               "\xF0\x9F\xBF\xBE",  // U+1FFFE, which is allowed
                                               "\xC0\x80",          // a zero in two bytes
                                               "\xEF\xBF",          // cut
                                               "\xC2\x85",          // U+0085
                                               "]]>",
                                               "&amp;",
                                               "<!--",
                                               "\"'",
                                               "\r\n\t",
                                               "\u00e4\u20ac"};
  std::string text;
  for (auto left = rng() % 12; left > 0; --left) {
    if (rng() % 2 == 0) {
      text += PIECES[rng() % PIECES.size()];
    } else {
      text += static_cast<char>(rng());
    }
  }
  return text;
}

TEST(BurnResultTest, AnyTextOfAServerMakesValidXmlAndJson) {
  const common::ScratchFolder folder;
  std::mt19937 rng(20261122);
  std::vector<std::string> words{"/usr/bin/python3", folder.Write("parse.py", PARSE)};
  std::vector<std::string> texts;
  for (int i = 0; i < 400; ++i) {
    report::RunReport run;
    const std::string text = i == 0 ? "\xEF\xBF\xBE" : RandomText(rng);
    run.burn.algorithm = RandomText(rng);
    run.burn.failure = RandomText(rng);
    run.burn.devices.push_back({.guid = 0x10, .status = DeviceStatus::FAILED, .text = text});
    words.push_back(folder.Write(std::to_string(i), ToJUnit(run)));
    texts.push_back(text);
    EXPECT_FALSE(nlohmann::json::parse(ToJson(run), nullptr, false).is_discarded());
  }
  const Outcome outcome = RunProgram(words);
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  std::istringstream lines(outcome.output);
  std::size_t plain = 0;
  for (const std::string& text : texts) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const nlohmann::json messages = nlohmann::json::parse(line);
    ASSERT_EQ(messages.size(), 1u);
    // Plain text arrives as it is.
    if (!std::ranges::all_of(text, [](char c) { return ' ' <= c && c < '\x7F'; })) continue;
    ++plain;
    EXPECT_EQ(messages[0], text);
  }
  EXPECT_GT(plain, 10u);
}

TEST(BurnResultTest, CharactersThatXmlForbidsAreReplaced) {
  report::RunReport run;
  run.burn.devices.push_back(
      {.guid = 0x10, .status = DeviceStatus::FAILED, .text = "a\xEF\xBF\xBE\xEF\xBF\xBF\x01z"});
  EXPECT_THAT(ToJUnit(run), testing::HasSubstr("message=\"a\uFFFD\uFFFD?z\""));
}

}  // namespace
