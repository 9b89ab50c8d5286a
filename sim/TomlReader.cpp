#include "TomlReader.h"

#include <fstream>

namespace sim {

namespace fs = std::filesystem;

toml::table ParseToml(const fs::path& path) {
  try {
    std::ifstream file(path);
    if (!file || fs::is_directory(path)) throw TomlError("can't open " + path.string());
    return toml::parse(file, path.string());
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
