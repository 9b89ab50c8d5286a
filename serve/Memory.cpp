#include "serve/Memory.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "common/Text.h"

namespace serve {

namespace {

constexpr std::size_t SHOWN_BYTES = 4;

}  // namespace

std::string CallError(const char* what, std::uint32_t offset, std::int64_t result) {
  switch (-result) {
    case ENODEV:
    case ENXIO:
    case ENOENT:
      return "Device not there";
    case EACCES:
    case EPERM:
    case EROFS:
    case EBADF:
      return "Read-only";
    default:
      return common::Text(what, " failed at 0x", std::hex, offset, ": ",
                          result >= 0 ? "too few bytes"
                                      : std::generic_category().message(static_cast<int>(-result)));
  }
}

std::string VerificationError(std::uint32_t offset, std::span<const std::uint8_t> wrote,
                              std::span<const std::uint8_t> read) {
  const auto differ = std::ranges::mismatch(wrote, read);
  const auto at = static_cast<std::size_t>(differ.in1 - wrote.begin());
  const std::size_t size = std::min(SHOWN_BYTES, std::min(wrote.size(), read.size()) - at);
  return common::Text("Verification failed at 0x", std::hex, offset + at, ": wrote ",
                      common::HexBytes(wrote.subspan(at, size)), ", read ",
                      common::HexBytes(read.subspan(at, size)));
}

}  // namespace serve
