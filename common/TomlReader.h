/// TOML files whose every value is checked, and in which a key that means nothing is an error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace common {

/// A file is wrong; the text names file, line and key.
class TomlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One table of a file: hands out its values, checked, and knows which keys nobody asked for. What
/// is missing is handed out empty; what is wrong throws TomlError.
class TomlReader {
 public:
  /// A value that may be of any kind.
  struct Element {
    std::string text;    ///< "" where it is no text
    std::uint32_t line;  ///< from 1
  };

  /// Parses a file; this is its root table. Throws TomlError.
  explicit TomlReader(const std::filesystem::path& file);

  /// Throw a TomlError: at a line, at the value of a key, or where the table begins.
  [[noreturn]] void ThrowAt(std::uint32_t line, const std::string& text) const;
  [[noreturn]] void ThrowAt(std::string_view key, const std::string& text) const {
    ThrowAt(LineOf(key), text);
  }
  [[noreturn]] void Throw(const std::string& text) const { ThrowAt(Line(), text); }

  /// The line that the table begins on, from 1.
  std::uint32_t Line() const;
  /// The line of a value; that of the table where there is none.
  std::uint32_t LineOf(std::string_view key) const;
  /// `name`, relative to the file.
  std::filesystem::path Path(const std::string& name) const { return _file.parent_path() / name; }

  // Each asks for `key`.
  std::optional<Element> Any(std::string_view key);
  bool IsTable(std::string_view key);
  std::optional<std::string> String(std::string_view key);
  std::optional<bool> Bool(std::string_view key);
  std::optional<std::uint32_t> Number(std::string_view key, std::uint32_t min, std::uint32_t max);
  /// The elements of an array; none where the key is missing. So of tables.
  std::vector<Element> Array(std::string_view key);
  std::vector<TomlReader> Tables(std::string_view key);
  std::optional<TomlReader> Table(std::string_view key);

  /// `value`, read at `key`; throws where it is missing.
  template <typename Value>
  Value Needed(std::string_view key, std::optional<Value> value) const {
    if (!value) Throw("'" + std::string(key) + "' is missing");
    return *std::move(value);
  }

  /// Refuses keys that mean nothing here: a misspelt one must not go unnoticed.
  void Finish() const;

 private:
  struct Source;
  struct Node;

  TomlReader(const std::filesystem::path& file, std::shared_ptr<const Source> source)
      : _file(file), _source(std::move(source)) {}

  /// The value of `key`; null in it where that is missing.
  Node Find(std::string_view key);

  std::filesystem::path _file;
  std::shared_ptr<const Source> _source;
  std::set<std::string, std::less<>> _asked;
};

}  // namespace common
