#pragma once

// What a word of a class of increments costs, by the value of the class: a table that the alignment
// asks for every word that differs.

#include <cstdint>
#include <span>
#include <vector>

namespace kelvane {

struct class_price {
  uint32_t value = 0;
  uint32_t bits = 0;  // the mean of a word of this class, 1 and more

  bool operator==(const class_price&) const = default;
};

class class_prices {
 public:
  // No classes are known: every difference may become one.
  class_prices() = default;
  // `prices`: each value once, none of them 0.
  explicit class_prices(std::span<const class_price> prices);

  bool known() const { return known_; }
  // 0 if `value` is that of no class.
  uint32_t bits(uint32_t value) const {
    if (slots_.empty()) {
      return 0;
    }
    for (uint32_t at = slot_of(value); slots_[at].value != 0; at = (at + 1) & mask_) {
      if (slots_[at].value == value) {
        return slots_[at].bits;
      }
    }
    return 0;
  }

 private:
  uint32_t slot_of(uint32_t value) const { return ((value * 2654435761U) >> 7U) & mask_; }

  std::vector<class_price> slots_;
  uint32_t mask_ = 0;
  bool known_ = false;
};

}  // namespace kelvane
