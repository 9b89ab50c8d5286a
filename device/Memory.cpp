#include "device/Memory.h"

#include <algorithm>

#include "device/Chip.h"

namespace device {

Bytes Memory::Part(std::uint32_t addr, std::uint32_t size) const {
  const View part = View(bytes).subspan(addr, size);
  return Bytes(part.begin(), part.end());
}

Bytes Memory::Read(std::uint32_t addr, std::uint32_t size) const {
  const std::size_t whole = WordsIn(size) * WORD_SIZE;
  const std::size_t there = std::min(whole, bytes.size() - addr);
  Bytes answer = Part(addr, static_cast<std::uint32_t>(there));
  answer.resize(whole, ERASED);
  return answer;
}

bool Memory::Has(std::uint32_t addr, View part) const {
  return Holds(addr, part.size()) &&
         std::ranges::equal(View(bytes).subspan(addr, part.size()), part);
}

}  // namespace device
