#pragma once

// The pieces that have to move, and which of them are in each other's way.
//
// Piece y is in the way of piece x if x goes to where y still lies: y has to leave first. Inserting
// and removing alone gives no circles of such pieces; functions that changed their order do. In a
// circle one piece must be parked elsewhere for a while, or be given up and stored instead. Which
// ones is the question of the least feedback set; it is answered greedily.

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "alignment.h"
#include "optimal_parse.h"
#include "plan.h"

namespace kelvane {

// Weights and estimates are in hundredths of a byte.
inline constexpr uint64_t kWeightOfByte = 100;

struct moving_piece {
  int64_t source = 0;
  int64_t length = 0;
  int64_t destination = 0;
  // What storing the piece takes instead; known for pieces in circles, 0 for others.
  uint64_t store_weight = 0;
};

// Edges by index: ahead[x] are the pieces that have to leave before x can come, behind[y] those
// that wait for y.
struct piece_graph {
  std::vector<std::vector<uint32_t>> ahead;
  std::vector<std::vector<uint32_t>> behind;
};

struct piece_set {
  std::vector<moving_piece> pieces;
  std::vector<std::pair<int64_t, int64_t>> pinned;  // bytes that stay: begin and end
  size_t stretches = 0;                             // pieces before those in circles were cut
  piece_graph graph;
  std::vector<std::vector<uint32_t>> circles;  // parts in which every piece waits for every other
  uint64_t given_up_weight = 0;                // as in lightened_stretches
  uint32_t part_bytes = 0;                     // what circles of these pieces are best cut to
};

// Stretches of which some bytes are given up beforehand, with what storing them costs. They make a
// hole that is there from the first move on.
struct lightened_stretches {
  std::vector<shift_stretch> stretches;
  uint64_t given_up_weight = 0;
};

// Gives up the `bytes` of the new image that compress best; none for 0.
lightened_stretches give_up_bytes(const plan_images& images,
                                  std::span<const shift_stretch> stretches, uint32_t bytes);

// Pieces in circles are cut to parts of this many bytes, or of more where the circles are large:
// see part_bytes in move_pieces.cpp.
inline constexpr uint32_t kLeastPart = 1024;

// Cuts stretches to what the old image has, trims ends that differ, leaves out what is shorter than
// a block costs, and finds the circles. With `cut_long`, pieces in circles that are twice as long
// as the set's part_bytes are cut to about this length. With `fills`, pieces of one byte repeated
// are left out: a fill costs 7 bytes, a block 12. Where more than a few million pairs of pieces are
// in each other's way, which takes made-up images, short pieces are left out until they are fewer.
piece_set cut_pieces(const plan_images& images, const lightened_stretches& lightened, bool cut_long,
                     bool fills);

// The pieces to park or give up, so that the rest can go in some order. `park_percent` is what
// parking a piece is taken to cost, as a part of its length; `seed` starts the random numbers that
// vary the weights from one trial to the next.
std::vector<uint32_t> feedback_pieces(const piece_set& set, uint32_t park_percent, uint32_t seed);

}  // namespace kelvane
