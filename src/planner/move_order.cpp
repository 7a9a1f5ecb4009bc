#include "move_order.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>

#include "memory_target.h"
#include "piece_places.h"

namespace kelvane {
namespace {

constexpr uint64_t kBlockWeight = 12 * kWeightOfByte;
// Weights of a blocker, in 1/100 of a byte: to park it, for each of its bytes, if it is parked
// already; and for 25 bytes of distance from the last source, for which near blocks may join.
constexpr uint64_t kBlockerWeight = 1400;
constexpr uint64_t kBlockerByteWeight = 3;
constexpr uint64_t kParkedBlockerWeight = 3000;
constexpr int64_t kDistanceOfWeight = 25;
constexpr int64_t kLeastSplitHole = 64;
constexpr int64_t kMostParts = 6;
constexpr uint64_t kLeastSplitWeight = 30 * kWeightOfByte;
constexpr int64_t kLeastExchangeHole = 48;
constexpr uint64_t kLeastExchangeWeight = 60 * kWeightOfByte;
constexpr int kMostParkings = 2;
// Looking for a hole goes over all pending pieces. When so many have been looked at, which takes
// images with thousands of pieces in circles, all that is in the way is given up.
constexpr uint64_t kMostLooks = 4000000;
// And when the orders of one search have looked at so many for each so many tries, and once more,
// no further one is tried: images that take so many looks gain nothing from another order.
constexpr uint64_t kTriesOfLooks = 16;

class carrying_out {
 public:
  carrying_out(const piece_set& set, std::span<const uint32_t> feedback, int64_t holes_end)
      : places_(set, feedback, holes_end), given_up_(set.given_up_weight) {}

  move_order run() {
    while (places_.pending() > 0) {
      if (places_.has_ready()) {
        send_home(places_.ready_piece(last_.source, last_.length, last_.shift()));
      } else {
        free_one();
      }
    }
    move_order order;
    order.blocks = joined();
    order.estimate = kBlockWeight * order.blocks.size() + given_up_;
    order.looks = looks_;
    return order;
  }

 private:
  struct block {
    int64_t source = 0;
    int64_t length = 0;
    int64_t destination = 0;
    int64_t shift() const { return destination - source; }
  };

  // The piece to free, with those that lie where it goes.
  struct blocked_piece {
    uint32_t piece = 0;
    std::vector<uint32_t> blockers;  // the longest first
  };

  void send_home(uint32_t piece) {
    const placed_piece& placed = places_[piece];
    last_ = {placed.current, placed.length, placed.destination};
    blocks_.push_back(last_);
    places_.go_home(piece);
  }

  void park(uint32_t piece, int64_t at) {
    blocks_.push_back({places_[piece].current, places_[piece].length, at});
    places_.park(piece, at);
  }

  bool park_in_hole(uint32_t piece) {
    const hole found = find_hole(piece, places_[piece].length);
    if (found.size < places_[piece].length) {
      return false;
    }
    park(piece, found.begin);
    return true;
  }

  uint32_t split(uint32_t piece, int64_t length) {
    looks_ += places_.size();
    return places_.split(piece, length);
  }

  hole find_hole(uint32_t piece, int64_t wanted) {
    looks_ += places_.size();
    return places_.find_hole(piece, wanted);
  }

  void give_up(uint32_t piece) {
    given_up_ += places_[piece].store_weight;
    places_.give_up(piece);
  }

  bool give_up_feedback() {
    bool any = false;
    for (uint32_t piece = 0; piece < places_.size(); ++piece) {
      if (places_[piece].in_feedback && places_[piece].is_pending()) {
        give_up(piece);
        any = true;
      }
    }
    return any;
  }

  void free_one() {
    if (looks_ >= kMostLooks && give_up_feedback()) {
      return;
    }
    blocked_piece blocked = cheapest_blocked();
    for (const uint32_t blocker : blocked.blockers) {
      if (get_out_of_the_way(blocker)) {
        return;
      }
    }
    if (exchange_part(blocked)) {
      return;
    }
    const uint32_t least = *std::min_element(
        blocked.blockers.begin(), blocked.blockers.end(), [&](uint32_t first, uint32_t second) {
          return places_[first].store_weight < places_[second].store_weight;
        });
    give_up(least);
  }

