// SPDX-License-Identifier: Apache-2.0
#include "dense_base.h"

#include <algorithm>
#include <array>

namespace kelvane {
namespace {

constexpr uint32_t kLeastLength = 64;   // of a copy that may be pointed to
constexpr size_t kMostPointedTo = 400;  // the longest ones
constexpr uint32_t kMostWords = 60000;
constexpr uint32_t kMostPairs = 200000;
constexpr size_t kMostBallots = 1U << 18U;
constexpr uint32_t kFarthestPair = 64;  // bytes between an upper half and its lower one

class base_vote {
 public:
  base_vote(const plan_images& images, std::span<const dense_copy> copies,
            const dense_target& target)
      : images_(images),
        target_(target),
        copies_(copies),
        largest_(static_cast<uint32_t>(images.new_image.size())) {
    for (const dense_copy& copy : copies) {
      if (copy.length >= kLeastLength) {
        pointed_to_.push_back(copy);
      }
    }
    std::stable_sort(pointed_to_.begin(), pointed_to_.end(),
                     [](const dense_copy& first, const dense_copy& second) {
                       return first.length > second.length;
                     });
    pointed_to_.resize(std::min(pointed_to_.size(), kMostPointedTo));
    std::stable_sort(pointed_to_.begin(), pointed_to_.end(),
                     [](const dense_copy& first, const dense_copy& second) {
                       return shift_of(first) < shift_of(second);
                     });
  }

  uint32_t winner() {
    take_words();
    if (target_.machine == KELVANE_DENSE_POWERPC || target_.machine == KELVANE_DENSE_MIPS) {
      take_pairs();
    }
    return count();
  }

 private:
  static uint32_t shift_of(const dense_copy& copy) { return copy.target - copy.source; }

  uint32_t old_word(uint32_t place, ByteOrder order) const {
    return load_word(images_.old_image.data() + place, order);
  }
  uint32_t new_word(uint32_t at, ByteOrder order) const {
    return load_word(images_.new_image.data() + at, order);
  }

  // Calls take(old place, new place) for the aligned words of copies that keep their alignment.
  template <typename Take>
  void for_words(const Take& take) const {
    for (const dense_copy& copy : copies_) {
      if (shift_of(copy) % 4 != 0) {
        continue;
      }
      for (uint32_t k = (0U - copy.target) % 4; k + 4 <= copy.length; k += 4) {
        take(copy.source + k, copy.target + k);
      }
    }
  }

  // A reference to `from` became one to `to`: any base is possible that puts `from` into a copy
  // which moved as far.
  bool vote(uint32_t from, uint32_t to) {
    const uint32_t shift = to - from;
    if (shift == 0 || (shift > largest_ && 0U - shift > largest_) ||
        begins_.size() >= kMostBallots) {
      return false;
    }
    auto copy = std::lower_bound(
        pointed_to_.begin(), pointed_to_.end(), shift,
        [](const dense_copy& each, uint32_t wanted) { return shift_of(each) < wanted; });
    for (; copy != pointed_to_.end() && shift_of(*copy) == shift; ++copy) {
      const uint32_t last = from - copy->source;
      begins_.push_back(last - copy->length + 1);
      ends_.push_back(last + 1);
    }
    return true;
  }

  void take_words() {
    constexpr uint32_t kLeastPointer = 64;
    uint32_t words = 0;
    for_words([&](uint32_t place, uint32_t at) {
      const uint32_t value = old_word(place, target_.data_order);
      if (words < kMostWords && value >= kLeastPointer &&
          vote(value, new_word(at, target_.data_order))) {
        ++words;
      }
    });
  }

  void take_pairs() {
    struct upper_half {
      uint32_t old_value = 0;
      uint32_t new_value = 0;
      uint32_t at = 0;
      bool is_known = false;
    };
    std::array<upper_half, 32> registers = {};
    uint32_t pairs = 0;
    const bool is_mips = target_.machine == KELVANE_DENSE_MIPS;
    for_words([&](uint32_t place, uint32_t at) {
      const uint32_t old_code = old_word(place, target_.code_order);
      const uint32_t new_code = new_word(at, target_.code_order);
      const uint32_t opcode = old_code >> 26U;
      const uint32_t first = old_code >> 21U & 31U;
      const uint32_t second = old_code / 0x10000U % 32;
      if (opcode == 15 && new_code >> 26U == 15 && (is_mips || second == 0)) {
        registers[is_mips ? second : first] = {old_code * 0x10000U, new_code * 0x10000U, at, true};
        return;
      }
      const bool is_lower =
          is_mips ? opcode == 9 || opcode >= 32 : opcode == 14 || (opcode >= 32 && opcode < 56);
      const upper_half& upper = registers[is_mips ? first : second];
      if (is_lower && upper.is_known && at - upper.at <= kFarthestPair && pairs < kMostPairs &&
          vote(upper.old_value + signed_half(old_code), upper.new_value + signed_half(new_code))) {
        ++pairs;
      }
    });
  }

  static uint32_t signed_half(uint32_t instruction) {
    return ((instruction & 0xFFFFU) ^ 0x8000U) - 0x8000U;
  }

  // Of the places with nearly the most votes the roundest number.
  uint32_t count() {
    std::sort(begins_.begin(), begins_.end());
    std::sort(ends_.begin(), ends_.end());
    int64_t most = 0;
    each_border([&](uint32_t, uint32_t, int64_t votes) { most = std::max(most, votes); });
    uint32_t best = 0;
    int32_t best_zeros = -1;
    each_border([&](uint32_t address, uint32_t next, int64_t votes) {
      if (votes * 20 < most * 19) {
        return;
      }
      for (int32_t zeros = 31; zeros > best_zeros; --zeros) {
        const uint64_t unit = uint64_t{1} << static_cast<uint32_t>(zeros);
        const uint64_t round = (uint64_t{address} + unit - 1) / unit * unit;
        if (round < next) {
          best_zeros = zeros;
          best = static_cast<uint32_t>(round);
        }
      }
    });
    return best;
  }

  // Calls take(address, next address, votes) for each address where votes begin or end, but the
  // last one, with the votes for what lies between.
  template <typename Take>
  void each_border(const Take& take) const {
    auto begin = begins_.begin();
    auto end = ends_.begin();
    int64_t votes = 0;
    const auto is_begin = [&] {
      return begin != begins_.end() && (end == ends_.end() || *begin <= *end);
    };
    while (begin != begins_.end() || end != ends_.end()) {
      const bool begins = is_begin();
      const uint32_t address = begins ? *begin++ : *end++;
      votes += begins ? 1 : -1;
      if (begin != begins_.end() || end != ends_.end()) {
        take(address, is_begin() ? *begin : *end, votes);
      }
    }
  }

  const plan_images& images_;
  const dense_target& target_;
  std::span<const dense_copy> copies_;
  uint32_t largest_;
  std::vector<dense_copy> pointed_to_;  // by shift
  std::vector<uint32_t> begins_;        // where one vote more begins
  std::vector<uint32_t> ends_;          // and where one ends; as many
};

}  // namespace

uint32_t likely_base(const plan_images& images, std::span<const dense_copy> copies,
                     const dense_target& target) {
  return base_vote(images, copies, target).winner();
}

}  // namespace kelvane
