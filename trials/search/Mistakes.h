/// Mistakes that an author of an image could make, for the search.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "device/Image.h"
#include "trials/soak/Random.h"

namespace search {

/// A mistake in what the image means. `make` returns false where this image has no place for it;
/// what it changed then does not count.
struct ImageMistake {
  const char* name;
  std::function<bool(device::Image&, soak::Random&)> make;
};

/// A mistake in the lines of the file, likewise.
struct TextMistake {
  const char* name;
  std::function<bool(std::vector<std::string>&, soak::Random&)> make;
};

const std::vector<ImageMistake>& ImageMistakes();
/// Each aimed at one kind of problem, which is its name: one that the others rarely make.
const std::vector<ImageMistake>& AimedImageMistakes();

const std::vector<TextMistake>& TextMistakes();
const std::vector<TextMistake>& AimedTextMistakes();

}  // namespace search
