// The ring search, three ways: every pair, pairs that an index of beginnings names, and diagonals.
// All three give the pair that the plain loop over the rings gives; they differ in what they cost.
//
// Most searches end within a few rings, where nothing beats trying the pairs. A few go far, and the
// plain loop grows with the square of the distance, so that one inserted table of 30 KB would take
// a second; there an index pays, since nearly no two beginnings of nine bytes are equal. What
// defeats an index is padding: zeros everywhere make every beginning equal to every other.
// Diagonals cost the same whatever the bytes are.
#include "block_search.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

namespace kelvane {

namespace {

// A block may differ in one byte of ten, so never in the nine at its beginning.
constexpr uint32_t kExactBytes = 9;
// Up to this distance trying every pair is cheaper than keeping an index. Measured on random bytes
// with blocks of 100: all pairs up to ring 8, 16, 24 take 0.2, 0.8, 3 microseconds at best; with an
// index from ring 8 on it is 0.5, 0.7, 0.7.
constexpr uint32_t kPlainRings = 16;
// From this distance on diagonals may take the place of an index that names too many pairs. On
// records of 64 bytes that are mostly zeros, a failing search of 200 rings takes 0.05 ms with 64
// here, and 0.23 with 256.
constexpr uint32_t kDiagonalRings = 64;
// Too many pairs: more than one in this many of those that the rings so far hold. An index names
// none of random bytes but by its hash; with 512 here the search changes over for those too, and
// takes 23 instead of 0.15 ms for 4000 rings. Between 4 and 64 nothing is gained or lost.
constexpr uint64_t kPairsForEachNamed = 64;

uint64_t load_eight(const uint8_t* bytes) {
  uint64_t value = 0;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Index in memory of the first byte that is not 0; `value` is not 0.
size_t first_byte_set(uint64_t value) {
  const int bits = std::endian::native == std::endian::little ? std::countr_zero(value)
                                                              : std::countl_zero(value);
  return static_cast<size_t>(bits) / 8;
}

// Bytes of zero behind the last byte in memory that is not 0; `value` is not 0.
size_t zero_bytes_at_end(uint64_t value) {
  const int bits = std::endian::native == std::endian::little ? std::countl_zero(value)
                                                              : std::countr_zero(value);
  return static_cast<size_t>(bits) / 8;
}

// The beginnings of the blocks at the offsets 0, 1, 2, ... of one side, by what they are. Offsets
// with the same hash form a chain from the highest down, which is the order of a ring.
class BeginningIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  BeginningIndex(const uint8_t* bytes, uint32_t width) : bytes_(bytes), width_(width) {}

  // Adds the next offset.
  void add() {
    const auto offset = static_cast<uint32_t>(previous_.size());
    if (previous_.size() == heads_.size()) {
      grow();
    }
    uint32_t& head = heads_[slot(bytes_ + offset)];
    previous_.push_back(head);
    head = offset;
  }

  uint32_t size() const { return static_cast<uint32_t>(previous_.size()); }

  // Highest offset whose beginning may be the one at `key`, and the next lower one behind `offset`.
  uint32_t first(const uint8_t* key) const { return heads_[slot(key)]; }
  uint32_t next(uint32_t offset) const { return previous_[offset]; }

 private:
  size_t slot(const uint8_t* key) const {
    constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15U;  // 2 to the 64th by the golden ratio
    uint64_t value = 0;
    if (width_ >= sizeof value) {
      value = load_eight(key) * kMultiplier;
      value ^= width_ > sizeof value ? key[sizeof value] : 0U;
    } else {
      std::memcpy(&value, key, width_);
    }
    return static_cast<size_t>((value * kMultiplier) >> (64U - bits_));
  }

  void grow() {
    ++bits_;
    heads_.assign(size_t{1} << bits_, kNone);
    for (uint32_t offset = 0; offset < previous_.size(); ++offset) {
      uint32_t& head = heads_[slot(bytes_ + offset)];
      previous_[offset] = head;
      head = offset;
    }
  }

  const uint8_t* bytes_;
  uint32_t width_;
  unsigned bits_ = 7;               // the first offset makes it 8
  std::vector<uint32_t> heads_;     // by slot: the highest offset
  std::vector<uint32_t> previous_;  // by offset: the next lower one of its slot
};

// The candidates of one half of a ring: `fixed` stands still, the other side's offset falls from
// `start` to 0.
struct HalfRing {
  const uint8_t* fixed;
  const uint8_t* other;
  int64_t start;
};

struct Hit {
  uint32_t offset;
  int32_t result;
};
constexpr Hit kNoHit = {0, -1};

// The pairs of many rings, taken along the diagonals on which both offsets grow together: that
// costs the same whatever the bytes are, and less than an index where many beginnings are equal. A
// block that fails at one start fails at every later start up to its first difference too, since
// the same differences stand nearer to its beginning there.
class DiagonalSearch {
 public:
  DiagonalSearch(const Rest& rest1, const Rest& rest2, uint16_t blocksize)
      : bytes1_(rest1.bytes),
        bytes2_(rest2.bytes),
        last1_(rest1.size - blocksize),
        last2_(rest2.size - blocksize),
        blocksize_(blocksize) {}

