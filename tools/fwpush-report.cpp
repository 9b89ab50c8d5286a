/// fwpush-report: runs a burn, passes its console on as it comes, and tells what became of each
/// device.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "BurnLog.h"
#include "Fabric.h"
#include "Files.h"
#include "ImageView.h"
#include "Tool.h"

namespace {

using namespace tools;

constexpr char NAME[] = "fwpush-report";
constexpr int SCHEMA_VERSION = 1;
constexpr std::size_t BLOCK_SIZE = 65536;
/// How long the console may stay open after the burner's end, for what it started.
constexpr std::chrono::seconds MOST_PATIENCE{2};
/// More than a pipe or a terminal holds: what comes later did not come from the burner.
constexpr std::size_t MOST_HELD = std::size_t{1} << 20;

struct Options {
  std::string json;
  std::string junit;
  std::string log;
  std::string from;
  bool is_plain = false;
  std::vector<std::string> words;  ///< the burn: program and arguments
};

[[noreturn]] void ThrowSystemError(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// The two ends of a pipe or of a terminal: what is written to `in` comes out of `out`.
struct Channel {
  Descriptor out;
  Descriptor in;
};

Channel Pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ThrowSystemError("can't make a pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// A terminal like the one on standard output, but one that changes nothing of what passes: that is
/// left to the other.
Channel Terminal() {
  termios settings{};
  winsize size{};
  tcgetattr(STDOUT_FILENO, &settings);
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  cfmakeraw(&settings);
  int out = -1;
  int in = -1;
  if (openpty(&out, &in, nullptr, &settings, &size) != 0) ThrowSystemError("can't make a terminal");
  Channel channel{Descriptor(out), Descriptor(in)};
  fcntl(out, F_SETFD, FD_CLOEXEC);
  fcntl(in, F_SETFD, FD_CLOEXEC);
  return channel;
}

/// Signals that are read like a file instead of interrupting: the end of the burn, and those that
/// ask us to end, which are for the burn to obey.
class Signals {
 public:
  Signals() {
    signal(SIGPIPE, SIG_IGN);  // whoever reads the console may go away; the burn goes on
    signal(SIGCHLD, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, &_before);
    _fd = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    if (!_fd.IsOpen()) ThrowSystemError("can't receive signals");
  }

  /// For the child, before it becomes another program.
  void Restore() const {
    signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_SETMASK, &_before, nullptr);
  }

  int Fd() const { return _fd.Get(); }

  /// The number of the next one; waits for it.
  int Next() const {
    signalfd_siginfo info{};
    return read(_fd.Get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo)
                                                                : 0;
  }

 private:
  sigset_t _before{};
  Descriptor _fd;
};

/// Starts `words` with its standard output going into `console`. Throws when it cannot be run.
pid_t Start(const std::vector<std::string>& words, const Signals& signals,
            const Descriptor& console) {
  Channel trouble = Pipe();
  const pid_t pid = fork();
  if (pid < 0) ThrowSystemError("can't start a process");
  if (pid == 0) {
    signals.Restore();
    dup2(console.Get(), STDOUT_FILENO);
    std::vector<char*> av;
    av.reserve(words.size() + 1);
    for (const std::string& word : words) av.push_back(const_cast<char*>(word.c_str()));
    av.push_back(nullptr);
    execvp(av[0], av.data());
    const int reason = errno;
    [[maybe_unused]] const ssize_t told = write(trouble.in.Get(), &reason, sizeof(reason));
    _exit(CANNOT);
  }
  trouble.in.Close();
  int reason = 0;
  if (read(trouble.out.Get(), &reason, sizeof(reason)) == sizeof(reason)) {
    waitpid(pid, nullptr, 0);
    errno = reason;
    ThrowSystemError("can't run " + words[0]);
  }
  return pid;
}

/// Runs the burn to its end and hands over its console as it comes.
Ending RunBurn(const std::vector<std::string>& words, bool is_terminal,
               const std::function<void(std::string_view)>& take) {
  const Signals signals;
  Channel console = is_terminal ? Terminal() : Pipe();
  const pid_t pid = Start(words, signals, console.in);
  console.in.Close();

  std::optional<Ending> ending;
  std::chrono::steady_clock::time_point deadline;
  std::size_t since_end = 0;  // bytes
  std::vector<char> block(BLOCK_SIZE);
  // What it started may go on printing after its own end.
  while (!ending || console.out.IsOpen()) {
    int patience = -1;
    if (ending) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 && since_end > MOST_HELD) break;
      patience = std::max(0, static_cast<int>(left.count()));
    }
    pollfd waiting[] = {{signals.Fd(), POLLIN, 0}, {console.out.Get(), POLLIN, 0}};
    const int ready = poll(waiting, 2, patience);
    if (ready < 0 && errno != EINTR) ThrowSystemError("can't wait for the burn");
    if (ready == 0) break;
    if (waiting[1].revents != 0) {
      const ssize_t got = read(console.out.Get(), block.data(), block.size());
      if (got > 0) {
        take({block.data(), static_cast<std::size_t>(got)});
        if (ending) since_end += static_cast<std::size_t>(got);
      } else if (got == 0 || errno != EINTR) {
        console.out.Close();  // a terminal ends with an error
      }
    }
    if (waiting[0].revents == 0) continue;
    const int number = signals.Next();
    if (number != SIGCHLD) {
      if (ending) break;  // nobody is left to be asked
      kill(pid, number);
    } else if (int status = 0; !ending && waitpid(pid, &status, WNOHANG) == pid) {
      ending = WIFSIGNALED(status) ? Ending{0, WTERMSIG(status)} : Ending{WEXITSTATUS(status), 0};
      deadline = std::chrono::steady_clock::now() + MOST_PATIENCE;
    }
  }
  if (console.out.IsOpen()) {
    std::cerr << NAME << ": the burner has ended; what it started goes on without the console"
              << std::endl;
  }
  return *ending;
}

