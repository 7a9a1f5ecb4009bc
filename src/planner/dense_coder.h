// SPDX-License-Identifier: Apache-2.0
#pragma once

// The binary encoder of dense payloads, with the same numbers, trees and literals as its decoder.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dense_internal.h"

namespace kelvane {

class dense_coder {
 public:
  // Uses the counters of `decoder`, which stays the caller's, and appends to `payload`. Without one
  // it only counts.
  dense_coder(kelvane_dense_decoder& decoder, std::vector<uint8_t>* payload)
      : decoder_(decoder), payload_(payload) {}

  void flag(uint32_t context, bool bit);
  void tree(uint32_t id, uint32_t value, uint32_t bits);
  void number(uint32_t id, uint32_t value);  // up to 0xFFFFFFFE
  void signed_number(uint32_t id, uint32_t value);
  void literal(const kelvane_dense_place& place, uint8_t byte);
  // Appends what is left, without the zeros that the decoder makes up by itself. Gives how many
  // bytes there are in all.
  size_t finish();

 private:
  void bit(bool is_one, uint32_t bound);
  void shift();
  void put(uint32_t byte) {
    if (is_first_) {
      is_first_ = false;
      return;
    }
    ++put_;
    needed_ = (byte & 0xFFU) != 0 ? put_ : needed_;
    if (payload_ != nullptr) {
      payload_->push_back(static_cast<uint8_t>(byte & 0xFFU));
    }
  }

  kelvane_dense_decoder& decoder_;
  std::vector<uint8_t>* payload_;
  uint64_t low_ = 0;
  uint32_t range_ = 0xFFFFFFFF;
  // The last byte that a carry may still change, and how many 0xFF follow it. The first byte is
  // always 0 and not written.
  uint32_t held_ = 0;
  uint64_t held_count_ = 1;
  bool is_first_ = true;
  size_t put_ = 0;
  size_t needed_ = 0;  // up to the last byte that is not 0
};

}  // namespace kelvane