  // The agreement that the order of the rings from `low` to `high` - 1 puts first. Within a ring
  // the pairs (d, d - delta) come first and then (d - delta, d), each by rising delta, so a later
  // diagonal only counts with a smaller ring.
  Agreement find(uint64_t low, uint64_t high) const {
    Agreement best = {0, 0, -1};
    for (uint64_t delta = 0; delta < high && delta <= last1_; ++delta) {
      const uint64_t end = std::min({high, last1_ + 1, delta + last2_ + 1});
      const Hit hit = search(bytes1_ + delta, bytes2_, delta, {std::max(low, delta), end});
      if (hit.result >= 0) {
        high = hit.offset + delta;
        best = {static_cast<uint32_t>(high), hit.offset, hit.result};
      }
    }
    for (uint64_t delta = 1; delta < high && delta <= last2_; ++delta) {
      const Hit hit = search_second(delta, low, high);
      if (hit.result >= 0) {
        high = hit.offset + delta;
        best = {hit.offset, static_cast<uint32_t>(high), hit.result};
      }
    }
    return best;
  }

 private:
  struct Rings {
    uint64_t begin;
    uint64_t end;
  };

  // The pairs (d - delta, d). Behind the last ring that fits the first side its offsets end two
  // below the last one that would fit.
  Hit search_second(uint64_t delta, uint64_t low, uint64_t high) const {
    const uint64_t begin = std::max(low, delta);
    const uint64_t end = std::min(high, last2_ + 1);
    const Hit hit = search(bytes1_, bytes2_ + delta, delta, {begin, std::min(end, last1_ + 1)});
    if (hit.result >= 0) {
      return hit;
    }
    return search(bytes1_, bytes2_ + delta, delta,
                  {std::max(begin, last1_ + 1), std::min(end, delta + last1_ - 1)});
  }

  // The first pair of the rings whose blocks agree; `a` and `b` stand where the smaller offset is
  // 0, in ring `delta`. The hit's offset is the smaller one.
  Hit search(const uint8_t* a, const uint8_t* b, uint64_t delta, Rings rings) const {
    uint64_t start = rings.begin - delta;
    while (start + delta < rings.end) {
      size_t skipped = skip_unlike(a + start, b + start);
      if (skipped == 0) {
        const size_t equal = first_difference(a + start, b + start, blocksize_);
        if (equal >= std::min<size_t>(blocksize_, kExactBytes)) {
          const int32_t result = bstrncmp(a + start, b + start, blocksize_);
          if (result >= 0) {
            return {static_cast<uint32_t>(start), result};
          }
        }
        skipped = equal + 1;
      }
      start += skipped;
    }
    return kNoHit;
  }

  // Number of starts that the first eight bytes of a block rule out; 0 where they are equal.
  size_t skip_unlike(const uint8_t* a, const uint8_t* b) const {
    if (blocksize_ < sizeof(uint64_t)) {
      return 0;
    }
    const uint64_t difference = load_eight(a) ^ load_eight(b);
    return difference == 0 ? 0 : sizeof difference - zero_bytes_at_end(difference);
  }

  const uint8_t* bytes1_;
  const uint8_t* bytes2_;
  uint64_t last1_;  // greatest offset with room for a block
  uint64_t last2_;
  uint16_t blocksize_;
};

class RingSearch {
 public:
  RingSearch(const Rest& rest1, const Rest& rest2, uint16_t blocksize)
      : rest1_(rest1),
        rest2_(rest2),
        blocksize_(blocksize),
        width_(std::min<uint32_t>(blocksize, kExactBytes)),
        index1_(rest1.bytes, width_),
        index2_(rest2.bytes, width_) {}

