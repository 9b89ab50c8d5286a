#include "verify/Finding.h"

namespace verify {

const char* Name(DeviceFinding::State state) {
  switch (state) {
    case DeviceFinding::IDENTICAL:
      return "identical";
    case DeviceFinding::DIFFERENT:
      return "different";
    case DeviceFinding::UNREACHABLE:
      return "unreachable";
    case DeviceFinding::UNREADABLE:
      return "unreadable";
  }
  return "?";
}

}  // namespace verify
