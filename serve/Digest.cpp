#include "serve/Digest.h"

#include <array>

namespace serve {

std::string Digest::Finish() {
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&_state, digest.size(), digest.data());
  std::string text;
  for (const std::uint8_t byte : digest) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

}  // namespace serve
