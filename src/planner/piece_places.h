#pragma once

// Where every piece is while the moves are carried out, and who waits for whom. Internal to the
// order of moves.

#include <algorithm>
#include <cstdint>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "move_pieces.h"

namespace kelvane {

enum class piece_place : uint8_t { waiting, parked, home, given_up };

struct placed_piece {
  int64_t current = 0;
  int64_t length = 0;
  int64_t destination = 0;
  uint64_t store_weight = 0;
  piece_place place = piece_place::waiting;
  uint8_t times_parked = 0;
  bool in_feedback = false;
  uint32_t blockers = 0;  // pieces that still lie where this one goes

  bool is_pending() const { return place <= piece_place::parked; }
  int64_t current_end() const { return current + length; }
  int64_t destination_end() const { return destination + length; }
  int64_t shift() const { return destination - current; }
};

struct hole {
  int64_t begin = 0;
  int64_t size = 0;
};

class piece_places {
 public:
  piece_places(const piece_set& set, std::span<const uint32_t> feedback, int64_t holes_end);

  size_t size() const { return pieces_.size(); }
  size_t pending() const { return pending_; }
  const placed_piece& operator[](uint32_t piece) const { return pieces_[piece]; }

  // A piece that is free to go home: at best the one that goes on with a block from `source` of
  // `length` bytes by `shift`, else a parked one, else the nearest. There has to be one.
  bool has_ready() const { return !ready_.empty(); }
  uint32_t ready_piece(int64_t source, int64_t length, int64_t shift) const;

  void go_home(uint32_t piece);
  void give_up(uint32_t piece);
  void park(uint32_t piece, int64_t at);
  // The piece keeps its first `length` bytes; gives the new piece, which is the rest.
  uint32_t split(uint32_t piece, int64_t length);

  // Pending pieces by their current place.
  const std::vector<uint32_t>& by_source() const { return by_source_; }
  // The farthest end of all up to each of them.
  std::vector<int64_t> farthest_ends() const;
  // Calls take(piece) for the pending pieces that lie between `begin` and `end`, the farthest
  // first; stops when it gives false. `farthest`: as it is now.
  template <typename Take>
  void each_lying(const std::vector<int64_t>& farthest, int64_t begin, int64_t end,
                  const Take& take) const {
    auto i = static_cast<size_t>(std::lower_bound(by_source_.begin(), by_source_.end(), end,
                                                  [&](uint32_t piece, int64_t limit) {
                                                    return pieces_[piece].current < limit;
                                                  }) -
                                 by_source_.begin());
    while (i-- > 0 && farthest[i] > begin) {
      const uint32_t piece = by_source_[i];
      if (pieces_[piece].current_end() > begin && !take(piece)) {
        return;
      }
    }
  }

  // The smallest hole for `piece` of at least `wanted` bytes or, if there is none, the largest.
  // Preferred are holes where no piece goes at all that must be home before this one.
  hole find_hole(uint32_t piece, int64_t wanted) const;

 private:
  using key = std::pair<int64_t, uint32_t>;
  void set_ready(uint32_t piece);
  void unset_ready(uint32_t piece);
  // Calls take(piece) for all pieces whose destination meets `begin` to `end`.
  template <typename Take>
  void each_going(int64_t begin, int64_t end, const Take& take);
  void leave(uint32_t piece);
  void arrive(uint32_t piece);
  std::vector<uint8_t> needed_before(uint32_t piece) const;
  // Calls take(begin, end) for all memory that is no hole, by ascending begin. With `needed` only
  // those destinations of pending pieces count that it marks.
  template <typename Take>
  void each_taken(const std::vector<uint8_t>* needed, const Take& take) const;
  // Where a pending piece stands in by_source_, or would stand.
  std::vector<uint32_t>::iterator place_by_source(uint32_t piece);

  std::vector<placed_piece> pieces_;
  std::vector<uint32_t> by_destination_;
  std::vector<uint32_t> by_source_;  // of equal places, the lower number first
  std::vector<std::pair<int64_t, int64_t>> pinned_;
  std::set<key> ready_;
  std::set<key> ready_parked_;
  size_t pending_ = 0;
  int64_t holes_end_ = 0;
};

}  // namespace kelvane
