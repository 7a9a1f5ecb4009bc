#include "memory_map.h"

#include <algorithm>

#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"

namespace kelvane {

namespace {

// Takes the summary of a node from its own source and from those of the two nodes below it.
void summarize(memory_map* node) {
  node->least_from = node->from;
  node->greatest_from = node->from;
  node->greatest_end = node->from + node->size;
  for (const memory_map* const below : {node->left, node->right}) {
    if (below != nullptr) {
      node->least_from = std::min(node->least_from, below->least_from);
      node->greatest_from = std::max(node->greatest_from, below->greatest_from);
      node->greatest_end = std::max(node->greatest_end, below->greatest_end);
    }
  }
}

void summarize_upwards(memory_map* node) {
  for (; node != nullptr; node = node->above) {
    summarize(node);
  }
}

bool overlaps(const memory_map* node, uint32_t start, uint32_t end) {
  return node->from < end && node->from + node->size > start;
}

// The first piece of the list in the subtree that overlaps. As deep as the tree, which is shallow.
memory_map* first_overlap(memory_map* subtree, uint32_t start, uint32_t end) {
  if (subtree == nullptr || subtree->least_from >= end || subtree->greatest_end <= start) {
    return nullptr;
  }
  memory_map* const found = first_overlap(subtree->left, start, end);
  if (found != nullptr) {
    return found;
  }
  return overlaps(subtree, start, end) ? subtree : first_overlap(subtree->right, start, end);
}

memory_map* rightmost(memory_map* node) {
  while (node->right != nullptr) {
    node = node->right;
  }
  return node;
}

// The piece in front of the one that was just hung into the tree as a leaf.
memory_map* predecessor_of_leaf(const memory_map* leaf) {
  const memory_map* node = leaf;
  while (node->above != nullptr && node->above->left == node) {
    node = node->above;
  }
  return node->above;
}

}  // namespace

memory_map* new_map(uint32_t from, uint32_t to, uint32_t size) {
  memory_map* const piece = gen_alloc_array<memory_map>(1);
  piece->from = from;
  piece->to = to;
  piece->size = size;
  piece->level = -1;
  return piece;
}

map_list::~map_list() {
  for (memory_map* piece = first_; piece != nullptr;) {
    memory_map* const next = piece->next;
    gen_free(piece);
    piece = next;
  }
}

memory_map* map_list::next_overlap(memory_map* behind, uint32_t start, uint32_t end) const {
  if (behind == nullptr) {
    return first_overlap(top_, start, end);
  }
  memory_map* found = first_overlap(behind->right, start, end);
  for (memory_map* node = behind; found == nullptr && node->above != nullptr; node = node->above) {
    memory_map* const above = node->above;
    if (above->left == node) {
      found = overlaps(above, start, end) ? above : first_overlap(above->right, start, end);
    }
  }
  return found;
}

memory_map* map_list::first_at_or_above(uint32_t from) const {
  memory_map* node = top_;
  if (node == nullptr || node->greatest_from < from) {
    return nullptr;
  }
  for (;;) {
    if (node->left != nullptr && node->left->greatest_from >= from) {
      node = node->left;
    } else if (node->from >= from) {
      return node;
    } else {
      node = node->right;
    }
  }
}

void map_list::insert_before(memory_map* successor, memory_map* piece) {
  piece->left = nullptr;
  piece->right = nullptr;
  piece->priority = next_priority();
  memory_map* predecessor = nullptr;
  if (successor != nullptr && successor->left == nullptr) {
    successor->left = piece;
    piece->above = successor;
    predecessor = predecessor_of_leaf(piece);
  } else if (top_ == nullptr) {
    top_ = piece;
    piece->above = nullptr;
  } else {
    predecessor = rightmost(successor != nullptr ? successor->left : top_);
    predecessor->right = piece;
    piece->above = predecessor;
  }
  memory_map*& link = predecessor == nullptr ? first_ : predecessor->next;
  piece->next = link;
  link = piece;
  summarize_upwards(piece);
  while (piece->above != nullptr && piece->above->priority < piece->priority) {
    rotate_up(piece);
  }
}

void map_list::source_changed(memory_map* piece) {
  summarize_upwards(piece);
}

void map_list::cover_destination(const memory_map* piece) {
  // It joins those that it touches.
  uint32_t start = piece->to;
  uint32_t end = piece->to + piece->size;
  auto place = destinations_.upper_bound(start);
  if (place != destinations_.begin() && std::prev(place)->second >= start) {
    --place;
  }
  while (place != destinations_.end() && place->first <= end) {
    start = std::min(start, place->first);
    end = std::max(end, place->second);
    place = destinations_.erase(place);
  }
  destinations_.emplace_hint(place, start, end);
}

bool map_list::has_destination(uint32_t start, uint32_t end) const {
  const auto place = destinations_.lower_bound(end);  // the first that starts at the end or above
  return place != destinations_.begin() && std::prev(place)->second > start;
}

memory_map*& map_list::link_to(const memory_map* node) {
  if (node->above == nullptr) {
    return top_;
  }
  return node->above->left == node ? node->above->left : node->above->right;
}

void map_list::rotate_up(memory_map* node) {
  memory_map* const down = node->above;
  memory_map*& link = link_to(down);
  memory_map*& gap = down->left == node ? down->left : down->right;
  memory_map*& handed_over = down->left == node ? node->right : node->left;
  gap = handed_over;
  if (gap != nullptr) {
    gap->above = down;
  }
  handed_over = down;
  link = node;
  node->above = down->above;
  down->above = node;
  summarize(down);
  summarize(node);
}

// Marsaglia's xorshift: any row of numbers serves, as long as it isn't that of the pieces.
uint32_t map_list::next_priority() {
  random_ ^= random_ << 13U;
  random_ ^= random_ >> 17U;
  random_ ^= random_ << 5U;
  return random_;
}

void insert_map(map_list& list, memory_map* piece) {
  memory_map* const successor = list.first_at_or_above(piece->from);
  if (successor != nullptr && successor != list.first() && successor->from == piece->from) {
    gen_free(piece);
    gen_errorexit(kStatusFailure, "insert_map: Fatal Algorithm Error");
  }
  list.insert_before(successor, piece);
  list.cover_destination(piece);
}

void insert_split(map_list& list, memory_map* piece) {
  // Nothing starts above the last offset there is.
  list.insert_before(piece->from == UINT32_MAX ? nullptr : list.first_at_or_above(piece->from + 1),
                     piece);
}

bool is_map(const map_list& list, uint32_t from, uint32_t to, uint32_t size) {
  return list.next_overlap(nullptr, from, from + size) != nullptr ||
         list.has_destination(to, to + size);
}

void clear_map_tree(memory_map* piece) {
  piece->sibling = nullptr;
  piece->child = nullptr;
  piece->last_child = nullptr;
  piece->built = 0;
  piece->root = 0;
  piece->swap = 0;
  piece->is_child = 0;
}

void addChild(memory_map* parent, memory_map* child) {
  memory_map*& link = parent->child == nullptr ? parent->child : parent->last_child->sibling;
  link = child;
  parent->last_child = child;
  child->sibling = nullptr;
  child->is_child = 1;
}

}  // namespace kelvane
