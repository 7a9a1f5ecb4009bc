// SPDX-License-Identifier: Apache-2.0
#pragma once

// Of which decisions a tree, a number or a literal of a dense payload consists, in their order, for
// whoever writes or prices them; `dense_coder.c` in libs/libapply reads them.

#include <bit>
#include <cstdint>

#include "dense_internal.h"

namespace kelvane {

// 0, -1, 1, -2, ... as 0, 1, 2, 3, ...
constexpr uint32_t folded(uint32_t number) {
  return number << 1U ^ (0U - (number >> 31U));
}

// Calls take(node, is_one) for each of the `bits` bits of a value, the highest first: `node` holds
// those ahead of it below a 1.
template <typename Take>
void each_bit(uint32_t value, uint32_t bits, const Take& take) {
  for (uint32_t left = bits; left-- != 0;) {
    take((value | 1U << bits) >> (left + 1), (value >> left & 1U) != 0);
  }
}

// Calls flag(context, is_one) or, for bits that have no counter, plain(is_one). Numbers go up to
// 0xFFFFFFFE.
template <typename Flag, typename Plain>
void each_decision(uint32_t id, uint32_t number, const Flag& flag, const Plain& plain) {
  const uint32_t coded = number + 1;
  const auto length = static_cast<uint32_t>(std::bit_width(coded)) - 1;
  for (uint32_t i = 0; i <= length && i < 31; ++i) {
    flag(kelvane_dense_length_context(id, i), i < length);
  }
  for (uint32_t left = length; left-- != 0;) {
    const bool is_one = (coded >> left & 1U) != 0;
    const uint32_t rest = kelvane_dense_bit_context(length, left, coded >> (left + 1));
    if (rest != 0) {
      flag(kelvane_dense_context_of(id, rest), is_one);
    } else {
      plain(is_one);
    }
  }
}

// Calls take(opinions, is_one) for each bit of a literal, with what the counters say of it.
template <typename Take>
void each_literal_bit(kelvane_dense_decoder& decoder, const kelvane_dense_place& place,
                      uint8_t byte, const Take& take) {
  each_bit(byte, 8, [&](uint32_t node, bool is_one) {
    kelvane_dense_opinions opinions;
    kelvane_dense_weigh(&decoder, &place, node, &opinions);
    take(opinions, is_one);
  });
}

// Where a literal at a position of the new image stands, with `recent` as a decoder keeps it.
inline kelvane_dense_place literal_place(uint32_t position, uint32_t recent) {
  return {position, recent & 0xFFU, recent >> 8U & 0xFFU};
}

// `recent`, the last two bytes, behind another one.
inline uint16_t recent_behind(uint32_t recent, uint8_t byte) {
  return static_cast<uint16_t>(256U * recent + byte);
}

}  // namespace kelvane