/// Whether `name` is there and no file, but a device or a pipe: it is written as it is.
bool IsNoFile(const std::string& name) {
  std::error_code error;
  const auto status = std::filesystem::status(name, error);
  return exists(status) && !is_regular_file(status);
}

Descriptor OpenForWriting(const std::string& name, int flags) {
  Descriptor file(open(name.c_str(), O_WRONLY | O_CLOEXEC | flags, 0666));
  if (!file.IsOpen()) ThrowSystemError("can't write " + name);
  return file;
}

void WriteAll(const Descriptor& file, std::string_view text, const std::string& name) {
  while (!text.empty()) {
    const ssize_t written = write(file.Get(), text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      ThrowSystemError("can't write " + name);
    }
  }
}

/// A result of the run. Made before anything is burnt: a result that can't be kept must not cost a
/// burn. It replaces the one of before only when it is complete.
class ResultFile {
 public:
  explicit ResultFile(const std::string& name) : _name(name) {
    if (name.empty()) return;
    if (IsNoFile(name)) {
      _device = OpenForWriting(name, 0);
    } else {
      _file.emplace(name);
    }
  }

  bool IsWanted() const { return !_name.empty(); }
  void Keep(std::string_view text) {
    if (_file) {
      _file->Write(text);
      _file->Keep();
    } else {
      WriteAll(_device, text, _name);
    }
  }

 private:
  std::string _name;
  std::optional<NewFile> _file;
  Descriptor _device;
};

/// The console as it comes. Likewise opened before anything is burnt; what it held is lost with the
/// first text of the burn. Where there was none and nothing is burnt, none is left.
class LogFile {
 public:
  explicit LogFile(const std::string& name) : _name(name) {
    if (name.empty()) return;
    _file = Descriptor(open(name.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | O_EXCL, 0666));
    _is_ours = _file.IsOpen();
    if (!_is_ours) _file = OpenForWriting(name, O_CREAT);
  }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile() {
    if (_is_ours && !_is_begun) unlink(_name.c_str());
  }

  void Write(std::string_view text) {
    if (!_file.IsOpen()) return;
    try {
      if (!std::exchange(_is_begun, true) && !IsNoFile(_name) && ftruncate(_file.Get(), 0) != 0) {
        ThrowSystemError("can't write " + _name);
      }
      WriteAll(_file, text, _name);
    } catch (const std::system_error& error) {
      _trouble = error.what();
      _file.Close();
    }
  }
  /// For the end of the burn, of one that said nothing, too. Throws where something is missing in
  /// the file.
  void Finish() {
    _is_begun = true;
    if (!_trouble.empty()) throw std::runtime_error(_trouble);
  }

 private:
  std::string _name;
  Descriptor _file;
  bool _is_ours = false;   ///< there was none before
  bool _is_begun = false;  ///< it is the log of a burn
  std::string _trouble;
};

