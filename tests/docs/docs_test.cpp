// Holds docs/image-format.md, docs/image-check.md, docs/protocol.md, docs/architecture.md and
// docs/reliability.md against the program: every example is loaded or played, every table compared
// with what it tells of.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>

#include "fwimg/ImageCheck.h"
#include "protocol/Server.h"
#include "protocol/Session.h"
#include "rehearse/InterruptionPoint.h"
#include "sim/FabricFile.h"
#include "src/main.h"
#include "src/utils.h"
#include "tests/support/Harness.h"
#include "tests/support/OpenedSocket.h"
#include "tests/support/support.h"

namespace {

using Texts = std::vector<std::string>;

constexpr u_int32_t SECTOR_SIZE = 0x10000;
/// The burns of the protocol's examples.
constexpr std::size_t OPENING = 3;        ///< exchanges before what an example shows
constexpr std::size_t FLASH_OPENING = 4;  ///< with the attributes of a flash

/// A fenced block of a document.
struct Block {
  std::string language;  ///< the first word after the fence
  std::string info;      ///< what follows it
  std::string before;    ///< the paragraph right before it, as one line
  std::string heading;   ///< of the section that it stands in
  Texts lines;
  std::size_t line;  ///< of the fence, from 1

  std::string Text() const {
    std::string text;
    for (const std::string& each : lines) text += each + "\n";
    return text;
  }
};

using Row = Texts;  ///< the cells of a row of a table

class Document {
 public:
  explicit Document(const std::string& name)
      : _name(name), _file(std::string(DOCUMENTS) + "/" + name) {
    std::ifstream file(_file);
    EXPECT_TRUE(file.good()) << _file;
    std::string paragraph;
    std::string heading;
    bool is_over = true;  // the paragraph: a blank line came
    Block* open = nullptr;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
      ++number;
      if (open != nullptr && line == "```") {
        open = nullptr;
        paragraph.clear();
      } else if (open != nullptr) {
        open->lines.push_back(line);
      } else if (line.starts_with("```")) {
        const std::size_t blank = std::min(line.find(' '), line.size());
        _blocks.push_back({line.substr(3, blank - 3),
                           line.substr(std::min(blank + 1, line.size())),
                           paragraph,
                           heading,
                           {},
                           number});
        open = &_blocks.back();
      } else if (line.empty()) {
        is_over = true;
        _rows.emplace_back();
      } else {
        if (line.starts_with("## ")) heading = line;
        if (is_over) paragraph.clear();
        is_over = false;
        paragraph += (paragraph.empty() ? "" : " ") + line;
        _prose += line + "\n";
        if (line.starts_with("| ")) _rows.push_back(Cells(line));
      }
    }
    EXPECT_EQ(open, nullptr) << _name << ": a fence is not closed";
  }

  std::vector<Block> Blocks(const std::string& language) const {
    std::vector<Block> blocks;
    for (const Block& block : _blocks) {
      if (block.language == language) blocks.push_back(block);
    }
    EXPECT_FALSE(blocks.empty()) << language;
    return blocks;
  }

  /// The rows of the table whose first head is `head`.
  std::vector<Row> Table(const std::string& head) const {
    std::vector<Row> rows;
    bool is_open = false;
    std::size_t width = 0;
    for (const Row& row : _rows) {
      if (row.empty()) {
        is_open = false;
      } else if (is_open) {
        EXPECT_EQ(row.size(), width) << row.front();
        rows.push_back(row);
      } else if (row.front() == head) {
        is_open = true;
        width = row.size();
      }
    }
    EXPECT_FALSE(rows.empty()) << head;
    return rows;
  }

