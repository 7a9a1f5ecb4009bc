#include "changed_words.h"

#include <algorithm>
#include <cstring>

#include "memory_target.h"

namespace kelvane {
namespace {

// A word of a value found so often may become an increment whatever its neighbours do.
constexpr uint32_t kFrequent = 6;

uint32_t differing_bytes(const uint8_t* first, const uint8_t* second, uint32_t count) {
  uint32_t mask = 0;
  for (uint32_t i = 0; i < count; ++i) {
    mask |= (first[i] != second[i] ? 1U : 0U) << i;
  }
  return mask;
}

bool is_known_whole(const moved_image& moved, uint32_t address) {
  return address + 4 <= moved.unknown_begin ||
         (moved.is_known(address) && moved.is_known(address + 1) && moved.is_known(address + 2) &&
          moved.is_known(address + 3));
}

// New less old, of whole words. Calculated anew where it is needed: kept, it took 4 bytes a word.
class word_differences {
 public:
  word_differences(const plan_images& images, const moved_image& moved, ByteOrder order)
      : old_(moved.bytes.data()), new_(images.new_image.data()), order_(order) {}
  uint32_t of(const changed_word& word) const {
    const size_t at = size_t{word.word} * 4;
    return word.is_whole ? load_word(new_ + at, order_) - load_word(old_ + at, order_) : 0;
  }

 private:
  const uint8_t* old_;
  const uint8_t* new_;
  ByteOrder order_;
};

// Marks the words of values that may come twice, so that only these are sorted: on unlike images
// nearly all come once, and sorting them took half as much memory as the words. Gives how many.
size_t mark_repeated(changed_words& changed, const word_differences& differences) {
  constexpr uint32_t kMostBits = 26;
  uint32_t bits = 8;
  while (bits < kMostBits && (size_t{1} << bits) < changed.words.size() * 8) {
    ++bits;
  }
  const auto slot_of = [&](const changed_word& word) {
    return (differences.of(word) * 2654435761U) >> (32U - bits);
  };
  std::vector<bool> twice(size_t{1} << bits);
  {
    std::vector<bool> once(size_t{1} << bits);
    for (const changed_word& word : changed.words) {
      if (word.is_whole) {
        const size_t slot = slot_of(word);
        twice[slot] = twice[slot] || once[slot];
        once[slot] = true;
      }
    }
  }
  size_t count = 0;
  for (changed_word& word : changed.words) {
    word.has_twins = word.is_whole && twice[slot_of(word)];
    count += word.has_twins ? 1U : 0U;
  }
  return count;
}

// The marked words by value, then address.
std::vector<uint64_t> sorted_values(changed_words& changed, const word_differences& differences) {
  std::vector<uint64_t> sorted;
  sorted.reserve(mark_repeated(changed, differences));
  for (size_t i = 0; i < changed.words.size(); ++i) {
    changed_word& word = changed.words[i];
    if (word.has_twins) {
      sorted.push_back((uint64_t{differences.of(word)} << 32U) + i);
      word.has_twins = false;  // not before it is known for sure
    }
  }
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

void find_classes(changed_words& changed, const word_differences& differences) {
  const std::vector<uint64_t> sorted = sorted_values(changed, differences);
  const auto value_of = [](uint64_t entry) { return static_cast<uint32_t>(entry >> 32U); };
  for (size_t begin = 0; begin < sorted.size();) {
    const uint32_t value = value_of(sorted[begin]);
    size_t end = begin;
    while (end < sorted.size() && value_of(sorted[end]) == value) {
      ++end;
    }
    const auto count = static_cast<uint32_t>(end - begin);
    if (count >= 2) {
      changed.classes.push_back({.value = value,
                                 .begin = static_cast<uint32_t>(changed.by_value.size()),
                                 .count = count});
      for (; begin < end; ++begin) {
        const auto index = static_cast<uint32_t>(sorted[begin]);
        changed.by_value.push_back(index);
        changed.words[index].has_twins = true;
        changed.words[index].is_frequent = count >= kFrequent;
      }
    }
    begin = end;
  }
}

}  // namespace

changed_words find_changed_words(const plan_images& images, const moved_image& moved,
                                 ByteOrder order) {
  changed_words changed;
  const auto size = static_cast<uint32_t>(images.new_image.size());
  changed.image_size = size;
  changed.map = map_of(images);
  const uint8_t* const old_bytes = moved.bytes.data();
  const uint8_t* const new_bytes = images.new_image.data();
  // Counted first: the list of unlike images is long, and should not be copied to grow.
  size_t expected = 0;
  for (uint32_t at = 0; at + 4 <= size; at += 4) {
    expected += std::memcmp(old_bytes + at, new_bytes + at, 4) != 0 ? 1U : 0U;
  }
  changed.words.reserve(expected + 1);
  for (uint32_t at = 0; at < size; at += 4) {
    const uint32_t count = std::min(4U, size - at);
    if (std::memcmp(old_bytes + at, new_bytes + at, count) == 0) {
      continue;
    }
    changed_word word;
    word.word = at / 4;
    word.mask = differing_bytes(old_bytes + at, new_bytes + at, count) & 15U;
    word.is_whole = count == 4 && is_known_whole(moved, at) && has_new(images, at, 4);
    changed.words.push_back(word);
  }
  find_classes(changed, {images, moved, order});
  return changed;
}

}  // namespace kelvane
