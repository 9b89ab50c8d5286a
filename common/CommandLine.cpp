#include "common/CommandLine.h"

// The parser takes ten seconds to compile: only this file includes it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

namespace common {

namespace {

/// `words`, with "-fVALUE" instead of "-f=VALUE". Throws UsageError for "-f=".
std::vector<std::string> WithoutEquals(std::vector<std::string> words,
                                       const std::vector<std::string>& names) {
  for (std::string& word : words) {
    const auto is_before_equals = [&word](const std::string& name) {
      return word.starts_with(name + "=");
    };
    const auto name = std::ranges::find_if(names, is_before_equals);
    if (name == names.end()) continue;
    if (word.size() == name->size() + 1) throw UsageError(*name, "no value after the equals sign");
    word.erase(name->size(), 1);
  }
  return words;
}

}  // namespace

Option Option::Required() {
  _option->required();
  return *this;
}

Option Option::ShowDefault() {
  _option->capture_default_str();
  return *this;
}

Option Option::InRange(int min, int max) {
  _option->check(CLI::Range(min, max));
  return *this;
}

Option Option::InRange(double min, double max) {
  _option->check(CLI::Range(min, max));
  return *this;
}

Option Option::OneOf(const std::vector<std::string>& values) {
  _option->check(CLI::IsMember(values));
  return *this;
}

Option Option::ExistingFile() {
  _option->check(CLI::ExistingFile);
  return *this;
}

Option Option::Check(std::function<std::string(const std::string&)> check) {
  _option->check(std::move(check));
  return *this;
}

Option Option::Excludes(Option other) {
  _option->excludes(other._option);
  return *this;
}

Option Option::Needs(Option other) {
  _option->needs(other._option);
  return *this;
}

bool Option::IsGiven() const { return _option->count() > 0; }

CommandLine::CommandLine(const std::string& description, const std::string& name)
    : _owned(std::make_unique<CLI::App>(description, name)), _app(_owned.get()) {}

CommandLine::CommandLine(CLI::App* command) : _app(command) {}

CommandLine::~CommandLine() = default;

Option CommandLine::Add(const std::string& name, std::string& into, const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, std::optional<std::string>& into,
                        const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, std::vector<std::string>& into,
                        const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, int& into, const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, unsigned& into, const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, std::uint64_t& into, const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::Add(const std::string& name, double& into, const std::string& help) {
  return Option(_app->add_option(name, into, help));
}

Option CommandLine::AddFlag(const std::string& name, bool& into, const std::string& help) {
  return Option(_app->add_flag(name, into, help));
}

void CommandLine::SetFooter(const std::string& text) { _app->footer(text); }

CommandLine& CommandLine::AddCommand(const std::string& name, const std::string& description) {
  _app->require_subcommand(1);
  // std::make_unique cannot call the private constructor.
  _commands.emplace_back(new CommandLine(_app->add_subcommand(name, description)));
  return *_commands.back();
}

CommandLine::Parsed CommandLine::Parse(int argc, const char* const* argv,
                                       const std::string& version) {
  _app->set_version_flag("--version", version);
  try {
    const std::vector<std::string> words = WithoutEquals({argv, argv + argc}, _with_equals);
    std::vector<const char*> pointers;
    pointers.reserve(words.size());
    for (const std::string& word : words) pointers.push_back(word.c_str());
    _app->parse(static_cast<int>(pointers.size()), pointers.data());
  } catch (const UsageError& error) {
    Complain(error);
    return {.work = {}, .is_wrong = true};
  } catch (const CLI::ParseError& error) {
    // The parser throws for --help and --version, too, with status 0.
    return {.work = {}, .is_wrong = _app->exit(error) != 0};
  }
  for (const auto& command : _commands) {
    if (command->_app->parsed()) return {command->_work};
  }
  return {_work};
}

void CommandLine::Complain(const UsageError& error) const {
  _app->exit(CLI::ValidationError(error.what()));
}

}  // namespace common