  /// Where a block stands, for messages.
  std::string At(const Block& block) const { return _name + ":" + std::to_string(block.line); }
  const std::string& Prose() const { return _prose; }
  /// How often it says `text`, wherever its lines are broken.
  std::size_t Count(const std::string& text) const {
    std::string prose = _prose;
    std::ranges::replace(prose, '\n', ' ');
    std::size_t count = 0;
    for (std::size_t at = 0; (at = prose.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
  }
  bool Says(const std::string& text) const { return Count(text) > 0; }

 private:
  static Row Cells(const std::string& line) {
    Row cells;
    std::string rest = line.substr(2);
    for (std::size_t end; (end = rest.find(" |")) != std::string::npos;) {
      cells.push_back(rest.substr(0, end));
      rest.erase(0, std::min(end + 3, rest.size()));
    }
    return cells;
  }

  std::string _name;
  std::string _file;
  std::vector<Block> _blocks;
  std::vector<Row> _rows;  ///< an empty one between two tables
  std::string _prose;
};

/// The texts in backticks.
Texts Quoted(const std::string& text) {
  Texts quoted;
  for (std::size_t at = 0; (at = text.find('`', at)) != std::string::npos;) {
    const std::size_t end = text.find('`', at + 1);
    if (end == std::string::npos) break;
    quoted.push_back(text.substr(at + 1, end - at - 1));
    at = end + 1;
  }
  return quoted;
}

std::string Unquoted(const std::string& cell) {
  const Texts quoted = Quoted(cell);
  return quoted.empty() ? cell : quoted.front();
}

class ImageFormatDocumentTest : public ConsoleTest {
 protected:
  const Document _document{"image-format.md"};
  common::ScratchFolder _folder;

  std::string Load(const std::string& text, FwImage& image) {
    const std::string path = _folder.Write("fw.img", text);
    std::string error;
    OutputOf([&] { error = ErrorOf([&] { image.Open(path.c_str(), READ); }); });
    const std::string folder = _folder.Path().string() + "/";
    const std::size_t at = error.find(folder);
    return at == std::string::npos ? error : error.erase(at, folder.size());
  }

  /// The kinds of findings of `fwimg check`.
  std::set<std::string> Findings(const std::string& text) {
    const std::string path = _folder.Write("fw.img", text);
    std::set<std::string> kinds;
    for (const fwimg::Problem& problem : fwimg::Check(path, {.sector_size = SECTOR_SIZE})) {
      kinds.emplace(problem.kind->word);
    }
    return kinds;
  }
};

TEST_F(ImageFormatDocumentTest, EveryExampleLoadsOrEndsWithTheErrorNamedBeforeIt) {
  std::size_t refused = 0;
  for (const Block& block : _document.Blocks("img")) {
    SCOPED_TRACE(_document.At(block));
    std::string expected = "(no error)";
    if (block.before.starts_with("Refused: ")) {
      expected = Unquoted(block.before);
      ++refused;
    }
    FwImage image;
    EXPECT_EQ(Load(block.Text(), image), expected);
  }
  EXPECT_EQ(refused, _document.Count("Refused: `"));
  EXPECT_GT(refused, 0u);
}

TEST_F(ImageFormatDocumentTest, TheCheckFindsInAnExampleWhatTheTextBeforeItNames) {
  const std::string words = "`fwimg check` finds ";
  std::size_t checked = 0;
  for (const Block& block : _document.Blocks("img")) {
    SCOPED_TRACE(_document.At(block));
    const std::size_t at = block.before.rfind(words);
    const std::set<std::string> found = Findings(block.Text());
    // A whole image, with a name of its own, has no faults at all.
    if (!block.info.empty()) {
      EXPECT_EQ(found, std::set<std::string>());
      continue;
    }
    if (at == std::string::npos) continue;
    for (const std::string& kind : Quoted(block.before.substr(at + words.size()))) {
      EXPECT_TRUE(found.contains(kind)) << kind;
    }
    ++checked;
  }
  EXPECT_EQ(checked, _document.Count(words + "`"));
  EXPECT_GT(checked, 0u);
}

TEST_F(ImageFormatDocumentTest, EveryKindOfFindingInTheTableExists) {
  std::set<std::string> known;
  for (const fwimg::ProblemKind& kind : fwimg::ProblemKinds()) known.emplace(kind.word);
  for (const Row& row : _document.Table("in the file")) {
    ASSERT_EQ(row.size(), 3u);
    for (const std::string& kind : Quoted(row[2])) EXPECT_TRUE(known.contains(kind)) << kind;
  }
}

TEST(ImageCheckDocumentTest, TheTablesHaveEveryKindOfProblemInOrderWithItsSeverity) {
  std::vector<std::pair<std::string, std::string>> told;
  for (const Row& row : Document("image-check.md").Table("kind")) {
    if (row.size() == 2) continue;  // of errors in images that burn, below
    ASSERT_EQ(row.size(), 4u) << row[0];
    EXPECT_FALSE(row[2].empty() || row[3].empty()) << row[0];
    told.emplace_back(Unquoted(row[0]), row[1]);
  }
  std::vector<std::pair<std::string, std::string>> known;
  for (const fwimg::ProblemKind& kind : fwimg::ProblemKinds()) {
    const bool is_error = kind.severity == fwimg::Severity::ERROR;
    known.emplace_back(kind.word, is_error ? "error" : "warning");
  }
  EXPECT_EQ(told, known);
}

TEST(ImageCheckDocumentTest, TheKindsInImagesThatBurnAreErrorsWithAReason) {
  std::map<std::string_view, fwimg::Severity> known;
  for (const fwimg::ProblemKind& kind : fwimg::ProblemKinds()) known[kind.word] = kind.severity;
  std::set<std::string> told;
  for (const Row& row : Document("image-check.md").Table("kind")) {
    const std::vector<std::string> kinds = Quoted(row.at(0));
    EXPECT_FALSE(kinds.empty()) << row[0];
    for (const std::string& kind : kinds) {
      ASSERT_TRUE(known.contains(kind)) << kind;
      if (row.size() != 2) continue;
      EXPECT_EQ(known[kind], fwimg::Severity::ERROR) << kind;
      EXPECT_FALSE(row[1].empty()) << kind;
      EXPECT_TRUE(told.insert(kind).second) << kind << " has two reasons";
    }
  }
  EXPECT_FALSE(told.empty());
}

TEST_F(ImageFormatDocumentTest, ExamplesShowEveryDirective) {
  std::set<std::string> shown;
  for (const Block& block : _document.Blocks("img")) {
    if (block.before.starts_with("Refused: ")) continue;
    for (const std::string& line : block.lines) {
      const Texts words = splitv(line, " ", false);
      if (words.empty()) continue;
      shown.insert(words[0]);
      if (words[0] == "REPLACE") shown.insert("REPLACE " + words[1]);
    }
  }
  for (const char* directive :
       {"START", "END", "DEVICE_TYPE", "DEVMAP", "PS", "IMAGE", "SIGNATURE", "MAJ_FW_VER",
        "MIN_FW_VER", "SUB_MIN_FW_VER", "REPLACE CRC", "REPLACE GUID", "REPLACE GUIDS",
        "REPLACE SYSGUID", "REPLACE BSN"}) {
    EXPECT_TRUE(shown.contains(directive)) << directive;
  }
}

TEST_F(ImageFormatDocumentTest, DeviceTypesAreBurntAsTheTableSays) {
  std::set<std::string> words;
  for (const Row& row : _document.Table("word")) {
    ASSERT_EQ(row.size(), 4u);
    const std::string word = Unquoted(row[0]);
    SCOPED_TRACE(word);
    words.insert(word);
    const DeviceType type = FwImage::Str2DeviceType(word);
    const auto rom = GetRomInterface(type, 5, false, false);
    const bool is_flash = dynamic_cast<RemoteFlashInterface*>(rom.get()) != nullptr;
    EXPECT_EQ(row[1], is_flash ? "serial flash" : "I2C EEPROM");
    EXPECT_EQ(Unquoted(row[2]), GetBurnAlgorithm(type, rom.get(), true, false, false)->GetName());
    EXPECT_EQ(Unquoted(row[3]), GetBurnAlgorithm(type, rom.get(), false, false, false)->GetName());
  }
  EXPECT_EQ(words, (std::set<std::string>{"RV61100", "RV61300", "RV52100", "RV52300", "RV52310",
                                          "RV52400", "RV52410"}));
}

TEST_F(ImageFormatDocumentTest, FieldsHaveTheSizesOfTheTable) {
  std::set<FieldType> types;
  for (const Row& row : _document.Table("type")) {
    const FieldType type = FwImage::Str2FieldType(Unquoted(row.at(0)));
    EXPECT_EQ(row.at(1), std::to_string(FwImage::ReplaceFieldSize(type))) << row[0];
    types.insert(type);
  }
  EXPECT_EQ(types, (std::set<FieldType>{SIGNATURE, GUIDS, GUID, SYS_GUID, BSN, VSD}));
}

TEST_F(ImageFormatDocumentTest, CrcsOfTheTableAreThoseOfABurn) {
  struct Probe : BurnAlgorithm {
    using BurnAlgorithm::BurnAlgorithm;
    std::string GetName() const override { return ""; }
    BraidResult Go(FwImage&) override { return BRAID_OK; }
  };
  RemoteI2cInterface rom(5);
  Probe probe(rom);
  std::size_t checks = 0;
  const std::regex check(R"(\| check: `([0-9A-F ]+)` \| `([0-9A-F]{4})` \|)");
  const std::string& prose = _document.Prose();
  for (std::sregex_iterator at(prose.begin(), prose.end(), check), end; at != end; ++at, ++checks) {
    const DataVec data = Hex((*at)[1]);
    const auto expected = static_cast<u_int32_t>(std::stoul((*at)[2], nullptr, 16));
    EXPECT_EQ(probe.CalcCrc(data), expected);
    EXPECT_EQ(ReferenceCrc(data), expected);
  }
  EXPECT_EQ(checks, 2u);
}

TEST_F(ImageFormatDocumentTest, WholeExamplesHaveTheCrcsOfTheirBytes) {
  std::size_t crcs = 0;
  for (const Block& block : _document.Blocks("img")) {
    if (block.info.empty()) continue;
    SCOPED_TRACE(_document.At(block));
    FwImage image;
    Load(block.Text(), image);
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      const DataVec& data = image.GetSection(addr)->data;
      const auto at = [&](u_int32_t place) { return data.begin() + (place - addr); };
      for (const auto& crc : image.GetCrcsInRange(addr, static_cast<u_int32_t>(data.size()))) {
        DataVec expected;
        expected << ReferenceCrc(DataVec(at(crc.from), at(crc.from) + crc.size));
        EXPECT_EQ(DataVec(at(crc.crc_addr), at(crc.crc_addr) + 4), expected) << crc.from;
        ++crcs;
      }
    }
  }
  EXPECT_EQ(crcs, 5u);
}

TEST_F(ImageFormatDocumentTest, TheCrcInPythonIsThatOfABurn) {
  const std::vector<Block> blocks = _document.Blocks("python");
  ASSERT_EQ(blocks.size(), 1u);
  const std::string script = _folder.Write(
      "crc.py", blocks.front().Text() + "import sys\nprint(crc16(bytes.fromhex(sys.argv[1])))\n");
  TestRng rng(20261);
  for (const std::size_t size : {0u, 4u, 64u}) {
    const DataVec data = RandomBytes(rng, size);
    std::ostringstream digits;
    for (const u_int8_t byte : data) {
      digits << std::hex << std::setw(2) << std::setfill('0') << u_int32_t{byte};
    }
    const Outcome outcome = RunProgram({"/usr/bin/env", "python3", script, digits.str()});
    EXPECT_EQ(outcome.output, std::to_string(ReferenceCrc(data)) + "\n") << outcome.errors;
  }
}

TEST_F(ImageFormatDocumentTest, ErrorsQuotedInProseAreThoseOfTheProgram) {
  // Of files that no block can show: by their name, and by what only a burn finds out.
  for (const Row& row : _document.Table("name")) {
    FwImage image;
    EXPECT_EQ(ErrorOf([&] { image.Open(Unquoted(row.at(0)).c_str(), READ); }), Unquoted(row.at(1)));
  }
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"START A 0 0\n0 1 2\nEND A\n", ": Section data line must have multiple of 4 bytes."},
      {"START A 0 0\n0 1 2 xy\nEND A\n", ": Data byte (xy) contains invalid characters"},
      {"START A 0 0\nEND\n", ": Wrong END section format - Sector name expected."},
      {"START A 0 0\nEND B\n", ": END Section name (B) differs from start section name (A)."},
      {"START A FFFFFFFC 0\n0 1 2 3 4 5 6 7\n", ": Section (A) reaches past the last address."},
  };
  for (const Case& each : cases) {
    FwImage image;
    EXPECT_EQ(Load(each.text, image), "fw.img:2" + std::string(each.error));
    EXPECT_TRUE(_document.Says("| `" + std::string(each.error) + "` |")) << each.error;
  }
  std::size_t crossings = 0;
  for (const Block& block : _document.Blocks("img")) {
    if (block.before.starts_with("Refused: ")) continue;
    FwImage image;
    Load(block.Text(), image);
    std::vector<u_int32_t> addrs;
    image.GetSectionsAddr(addrs);
    for (const u_int32_t addr : addrs) {
      const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
      for (const std::string& error : {ErrorOf([&] { image.GetFieldsInRange(addr, size); }),
                                       ErrorOf([&] { image.GetCrcsInRange(addr, size); })}) {
        if (error == "(no error)") continue;
        ++crossings;
        EXPECT_TRUE(_document.Says("`" + error + "`")) << error;
      }
    }
  }
  EXPECT_EQ(crossings, 2u);
}

