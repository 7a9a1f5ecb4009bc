// SPDX-License-Identifier: Apache-2.0
#pragma once

// The smallest dense update that is found for two images and a device.
//
// A first alignment without a machine shows what moved. From it follow, for each machine and byte
// order, the base that fits best, and a payload; the machines whose payload is smallest are gone on
// with, unless the caller knows. Then come rounds of alignments, each with the map and the
// differences of the best plan so far. The tries of a round are made by several threads; which
// payload wins depends on sizes alone, so the number of threads changes no byte.

#include "dense_plan.h"
#include "plan_search.h"

namespace kelvane {

enum class dense_effort : uint8_t {
  quick,   // two rounds of one setting
  normal,  // three rounds of four settings; of images of 1 MB and more as quick
  best     // three rounds of nine settings
};

struct dense_request {
  plan_images images;
  flash_geometry geometry;
  std::optional<dense_target> target;  // else found by size
  bool base_is_known = false;          // that of `target`
  uint8_t model = 1;
  // false: no matches into the new image, so that the device can compute it before it writes any.
  // They are left out all the same where that costs no byte; see dense_update::options.
  bool reads_new = true;
  uint32_t map_limit = 2048;
  dense_effort effort = dense_effort::normal;
  uint32_t jobs = 1;
  // Called after each try of the rounds, by one thread at a time; sizes are those of payloads. May
  // be empty.
  std::function<void(const plan_progress&)> report;
};

struct dense_update {
  std::vector<uint8_t> payload;
  std::vector<kept_page> kept;
  dense_options options;
  uint32_t copies = 0;
  uint32_t map_entries = 0;
};

// Whether a search of `effort` for a new image of so many bytes finds the same as a quick one,
// which has found a payload of `quick_size` bytes.
bool is_quick_enough(dense_effort effort, size_t new_size, size_t quick_size);

// The update, proven by decoding it in place. Throws std::logic_error if that fails, std::bad_alloc
// if memory runs out.
dense_update search_dense(const dense_request& request);

}  // namespace kelvane
