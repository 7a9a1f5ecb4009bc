#pragma once

// Target memory as one row of bytes: the ranges that two images have, end to end.
//
// The planner counts places from 0, as in a file. For target memory the places are those of a row
// in which the sections of both images lie in the order of their addresses, with room between them
// that stands for memory of neither. A map gives the address back. What the planner needs to hold:
// - A place and its address are equal modulo 4, so that words are words.
// - Two bytes are neighbours in the row exactly if they are neighbours in memory.
// - Gaps of up to 512 bytes keep their size, so that sections which moved together keep one shift,
//   and two stores are as far from each other as in memory wherever a list could link them. Larger
//   gaps are cut to about that: the row is not much longer than what the images hold.
//
// Bytes of the row that no section has are never read, written or counted on.

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace kelvane {

// `size` bytes of target memory from `address` on; up to the end of the addresses at most.
struct memory_range {
  uint32_t address = 0;
  uint32_t size = 0;
};

// Places of a row.
class row_bytes {
 public:
  // A stretch of places, its end excluded.
  struct run {
    uint32_t begin = 0;
    uint32_t end = 0;
  };

  row_bytes() = default;
  // `runs`: ascending, with a gap between each two, all of them below `size`.
  row_bytes(std::vector<run> runs, uint32_t size);

  // Whether all `count` places (1 to 63) from `at` on belong to it.
  bool has(int64_t at, uint32_t count) const {
    if (at < 0 || at + count > size_) {
      return false;
    }
    const auto word = static_cast<size_t>(at / 64);
    const auto bit = static_cast<uint32_t>(at % 64);
    const uint64_t bits = bits_[word] >> bit | bits_[word + 1] << 1U << (63U - bit);
    return (~bits & ((uint64_t{1} << count) - 1)) == 0;
  }
  // The same for any number.
  bool has_all(int64_t begin, int64_t end) const;

  const std::vector<run>& runs() const { return runs_; }
  // Calls take(begin, end) for its parts between two places, ascending.
  template <typename Take>
  void each_part(int64_t begin, int64_t end, const Take& take) const {
    for (size_t i = first_behind(begin); i < runs_.size() && runs_[i].begin < end; ++i) {
      take(std::max<int64_t>(begin, runs_[i].begin), std::min<int64_t>(end, runs_[i].end));
    }
  }

 private:
  size_t first_behind(int64_t place) const;  // the first run that ends behind it

  std::vector<run> runs_;
  std::vector<uint64_t> bits_;
  int64_t size_ = 0;
};

class linear_map {
 public:
  linear_map() = default;
  // The ranges of the old image, of the new one, and of memory that a patch may use as it likes
  // while it runs. Those of one image don't overlap. `row_size` of the same has to be at most
  // kLargestImage.
  linear_map(std::span<const memory_range> old_ranges, std::span<const memory_range> new_ranges,
             std::span<const memory_range> spare);
  // The bytes of the row that these ranges take.
  static uint64_t row_size(std::span<const memory_range> old_ranges,
                           std::span<const memory_range> new_ranges,
                           std::span<const memory_range> spare);

  uint32_t size() const { return size_; }
  const row_bytes& old_bytes() const { return old_bytes_; }
  const row_bytes& new_bytes() const { return new_bytes_; }
  // All memory of the map, ascending, with a gap between each two.
  const std::vector<memory_range>& memory() const { return memory_; }

  // A place of one of the images or of spare memory, from its address and back.
  uint32_t place_of(uint32_t address) const;
  uint32_t address_of(uint32_t place) const;
  // How many bytes of the map's memory follow each other from an address on; 0 in a gap.
  uint32_t bytes_from(uint32_t address) const;

  // Where nothing may be parked, ascending: all but the old image and spare memory that is not of
  // the new one. With `outer_holes` all memory of the map is good enough.
  std::vector<std::pair<int64_t, int64_t>> reserved(bool outer_holes) const;

 private:
  size_t ranges_up_to(uint32_t address) const;  // the ranges that begin there or ahead of it

  std::vector<memory_range> memory_;
  std::vector<uint32_t> begins_;  // the place of each
  row_bytes old_bytes_;
  row_bytes new_bytes_;
  row_bytes all_bytes_;
  row_bytes holes_;
  uint32_t size_ = 0;
};

}  // namespace kelvane