  // The piece whose blockers all are in the feedback set and cost least. There is one as long as
  // nothing is ready, for without the feedback set the pieces have an order; pieces of the set
  // itself are asked when only they are left.
  blocked_piece cheapest_blocked() {
    looks_ += places_.pending();
    const std::vector<int64_t> farthest = places_.farthest_ends();
    blocked_piece best;
    uint64_t least = UINT64_MAX;
    std::vector<uint32_t> blockers;
    for (const bool in_set_too : {false, true}) {
      for (const uint32_t piece : places_.by_source()) {
        const placed_piece& waiting = places_[piece];
        if (!in_set_too && waiting.in_feedback) {
          continue;
        }
        blockers.clear();
        bool is_possible = true;
        uint64_t weight = 0;
        places_.each_lying(
            farthest, waiting.destination, waiting.destination_end(), [&](uint32_t blocker) {
              const placed_piece& lying = places_[blocker];
              if (blocker == piece) {
                return true;
              }
              is_possible = in_set_too || lying.in_feedback;
              weight += kBlockerWeight + kBlockerByteWeight * static_cast<uint64_t>(lying.length) +
                        (lying.place == piece_place::parked ? kParkedBlockerWeight : 0);
              blockers.push_back(blocker);
              return is_possible;
            });
        weight +=
            static_cast<uint64_t>(std::abs(waiting.current - last_.source) / kDistanceOfWeight);
        if (is_possible && weight < least) {
          least = weight;
          best = {piece, blockers};
        }
      }
      if (least != UINT64_MAX) {
        break;
      }
    }
    std::stable_sort(best.blockers.begin(), best.blockers.end(),
                     [&](uint32_t first, uint32_t second) {
                       return places_[first].length > places_[second].length;
                     });
    return best;
  }

  // Parks the piece, or the part of it that the largest hole takes.
  bool get_out_of_the_way(uint32_t piece) {
    const placed_piece& blocker = places_[piece];
    if (blocker.times_parked >= kMostParkings || blocker.store_weight <= kBlockWeight) {
      return false;
    }
    const hole found = find_hole(piece, blocker.length);
    if (found.size >= blocker.length) {
      park(piece, found.begin);
      return true;
    }
    if (found.size < kLeastSplitHole || blocker.length > kMostParts * found.size ||
        blocker.place != piece_place::waiting) {
      return false;
    }
    const int64_t part = found.size & ~int64_t{3};
    if (blocker.store_weight * static_cast<uint64_t>(part) /
            static_cast<uint64_t>(blocker.length) <=
        kLeastSplitWeight) {
      return false;
    }
    split(piece, part);
    return park_in_hole(piece);
  }

  // Lets a part of the blocked piece go home that is as large as the largest hole: the end that can
  // go first. Only what lies there is parked.
  bool exchange_part(const blocked_piece& blocked) {
    const int64_t size = find_hole(blocked.blockers.front(), INT64_MAX).size & ~int64_t{3};
    const uint64_t least =
        places_[*std::min_element(blocked.blockers.begin(), blocked.blockers.end(),
                                  [&](uint32_t first, uint32_t second) {
                                    return places_[first].store_weight <
                                           places_[second].store_weight;
                                  })]
            .store_weight;
    if (size < kLeastExchangeHole || least <= kLeastExchangeWeight) {
      return false;
    }
    const placed_piece waiting = places_[blocked.piece];
    const int64_t length = std::min(size, waiting.length);
    const bool goes_up = waiting.shift() > 0;
    const int64_t begin = goes_up ? waiting.destination_end() - length : waiting.destination;
    const int64_t end = begin + length;
    std::vector<uint32_t> lying;
    int64_t parts = 1;
    for (const uint32_t blocker : blocked.blockers) {
      const placed_piece& piece = places_[blocker];
      if (piece.current < end && begin < piece.current_end()) {
        if (piece.place == piece_place::parked || piece.times_parked > 0) {
          return false;
        }
        lying.push_back(blocker);
        parts += 1 + (piece.current < begin ? 1 : 0) + (piece.current_end() > end ? 1 : 0);
      }
    }
    // 12 bytes a part have to be a good deal less than what is saved.
    if (lying.empty() || parts * 120 >= length * 6) {
      return false;
    }
    if (length < waiting.length) {
      split(blocked.piece, goes_up ? waiting.length - length : length);
    }
    bool parked = false;
    for (uint32_t piece : lying) {
      if (places_[piece].current < begin) {
        piece = split(piece, begin - places_[piece].current);
      }
      if (places_[piece].current_end() > end) {
        split(piece, end - places_[piece].current);
      }
      parked = park_in_hole(piece) || parked;
    }
    return parked;
  }

