#include "tests/support/Harness.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <set>

namespace {

constexpr std::chrono::seconds RUN_LIMIT{60};
constexpr std::chrono::seconds LINE_LIMIT{20};

[[noreturn]] void Exec(const std::vector<std::string>& words) {
  // Whoever runs the tests in the background may have them ignored.
  for (const int signal_number : {SIGINT, SIGQUIT, SIGTERM}) signal(signal_number, SIG_DFL);
  std::vector<char*> av;
  for (const std::string& word : words) av.push_back(const_cast<char*>(word.c_str()));
  av.push_back(nullptr);
  execv(av[0], av.data());
  _exit(127);
}

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

void Finish(pid_t pid, bool in_time, Outcome& outcome) {
  if (!in_time) {
    ADD_FAILURE() << "the program did not end in time";
    kill(pid, SIGKILL);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
}

void ReplaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

}  // namespace

Outcome RunProgram(const std::vector<std::string>& words, Through through) {
  Outcome outcome;
  if (through == Through::TERMINAL) {
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) Exec(words);
    Finish(pid, ReadAll({{terminal, &outcome.output}}), outcome);
    close(terminal);
    return outcome;
  }
  int output[2];
  int errors[2];
  EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(errors, O_CLOEXEC), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(output[1], STDOUT_FILENO);
    dup2(errors[1], STDERR_FILENO);
    Exec(words);
  }
  close(output[1]);
  close(errors[1]);
  Finish(pid, ReadAll({{output[0], &outcome.output}, {errors[0], &outcome.errors}}), outcome);
  close(output[0]);
  close(errors[0]);
  return outcome;
}

Child::Child(const std::vector<std::string>& words, const std::string& errors_file, bool is_job) {
  int output[2];
  EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
  const int errors = open(errors_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  _pid = fork();
  if (_pid == 0) {
    if (is_job) setpgid(0, 0);
    dup2(output[1], STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    Exec(words);
  }
  close(output[1]);
  close(errors);
  _output = output[0];
}

Child::~Child() {
  if (_pid > 0) {
    kill(_pid, SIGKILL);
    Wait();
  }
  close(_output);
}

std::string Child::ReadLine() {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + LINE_LIMIT;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd waiting{_output, POLLIN, 0};
    if (poll(&waiting, 1, 100) <= 0) continue;
    char c;
    if (read(_output, &c, 1) != 1) return line;
    if (c == '\n') return line;
    line += c;
  }
  return line;
}

void Child::Signal(int signal) const { kill(_pid, signal); }

int Child::Wait() {
  int status = 0;
  waitpid(_pid, &status, 0);
  _pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Simulator::Simulator(const TemporaryFolder& folder, const std::string& fabric)
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

std::string Simulator::Trace() const {
  std::ifstream file(_trace, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

DataVec Simulator::Memory(const std::string& name) const {
  std::ifstream file(_state + "/" + name, std::ios::binary);
  EXPECT_TRUE(file.good()) << name;
  return DataVec(std::istreambuf_iterator<char>(file), {});
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
