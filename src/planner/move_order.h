#pragma once

// The order of the moves, in place and without memory beside the images.
//
// The order is not sorted but carried out: the pieces are followed from place to place. While some
// piece has nothing in its way it goes home, at best the one that goes on where the last block
// ended, so that both become one block. When none can go, the piece is looked for whose blockers
// are cheapest to get out of the way, and
// - a blocker is parked in a hole: memory that no waiting piece lies in and no finished one covers,
//   at best where none goes that must be home before the parked one;
// - or it is cut at the size of the largest hole first;
// - or, if one piece waits for another that waits for it, they change places part by part, each as
//   large as the hole;
// - or the blocker is given up: it is stored, and its home is a hole from then on.
//
// On an image of 400 KB with one function in ten moved this gives 960 blocks and 39 KB of patch
// where cutting whatever overlaps gave 5782 blocks and 119 KB. The results scatter by some KB with
// chance, so several orders are made and the one with the least estimate is used.

#include <cstdint>
#include <span>
#include <vector>

#include "move_pieces.h"
#include "plan.h"

namespace kelvane {

struct move_order {
  std::vector<moved_block> blocks;
  // 12 bytes a block and what giving up costs, in hundredths of a byte.
  uint64_t estimate = 0;
  uint64_t looks = 0;  // how many pieces were looked at, a measure of the time
  uint32_t tries = 1;  // how many orders this one is the best of
};

struct order_settings {
  uint32_t park_percent = 40;
  uint32_t seed = 12345;
  int64_t holes_end = 0;  // parks below this
};

// Carries out the pieces; blocks that touch and go the same way are joined.
move_order order_moves(const piece_set& set, const order_settings& settings);

// How many orders to try: the first `tries` of a fixed row of settings.
struct order_search_settings {
  uint32_t tries = 1;
  bool outer_holes = false;
  bool fills = true;  // whether the patch may have some
};

// The best order of some. Without pieces in each other's way one is enough, and only one is made.
move_order best_order(const plan_images& images, std::span<const shift_stretch> stretches,
                      const order_search_settings& settings);

}  // namespace kelvane
