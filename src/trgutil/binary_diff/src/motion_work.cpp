// Trees of moved pieces carried out: each move is added to the patch and done on the old bytes.

#include <algorithm>
#include <cstring>
#include <vector>

#include "diffshared.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "indgen_message.h"
#include "motion.h"
#include "motion_internal.h"

namespace kelvane {

namespace {

// The absolute block that was added last, with those that the writer joins to it.
struct State {
  uint32_t source;
  uint32_t size;
  uint32_t shift;
};
State state = {};

bool overlap(uint32_t start1, uint32_t size1, uint32_t start2, uint32_t size2) {
  return start2 - start1 < size1 || start1 - start2 < size2;
}

// Adds an absolute move of `size` bytes. Gives false, and adds nothing, if the writer would join it
// to the block in front although that block writes into its source: joined, the two move the bytes
// as they were before either.
bool add_block(uint32_t source, uint32_t size, uint32_t shift) {
  const bool is_behind = source == state.source + state.size;
  const bool is_in_front = source + size == state.source;
  const bool joins =
      first_abs_move != nullptr && shift == state.shift && (is_behind || is_in_front);
  if (joins && overlap(state.source + state.shift, state.size, source, size)) {
    return false;
  }
  add_abs_move(source, static_cast<int32_t>(shift));
  add_abs_move(source + size, 0);
  if (!joins) {
    state = {source, size, shift};
    return true;
  }
  state.source = is_behind ? state.source : source;
  state.size += size;
  return true;
}

// A piece on the way down to its children and up again.
struct Visit {
  const memory_map* piece;
  const memory_map* next_child;
  uint32_t length;   // bytes that lie inside the old section at the destination
  uint32_t used;     // bytes of the swap region taken further up
  uint32_t stashed;  // bytes of it that this piece takes
};

class TreeWork {
 public:
  explicit TreeWork(const motion_target& target) : target_(target) {}

  void work(const memory_map* root) {
    std::vector<Visit> path = {start(root, 0)};
    while (!path.empty()) {
      Visit& visit = path.back();
      const memory_map* const child = visit.next_child;
      if (child == nullptr) {
        finish(visit);
        path.pop_back();
      } else {
        visit.next_child = child->sibling;
        path.push_back(start(child, visit.used + visit.stashed));
      }
    }
  }

 private:
  // Whether the piece would match the new image better at its destination than what lies there.
  bool moved(const Visit& visit) const {
    const memory_map& piece = *visit.piece;
    return num_diffs(target_.old_bytes, piece.from, target_.new_bytes, piece.to, visit.length) <
           num_diffs(target_.old_bytes, piece.to, target_.new_bytes, piece.to, visit.length);
  }

  Visit start(const memory_map* piece, uint32_t used) {
    Visit visit = {piece, piece->child, piece->size, used, 0};
    if (piece->to >= target_.limit) {
      return visit;
    }
    visit.length = std::min(piece->size, target_.limit - piece->to);
    const uint32_t least = 2 * static_cast<uint32_t>(min_swap_block_size);
    if (piece->swap != 0 && piece->size > least && piece->size <= target_.swap_room - used &&
        moved(visit)) {
      park(&visit);
    }
    return visit;
  }

  void park(Visit* visit) {
    const memory_map& piece = *visit->piece;
    if (!add_block(target_.base + piece.from, piece.size,
                   target_.swap_offset + visit->used - piece.from)) {
      return;
    }
    if (target_.swap_buffer == nullptr) {
      gen_errorexit(kStatusFailure, "processTree: Fatal Algorithm Error");
    }
    visit->stashed = piece.size;
    std::memcpy(target_.swap_buffer + visit->used, target_.old_bytes + piece.from, piece.size);
  }

  void finish(const Visit& visit) {
    const memory_map& piece = *visit.piece;
    if (piece.to >= target_.limit) {
      return;
    }
    if (visit.stashed != 0) {
      const uint32_t swap_offset = target_.swap_offset + visit.used;
      if (moved(visit) &&
          add_block(target_.base + swap_offset, visit.length, piece.to - swap_offset)) {
        std::memcpy(target_.old_bytes + piece.to, target_.swap_buffer + visit.used, visit.length);
      }
    } else if (piece.swap == 0 && piece.size > static_cast<uint32_t>(min_swap_block_size) &&
               moved(visit) &&
               add_block(target_.base + piece.from, visit.length, piece.to - piece.from)) {
      std::memmove(target_.old_bytes + piece.to, target_.old_bytes + piece.from, visit.length);
    }
  }

  const motion_target& target_;
};

}  // namespace

void forget_last_block() {
  state = {};
}

void processTree(const memory_map* root, const motion_target& target) {
  TreeWork(target).work(root);
}

void processForest(const map_list& list, const motion_target& target) {
  for (const memory_map* piece = list.first(); piece != nullptr && swap_maxtrees != 0;
       piece = piece->next) {
    if (piece->root != 0) {
      ++swap_trees;
      processTree(piece, target);
    }
    ++swap_trees;
    if (swap_maxtrees > 0) {
      --swap_maxtrees;
    }
  }
}

uint64_t most_parked(const map_list& list) {
  struct Visit {
    const memory_map* piece;
    uint64_t above;
  };
  uint64_t most = 0;
  std::vector<Visit> ahead;
  for (const memory_map* root = list.first(); root != nullptr; root = root->next) {
    if (root->root != 0) {
      ahead.push_back({root, 0});
    }
    while (!ahead.empty()) {
      const auto [piece, above] = ahead.back();
      ahead.pop_back();
      const uint64_t sum = above + (piece->swap != 0 ? piece->size : 0U);
      most = std::max(most, sum);
      if (piece->root == 0 && piece->sibling != nullptr) {
        ahead.push_back({piece->sibling, above});
      }
      if (piece->child != nullptr) {
        ahead.push_back({piece->child, sum});
      }
    }
  }
  return most;
}

uint32_t num_diffs(const uint8_t* a, uint32_t a_offset, const uint8_t* b, uint32_t b_offset,
                   uint32_t count) {
  a += a_offset;
  b += b_offset;
  uint32_t differing = 0;
  for (uint32_t i = 0; i < count; ++i) {
    differing += a[i] != b[i] ? 1U : 0U;
  }
  return differing;
}

}  // namespace kelvane