/// `(text)*N` written out, `\n` in it as a line end.
std::string Repeated(const std::string& line) {
  static const std::regex REPEAT(R"(\(([^()]*)\)\*([0-9]+))");
  std::string result;
  auto rest = line.cbegin();
  for (std::smatch match; std::regex_search(rest, line.cend(), match, REPEAT);
       rest = match[0].second) {
    result.append(rest, match[0].first);
    const std::string text = std::regex_replace(match[1].str(), std::regex(R"(\\n)"), "\n");
    for (int i = std::stoi(match[2]); i > 0; --i) result += text;
  }
  return result.append(rest, line.cend());
}

/// Lines of one side that follow each other, and what the other says to them.
struct Turn {
  std::string client;
  std::string server;
};

/// The turns of a block. Raw lines keep their ends; others are whole messages.
std::vector<Turn> TurnsOf(const Block& block, bool is_raw) {
  std::vector<Turn> turns;
  bool is_client = false;
  for (std::string line : block.lines) {
    EXPECT_TRUE(line.starts_with("> ") || line.starts_with("< ")) << line;
    if (line[0] == '>' && !is_client) turns.emplace_back();
    is_client = line[0] == '>';
    std::string text = line.substr(2);
    if (text.ends_with('~')) text.pop_back();
    text = Repeated(text) + (is_raw ? "\n" : "");
    std::string& side = is_client ? turns.back().client : turns.back().server;
    EXPECT_TRUE(is_raw || side.empty()) << "two messages of one side: " << line;
    side += text;
  }
  return turns;
}

