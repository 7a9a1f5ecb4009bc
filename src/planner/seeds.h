#pragma once

// Seeds: where in the old image might the bytes at a place of the new one come from?
//
// Two indexes of the old image answer, each a table of buckets made by one counting sort. What they
// give are places worth a look, not matches: unlike things share a bucket.
//
// Equal strings. A string of 12 bytes at each multiple of 4 in the old image; a question may stand
// at any byte of the new one. So every run of 15 equal bytes is found, at 2.5 bytes of memory for
// a byte of the old image; an index of all bytes took 8 and found no more.
//
// Equal differences. A table of pointers, relocations or records has no 12 equal bytes once all it
// points to has moved, but the differences between its rows stay: for a table of t columns, word
// k + t less word k. Four differences in a row, for t of 1, 2, 3 and 4, at every other word of the
// old image; a question stands at eight words in a row. Without them the patches of pairs with such
// tables are 5 to 25 % larger.

#include <cstdint>
#include <span>
#include <vector>

#include "byte_order.h"
#include "linear_map.h"

namespace kelvane {

inline constexpr uint32_t kSeedBytes = 12;
inline constexpr uint32_t kSeedStrides = 4;
// The bytes that a difference seed of a stride looks at.
constexpr uint32_t difference_seed_bytes(uint32_t stride) {
  return 4 * (stride + 4);
}

// Places by the hash of what lies there; in a bucket they ascend.
class seed_index {
 public:
  std::span<const uint32_t> bucket(uint32_t hash) const {
    if (places_.empty()) {
      return {};
    }
    return std::span(places_).subspan(begin_[hash], begin_[hash + 1] - begin_[hash]);
  }
  uint32_t bits() const { return bits_; }

 protected:
  // `each(take)` calls take(hash, place) for all seeds, by descending place; it is called twice.
  template <typename Each>
  void build(uint64_t expected, const Each& each);
  uint32_t bits_ = 8;

 private:
  std::vector<uint32_t> begin_;
  std::vector<uint32_t> places_;
};

class string_seeds : public seed_index {
 public:
  // Of the places of `known` alone, if there are such; it is not kept.
  explicit string_seeds(std::span<const uint8_t> old_image, const row_bytes* known = nullptr);
  // The places where the kSeedBytes bytes at `bytes` may stand. Empty for one byte repeated, which
  // would name every gap.
  std::span<const uint32_t> places(const uint8_t* bytes) const;

 private:
  // Most questions about unlike images ask for strings that the old image doesn't have. A bit tells
  // so, for 32 times as many hashes as there are buckets; else two places would be looked at, each
  // of them far from the caches.
  static constexpr uint32_t kPresenceBits = 5;
  std::vector<uint64_t> present_;
};

class difference_seeds : public seed_index {
 public:
  // `order`: that of the target's words; `known` as above.
  difference_seeds(std::span<const uint8_t> old_image, ByteOrder order,
                   const row_bytes* known = nullptr);
  // The places where the words at `bytes` (difference_seed_bytes(stride) of them) may stand, each
  // column moved by a constant. Empty where nothing changes from row to row.
  std::span<const uint32_t> places(const uint8_t* bytes, uint32_t stride) const;

 private:
  ByteOrder order_;
};

}  // namespace kelvane
