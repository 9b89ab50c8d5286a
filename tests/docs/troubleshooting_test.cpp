// Holds docs/troubleshooting.md against the sources of fwpush: every text that can tell of a
// failure has its row, and no row has a text that is not in the sources.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/Server.h"
#include "sim/FabricFile.h"
#include "src/main.h"
#include "tests/support/support.h"

namespace {

const std::string PAGE_FILE = std::string(DOCUMENTS) + "/troubleshooting.md";

using Texts = std::vector<std::string>;

/// A statement of the sources, or the part of one before a block.
struct Statement {
  std::string at;          ///< file and line, for messages
  std::string code;        ///< with blanks squeezed; literals as they stand
  Texts literals;          ///< adjacent ones joined, escapes resolved
  bool is_choice = false;  ///< has a conditional: its literals are alternatives
};

/// Cuts C++ into statements. Knows what the sources have: no raw strings, and blocks that stand
/// apart from the word before them, which initialisers do not.
class Cutter {
 public:
  explicit Cutter(const std::filesystem::path& path)
      : _name(path.filename()), _text(ReadText(path)) {}

  std::vector<Statement> Cut() {
    while (_at < _text.size()) Step();
    return std::move(_statements);
  }

 private:
  void Step() {
    const char c = _text[_at];
    if (StartsWith("//")) {
      SkipTo("\n");
    } else if (StartsWith("/*")) {
      SkipTo("*/");
    } else if (c == '#' && _code.empty()) {
      SkipDirective();
    } else if (c == '"') {
      TakeLiteral();
    } else if (c == '\'' && (_code.empty() || !IsWord(_code.back()))) {
      TakeCharacter();
    } else if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      if (!_code.empty() && _code.back() != ' ') _code += ' ';
      Skip(1);
    } else if (c == ';') {
      End();
    } else if (c == '{') {
      const bool is_block = _code.empty() || _code.back() == ' ';
      _blocks.push_back(is_block);
      is_block ? End() : Take(1);
    } else if (c == '}') {
      EXPECT_FALSE(_blocks.empty()) << At();
      const bool is_block = _blocks.empty() || _blocks.back();
      if (!_blocks.empty()) _blocks.pop_back();
      is_block ? End() : Take(1);
    } else {
      if (c == '?') _is_choice = true;
      Take(1);
    }
  }

  bool StartsWith(std::string_view word) const {
    return std::string_view(_text).substr(_at).starts_with(word);
  }
  static bool IsWord(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
  }
  std::string At() const { return _name + ":" + std::to_string(_line); }

  void Skip(std::size_t count) {
    for (; count > 0 && _at < _text.size(); --count) _line += _text[_at++] == '\n' ? 1 : 0;
  }
  void SkipTo(std::string_view end) {
    Skip(std::min(_text.find(end, _at), _text.size()) - _at + end.size());
  }
  void SkipDirective() {
    std::size_t end = _at;
    do {
      end = std::min(_text.find('\n', end + 1), _text.size());
    } while (end < _text.size() && _text[end - 1] == '\\');
    Skip(end - _at);
  }
  void Take(std::size_t count) {
    if (_code.empty()) _start = At();
    _code += _text.substr(_at, count);
    Skip(count);
  }
  void TakeCharacter() {
    const std::size_t end = _text.find('\'', _at + (_text[_at + 1] == '\\' ? 3 : 2));
    Take(end - _at + 1);
  }
  void TakeLiteral() {
    const std::size_t start = _at;
    const bool follows_another = _last_literal_end == _code.size() && !_literals.empty();
    std::string text;
    for (Take(1); _at < _text.size() && _text[_at] != '"';) {
      if (_text[_at] == '\\') {
        const char escaped = _text[_at + 1];
        // What moves the cursor is a blank to whoever reads the text.
        text += escaped == 'n' || escaped == 'r' ? ' ' : escaped;
        Take(2);
      } else {
        text += _text[_at];
        Take(1);
      }
    }
    EXPECT_LT(_at, _text.size()) << _name
                                 << ": a literal does not end: " << _text.substr(start, 60);
    Take(1);
    if (follows_another) {
      _literals.back() += text;
    } else {
      _literals.push_back(text);
    }
    _code += ' ';
    _last_literal_end = _code.size();
  }
  void End() {
    Skip(1);
    if (!_code.empty()) _statements.push_back({_start, _code, _literals, _is_choice});
    _code.clear();
    _literals.clear();
    _is_choice = false;
    _last_literal_end = 0;
  }