/// The message that the steps send, and those that follow when each of its pieces is agreed to.
std::string Unframed(const std::vector<protocol::Step>& steps, protocol::Session& session) {
  using protocol::MessageReader;
  MessageReader reader(MessageReader::Lines::JOINED);
  std::vector<protocol::Step> left = steps;
  while (left.size() == 1 && left[0].kind == protocol::Step::SEND) {
    const std::vector<MessageReader::Event> events = reader.Feed(left[0].bytes);
    if (events.size() != 1) break;
    if (events[0].kind == MessageReader::Event::MESSAGE) return events[0].text;
    left = session.Feed(protocol::Frame(protocol::CONTINUE));
  }
  return "(no answer)";
}

class ProtocolDocumentTest : public ConsoleTest {
 protected:
  ProtocolDocumentTest() {
    const Document images("image-format.md");
    for (const Block& block : images.Blocks("img")) {
      if (!block.info.empty()) _folder.Write(block.info, block.Text());
    }
    const std::vector<Block> fabrics = _document.Blocks("toml");
    EXPECT_EQ(fabrics.size(), 1u);
    _fabric_file = _folder.Write("fabric.toml", fabrics.front().Text());
  }

  std::unique_ptr<sim::Fabric> NewFabric() const {
    auto fabric = std::make_unique<sim::Fabric>();
    sim::LoadFabric(_fabric_file, {}, *fabric);
    return fabric;
  }

  /// Runs the whole program, with `words` as a command line, against a fabric; returns what was
  /// said on the connection.
  std::vector<protocol::Exchange> Burn(sim::Fabric& fabric, Texts words) const {
    protocol::ServerThread server(fabric);
    for (std::string& word : words) {
      if (const std::size_t at = word.find("HOST:PORT"); at != std::string::npos) {
        word.replace(at, std::string::npos, "127.0.0.1:" + std::to_string(server.Port()));
      }
      if (word.ends_with(".img")) word = _folder / word;
    }
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    int status = -1;
    const std::string console =
        OutputOf([&] { status = FwPush(static_cast<int>(arguments.size()), arguments.data()); });
    EXPECT_EQ(status, 0) << console;
    EXPECT_THAT(console, testing::Not(testing::HasSubstr("-E-")));
    return server.Exchanges();
  }

  const Document _document{"protocol.md"};
  common::ScratchFolder _folder;
  std::string _fabric_file;
};

TEST_F(ProtocolDocumentTest, TheFabricAnswersAsEveryExampleShows) {
  std::string heading;
  std::unique_ptr<sim::Fabric> fabric;
  std::size_t exchanges = 0;
  for (const Block& block : _document.Blocks("wire")) {
    SCOPED_TRACE(_document.At(block));
    const bool is_raw = block.info == "raw";
    // What an example writes is there for the next one of its section; a burn finds it all new.
    if (block.heading != heading || block.info.starts_with("fwpush")) fabric = NewFabric();
    heading = block.heading;
    protocol::Session session(*fabric);
    for (const Turn& turn : TurnsOf(block, is_raw)) {
      ++exchanges;
      const std::vector<protocol::Step> steps =
          session.Feed(is_raw ? turn.client : protocol::Frame(turn.client));
      if (is_raw) {
        ASSERT_EQ(steps.size(), 1u) << turn.client;
        EXPECT_EQ(steps[0].bytes, turn.server);
      } else {
        EXPECT_EQ(Unframed(steps, session), turn.server) << turn.client;
      }
    }
  }
  EXPECT_GE(exchanges, 60u);
}

