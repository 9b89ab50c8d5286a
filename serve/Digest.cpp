#include "serve/Digest.h"

#include <array>

#include "common/Text.h"

namespace serve {

std::string Digest::Finish() {
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&_state, digest.size(), digest.data());
  return common::HexBytes(digest);
}

}  // namespace serve