/// Whether two of the files that are given are one; devices may be.
bool IsTwice(const Options& options) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (const std::string* name : {&options.json, &options.junit, &options.log, &options.from}) {
    if (name->empty() || IsNoFile(*name)) continue;
    std::error_code error;
    const fs::path file = fs::weakly_canonical(fs::absolute(*name), error);
    const bool is_known = std::ranges::any_of(files, [&](const fs::path& other) {
      std::error_code missing;
      return file == other || fs::equivalent(file, other, missing);
    });
    if (is_known) return true;
    files.push_back(file);
  }
  return false;
}

/// Writes to standard output as long as anybody reads there.
class Passage {
 public:
  void Write(std::string_view text) {
    if (!text.empty()) _is_inside_line = text.back() != '\n';
    while (!text.empty() && !_is_lost) {
      const ssize_t sent = write(STDOUT_FILENO, text.data(), text.size());
      if (sent >= 0) {
        text.remove_prefix(static_cast<std::size_t>(sent));
      } else if (errno == EAGAIN) {
        pollfd waiting{STDOUT_FILENO, POLLOUT, 0};
        poll(&waiting, 1, -1);
      } else if (errno != EINTR) {
        _is_lost = true;
        std::cerr << NAME << ": can't pass the console on (" << std::strerror(errno)
                  << "); the burn goes on" << std::endl;
      }
    }
  }

  bool IsInsideLine() const { return _is_inside_line; }

 private:
  bool _is_lost = false;
  bool _is_inside_line = false;
};

struct FateText {
  const char* json;
  const char* human;
  const char* colour;
};

FateText TextOf(Fate fate) {
  switch (fate) {
    case Fate::BURNT:
      return {"burnt", "burnt", "\033[32m"};
    case Fate::FAILED:
      return {"failed", "FAILED", "\033[31m"};
    case Fate::NEVER_REACHED:
      return {"never-reached", "never reached", "\033[33m"};
  }
  return {"", "", ""};
}

double Rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

/// `text` without what means nothing in XML.
std::string WithoutControls(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') c = '?';
  }
  return text;
}

/// What is known of a whole run.
struct RunReport {
  BurnReport burn;
  std::optional<Ending> ending;   ///< of a live run
  std::optional<double> seconds;  ///< likewise
  std::vector<std::string> words;
};