TEST_F(ProtocolDocumentTest, EveryBurnShownIsTheOneThatTheProgramMakes) {
  std::size_t burns = 0;
  for (const Block& block : _document.Blocks("wire")) {
    if (!block.info.starts_with("fwpush ")) continue;
    SCOPED_TRACE(_document.At(block));
    ++burns;
    const auto fabric = NewFabric();
    const std::vector<protocol::Exchange> said = Burn(*fabric, splitv(block.info, " ", false));
    const bool is_flash = block.Text().find("vsFlash") != std::string::npos;
    const std::size_t opening = is_flash ? FLASH_OPENING : OPENING;
    const std::vector<Turn> shown = TurnsOf(block, false);
    ASSERT_EQ(said.size(), opening + shown.size());
    for (std::size_t i = 0; i < shown.size(); ++i) {
      EXPECT_EQ(said[opening + i].request, shown[i].client);
      EXPECT_EQ(said[opening + i].answer, shown[i].server);
    }
  }
  EXPECT_EQ(burns, 4u);
}

TEST_F(ProtocolDocumentTest, TheProgramFramesAsEveryRawExampleShows) {
  for (const Block& block : _document.Blocks("wire")) {
    if (block.info != "raw") continue;
    SCOPED_TRACE(_document.At(block));
    std::string client;
    std::string server;
    Texts messages;  // of the client, its agreements left out
    const auto fabric = NewFabric();
    protocol::Session session(*fabric);
    session.trace = [&](const std::string& request, const std::string&) {
      messages.push_back(request);
    };
    for (const Turn& turn : TurnsOf(block, true)) {
      client += turn.client;
      server += turn.server;
      session.Feed(turn.client);
    }
    ASSERT_FALSE(messages.empty());

    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(write(ends[1], server.data(), server.size()), static_cast<ssize_t>(server.size()));
    ASSERT_EQ(shutdown(ends[1], SHUT_WR), 0);
    {
      Opened<BraidConn::ClientSocket> socket;
      socket.Adopt(ends[0]);
      for (std::size_t i = 0; i < messages.size(); ++i) {
        // The second message is the text of an image.
        if (i == 0) socket.Request(messages[i]);
        if (i == 1) socket.Respond(messages[i]);
        ASSERT_LT(i, 2u);
        std::string answer;
        socket.Receive(answer);
      }
    }
    std::string sent;
    char bytes[4096];
    for (ssize_t got; (got = read(ends[1], bytes, sizeof(bytes))) > 0;) {
      sent.append(bytes, static_cast<std::size_t>(got));
    }
    close(ends[1]);
    EXPECT_EQ(sent, client);
  }
}

/// A row of the vocabulary as a pattern for requests.
std::regex PatternOf(const std::string& request) {
  static const std::map<std::string, std::string> WORDS{
      {"COUNT", "[1-9][0-9]* "},
      {"GUIDS", "(0x[0-9a-f]{16} )+"},
      {"GUID", "0x[0-9a-f]{16} "},
      {"CHIP", "0x(0|[1-9a-f][0-9a-f]?) "},
      {"SIZE", "[1-9][0-9]* "},
      {"OFFSET", "0x(0|[1-9a-f][0-9a-f]*) "},
      {"DATA", "(0x(0|[1-9a-f][0-9a-f]*) )+"},
      {"1", " 1"},
  };
  const Texts words = splitv(request, " ", false);
  std::string pattern = words[0];
  if (words.size() > 1) pattern += " ";
  for (std::size_t i = 1; i < words.size(); ++i) {
    const auto word = WORDS.find(words[i]);
    pattern += word == WORDS.end() ? words[i] : word->second;
  }
  return std::regex(pattern);
}

TEST_F(ProtocolDocumentTest, TheVocabularyIsWhatTheProgramSends) {
  // Every kind of burn, and what only an algorithm that no device type chooses sends.
  std::string zeros;
  for (int i = 0; i < 17; ++i) zeros += Repeated("(00 )*16") + "\n";
  _folder.Write("vsd.img",
                "DEVICE_TYPE RV61300\nDEVMAP 2000 50\nDEVMAP 2000 51\nIMAGE 0 0 50\nIMAGE 1 0 51\n"
                "REPLACE BSN 10 50\nREPLACE VSD 50 50\nREPLACE BSN 10 51\nREPLACE VSD 50 51\n"
                "START A 0 50\n50 4C 4C 01 00 00 00 00 00 00 00 00 00 00 00 C2\n" +
                    zeros + "END A\n");
  Texts requests;
  const auto burn = [&](const std::string& command_line) {
    SCOPED_TRACE(command_line);
    const auto fabric = NewFabric();
    for (const protocol::Exchange& said : Burn(*fabric, splitv(command_line, " ", false))) {
      requests.push_back(said.request);
    }
  };
  burn("fwpush -s I2C:HOST:PORT -f rv61100.img -g aa550000000010,aa550000000020");
  burn("fwpush -s PPC:HOST:PORT -f rv61300.img -g aa550000000030");
  burn("fwpush -s PCI:HOST:PORT -f rv61300.img -c -g aa550000000030");
  burn("fwpush -s I2C:HOST:PORT -f vsd.img -g aa550000000030");
  burn("fwpush -s IB:HOST:PORT -f rv52100.img -g aa550000000100");
  burn("fwpush -s IB:HOST:PORT -f rv52100.img -n -g aa550000000101");
  const auto burn_directly = [&]<typename Rom>(Rom* type, Guid guid, const char* image_file) {
    static_cast<void>(type);
    const auto fabric = NewFabric();
    protocol::ServerThread server(*fabric);
    OutputOf([&] {
      FwImage image;
      image.Open((_folder / image_file).c_str(), READ);
      Rom rom(5);
      rom.SetAddressConvertor(image.GetAddressConvertor());
      rom.SetAccessDevices({guid});
      rom.Open(server.ServerString().c_str());
      RV52100DirectBurn(rom).Go(image);
    });
    // The last message is the image itself.
    Texts said = server.Requests();
    ASSERT_FALSE(said.empty());
    said.pop_back();
    requests.insert(requests.end(), said.begin(), said.end());
  };
  burn_directly(static_cast<RemoteFlashInterface*>(nullptr), 0xaa550000000100, "rv52100.img");
  burn_directly(static_cast<RemoteI2cInterface*>(nullptr), 0xaa550000000010, "rv61100.img");

  std::map<std::string, std::regex> rows;
  for (const Row& row : _document.Table("request")) {
    const std::string request = Unquoted(row.front());
    EXPECT_TRUE(rows.emplace(request.substr(0, request.find(' ')), PatternOf(request)).second);
  }
  std::set<std::string> never_sent;
  for (const auto& [word, pattern] : rows) never_sent.insert(word);
  for (const std::string& request : requests) {
    const std::string word = request.substr(0, request.find(' '));
    never_sent.erase(word);
    const auto row = rows.find(word);
    ASSERT_NE(row, rows.end()) << "not in the table: " << request;
    EXPECT_TRUE(std::regex_match(request, row->second)) << request;
  }
  EXPECT_EQ(never_sent, std::set<std::string>());
}