  Agreement find(int32_t max_scan) {
    const uint32_t last1 = rest1_.size - blocksize_;  // greatest offset with room for a block
    const uint32_t last2 = rest2_.size - blocksize_;
    // The ring behind the last one.
    const auto stop = static_cast<uint32_t>(
        std::min<int64_t>(int64_t{std::max(last1, last2)} + 1, std::max(max_scan, 0)));
    for (uint32_t d = 1; d < stop; ++d) {
      const bool room1 = d <= last1;
      const bool room2 = d <= last2;
      if (d == kPlainRings && blocksize_ > 0) {
        indexed_ = true;
      }
      if (d >= kDiagonalRings && tried_ > uint64_t{d} * d / kPairsForEachNamed) {
        return find_on_diagonals(d, stop);
      }
      if (indexed_) {
        fill(index1_, std::min(d - 1, last1));
        fill(index2_, std::min(d, last2));
      }
      if (room1) {
        const HalfRing half = {rest1_.bytes + d, rest2_.bytes, room2 ? d : last2};
        const Hit hit = try_half(half, index2_);
        if (hit.result >= 0) {
          return {d, hit.offset, hit.result};
        }
      }
      if (room2) {
        // At the end of the first side the offsets start two below the last one that would fit.
        const int64_t start = room1 ? int64_t{d} - 1 : int64_t{last1} - 2;
        const HalfRing half = {rest2_.bytes + d, rest1_.bytes, start};
        const Hit hit = try_half(half, index1_);
        if (hit.result >= 0) {
          return {hit.offset, d, hit.result};
        }
      }
    }
    return {0, 0, -1};
  }

 private:
  static void fill(BeginningIndex& index, uint32_t last) {
    while (index.size() <= last) {
      index.add();
    }
  }

  // Goes on from ring `low`, some rings at a time, so that little is done behind a hit.
  Agreement find_on_diagonals(uint64_t low, uint64_t stop) const {
    const DiagonalSearch diagonals(rest1_, rest2_, blocksize_);
    while (low < stop) {
      const uint64_t high = std::min(stop, low + low / 2);
      const Agreement agreement = diagonals.find(low, high);
      if (agreement.result >= 0) {
        return agreement;
      }
      low = high;
    }
    return {0, 0, -1};
  }

  Hit try_half(const HalfRing& half, const BeginningIndex& index) {
    return indexed_ ? try_indexed(half, index) : try_all(half);
  }

  Hit try_all(const HalfRing& half) const {
    for (int64_t offset = half.start; offset >= 0; --offset) {
      const int32_t result = bstrncmp(half.fixed, half.other + offset, blocksize_);
      if (result >= 0) {
        return {static_cast<uint32_t>(offset), result};
      }
    }
    return kNoHit;
  }

  Hit try_indexed(const HalfRing& half, const BeginningIndex& index) {
    for (uint32_t offset = index.first(half.fixed); offset != BeginningIndex::kNone;
         offset = index.next(offset)) {
      ++tried_;
      if (int64_t{offset} <= half.start) {
        const int32_t result = bstrncmp(half.fixed, half.other + offset, blocksize_);
        if (result >= 0) {
          return {offset, result};
        }
      }
    }
    return kNoHit;
  }

  Rest rest1_;
  Rest rest2_;
  uint16_t blocksize_;
  uint32_t width_;
  bool indexed_ = false;
  uint64_t tried_ = 0;  // candidates that the indexes named
  BeginningIndex index1_;
  BeginningIndex index2_;
};

}  // namespace

size_t first_difference(const uint8_t* a, const uint8_t* b, size_t n) {
  size_t i = 0;
  for (; n - i >= sizeof(uint64_t); i += sizeof(uint64_t)) {
    const uint64_t difference = load_eight(a + i) ^ load_eight(b + i);
    if (difference != 0) {
      return i + first_byte_set(difference);
    }
  }
  while (i < n && a[i] == b[i]) {
    ++i;
  }
  return i;
}

size_t common_tail(const uint8_t* a_end, const uint8_t* b_end, size_t n) {
  size_t length = 0;
  for (; n - length >= sizeof(uint64_t); length += sizeof(uint64_t)) {
    const size_t back = length + sizeof(uint64_t);
    const uint64_t difference = load_eight(a_end - back) ^ load_eight(b_end - back);
    if (difference != 0) {
      return length + zero_bytes_at_end(difference);
    }
  }
  while (length < n && *(a_end - length - 1) == *(b_end - length - 1)) {
    ++length;
  }
  return length;
}

int32_t bstrncmp(const uint8_t* a, const uint8_t* b, int32_t n) {
  if (n <= 0) {
    return 0;
  }
  const auto length = static_cast<size_t>(n);
  size_t differing = 0;
  for (size_t i = 0; true; ++i) {
    i += first_difference(a + i, b + i, length - i);
    if (i == length) {
      return static_cast<int32_t>(differing);
    }
    ++differing;
    if (10 * differing > i + 1) {
      return -1;
    }
  }
}

Agreement find_agreement(const Rest& rest1, const Rest& rest2, uint16_t blocksize,
                         int32_t max_scan) {
  return RingSearch(rest1, rest2, blocksize).find(max_scan);
}

}  // namespace kelvane
