#include <algorithm>

#include "move_pieces_internal.h"

namespace kelvane {
namespace {

// Moving a piece once more costs a block, and a bit.
constexpr uint64_t kParkWeight = 13 * kWeightOfByte;
// Trials; the larger the circles, the fewer.
constexpr int kTrials = 6;
constexpr int kTrialsOfMany = 3;
constexpr size_t kMany = 1000;
constexpr size_t kVeryMany = 3000;
// One of so many pieces of a circle is taken out before what is left of it is looked at again.
constexpr size_t kPiecesATurn = 1024;

class feedback_search {
 public:
  feedback_search(const piece_set& set, uint32_t park_percent, uint32_t seed)
      : set_(set), search_(set.graph), random_(seed), noise_(set.pieces.size(), 1024) {
    for (const moving_piece& piece : set.pieces) {
      weights_.push_back(std::min(
          piece.store_weight, kParkWeight + static_cast<uint64_t>(piece.length) * park_percent));
    }
  }

  std::vector<uint32_t> run() {
    size_t in_circles = 0;
    for (const auto& circle : set_.circles) {
      in_circles += circle.size();
    }
    const int trials = in_circles > kVeryMany ? 1 : in_circles > kMany ? kTrialsOfMany : kTrials;
    std::vector<uint32_t> best;
    uint64_t least = UINT64_MAX;
    for (int trial = 0; trial < trials; ++trial) {
      draw_noise();
      in_play_.assign(set_.pieces.size(), 1);
      std::vector<uint32_t> taken = take_out(trial % 2 == 1);
      put_back(taken);
      uint64_t weight = 0;
      for (const uint32_t piece : taken) {
        weight += weights_[piece];
      }
      if (weight < least) {
        least = weight;
        best = std::move(taken);
      }
    }
    return best;
  }

 private:
  // Factors of 0.6 to 1.4, in 1024ths.
  void draw_noise() {
    for (const auto& circle : set_.circles) {
      for (const uint32_t piece : circle) {
        random_ = random_ * 1664525U + 1013904223U;
        noise_[piece] = 614 + (((random_ >> 8U) * uint64_t{820}) >> 24U);
      }
    }
  }

  // Takes pieces out of the circles until there is none: each time the one with the least weight
  // for its edges, or the few that have least of it in a large circle, for which going over all of
  // it for every piece would take time by the square of its size.
  std::vector<uint32_t> take_out(bool by_lesser_degree) {
    std::vector<uint32_t> taken;
    std::vector<std::pair<uint64_t, uint32_t>> ratios;
    std::vector<std::vector<uint32_t>> work = set_.circles;
    std::vector<uint32_t> mark(set_.pieces.size(), 0);
    for (uint32_t turn = 1; !work.empty(); ++turn) {
      const std::vector<uint32_t> circle = std::move(work.back());
      work.pop_back();
      for (const uint32_t piece : circle) {
        mark[piece] = turn;
      }
      const auto degree = [&](const std::vector<uint32_t>& edges) {
        return static_cast<uint64_t>(std::count_if(edges.begin(), edges.end(), [&](uint32_t other) {
          return in_play_[other] != 0 && mark[other] == turn;
        }));
      };
      ratios.clear();
      for (const uint32_t piece : circle) {
        const uint64_t in = degree(set_.graph.ahead[piece]);
        const uint64_t out = degree(set_.graph.behind[piece]);
        const uint64_t parts =
            std::max<uint64_t>(by_lesser_degree ? std::min(in, out) : in * out, 1);
        ratios.emplace_back(weights_[piece] * noise_[piece] * 16 / parts, ratios.size());
      }
      const size_t count = 1 + circle.size() / kPiecesATurn;
      std::partial_sort(ratios.begin(), ratios.begin() + static_cast<ptrdiff_t>(count),
                        ratios.end());
      for (size_t i = 0; i < count; ++i) {
        const uint32_t chosen = circle[ratios[i].second];
        in_play_[chosen] = 0;
        taken.push_back(chosen);
      }
      for (auto& part : search_.circles(circle, in_play_)) {
        work.push_back(std::move(part));
      }
    }
    return taken;
  }