std::string Dump(const nlohmann::json& json, int indent) {
  // The words of a server or a file need not be UTF-8.
  return json.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

nlohmann::json OrNull(const std::string& text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

std::string Json(const RunReport& run) {
  const BurnReport& burn = run.burn;
  nlohmann::json devices = nlohmann::json::array();
  for (const DeviceReport& device : burn.devices) {
    devices.push_back({{"guid", sim::HexGuid(device.guid)},
                       {"outcome", TextOf(device.fate).json},
                       {"reason", OrNull(device.text)},
                       {"may_have_changed", device.may_have_changed}});
  }
  nlohmann::json phases = nlohmann::json::array();
  for (const Phase& phase : burn.phases) {
    nlohmann::json seconds;
    if (run.seconds) seconds = Rounded(phase.end - phase.start);
    phases.push_back({{"label", phase.label},
                      {"done", phase.is_done},
                      {"percent", phase.percent},
                      {"seconds", seconds}});
  }
  nlohmann::json json = {{"version", SCHEMA_VERSION},
                         {"all_burnt", burn.is_all_burnt},
                         {"succeeded", burn.is_succeeded},
                         {"failure", OrNull(burn.failure)},
                         {"command", run.words},
                         {"exit_status", nullptr},
                         {"signal", nullptr},
                         {"seconds", nullptr},
                         {"image", OrNull(burn.image)},
                         {"server", OrNull(burn.server)},
                         {"algorithm", OrNull(burn.algorithm)},
                         {"devices_known", burn.is_devices_known},
                         {"devices", devices},
                         {"phases", phases},
                         {"counts", nlohmann::json::object()},
                         {"warnings", burn.warnings}};
  for (const auto& [key, count] : burn.counts) json["counts"][key] = count;
  if (run.ending && run.ending->signal != 0) {
    json["signal"] = run.ending->signal;
  } else if (run.ending) {
    json["exit_status"] = run.ending->status;
  }
  if (run.seconds) json["seconds"] = Rounded(*run.seconds);
  return Dump(json, 2) + "\n";
}

std::string XmlText(const std::string& text) {
  const std::string valid =
      nlohmann::json::parse(Dump(WithoutControls(text), -1)).get<std::string>();  // as UTF-8
  std::string xml;
  for (const char c : valid) {
    switch (c) {
      case '&':
        xml += "&amp;";
        break;
      case '<':
        xml += "&lt;";
        break;
      case '>':
        xml += "&gt;";
        break;
      case '"':
        xml += "&quot;";
        break;
      default:
        xml += c;
    }
  }
  return xml;
}

/// One test case a device. A device that was never reached is an error, not skipped: a skipped test
/// passes.
std::string JUnit(const RunReport& run) {
  const BurnReport& burn = run.burn;
  const std::string suite = XmlText(burn.algorithm.empty() ? "fwpush" : burn.algorithm);
  std::size_t failures = 0;
  std::size_t errors = 0;
  std::size_t tests = burn.devices.size();
  std::string cases;
  const auto add = [&](const std::string& name, const char* trouble, const std::string& text) {
    cases += "    <testcase classname=\"" + suite + "\" name=\"" + name + "\"";
    if (trouble == nullptr) {
      cases += "/>\n";
    } else {
      cases += Text(">\n      <", trouble, " message=\"", XmlText(text), "\"/>\n    </testcase>\n");
    }
  };
  for (const DeviceReport& device : burn.devices) {
    const bool is_failed = device.fate == Fate::FAILED;
    const bool is_missed = device.fate == Fate::NEVER_REACHED;
    failures += is_failed;
    errors += is_missed;
    add(sim::HexGuid(device.guid),
        is_failed   ? "failure"
        : is_missed ? "error"
                    : nullptr,
        (is_missed ? "never reached: " : "") + device.text);
  }
  if (const bool is_told = failures + errors > 0;
      burn.devices.empty() || (!burn.is_all_burnt && !is_told)) {
    // Somebody has to fail with the run.
    ++tests;
    errors += !burn.is_all_burnt;
    add("run", burn.is_all_burnt ? nullptr : "error",
        burn.failure.empty() ? "nothing was written" : burn.failure);
  }
  const std::string time = run.seconds ? Text(" time=\"", Rounded(*run.seconds), "\"") : "";
  return Text("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n  <testsuite name=\"",
              suite, "\" tests=\"", tests, "\" failures=\"", failures, "\" errors=\"", errors,
              "\" skipped=\"0\"", time, ">\n", cases, "  </testsuite>\n</testsuites>\n");
}

void PrintSummary(const RunReport& run) {
  const BurnReport& burn = run.burn;
  const bool has_colour = MayColour(STDERR_FILENO);
  const auto count = [&burn](Fate fate) {
    return std::ranges::count(burn.devices, fate, &DeviceReport::fate);
  };
  std::ostringstream out;
  out << NAME << ": " << (burn.algorithm.empty() ? "no algorithm" : Printable(burn.algorithm))
      << ", " << count(Fate::BURNT) << " burnt, " << count(Fate::FAILED) << " failed, "
      << count(Fate::NEVER_REACHED) << " never reached";
  if (run.seconds) out << ", " << std::fixed << std::setprecision(3) << *run.seconds << " s";
  out << "\n";
  for (const DeviceReport& device : burn.devices) {
    const FateText text = TextOf(device.fate);
    out << "  " << sim::HexGuid(device.guid) << "  " << (has_colour ? text.colour : "")
        << text.human << (has_colour ? "\033[0m" : "");
    if (!device.text.empty()) out << ": " << Printable(device.text);
    if (device.fate == Fate::FAILED && !device.may_have_changed) {
      out << " (nothing was written)";
    }
    out << "\n";
  }
  if (!burn.is_devices_known) out << "  other devices may have been asked for\n";
  for (const Phase& phase : burn.phases) {
    out << "  " << Printable(phase.label);
    if (run.seconds) out << ": " << phase.end - phase.start << " s";
    if (!phase.is_done) out << ": stopped at " << phase.percent << " %";
    out << "\n";
  }
  if (!burn.is_succeeded) out << "  the run failed: " << Printable(burn.failure) << "\n";
  out << "  " << (burn.is_all_burnt ? "every device is burnt" : "NOT EVERY DEVICE IS BURNT")
      << "\n";
  std::cerr << out.str() << std::flush;
}

/// Hands over a saved console.
void ReadLog(const std::string& name, const std::function<void(std::string_view)>& take) {
  const Descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) ThrowSystemError("can't read " + name);
  std::vector<char> block(BLOCK_SIZE);
  while (true) {
    const ssize_t got = read(file.Get(), block.data(), block.size());
    if (got < 0) ThrowSystemError("can't read " + name);
    if (got == 0) return;
    take({block.data(), static_cast<std::size_t>(got)});
  }
}

int Report(const Options& options) {
  const bool is_live = options.from.empty();
  if (is_live && options.words.empty()) {
    std::cerr << NAME << ": give the burn, \"-- fwpush ARGS...\", or --from LOG" << std::endl;
    return USAGE;
  }
  if (IsTwice(options)) {
    std::cerr << NAME << ": the files that are read and written must have names of their own"
              << std::endl;
    return USAGE;
  }
  ResultFile json(options.json);
  ResultFile junit(options.junit);
  LogFile saved(options.log);

  BurnLog log;
  PlainConsole plain;
  Passage console;
  const auto start = std::chrono::steady_clock::now();
  const auto seconds = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto take = [&](std::string_view piece) {
    saved.Write(piece);
    if (options.is_plain) {
      console.Write(plain.Feed(piece));
    } else if (is_live) {
      console.Write(piece);
    }
    log.Feed(piece, seconds());
  };

  RunReport run;
  run.words = options.words;
  if (is_live) {
    const bool is_terminal = !options.is_plain && isatty(STDOUT_FILENO) != 0;
    run.ending = RunBurn(options.words, is_terminal, take);
    run.seconds = seconds();
  } else {
    ReadLog(options.from, [&](std::string_view piece) {
      take(piece);
      // Nothing to go on with: it may never end.
      if (log.IsOverlong()) {
        throw std::runtime_error(Text(options.from, ": a line of more than ", BurnLog::LONGEST_LINE,
                                      " bytes: this is no console of fwpush"));
      }
    });
  }
  if (options.is_plain) console.Write(plain.Finish());
  if (console.IsInsideLine() && isatty(STDERR_FILENO) != 0) std::cerr << std::endl;

  const GuidSet asked =
      options.words.empty() ? GuidSet() : AskedDevices(std::span(options.words).subspan(1));
  run.burn = log.Conclude(asked, run.ending);
  bool is_kept = true;
  const auto keep = [&is_kept](const std::function<void()>& file) {
    try {
      file();
    } catch (const std::runtime_error& error) {
      std::cerr << NAME << ": " << error.what() << std::endl;
      is_kept = false;
    }
  };
  if (json.IsWanted()) keep([&] { json.Keep(Json(run)); });
  if (junit.IsWanted()) keep([&] { junit.Keep(JUnit(run)); });
  keep([&] { saved.Finish(); });
  if (!log.IsFwpush() && !(run.ending && run.ending->signal != 0)) {
    std::cerr << NAME << ": " << (is_live ? options.words[0] : options.from)
              << ": this is no console of fwpush" << std::endl;
    return CANNOT;
  }
  PrintSummary(run);
  if (!run.burn.is_all_burnt) return DIFFERS;
  return is_kept ? ALL_WELL : CANNOT;
}

}  // namespace

