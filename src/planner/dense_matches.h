// SPDX-License-Identifier: Apache-2.0
#pragma once

// What is stored between copies: each byte as it is, or as a part of bytes that are somewhere
// already, in the old image or in what is there of the new one.
//
// The cheapest way through is found twice: first with what bytes and numbers usually cost, then
// with what they cost in a payload that goes the first way (dense_prices.h). Places to look at come
// from an index of strings of four bytes.

#include <bit>
#include <span>
#include <vector>

#include "dense_plan.h"
#include "dense_reach.h"
#include "plan.h"

namespace kelvane {

// Bytes between copies whose items are found together.
inline constexpr uint32_t kParsedAtOnce = 1U << 16U;

inline constexpr uint32_t kStringBytes = 4;

// Where strings of four bytes stand in both images: those that stand in the bytes to be stored, and
// no others, since most images are alike. One index serves all plans that store many bytes, or all
// that store few: what it tells of a string does not depend on the others that it holds.
class string_places {
 public:
  // Whether a plan stores so much that most strings are wanted. Then the index takes every second
  // or fourth place of a large image; a match that begins ahead of such a place is found all the
  // same.
  static bool are_many(const plan_images& images, std::span<const dense_copy> copies);

  // `plans`: for each what it does not store, by ascending target. The images stay in use.
  string_places(const plan_images& images, std::span<const std::span<const dense_copy>> plans,
                bool are_many);

  // The places of the string at `at` of the new image, which has four bytes there and which one of
  // the plans stores, or what has the same hash; they ascend. Of the new image those below `at`.
  std::span<const uint32_t> in_old(uint32_t at) const {
    return bucket(old_, hash_at(images_.new_image, at));
  }
  std::span<const uint32_t> in_new(uint32_t at) const;
  uint32_t step() const { return step_; }  // places are multiples of it

 private:
  struct places {
    std::vector<uint32_t> begin;  // by rank among the wanted hashes
    std::vector<uint32_t> all;
  };
  static uint32_t hash_bits_for(const plan_images& images);
  uint32_t hash_at(std::span<const uint8_t> image, uint32_t at) const;
  bool is_wanted(uint32_t hash) const { return (wanted_[hash / 64] >> hash % 64 & 1U) != 0; }
  uint32_t rank_of(uint32_t hash) const {
    const uint64_t below = wanted_[hash / 64] & ((uint64_t{1} << hash % 64) - 1);
    return ranks_[hash / 64] + static_cast<uint32_t>(std::popcount(below));
  }
  std::span<const uint32_t> bucket(const places& of, uint32_t hash) const {
    const uint32_t rank = rank_of(hash);
    return std::span(of.all).subspan(of.begin[rank], of.begin[rank + 1] - of.begin[rank]);
  }
  void note_wanted(std::span<const dense_copy> copies);
  void fill(std::span<const uint8_t> image, places& of) const;

  plan_images images_;
  uint32_t hash_bits_;
  uint32_t step_ = 1;
  std::vector<uint64_t> wanted_;  // a bit by hash
  std::vector<uint32_t> ranks_;   // of the first hash of each 64
  places old_;
  places new_;
};

// Items for the bytes of no copy, in order. `copies` by ascending target. `places` of the same
// images, for a plan with these copies among others.
std::vector<dense_item> items_between(const plan_images& images, const string_places& places,
                                      const old_reach& reach, std::span<const dense_copy> copies,
                                      bool reads_new);

}  // namespace kelvane
