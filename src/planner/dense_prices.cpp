// SPDX-License-Identifier: Apache-2.0
#include "dense_prices.h"

#include <algorithm>
#include <utility>

#include "dense_model.h"

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

class number_counts {
 public:
  void add(uint32_t number) {
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
  number_prices prices() const {
    number_prices prices;
    for (size_t i = 0; i < length_.size(); ++i) {
      prices.length[i] = share_price(16 * length_[i] + 5, 16 * count_ + 96);
    }
    for (size_t i = 0; i < last_.size(); ++i) {
      prices.last[i] = share_price(last_[i] + 2, long_ + 8);
    }
    return prices;
  }

 private:
  std::array<uint64_t, 32> length_ = {};
  std::array<uint64_t, 4> last_ = {};
  uint64_t count_ = 0;
  uint64_t long_ = 0;
};

struct flag_counts {
  std::array<uint32_t, 2> count = {};

  void add(bool bit) { ++count[bit ? 1 : 0]; }
  std::array<uint32_t, 2> prices() const {
    const uint32_t total = 5 * (count[0] + count[1]) + 4;
    return {share_price(5 * count[0] + 2, total), share_price(5 * count[1] + 2, total)};
  }
};

// Goes through the items as a decoder does.
class item_meter {
 public:
  explicit item_meter(const plan_images& images)
      : new_image_(images.new_image),
        model_(images.old_image, static_cast<uint32_t>(new_image_.size()), {}, {}) {
    prices_.literal.assign(new_image_.size(), 0);
  }

  void copy(const dense_copy& copy) {
    position_ = copy.target + copy.length;
    shift_ = copy.target - copy.source;
    for (uint32_t at = position_ - std::min(copy.length, 2U); at < position_; ++at) {
      recent_ = recent_behind(recent_, new_image_[at]);
    }
  }

  void take(const dense_item& item) {
    const bool is_match = item.kind != dense_item::literal;
    if (is_match) {
      note(true);
      take_match(item);
    }
    for (uint32_t i = 0; i < item.length; ++i, ++position_) {
      if (!is_match) {
        note(false);
      }
      prices_.literal[position_] = literal_price(!is_match, i);
      recent_ = item.kind == dense_item::new_image ? uint16_t{0}
                                                   : recent_behind(recent_, new_image_[position_]);
    }
  }

  uint32_t position() const { return position_; }

  item_prices prices() && {
    for (size_t i = 0; i < is_match_.size(); ++i) {
      prices_.is_match[i] = is_match_[i].prices();
    }
    prices_.is_new = is_new_.prices();
    prices_.is_same_distance = is_same_distance_.prices();
    prices_.old_length = old_length_.prices();
    prices_.new_length = new_length_.prices();
    prices_.distance = distances_.prices();
    prices_.place = places_.prices();
    return std::move(prices_);
  }

 private:
  // Bytes of a match that are priced: those far behind its begin hardly become literals.
  static constexpr uint32_t kPriced = 256;
  static constexpr uint16_t kFarPrice = 6 * kBit;

  void note(bool is_match) {
    is_match_[position_ % 4 * 4 + matches_].add(is_match);
    matches_ = (matches_ * 2 + (is_match ? 1 : 0)) % 4;
  }

  void take_match(const dense_item& item) {
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

  uint16_t literal_price(bool is_literal, uint32_t index) {
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

  std::span<const uint8_t> new_image_;
  dense_model model_;
  item_prices prices_;
  uint32_t position_ = 0;
  uint32_t shift_ = 0;
  uint32_t distance_ = 0;
  uint32_t matches_ = 0;
  uint16_t recent_ = 0;
  std::array<flag_counts, 16> is_match_;
  flag_counts is_new_;
  flag_counts is_same_distance_;
  number_counts old_length_;
  number_counts new_length_;
  number_counts distances_;
  number_counts places_;
};

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

item_prices usual_prices(size_t new_size) {
  constexpr uint16_t kLiteral = 6 * kBit + kBit / 2;
  number_prices number;
  for (uint32_t i = 0; i < number.length.size(); ++i) {
    number.length[i] = kBit + kBit * i / 5;
  }
  number.last.fill(2 * kBit);
  item_prices prices;
  prices.literal.assign(new_size, kLiteral);
  prices.is_match.fill({0, 3 * kBit});
  prices.is_same_distance = {kBit, kBit};
  prices.old_length = prices.new_length = prices.distance = prices.place = number;
  return prices;
}

item_prices measured_prices(const plan_images& images, std::span<const dense_copy> copies,
                            std::span<const dense_item> items) {
  item_meter meter(images);
  auto item = items.begin();
  const auto take_up_to = [&](size_t end) {
    for (; meter.position() < end; ++item) {
      meter.take(*item);
    }
  };
  for (const dense_copy& copy : copies) {
    take_up_to(copy.target);
    meter.copy(copy);
  }
  take_up_to(images.new_image.size());
  return std::move(meter).prices();
}

}  // namespace kelvane
