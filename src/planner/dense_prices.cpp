// SPDX-License-Identifier: Apache-2.0
#include "dense_prices.h"

#include <algorithm>

namespace kelvane {
namespace {

// By the upper 12 bits of a probability of 65536.
constexpr std::array<uint8_t, 4096> prices_of_shares() {
  std::array<uint8_t, 4096> prices = {};
  for (uint32_t i = 0; i < prices.size(); ++i) {
    prices[i] = static_cast<uint8_t>(share_price(2 * i + 1, 2 * prices.size()));
  }
  return prices;
}

constexpr std::array<uint8_t, 4096> kPrices = prices_of_shares();

uint32_t bit_price(uint32_t probability, bool bit) {
  return kPrices[(bit ? probability : 0xFFFFU - probability) >> 4U];
}

}  // namespace

uint32_t counter_prices::flag(uint32_t context, bool bit) const {
  const uint32_t counter =
      kelvane_dense_begun(*kelvane_dense_flag_slot(&decoder_, context), context);
  return bit_price(kelvane_dense_flag_probability(counter), bit);
}

uint32_t counter_prices::tree(uint32_t id, uint32_t value, uint32_t bits) const {
  uint32_t price = 0;
  each_bit(value, bits, [&](uint32_t node, bool is_one) {
    price += flag(kelvane_dense_context_of(id, node), is_one);
  });
  return price;
}

uint32_t counter_prices::number(uint32_t id, uint32_t value) const {
  uint32_t price = 0;
  each_decision(
      id, value, [&](uint32_t context, bool is_one) { price += flag(context, is_one); },
      [&](bool) { price += kBit; });
  return price;
}

uint32_t counter_prices::signed_number(uint32_t id, uint32_t value) const {
  const uint32_t number_value = folded(value);
  return number_value == UINT32_MAX ? UINT32_MAX / 2 : number(id, number_value);
}

uint32_t counter_prices::literal(const kelvane_dense_place& place, uint8_t byte) const {
  uint32_t price = 0;
  each_literal_bit(decoder_, place, byte, [&](const kelvane_dense_opinions& opinions, bool is_one) {
    price += bit_price(opinions.probability, is_one);
  });
  return price;
}

void number_counts::add(uint32_t number) {
  const uint32_t coded = number + 1;
  const auto bits = static_cast<uint32_t>(std::bit_width(coded)) - 1;
  ++length_[bits];
  ++count_;
  if (bits > 2) {
    ++last_[coded % 4];
    ++long_;
  }
}

// Nothing is out of the question.
number_prices number_counts::prices() const {
  number_prices prices;
  for (size_t i = 0; i < length_.size(); ++i) {
    prices.length[i] = share_price(16 * length_[i] + 5, 16 * count_ + 96);
  }
  for (size_t i = 0; i < last_.size(); ++i) {
    prices.last[i] = share_price(last_[i] + 2, long_ + 8);
  }
  return prices;
}

std::array<uint32_t, 2> flag_counts::prices() const {
  const uint32_t total = 5 * (count[0] + count[1]) + 4;
  return {share_price(5 * count[0] + 2, total), share_price(5 * count[1] + 2, total)};
}

void item_counts::pass(const dense_copy& copy) {
  position_ = copy.target + copy.length;
  shift_ = copy.target - copy.source;
}

void item_counts::note(bool is_match) {
  is_match_[position_ % 4 * 4 + matches_].add(is_match);
  matches_ = (matches_ * 2 + (is_match ? 1 : 0)) % 4;
}

void item_counts::take_match(const dense_item& item) {
  const bool is_new = item.kind == dense_item::new_image;
  const uint32_t distance = position_ - item.from;
  is_new_.add(is_new);
  (is_new ? new_length_ : old_length_).add(item.length - 2);
  if (!is_new) {
    places_.add(folded(shift_ - distance));
    shift_ = distance;
    return;
  }
  is_same_distance_.add(distance == distance_);
  if (distance != distance_) {
    distances_.add(distance - 1);
  }
  distance_ = distance;
}

void item_counts::take(std::span<const dense_item> items) {
  for (const dense_item& item : items) {
    if (item.kind != dense_item::literal) {
      note(true);
      take_match(item);
      position_ += item.length;
      continue;
    }
    for (uint32_t left = item.length; left != 0; --left, ++position_) {
      note(false);
    }
  }
}

item_prices item_counts::prices() const {
  item_prices prices;
  for (size_t i = 0; i < is_match_.size(); ++i) {
    prices.is_match[i] = is_match_[i].prices();
  }
  prices.is_new = is_new_.prices();
  prices.is_same_distance = is_same_distance_.prices();
  prices.old_length = old_length_.prices();
  prices.new_length = new_length_.prices();
  prices.distance = distances_.prices();
  prices.place = places_.prices();
  return prices;
}

literal_meter::literal_meter(const plan_images& images)
    : new_image_(images.new_image),
      model_(images.old_image, static_cast<uint32_t>(images.new_image.size()), {}, {}) {}

void literal_meter::pass(const dense_copy& copy) {
  position_ = copy.target + copy.length;
  for (uint32_t at = position_ - std::min(copy.length, 2U); at < position_; ++at) {
    recent_ = recent_behind(recent_, new_image_[at]);
  }
}

size_t literal_meter::take(std::span<const item_extent> items, uint32_t bytes,
                           std::span<uint16_t> prices) {
  size_t count = 0;
  for (uint32_t done = 0; done < bytes; ++count) {
    const item_extent& item = items[count];
    const bool is_literal = item.kind == dense_item::literal;
    for (uint32_t i = 0; i < item.length; ++i, ++position_, ++done) {
      prices[done] = price(is_literal, i);
      recent_ = item.kind == dense_item::new_image ? uint16_t{0}
                                                   : recent_behind(recent_, new_image_[position_]);
    }
  }
  return count;
}

uint16_t literal_meter::price(bool is_literal, uint32_t index) {
  constexpr uint32_t kPriced = 256;
  constexpr uint16_t kFarPrice = 6 * kBit;
  if (!is_literal && index >= kPriced) {
    return kFarPrice;
  }
  uint32_t price = 0;
  each_literal_bit(model_.decoder(), literal_place(position_, recent_), new_image_[position_],
                   [&](kelvane_dense_opinions& opinions, bool is_one) {
                     price += bit_price(opinions.probability, is_one);
                     if (is_literal) {
                       kelvane_dense_learn_bit(&opinions, is_one ? 1 : 0);
                     }
                   });
  return static_cast<uint16_t>(price);
}

item_prices usual_prices() {
  number_prices number;
  for (uint32_t i = 0; i < number.length.size(); ++i) {
    number.length[i] = kBit + kBit * i / 5;
  }
  number.last.fill(2 * kBit);
  item_prices prices;
  prices.is_match.fill({0, 3 * kBit});
  prices.is_same_distance = {kBit, kBit};
  prices.old_length = prices.new_length = prices.distance = prices.place = number;
  return prices;
}

}  // namespace kelvane
