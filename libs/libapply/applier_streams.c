// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The window of the compressed form.
enum { WINDOW_SIZE = 4096, WINDOW_START = 4078 };

void kelvane_apply_start_compressed(compressed_reader* reader, const kelvane_item* item) {
  reader->position = item->value;
  reader->end = item->value + item->count;
  reader->flags = 1;
  reader->ring_index = WINDOW_START;
}

int kelvane_apply_take_compressed(kelvane_applier* applier, compressed_reader* reader) {
  uint32_t is_literal;
  if (reader->flags == 1 && reader->position != reader->end) {
    reader->flags = kelvane_apply_byte(applier, reader->position++) | 0x100u;
  }
  is_literal = reader->flags & 1u;
  if (reader->end - reader->position < 2 - is_literal) {
    return 0;
  }
  reader->flags >>= 1;
  reader->literal = kelvane_apply_byte(applier, reader->position++);
  reader->distance = 0;
  reader->length = 1;
  if (!is_literal) {
    const uint32_t second = kelvane_apply_byte(applier, reader->position++);
    const uint32_t slot = reader->literal | ((second & 0xF0u) << 4);
    reader->distance = (uint16_t)(((reader->ring_index - slot - 1) & (WINDOW_SIZE - 1)) + 1);
    reader->length = (uint8_t)((second & 0x0Fu) + 3);
    reader->literal = 0;
  }
  reader->ring_index = (uint16_t)(reader->ring_index + reader->length);
  return 1;
}

int kelvane_apply_expanded_size(kelvane_applier* applier, kelvane_item* item) {
  compressed_reader reader;
  item->size = 0;
  kelvane_apply_start_compressed(&reader, item);
  while (kelvane_apply_take_compressed(applier, &reader)) {
    item->size += reader.length;
    if (item->size < reader.length) {
      return KELVANE_APPLY_BAD_COMPRESSION;
    }
  }
  if (applier->fetch_code != KELVANE_APPLY_OK) {
    return applier->fetch_code;
  }
  // Flags that have no item are 0, so that the mark behind the last is alone; and the first has
  // one.
  return reader.position == reader.end && reader.flags < 0x100u &&
                 (reader.flags & (reader.flags - 1u)) == 0
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_BAD_COMPRESSION;
}