  std::string _name;
  std::string _text;
  std::size_t _at = 0;
  std::size_t _line = 1;
  std::string _start;
  std::string _code;
  Texts _literals;
  std::size_t _last_literal_end = 0;  ///< in _code
  bool _is_choice = false;
  std::vector<bool> _blocks;  ///< of the open braces: whether they are blocks
  std::vector<Statement> _statements;
};

/// What a statement looks like that tells of a failure, and at least how many of them there are: if
/// fewer are found, the sources are written in another way now, and this test would miss texts.
struct FailurePattern {
  const char* name;
  const char* pattern;
  std::size_t at_least;
};
constexpr auto FAILURES = std::to_array<FailurePattern>({
    {"an error that ends the run", R"(\bThrow\w*(Error|CantOpen) ?\()", 60},
    {"an error of a device", R"(\bDeviceError\()", 2},
    {"an error of several devices", R"(\bFailDevices\()", 3},
    {"a failure line", R"(\bPrintBurnError\()", 1},
    {"a text that begins with -E-", R"(-E-)", 3},
    {"a warning", R"(-W-)", 2},
    {"a trace of an error", R"(\bDebug\(.*Error)", 1},
    {"what a device failed with", R"(_error_des = \w+\()", 1},
    {"a text made in pieces", R"(^text << )", 2},
    {"a reason", R"(\breason =)", 1},
    {"a text that several places share", R"(\bchar TOO_LARGE\[\])", 1},
    {"a text of last resort", R"(\breturn "\*\*\*)", 1},
    {"a command line that is wrong", R"(ConsolePrintf\(.*\b(specified|flag|switch)\b)", 8},
});
constexpr FailurePattern ASSERTIONS{"an assertion", "ASSERT_ALWAYS", 13};

/// Statements whose texts tell of no failure. Every other one that has words in a literal must
/// match a pattern of FAILURES, so that a new way to fail does not go by unseen.
struct OtherPattern {
  const char* pattern;
  const char* why;
};
constexpr auto OTHERS = std::to_array<OtherPattern>({
    {R"(\bDebug\()", "the trace"},
    {R"("-I- )", "progress and results"},
    {R"(<< " (Done\.|OK ))", "the end of a step"},
    {R"(\b(start_phase|PercentProgressMeter meter)\()", "labels of the meter"},
    {R"(FirmWare Burning Tool)", "the help text"},
    {R"("fwpush %s, BRAID %s)", "versions"},
    {R"(g_cvs_rev = )", "versions"},
    {R"("-D- Error set for)", "the trace of a class that fwpush does not use"},
    {R"("( FwImage Status|Sections:|\\nDevMap:))", "the table of the image"},
    {R"("Crc16::add)", "a trace that fwpush does not switch on"},
    {R"(\b(Exchange\(|req \+= |head = bsn))", "words of requests and answers"},
    {R"(\b(SectionAt|read|pointer_section|CheckInit)\()", "a name that another text takes in"},
    {R"(\breturn image_idx == 0)", "the name of a slot"},
    {R"(: RemoteRomInterface\()", "the name of a memory"},
    {R"(Assertion `%s' failed)", "the frame of assertions, which have rows of their own"},
});

bool Has(const std::string& text, const char* pattern) {
  static std::map<std::string, std::regex> compiled;  // which takes longer than a search
  const auto [known, is_new] = compiled.try_emplace(pattern);
  if (is_new) known->second.assign(pattern);
  return std::regex_search(text, known->second);
}

bool HasWords(const Statement& statement) {
  return std::ranges::any_of(statement.literals, [](const std::string& literal) {
    return Has(literal, "[A-Za-z]{3}") && literal.find(' ') != std::string::npos;
  });
}

bool IsFailure(const Statement& statement) {
  return std::ranges::any_of(FAILURES, [&](const FailurePattern& failure) {
    return Has(statement.code, failure.pattern);
  });
}

