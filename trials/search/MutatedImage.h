/// Images for the search: sound ones, and the same ones after mistakes that an author could make.
#pragma once

#include <string>
#include <vector>

#include "trials/soak/Random.h"
#include "trials/soak/Scenario.h"

namespace search {

/// An image file, and what was done to it.
struct MutatedImage {
  std::string text;
  std::vector<std::string> mistakes;  ///< empty: it is sound
};

/// Makes up to two mistakes in the scenario's image: in what it means, such as an address or a
/// byte of a record, or in its text, such as a line that is missing or stands elsewhere.
MutatedImage Mutate(const soak::Scenario& scenario, soak::Random& random);

}  // namespace search
