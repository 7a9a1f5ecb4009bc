#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "memory_map.h"

// Moved pieces of a section found by their bytes, wherever symbols are missing or too coarse.
namespace kelvane {

// `size` equal bytes at offset `from` of the old section and at offset `to` of the new one.
struct found_block {
  uint32_t from;
  uint32_t to;
  uint32_t size;
  friend bool operator==(const found_block&, const found_block&) = default;
};

// Gives, in ascending order, the blocks that a plain search finds: for each offset of the old
// section the first other offset of the new one with a common run longer than `limit` bytes. Such a
// run is followed as far as it goes, and the search goes on one byte behind it. Takes time and
// memory (some 16 bytes a byte of the new section) in proportion to the sections.
std::vector<found_block> moved_blocks(std::span<const uint8_t> old_bytes,
                                      std::span<const uint8_t> new_bytes, uint32_t limit);

// Inserts a piece into the list for each moved block that is longer than `min_swap_block_size`,
// whose bytes are not in their place already, and that overlaps no piece of the list. Each is
// printed at debug level 3, with the addresses that the two sections have.
void block_pass(map_list& list, std::span<const uint8_t> old_bytes, uint32_t old_address,
                std::span<const uint8_t> new_bytes, uint32_t new_address);

}  // namespace kelvane
