// SPDX-License-Identifier: Apache-2.0
#pragma once

// What is stored between copies: each byte as it is, or as a part of bytes that are somewhere
// already, in the old image or in what is there of the new one.
//
// The cheapest way through is found twice: first with what bytes and numbers usually cost, then
// with what they cost in a payload that goes the first way (dense_prices.h). Places to look at come
// from an index of strings of four bytes.

#include <span>
#include <vector>

#include "dense_plan.h"
#include "dense_reach.h"
#include "plan.h"

namespace kelvane {

inline constexpr uint32_t kStringBytes = 4;

// Where strings of four bytes stand in both images: those that stand in the bytes to be stored, and
// no others, since most images are alike. Where these are many, every second or fourth place; a
// match that begins ahead of such a place is found all the same.
class string_places {
 public:
  // `copies` is what is not stored, by ascending target. The images stay in use.
  string_places(const plan_images& images, std::span<const dense_copy> copies);

  // The places of the string at `at` of the new image, which has four bytes there, or what has the
  // same hash; they ascend. Of the new image those below `at`.
  std::span<const uint32_t> in_old(uint32_t at) const {
    return bucket(old_, hash_at(images_.new_image, at));
  }
  std::span<const uint32_t> in_new(uint32_t at) const;
  uint32_t step() const { return step_; }  // places are multiples of it

 private:
  struct places {
    std::vector<uint32_t> begin;  // by hash
    std::vector<uint32_t> all;
  };
  uint32_t hash_at(std::span<const uint8_t> image, uint32_t at) const;
  static std::span<const uint32_t> bucket(const places& of, uint32_t hash) {
    return std::span(of.all).subspan(of.begin[hash], of.begin[hash + 1] - of.begin[hash]);
  }
  uint64_t note_wanted(std::span<const dense_copy> copies);
  void fill(std::span<const uint8_t> image, places& of) const;

  plan_images images_;
  uint32_t hash_bits_ = 18;
  uint32_t step_ = 1;
  std::vector<bool> wanted_;  // by hash, while the places are gathered
  places old_;
  places new_;
};

// Items for the bytes of no copy, in order. `copies` by ascending target. `places` of the same
// images, for no copies or these.
std::vector<dense_item> items_between(const plan_images& images, const string_places& places,
                                      const old_reach& reach, std::span<const dense_copy> copies,
                                      bool reads_new);

}  // namespace kelvane
