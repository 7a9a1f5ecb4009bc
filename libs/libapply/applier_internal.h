// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the parts of the applier share: applier_streams.c decodes the two coded forms,
// applier_reader.c takes the patch apart and checks its structure, applier.c checks it against the
// memory and carries it out.

#include "applier.h"

#ifdef __cplusplus
extern "C" {
#endif

// The bit stream of increments.
typedef struct bit_reader {
  const uint8_t* bytes;
  uint32_t size;
  uint32_t position;  // byte
  uint32_t bit;       // bit in that byte, from the lowest
  int overrun;        // more was asked for than there is
} bit_reader;

// Takes a field of up to 32 bits, lowest bit first; 0 bits give 0.
uint32_t kelvane_apply_take_bits(bit_reader* reader, uint32_t count);

// The number of 0 bits ahead of the next 1 bit, which is taken too: up to 6 a rank, 7 to 9 the end
// of a class. More means a damaged stream, and counts as an overrun.
uint32_t kelvane_apply_take_prefix(bit_reader* reader);

// The most bytes that one item of the compressed form stands for.
enum { LONGEST_REFERENCE = 18 };

// A compressed stream, taken item by item.
typedef struct compressed_reader {
  const uint8_t* bytes;
  uint32_t size;
  uint32_t position;
  uint32_t flags;  // of the items to come in this group, from bit 0
  uint32_t left;   // items to come in this group
  uint32_t ring_index;
} compressed_reader;

typedef struct compressed_item {
  uint32_t length;
  uint32_t distance;  // how far back, or 0 for a literal
  uint8_t literal;
} compressed_item;

enum item_state { ITEM_TAKEN, ITEM_END, ITEM_DAMAGED };

void kelvane_apply_start_compressed(compressed_reader* reader, const uint8_t* bytes, uint32_t size);

// Stores the next item and gives ITEM_TAKEN; or gives ITEM_END, or ITEM_DAMAGED for a stream that
// ends inside an item.
int kelvane_apply_take_compressed(compressed_reader* reader, compressed_item* item);

// Stores the number of bytes that a compressed stream expands to; gives 0 if it is damaged.
int kelvane_apply_expanded_size(const uint8_t* bytes, uint32_t size, uint32_t* expanded);

// The word at `bytes`, in the byte order told.
uint32_t kelvane_apply_word(const uint8_t* bytes, uint8_t big_endian);

// Walks over all commands, checks their structure and calls `visitor` for every item, unless it is
// null. Gives a code, or what the visitor ended the walk with.
int kelvane_apply_walk(kelvane_applier* applier, kelvane_visitor visitor, void* context);

// Notes the place in the patch and gives `code`.
int kelvane_apply_fail(kelvane_applier* applier, uint32_t position, int code);

#ifdef __cplusplus
}
#endif
