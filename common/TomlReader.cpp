#include "common/TomlReader.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace sim {

namespace fs = std::filesystem;

namespace {

bool IsStrange(char c) { return static_cast<unsigned char>(c) >= 0x80; }

/// The line, from 1, of the first byte beyond ASCII that stands neither in a text nor in a comment;
/// 0 where there is none, or where another mistake hides it.
u_int32_t StrangeLine(std::string_view text) {
  u_int32_t line = 1;
  std::string_view quote;  // that ends the text in hand
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

/// Throws where the parser would meet a byte beyond ASCII outside of texts and comments, or behind
/// another mistake: its own test of such characters goes astray.
void CheckStrange(std::string_view text, const std::string& file) {
  constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
  if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
  if (std::ranges::none_of(text, IsStrange)) return;
  const u_int32_t line = StrangeLine(text);
  if (line != 0) {
    throw TomlError(
        Text(file, ":", line, ": characters beyond ASCII belong into texts and comments"));
  }
  std::string plain(text);
  std::ranges::replace_if(plain, IsStrange, 'x');
  static_cast<void>(toml::parse(plain, file));
}

}  // namespace

toml::table ParseToml(const fs::path& path) {
  try {
    std::ifstream file(path);
    if (!file || fs::is_directory(path)) throw TomlError("can't open " + path.string());
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    CheckStrange(text, path.string());
    return toml::parse(text, path.string());
  } catch (const toml::parse_error& error) {
    throw TomlError(Text(path.string(), ":", error.source().begin.line, ": ", error.description()));
  }
}

void TomlReader::Throw(const toml::node& at, const std::string& text) const {
  throw TomlError(Text(_file.string(), ":", at.source().begin.line, ": ", text));
}

const toml::node* TomlReader::Node(std::string_view key) {
  _asked.emplace(key);
  return _table.get(key);
}

std::optional<std::string> TomlReader::String(std::string_view key) {
  const toml::node* node = Node(key);
  if (node == nullptr) return {};
  if (!node->is_string()) Throw(*node, Text("'", key, "' must be a text"));
  return node->as_string()->get();
}

std::optional<bool> TomlReader::Bool(std::string_view key) {
  const toml::node* node = Node(key);
  if (node == nullptr) return {};
  if (!node->is_boolean()) Throw(*node, Text("'", key, "' must be true or false"));
  return node->as_boolean()->get();
}

std::optional<u_int32_t> TomlReader::Number(std::string_view key, u_int32_t min, u_int32_t max) {
  const toml::node* node = Node(key);
  if (node == nullptr) return {};
  const auto* number = node->as_integer();
  if (number == nullptr || number->get() < min || number->get() > max) {
    Throw(*node, Text("'", key, "' must be a number from ", min, " to ", max));
  }
  return static_cast<u_int32_t>(number->get());
}

const toml::array& TomlReader::Array(std::string_view key) {
  static const toml::array NONE;
  const toml::node* node = Node(key);
  if (node == nullptr) return NONE;
  if (!node->is_array()) Throw(*node, Text("'", key, "' must be an array"));
  return *node->as_array();
}

std::vector<TomlReader> TomlReader::Tables(std::string_view key) {
  std::vector<TomlReader> tables;
  for (const toml::node& node : Array(key)) {
    if (!node.is_table()) Throw(node, Text("'", key, "' must be tables, as [[", key, "]]"));
    tables.emplace_back(_file, *node.as_table());
  }
  return tables;
}

std::optional<TomlReader> TomlReader::Table(std::string_view key) {
  const toml::node* node = Node(key);
  if (node == nullptr) return {};
  if (!node->is_table()) Throw(*node, Text("'", key, "' must be a table"));
  return TomlReader(_file, *node->as_table());
}

void TomlReader::Finish() const {
  for (const auto& [key, node] : _table) {
    if (!_asked.contains(key.str())) Throw(node, Text("unknown key '", key.str(), "'"));
  }
}

}  // namespace sim
