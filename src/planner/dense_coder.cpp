// SPDX-License-Identifier: Apache-2.0
#include "dense_coder.h"

#include "dense_decisions.h"

namespace kelvane {

void dense_coder::shift() {
  const auto carry = static_cast<uint32_t>(low_ >> 32U);
  if (static_cast<uint32_t>(low_) < 0xFF000000U || carry != 0) {
    put(held_ + carry);
    for (; held_count_ > 1; --held_count_) {
      put(0xFF + carry);
    }
    held_count_ = 0;
    held_ = static_cast<uint32_t>(low_ >> 24U) & 0xFFU;
  }
  ++held_count_;
  low_ = (low_ & 0xFFFFFFU) << 8U;
}

void dense_coder::bit(bool is_one, uint32_t bound) {
  if (is_one) {
    range_ = bound;
  } else {
    low_ += bound;
    range_ -= bound;
  }
  while (range_ < 0x1000000U) {
    range_ <<= 8U;
    shift();
  }
}

void dense_coder::flag(uint32_t context, bool is_one) {
  uint32_t& counter = *kelvane_dense_flag_counter(&decoder_, context);
  bit(is_one, kelvane_dense_bound(range_, kelvane_dense_flag_probability(counter)));
  counter = kelvane_dense_flag_after(counter, is_one ? 1 : 0);
}

void dense_coder::tree(uint32_t id, uint32_t value, uint32_t bits) {
  each_bit(value, bits,
           [&](uint32_t node, bool is_one) { flag(kelvane_dense_context_of(id, node), is_one); });
}

void dense_coder::number(uint32_t id, uint32_t value) {
  each_decision(
      id, value, [&](uint32_t context, bool is_one) { flag(context, is_one); },
      [&](bool is_one) { bit(is_one, range_ >> 1U); });
}

void dense_coder::signed_number(uint32_t id, uint32_t value) {
  number(id, folded(value));
}

void dense_coder::literal(const kelvane_dense_place& place, uint8_t byte) {
  each_literal_bit(decoder_, place, byte, [&](kelvane_dense_opinions& opinions, bool is_one) {
    bit(is_one, kelvane_dense_bound(range_, opinions.probability));
    kelvane_dense_learn_bit(&opinions, is_one ? 1 : 0);
  });
}

// Any number in the last range will do: the one with most zeros at its end.
size_t dense_coder::finish() {
  const uint64_t high = low_ + range_ - 1;
  for (uint32_t zeros = 32; zeros-- != 0;) {
    const uint64_t rounded = high >> zeros << zeros;
    if (rounded >= low_) {
      low_ = rounded;
      break;
    }
  }
  for (int i = 0; i < 5; ++i) {
    shift();
  }
  if (payload_ != nullptr) {
    payload_->resize(payload_->size() - (put_ - needed_));
  }
  return needed_;
}

}  // namespace kelvane
