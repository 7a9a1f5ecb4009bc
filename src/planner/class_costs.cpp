#include "class_costs.h"

#include <algorithm>
#include <numeric>

namespace kelvane {
namespace {

constexpr std::array<uint32_t, 7> kLeastJump = {1, 2, 4, 8, 24, 280, 65816};

// The categories by falling use.
std::array<uint32_t, 7> by_use(const jump_counts& counts) {
  std::array<uint32_t, 7> order;
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(),
                   [&](uint32_t first, uint32_t second) { return counts[first] > counts[second]; });
  return order;
}

}  // namespace

uint32_t jump_category(uint32_t jump) {
  if (jump == 0) {
    return 6;
  }
  uint32_t category = 6;
  while (jump < kLeastJump[category]) {
    --category;
  }
  return category;
}

jump_prices prices_for(const jump_counts& counts) {
  jump_prices prices;
  const std::array<uint32_t, 7> order = by_use(counts);
  prices.has_map = !std::is_sorted(counts.rbegin(), counts.rend());
  for (uint32_t rank = 0; rank < order.size(); ++rank) {
    const uint32_t category = prices.has_map ? order[rank] : rank;
    prices.bits[category] = rank + 1 + kPayloadBits[category];
  }
  return prices;
}

jump_counts count_jumps(std::span<const uint32_t> words) {
  jump_counts counts = {};
  uint32_t last = 0;
  for (const uint32_t word : words) {
    ++counts[jump_category(word - last)];
    last = word;
  }
  return counts;
}

uint64_t jump_bits(const jump_counts& counts, const jump_prices& prices) {
  uint64_t bits = 0;
  for (size_t category = 0; category < counts.size(); ++category) {
    bits += uint64_t{counts[category]} * prices.bits[category];
  }
  return bits;
}

uint32_t head_bits(uint32_t previous_value, uint32_t value) {
  const uint32_t difference = value - previous_value;
  const bool is_short = difference != 0 && difference <= 0x10000;
  return is_short ? 8 + 16 + 1 : 9 + 32 + 1;
}

}  // namespace kelvane
