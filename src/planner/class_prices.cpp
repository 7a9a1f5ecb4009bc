#include "class_prices.h"

#include <bit>

namespace kelvane {

class_prices::class_prices(std::span<const class_price> prices) : known_(true) {
  const size_t slots = std::bit_ceil(prices.size() * 3 / 2 + 16);
  slots_.resize(slots);
  mask_ = static_cast<uint32_t>(slots - 1);
  for (const class_price& price : prices) {
    uint32_t at = slot_of(price.value);
    while (slots_[at].value != 0) {
      at = (at + 1) & mask_;
    }
    slots_[at] = price;
  }
}

}  // namespace kelvane