  // The blocks, neighbours of one shift that touch as one. Two are not joined if the second reads
  // what the first has written.
  std::vector<moved_block> joined() const {
    std::vector<block> joined;
    for (const block& next : blocks_) {
      if (next.shift() == 0) {
        continue;
      }
      if (!joined.empty() && joined.back().shift() == next.shift()) {
        block& last = joined.back();
        const bool reads_written = last.destination < next.source + next.length &&
                                   next.source < last.destination + last.length;
        const bool behind = last.source + last.length == next.source;
        const bool ahead = next.source + next.length == last.source;
        if (!reads_written && (behind || ahead)) {
          last.length += next.length;
          if (ahead) {
            last.source = next.source;
            last.destination = next.destination;
          }
          continue;
        }
      }
      joined.push_back(next);
    }
    std::vector<moved_block> blocks;
    blocks.reserve(joined.size());
    for (const block& each : joined) {
      blocks.push_back({static_cast<uint32_t>(each.source), static_cast<uint32_t>(each.length),
                        static_cast<uint32_t>(each.destination)});
    }
    return blocks;
  }

  piece_places places_;
  std::vector<block> blocks_;
  block last_;
  uint64_t given_up_ = 0;
  uint64_t looks_ = 0;
};

// Pins all that is no hole of target memory.
void reserve(const plan_images& images, bool outer_holes, piece_set& set) {
  if (const linear_map* const map = map_of(images)) {
    const auto reserved = map->reserved(outer_holes);
    set.pinned.insert(set.pinned.end(), reserved.begin(), reserved.end());
    std::sort(set.pinned.begin(), set.pinned.end());
  }
}

// An order that is so close to one block a stretch is good enough.
constexpr uint64_t kNothingToGain = 40 * kWeightOfByte;

// The settings that are tried, the first ones first: most of the gain is in the first ten.
struct order_try {
  bool cut_long;
  uint32_t sacrificed_parts;
  uint32_t park_percent;
  uint32_t seed;
};

std::vector<order_try> order_tries() {
  std::vector<order_try> tries;
  for (const uint32_t seed : {12345U, 777U, 4242U}) {
    for (const uint32_t park_percent : {40U, 15U, 100U}) {
      for (const bool cut_long : {true, false}) {
        for (const uint32_t sacrificed_parts : {0U, 1U, 2U}) {
          tries.push_back({cut_long, sacrificed_parts, park_percent, seed});
        }
      }
    }
  }
  return tries;
}

}  // namespace

move_order order_moves(const piece_set& set, const order_settings& settings) {
  const std::vector<uint32_t> feedback = feedback_pieces(set, settings.park_percent, settings.seed);
  return carrying_out(set, feedback, settings.holes_end).run();
}

move_order best_order(const plan_images& images, std::span<const shift_stretch> stretches,
                      const order_search_settings& settings) {
  const auto old_size = static_cast<int64_t>(images.old_image.size());
  const auto new_size = static_cast<int64_t>(images.new_image.size());
  const int64_t holes_end =
      settings.outer_holes ? std::max(old_size, new_size) : std::min(old_size, new_size);
  std::map<uint32_t, lightened_stretches> lightened;
  std::map<std::pair<uint32_t, bool>, piece_set> sets;
  uint32_t part_bytes = 0;  // known from the first set, which sacrifices none
  std::optional<move_order> best;
  uint64_t looks = 0;
  uint32_t made = 0;
  const uint64_t most_looks = kMostLooks * (1 + settings.tries / kTriesOfLooks);
  const std::vector<order_try> tries = order_tries();
  for (size_t i = 0; i < std::min<size_t>(tries.size(), settings.tries); ++i) {
    const order_try& now = tries[i];
    const uint32_t parts = now.sacrificed_parts;
    if (!lightened.contains(parts)) {
      lightened[parts] = give_up_bytes(images, stretches, parts * part_bytes);
    }
    const std::pair cut = {parts, now.cut_long};
    if (!sets.contains(cut)) {
      sets[cut] = cut_pieces(images, lightened[parts], now.cut_long, settings.fills);
      reserve(images, settings.outer_holes, sets[cut]);
    }
    const piece_set& set = sets[cut];
    part_bytes = i == 0 ? set.part_bytes : part_bytes;
    move_order order = order_moves(set, {now.park_percent, now.seed, holes_end});
    looks += order.looks;
    ++made;
    if (!best || order.estimate < best->estimate) {
      best = std::move(order);
    }
    // Free of circles, or nearly: what is left to gain is not worth the time.
    const uint64_t bound = kBlockWeight * set.stretches;
    if (i == 0 && (set.circles.empty() || best->estimate < bound + kNothingToGain)) {
      break;
    }
    if (looks > most_looks) {
      break;
    }
  }
  if (!best) {
    return {};
  }
  best->tries = made;
  return std::move(*best);
}

}  // namespace kelvane
