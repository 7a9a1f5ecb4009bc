#pragma once

// What classes of increments take in the stream, to the bit.
//
// A class is a head (its value, a flag, maybe a map of 21 bits) and a jump for each word. A jump
// has one of seven categories by its length; a category costs its rank (0 to 6) and a bit, and its
// payload. The map gives ranks to categories; by the rule of this format it is left out exactly if
// the categories are used less and less from 0 to 6, and gives the ranks by use otherwise.

#include <array>
#include <cstdint>
#include <span>

namespace kelvane {

inline constexpr uint32_t kMapBits = 21;

uint32_t jump_category(uint32_t jump);
// Payload bits by category.
inline constexpr std::array<uint32_t, 7> kPayloadBits = {0, 1, 2, 4, 8, 16, 32};

// How often each category is used.
using jump_counts = std::array<uint32_t, 7>;

struct jump_prices {
  std::array<uint32_t, 7> bits = {};  // of a jump by category: rank, end of rank, payload
  bool has_map = false;
  bool operator==(const jump_prices&) const = default;
};

// The prices that a class of these jumps has.
jump_prices prices_for(const jump_counts& counts);

// The jumps to `words` (addresses divided by 4, ascending).
jump_counts count_jumps(std::span<const uint32_t> words);
uint64_t jump_bits(const jump_counts& counts, const jump_prices& prices);

// What stands in front of a class behind another one, its map left out: the code for "next class",
// the value, the flag.
uint32_t head_bits(uint32_t previous_value, uint32_t value);

}  // namespace kelvane
