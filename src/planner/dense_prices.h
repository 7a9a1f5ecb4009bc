// SPDX-License-Identifier: Apache-2.0
#pragma once

// What decisions of a dense payload cost, in sixteenths of a bit: exactly, by the counters of a
// decoder as they stand, or on average over a payload, for choosing what to store as what.
//
// All of it is integer arithmetic, so that every host chooses the same.

#include <array>
#include <bit>
#include <cstdint>
#include <vector>

#include "dense_decisions.h"
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

// Of what stands between copies.
struct item_prices {
  std::vector<uint16_t> literal;                          // by position in the new image
  std::array<std::array<uint32_t, 2>, 16> is_match = {};  // by position and the last two
  std::array<uint32_t, 2> is_new = {};
  std::array<uint32_t, 2> is_same_distance = {};
  number_prices old_length;
  number_prices new_length;
  number_prices distance;
  number_prices place;
};

// What bytes between copies look like on the whole.
item_prices usual_prices(size_t new_size);

// What they cost in a payload with these copies and items.
item_prices measured_prices(const plan_images& images, std::span<const dense_copy> copies,
                            std::span<const dense_item> items);

}  // namespace kelvane