TEST_F(ProtocolDocumentTest, LimitsAreThoseOfTheConnection) {
  const auto seconds = std::to_string(BraidConn::MAX_SILENCE.count()) + " seconds";
  EXPECT_TRUE(_document.Says("waits for an answer | " + seconds));
  EXPECT_TRUE(_document.Says("takes no more bytes | " + seconds));
  EXPECT_TRUE(_document.Says("a line of an answer | " + std::to_string(BraidConn::MAX_LINE) + " "));
  EXPECT_TRUE(
      _document.Says("all its lines together | " + std::to_string(BraidConn::MAX_BUFFER) + " "));
}

TEST_F(ProtocolDocumentTest, DescriptionsOfErrorsAreCutAsItSays) {
  const auto description = [](const char* text) { return BraidConn::Response(text).Error(); };
  EXPECT_EQ(description("ERROR:0x1234:No such device"), "No such device");
  EXPECT_EQ(description("ERROR:No such device"), "No such device");
  EXPECT_EQ(description("TARGET_ERROR:1:a:b"), "a:b");
  for (const char* text : {"`ERROR:0x1234:No such device`", "`ERROR:No such device`"}) {
    EXPECT_TRUE(_document.Says(text)) << text;
  }
}

/// The names by which links reach the headings of a document.
std::set<std::string> AnchorsOf(const std::filesystem::path& path) {
  std::set<std::string> anchors;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with("#")) continue;
    std::string anchor;
    for (const char c : line.substr(line.find(' ') + 1)) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == ' ') anchor += '-';
      if (std::isalnum(byte) != 0 || c == '-') anchor += static_cast<char>(std::tolower(byte));
    }
    anchors.insert(anchor);
  }
  return anchors;
}

TEST(ArchitectureDocumentTest, EveryLinkAndPathOfTheDocumentsLeadsSomewhere) {
  const std::filesystem::path root = std::filesystem::path(DOCUMENTS).parent_path();
  const std::regex link(R"(\]\(([^)#]*)#?([^)]*)\))");
  const std::regex path(
      R"((bench|common|contrib|device|docs|examples|fuzz|fwimg|protocol|rehearse|report|script|sim|src|tests|trials|verify)/[A-Za-z0-9_./-]*)");
  Texts names{"../README.md", "../CONTRIBUTING.md", "../bench/README.md"};
  for (const auto& entry : std::filesystem::directory_iterator(DOCUMENTS)) {
    if (entry.path().extension() == ".md") names.push_back(entry.path().filename());
  }
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const Document document(name);
    const std::string& prose = document.Prose();
    std::size_t places = 0;
    for (std::sregex_iterator at(prose.begin(), prose.end(), link), end; at != end;
         ++at, ++places) {
      const std::string file = (*at)[1];
      const std::string anchor = (*at)[2];
      const auto page = root / "docs" / name;
      const auto target = file.empty() ? page : page.parent_path() / file;
      EXPECT_TRUE(std::filesystem::exists(target)) << target;
      EXPECT_TRUE(anchor.empty() || AnchorsOf(target).contains(anchor)) << anchor;
    }
    for (const std::string& quoted : Quoted(prose)) {
      if (!std::regex_match(quoted, path)) continue;
      EXPECT_TRUE(std::filesystem::exists(root / quoted)) << quoted;
      ++places;
    }
    EXPECT_GT(places, 0u);
  }
}

TEST(ArchitectureDocumentTest, TheTableOfUnitsHasEveryUnit) {
  std::set<std::string> units;
  const auto folder = std::filesystem::path(DOCUMENTS).parent_path() / "src";
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".h") units.insert(entry.path().stem());
  }
  std::set<std::string> told;
  for (const Row& row : Document("architecture.md").Table("unit")) told.insert(Unquoted(row[0]));
  EXPECT_EQ(told, units);
}

TEST(ArchitectureDocumentTest, FoldersMayIncludeWhatTheScriptLetsThem) {
  std::map<std::string, std::set<std::string>> allowed;
  std::ifstream script(std::filesystem::path(DOCUMENTS).parent_path() / "script" /
                       "include-directions");
  const std::regex entry(R"re(^    "([a-z/]+)": \[(.*)\],$)re");
  const std::regex name("\"([A-Za-z./]+)\"");
  for (std::string line; std::getline(script, line);) {
    std::smatch row;
    if (!std::regex_match(line, row, entry)) continue;
    std::set<std::string>& targets = allowed[row[1]];
    const std::string list = row[2];
    for (std::sregex_iterator at(list.begin(), list.end(), name), end; at != end; ++at) {
      targets.insert((*at)[1]);
    }
  }
  std::map<std::string, std::set<std::string>> told;
  for (const Row& row : Document("architecture.md").Table("folder")) {
    std::string folder = Unquoted(row.at(0));
    folder.pop_back();  // the slash
    std::set<std::string>& targets = told[folder];
    for (std::string quoted : Quoted(row.at(3))) {
      if (quoted.ends_with('/')) quoted.pop_back();
      targets.insert(quoted);
    }
  }
  EXPECT_EQ(told, allowed);
  EXPECT_GE(told.size(), 10u);
}

