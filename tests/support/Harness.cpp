#include "tests/support/Harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <regex>
#include <set>
#include <utility>

namespace {

constexpr std::chrono::seconds RUN_LIMIT{60};
constexpr std::chrono::seconds LINE_LIMIT{20};
/// Whoever runs the tests in the background may have them ignored.
const std::vector<int> ENDING_SIGNALS{SIGINT, SIGQUIT, SIGTERM};

/// Reads from both descriptors until they end; false when that takes too long.
bool ReadAll(const std::vector<std::pair<int, std::string*>>& sources) {
  const auto deadline = std::chrono::steady_clock::now() + RUN_LIMIT;
  std::set<int> open;
  for (const auto& [fd, text] : sources) open.insert(fd);
  while (!open.empty()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    for (const auto& [fd, text] : sources) {
      if (!open.contains(fd)) continue;
      pollfd waiting{fd, POLLIN, 0};
      if (poll(&waiting, 1, 10) <= 0) continue;
      char block[65536];
      const ssize_t got = read(fd, block, sizeof(block));
      if (got > 0) {
        text->append(block, static_cast<std::size_t>(got));
      } else if (got == 0 || errno != EINTR) {  // a terminal ends with an error
        open.erase(fd);
      }
    }
  }
  return true;
}

void Finish(common::ChildProcess& child, bool in_time, Outcome& outcome) {
  if (!in_time) {
    ADD_FAILURE() << "the program did not end in time";
    child.Signal(SIGKILL);
  }
  const common::Ending ending = child.Wait();
  outcome.status = ending.status;
  outcome.signal = ending.signal;
}

/// The JSON that the programs of a test wrote, to be validated at its end.
class WrittenJson : public testing::EmptyTestEventListener {
 public:
  /// Of this process; listens from the first call on.
  static WrittenJson& Get() {
    static WrittenJson* const written = [] {
      auto* listener = new WrittenJson;  // owned by GoogleTest
      testing::UnitTest::GetInstance()->listeners().Append(listener);
      return listener;
    }();
    return *written;
  }

  void Add(const std::string& schema, const std::string& text) {
    if (!_seen.insert({schema, text}).second) return;
    _words.push_back(schema);
    _words.push_back(_folder.Write(std::to_string(_words.size()), text));
  }

  void OnTestEnd(const testing::TestInfo& test) override {
    if (_words.empty()) return;
    std::vector<std::string> words{"/usr/bin/python3", VALIDATE_JSON,
                                   std::string(DOCUMENTS) + "/json"};
    words.insert(words.end(), _words.begin(), _words.end());
    _words.clear();
    _seen.clear();
    const Outcome outcome = RunProgram(words);
    EXPECT_EQ(outcome.status, 0) << test.name() << " wrote JSON that is not as its schema says:\n"
                                 << outcome.output << outcome.errors;
  }

 private:
  common::ScratchFolder _folder;
  std::vector<std::string> _words;  ///< schema and file, in turn
  std::set<std::pair<std::string, std::string>> _seen;
};

/// The JSON that a program is asked for.
struct AskedJson {
  std::string schema;  ///< its name; empty where none is asked for
  std::string file;    ///< empty for standard output
  std::string before;  ///< what the file held
};

std::string ContentOf(const std::string& file) {
  std::error_code error;
  return std::filesystem::is_regular_file(file, error) ? ReadText(file) : "";
}

AskedJson AskedBy(const std::vector<std::string>& words) {
  const auto end = std::find(words.begin(), words.end(), "--");
  const auto option = std::find(words.begin(), end, "--json");
  if (option == end) return {};
  AskedJson asked;
  if (words[0] == FWIMG_PROGRAM) {
    asked.schema = "fwimg-" + words[1];
  } else if (words[0] == VERIFY_PROGRAM) {
    asked.schema = "fwpush-verify";
  } else if (words[0] == REPORT_PROGRAM || words[0] == REHEARSE_PROGRAM) {
    if (option + 1 == end) return {};
    asked.schema = words[0] == REPORT_PROGRAM ? "fwpush-report" : "fwpush-rehearse";
    asked.file = option[1];
    asked.before = ContentOf(asked.file);
  }
  return asked;
}

void Collect(const AskedJson& asked, const Outcome& outcome) {
  if (asked.schema.empty()) return;
  const std::string text = asked.file.empty() ? outcome.output : ContentOf(asked.file);
  // A run that cannot begin prints nothing, and leaves the file as it was.
  if (text.empty() || text == asked.before) return;
  WrittenJson::Get().Add(asked.schema, text);
}

void ReplaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

}  // namespace

