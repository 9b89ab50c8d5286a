#include "common/TomlReader.h"

// The parser takes seconds to compile: only this file includes it. Its assertions fail for some
// wrong files, which would end a debug build. Without them, it reports the error.
#define TOML_ASSERT(expression) static_cast<void>(0)
#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "common/Text.h"

namespace common {

namespace fs = std::filesystem;

namespace {

bool IsStrange(char c) { return static_cast<unsigned char>(c) >= 0x80; }

/// The line, from 1, of the first byte outside ASCII that is neither in a string nor in a comment;
/// 0 where there is none, or where an error before it hides it.
std::uint32_t StrangeLine(std::string_view text) {
  std::uint32_t line = 1;
  std::string_view quote;  // the quote that ends the current string; empty outside of strings
  bool is_comment = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\n') {
      ++line;
      is_comment = false;
      if (quote.size() == 1) quote = {};
    } else if (is_comment) {
      continue;
    } else if (!quote.empty()) {
      if (c == '\\' && quote[0] == '"') {
        ++i;
        if (i < text.size() && text[i] == '\n') ++line;
      } else if (text.substr(i).starts_with(quote)) {
        i += quote.size() - 1;
        quote = {};
      }
    } else if (c == '#') {
      is_comment = true;
    } else if (c == '"' || c == '\'') {
      const std::string_view rest = text.substr(i);
      const bool is_long = rest.size() > 2 && rest[1] == c && rest[2] == c;
      quote = rest.substr(0, is_long ? 3 : 1);
      i += quote.size() - 1;
    } else if (IsStrange(c)) {
      return line;
    }
  }
  return 0;
}

/// Throws where a byte outside ASCII is neither in a string nor in a comment, or stands after
/// another error. The parser's own check of such bytes fails.
void CheckStrange(std::string_view text, const std::string& file) {
  constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
  if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
  if (std::ranges::none_of(text, IsStrange)) return;
  const std::uint32_t line = StrangeLine(text);
  if (line != 0) {
    throw TomlError(
        Text(file, ":", line, ": only strings and comments may have characters outside ASCII"));
  }
  std::string plain(text);
  std::ranges::replace_if(plain, IsStrange, 'x');
  static_cast<void>(toml::parse(plain, file));
}

toml::table ParseToml(const fs::path& path) {
  try {
    std::ifstream file(path);
    const int reason = !file ? errno : fs::is_directory(path) ? EISDIR : 0;
    if (reason != 0) {
      throw TomlError("can't open " + path.string() + ": " +
                      std::generic_category().message(reason));
    }
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    CheckStrange(text, path.string());
    return toml::parse(text, path.string());
  } catch (const toml::parse_error& error) {
    throw TomlError(Text(path.string(), ":", error.source().begin.line, ": ", error.description()));
  }
}

std::uint32_t LineOf(const toml::node& node) { return node.source().begin.line; }

/// The number that `node` is; nothing where it is none, or not from `min` to `max`.
std::optional<std::uint64_t> NumberIn(const toml::node& node, std::uint64_t min,
                                      std::uint64_t max) {
  const auto* number = node.as_integer();
  if (number == nullptr || std::cmp_less(number->get(), min) ||
      std::cmp_greater(number->get(), max)) {
    return {};
  }
  return static_cast<std::uint64_t>(number->get());
}

}  // namespace

/// A table, and the root of the file, which owns it.
struct TomlReader::Source {
  std::shared_ptr<const toml::table> root;
  const toml::table* table;
};

struct TomlReader::Node {
  const toml::node* node;
};

TomlReader::TomlReader(const fs::path& file) : _file(file) {
  const auto root = std::make_shared<const toml::table>(ParseToml(file));
  _source = std::make_shared<const Source>(Source{root, root.get()});
}

void TomlReader::ThrowAt(std::uint32_t line, const std::string& text) const {
  throw TomlError(Text(_file.string(), ":", line, ": ", text));
}

std::uint32_t TomlReader::Line() const { return common::LineOf(*_source->table); }

std::uint32_t TomlReader::LineOf(std::string_view key) const {
  const toml::node* node = _source->table->get(key);
  return node == nullptr ? Line() : common::LineOf(*node);
}