TEST(ArchitectureDocumentTest, WhatIsToBeChangedIsWhereThePageSays) {
  const auto root = std::filesystem::path(DOCUMENTS).parent_path();
  const std::regex place("`([A-Za-z:]+)` in `([^`]+)`");
  std::size_t places = 0;
  for (const Row& row : Document("architecture.md").Table("to")) {
    for (const std::string& cell : row) {
      for (std::sregex_iterator at(cell.begin(), cell.end(), place), end; at != end; ++at) {
        ++places;
        EXPECT_NE(ReadText(root / (*at)[2].str()).find((*at)[1].str()), std::string::npos)
            << (*at)[0];
      }
    }
  }
  EXPECT_GE(places, 14u);
}

TEST(ReliabilityDocumentTest, WhatWasTriedCanBeTriedAgain) {
  const auto root = std::filesystem::path(DOCUMENTS).parent_path();
  const std::vector<Row> rows = Document("reliability.md").Table("what");
  ASSERT_FALSE(rows.empty());
  for (const Row& row : rows) {
    const std::string command = Unquoted(row.at(3));
    const std::filesystem::path script = root / command.substr(0, command.find(' '));
    EXPECT_EQ(access(script.c_str(), X_OK), 0) << command;
  }
}

TEST(ReliabilityDocumentTest, EveryFuzzTargetHasItsRow) {
  std::set<std::string> targets;
  const auto folder = std::filesystem::path(DOCUMENTS).parent_path() / "fuzz" / "corpus";
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    targets.insert(entry.path().filename());
  }
  std::set<std::string> told;
  for (const Row& row : Document("reliability.md").Table("target")) {
    told.insert(Unquoted(row.at(0)));
  }
  EXPECT_EQ(told, targets);
  std::set<std::string> counted{"all"};
  counted.merge(targets);
  told.clear();
  for (const Row& row : Document("reliability.md").Table("fuzzed")) {
    told.insert(Unquoted(row.at(0)));
  }
  EXPECT_EQ(told, counted);
}

TEST(ReliabilityDocumentTest, FiguresStandInBlocksThatTheirScriptsWrite) {
  const auto root = std::filesystem::path(DOCUMENTS).parent_path();
  std::ifstream file(root / "docs" / "reliability.md");
  const std::regex start("<!-- figures: ([a-z-]+) -->");
  const std::regex figure(R"([0-9]{1,3}(,[0-9]{3})+)");
  std::set<std::string> blocks;
  std::string open;  // the block; empty outside
  for (std::string line; std::getline(file, line);) {
    SCOPED_TRACE(line);
    if (std::smatch name; std::regex_match(line, name, start)) {
      EXPECT_EQ(open, "") << "the block before it has no end";
      open = name[1];
      EXPECT_TRUE(blocks.insert(open).second) << "a second block of this name";
      EXPECT_EQ(access((root / "script" / open).c_str(), X_OK), 0) << "no such script";
    } else if (line == "<!-- end of figures -->") {
      EXPECT_NE(open, "") << "no block to end";
      open.clear();
    } else if (open.empty()) {
      EXPECT_FALSE(std::regex_search(line, figure)) << "a figure that no script writes";
    }
  }
  EXPECT_EQ(open, "");
  EXPECT_GE(blocks.size(), 7u);
}

/// The schemas of docs/json, by the names of their results.
std::map<std::string, nlohmann::json> Schemas() {
  std::map<std::string, nlohmann::json> schemas;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(DOCUMENTS) / "json")) {
    const std::string name = entry.path().stem().stem();
    schemas[name] = nlohmann::json::parse(ReadText(entry.path()));
  }
  return schemas;
}

/// Calls `visit` with a schema and all schemas in it.
void VisitAll(const nlohmann::json& schema,
              const std::function<void(const nlohmann::json&)>& visit) {
  if (schema.is_object()) visit(schema);
  if (!schema.is_structured()) return;
  for (const auto& part : schema) VisitAll(part, visit);
}

/// The text below the first heading that has `words`, up to the next heading.
std::string SectionBelow(const std::string& document, const std::string& words) {
  std::ifstream file(std::filesystem::path(DOCUMENTS) / document);
  std::string text;
  bool is_inside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("#")) {
      if (is_inside) return text;
      is_inside = line.find(words) != std::string::npos;
    } else if (is_inside) {
      text += line + "\n";
    }
  }
  return text;
}

std::set<std::string> Matches(const std::string& text, const std::string& pattern) {
  std::set<std::string> found;
  const std::regex regex(pattern);
  for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
    found.insert((*at)[1]);
  }
  return found;
}