Outcome RunProgram(const std::vector<std::string>& words, Through through) {
  const AskedJson asked = AskedBy(words);
  Outcome outcome;
  if (through == Through::TERMINAL) {
    common::Channel terminal = common::MakeTerminal();
    common::ChildProcess child({.words = words,
                                .terminal = ttyname(terminal.in.Get()),
                                .default_signals = ENDING_SIGNALS});
    terminal.in.Close();
    Finish(child, ReadAll({{terminal.out.Get(), &outcome.output}}), outcome);
    // What the terminal got may be more than the JSON, and has line ends of its own.
    if (!asked.file.empty()) Collect(asked, outcome);
    return outcome;
  }
  common::Channel output = common::MakePipe();
  common::Channel errors = common::MakePipe();
  common::ChildProcess child({.words = words,
                              .output = output.in.Get(),
                              .errors = errors.in.Get(),
                              .default_signals = ENDING_SIGNALS});
  output.in.Close();
  errors.in.Close();
  Finish(child, ReadAll({{output.out.Get(), &outcome.output}, {errors.out.Get(), &outcome.errors}}),
         outcome);
  Collect(asked, outcome);
  return outcome;
}

Child::Child(const std::vector<std::string>& words, const std::string& errors_file, bool is_job) {
  common::Channel output = common::MakePipe();
  const common::Descriptor errors(
      open(errors_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  _process =
      std::make_unique<common::ChildProcess>(common::Launch{.words = words,
                                                            .output = output.in.Get(),
                                                            .errors = errors.Get(),
                                                            .is_job = is_job,
                                                            .default_signals = ENDING_SIGNALS});
  _output = std::move(output.out);
}

std::string Child::ReadLine() {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + LINE_LIMIT;
  while (common::WaitUntilReadable(_output.Get(), -1, deadline)) {
    char c;
    if (read(_output.Get(), &c, 1) != 1) return line;
    if (c == '\n') return line;
    line += c;
  }
  return line;
}

int Child::Wait() {
  const common::Ending ending = _process->Wait();
  return ending.signal != 0 ? -ending.signal : ending.status;
}

Simulator::Simulator(const common::ScratchFolder& folder, const std::string& fabric)
    : _state(folder / "state"), _trace(folder / "trace") {
  const std::string file = folder.Write("fabric.toml", fabric);
  _child = std::make_unique<Child>(
      std::vector<std::string>{SimProgram(), file, "--state", _state, "--trace", _trace},
      folder / "sim.errors");
  _server = _child->ReadLine();
  EXPECT_NE(_server, "") << "the simulator did not start";
}

Simulator::~Simulator() { Stop(); }

void Simulator::Stop() {
  if (!_child) return;
  _child->Signal(SIGTERM);
  EXPECT_EQ(_child->Wait(), 0);
  _child.reset();
}

std::string Simulator::Trace() const { return ReadText(_trace); }

DataVec Simulator::Memory(const std::string& name) const {
  const common::Bytes bytes = common::ReadFile(_state + "/" + name);
  return {bytes.begin(), bytes.end()};
}

std::string FwpushProgram() { return FWPUSH_PROGRAM; }

std::string SimProgram() { return SIM_PROGRAM; }

std::string RehearseProgram() { return REHEARSE_PROGRAM; }

std::string Golden(const std::string& name, const std::map<std::string, std::string>& places) {
  std::ifstream file(std::string(GOLDEN_FOLDER) + "/" + name, std::ios::binary);
  EXPECT_TRUE(file.good()) << "no transcript " << name;
  std::string text;
  for (std::string line; std::getline(file, line);) {
    if (line.ends_with("\\")) {
      line.pop_back();
    } else {
      if (line.ends_with("~")) line.pop_back();
      line += "\n";
    }
    ReplaceAll(line, "^M", "\r");
    text += line;
  }
  for (const auto& [place, value] : places) ReplaceAll(text, "{" + place + "}", value);
  return text;
}

std::string Comparable(const std::string& console) {
  static const std::regex FREE_LINE("(^|\n)-D- (main|RomInterface):[0-9]+: ");
  return std::regex_replace(console, FREE_LINE, "$1-D- $2:{LINE}: ");
}
