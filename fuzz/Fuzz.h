/// What the fuzz targets share. Each target defines LLVMFuzzerTestOneInput; libFuzzer feeds it
/// inputs of its own making, the replayer those that are kept in corpus/.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "src/BraidGeneral.h"
#include "src/FwImage.h"

extern "C" int LLVMFuzzerTestOneInput(const u_int8_t* bytes, std::size_t size);

namespace fuzz {

/// Hands out an input piece by piece; behind its end there are zeros and empty texts.
class Input {
 public:
  Input(const u_int8_t* bytes, std::size_t size)
      : _rest(reinterpret_cast<const char*>(bytes), size) {}

  bool IsEmpty() const { return _rest.empty(); }
  u_int8_t Byte();
  /// 0 to `end` - 1. Letters and digits of a readable seed give small numbers from 0 on.
  u_int32_t Below(u_int32_t end);
  /// Up to the next `separator`, which is taken too, or to the end.
  std::string_view Until(std::string_view separator);
  /// All that is left.
  std::string_view Rest();

 private:
  std::string_view _rest;
};

/// Ends the process with a message unless `is_so`: what the target knows of the program is wrong.
void Must(bool is_so, std::string_view what);

/// Thrown where an assertion of the program would end the process.
struct AbnormalEnd {
  std::string expression;
};

/// How something ended.
struct Ending {
  std::optional<std::string> error;      ///< the BraidError's text
  std::optional<std::string> assertion;  ///< the expression that did not hold
};

/// Runs `action` to its end, by a BraidError or a failed assertion too. All else gets through.
Ending RunToAnyEnd(const std::function<void()>& action);
/// The same where no assertion may fail: one that does ends the process. Returns the BraidError's
/// text.
std::optional<std::string> Run(const std::function<void()>& action);

/// Puts `content` into a file in memory, in the place of what was there before, and returns its
/// name, which ends in ".img".
const std::string& MemoryFile(std::string_view content);

/// Loads an image file's text as Open would. Throws BraidError.
void LoadImage(FwImage& image, std::string_view text);

/// Whether a burn of this image may end by the assertion that what a CRC covers is whole words.
bool HasOddCrc(const FwImage& image);
/// Whether a burn of its sections where they stand must, if nothing else ends it.
bool BurnsOddCrc(const FwImage& image);

}  // namespace fuzz