bool IsOther(const Statement& statement) {
  return std::ranges::any_of(
      OTHERS, [&](const OtherPattern& other) { return Has(statement.code, other.pattern); });
}

std::vector<Statement> StatementsOfSources() {
  std::vector<Statement> statements;
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(SOURCE_FOLDER)) {
    if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h") continue;
    ++files;
    std::ranges::move(Cutter(entry.path()).Cut(), std::back_inserter(statements));
  }
  EXPECT_EQ(files, 14u);  // seven units
  return statements;
}

/// The parts of a text that stand in the sources, in order; between them is what the run fills in.
using Pieces = Texts;

/// What a literal prints as it stands: the parts between its conversions.
Pieces PiecesOf(const std::string& literal) {
  static const std::regex CONVERSION("%[-0-9]*[a-z]");
  Pieces pieces;
  std::copy_if(std::sregex_token_iterator(literal.begin(), literal.end(), CONVERSION, -1), {},
               std::back_inserter(pieces), [](const std::string& piece) { return !piece.empty(); });
  // Line ends of the text, which are blanks by now.
  if (!pieces.empty()) pieces.back().erase(pieces.back().find_last_not_of(' ') + 1);
  if (!pieces.empty()) pieces.front().erase(0, pieces.front().find_first_not_of(' '));
  return pieces;
}

/// The texts of a statement, each as its pieces.
std::vector<Pieces> TextsOf(const Statement& statement) {
  std::vector<Pieces> texts;
  for (const std::string& literal : statement.literals) {
    const Pieces pieces = PiecesOf(literal);
    if (texts.empty() || statement.is_choice) texts.emplace_back();
    std::ranges::copy(pieces, std::back_inserter(texts.back()));
  }
  std::erase_if(texts, [](const Pieces& text) { return text.empty(); });
  return texts;
}

/// The expressions of the assertions in a statement, as the program prints them.
Texts AssertionsOf(const Statement& statement) {
  Texts expressions;
  const std::string head = "ASSERT_ALWAYS(";
  for (std::size_t at = 0; (at = statement.code.find(head, at)) != std::string::npos;) {
    at += head.size();
    std::size_t end = at;
    for (int depth = 1; end < statement.code.size(); ++end) {
      if (statement.code[end] == '(') ++depth;
      if (statement.code[end] == ')' && --depth == 0) break;
    }
    expressions.push_back(statement.code.substr(at, end - at));
  }
  return expressions;
}

/// A message of the page, and which of its characters the sources account for.
struct Message {
  std::string text;
  std::vector<bool> is_known;
};

/// Finds `pieces` in the message one after the other, and marks them as known. False, with nothing
/// marked, when they are not in it.
bool Account(Message& message, const Pieces& pieces) {
  std::vector<bool> known = message.is_known;
  std::size_t at = 0;
  for (const std::string& piece : pieces) {
    at = message.text.find(piece, at);
    if (at == std::string::npos) return false;
    std::fill_n(known.begin() + static_cast<std::ptrdiff_t>(at), piece.size(), true);
    at += piece.size();
  }
  message.is_known = known;
  return true;
}

struct Row {
  std::size_t line;
  Texts cells;
};

/// The rows of all tables of the page whose first head is `head`.
std::vector<Row> RowsOf(const std::string& head) {
  std::ifstream file(PAGE_FILE);
  EXPECT_TRUE(file.good()) << PAGE_FILE;
  std::vector<Row> rows;
  std::optional<std::string> open;  // the head of the table
  std::size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (!line.starts_with("| ")) {
      if (!line.starts_with("|-")) open.reset();
      continue;
    }
    Row row{number, {}};
    std::string cell;
    for (std::size_t i = 2; i < line.size(); ++i) {
      if (line[i] == '\\' && i + 1 < line.size() && line[i + 1] == '|') {
        cell += line[++i];
      } else if (line[i] == '|') {
        cell.erase(cell.find_last_not_of(' ') + 1);
        row.cells.push_back(std::exchange(cell, ""));
        ++i;  // the blank behind it
      } else {
        cell += line[i];
      }
    }
    if (!open) {
      open = row.cells.front();
    } else if (*open == head) {
      rows.push_back(row);
    }
  }
  EXPECT_FALSE(rows.empty()) << head;
  return rows;
}

