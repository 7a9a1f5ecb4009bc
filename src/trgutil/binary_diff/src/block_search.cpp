#include "block_search.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

namespace kelvane {

namespace {

// A block may differ in one byte of ten of those seen so far. So its first nine bytes have to
// agree, and of the ten behind them at most one may differ: five of them on one side or the other
// agree.
constexpr uint32_t kExactBytes = 9;
constexpr uint32_t kHalfBytes = 5;
constexpr uint32_t kNearBytes = kExactBytes + kHalfBytes;
constexpr uint32_t kFarBytes = kNearBytes + kHalfBytes;
// Up to this distance trying every pair is cheaper than keeping an index.
constexpr uint32_t kPlainRings = 24;

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

// Which bytes of a block are looked up: its first bytes, no more than the exact ones; or the exact
// ones with the five behind them, or with the five behind those.
enum class KeyShape : uint8_t { first, near, far };

// The blocks at the offsets 0, 1, 2, ... of one side, by their key. Offsets with the same hash form
// a chain from the highest down, which is the order of a ring.
class BlockIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  // `width` is the number of bytes of the shape `first`.
  BlockIndex(const uint8_t* bytes, KeyShape shape, uint32_t width)
      : bytes_(bytes), shape_(shape), width_(width) {}

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

  // Highest offset whose key may be that of `block`, and the next lower one behind `offset`.
  uint32_t first(const uint8_t* block) const { return heads_[slot(block)]; }
  uint32_t next(uint32_t offset) const { return previous_[offset]; }

 private:
  size_t slot(const uint8_t* block) const {
    constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15U;  // 2 to the 64th by the golden ratio
    uint64_t value = 0;
    uint64_t more = 0;
    std::memcpy(&value, block, std::min<size_t>(width_, sizeof value));
    switch (shape_) {
      case KeyShape::first:
        more = width_ > sizeof value ? block[sizeof value] : 0U;
        break;
      case KeyShape::near:
        more = load_eight(block + kNearBytes - sizeof more);
        break;
      case KeyShape::far:
        std::memcpy(&more, block + kNearBytes, kHalfBytes);
        value ^= uint64_t{block[sizeof value]} << 56U;
        break;
    }
    return static_cast<size_t>((((value * kMultiplier) ^ more) * kMultiplier) >> (64U - bits_));
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
  KeyShape shape_;
  uint32_t width_;
  unsigned bits_ = 7;               // the first offset makes it 8
  std::vector<uint32_t> heads_;     // by slot: the highest offset
  std::vector<uint32_t> previous_;  // by offset: the next lower one of its slot
};

// The candidates of one side. Blocks that reach so far are looked up by both longer keys, since
// what agrees has one of them in common; that tells records with runs of zeros apart.
class Candidates {
 public:
  Candidates(const uint8_t* bytes, uint16_t blocksize)
      : both_(blocksize >= kFarBytes),
        near_(bytes, both_ ? KeyShape::near : KeyShape::first,
              std::min<uint32_t>(blocksize, kExactBytes)),
        far_(bytes, KeyShape::far, kExactBytes) {}

  // Makes the offsets up to `last` known.
  void fill(uint32_t last) {
    while (near_.size() <= last) {
      near_.add();
      if (both_) {
        far_.add();
      }
    }
  }

  // Hands the offsets that may agree with `block`, from the highest down, to `visit` until that
  // gives true.
  template <typename Visit>
  void visit(const uint8_t* block, Visit visit) const {
    uint32_t near = near_.first(block);
    uint32_t far = both_ ? far_.first(block) : BlockIndex::kNone;
    while (near != BlockIndex::kNone || far != BlockIndex::kNone) {
      const bool take_near = far == BlockIndex::kNone || (near != BlockIndex::kNone && near >= far);
      const uint32_t offset = take_near ? near : far;
      if (visit(offset)) {
        return;
      }
      near = near == offset ? near_.next(near) : near;
      far = far == offset ? far_.next(far) : far;
    }
  }

 private:
  bool both_;
  BlockIndex near_;
  BlockIndex far_;
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

class RingSearch {
 public:
  RingSearch(const Rest& rest1, const Rest& rest2, uint16_t blocksize)
      : rest1_(rest1),
        rest2_(rest2),
        blocksize_(blocksize),
        candidates1_(rest1.bytes, blocksize),
        candidates2_(rest2.bytes, blocksize) {}

  Agreement find(int32_t max_scan) {
    const uint32_t last1 = rest1_.size - blocksize_;  // greatest offset with room for a block
    const uint32_t last2 = rest2_.size - blocksize_;
    const uint32_t last = std::max(last1, last2);
    for (uint32_t d = 1; d <= last && d < INT32_MAX && static_cast<int32_t>(d) < max_scan; ++d) {
      const bool room1 = d <= last1;
      const bool room2 = d <= last2;
      if (d == kPlainRings && blocksize_ > 0) {
        indexed_ = true;
      }
      if (indexed_) {
        candidates1_.fill(std::min(d - 1, last1));
        candidates2_.fill(std::min(d, last2));
      }
      if (room1) {
        const HalfRing half = {rest1_.bytes + d, rest2_.bytes, room2 ? d : last2};
        const Hit hit = try_half(half, candidates2_);
        if (hit.result >= 0) {
          return {d, hit.offset, hit.result};
        }
      }
      if (room2) {
        // At the end of the first side the offsets start two below the last one that would fit.
        const int64_t start = room1 ? int64_t{d} - 1 : int64_t{last1} - 2;
        const HalfRing half = {rest2_.bytes + d, rest1_.bytes, start};
        const Hit hit = try_half(half, candidates1_);
        if (hit.result >= 0) {
          return {hit.offset, d, hit.result};
        }
      }
    }
    return {0, 0, -1};
  }

 private:
  Hit try_half(const HalfRing& half, const Candidates& candidates) const {
    return indexed_ ? try_indexed(half, candidates) : try_all(half);
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

  Hit try_indexed(const HalfRing& half, const Candidates& candidates) const {
    Hit hit = kNoHit;
    candidates.visit(half.fixed, [&](uint32_t offset) {
      if (int64_t{offset} > half.start) {
        return false;
      }
      hit = {offset, bstrncmp(half.fixed, half.other + offset, blocksize_)};
      return hit.result >= 0;
    });
    return hit.result >= 0 ? hit : kNoHit;
  }

  Rest rest1_;
  Rest rest2_;
  uint16_t blocksize_;
  bool indexed_ = false;
  Candidates candidates1_;
  Candidates candidates2_;
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
