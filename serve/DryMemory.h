/// A memory that keeps what is written to it in the server, over what the real one holds.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "serve/Memory.h"

namespace serve {

/// The real memory is only read. What was written is kept as long as this object.
class DryMemory : public Memory {
 public:
  DryMemory(std::shared_ptr<Memory> real, bool only_clears_bits)
      : _real(std::move(real)), _only_clears_bits(only_clears_bits) {}

  std::string Open(System& system, Access access) override;
  bool IsOpen(Access access) const override;
  void Close(System& system) override;
  std::unique_ptr<JobSteps> Begin(Job& job) override;
  bool IsQuick() const override { return _real->IsQuick(); }
  std::size_t Channel() const override { return _real->Channel(); }

 private:
  friend class DrySteps;

  std::shared_ptr<Memory> _real;
  bool _only_clears_bits;
  Access _access = Access::READ;
  /// A part of the memory, as it would be now.
  struct Block {
    Bytes bytes = Bytes(BLOCK);
    std::vector<bool> is_written = std::vector<bool>(BLOCK);
  };
  static constexpr std::uint32_t BLOCK = 4096;  ///< bytes

  std::map<std::uint32_t, Block> _written;  ///< by number
};

}  // namespace serve
