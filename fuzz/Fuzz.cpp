#include "fuzz/Fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "common/ScratchFolder.h"

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

/// A file in memory, and a link to it that has a name of our own.
class NamedMemory {
 public:
  NamedMemory() : _fd(memfd_create("fuzz", MFD_CLOEXEC)) {
    const std::string process = "/proc/" + std::to_string(getpid());
    std::filesystem::create_symlink(process + "/fd/" + std::to_string(_fd), _link);
  }
  NamedMemory(const NamedMemory&) = delete;
  NamedMemory& operator=(const NamedMemory&) = delete;
  ~NamedMemory() { close(_fd); }

  void Set(std::string_view content) const {
    const bool is_set = ftruncate(_fd, 0) == 0 && pwrite(_fd, content.data(), content.size(), 0) ==
                                                      static_cast<ssize_t>(content.size());
    Must(is_set, "a file in memory takes its content");
  }
  const std::string& Name() const { return _link; }

 private:
  int _fd;
  common::ScratchFolder _folder{"fwpush-fuzz"};
  std::string _link = _folder / "memory.img";
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
