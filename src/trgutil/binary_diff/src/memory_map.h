#pragma once

#include <cstdint>
#include <map>

// The pieces of a section that are to move, in one list, with an index over their sources.
//
// The list ascends by `from` as long as pieces are only inserted. Splitting a piece raises its
// `from`, which leaves the order alone where sources are disjoint and may break it where symbols
// overlap. So the index is a tree in the order of the list, whatever that is: a treap (Seidel and
// Aragon, 1996) whose nodes know the least and the greatest `from` and the greatest end below them.
// It finds the first piece of the list that overlaps a range, and where a new piece belongs,
// without a walk over the list.
namespace kelvane {

// A piece of a section. `from` is an offset into the old section, `to` into the new one; the piece
// is to lie, in the old section, where it lies in the new one.
struct memory_map {
  uint32_t from;
  uint32_t to;
  uint32_t size;        // bytes
  memory_map* next;     // of the list of all pieces
  memory_map* sibling;  // next child of the same parent
  memory_map* child;    // first child
  // -1: in no tree yet, or the root of a finished tree; -2: the root of a finished tree that a
  // later tree reaches; 0 and above: the depth in the tree being built or in a finished tree.
  int32_t level;
  uint8_t built;     // visited by buildTree
  uint8_t root;      // the root of a tree
  uint8_t swap;      // its source gets overwritten before it can be moved
  uint8_t is_child;  // hangs in a chain of children already

  memory_map* last_child;  // end of the chain that starts at `child`

  // The index; written by map_list only.
  memory_map* left;
  memory_map* right;
  memory_map* above;
  uint32_t priority;
  uint32_t least_from;  // of this node and all below it, as the two that follow
  uint32_t greatest_from;
  uint32_t greatest_end;
};

// Gives a fresh piece from gen_alloc, with `level` at -1 and all links and flags at 0.
memory_map* new_map(uint32_t from, uint32_t to, uint32_t size);

// Owns the pieces of one section.
class map_list {
 public:
  map_list() = default;
  ~map_list();
  map_list(const map_list&) = delete;
  map_list& operator=(const map_list&) = delete;

  memory_map* first() const { return first_; }

  // The first piece behind `behind` in the list (null: of the whole list) whose source shares a
  // byte with the offsets from `start` up to, and without, `end`; null if there is none.
  memory_map* next_overlap(memory_map* behind, uint32_t start, uint32_t end) const;

  // The first piece of the list whose `from` is `from` or above; null if there is none.
  memory_map* first_at_or_above(uint32_t from) const;

  // Puts the piece in front of `successor`, or at the end for null. It belongs to the list then.
  void insert_before(memory_map* successor, memory_map* piece);

  // To be called when the source of a piece of the list has changed.
  void source_changed(memory_map* piece);

  // Takes note of the destination of a piece; whether one taken note of overlaps the range.
  void cover_destination(const memory_map* piece);
  bool has_destination(uint32_t start, uint32_t end) const;

 private:
  void rotate_up(memory_map* node);
  memory_map*& link_to(const memory_map* node);
  uint32_t next_priority();

  memory_map* first_ = nullptr;
  memory_map* top_ = nullptr;
  uint32_t random_ = 0x9E3779B9U;
  std::map<uint32_t, uint32_t> destinations_;  // disjoint ranges, start and end
};

// Puts the piece where it belongs in the ascending order of `from`. Two pieces with the same `from`
// are allowed at the head of the list only, the later one in front; anywhere else the run ends with
// "insert_map: Fatal Algorithm Error" and status 1. The piece then belongs to the list.
void insert_map(map_list& list, memory_map* piece);

// The same for a piece that a split made: it goes behind all that have the same `from`.
void insert_split(map_list& list, memory_map* piece);

// Whether some piece overlaps the new one: source with source, or destination with destination.
// Only as long as no piece has been split.
bool is_map(const map_list& list, uint32_t from, uint32_t to, uint32_t size);

// Takes the piece out of its tree, but for its `level`.
void clear_map_tree(memory_map* piece);

// Puts `child` at the end of the chain of children of `parent`.
void addChild(memory_map* parent, memory_map* child);

}  // namespace kelvane
