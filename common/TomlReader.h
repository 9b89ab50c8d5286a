/// TOML files. Every value is checked, and an unknown key is an error.
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

/// An error in a file. The text names file, line and key.
class TomlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One table of a file. Returns its values, checked, and notes which keys were read. A missing
/// value is returned as nothing; a wrong one throws TomlError.
class TomlReader {
 public:
  /// A value that may be of any kind.
  struct Element {
    std::string text;    ///< "" where the value is not a string
    std::uint32_t line;  ///< from 1
  };
  /// An array of numbers within an array.
  struct Row {
    std::vector<std::uint64_t> numbers;
    std::uint32_t line;  ///< from 1
  };

  /// Parses a file, and reads its root table. Throws TomlError.
  explicit TomlReader(const std::filesystem::path& file);

  // Each throws a TomlError that names a line, the line of a key's value, or that of the table.
  [[noreturn]] void ThrowAt(std::uint32_t line, const std::string& text) const;
  [[noreturn]] void ThrowAt(std::string_view key, const std::string& text) const {
    ThrowAt(LineOf(key), text);
  }
  [[noreturn]] void Throw(const std::string& text) const { ThrowAt(Line(), text); }

  /// The line that the table begins on, from 1.
  std::uint32_t Line() const;
  /// The line of a key's value; that of the table where it has none.
  std::uint32_t LineOf(std::string_view key) const;
  /// `name` relative to the folder of the file.
  std::filesystem::path Path(const std::string& name) const { return _file.parent_path() / name; }

  // Each reads the value of `key`.
  std::optional<Element> Any(std::string_view key);
  bool IsTable(std::string_view key);
  std::optional<std::string> String(std::string_view key);
  std::optional<bool> Bool(std::string_view key);
  std::optional<std::uint32_t> Number(std::string_view key, std::uint32_t min, std::uint32_t max);
  /// Files have numbers below 2^63 only.
  std::optional<std::uint64_t> LongNumber(std::string_view key, std::uint64_t min,
                                          std::uint64_t max);
  std::optional<std::vector<std::string>> Strings(std::string_view key);
  /// Arrays of `columns` numbers each, from 0 to `max`.
  std::optional<std::vector<Row>> Rows(std::string_view key, std::size_t columns,
                                       std::uint64_t max);
  // The elements of an array; none where the key is missing.
  std::vector<Element> Array(std::string_view key);
  std::vector<TomlReader> Tables(std::string_view key);
  std::optional<TomlReader> Table(std::string_view key);

  /// Returns `value`, which was read from `key`, or throws where it is missing.
  template <typename Value>
  Value Needed(std::string_view key, std::optional<Value> value) const {
    if (!value) Throw("'" + std::string(key) + "' is missing");
    return *std::move(value);
  }

  /// Throws where a key was not read: it is unknown, or misspelt.
  void Finish() const;

 private:
  struct Source;
  struct Node;

  TomlReader(const std::filesystem::path& file, std::shared_ptr<const Source> source)
      : _file(file), _source(std::move(source)) {}

  /// The value of `key`; its node is null where the key is missing.
  Node Find(std::string_view key);

  std::filesystem::path _file;
  std::shared_ptr<const Source> _source;
  std::set<std::string, std::less<>> _asked;
};

}  // namespace common
