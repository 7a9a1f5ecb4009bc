// SPDX-License-Identifier: Apache-2.0
#pragma once

// Plans measured: which items they store, and how many bytes their payloads take.
//
// Several threads measure at the same time. Of a payload only the size is kept, and of items
// nothing: both can be made again from the plan, and they would take more memory than all else.

#include <functional>
#include <span>
#include <vector>

#include "dense_matches.h"
#include "dense_plan.h"
#include "dense_reach.h"
#include "plan.h"

namespace kelvane {

// A plan without its items, and what is made of it.
struct dense_candidate {
  dense_plan plan;
  dense_options options;
  std::vector<int64_t> widest_shifts;
  size_t size = 0;  // of the payload; 0 until it is measured
  bool is_made() const { return size != 0; }
};

inline bool is_smaller(const dense_candidate& first, const dense_candidate& second) {
  return first.is_made() && (!second.is_made() || first.size < second.size);
}

// All stay the caller's.
struct dense_measuring {
  plan_images images;
  const old_reach& reach;
  bool is_far_apart = false;   // the images have few strings in common
  bool base_is_known = false;  // else one that the plan itself tells is tried too
  uint32_t jobs = 1;
  // Called for each plan that is measured.
  std::function<void(size_t size)> note;
};

// Measures all candidates, and takes another base for those that it makes smaller. What is the same
// for several of them is done once.
void measure_all(const dense_measuring& how, std::span<dense_candidate> made);

// Makes the items of a measured candidate, and leaves out predicted distances where its payload is
// smaller without, and matches into the new image where it is no larger without: then the device
// can compute it before it writes any.
void finish_plan(const dense_measuring& how, dense_candidate& best);

// How many tasks that take `task_bytes` of memory each may go on at the same time, `jobs` at most,
// so that all stay within a share of the memory that a search for these images takes.
size_t jobs_within(const plan_images& images, uint64_t task_bytes, uint32_t jobs);

}  // namespace kelvane
