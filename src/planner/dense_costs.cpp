// SPDX-License-Identifier: Apache-2.0
#include "dense_costs.h"

#include <algorithm>

#include "dense_prices.h"

namespace kelvane {
namespace {

uint32_t differing_bytes(uint32_t first, uint32_t second) {
  uint32_t count = 0;
  for (uint32_t bits = first ^ second; bits != 0; bits /= 256) {
    count += bits % 256 != 0 ? 1 : 0;
  }
  return count;
}

}  // namespace

dense_costs::dense_costs(const plan_images& images, const dense_options& options,
                         const old_reach& reach, const dense_knowledge& knowledge)
    : old_image_(images.old_image),
      new_image_(images.new_image),
      reach_(reach),
      prices_(knowledge.prices),
      model_(images.old_image, static_cast<uint32_t>(images.new_image.size()), options,
             knowledge.map),
      decoder_(model_.decoder()),
      data_order_(options.target.data_order),
      code_order_(options.target.code_order),
      has_halves_(options.target.machine == KELVANE_DENSE_THUMB ||
                  options.target.machine == KELVANE_DENSE_RISCV) {
  model_.file_map();
}

uint32_t dense_costs::difference_bits(uint32_t old_word, uint32_t new_word, bool after_miss) const {
  constexpr uint32_t kUnknownBits = 15;
  if (!prices_.known()) {
    return kUnknownBits;
  }
  const uint32_t known = prices_.bits(new_word - old_word);
  const uint32_t bytes = (after_miss ? 3 : 7) + 7 * differing_bytes(old_word, new_word);
  return known != 0 && known < bytes ? known : bytes;
}

// An instruction of 32 bits, as the decoder takes it.
uint32_t dense_costs::new_code(uint32_t at) const {
  const uint8_t* const bytes = new_image_.data() + at;
  if (decoder_.info.machine == KELVANE_DENSE_THUMB) {
    return load_half(bytes, code_order_) * 0x10000U + load_half(bytes + 2, code_order_);
  }
  return load_word(bytes, code_order_);
}

bool dense_costs::is_branch(uint32_t place) {
  uint32_t target = 0;
  const uint32_t flip = decoder_.info.code_big_endian != 0             ? 3
                        : decoder_.info.machine == KELVANE_DENSE_THUMB ? 2
                                                                       : 0;
  const int form =
      kelvane_dense_branch_target(&decoder_, kelvane_dense_old_value(&decoder_, place, 4, flip),
                                  decoder_.info.base + place, &target);
  return form == 1 || form == 2;  // those of 32 bits
}

// The half at `place`, which goes to `at` and differs there. `takes_next` is set if it and the next
// one are an instruction.
uint32_t dense_costs::half(uint32_t place, uint32_t at, bool after_miss, bool& takes_next,
                           bool& is_miss) {
  const uint32_t old_half = load_half(old_image_.data() + place, code_order_);
  const bool starts = decoder_.info.machine == KELVANE_DENSE_THUMB ? (old_half & 0xF800U) == 0xF000U
                                                                   : (old_half & 3U) == 3;
  if (starts && place + 4 <= old_image_.size() && at + 4 <= new_image_.size()) {
    const uint32_t new_value = new_code(at);
    kelvane_dense_token token;
    kelvane_dense_classify(&decoder_, place, at, 4, &token);
    if (token.kind == KELVANE_DENSE_BRANCH) {
      takes_next = true;
      if (!prices_.known()) {
        return 8;
      }
      if (token.predicted == new_value) {
        return 1;
      }
      uint32_t target = 0;
      is_miss = true;
      return kelvane_dense_branch_target(&decoder_, new_value, decoder_.info.base + at, &target) ==
                     token.form
                 ? 12
                 : 30;
    }
  }
  const uint32_t new_half = load_half(new_image_.data() + at, code_order_);
  const uint32_t first = prices_.known() ? (after_miss ? 2 : 7) : 5;
  is_miss = true;
  return first + 6 * differing_bytes(old_half, new_half);
}

uint32_t dense_costs::halves(uint32_t place, uint32_t at, bool& after_miss) {
  const uint8_t* const old_bytes = old_image_.data() + place;
  const uint8_t* const new_bytes = new_image_.data() + at;
  if (prices_.known() && place % 4 == 0) {
    const uint32_t old_word = load_word(old_bytes, data_order_);
    const uint32_t new_word = load_word(new_bytes, data_order_);
    if (kelvane_dense_is_inside(&decoder_, old_word) != 0) {
      const uint32_t known = prices_.bits(new_word - old_word);
      const bool is_right = kelvane_dense_moved(&decoder_, old_word) == new_word;
      if (is_right || known != 0) {
        after_miss = false;
        return is_right ? 1 : known;
      }
    }
  }
  uint32_t bits = 0;
  bool is_miss = false;
  for (uint32_t k = 0; k < 4; k += 2) {
    if (old_bytes[k] == new_bytes[k] && old_bytes[k + 1] == new_bytes[k + 1]) {
      continue;
    }
    if (k == 0 && place >= 2 && is_branch(place - 2)) {
      continue;  // its second half, paid for with the first
    }
    bool takes_next = false;
    bits += half(place + k, at + k, after_miss || is_miss, takes_next, is_miss);
    if (takes_next) {
      break;
    }
  }
  after_miss = is_miss;
  return std::min(bits, kWorstBits);
}

uint32_t dense_costs::word(int64_t place, int64_t at, bool& after_miss) {
  const auto to = static_cast<uint32_t>(at);
  if (reach_.readable(place, to, 4) != 4) {
    after_miss = true;
    return kWorstBits;
  }
  const auto from = static_cast<uint32_t>(place);
  const uint8_t* const old_bytes = old_image_.data() + from;
  const uint8_t* const new_bytes = new_image_.data() + to;
  if (raw_word(old_bytes) == raw_word(new_bytes)) {
    after_miss = false;
    return 0;
  }
  if (has_halves_ && ((from | to) & 1U) == 0) {
    return halves(from, to, after_miss);
  }
  if (prices_.known() && ((from | to) & 3U) == 0) {
    kelvane_dense_token token;
    kelvane_dense_classify(&decoder_, from, to, 4, &token);
    const ByteOrder order = token.flip == 3 ? ByteOrder::kBig : ByteOrder::kLittle;
    if (token.predicted != token.old_value && load_word(new_bytes, order) == token.predicted) {
      after_miss = false;
      return 1;
    }
  }
  uint32_t bits = difference_bits(load_word(old_bytes, data_order_),
                                  load_word(new_bytes, data_order_), after_miss);
  if (code_order_ != data_order_) {
    bits = std::min(bits, difference_bits(load_word(old_bytes, code_order_),
                                          load_word(new_bytes, code_order_), after_miss));
  }
  if (!prices_.known() && decoder_.info.machine >= KELVANE_DENSE_POWERPC && is_branch(from)) {
    bits = 8;
  }
  after_miss = bits > 6;
  return bits;
}

class_prices difference_prices(const plan_images& images, ByteOrder order,
                               std::span<const dense_copy> copies) {
  constexpr uint32_t kLeastCount = 3;
  constexpr size_t kMostPrices = 30000;
  constexpr uint32_t kLeastCountOfMany = 8;
  const auto each_difference = [&](const auto& take) {
    for (const dense_copy& copy : copies) {
      for (uint32_t k = (0U - copy.target) % 4; k + 4 <= copy.length; k += 4) {
        const uint32_t difference = load_word(images.new_image.data() + copy.target + k, order) -
                                    load_word(images.old_image.data() + copy.source + k, order);
        if (difference != 0) {
          take(difference);
        }
      }
    }
  };
  size_t all = 0;
  each_difference([&](uint32_t) { ++all; });
  std::vector<uint32_t> differences;
  differences.reserve(all);
  each_difference([&](uint32_t difference) { differences.push_back(difference); });
  std::sort(differences.begin(), differences.end());
  std::vector<class_price> prices;
  const auto collect = [&](uint32_t least) {
    prices.clear();
    for (auto at = differences.begin(); at != differences.end();) {
      const auto next = std::upper_bound(at, differences.end(), *at);
      const auto count = static_cast<uint64_t>(next - at);
      if (count >= least) {
        // 1.2 bits for each of its information, and 4.
        const uint32_t eighths = fixed_log2(differences.size(), 3) - fixed_log2(count, 3);
        prices.push_back({*at, std::clamp(eighths * 12 / 80 + 4, 3U, 30U)});
      }
      at = next;
    }
  };
  collect(kLeastCount);
  if (prices.size() > kMostPrices) {
    collect(kLeastCountOfMany);
  }
  return class_prices(prices);
}

}  // namespace kelvane
