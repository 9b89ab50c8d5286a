/// The system's last error as an exception.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace common {

/// Throws a std::system_error of errno that says `what` failed.
[[noreturn]] inline void ThrowSystemError(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace common
