/// The files that fwpush-report writes: results, the saved console, and standard output.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Descriptor.h"
#include "common/Files.h"

namespace report {

/// Whether `name` exists and is no file, but a device or a pipe: it is written to as it is.
bool IsNoFile(const std::string& name);

/// A result of the run. Created before the burn: a burn must not be lost because its result cannot
/// be written. It replaces an older file only when it is complete.
class ResultFile {
 public:
  /// Does nothing for an empty name. Throws where the file cannot be written.
  explicit ResultFile(const std::string& name);

  bool IsWanted() const { return !_name.empty(); }
  /// Throws where the file cannot be written.
  void Keep(std::string_view text);

 private:
  std::string _name;
  std::optional<common::NewFile> _file;
  common::Descriptor _device;
};

/// The console as it comes. Opened before the burn, too; the first text of the burn replaces what
/// the file held. A file that was created for a burn that never began is removed.
class LogFile {
 public:
  /// Does nothing for an empty name. Throws where the file cannot be written.
  explicit LogFile(const std::string& name);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  /// Keeps an error for Finish.
  void Write(std::string_view text);
  /// To be called at the end of the burn, even if it printed nothing. Throws where text is missing
  /// in the file.
  void Finish();

 private:
  std::string _name;
  common::Descriptor _file;
  bool _is_ours = false;   ///< there was none before
  bool _is_begun = false;  ///< it is the log of a burn
  std::string _trouble;
};

/// Writes to standard output until that fails, which standard error then reports.
class ConsoleOutput {
 public:
  void Write(std::string_view text);
  bool IsInsideLine() const { return _is_inside_line; }

 private:
  bool _is_lost = false;
  bool _is_inside_line = false;
};

}  // namespace report
