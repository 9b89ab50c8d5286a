/// Command lines: options, flags, words and commands, and the help that tells of them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace common {

/// The command line is wrong, beyond what its options can tell by themselves.
class UsageError : public std::runtime_error {
 public:
  /// `where`: the option or the command.
  UsageError(const std::string& where, const std::string& what)
      : runtime_error(where + ": " + what) {}
};

/// One option, flag or word. Belongs to its command line.
class Option {
 public:
  explicit Option(CLI::Option* option) : _option(option) {}

  /// Refuses a command line without it.
  Option Required();
  /// Shows in the help the value that the variable has now.
  Option ShowDefault();
  /// Refuses other values. Each may be called once.
  Option InRange(int min, int max);
  Option InRange(double min, double max);
  Option OneOf(const std::vector<std::string>& values);
  Option ExistingFile();
  /// `check` says what is wrong with a value, "" where nothing is.
  Option Check(std::function<std::string(const std::string&)> check);
  /// Refuses a command line with both of them.
  Option Excludes(Option other);
  /// Refuses a command line with this one alone.
  Option Needs(Option other);

  /// Once the command line is parsed.
  bool IsGiven() const;

 private:
  CLI::Option* _option;
};

/// What a program takes on its command line, or one of its commands. Variables get the values when
/// the line is parsed; they must live until then. Names are "-s", "--long", "-s,--long", or a word
/// without dashes for what stands on the command line without a name.
class CommandLine {
 public:
  /// The usage line names the program by `name`, or as it was called where that is empty.
  explicit CommandLine(const std::string& description, const std::string& name = "");
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;
  ~CommandLine();

  Option Add(const std::string& name, std::string& into, const std::string& help);
  Option Add(const std::string& name, std::optional<std::string>& into, const std::string& help);
  /// May be given several times.
  Option Add(const std::string& name, std::vector<std::string>& into, const std::string& help);
  Option Add(const std::string& name, int& into, const std::string& help);
  Option Add(const std::string& name, unsigned& into, const std::string& help);
  Option Add(const std::string& name, std::uint64_t& into, const std::string& help);
  Option Add(const std::string& name, double& into, const std::string& help);
  Option AddFlag(const std::string& name, bool& into, const std::string& help);
  /// What the help ends with.
  void SetFooter(const std::string& text);

  /// A command, such as "info" of "fwimg info". Where there is one, one of them must be given.
  CommandLine& AddCommand(const std::string& name, const std::string& description);

  /// What to do when the line is right. Returns the exit status; may throw UsageError.
  void SetWork(std::function<int()> work) { _work = std::move(work); }

  /// What came of a command line.
  struct Parsed {
    std::function<int()>
        work;  ///< of the command that was given; empty where nothing is to be done
    bool is_wrong = false;
  };
  /// Adds --version, which prints `version`, and parses. Prints the help or the version where it is
  /// asked for, and on standard error what is wrong.
  Parsed Parse(int argc, const char* const* argv, const std::string& version);
  /// Tells of an error that was found later, as Parse would.
  void Complain(const UsageError& error) const;

 private:
  explicit CommandLine(CLI::App* command);

  std::unique_ptr<CLI::App> _owned;  ///< of the program's own line
  CLI::App* _app;
  std::vector<std::unique_ptr<CommandLine>> _commands;
  std::function<int()> _work;
};

}  // namespace common
