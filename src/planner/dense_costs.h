// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the alignment takes a word to cost in a dense payload: 1 bit if it comes out as predicted by
// the map of the round before, what a known difference costs, and else what its bytes take.

#include "class_prices.h"
#include "dense_model.h"
#include "dense_reach.h"
#include "word_costs.h"

namespace kelvane {

// What a round knows of the one before.
struct dense_knowledge {
  std::vector<kelvane_dense_entry> map;
  class_prices prices;  // of differences; not known in the first round
};

class dense_costs final : public word_pricing {
 public:
  // All stay the caller's. One for each alignment: what is looked at leaves traces.
  dense_costs(const plan_images& images, const dense_options& options, const old_reach& reach,
              const dense_knowledge& knowledge);

  uint32_t word(int64_t place, int64_t at, bool& after_miss) override;

 private:
  static constexpr uint32_t kWorstBits = 34;

  uint32_t halves(uint32_t place, uint32_t at, bool& after_miss);
  uint32_t half(uint32_t place, uint32_t at, bool after_miss, bool& takes_next, bool& is_miss);
  uint32_t difference_bits(uint32_t old_word, uint32_t new_word, bool after_miss) const;
  uint32_t new_code(uint32_t at) const;
  bool is_branch(uint32_t place);

  std::span<const uint8_t> old_image_;
  std::span<const uint8_t> new_image_;
  const old_reach& reach_;
  const class_prices& prices_;
  dense_model model_;
  kelvane_dense_decoder& decoder_;
  ByteOrder data_order_;
  ByteOrder code_order_;
  bool has_halves_;
};

// What the differences between the words of copies and those that they become cost, the frequent
// ones.
class_prices difference_prices(const plan_images& images, ByteOrder order,
                               std::span<const dense_copy> copies);

}  // namespace kelvane