class TroubleshootingTest : public testing::Test {
 protected:
  TroubleshootingTest() {
    for (const Row& row : RowsOf("message")) {
      const std::string& cell = row.cells.front();
      EXPECT_TRUE(cell.size() > 2 && cell.front() == '`' && cell.back() == '`') << row.line;
      const std::string text = cell.substr(1, cell.size() - 2);
      EXPECT_TRUE(_texts.insert(text).second) << "twice: " << text;
      _messages.push_back({text, std::vector<bool>(text.size(), false)});
    }
  }

  bool IsTold(const Pieces& text) {
    bool is_told = false;
    for (Message& message : _messages) is_told |= Account(message, text);
    return is_told;
  }

  const std::vector<Statement> _statements = StatementsOfSources();
  std::vector<Message> _messages;
  std::set<std::string> _texts;
};

TEST_F(TroubleshootingTest, EveryWayToFailIsStillFoundInTheSources) {
  for (const FailurePattern& failure : FAILURES) {
    const auto count = static_cast<std::size_t>(
        std::ranges::count_if(_statements, [&](const Statement& statement) {
          return !statement.literals.empty() && Has(statement.code, failure.pattern);
        }));
    EXPECT_GE(count, failure.at_least) << failure.name << ": " << failure.pattern;
  }
  std::size_t assertions = 0;
  for (const Statement& statement : _statements) assertions += AssertionsOf(statement).size();
  EXPECT_GE(assertions, ASSERTIONS.at_least) << ASSERTIONS.name;
}

TEST_F(TroubleshootingTest, EveryTextOfTheSourcesIsAFailureOrSaidToBeNone) {
  std::size_t texts = 0;
  for (const Statement& statement : _statements) {
    if (!HasWords(statement)) continue;
    ++texts;
    EXPECT_TRUE(IsFailure(statement) || IsOther(statement))
        << statement.at << ": what does this text tell of? " << statement.code;
  }
  EXPECT_GE(texts, 120u);
  for (const OtherPattern& other : OTHERS) {
    EXPECT_TRUE(std::ranges::any_of(_statements,
                                    [&](const Statement& statement) {
                                      return !statement.literals.empty() &&
                                             Has(statement.code, other.pattern);
                                    }))
        << "no longer in the sources: " << other.why << ", " << other.pattern;
  }
}

TEST_F(TroubleshootingTest, EveryFailureOfTheSourcesHasItsRow) {
  for (const Statement& statement : _statements) {
    if (!IsFailure(statement)) continue;
    for (const Pieces& text : TextsOf(statement)) {
      EXPECT_TRUE(IsTold(text)) << statement.at
                                << ": not on the page: " << testing::PrintToString(text);
    }
  }
}

TEST_F(TroubleshootingTest, EveryAssertionOfTheSourcesHasItsRow) {
  for (const Statement& statement : _statements) {
    for (const std::string& expression : AssertionsOf(statement)) {
      EXPECT_TRUE(_texts.contains(expression)) << statement.at << ": " << expression;
    }
  }
}

TEST_F(TroubleshootingTest, EveryMessageOfThePageStandsInTheSources) {
  std::set<std::string> assertions;
  for (const Statement& statement : _statements) {
    if (IsFailure(statement)) {
      for (const Pieces& text : TextsOf(statement)) IsTold(text);
    }
    for (const std::string& expression : AssertionsOf(statement)) assertions.insert(expression);
  }
  for (const Message& message : _messages) {
    if (assertions.contains(message.text)) continue;
    std::string left;  // what no source accounts for
    int depth = 0;     // of placeholders
    for (std::size_t i = 0; i < message.text.size(); ++i) {
      const char c = message.text[i];
      if (!message.is_known[i] && c == '<') ++depth;
      if (depth == 0 && !message.is_known[i]) left += c;
      if (!message.is_known[i] && c == '>') --depth;
    }
    EXPECT_FALSE(Has(left, "[A-Za-z]")) << message.text << "\nnot in the sources: " << left;
  }
}

