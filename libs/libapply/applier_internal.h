// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the parts of the applier share: applier_streams.c decodes the two coded forms,
// applier_reader.c reads the bytes of the patch and its header, applier_cursor.c takes its commands
// apart and checks their structure, applier.c checks them against the memory and carries them out.

#include "applier.h"

#ifdef __cplusplus
extern "C" {
#endif

// The byte at `position`, which lies in the patch. What can't be fetched is 0, and noted.
uint8_t kelvane_apply_byte(kelvane_applier* applier, uint32_t position);

// The word there, in the byte order of the target.
uint32_t kelvane_apply_word(kelvane_applier* applier, uint32_t position);

// In kelvane_words.map: more was asked for than there is.
#define WORDS_OVERRUN 0x10000000u

// Takes a field of up to 32 bits, lowest bit first, from a stream that ends ahead of `end`; 0 bits
// give 0.
uint32_t kelvane_apply_take_bits(kelvane_applier* applier, kelvane_words* words, uint32_t end,
                                 uint32_t count);

// Goes on to the next word of a class and gives 0; or gives the code behind the last word, 7 to 9,
// or 1 if the stream is damaged.
enum { WORD_TAKEN, WORD_DAMAGED };
uint32_t kelvane_apply_take_word(kelvane_applier* applier, kelvane_words* words, uint32_t end);

// The most bytes that one item of the compressed form stands for.
enum { LONGEST_REFERENCE = 18 };

// A compressed stream, taken item by item.
typedef struct compressed_reader {
  kelvane_applier* applier;
  uint32_t position;
  uint32_t end;
  uint32_t flags;  // of the items to come in this group, from bit 0; a 1 stands behind the last
  uint32_t ring_index;
} compressed_reader;

typedef struct compressed_item {
  uint32_t length;
  uint32_t distance;  // how far back, or 0 for a literal
  uint8_t literal;
} compressed_item;

enum item_state { ITEM_TAKEN, ITEM_END, ITEM_DAMAGED };

void kelvane_apply_start_compressed(compressed_reader* reader, kelvane_applier* applier,
                                    const kelvane_item* item);

// Stores the next item and gives ITEM_TAKEN; or gives ITEM_END, or ITEM_DAMAGED for a stream that
// ends inside an item.
int kelvane_apply_take_compressed(compressed_reader* reader, compressed_item* item);

// Sets the size of a compressed store; gives 0 if its stream is damaged.
int kelvane_apply_expanded_size(kelvane_applier* applier, kelvane_item* item);

// Adds `value` to the word of 4 bytes there.
void kelvane_apply_add(uint8_t* bytes, uint8_t big_endian, uint32_t value);

// As kelvane_cursor_start, for a patch that is being opened.
void kelvane_apply_start(kelvane_cursor* cursor, kelvane_applier* applier);

// Notes the place in the patch and gives `code`.
int kelvane_apply_fail(kelvane_applier* applier, uint32_t position, int code);

#ifdef __cplusplus
}
#endif
