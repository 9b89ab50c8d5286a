#include "trials/search/MutatedImage.h"

#include <algorithm>

#include "trials/search/Mistakes.h"
#include "trials/soak/ImageText.h"

namespace search {

using soak::Random;

namespace {

/// How many mistakes are aimed at a kind of problem.
constexpr std::uint32_t AIMED_PERCENT = 55;
/// How many are made in the lines of the file.
constexpr std::uint32_t TEXT_PERCENT = 40;

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

/// Tries mistakes until one fits. A mistake may not fit any more once it has begun: each gets a
/// copy.
template <typename Mistakes, typename Thing>
void MakeOne(const Mistakes& mistakes, Thing& thing, Random& random,
             std::vector<std::string>& names) {
  for (int i = 0; i < 20; ++i) {
    const auto& mistake = mistakes[random.Below(mistakes.size())];
    Thing copy = thing;
    if (!mistake.make(copy, random)) continue;
    thing = std::move(copy);
    names.emplace_back(mistake.name);
    return;
  }
}

}  // namespace

MutatedImage Mutate(const soak::Scenario& scenario, Random& random) {
  MutatedImage mutated{scenario.text, {}};
  soak::RandomImage image;
  image.image = scenario.image;
  image.type = std::string(scenario.image.type->keyword);
  std::uint32_t in_text = 0;
  for (auto left = random.OneOf<std::uint32_t>({0, 0, 1, 1, 2, 3}); left > 0; --left) {
    if (random.Chance(TEXT_PERCENT)) {
      ++in_text;
    } else {
      MakeOne(random.Chance(AIMED_PERCENT) ? AimedImageMistakes() : ImageMistakes(), image.image,
              random, mutated.mistakes);
    }
  }
  if (!mutated.mistakes.empty()) {
    if (image.image.type != nullptr) image.type = std::string(image.image.type->keyword);
    soak::OrderSections(image.image);
    mutated.text = soak::TextOf(image, random);
  }
  if (in_text == 0) return mutated;
  std::vector<std::string> lines = LinesOf(mutated.text);
  for (; in_text > 0; --in_text) {
    MakeOne(random.Chance(AIMED_PERCENT) ? AimedTextMistakes() : TextMistakes(), lines, random,
            mutated.mistakes);
  }
  mutated.text.clear();
  for (const std::string& line : lines) mutated.text += line + "\n";
  return mutated;
}

}  // namespace search
