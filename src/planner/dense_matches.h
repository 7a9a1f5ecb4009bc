// SPDX-License-Identifier: Apache-2.0
#pragma once

// What is stored between copies: each byte as it is, or as a part of bytes that are somewhere
// already, in the old image or in what is there of the new one.
//
// The cheapest way through is found with fixed costs: a byte 6.5 bits, a number some 1.2 bits for
// each of its bits. Places to look at come from chains of equal strings of four bytes.

#include <functional>

#include "dense_plan.h"
#include "dense_reach.h"
#include "plan.h"

namespace kelvane {

// Chains through both images. The images stay in use.
class string_chains {
 public:
  explicit string_chains(const plan_images& images);

  static constexpr uint32_t kStringBytes = 4;
  // The chains of the string at `at` of the new image, which has four bytes there.
  uint32_t newest_old(uint32_t at) const { return old_heads_[hash_at(images_.new_image, at)]; }
  uint32_t before_old(uint32_t place) const { return before_old_[place]; }
  uint32_t before_new(uint32_t at) const { return before_new_[at]; }
  static constexpr uint32_t kNone = 0xFFFFFFFF;

 private:
  static uint32_t hash_at(std::span<const uint8_t> image, uint32_t at);

  plan_images images_;
  std::vector<uint32_t> old_heads_;
  std::vector<uint32_t> before_old_;
  std::vector<uint32_t> before_new_;
};

// Appends the items for the bytes from `begin` to `end` of the new image. `shift`: of the copy in
// front.
void append_items(const plan_images& images, const string_chains& chains, const old_reach& reach,
                  bool reads_new, uint32_t begin, uint32_t end, int64_t shift,
                  std::vector<dense_item>& items);

}  // namespace kelvane