  // Puts back, dearest first, what closes no circle after all.
  void put_back(std::vector<uint32_t>& taken) {
    std::stable_sort(taken.begin(), taken.end(), [&](uint32_t first, uint32_t second) {
      return weights_[first] > weights_[second];
    });
    std::vector<uint32_t> seen(set_.pieces.size(), 0);
    uint32_t turn = 0;
    std::erase_if(taken, [&](uint32_t piece) {
      if (closes_circle(piece, ++turn, seen)) {
        return false;
      }
      in_play_[piece] = 1;
      return true;
    });
  }

  bool closes_circle(uint32_t piece, uint32_t turn, std::vector<uint32_t>& seen) const {
    std::vector<uint32_t> open = {piece};
    while (!open.empty()) {
      const uint32_t at = open.back();
      open.pop_back();
      for (const uint32_t next : set_.graph.behind[at]) {
        if (next == piece) {
          return true;
        }
        if (in_play_[next] != 0 && seen[next] != turn) {
          seen[next] = turn;
          open.push_back(next);
        }
      }
    }
    return false;
  }

  const piece_set& set_;
  circle_search search_;
  uint32_t random_;
  std::vector<uint64_t> noise_;
  std::vector<uint64_t> weights_;
  std::vector<uint8_t> in_play_;
};

}  // namespace

circle_search::circle_search(const piece_graph& graph)
    : graph_(graph),
      number_(graph.ahead.size(), 0),
      lowest_(graph.ahead.size(), 0),
      open_(graph.ahead.size(), 0),
      candidate_(graph.ahead.size(), 0) {}

std::vector<std::vector<uint32_t>> circle_search::circles(std::span<const uint32_t> candidates,
                                                          const std::vector<uint8_t>& in_play) {
  std::vector<std::vector<uint32_t>> found;
  for (const uint32_t piece : candidates) {
    number_[piece] = 0;
    candidate_[piece] = in_play[piece];
  }
  uint32_t count = 0;
  const auto meet = [&](uint32_t piece) {
    number_[piece] = lowest_[piece] = ++count;
    open_[piece] = 1;
    open_stack_.push_back(piece);
    path_.push_back({piece, 0});
  };
  for (const uint32_t root : candidates) {
    if (candidate_[root] == 0 || number_[root] != 0) {
      continue;
    }
    meet(root);
    while (!path_.empty()) {
      step& at = path_.back();
      const std::vector<uint32_t>& edges = graph_.behind[at.piece];
      if (at.next_edge == edges.size()) {
        finish(at.piece, found);
        continue;
      }
      const uint32_t next = edges[at.next_edge++];
      if (candidate_[next] == 0) {
        continue;
      }
      if (number_[next] == 0) {
        meet(next);
      } else if (open_[next] != 0) {
        lowest_[at.piece] = std::min(lowest_[at.piece], number_[next]);
      }
    }
  }
  for (const uint32_t piece : candidates) {
    candidate_[piece] = 0;
  }
  return found;
}

void circle_search::finish(uint32_t piece, std::vector<std::vector<uint32_t>>& found) {
  path_.pop_back();
  if (!path_.empty()) {
    uint32_t& lowest = lowest_[path_.back().piece];
    lowest = std::min(lowest, lowest_[piece]);
  }
  if (lowest_[piece] != number_[piece]) {
    return;
  }
  std::vector<uint32_t> part;
  do {
    part.push_back(open_stack_.back());
    open_[part.back()] = 0;
    open_stack_.pop_back();
  } while (part.back() != piece);
  if (part.size() > 1) {
    found.push_back(std::move(part));
  }
}

std::vector<uint32_t> feedback_pieces(const piece_set& set, uint32_t park_percent, uint32_t seed) {
  if (set.circles.empty()) {
    return {};
  }
  return feedback_search(set, park_percent, seed).run();
}

}  // namespace kelvane
