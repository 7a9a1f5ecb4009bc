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

void piece_places::leave(uint32_t piece) {
  each_going(pieces_[piece].current, pieces_[piece].current_end(), [&](uint32_t other) {
    if (other != piece && pieces_[other].is_pending() && --pieces_[other].blockers == 0) {
      set_ready(other);
    }
  });
}

void piece_places::arrive(uint32_t piece) {
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

piece_places::source_order piece_places::by_source() const {
  source_order order;
  for (uint32_t piece = 0; piece < pieces_.size(); ++piece) {
    if (pieces_[piece].is_pending()) {
      order.pieces.push_back(piece);
    }
  }
  std::stable_sort(order.pieces.begin(), order.pieces.end(), [&](uint32_t first, uint32_t second) {
    return pieces_[first].current < pieces_[second].current;
  });
  int64_t end = 0;
  for (const uint32_t piece : order.pieces) {
    end = std::max(end, pieces_[piece].current_end());
    order.farthest.push_back(end);
  }
  return order;
}

// What has to be home before `piece`, itself included: everything that lies where it goes, and so
// on.
std::vector<uint8_t> piece_places::needed_before(uint32_t piece) const {
  const source_order order = by_source();
  std::vector<uint8_t> needed(pieces_.size(), 0);
  std::vector<uint32_t> open = {piece};
  needed[piece] = 1;
  while (!open.empty()) {
    const placed_piece& going = pieces_[open.back()];
    open.pop_back();
    each_lying(order, going.destination, going.destination_end(), [&](uint32_t lying) {
      if (needed[lying] == 0) {
        needed[lying] = 1;
        open.push_back(lying);
      }
      return true;
    });
  }
  return needed;
}

// All memory that is no hole. With `needed` only those destinations of pending pieces count that it
// marks.
std::vector<std::pair<int64_t, int64_t>> piece_places::taken_memory(
    const std::vector<uint8_t>* needed) const {
  // Destinations are kept in order; only the places at hand have to be sorted.
  std::vector<std::pair<int64_t, int64_t>> going = pinned_;
  const auto pinned = static_cast<ptrdiff_t>(going.size());
  for (const uint32_t index : by_destination_) {
    const placed_piece& piece = pieces_[index];
    if (piece.place == piece_place::home ||
        (piece.is_pending() && (needed == nullptr || (*needed)[index] != 0))) {
      going.emplace_back(piece.destination, piece.destination_end());
    }
  }
  std::inplace_merge(going.begin(), going.begin() + pinned, going.end());
  std::vector<std::pair<int64_t, int64_t>> taken;
  taken.reserve(going.size() + pending_ + 1);
  for (const placed_piece& piece : pieces_) {
    if (piece.is_pending()) {
      taken.emplace_back(piece.current, piece.current_end());
    }
  }
  std::sort(taken.begin(), taken.end());
  const auto lying = static_cast<ptrdiff_t>(taken.size());
  taken.insert(taken.end(), going.begin(), going.end());
  std::inplace_merge(taken.begin(), taken.begin() + lying, taken.end());
  return taken;
}

hole piece_places::find_hole(uint32_t piece, int64_t wanted) const {
  std::vector<uint8_t> needed;  // only if no hole is free of all
  hole largest;
  for (const bool soft : {false, true}) {
    if (soft) {
      needed = needed_before(piece);
    }
    std::vector<std::pair<int64_t, int64_t>> taken = taken_memory(soft ? &needed : nullptr);
    taken.emplace_back(holes_end_, holes_end_);
    hole smallest = {0, INT64_MAX};
    int64_t end = 0;
    for (const auto& [taken_begin, taken_end] : taken) {
      const hole free = {end, std::min(taken_begin, holes_end_) - end};
      if (free.size >= wanted && free.size < smallest.size) {
        smallest = free;
      }
      if (free.size > largest.size) {
        largest = free;
      }
      end = std::max(end, taken_end);
    }
    if (smallest.size != INT64_MAX) {
      return smallest;
    }
  }
  return largest;
}

}  // namespace kelvane