TEST_F(TroubleshootingTest, EveryRowTellsCauseStateAndTheNextCommand) {
  for (const char* head : {"message", "what is seen"}) {
    for (const Row& row : RowsOf(head)) {
      SCOPED_TRACE("line " + std::to_string(row.line));
      ASSERT_EQ(row.cells.size(), 4u);
      for (const std::string& cell : row.cells) EXPECT_FALSE(cell.empty());
      EXPECT_TRUE(Has(row.cells[3], "`[^`]+`|^the command with|^nothing$")) << row.cells[3];
    }
  }
}

/// A run that ends with a message of the page before anything is written.
struct Ending {
  const char* message;  ///< the start of its cell
  const char* image;
  Texts words;          ///< of the command line, after -f and -s
  const char* command;  ///< the request that the server answers with `answer`; "" for none
  const char* answer;
};

constexpr char I2C_FABRIC[] = R"(
[server]
type = "I2C"
[[device]]
node_guid = "0x10"
port_guids = ["0x11"]
chip = [{ address = 0x50, size = 0x2000 }, { address = 0x51, size = 0x2000 }]
[[device]]
node_guid = "0x20"
port_guids = ["0x21"]
chip = [{ address = 0x50, size = 0x2000 }, { address = 0x51, size = 0x2000 }]
[[device]]
node_guid = "0x100"
port_guids = ["0x101"]
flash = { size = 0x100000, sector_size = 0x10000 }
[[device]]
node_guid = "0x200"
port_guids = ["0x201"]
flash = { size = 0x100000, sector_size = 0x10000 }
)";

constexpr char GENERIC[] =
    "DEVICE_TYPE RV61100\nDEVMAP 2000 50\nSTART A 0 50\n00 01 02 03\nEND A\n";
constexpr char RECORDS[] =
    "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nDEVMAP 2000 51\nIMAGE 0 0 50\nIMAGE 1 0 51\n"
    "START A 0 50\n50 4C 4C 01 00 00 00 00 00 00 00 00 00 00 00 C2\nEND A\n";
constexpr char ONE_SLOT[] =
    "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nIMAGE 0 0 50\nSTART A 0 50\n00 01 02 03\nEND A\n";
constexpr char FLASH[] =
    "DEVICE_TYPE RV52100\nPS 0 10000 0\nPS 1 20000 0\nSIGNATURE 0 10008 0\nSIGNATURE 1 20008 0\n"
    "IMAGE 0 30000 0\nIMAGE 1 40000 0\nSTART P 10000 0\n00 01 02 03\nEND P\n"
    "START Q 20000 0\n00 01 02 03\nEND Q\nSTART A 30000 0\n00 01 02 03\nEND A\n";
constexpr char NO_POINTER_SECTOR[] =
    "DEVICE_TYPE RV52100\nPS 0 10000 0\nPS 1 20000 0\nSIGNATURE 0 10008 0\nSIGNATURE 1 20008 0\n"
    "IMAGE 0 30000 0\nIMAGE 1 40000 0\nSTART A 30000 0\n00 01 02 03\nEND A\n";
constexpr char SLOTS_IN_WRONG_ORDER[] =
    "DEVICE_TYPE RV52100\nPS 0 10000 0\nPS 1 20000 0\nSIGNATURE 0 10008 0\nSIGNATURE 1 20008 0\n"
    "IMAGE 0 30000 0\nIMAGE 1 30000 0\nSTART P 10000 0\n00 01 02 03\nEND P\n"
    "START Q 20000 0\n00 01 02 03\nEND Q\nSTART A 30000 0\n00 01 02 03\nEND A\n";
constexpr char NO_FIRST_SECTION[] =
    "DEVICE_TYPE RV52100\nPS 0 10000 0\nPS 1 20000 0\nSIGNATURE 0 10008 0\nSIGNATURE 1 20008 0\n"
    "IMAGE 0 30000 0\nIMAGE 1 40000 0\nSTART P 10000 0\n00 01 02 03\nEND P\n"
    "START Q 20000 0\n00 01 02 03\nEND Q\nSTART A 30004 0\n00 01 02 03\nEND A\n";

