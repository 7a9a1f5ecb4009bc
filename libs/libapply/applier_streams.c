// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The window of the compressed form.
enum { WINDOW_SIZE = 4096, WINDOW_START = 4078 };

// ---- The bit stream of increments ---------------------------------------------------------------

uint32_t kelvane_apply_take_bits(bit_reader* reader, uint32_t count) {
  uint32_t value = 0;
  uint32_t got = 0;
  while (got < count) {
    const uint32_t room = 8 - reader->bit;
    const uint32_t step = count - got < room ? count - got : room;
    uint32_t bits;
    if (reader->position >= reader->size) {
      reader->overrun = 1;
      return 0;
    }
    bits = ((uint32_t)reader->bytes[reader->position] >> reader->bit) & ((1u << step) - 1u);
    value |= bits << got;
    got += step;
    reader->bit += step;
    if (reader->bit == 8) {
      reader->bit = 0;
      ++reader->position;
    }
  }
  return value;
}

uint32_t kelvane_apply_take_prefix(bit_reader* reader) {
  uint32_t zeros = 0;
  while (kelvane_apply_take_bits(reader, 1) == 0) {
    if (reader->overrun || ++zeros > 9) {
      reader->overrun = 1;
      return 0;
    }
  }
  return zeros;
}

// ---- The compressed form ------------------------------------------------------------------------

void kelvane_apply_start_compressed(compressed_reader* reader, const uint8_t* bytes,
                                    uint32_t size) {
  reader->bytes = bytes;
  reader->size = size;
  reader->position = 0;
  reader->flags = 0;
  reader->left = 0;
  reader->ring_index = WINDOW_START;
}

int kelvane_apply_take_compressed(compressed_reader* reader, compressed_item* item) {
  const uint8_t* const bytes = reader->bytes;
  uint32_t literal;
  if (reader->position == reader->size) {
    // Flags that have no item are 0.
    return reader->flags == 0 ? ITEM_END : ITEM_DAMAGED;
  }
  if (reader->left == 0) {
    reader->flags = bytes[reader->position++];
    reader->left = 8;
  }
  literal = reader->flags & 1u;
  reader->flags >>= 1;
  --reader->left;
  if (reader->size - reader->position < (literal ? 1u : 2u)) {
    return ITEM_DAMAGED;
  }
  if (literal) {
    item->length = 1;
    item->distance = 0;
    item->literal = bytes[reader->position++];
  } else {
    const uint32_t first = bytes[reader->position++];
    const uint32_t second = bytes[reader->position++];
    const uint32_t slot = first | ((second & 0xF0u) << 4);
    item->length = (second & 0x0Fu) + 3;
    item->distance = reader->ring_index > slot ? reader->ring_index - slot
                                               : reader->ring_index + WINDOW_SIZE - slot;
  }
  reader->ring_index = (reader->ring_index + item->length) % WINDOW_SIZE;
  return ITEM_TAKEN;
}

int kelvane_apply_expanded_size(const uint8_t* bytes, uint32_t size, uint32_t* expanded) {
  compressed_reader reader;
  compressed_item item = {0, 0, 0};
  int state;
  *expanded = 0;
  kelvane_apply_start_compressed(&reader, bytes, size);
  while ((state = kelvane_apply_take_compressed(&reader, &item)) == ITEM_TAKEN) {
    if (item.length > 0xFFFFFFFFu - *expanded) {
      return 0;
    }
    *expanded += item.length;
  }
  return state == ITEM_END;
}
