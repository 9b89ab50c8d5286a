/// fwpush-report: runs a burn, passes its output on and reports the result of each device.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <utility>

#include "common/Files.h"
#include "common/Program.h"
#include "common/SystemError.h"
#include "common/Text.h"
#include "report/BurnLog.h"
#include "report/BurnProcess.h"
#include "report/BurnResult.h"

namespace {

using namespace common;
using namespace report;

constexpr char NAME[] = "fwpush-report";
constexpr std::size_t BLOCK_SIZE = 65536;

struct Options {
  std::string json;
  std::string junit;
  std::string log;
  std::string from;
  bool is_plain = false;
  std::vector<std::string> words;  ///< the burn: program and arguments
};

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
class ConsoleOutput {
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
        std::cerr << NAME << ": can't write to standard output (" << std::strerror(errno)
                  << "); the burn goes on" << std::endl;
      }
    }
  }

  bool IsInsideLine() const { return _is_inside_line; }

 private:
  bool _is_lost = false;
  bool _is_inside_line = false;
};

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

int Run(const Options& options) {
  const bool is_live = options.from.empty();
  if (is_live && options.words.empty()) {
    std::cerr << NAME << ": give the burn, \"-- fwpush ARGS...\", or --from LOG" << std::endl;
    return USAGE;
  }
  if (IsTwice(options)) {
    std::cerr << NAME << ": two of the given files are the same; use different names" << std::endl;
    return USAGE;
  }
  ResultFile json(options.json);
  ResultFile junit(options.junit);
  LogFile saved(options.log);

  BurnLog log;
  PlainConsole plain;
  ConsoleOutput console;
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
                                      " bytes: not the output of fwpush"));
      }
    });
  }
  if (options.is_plain) console.Write(plain.Finish());
  if (console.IsInsideLine() && isatty(STDERR_FILENO) != 0) std::cerr << std::endl;

  const std::set<Guid> asked =
      options.words.empty() ? std::set<Guid>() : AskedDevices(std::span(options.words).subspan(1));
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
  if (json.IsWanted()) keep([&] { json.Keep(ToJson(run)); });
  if (junit.IsWanted()) keep([&] { junit.Keep(ToJUnit(run)); });
  keep([&] { saved.Finish(); });
  if (!log.IsFwpush() && !(run.ending && run.ending->signal != 0)) {
    std::cerr << NAME << ": " << (is_live ? options.words[0] : options.from)
              << ": not the output of fwpush" << std::endl;
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

  CommandLine line(
      "Runs a burn, passes its output on and reports the result of each device.\n"
      "  fwpush-report [OPTIONS] -- fwpush ARGS...\n"
      "  fwpush-report [OPTIONS] --from LOG [-- fwpush ARGS...]",
      NAME);
  line.SetFooter(
      "Ends with 0 when every device asked for was burnt, with 1 when one was not, with 2 when\n"
      "fwpush could not be run or this is not its output, with 64 on a wrong command line.");
  line.Add("--json", options.json, "Write the result into this file, as JSON");
  line.Add("--junit", options.junit, "Write the result into this file, a test case a device");
  const Option log = line.Add("--log", options.log, "Keep the console in this file");
  line.Add("--from", options.from,
           "Run nothing: read the console of an earlier burn from this file. The words of\n"
           "that burn, behind --, tell which devices it was asked for")
      .Excludes(log);
  line.AddFlag("--plain", options.is_plain,
               "Print whole lines only, fit for logs: one for each tenth of a progress meter");
  line.SetWork([&options] { return Run(options); });
  return RunProgram({.name = NAME}, line, own_words, argv);
}
