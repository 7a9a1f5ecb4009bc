#pragma once

// Which values become classes of increments, and what is stored instead.
//
// What a class is worth depends on the stores that it replaces, and what these cost depends on
// which other stores are near, that is, on the classes. So both are found in turns: price every
// word as an increment, walk over the words (word_walk), look which stores are near each other,
// drop the classes that don't pay any more and take in those that now would.
//
// A store is dear alone and cheap in company. Two classes whose words come in pairs (the two
// words of a call) would therefore keep each other out: each finds the other's words stored, and
// itself hardly worth a class. So a word beside a stored one of a frequent value counts half of
// that store's entry, too. This alone took a pair of 400 KB images from 95 stores to 5.
//
// Six turns; more change a few bytes.

#include <cstdint>
#include <vector>

#include "class_prices.h"
#include "plan.h"
#include "word_walk.h"

namespace kelvane {

struct word_settings {
  ByteOrder order = ByteOrder::kLittle;
  walk_settings walk;
  uint32_t class_limit = 0xFFFFFFFF;
};

struct word_choice {
  std::vector<stored_run> runs;
  std::vector<planned_class> classes;  // by value; their words are in `words`
  std::vector<uint32_t> words;
};

// Chooses for all words that still differ from the new image.
word_choice choose_words(const plan_images& images, const moved_image& moved,
                         const word_settings& settings);

// What a word of each class has cost: the mean of its jumps, with its head shared out, 2 to 40
// bits. For the alignment of the next round.
std::vector<class_price> mean_prices(const plan_images& images, const plan& planned);

}  // namespace kelvane
