#include "plain_motion.h"

#include <algorithm>
#include <cstring>

namespace kelvane {

namespace {

bool overlap(uint64_t start1, uint64_t size1, uint64_t start2, uint64_t size2) {
  return start1 < start2 + size2 && start2 < start1 + size1;
}

uint64_t most_parked_below(const PlainPiece* piece) {
  uint64_t most = 0;
  for (const PlainPiece* const child : piece->children) {
    most = std::max(most, most_parked_below(child));
  }
  return most + (piece->swap ? piece->size : 0);
}

}  // namespace

std::vector<found_block> plain_moved_blocks(std::span<const uint8_t> old_bytes,
                                            std::span<const uint8_t> new_bytes, uint32_t limit) {
  std::vector<found_block> blocks;
  for (size_t i = 0; i < old_bytes.size(); ++i) {
    for (size_t j = 0; j < new_bytes.size(); ++j) {
      size_t k = 0;
      while (i + k < old_bytes.size() && j + k < new_bytes.size() &&
             old_bytes[i + k] == new_bytes[j + k]) {
        ++k;
      }
      if (k > limit && i != j) {
        blocks.push_back(
            {static_cast<uint32_t>(i), static_cast<uint32_t>(j), static_cast<uint32_t>(k)});
        i += k;
        break;
      }
    }
  }
  return blocks;
}

bool PlainMotion::insert(uint32_t from, uint32_t to, uint32_t size) {
  auto place = pieces.begin();
  while (place != pieces.end() && place->from < from) {
    ++place;
  }
  if (place != pieces.begin() && place != pieces.end() && place->from == from) {
    return false;
  }
  pieces.insert(place, PlainPiece{from, to, size});
  return true;
}

void PlainMotion::insert_split(const PlainPiece& piece) {
  auto place = pieces.begin();
  while (place != pieces.end() && place->from <= piece.from) {
    ++place;
  }
  pieces.insert(place, piece);
}

bool PlainMotion::is_map(uint32_t from, uint32_t to, uint32_t size) const {
  return std::any_of(pieces.begin(), pieces.end(), [&](const PlainPiece& piece) {
    return overlap(piece.from, piece.size, from, size) || overlap(piece.to, piece.size, to, size);
  });
}

void PlainMotion::build_tree(PlainPiece* piece, int32_t level) {
  piece->built = true;
  piece->level = level;
  for (PlainPiece& met : pieces) {
    if (&met == piece || !overlap(met.from, met.size, piece->to, piece->size)) {
      continue;
    }
    if (met.built && met.root && met.level < 0) {
      met.level = -2;
    } else if (met.built) {
      met.swap = true;
    } else if (!met.is_child) {
      if (met.from < piece->to) {
        const uint32_t excess = piece->to - met.from;
        const PlainPiece front{met.from, met.to, excess};
        met.from += excess;
        met.to += excess;
        met.size -= excess;
        insert_split(front);
      }
      if (met.from + met.size > piece->to + piece->size) {
        const uint32_t excess = met.from + met.size - (piece->to + piece->size);
        met.size -= excess;
        insert_split(PlainPiece{piece->to + piece->size, met.to + met.size, excess});
      }
      met.is_child = true;
      piece->children.push_back(&met);
    }
  }
  for (PlainPiece* const child : piece->children) {
    build_tree(child, level + 1);
  }
}

uint32_t PlainMotion::build_forest(int32_t deconstruct) {
  uint32_t need = 0;
  for (;;) {
    for (PlainPiece& piece : pieces) {
      if (!piece.built && piece.level == -1) {
        piece.root = true;
        build_tree(&piece, 0);
        piece.level = -1;
        need = piece.swap ? std::max(need, piece.size) : need;
      }
    }
    if (deconstruct <= 0 || std::none_of(pieces.begin(), pieces.end(), [](const PlainPiece& piece) {
          return piece.level == -2;
        })) {
      return need;
    }
    for (PlainPiece& piece : pieces) {
      piece = PlainPiece{piece.from, piece.to, piece.size, piece.level};
    }
    --deconstruct;
  }
}

uint64_t PlainMotion::most_parked() const {
  uint64_t most = 0;
  for (const PlainPiece& piece : pieces) {
    most = std::max(most, piece.root ? most_parked_below(&piece) : 0);
  }
  return most;
}

bool PlainMotion::add_move(uint32_t source, uint32_t size, uint32_t shift) {
  const bool joins = !moves.empty() && joined_.shift == shift &&
                     (joined_.source + joined_.size == source || source + size == joined_.source);
  // Every byte that the joined block writes, against every byte that is to be read.
  for (uint32_t i = 0; joins && i < joined_.size; ++i) {
    if (joined_.source + shift + i - source < size) {
      return false;
    }
  }
  moves.push_back({source, size, shift});
  joined_ = joins ? PlainMove{source < joined_.source ? source : joined_.source,
                              joined_.size + size, shift}
                  : moves.back();
  return true;
}

void PlainMotion::process_tree(const PlainPiece* piece, const motion_target& target, uint32_t used,
                               uint32_t least) {
  uint8_t* const old_bytes = target.old_bytes;
  const bool is_inside = piece->to < target.limit;
  const uint32_t length = is_inside ? std::min(piece->size, target.limit - piece->to) : 0;
  const auto moved = [&] {
    int64_t gain = 0;
    for (uint32_t i = 0; i < length; ++i) {
      const uint8_t wanted = target.new_bytes[piece->to + i];
      gain += (old_bytes[piece->to + i] != wanted ? 1 : 0) -
              (old_bytes[piece->from + i] != wanted ? 1 : 0);
    }
    return gain > 0;
  };
  uint32_t stashed = 0;
  const uint32_t parked_at = target.swap_offset + used;
  if (is_inside && piece->swap && piece->size > 2 * least &&
      piece->size <= target.swap_room - used && moved() &&
      add_move(target.base + piece->from, piece->size, parked_at - piece->from)) {
    stashed = piece->size;
    std::memcpy(target.swap_buffer + used, old_bytes + piece->from, stashed);
  }
  for (const PlainPiece* const child : piece->children) {
    process_tree(child, target, used + stashed, least);
  }
  if (!is_inside) {
    return;
  }
  if (stashed != 0) {
    if (moved() && add_move(target.base + parked_at, length, piece->to - parked_at)) {
      std::memcpy(old_bytes + piece->to, target.swap_buffer + used, length);
    }
  } else if (!piece->swap && piece->size > least && moved() &&
             add_move(target.base + piece->from, length, piece->to - piece->from)) {
    std::memmove(old_bytes + piece->to, old_bytes + piece->from, length);
  }
}

void PlainMotion::process_forest(const motion_target& target, int32_t* max_trees, uint32_t least) {
  for (const PlainPiece& piece : pieces) {
    if (*max_trees == 0) {
      return;
    }
    if (piece.root) {
      ++trees;
      process_tree(&piece, target, 0, least);
    }
    ++trees;
    *max_trees -= *max_trees > 0 ? 1 : 0;
  }
}

}  // namespace kelvane
