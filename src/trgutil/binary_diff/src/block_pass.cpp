#include "block_pass.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "debug_print.h"
#include "engine_settings.h"

namespace kelvane {

namespace {

constexpr uint32_t kNone = UINT32_MAX;
constexpr uint64_t kHashBase = 0x9E3779B97F4A7C15U;

// The hash of the run that a window over bytes shows, moved on byte by byte.
class WindowHash {
 public:
  explicit WindowHash(uint32_t length) : length_(length) {
    for (uint32_t i = 1; i < length; ++i) {
      leaving_ *= kHashBase;
    }
  }

  void start(const uint8_t* run) {
    hash_ = 0;
    for (uint32_t i = 0; i < length_; ++i) {
      hash_ = hash_ * kHashBase + run[i];
    }
  }
  // From the run at `run` to the one behind it.
  void step(const uint8_t* run) { hash_ = (hash_ - run[0] * leaving_) * kHashBase + run[length_]; }
  uint64_t value() const { return hash_ * 0xD6E8FEB86659FD93U; }

 private:
  uint32_t length_;
  uint64_t leaving_ = 1;
  uint64_t hash_ = 0;
};

// All runs of one length in the new section: of each the first two places. A run that follows an
// equal one is told by one byte, so that long runs, too, are compared in full only where a stretch
// of equal bytes begins.
class RunIndex {
 public:
  RunIndex(std::span<const uint8_t> bytes, uint32_t length)
      : bytes_(bytes.data()),
        count_(static_cast<uint32_t>(bytes.size()) - length + 1),
        length_(length),
        shift_(64 - std::max(static_cast<uint32_t>(std::bit_width(count_)), 8U)),
        heads_(size_t{1} << (64 - shift_), kNone),
        first_(count_),
        second_(count_, kNone),
        next_(count_, kNone) {
    WindowHash hash(length);
    hash.start(bytes_);
    uint32_t earlier = kNone;  // the first place of the run in front
    for (uint32_t place = 0; place < count_; ++place) {
      if (place != 0) {
        hash.step(bytes_ + place - 1);
      }
      const uint32_t found = find(bytes_ + place, hash, earlier);
      if (found == kNone) {
        uint32_t& head = heads_[hash.value() >> shift_];
        next_[place] = head;
        head = place;
        first_[place] = place;
      } else {
        first_[place] = found;
        second_[found] = std::min(second_[found], place);
      }
      // A run that stands there for the first time follows nothing but itself.
      earlier = found;
    }
  }

  // The first place of the run at `run`, whose hash is given, or kNone. `earlier` is the first
  // place of the run one byte in front, or kNone if it has none.
  uint32_t find(const uint8_t* run, const WindowHash& hash, uint32_t earlier) const {
    if (earlier != kNone && earlier + 1 < count_ && bytes_[earlier + length_] == run[length_ - 1]) {
      return first_[earlier + 1];
    }
    for (uint32_t place = heads_[hash.value() >> shift_]; place != kNone; place = next_[place]) {
      if (std::memcmp(bytes_ + place, run, length_) == 0) {
        return place;
      }
    }
    return kNone;
  }

  // The first place of the run that starts at `first` other than `not_here`, or kNone.
  uint32_t first_other(uint32_t first, uint32_t not_here) const {
    return first != not_here ? first : second_[first];
  }

 private:
  const uint8_t* bytes_;
  uint32_t count_;  // of runs
  uint32_t length_;
  uint32_t shift_;
  std::vector<uint32_t> heads_;   // last place entered, by hash
  std::vector<uint32_t> first_;   // first place of an equal run
  std::vector<uint32_t> second_;  // of a first place: the next place of an equal run
  std::vector<uint32_t> next_;    // of a first place: the one entered before with that hash
};

uint32_t common_run(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  const size_t size = std::min(a.size(), b.size());
  return static_cast<uint32_t>(
      std::mismatch(a.begin(), a.begin() + static_cast<ptrdiff_t>(size), b.begin()).first -
      a.begin());
}

// Whether all bytes are the same, as in a section without contents.
bool is_uniform(std::span<const uint8_t> bytes) {
  return bytes.empty() || std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

// The blocks of two sections of one and the same byte, which need no index: the first other offset
// is 0, or 1 for the first byte.
std::vector<found_block> blocks_of_one_byte(size_t old_size, size_t new_size, uint32_t limit) {
  std::vector<found_block> blocks;
  for (size_t i = 0; i < old_size; ++i) {
    const size_t j = i == 0 ? 1 : 0;
    const size_t size = std::min(old_size - i, new_size - j);
    if (size > limit) {
      blocks.push_back(
          {static_cast<uint32_t>(i), static_cast<uint32_t>(j), static_cast<uint32_t>(size)});
      i += size;
    }
  }
  return blocks;
}

}  // namespace

std::vector<found_block> moved_blocks(std::span<const uint8_t> old_bytes,
                                      std::span<const uint8_t> new_bytes, uint32_t limit) {
  std::vector<found_block> blocks;
  if (limit >= std::min(old_bytes.size(), new_bytes.size())) {
    return blocks;
  }
  if (old_bytes[0] == new_bytes[0] && is_uniform(old_bytes) && is_uniform(new_bytes)) {
    return blocks_of_one_byte(old_bytes.size(), new_bytes.size(), limit);
  }
  const uint32_t length = limit + 1;
  const RunIndex index(new_bytes, length);
  WindowHash hash(length);
  uint32_t earlier = kNone;
  bool started = false;
  for (uint64_t i = 0; i + length <= old_bytes.size();) {
    const uint8_t* const run = old_bytes.data() + i;
    if (started) {
      hash.step(run - 1);
    } else {
      hash.start(run);
      started = true;
    }
    earlier = index.find(run, hash, earlier);
    const auto from = static_cast<uint32_t>(i);
    const uint32_t to = earlier == kNone ? kNone : index.first_other(earlier, from);
    if (to == kNone) {
      ++i;
      continue;
    }
    const uint32_t size = common_run(old_bytes.subspan(from), new_bytes.subspan(to));
    blocks.push_back({from, to, size});
    i += uint64_t{size} + 1;
    earlier = kNone;
    started = false;
  }
  return blocks;
}

void block_pass(map_list& list, std::span<const uint8_t> old_bytes, uint32_t old_address,
                std::span<const uint8_t> new_bytes, uint32_t new_address) {
  for (const found_block& block :
       moved_blocks(old_bytes, new_bytes, static_cast<uint32_t>(min_swap_block_size))) {
    const bool reaches_old = block.to < old_bytes.size();
    const uint32_t in_place = reaches_old ? common_run(old_bytes.subspan(block.to),
                                                       new_bytes.subspan(block.to, block.size))
                                          : 0;
    if (in_place == block.size || is_map(list, block.from, block.to, block.size)) {
      continue;
    }
    dprintf(3, "Memory 0x%x moved to 0x%x", block.from + old_address, block.to + new_address);
    insert_map(list, new_map(block.from, block.to, block.size));
  }
}

}  // namespace kelvane
