// SPDX-License-Identifier: Apache-2.0
// The map: which stretches of the old image went where, in order of targets in the payload, and
// searched in order of sources.

#include "dense_internal.h"

// Entries below `count` in order of sources; `number` goes behind its equals.
KELVANE_DENSE_ONCE void kelvane_dense_file_entry(kelvane_dense_decoder* decoder, uint32_t number) {
  const uint32_t source = decoder->entries[number].source;
  uint32_t place = number;
  while (place != 0 && decoder->entries[decoder->by_source[place - 1]].source > source) {
    decoder->by_source[place] = decoder->by_source[place - 1];
    place--;
  }
  decoder->by_source[place] = (uint16_t)number;
}

KELVANE_DENSE_ONCE uint32_t kelvane_dense_free_place(const kelvane_dense_decoder* decoder,
                                                     uint32_t count, uint32_t place) {
  for (uint32_t i = 0; i < count; ++i) {
    const kelvane_dense_entry* entry = &decoder->entries[decoder->by_source[i]];
    if (entry->source > place) {
      break;
    }
    if (place - entry->source < entry->length) {
      place = entry->source + entry->length;
    }
  }
  return place;
}

// How many of the entries below `count` begin at `place` or below.
static KELVANE_DENSE_ONCE uint32_t entries_up_to(const kelvane_dense_decoder* decoder,
                                                 uint32_t count, uint32_t place) {
  uint32_t low = 0;
  uint32_t high = count;
  while (low < high) {
    const uint32_t middle = (low + high) / 2;
    if (decoder->entries[decoder->by_source[middle]].source <= place) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

uint32_t kelvane_dense_hole_at(const kelvane_dense_decoder* decoder, uint32_t count, uint32_t place,
                               uint32_t target, int expected, uint32_t* context) {
  const uint32_t next = entries_up_to(decoder, count, place);
  const uint32_t room = decoder->info.new_size - target;
  if (next < count) {
    *context = kelvane_dense_context_of(KELVANE_DENSE_M_WHOLE, expected ? 1 : 0);
    return decoder->entries[decoder->by_source[next]].source - place;
  }
  const uint32_t rest = place < decoder->info.old_size ? decoder->info.old_size - place : 0;
  *context = kelvane_dense_context_of(KELVANE_DENSE_M_WHOLE, rest == room ? 3 : 2);
  return rest < room ? rest : room;
}

void kelvane_dense_begin_map(kelvane_dense_decoder* decoder) {
  kelvane_dense_reset_model(decoder);
  decoder->state.model.flag_shift = 24;  // 256 counters
  decoder->entry_count = 0;
}

// A source is told by where it was to be expected: where the last one ended (0), or where one was
// expected earlier and did not come (1 to 6, the last such place first), each pushed up past what
// entries have already. Else it is a number from the first of these.
int kelvane_dense_read_map(kelvane_dense_decoder* decoder) {
  uint32_t left[KELVANE_DENSE_PLACES] = {0};
  uint32_t target = 0;
  uint32_t source_end = 0;
  kelvane_dense_begin_map(decoder);
  for (uint32_t i = 0; i < decoder->info.map_entries; ++i) {
    kelvane_dense_entry* const entry = &decoder->entries[i];
    const uint32_t gap = kelvane_dense_read_number(decoder, KELVANE_DENSE_M_GAP);
    const uint32_t expected = kelvane_dense_free_place(decoder, i, source_end);
    const uint32_t choice = kelvane_dense_read_tree(decoder, KELVANE_DENSE_M_PLACE, 3);
    uint32_t source = expected;
    if (choice == KELVANE_DENSE_PLACE_NUMBER) {
      source += kelvane_dense_read_signed(decoder, KELVANE_DENSE_M_SOURCE);
    } else if (choice != 0) {
      source = kelvane_dense_free_place(decoder, i, left[choice - 1]);
    }
    if (choice != 0) {
      kelvane_dense_to_front(left, choice - 1, expected);
    }
    const uint32_t room = decoder->info.new_size - target;
    if (gap >= room) {
      kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_PAYLOAD);
      break;
    }
    uint32_t context;
    uint32_t length =
        kelvane_dense_hole_at(decoder, i, source, target + gap, choice == 0, &context);
    if (length == 0 || !kelvane_dense_read_flag(decoder, context)) {
      length = kelvane_dense_read_number(decoder, KELVANE_DENSE_M_LENGTH) + 1;
    }
    if (!kelvane_dense_fits(gap, length, room) ||
        !kelvane_dense_fits(source, length, decoder->info.old_size)) {
      kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_PAYLOAD);
    }
    if (decoder->state.failed != 0) {
      break;
    }
    entry->source = source;
    entry->target = target + gap;
    entry->length = length;
    target = entry->target + length;
    source_end = source + length;
    kelvane_dense_file_entry(decoder, i);
    decoder->entry_count = i + 1;
  }
  kelvane_dense_reset_model(decoder);
  return decoder->state.failed;
}

int kelvane_dense_is_inside(const kelvane_dense_decoder* decoder, uint32_t address) {
  return address - decoder->info.base <= decoder->info.old_size;
}

// By the entry that holds the address, if it is one of the last three that begin at it or below;
// else as the nearest below.
uint32_t kelvane_dense_moved(const kelvane_dense_decoder* decoder, uint32_t address) {
  const uint32_t place = address - decoder->info.base;
  const uint32_t below = entries_up_to(decoder, decoder->entry_count, place);
  if (below == 0 || !kelvane_dense_is_inside(decoder, address)) {
    return address;
  }
  const kelvane_dense_entry* found = &decoder->entries[decoder->by_source[below - 1]];
  for (uint32_t k = 0; k < 3 && k < below; ++k) {
    const kelvane_dense_entry* entry = &decoder->entries[decoder->by_source[below - 1 - k]];
    if (place - entry->source < entry->length) {
      found = entry;
      break;
    }
  }
  return address + found->target - found->source;
}
