#pragma once

#include <optional>
#include <span>
#include <vector>

#include "move_pieces.h"

namespace kelvane {

// The graph of pieces, or nothing if finding it looks at more than `most_edges` pairs.
std::optional<piece_graph> conflicts_of(std::span<const moving_piece> pieces, size_t most_edges);

// Finds the strongly connected parts of a graph. Keeps its working memory from call to call.
class circle_search {
 public:
  explicit circle_search(const piece_graph& graph);
  // The parts of two pieces and more among `candidates`, of which those count that have a 1 in
  // `in_play`. Algorithm: R. Tarjan, "Depth-first search and linear graph algorithms", 1972, with
  // a stack of its own in place of recursion.
  std::vector<std::vector<uint32_t>> circles(std::span<const uint32_t> candidates,
                                             const std::vector<uint8_t>& in_play);

 private:
  struct step {
    uint32_t piece = 0;
    size_t next_edge = 0;
  };
  void finish(uint32_t piece, std::vector<std::vector<uint32_t>>& found);

  const piece_graph& graph_;
  std::vector<uint32_t> number_;  // 0: not met yet
  std::vector<uint32_t> lowest_;
  std::vector<uint8_t> open_;
  std::vector<uint8_t> candidate_;
  std::vector<uint32_t> open_stack_;
  std::vector<step> path_;
};

}  // namespace kelvane
