#include "image_pair.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

namespace kelvane {

namespace {

Bytes::iterator at(Bytes& image, size_t position) {
  return image.begin() + static_cast<std::ptrdiff_t>(position);
}

// A stretch of an image: mostly short, at times up to 300 bytes.
struct Stretch {
  size_t position;
  size_t size;
};

Stretch any_stretch(const Bytes& image, Random& random) {
  const size_t position = random.below(image.size() + 1);
  const size_t longest = random.below(6) == 0 ? 300 : 24;
  return {position, std::min<size_t>(1 + random.below(longest), image.size() - position)};
}

Bytes any_piece(Random& random) {
  return random.bytes(1 + random.below(random.below(6) == 0 ? 300 : 24),
                      random.below(3) == 0 ? 2 : 256);
}

Bytes sparse(size_t size, Random& random) {
  Bytes image(size);
  for (size_t i = random.below(40); i < size; i += 1 + random.below(60)) {
    image[i] = static_cast<uint8_t>(random.below(256));
  }
  return image;
}

Bytes address_table(size_t size, Random& random, bool big_endian) {
  Bytes image;
  const uint32_t base = random.below(1000) * 0x1000;
  while (image.size() < size) {
    append_word(image, random.below(8) == 0 ? 0 : base + random.below(0x4000), big_endian);
  }
  image.resize(size);
  return image;
}

Bytes any_image(Random& random) {
  const size_t size = random.below(random.below(10) == 0 ? 4000 : 700);
  switch (random.below(7)) {
    case 0:
      return code_like(size, random);
    case 1:
      return text_like(size, random);
    case 2:
      return sparse(size, random);
    case 3:
      return random.bytes(size, 2);
    case 4:
      return address_table(size, random, random.below(2) == 0);
    default:
      return random.bytes(size);
  }
}

uint32_t word_at(const Bytes& image, size_t position, bool big_endian) {
  uint32_t word = 0;
  for (size_t lane = 0; lane < 4; ++lane) {
    word = word << 8U | image[position + (big_endian ? lane : 3 - lane)];
  }
  return word;
}

// Adds one of a few values to most words. Now and then the table does not begin on a word boundary.
void shift_words(Bytes& image, Random& random, bool big_endian) {
  std::array<uint32_t, 24> values{};
  const size_t classes = random.below(8) == 0 ? values.size() : 1 + random.below(4);
  for (uint32_t& value : values) {
    value = random.below(4) == 0 ? random.below(0xFFFFFFFF) : 4 * random.below(64) - 128;
  }
  for (size_t i = random.below(4) == 0 ? random.below(4) : 0; i + 4 <= image.size(); i += 4) {
    if (random.below(4) == 0) {
      continue;
    }
    Bytes word;
    append_word(word, word_at(image, i, big_endian) + values[random.below(classes)], big_endian);
    std::copy(word.begin(), word.end(), at(image, i));
  }
}

using Step = void (*)(Bytes&, Random&);

ImagePair changed_by(std::initializer_list<Step> steps, Random& random) {
  ImagePair pair;
  pair.old_image = any_image(random);
  pair.new_image = pair.old_image;
  for (uint32_t count = 1 + random.below(12); count > 0; --count) {
    std::data(steps)[random.below(steps.size())](pair.new_image, random);
  }
  return pair;
}

ImagePair shifted_tables(Random& random) {
  const bool big_endian = random.below(2) == 0;
  ImagePair pair;
  pair.old_image = random.below(3) == 0 ? any_image(random)
                                        : address_table(random.below(1500), random, big_endian);
  pair.new_image = pair.old_image;
  shift_words(pair.new_image, random, big_endian);
  if (random.below(2) == 0) {
    insert_piece(pair.new_image, random);
    remove_piece(pair.new_image, random);
  }
  return pair;
}

ImagePair tiny_pair(Random& random) {
  const uint32_t letters = random.below(2) == 0 ? 2 : 256;
  ImagePair pair;
  pair.old_image = random.bytes(random.below(21), letters);
  pair.new_image = random.bytes(random.below(21), letters);
  if (random.below(2) == 0) {
    pair.new_image = pair.old_image;
    replace_piece(pair.new_image, random);
    pair.new_image.resize(std::min<size_t>(pair.new_image.size(), 20));
  }
  return pair;
}

ImagePair one_inside_the_other(Random& random) {
  ImagePair pair;
  pair.old_image = any_image(random);
  const size_t from = random.below(3) == 0 ? 0 : random.below(pair.old_image.size() + 1);
  const size_t size = random.below(3) == 0 ? pair.old_image.size() - from
                                           : random.below(pair.old_image.size() - from + 1);
  pair.new_image.assign(at(pair.old_image, from), at(pair.old_image, from + size));
  if (random.below(2) == 0) {
    std::swap(pair.old_image, pair.new_image);
  }
  return pair;
}

}  // namespace

std::string name_of(PairKind kind) {
  static constexpr std::array<std::string_view, std::size(kAllPairKinds)> kNames = {
      "edits", "insertions", "removals", "moved_blocks", "runs",  "word_tables",
      "mixed", "tiny",       "unlike",   "equal",        "inside"};
  return std::string(kNames[static_cast<size_t>(kind)]);
}

ImagePair make_pair_of(PairKind kind, Random& random) {
  switch (kind) {
    case PairKind::kEdits:
      return changed_by({replace_piece}, random);
    case PairKind::kInsertions:
      return changed_by({insert_piece}, random);
    case PairKind::kRemovals:
      return changed_by({remove_piece}, random);
    case PairKind::kMovedBlocks:
      return changed_by({move_piece}, random);
    case PairKind::kRuns:
      return changed_by({fill_piece, fill_piece, replace_piece}, random);
    case PairKind::kWordTables:
      return shifted_tables(random);
    case PairKind::kMixed:
      return changed_by({replace_piece, insert_piece, remove_piece, move_piece, fill_piece},
                        random);
    case PairKind::kTiny:
      return tiny_pair(random);
    case PairKind::kUnlike:
      return {any_image(random), any_image(random)};
    case PairKind::kEqual: {
      const Bytes image = any_image(random);
      return {image, image};
    }
    case PairKind::kInside:
      return one_inside_the_other(random);
  }
  return {};
}

void replace_piece(Bytes& image, Random& random) {
  const Stretch stretch = any_stretch(image, random);
  const Bytes piece = random.bytes(stretch.size, random.below(3) == 0 ? 2 : 256);
  std::copy(piece.begin(), piece.end(), at(image, stretch.position));
}

void insert_piece(Bytes& image, Random& random) {
  const Bytes piece = any_piece(random);
  image.insert(at(image, random.below(image.size() + 1)), piece.begin(), piece.end());
}

void remove_piece(Bytes& image, Random& random) {
  const Stretch stretch = any_stretch(image, random);
  image.erase(at(image, stretch.position), at(image, stretch.position + stretch.size));
}

void move_piece(Bytes& image, Random& random) {
  const Stretch stretch = any_stretch(image, random);
  const Bytes piece(at(image, stretch.position), at(image, stretch.position + stretch.size));
  image.erase(at(image, stretch.position), at(image, stretch.position + stretch.size));
  image.insert(at(image, random.below(image.size() + 1)), piece.begin(), piece.end());
}

void fill_piece(Bytes& image, Random& random) {
  const Stretch stretch = any_stretch(image, random);
  std::fill_n(at(image, stretch.position), stretch.size,
              random.below(2) == 0 ? uint8_t{0} : static_cast<uint8_t>(random.below(256)));
}

void append_word(Bytes& image, uint32_t word, bool big_endian) {
  for (uint32_t lane = 0; lane < 4; ++lane) {
    image.push_back(static_cast<uint8_t>(word >> (8U * (big_endian ? 3 - lane : lane))));
  }
}

Bytes code_like(size_t size, Random& random) {
  Bytes image;
  while (image.size() < size) {
    image.push_back(static_cast<uint8_t>(0x80U | random.below(24)));
    image.push_back(static_cast<uint8_t>(16U * random.below(12) + random.below(4)));
    image.push_back(static_cast<uint8_t>(random.below(4) == 0 ? random.below(256) : 0U));
    image.push_back(static_cast<uint8_t>(4U * random.below(32)));
  }
  image.resize(size);
  return image;
}

Bytes text_like(size_t size, Random& random) {
  static constexpr std::array<std::string_view, 14> kWords = {
      "error ", "buffer ", "of ", "the ", "queue ", "timeout", " in ",
      "task ",  "%d\n",    "is ", "not ", "set",    ": %s ",   "sensor "};
  Bytes image;
  while (image.size() < size) {
    const std::string_view word = kWords[random.below(kWords.size())];
    image.insert(image.end(), word.begin(), word.end());
  }
  image.resize(size);
  return image;
}

}  // namespace kelvane
