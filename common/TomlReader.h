/// TOML files whose every value is checked, and in which a key that means nothing is an error.
#pragma once

// In debug builds the library asserts what its parser does not keep, and a wrong file would end the
// program. Without, the parser tells what is wrong.
#define TOML_ASSERT(expression) static_cast<void>(0)
#include <toml++/toml.h>

#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/BraidGeneral.h"

namespace sim {

/// A file is wrong; the text names file, line and key.
class TomlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The file's root table. Throws TomlError.
toml::table ParseToml(const std::filesystem::path& path);

/// One table of a file, which it borrows: hands out its values, checked, and knows which keys
/// nobody asked for. What is missing is handed out empty; what is wrong throws TomlError.
class TomlReader {
 public:
  TomlReader(const std::filesystem::path& file, const toml::table& table)
      : _file(file), _table(table) {}

  [[noreturn]] void Throw(const toml::node& at, const std::string& text) const;
  [[noreturn]] void Throw(const std::string& text) const { Throw(_table, text); }

  /// The line that the table begins on, from 1.
  u_int32_t Line() const { return _table.source().begin.line; }
  /// `name`, relative to the file.
  std::filesystem::path Path(const std::string& name) const { return _file.parent_path() / name; }

  /// The value of `key`, whatever it is; null where it is missing.
  const toml::node* Node(std::string_view key);
  std::optional<std::string> String(std::string_view key);
  std::optional<bool> Bool(std::string_view key);
  std::optional<u_int32_t> Number(std::string_view key, u_int32_t min, u_int32_t max);
  const toml::array& Array(std::string_view key);
  /// The tables of an array of tables; none where the key is missing.
  std::vector<TomlReader> Tables(std::string_view key);
  std::optional<TomlReader> Table(std::string_view key);

  /// `value`, read at `key`; throws where it is missing.
  template <typename Value>
  Value Needed(std::string_view key, std::optional<Value> value) const {
    if (!value) Throw(Text("'", key, "' is missing"));
    return *std::move(value);
  }

  /// Refuses keys that mean nothing here: a misspelt one must not go unnoticed.
  void Finish() const;

 private:
  std::filesystem::path _file;
  const toml::table& _table;
  std::set<std::string, std::less<>> _asked;
};

}  // namespace sim