TomlReader::Node TomlReader::Find(std::string_view key) {
  _asked.emplace(key);
  return {_source->table->get(key)};
}

std::optional<TomlReader::Element> TomlReader::Any(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  return Element{node->value_or(std::string()), common::LineOf(*node)};
}

bool TomlReader::IsTable(std::string_view key) {
  const toml::node* node = Find(key).node;
  return node != nullptr && node->is_table();
}

std::optional<std::string> TomlReader::String(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_string()) ThrowAt(key, Text("'", key, "' must be a string"));
  return node->as_string()->get();
}

std::optional<bool> TomlReader::Bool(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_boolean()) ThrowAt(key, Text("'", key, "' must be true or false"));
  return node->as_boolean()->get();
}

std::optional<std::uint64_t> TomlReader::LongNumber(std::string_view key, std::uint64_t min,
                                                    std::uint64_t max) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  const auto number = NumberIn(*node, min, max);
  if (!number) ThrowAt(key, Text("'", key, "' must be a number from ", min, " to ", max));
  return number;
}

std::optional<std::uint32_t> TomlReader::Number(std::string_view key, std::uint32_t min,
                                                std::uint32_t max) {
  const auto number = LongNumber(key, min, max);
  if (!number) return {};
  return static_cast<std::uint32_t>(*number);
}

std::optional<std::vector<std::string>> TomlReader::Strings(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_array()) ThrowAt(key, Text("'", key, "' must be an array of strings"));
  std::vector<std::string> strings;
  for (const toml::node& element : *node->as_array()) {
    if (!element.is_string()) {
      ThrowAt(common::LineOf(element), Text("'", key, "' must be an array of strings"));
    }
    strings.push_back(element.as_string()->get());
  }
  return strings;
}

std::optional<std::vector<TomlReader::Row>> TomlReader::Rows(std::string_view key,
                                                             std::size_t columns,
                                                             std::uint64_t max) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  const auto refuse = [&](const toml::node& wrong) {
    ThrowAt(common::LineOf(wrong), Text("'", key, "' must be an array of arrays of ", columns,
                                        " numbers from 0 to ", max));
  };
  if (!node->is_array()) refuse(*node);
  std::vector<Row> rows;
  for (const toml::node& element : *node->as_array()) {
    if (!element.is_array() || element.as_array()->size() != columns) refuse(element);
    Row& row = rows.emplace_back(Row{.numbers = {}, .line = common::LineOf(element)});
    for (const toml::node& number : *element.as_array()) {
      const auto value = NumberIn(number, 0, max);
      if (!value) refuse(number);
      row.numbers.push_back(*value);
    }
  }
  return rows;
}

std::vector<TomlReader::Element> TomlReader::Array(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_array()) ThrowAt(key, Text("'", key, "' must be an array"));
  std::vector<Element> elements;
  for (const toml::node& element : *node->as_array()) {
    elements.push_back({element.value_or(std::string()), common::LineOf(element)});
  }
  return elements;
}

std::vector<TomlReader> TomlReader::Tables(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_array()) ThrowAt(key, Text("'", key, "' must be an array"));
  std::vector<TomlReader> tables;
  for (const toml::node& element : *node->as_array()) {
    if (!element.is_table()) {
      ThrowAt(common::LineOf(element), Text("'", key, "' must be tables, as [[", key, "]]"));
    }
    tables.push_back(TomlReader(
        _file, std::make_shared<const Source>(Source{_source->root, element.as_table()})));
  }
  return tables;
}

std::optional<TomlReader> TomlReader::Table(std::string_view key) {
  const toml::node* node = Find(key).node;
  if (node == nullptr) return {};
  if (!node->is_table()) ThrowAt(key, Text("'", key, "' must be a table"));
  return TomlReader(_file, std::make_shared<const Source>(Source{_source->root, node->as_table()}));
}

void TomlReader::Finish() const {
  for (const auto& [key, node] : *_source->table) {
    if (!_asked.contains(key.str())) {
      ThrowAt(common::LineOf(node), Text("unknown key '", key.str(), "'"));
    }
  }
}

}  // namespace common