TEST(JsonDocumentTest, SchemasAreStrict) {
  const std::set<std::string> optional{"cannot"};
  const auto schemas = Schemas();
  EXPECT_EQ(schemas.size(), 12u);
  for (const auto& [name, schema] : schemas) {
    SCOPED_TRACE(name);
    EXPECT_EQ(schema.at("$schema"), "https://json-schema.org/draft/2020-12/schema");
    EXPECT_EQ(schema.at("properties").at("version").at("const"), 1);
    std::size_t objects = 0;
    VisitAll(schema, [&](const nlohmann::json& part) {
      const auto is_a = [&part](const char* type) {
        return part.contains("type") && part["type"] == type;
      };
      EXPECT_EQ(is_a("array"), part.contains("items")) << part;
      EXPECT_TRUE(!is_a("integer") || part.contains("minimum")) << part;
      if (!is_a("object")) return;
      ++objects;
      EXPECT_EQ(part.at("additionalProperties"), false);
      std::set<std::string> names;
      for (const auto& [key, value] : part.at("properties").items()) {
        if (!optional.contains(key)) names.insert(key);
      }
      // Counts are those that the algorithm printed.
      if (names.contains("both_valid")) return;
      EXPECT_EQ(part.at("required").get<std::set<std::string>>(), names);
    });
    EXPECT_GT(objects, 0u);
  }
}

/// Words of the heading below which json.md describes a result.
std::string HeadingOf(std::string schema) {
  if (schema == "rollout-summary") return "The summary of a roll-out";
  if (schema == "rollout-host") return "The file of a host";
  if (schema == "serve-audit") return "The audit log of fwpush-serve";
  if (schema.starts_with("fwimg-")) schema[5] = ' ';
  return schema + " --json";
}

TEST(JsonDocumentTest, ThePageAndTheSchemasHaveTheSameMembers) {
  for (const auto& [name, schema] : Schemas()) {
    SCOPED_TRACE(name);
    std::set<std::string> members;
    std::set<std::string> words;  // members and values
    VisitAll(schema, [&](const nlohmann::json& part) {
      if (part.contains("properties") && part["properties"].is_object()) {
        for (const auto& [key, value] : part["properties"].items()) members.insert(key);
      }
      if (part.contains("const") && part["const"].is_string()) words.insert(part["const"]);
      if (!part.contains("enum") || !part["enum"].is_array()) return;
      for (const auto& value : part["enum"]) {
        if (value.is_string()) words.insert(value);
      }
    });
    words.insert(members.begin(), members.end());
    const std::string section = SectionBelow("json.md", HeadingOf(name));
    EXPECT_NE(section.find("(json/" + name + ".schema.json)"), std::string::npos);
    // Of the tables, and of the example.
    std::set<std::string> told = Matches(section, "`([a-z][a-z0-9_-]*)`");
    told.merge(Matches(section, "\"([a-z][a-z0-9_]*)\": "));
    for (const std::string& member : members) {
      EXPECT_TRUE(told.contains(member)) << member << " stands in the schema only";
    }
    std::istringstream lines(section);
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("| `")) continue;
      const std::string cell = line.substr(0, line.find(" |", 1));
      for (const std::string& word : Matches(cell, "`([a-z][a-z0-9_-]*)`")) {
        EXPECT_TRUE(words.contains(word)) << word << " stands on the page only";
      }
    }
  }
}

TEST(JsonDocumentTest, TheFileOfAHostHasWhatTheSummaryHasOfIt) {
  const auto schemas = Schemas();
  const std::string path = "/properties/hosts/items/properties";
  const nlohmann::json in_summary =
      schemas.at("rollout-summary").at(nlohmann::json::json_pointer(path));
  nlohmann::json own = schemas.at("rollout-host").at("properties");
  for (const char* member : {"version", "console"}) EXPECT_EQ(own.erase(member), 1u);
  EXPECT_EQ(own.size(), in_summary.size());
  for (const auto& [member, schema] : own.items()) {
    EXPECT_TRUE(in_summary.contains(member)) << member;
    EXPECT_EQ(schema.at("$ref"), "rollout-summary.schema.json#" + path + "/" + member);
  }
}

TEST(JsonDocumentTest, PointsOfExceptionsAreThoseThatTheRehearsalReads) {
  const nlohmann::json schema = Schemas().at("fwpush-rehearse");
  const std::string pattern =
      schema.at(nlohmann::json::json_pointer("/properties/exceptions/items/properties/at/pattern"));
  for (const std::string point :
       {"0", "1234", "killed:28", "dropped:1", "next:7", "12+34", "12+34@5", "x", "12+", "+1",
        "1@2", "1+2@", "next:1+2", "killed:1+2", "killed:next:1"}) {
    EXPECT_EQ(std::regex_match(point, std::regex(pattern)),
              rehearse::ParseInterruptionPoint(point).has_value())
        << point;
  }
}

TEST(JsonDocumentTest, TheExampleIsAsItsSchemaSaysAndAChangedOneIsNot) {
  const common::ScratchFolder folder;
  const auto is_valid = [&](const nlohmann::json& document) {
    return RunProgram({"/usr/bin/python3", VALIDATE_JSON, std::string(DOCUMENTS) + "/json",
                       "fwpush-report", folder.Write("result.json", document.dump())})
               .status == 0;
  };
  const auto blocks = FencedBlocks(std::string(DOCUMENTS) + "/json.md", "json");
  ASSERT_EQ(blocks.size(), 1u);
  const nlohmann::json example = nlohmann::json::parse(blocks[0]);
  EXPECT_TRUE(is_valid(example));
  for (const auto& [path, value] : {std::pair<std::string, nlohmann::json>{"/more", 1},
                                    {"/version", 2},
                                    {"/failure", ""},
                                    {"/devices/0/guid", "0x10"},
                                    {"/devices/0/more", 1},
                                    {"/devices/1/outcome", "unknown"},
                                    {"/phases/0/percent", -1},
                                    {"/counts/more", 1}}) {
    nlohmann::json changed = example;
    changed[nlohmann::json::json_pointer(path)] = value;
    EXPECT_FALSE(is_valid(changed)) << path;
  }
  nlohmann::json shorter = example;
  shorter["devices"][0].erase("reason");
  EXPECT_FALSE(is_valid(shorter));
}

}  // namespace
