/// What every unit shares: integer and device types, result codes, the error record, the
/// assertion that stays on in release builds, and the rules of the console.
///
/// The console is `std::cout`. `std::hex` and the fill character persist on it. Set the base before
/// printing; nothing restores it.
#pragma once

#include <sys/types.h>  // u_int8_t ... u_int64_t

#include <chrono>
#include <iomanip>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using Guid = u_int64_t;          ///< identifies a device on the fabric; 0 means "all devices"
using GuidSet = std::set<Guid>;  ///< ascending: the order of devices in requests and answers
using GuidVec = std::vector<Guid>;
using DataVec = std::vector<u_int8_t>;  ///< bytes of images and device memory, big-endian words

enum BraidResult {
  BRAID_OK = 0,
  BRAID_ERROR = 1,
  BRAID_ERR_SOME = 2,  ///< failed on some of the addressed devices
  BRAID_ERR_ALL = 3,   ///< failed on all of them
  BRAID_NOT_IMPLEMENTED = 4,
};

/// The only exception type that this program throws: a condition that ends the run. Only the driver
/// handles it; destructors release what the code in between holds.
class BraidError {
 public:
  /// `file` and `line` are those of the throw site, for debugging; they are never printed.
  BraidError(const std::string& err_des, BraidResult err_num, const std::string& file,
             u_int32_t line)
      : _num(err_num), _des(err_des), _file(file), _line(line) {}

  /// The description, complete and ready to print: no severity prefix, no line end.
  const std::string& Des() const { return _des; }
  BraidResult Num() const { return _num; }
  const std::string& File() const { return _file; }
  u_int32_t Line() const { return _line; }

 private:
  BraidResult _num;
  std::string _des;
  std::string _file;
  u_int32_t _line;
};

/// The unit that a source path belongs to: "src/FwImage.cpp" gives "FwImage".
constexpr std::string_view UnitName(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);  // without a '/', npos + 1 is 0
  return path.substr(0, path.find('.'));
}

/// Throws a BraidError with code BRAID_ERROR. The defaults name the caller's unit and line.
[[noreturn]] void ThrowError(const std::string& des, const char* file = __builtin_FILE(),
                             u_int32_t line = __builtin_LINE());

/// Writes all `parts` to a new string stream and returns its text. Numbers are decimal until a part
/// is `std::hex`.
template <typename... Parts>
std::string Text(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

/// Begins a debug line, "-D- ", the unit, ":", the line and ": ", and returns the console for its
/// text; finish with std::endl. The line number is always decimal. The console's base does not
/// change.
std::ostream& Debug(u_int32_t line = __builtin_LINE(), const char* file = __builtin_FILE());

/// Prints to the console as printf does and flushes, so that no text is lost when the run ends
/// abnormally. The console's base and fill have no effect.
void ConsolePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Maximum delay before a redrawn line is visible. Too short to be noticed.
inline constexpr std::chrono::milliseconds CONSOLE_DELAY{20};

/// Flushes the console unless it was flushed less than CONSOLE_DELAY ago. Code that then waits for
/// longer than CONSOLE_DELAY must call FlushConsole.
void FlushConsoleSoon();
/// Whether the last FlushConsoleSoon did not flush.
bool ConsoleIsPending();
void FlushConsole();

/// Prints the failure line of one device, or of the whole run when `guid` is 0. The leading
/// carriage return overwrites a progress meter. Leaves the console in hexadecimal with fill '0'.
inline void PrintBurnError(const std::string& des, Guid guid) {
  std::cout << "\r-E- BURN FAILED:" << std::hex << std::setfill('0');
  if (guid != 0) {
    std::cout << "0x" << std::setw(16) << guid;
  } else {
    std::cout << "ALL";
  }
  std::cout << ":" << des << std::endl;
}

/// Reports a failed ASSERT_ALWAYS on standard error and aborts.
[[noreturn]] void AssertionFailed(const char* expression, const char* file, unsigned line,
                                  const char* function);

/// Asserts a condition that only a programming error can break. Active in every build: after such
/// an error the program must not write to a device.
#define ASSERT_ALWAYS(expression) \
  ((expression) ? static_cast<void>(0) : AssertionFailed(#expression, __FILE__, __LINE__, __func__))
