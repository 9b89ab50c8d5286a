/// SHA-256, computed piece by piece.
#pragma once

#include <nettle/sha2.h>

#include <cstdint>
#include <span>
#include <string>

namespace serve {

class Digest {
 public:
  Digest() { sha256_init(&_state); }

  void Add(std::span<const std::uint8_t> bytes) {
    sha256_update(&_state, bytes.size(), bytes.data());
  }
  /// In hexadecimal, of all that was added; begins anew.
  std::string Finish();

 private:
  sha256_ctx _state{};
};

}  // namespace serve
