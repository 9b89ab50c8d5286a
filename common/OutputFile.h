/// The files that programs write: results, logs, and what keeps them from destroying one another.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/Descriptor.h"

namespace common {

/// A file of a run, and the option, argument or other file that names it, such as "--json".
struct NamedFile {
  std::string what;
  std::filesystem::path path;  ///< empty where the option is not given
};

/// Throws UsageError where an output is the same file as an input or another output, whatever the
/// two are called, the program that runs, or the file that standard output or standard error goes
/// to; and where standard output goes to an input. To be called before anything is written.
/// Devices and pipes may be given twice.
void RefuseSameFiles(const std::vector<NamedFile>& inputs, const std::vector<NamedFile>& outputs);

/// A result, written where its name leads. All operations throw std::runtime_error.
///  - A name of an open descriptor, such as /dev/stdout or /dev/fd/3, is written to through that
///    descriptor, behind what it has been given before.
///  - A device or a pipe is written to as it is.
///  - A regular file is written beside the earlier one, which Keep replaces as a whole. A run that
///    ends before leaves the earlier file as it was. The mode of the file stays.
class OutputFile {
 public:
  /// Throws where the file could not be written: a long run must not end without its result.
  explicit OutputFile(const std::filesystem::path& path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  void Write(std::span<const char> bytes);
  /// To be called when all is written.
  void Keep();

 private:
  /// Creates the temporary file.
  void Create();
  [[noreturn]] void Throw() const;

  std::filesystem::path _name;    ///< as given
  std::filesystem::path _target;  ///< the file to replace; empty where `_file` is written to itself
  std::string _temporary;         ///< empty while there is none
  Descriptor _file;
};

/// A log, which is written as it comes, so that it is complete up to the moment where a run is
/// killed. Names lead where those of OutputFile do, but a regular file is written in place: it
/// keeps its earlier contents until the first text. A file that was created for a run that never
/// began is removed.
class LogFile {
 public:
  /// Does nothing for an empty name. Throws std::runtime_error where the file cannot be written.
  explicit LogFile(const std::string& name);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  /// Empties the file, where that has not been done: what an earlier run wrote is not this run's.
  /// Keeps an error for Finish.
  void Begin();
  /// Begins, where that has not been done, and adds `text`. Keeps an error for Finish.
  void Write(std::string_view text);
  /// To be called at the end of the run, even if nothing was written. Throws std::runtime_error
  /// where text is missing in the file.
  void Finish();

 private:
  void GiveUp();

  std::string _name;
  Descriptor _file;
  bool _is_regular = false;
  bool _is_ours = false;   ///< there was none before
  bool _is_begun = false;  ///< it is the log of this run
  std::string _trouble;
};

}  // namespace common
