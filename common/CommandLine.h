/// Command lines: options, flags, positional arguments and commands, and their help.
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

/// The command line is wrong in a way that no single option can check.
class UsageError : public std::runtime_error {
 public:
  /// `where`: the option or the command.
  UsageError(const std::string& where, const std::string& what)
      : runtime_error(where + ": " + what) {}
};

/// One option, flag or positional argument. Belongs to its command line.
class Option {
 public:
  explicit Option(CLI::Option* option) : _option(option) {}

  /// The command line must have it.
  Option Required();
  /// The help shows the value that the variable has now.
  Option ShowDefault();
  // Each refuses other values, and may be called once.
  Option InRange(int min, int max);
  Option InRange(double min, double max);
  Option OneOf(const std::vector<std::string>& values);
  Option ExistingFile();
  /// `check` returns what is wrong with a value; "" where nothing is.
  Option Check(std::function<std::string(const std::string&)> check);
  /// The command line must not have both.
  Option Excludes(Option other);
  /// With this one, the command line must have `other`, too.
  Option Needs(Option other);

  /// Valid when the command line is parsed.
  bool IsGiven() const;

 private:
  CLI::Option* _option;
};

/// The options of a program, or of one of its commands. Variables are set when the line is parsed;
/// they must live until then. Names are "-s", "--long", "-s,--long", or a word without dashes for a
/// positional argument.
class CommandLine {
 public:
  /// `name` is the program's name in the usage line; where it is empty, argv[0] is.
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
  /// Text at the end of the help.
  void SetFooter(const std::string& text);

  /// Accepts "-f=VALUE" for these options, as fwpush does. The parser itself accepts "-f VALUE" and
  /// "-fVALUE". Nothing after the equals sign makes the command line wrong.
  void AcceptEquals(const std::vector<std::string>& names) { _with_equals = names; }

  /// Adds a command, such as "info" of "fwimg info". A program with commands needs one of them on
  /// its command line.
  CommandLine& AddCommand(const std::string& name, const std::string& description);

  /// What the program or command does. Returns the exit status; may throw UsageError.
  void SetWork(std::function<int()> work) { _work = std::move(work); }

  /// The result of parsing.
  struct Parsed {
    /// Of the command that was given; empty after --help, --version or an error.
    std::function<int()> work;
    bool is_wrong = false;
  };
  /// Adds --version, which prints `version`, and parses. Prints help and version if requested, and
  /// errors on standard error.
  Parsed Parse(int argc, const char* const* argv, const std::string& version);
  /// Prints an error that was found later, in the form of Parse.
  void Complain(const UsageError& error) const;

 private:
  explicit CommandLine(CLI::App* command);

  std::unique_ptr<CLI::App> _owned;  ///< null for a command
  CLI::App* _app;
  std::vector<std::unique_ptr<CommandLine>> _commands;
  std::function<int()> _work;
  std::vector<std::string> _with_equals;  ///< such as "-f"
};

}  // namespace common
