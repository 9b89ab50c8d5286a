#include "fuzz/Fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "common/ScratchFolder.h"
#include "tests/support/MemoryFile.h"

// Linked in the place of AssertionFailed.
extern "C" [[noreturn]] void __wrap__Z15AssertionFailedPKcS0_jS0_(const char*, const char*,
                                                                  unsigned, const char*);

void __wrap__Z15AssertionFailedPKcS0_jS0_(const char* expression, const char*, unsigned,
                                          const char*) {
  throw fuzz::AbnormalEnd{expression};
}

namespace fuzz {

u_int8_t Input::Byte() {
  if (_rest.empty()) return 0;
  const auto byte = static_cast<u_int8_t>(_rest[0]);
  _rest.remove_prefix(1);
  return byte;
}

u_int32_t Input::Below(u_int32_t end) {
  const u_int32_t byte = Byte();
  return (byte >= '0' ? byte - '0' : byte) % end;
}

std::string_view Input::Until(std::string_view separator) {
  const std::size_t at = std::min(_rest.find(separator), _rest.size());
  const std::string_view piece = _rest.substr(0, at);
  _rest.remove_prefix(std::min(at + separator.size(), _rest.size()));
  return piece;
}

std::string_view Input::Rest() { return std::exchange(_rest, {}); }

void Must(bool is_so, std::string_view what) {
  if (is_so) return;
  std::fprintf(stderr, "fuzz: this must not be: %.*s\n", static_cast<int>(what.size()),
               what.data());
  std::abort();
}

Ending RunToAnyEnd(const std::function<void()>& action) {
  try {
    action();
  } catch (const BraidError& error) {
    return {error.Des(), {}};
  } catch (const AbnormalEnd& end) {
    return {{}, end.expression};
  }
  return {};
}

std::optional<std::string> Run(const std::function<void()>& action) {
  const Ending ending = RunToAnyEnd(action);
  Must(!ending.assertion, "this assertion fails: " + ending.assertion.value_or(""));
  return ending.error;
}

namespace {

class NamedMemory {
 public:
  void Set(std::string_view content) const { _memory.Set(content); }
  const std::string& Name() const { return _name; }

 private:
  common::ScratchFolder _folder{"fwpush-fuzz"};
  std::string _name = _folder / "memory.img";
  ::MemoryFile _memory{_name};
};

}  // namespace

const std::string& MemoryFile(std::string_view content) {
  static const NamedMemory memory;
  memory.Set(content);
  return memory.Name();
}

void LoadImage(FwImage& image, std::string_view text) {
  image.Open(MemoryFile(text).c_str(), READ);
}

namespace {

/// Nothing where a CRC crosses the end of the range.
std::optional<bool> IsOddCrcIn(const FwImage& image, u_int32_t addr, u_int32_t size) {
  bool is_odd = false;
  const auto error = Run([&] {
    is_odd = std::ranges::any_of(image.GetCrcsInRange(addr, size),
                                 [](const auto& crc) { return crc.size % 4 != 0; });
  });
  if (error) return {};
  return is_odd;
}

}  // namespace

bool HasOddCrc(const FwImage& image) {
  // Ranges of 32 bits cannot be the whole address space: its last byte is asked for by itself.
  // Where one crosses the end, nobody can tell.
  return IsOddCrcIn(image, 0, 0xFFFFFFFF).value_or(true) ||
         IsOddCrcIn(image, 0xFFFFFFFF, 1).value_or(true);
}

bool BurnsOddCrc(const FwImage& image) {
  std::vector<u_int32_t> addrs;
  image.GetSectionsAddr(addrs);
  return std::ranges::any_of(addrs, [&image](u_int32_t addr) {
    const auto size = static_cast<u_int32_t>(image.GetSection(addr)->data.size());
    return IsOddCrcIn(image, addr, size).value_or(false);
  });
}

}  // namespace fuzz

/// What the program prints is of no use here.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}
