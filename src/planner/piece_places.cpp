#include "piece_places.h"

#include <numeric>

namespace kelvane {

piece_places::piece_places(const piece_set& set, std::span<const uint32_t> feedback,
                           int64_t holes_end)
    : pinned_(set.pinned), pending_(set.pieces.size()), holes_end_(holes_end) {
  pieces_.reserve(set.pieces.size());
  for (size_t i = 0; i < set.pieces.size(); ++i) {
    const moving_piece& piece = set.pieces[i];
    placed_piece placed;
    placed.current = piece.source;
    placed.length = piece.length;
    placed.destination = piece.destination;
    placed.store_weight = piece.store_weight;
    placed.blockers = static_cast<uint32_t>(set.graph.ahead[i].size());
    pieces_.push_back(placed);
  }
  for (const uint32_t piece : feedback) {
    pieces_[piece].in_feedback = true;
  }
  by_destination_.resize(pieces_.size());
  std::iota(by_destination_.begin(), by_destination_.end(), 0U);
  std::stable_sort(by_destination_.begin(), by_destination_.end(),
                   [&](uint32_t first, uint32_t second) {
                     return pieces_[first].destination < pieces_[second].destination;
                   });
  by_source_.resize(pieces_.size());
  std::iota(by_source_.begin(), by_source_.end(), 0U);
  std::stable_sort(by_source_.begin(), by_source_.end(), [&](uint32_t first, uint32_t second) {
    return pieces_[first].current < pieces_[second].current;
  });
  for (uint32_t piece = 0; piece < pieces_.size(); ++piece) {
    if (pieces_[piece].blockers == 0) {
      set_ready(piece);
    }
  }
}

void piece_places::set_ready(uint32_t piece) {
  const placed_piece& placed = pieces_[piece];
  ready_.emplace(placed.current, piece);
  if (placed.place == piece_place::parked) {
    ready_parked_.emplace(placed.current, piece);
  }
}

void piece_places::unset_ready(uint32_t piece) {
  ready_.erase({pieces_[piece].current, piece});
  ready_parked_.erase({pieces_[piece].current, piece});
}

uint32_t piece_places::ready_piece(int64_t source, int64_t length, int64_t shift) const {
  const auto goes_on = [&](const key& at) { return pieces_[at.second].shift() == shift; };
  auto at = ready_.lower_bound({source + length, 0});
  for (; at != ready_.end() && at->first == source + length; ++at) {
    if (goes_on(*at)) {
      return at->second;
    }
  }
  at = ready_.lower_bound({source, 0});
  if (at != ready_.begin()) {
    const key before = *std::prev(at);
    if (pieces_[before.second].current_end() == source && goes_on(before)) {
      return before.second;
    }
  }
  if (!ready_parked_.empty()) {
    return ready_parked_.begin()->second;
  }
  if (at == ready_.end()) {
    return std::prev(at)->second;
  }
  if (at != ready_.begin() && source - std::prev(at)->first < at->first - source) {
    --at;
  }
  return at->second;
}

template <typename Take>
void piece_places::each_going(int64_t begin, int64_t end, const Take& take) {
  // Destinations are disjoint, so those that end behind `begin` follow each other.
  auto at = std::partition_point(
      by_destination_.begin(), by_destination_.end(),
      [&](uint32_t piece) { return pieces_[piece].destination_end() <= begin; });
  for (; at != by_destination_.end() && pieces_[*at].destination < end; ++at) {
    take(*at);
  }
}

std::vector<uint32_t>::iterator piece_places::place_by_source(uint32_t piece) {
  const auto key_of = [&](uint32_t each) { return key(pieces_[each].current, each); };
  return std::lower_bound(
      by_source_.begin(), by_source_.end(), piece,
      [&](uint32_t first, uint32_t second) { return key_of(first) < key_of(second); });
}

void piece_places::leave(uint32_t piece) {
  by_source_.erase(place_by_source(piece));
  each_going(pieces_[piece].current, pieces_[piece].current_end(), [&](uint32_t other) {
    if (other != piece && pieces_[other].is_pending() && --pieces_[other].blockers == 0) {
      set_ready(other);
    }
  });
}

void piece_places::arrive(uint32_t piece) {
  by_source_.insert(place_by_source(piece), piece);
  each_going(pieces_[piece].current, pieces_[piece].current_end(), [&](uint32_t other) {
    if (other != piece && pieces_[other].is_pending() && pieces_[other].blockers++ == 0) {
      unset_ready(other);
    }
  });
}

void piece_places::go_home(uint32_t piece) {
  unset_ready(piece);
  leave(piece);
  pieces_[piece].place = piece_place::home;
  --pending_;
}

void piece_places::give_up(uint32_t piece) {
  unset_ready(piece);
  leave(piece);
  pieces_[piece].place = piece_place::given_up;
  --pending_;
}

void piece_places::park(uint32_t piece, int64_t at) {
  unset_ready(piece);
  leave(piece);
  placed_piece& placed = pieces_[piece];
  placed.current = at;
  placed.place = piece_place::parked;
  ++placed.times_parked;
  arrive(piece);
  if (placed.blockers == 0) {
    set_ready(piece);
  }
}

uint32_t piece_places::split(uint32_t piece, int64_t length) {
  unset_ready(piece);
  leave(piece);
  const auto rest = static_cast<uint32_t>(pieces_.size());
  placed_piece second = pieces_[piece];
  placed_piece& first = pieces_[piece];
  second.current += length;
  second.destination += length;
  second.length -= length;
  first.store_weight =
      first.store_weight * static_cast<uint64_t>(length) / static_cast<uint64_t>(first.length);
  second.store_weight -= first.store_weight;
  first.length = length;
  pieces_.push_back(second);
  ++pending_;
  const auto at = std::find(by_destination_.begin(), by_destination_.end(), piece);
  by_destination_.insert(at + 1, rest);
  // Who is in their way, but for each other, whom `arrive` counts.
  for (const uint32_t part : {piece, rest}) {
    placed_piece& placed = pieces_[part];
    placed.blockers = 0;
    for (uint32_t other = 0; other < rest; ++other) {
      const placed_piece& lying = pieces_[other];
      if (other != piece && lying.is_pending() && lying.current < placed.destination_end() &&
          placed.destination < lying.current_end()) {
        ++placed.blockers;
      }
    }
  }
  arrive(piece);
  arrive(rest);
  for (const uint32_t part : {piece, rest}) {
    if (pieces_[part].blockers == 0) {
      set_ready(part);
    }
  }
  return rest;
}

std::vector<int64_t> piece_places::farthest_ends() const {
  std::vector<int64_t> farthest;
  farthest.reserve(by_source_.size());
  int64_t end = 0;
  for (const uint32_t piece : by_source_) {
    end = std::max(end, pieces_[piece].current_end());
    farthest.push_back(end);
  }
  return farthest;
}

// What has to be home before `piece`, itself included: everything that lies where it goes, and so
// on.
std::vector<uint8_t> piece_places::needed_before(uint32_t piece) const {
  const std::vector<int64_t> farthest = farthest_ends();
  std::vector<uint8_t> needed(pieces_.size(), 0);
  std::vector<uint32_t> open = {piece};
  needed[piece] = 1;
  while (!open.empty()) {
    const placed_piece& going = pieces_[open.back()];
    open.pop_back();
    each_lying(farthest, going.destination, going.destination_end(), [&](uint32_t lying) {
      if (needed[lying] == 0) {
        needed[lying] = 1;
        open.push_back(lying);
      }
      return true;
    });
  }
  return needed;
}

// The three lists are in order, and gone over side by side.
template <typename Take>
void piece_places::each_taken(const std::vector<uint8_t>* needed, const Take& take) const {
  auto pinned = pinned_.begin();
  auto going = by_destination_.begin();
  auto lying = by_source_.begin();
  for (;;) {
    const int64_t pinned_begin = pinned != pinned_.end() ? pinned->first : INT64_MAX;
    const int64_t going_begin =
        going != by_destination_.end() ? pieces_[*going].destination : INT64_MAX;
    const int64_t lying_begin = lying != by_source_.end() ? pieces_[*lying].current : INT64_MAX;
    const int64_t begin = std::min({pinned_begin, going_begin, lying_begin});
    if (begin == INT64_MAX) {
      return;
    }
    if (begin == lying_begin) {
      take(begin, pieces_[*lying++].current_end());
    } else if (begin == pinned_begin) {
      take(begin, (pinned++)->second);
    } else {
      const uint32_t index = *going++;
      const placed_piece& piece = pieces_[index];
      if (piece.place == piece_place::home ||
          (piece.is_pending() && (needed == nullptr || (*needed)[index] != 0))) {
        take(begin, piece.destination_end());
      }
    }
  }
}

hole piece_places::find_hole(uint32_t piece, int64_t wanted) const {
  std::vector<uint8_t> needed;  // only if no hole is free of all
  hole largest;
  for (const bool soft : {false, true}) {
    if (soft) {
      needed = needed_before(piece);
    }
    hole smallest = {0, INT64_MAX};
    int64_t end = 0;
    const auto look_ahead_of = [&](int64_t taken_begin, int64_t taken_end) {
      const hole free = {end, std::min(taken_begin, holes_end_) - end};
      if (free.size >= wanted && free.size < smallest.size) {
        smallest = free;
      }
      if (free.size > largest.size) {
        largest = free;
      }
      end = std::max(end, taken_end);
    };
    each_taken(soft ? &needed : nullptr, look_ahead_of);
    look_ahead_of(holes_end_, holes_end_);
    if (smallest.size != INT64_MAX) {
      return smallest;
    }
  }
  return largest;
}

}  // namespace kelvane