int main(int argc, char* argv[]) {
  Options options;
  // Every word of the burn is the burn's: none may be taken for one of ours, or changed.
  int own_words = 1;
  while (own_words < argc && std::strcmp(argv[own_words], "--") != 0) ++own_words;
  for (int i = own_words + 1; i < argc; ++i) options.words.emplace_back(argv[i]);

  CLI::App app(
      "Runs a burn, passes its console on as it comes, and tells what became of each device.\n"
      "  fwpush-report [OPTIONS] -- fwpush ARGS...\n"
      "  fwpush-report [OPTIONS] --from LOG [-- fwpush ARGS...]",
      NAME);
  app.footer(
      "Ends with 0 when every device asked for was burnt, with 1 when one was not, with 2 when\n"
      "fwpush could not be run or this is no console of it, with 64 on a wrong command line.");
  app.add_option("--json", options.json, "Write the result into this file, as JSON");
  app.add_option("--junit", options.junit, "Write the result into this file, a test case a device");
  CLI::Option* log = app.add_option("--log", options.log, "Keep the console in this file");
  app.add_option("--from", options.from,
                 "Run nothing: read the console of an earlier burn from this file. The words of\n"
                 "that burn, behind --, tell which devices it was asked for")
      ->excludes(log);
  app.add_flag("--plain", options.is_plain,
               "Print whole lines only, fit for logs: one for each tenth of a progress meter");
  return RunTool(app, own_words, argv, [&options] { return Report(options); });
}
