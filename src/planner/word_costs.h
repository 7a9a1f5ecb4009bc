#pragma once

// What the alignment takes a word to cost, in bits, under a shift.

#include <bit>
#include <cstdint>
#include <cstring>

#include "alignment.h"
#include "memory_target.h"

namespace kelvane {

// The word at `bytes`, as the host reads it: good for telling equal from unequal.
inline uint32_t raw_word(const uint8_t* bytes) {
  uint32_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// The bytes from the first to the last that differ, of two raw words that are not equal.
inline uint32_t differing_span(uint32_t first, uint32_t second) {
  const uint32_t bits = first ^ second;
  return 4 - static_cast<uint32_t>(std::countl_zero(bits)) / 8 -
         static_cast<uint32_t>(std::countr_zero(bits)) / 8;
}

class word_costs {
 public:
  word_costs(const alignment_input& input, uint32_t stored_word_bits)
      : old_(input.images.old_image.data()),
        new_(input.images.new_image.data()),
        old_size_(static_cast<int64_t>(input.images.old_image.size())),
        new_size_(static_cast<int64_t>(input.images.new_image.size())),
        order_(input.order),
        prices_(*input.prices),
        pricing_(input.pricing),
        map_(map_of(input.images)),
        stored_word_bits_(stored_word_bits) {}

  // Of the word at `at` of the new image, which has 4 bytes there. `after_store` tells whether the
  // word before was stored, and is set to whether this one is.
  uint32_t word(int64_t shift, int64_t at, bool& after_store) const {
    if (is_nothing(at)) {
      after_store = false;
      return 0;
    }
    if (shift == kStoredShift) {
      after_store = true;
      return stored_word_bits_;
    }
    const int64_t place = at - shift;
    if (pricing_ != nullptr) {
      return pricing_->word(place, at, after_store);
    }
    if (is_outside(place)) {
      after_store = true;
      return kOutsideBits;
    }
    const uint32_t old_word = raw_word(old_ + place);
    const uint32_t new_word = raw_word(new_ + at);
    if (old_word == new_word) {
      after_store = false;
      return 0;
    }
    return differing(place, at, differing_span(old_word, new_word), after_store);
  }

  // Whether the word is one of both images and equal under a shift, which is not kStoredShift.
  bool is_equal(int64_t shift, int64_t at) const {
    const int64_t place = at - shift;
    return !is_outside(place) && raw_word(old_ + place) == raw_word(new_ + at) && !is_nothing(at);
  }

  // Of `words` words from `at` on, or those that there are; stops at `limit` or above.
  uint64_t words(int64_t shift, int64_t at, uint32_t words, bool after_store,
                 uint64_t limit) const {
    uint64_t bits = 0;
    for (uint32_t i = 0; i < words && at + 4 <= new_size_ && bits < limit; ++i, at += 4) {
      bits += word(shift, at, after_store);
    }
    return bits;
  }

 private:
  static constexpr uint32_t kOutsideBits = 30;
  // Stores share what comes in front of their bytes: a neighbour costs little more than its bytes.
  static constexpr uint32_t kNextStoreBits = 28;
  static constexpr uint32_t kStoreBits = 14;
  static constexpr uint32_t kUnknownClassBits = 15;

  // A word that the new image doesn't have, or not whole: then its bytes wait for the stores.
  bool is_nothing(int64_t at) const { return map_ != nullptr && !map_->new_bytes().has(at, 4); }
  bool is_outside(int64_t place) const {
    return place < 0 || place + 4 > old_size_ ||
           (map_ != nullptr && !map_->old_bytes().has(place, 4));
  }

  uint32_t differing(int64_t place, int64_t at, uint32_t span, bool& after_store) const {
    const uint32_t store = after_store ? kNextStoreBits : kStoreBits + 8 * span;
    if (!prices_.known()) {
      after_store = true;
      return store < kUnknownClassBits ? store : kUnknownClassBits;
    }
    const uint32_t bits =
        prices_.bits(load_word(new_ + at, order_) - load_word(old_ + place, order_));
    after_store = bits == 0 || bits > store;
    return after_store ? store : bits;
  }

  const uint8_t* old_;
  const uint8_t* new_;
  int64_t old_size_;
  int64_t new_size_;
  ByteOrder order_;
  const class_prices& prices_;
  word_pricing* pricing_;
  const linear_map* map_;
  uint32_t stored_word_bits_;
};

}  // namespace kelvane
