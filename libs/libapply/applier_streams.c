// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The window of the compressed form.
enum { WINDOW_SIZE = 4096, WINDOW_START = 4078 };

// ---- The bit stream of increments ---------------------------------------------------------------

// Jumps between the words of an increment class, by category: payload bits and smallest jump.
enum { CATEGORIES = 7, LAST_CODE = 9, BIT_SHIFT = 29 };
static const uint8_t payload_bits[CATEGORIES] = {0, 1, 2, 4, 8, 16, 32};
static const uint32_t smallest_jump[CATEGORIES] = {1, 2, 4, 8, 24, 280, 65816};

uint32_t kelvane_apply_take_bits(kelvane_applier* applier, kelvane_words* words, uint32_t end,
                                 uint32_t count) {
  uint32_t value = 0;
  uint32_t got = 0;
  while (got < count) {
    const uint32_t bit = words->map >> BIT_SHIFT;
    const uint32_t step = count - got < 8 - bit ? count - got : 8 - bit;
    uint32_t bits;
    if (words->position >= end) {
      words->map |= WORDS_OVERRUN;
      return 0;
    }
    bits = ((uint32_t)kelvane_apply_byte(applier, words->position) >> bit) & ((1u << step) - 1u);
    value |= bits << got;
    got += step;
    words->position += (bit + step) >> 3;
    words->map += step << BIT_SHIFT;
  }
  return value;
}

// The number of 0 bits ahead of the next 1 bit, which is taken too: up to 6 a rank, 7 to 9 the end
// of a class. More means a damaged stream, and counts as an overrun.
static uint32_t take_prefix(kelvane_applier* applier, kelvane_words* words, uint32_t end) {
  uint32_t zeros = 0;
  while (kelvane_apply_take_bits(applier, words, end, 1) == 0) {
    if ((words->map & WORDS_OVERRUN) != 0 || ++zeros > LAST_CODE) {
      words->map |= WORDS_OVERRUN;
      return 0;
    }
  }
  return zeros;
}

uint32_t kelvane_apply_take_word(kelvane_applier* applier, kelvane_words* words, uint32_t end) {
  const uint32_t rank = take_prefix(applier, words, end);
  uint32_t category;
  uint32_t jump;
  if (rank >= CATEGORIES) {
    return rank;
  }
  category = (words->map >> (3 * rank)) & 7u;
  jump = smallest_jump[category] +
         kelvane_apply_take_bits(applier, words, end, payload_bits[category]);
  // Addresses ascend, so none lies beyond the last word of the address space.
  if ((words->map & WORDS_OVERRUN) != 0 || jump > ((0xFFFFFFFFu - words->address) >> 2)) {
    return WORD_DAMAGED;
  }
  words->address += jump * 4;
  return WORD_TAKEN;
}

// ---- The compressed form ------------------------------------------------------------------------

void kelvane_apply_start_compressed(compressed_reader* reader, kelvane_applier* applier,
                                    const kelvane_item* item) {
  reader->applier = applier;
  reader->position = item->data;
  reader->end = item->data + item->data_size;
  reader->flags = 1;
  reader->ring_index = WINDOW_START;
}

int kelvane_apply_take_compressed(compressed_reader* reader, compressed_item* item) {
  kelvane_applier* const applier = reader->applier;
  uint32_t position = reader->position;
  uint32_t literal;
  uint32_t first;
  if (position == reader->end) {
    // Flags that have no item are 0, so that the mark behind the last is alone.
    return (reader->flags & (reader->flags - 1u)) == 0 ? ITEM_END : ITEM_DAMAGED;
  }
  if (reader->flags == 1) {
    reader->flags = kelvane_apply_byte(applier, position++) | 0x100u;
  }
  literal = reader->flags & 1u;
  reader->flags >>= 1;
  if (reader->end - position < 2 - literal) {
    return ITEM_DAMAGED;
  }
  first = kelvane_apply_byte(applier, position++);
  if (literal) {
    item->length = 1;
    item->distance = 0;
    item->literal = (uint8_t)first;
  } else {
    const uint32_t second = kelvane_apply_byte(applier, position++);
    const uint32_t slot = first | ((second & 0xF0u) << 4);
    item->length = (second & 0x0Fu) + 3;
    item->distance = ((reader->ring_index - slot - 1) & (WINDOW_SIZE - 1)) + 1;
  }
  reader->position = position;
  reader->ring_index = (reader->ring_index + item->length) & (WINDOW_SIZE - 1);
  return ITEM_TAKEN;
}

int kelvane_apply_expanded_size(kelvane_applier* applier, kelvane_item* item) {
  compressed_reader reader;
  compressed_item next = {0, 0, 0};
  int state;
  item->size = 0;
  kelvane_apply_start_compressed(&reader, applier, item);
  while ((state = kelvane_apply_take_compressed(&reader, &next)) == ITEM_TAKEN) {
    if (next.length > 0xFFFFFFFFu - item->size) {
      return 0;
    }
    item->size += next.length;
  }
  return state == ITEM_END;
}