const std::vector<Ending> BEFORE_WRITING = {
    {"Server <server>: Cant get", GENERIC, {"-g=10"}, "IfcVersion", "ERROR:0:busy"},
    {"<server> interface version", GENERIC, {"-g=10"}, "IfcVersion", "2.1"},
    {"Failed checking access", GENERIC, {"-g=10"}, "NsGetDeviceByType", "ERROR:0:busy"},
    {"Bad device record format", GENERIC, {"-g=10"}, "NsGetDeviceByType", "{device 1}"},
    {"Inconsistent ports num",
     GENERIC,
     {"-g=10"},
     "NsGetDeviceByType",
     "{device 1 1 0x10 0x10 0x11 1 a b} {device 1 2 0x10 0x10 0x12 2 a b}"},
    {"Device not accessible", GENERIC, {"-g=99"}, "", ""},
    {"Multi max violation", GENERIC, {"-n", "-g=10,20"}, "vsMultiMaxGet", "1"},
    {"Multi max violation", RECORDS, {"-g=10,20"}, "vsMultiMaxGet", "1"},
    {"Both images are invalid -", RECORDS, {"-g=10,20"}, "", ""},
    {"All devices can't be failsafe", RECORDS, {"-g=10,20"}, "", ""},
    {"FwImage: Tried to access", ONE_SLOT, {"-g=10"}, "", ""},
    {"Tried to GetSectorSize()", FLASH, {"-g=100,200"}, "", ""},
    {"Internal Error: Bad format", FLASH, {"-g=100"}, "vsFlashGetAttrMulti", "{{size}}"},
    {"Internal Error: Expected numeric",
     FLASH,
     {"-g=100"},
     "vsFlashGetAttrMulti",
     "{{sector_size=many}}"},
    {"The flash sector size", FLASH, {"-g=100"}, "vsFlashGetAttrMulti", "{{size=100000}}"},
    {"RemoteFlashInterface::Erase() : Can't",
     FLASH,
     {"-n", "-g=100"},
     "vsFlashGetAttrMulti",
     "{{size=100000}}"},
    {"Image on device is not failsafe", FLASH, {"-g=100"}, "", ""},
    {"The image has no section at", NO_POINTER_SECTOR, {"-g=100"}, "", ""},
    {"The image has no sections between", SLOTS_IN_WRONG_ORDER, {"-g=100"}, "", ""},
    {"Can't find a sector addres", NO_FIRST_SECTION, {"-g=100"}, "", ""},
};

/// What a message of the page looks like on the console.
std::regex OnConsole(const std::string& message) {
  const std::string literally =
      std::regex_replace(message, std::regex(R"([.^$|()[\]{}*+?\\])"), "\\$&");
  return std::regex(std::regex_replace(literally, std::regex("<[^>]*>"), ".*"));
}

TEST(TroubleshootingStatesTest, NothingIsWrittenWhereThePageSaysSo) {
  const common::ScratchFolder folder;
  const std::vector<Row> rows = RowsOf("message");
  for (const Ending& ending : BEFORE_WRITING) {
    SCOPED_TRACE(ending.message);
    const auto row = std::ranges::find_if(rows, [&](const Row& each) {
      return each.cells[0].starts_with("`" + std::string(ending.message));
    });
    ASSERT_NE(row, rows.end());
    EXPECT_THAT(row->cells[2], testing::HasSubstr("nothing written"));

    std::string text = I2C_FABRIC;
    if (*ending.command != '\0') {
      text += std::string("[[fault]]\nkind = \"answer\"\ncommand = \"") + ending.command +
              "\"\ntext = \"" + ending.answer + "\"\n";
    }
    sim::Fabric fabric;
    sim::LoadFabric(folder.Write("fabric.toml", text), {}, fabric);
    const protocol::ServerThread server(fabric);
    Texts words{"fwpush", "-f", folder.Write("fw.img", ending.image), "-s", server.ServerString()};
    std::ranges::copy(ending.words, std::back_inserter(words));
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    const std::string console =
        OutputOf([&] { FwPush(static_cast<int>(arguments.size()), arguments.data()); });
    const std::string message = row->cells[0].substr(1, row->cells[0].size() - 2);
    EXPECT_TRUE(std::regex_search(console, OnConsole(message))) << console;
    const Texts requests = server.Requests();
    EXPECT_FALSE(requests.empty());
    for (const std::string& request : requests) {
      EXPECT_THAT(request, testing::Not(testing::AnyOf(testing::HasSubstr("Write"),
                                                       testing::HasSubstr("Erase"))));
    }
  }
}

}  // namespace
