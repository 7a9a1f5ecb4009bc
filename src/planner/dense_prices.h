// SPDX-License-Identifier: Apache-2.0
#pragma once

// What decisions of a dense payload cost, in sixteenths of a bit: exactly, by the counters of a
// decoder as they stand, or on average over a payload, for choosing what to store as what.
//
// All of it is integer arithmetic, so that every host chooses the same.

#include <array>
#include <bit>
#include <cstdint>
#include <span>

#include "dense_decisions.h"
#include "dense_model.h"
#include "dense_plan.h"
#include "plan.h"

namespace kelvane {

inline constexpr uint32_t kBit = 16;

// The logarithm of `number` (not 0) to base 2, with `bits` bits behind the point.
constexpr uint32_t fixed_log2(uint64_t number, int bits) {
  const auto whole = static_cast<uint32_t>(std::bit_width(number)) - 1;
  uint64_t part = whole < 31 ? number << (31 - whole) : number >> (whole - 31);  // 1 is 2^31
  uint32_t result = whole;
  for (int i = 0; i < bits; ++i) {
    part = part * part >> 31U;
    const bool is_above = part >> 32U != 0;
    part >>= is_above ? 1U : 0U;
    result = 2 * result + (is_above ? 1 : 0);
  }
  return result;
}

// What something costs that came `count` times of `total`.
constexpr uint32_t share_price(uint64_t count, uint64_t total) {
  return fixed_log2(total, 4) - fixed_log2(count, 4);
}

// By the counters of a decoder, which stays the caller's and is left as it is.
class counter_prices {
 public:
  explicit counter_prices(kelvane_dense_decoder& decoder) : decoder_(decoder) {}

  uint32_t flag(uint32_t context, bool bit) const;
  uint32_t tree(uint32_t id, uint32_t value, uint32_t bits) const;
  // UINT32_MAX / 2 for what no number tells.
  uint32_t signed_number(uint32_t id, uint32_t value) const;
  uint32_t literal(const kelvane_dense_place& place, uint8_t byte) const;

 private:
  uint32_t number(uint32_t id, uint32_t value) const;

  kelvane_dense_decoder& decoder_;
};

// Of numbers: by their length, which holds what the first bit takes too, and by their last two
// bits.
struct number_prices {
  std::array<uint32_t, 32> length = {};
  std::array<uint32_t, 4> last = {};

  uint32_t of(uint32_t number) const {
    const uint32_t coded = number + 1;
    const auto bits = static_cast<uint32_t>(std::bit_width(coded)) - 1;
    return length[bits] + (bits < 3 ? kBit * bits : kBit * (bits - 2) + last[coded % 4]);
  }
};

// Of what stands between copies, but for literals.
struct item_prices {
  std::array<std::array<uint32_t, 2>, 16> is_match = {};  // by position and the last two
  std::array<uint32_t, 2> is_new = {};
  std::array<uint32_t, 2> is_same_distance = {};
  number_prices old_length;
  number_prices new_length;
  number_prices distance;
  number_prices place;
};

// What bytes between copies look like on the whole.
item_prices usual_prices();
inline constexpr uint16_t kUsualLiteral = 6 * kBit + kBit / 2;

class number_counts {
 public:
  void add(uint32_t number);
  number_prices prices() const;

 private:
  std::array<uint64_t, 32> length_ = {};
  std::array<uint64_t, 4> last_ = {};
  uint64_t count_ = 0;
  uint64_t long_ = 0;
};

struct flag_counts {
  std::array<uint32_t, 2> count = {};

  void add(bool bit) { ++count[bit ? 1 : 0]; }
  std::array<uint32_t, 2> prices() const;
};

// What items cost in a payload: goes through its copies and items as a decoder does.
class item_counts {
 public:
  void pass(const dense_copy& copy);
  void take(std::span<const dense_item> items);
  item_prices prices() const;

 private:
  void note(bool is_match);
  void take_match(const dense_item& item);

  uint32_t position_ = 0;
  uint32_t shift_ = 0;
  uint32_t distance_ = 0;
  uint32_t matches_ = 0;
  std::array<flag_counts, 16> is_match_;
  flag_counts is_new_;
  flag_counts is_same_distance_;
  number_counts old_length_;
  number_counts new_length_;
  number_counts distances_;
  number_counts places_;
};

// An item without the place that it comes from.
struct item_extent {
  uint32_t length : 30;
  dense_item::source kind : 2;
};

// What each byte between copies would cost as a literal, while the counters stand as in a payload
// with these copies and items.
class literal_meter {
 public:
  explicit literal_meter(const plan_images& images);

  void pass(const dense_copy& copy);
  // Prices the next `bytes` bytes, for which the first of the items are; gives the number of these.
  // Bytes of a match far behind its begin, which hardly become literals, all cost the same.
  size_t take(std::span<const item_extent> items, uint32_t bytes, std::span<uint16_t> prices);

 private:
  uint16_t price(bool is_literal, uint32_t index);

  std::span<const uint8_t> new_image_;
  dense_model model_;
  uint32_t position_ = 0;
  uint16_t recent_ = 0;
};

}  // namespace kelvane
