#pragma once

#include <cstdint>
#include <list>
#include <span>
#include <vector>

#include "block_pass.h"
#include "motion.h"

// Motion as plain loops over lists and as plain recursion: the oracle for the indexed one.
namespace kelvane {

std::vector<found_block> plain_moved_blocks(std::span<const uint8_t> old_bytes,
                                            std::span<const uint8_t> new_bytes, uint32_t limit);

struct PlainPiece {
  uint32_t from;
  uint32_t to;
  uint32_t size;
  int32_t level = -1;
  bool built = false;
  bool root = false;
  bool swap = false;
  bool is_child = false;
  std::vector<PlainPiece*> children = {};
};

// An absolute move that has been made.
struct PlainMove {
  uint32_t source;
  uint32_t size;
  uint32_t shift;
  friend bool operator==(const PlainMove&, const PlainMove&) = default;
};

class PlainMotion {
 public:
  // Gives false where the list has an inner piece with the same `from`.
  bool insert(uint32_t from, uint32_t to, uint32_t size);
  bool is_map(uint32_t from, uint32_t to, uint32_t size) const;

  uint32_t build_forest(int32_t deconstruct);
  uint64_t most_parked() const;
  // `max_trees` counts down, as swap_maxtrees does; `least` is the least size of a move.
  void process_forest(const motion_target& target, int32_t* max_trees, uint32_t least);

  std::list<PlainPiece> pieces;
  std::vector<PlainMove> moves;
  int32_t trees = 0;

 private:
  void insert_split(const PlainPiece& piece);
  void build_tree(PlainPiece* piece, int32_t level);
  bool add_move(uint32_t source, uint32_t size, uint32_t shift);
  void process_tree(const PlainPiece* piece, const motion_target& target, uint32_t used,
                    uint32_t least);

  PlainMove joined_ = {};
};

}  // namespace kelvane
