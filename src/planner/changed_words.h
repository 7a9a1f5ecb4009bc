#pragma once

// The words that differ once the moves are done, and which of them grow by the same value.
//
// Only they are kept, 8 bytes each, not all words of the image: on builds that are close to each
// other that is one word in ten.

#include <bit>
#include <cstdint>
#include <span>
#include <vector>

#include "linear_map.h"
#include "plan.h"

namespace kelvane {

struct changed_word {
  uint32_t word = 0;              // address divided by 4
  uint32_t price : 14 = 0;        // of an increment, in bit parts: less than 512 bits
  uint32_t trace : 9 = 0;         // of the walk that stores and increments are chosen by
  uint32_t mask : 4 = 0;          // bit i: byte i differs
  bool is_whole : 1 = false;      // has 4 bytes, all of them known
  bool has_twins : 1 = false;     // another word has its value
  bool is_frequent : 1 = false;   // five others have
  bool is_allowed : 1 = false;    // its class is in use
  bool is_increment : 1 = false;  // it is one

  // 0 to 3: the first that differs, and the last.
  uint32_t first_byte() const { return static_cast<uint32_t>(std::countr_zero(uint32_t{mask})); }
  uint32_t last_byte() const { return static_cast<uint32_t>(std::bit_width(uint32_t{mask})) - 1; }
  uint32_t span() const { return last_byte() - first_byte() + 1; }
};

static_assert(sizeof(changed_word) == 8);

// Prices are counted in parts of a bit, as whole numbers, so that every machine decides alike.
inline constexpr uint32_t kBit = 32;

// All words of one value.
struct value_class {
  uint32_t value = 0;
  uint32_t begin = 0;  // in changed_words::by_value
  uint32_t count = 0;
  bool in_use = false;
  uint8_t times_dropped = 0;
};

struct changed_words {
  std::vector<changed_word> words;   // by address
  std::vector<uint32_t> by_value;    // indices of words; by value, then address
  std::vector<value_class> classes;  // values of two words and more, ascending
  uint32_t image_size = 0;
  const linear_map* map = nullptr;  // of target memory

  std::span<const uint32_t> members(const value_class& of) const {
    return std::span(by_value).subspan(of.begin, of.count);
  }
  // The bytes that the image has of a word: 4, but for the last.
  uint32_t bytes_of(const changed_word& word) const {
    return word.word == image_size / 4 ? image_size % 4 : 4;
  }
  // The address of a word in the target, divided by 4.
  uint32_t target_word(const changed_word& word) const {
    return map == nullptr ? word.word : map->address_of(word.word * 4) / 4;
  }
  // Whether the image has all bytes from where the word before begins to differ to where this one
  // ends. Else no store reaches over.
  bool is_joined(size_t index) const {
    return map == nullptr || index == 0 ||
           map->new_bytes().has_all(
               int64_t{words[index - 1].word} * 4 + words[index - 1].first_byte(),
               int64_t{words[index].word} * 4 + words[index].last_byte() + 1);
  }
  bool follows(size_t index) const {  // whether the word before differs, too
    return index > 0 && words[index - 1].word + 1 == words[index].word;
  }
  bool is_followed(size_t index) const { return index + 1 < words.size() && follows(index + 1); }
};

changed_words find_changed_words(const plan_images& images, const moved_image& moved,
                                 ByteOrder order);

}  // namespace kelvane
