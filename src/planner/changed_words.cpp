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

// Tells values that may come twice from those that come once, so that only the former are sorted:
// on unlike images nearly all come once, and sorting them took half as much memory as the words.
class repeated_values {
 public:
  repeated_values(const changed_words& changed, const word_differences& differences) {
    while (bits_ < kMostBits && (size_t{1} << bits_) < changed.words.size() * 8) {
      ++bits_;
    }
    once_.resize(size_t{1} << bits_);
    twice_.resize(size_t{1} << bits_);
    for (const changed_word& word : changed.words) {
      if (word.is_whole) {
        const size_t slot = slot_of(differences.of(word));
        twice_[slot] = twice_[slot] || once_[slot];
        once_[slot] = true;
      }
    }
  }
  bool may_contain(uint32_t value) const { return twice_[slot_of(value)]; }

 private:
  static constexpr uint32_t kMostBits = 26;
  size_t slot_of(uint32_t value) const { return (value * 2654435761U) >> (32U - bits_); }
  uint32_t bits_ = 8;
  std::vector<bool> once_;
  std::vector<bool> twice_;
};

std::vector<uint64_t> sorted_values(const changed_words& changed,
                                    const word_differences& differences) {
  const repeated_values repeated(changed, differences);
  std::vector<uint64_t> sorted;
  for (size_t i = 0; i < changed.words.size(); ++i) {
    const changed_word& word = changed.words[i];
    if (const uint32_t value = differences.of(word); word.is_whole && repeated.may_contain(value)) {
      sorted.push_back((uint64_t{value} << 32U) + i);
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
