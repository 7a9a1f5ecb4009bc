#pragma once

#include <cstdint>
#include <span>

#include "image.h"
#include "memory_map.h"

// Motion of symbols and blocks: pieces of a section that lie elsewhere in the new image are carried
// to their new places before the section is compared.
//
// A section's pieces stand in one list, and trees are a second structure over them: a parent's
// destination overlaps its child's source, so that a child has to move away before its parent may
// be written. Trees are worked from the leaves up. A piece that a piece below it reaches stands in
// a cycle, which is broken by parking it in the swap region, a stretch of target memory that the
// patch may use while it runs: that of the symbol ".heap".
//
// Whether a piece is moved is a question of the size of the patch alone. What is skipped is put
// right by the comparison, which sees the old bytes as the moves have left them.
namespace kelvane {

// A stretch of target memory.
struct address_range {
  uint32_t start;
  uint32_t size;
};

// String table that symtab_search reads; written by the symbol pass.
extern const char* srch_strtab;

// The swap region of two images: where ".heap" of the old one lies, cut to that of the new one if
// they meet; of size 0 without one, and if it overlaps one of the sections that are compared. It
// may run past the end of the addresses.
address_range find_swap_region(const symbol_table& old_symbols, const symbol_table& new_symbols,
                               std::span<const address_range> compared);

// Names the sections of the old image that the run compares, so that no piece is parked in one of
// them, and forgets what is known of a run before. To be called once the tables `table1` and
// `table2` stand and before the first section.
void begin_motion(std::span<const address_range> compared);

// Moves pieces of a section: adds the absolute moves (add_abs_move, in pairs) and carries them out
// on `old_bytes`, `old_size` bytes at old address `old_address`, which are to become `new_size`
// bytes at `new_bytes`, at new address `new_address`. Does nothing unless `swap_enabled` or
// `swap_block_enabled` is set. `deconstruct` is the number of passes that take trees apart; where
// it is negative the messages of that step are warnings. Reads and writes inside the sections only.
void do_sym_diff(uint8_t* const& old_bytes, uint32_t old_address, const uint32_t& old_size,
                 const uint8_t* new_bytes, uint32_t new_address, uint32_t new_size,
                 int32_t deconstruct);

// Comparison of bsearch: strcmp of `name` with the name of the symbol record in `srch_strtab`.
int32_t symtab_search(const void* name, const void* record);

// Builds the trees over the list and gives the bytes of swap that they need; `available` is the
// size of the swap region, for the messages.
uint32_t build_forest(map_list& list, uint32_t available, int32_t deconstruct);

// Builds the tree below `piece`, which stands at depth `level`. Splits pieces of the list that
// stick out of the destination of one of the tree.
void buildTree(memory_map* piece, map_list& list, int32_t level);

// What the trees of a section are worked on.
struct motion_target {
  uint8_t* old_bytes;
  const uint8_t* new_bytes;
  uint8_t* swap_buffer;  // takes the place of the swap region
  uint32_t swap_room;    // bytes of it
  uint32_t swap_offset;  // address of the swap region, less `base`
  uint32_t base;         // address of the old section
  uint32_t limit;        // its size
};

// Work the tree below `root`, and all trees of the list as far as `swap_maxtrees` allows. A piece
// that is to be parked although `target` has room but no buffer ends the run with "processTree:
// Fatal Algorithm Error" and status 1.
void processTree(const memory_map* root, const motion_target& target);
void processForest(const map_list& list, const motion_target& target);

// The most bytes of swap that the pieces on one path of a tree take if all are parked.
uint64_t most_parked(const map_list& list);

// The number of places below `count` at which the two stretches differ.
uint32_t num_diffs(const uint8_t* a, uint32_t a_offset, const uint8_t* b, uint32_t b_offset,
                   uint32_t count);

}  // namespace kelvane
