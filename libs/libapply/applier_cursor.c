// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The walk over the commands: takes them apart and checks their structure as it goes. What it
// stands ahead of is its stage. From AT_CLASS on its place is that of its words.
enum stage {
  AT_COMMAND,
  AT_MOVE,
  AT_FILL,
  AT_LIST,
  AT_STORE,
  AT_REGION,
  AT_CLASS,
  AT_WORD,
  AT_END
};

// What a stage gives in place of the kind of an item.
enum { NO_ITEM = 0 };

// Codes 7 and 8 in front of a class tell the form of its value, 9 ends the stream. The first class
// has a single bit instead.
enum { SHORT_FORM = 7, LONG_FORM = 8, END_OF_STREAM = 9 };
static const uint32_t default_map = 0x1AC688;

// Jumps between the words of a class, by category: the smallest. Behind it come 0, 1, 2, 4, 8, 16
// or 32 bits of what is to be added. A map gives each rank a category.
enum { RANKS = 7, BIT_SHIFT = 29 };
static const uint32_t smallest_jump[RANKS] = {1, 2, 4, 8, 24, 280, 65816};

// In kelvane_words.map: more was asked for than there is.
#define WORDS_OVERRUN 0x10000000u

// Of all that is wrong the first counts.
static uint32_t damaged(kelvane_cursor* cursor, uint32_t code) {
  if (cursor->code == KELVANE_APPLY_OK) {
    cursor->code = (uint8_t)code;
  }
  return NO_ITEM;
}

// Goes behind `size` bytes.
static void skip(kelvane_cursor* cursor, uint32_t size) {
  if (size > cursor->applier->patch.size - cursor->position) {
    damaged(cursor, KELVANE_APPLY_TRUNCATED);
  } else {
    cursor->position += size;
  }
}

// Takes a field of `size` bytes, up to 4.
static uint32_t take(kelvane_cursor* cursor, uint32_t size) {
  uint32_t number = 0;
  uint32_t shift;
  if (size > cursor->applier->patch.size - cursor->position) {
    return damaged(cursor, KELVANE_APPLY_TRUNCATED);
  }
  for (shift = 0; shift < 8 * size; shift += 8) {
    const uint32_t byte = kelvane_apply_byte(cursor->applier, cursor->position++);
    number = cursor->applier->big_endian ? number << 8 | byte : number | byte << shift;
  }
  return number;
}

// ---- Stores -------------------------------------------------------------------------------------

static uint32_t next_list(kelvane_cursor* cursor, kelvane_item* item) {
  if (cursor->lists == 0) {
    cursor->stage = AT_COMMAND;
    return NO_ITEM;
  }
  --cursor->lists;
  cursor->list.left = item->count = take(cursor, 2);
  item->size = 0;
  item->relative = cursor->relative;
  if (cursor->relative) {
    cursor->list.base = item->address = take(cursor, 4);
    if (item->count < 2) {
      return damaged(cursor, KELVANE_APPLY_BAD_LIST);
    }
  }
  // The first one of a relative list has no distance.
  cursor->list.reach = 0;
  cursor->stage = AT_STORE;
  return KELVANE_ITEM_LIST;
}

static uint32_t next_store(kelvane_cursor* cursor, kelvane_item* item) {
  const uint32_t field = cursor->relative ? 1 : 4;
  if (cursor->list.left == 0) {
    cursor->relative = 1;
    cursor->stage = AT_LIST;
    return NO_ITEM;
  }
  --cursor->list.left;
  item->address = take(cursor, field);
  item->count = cursor->command != KELVANE_CM_SUB_ONE ? take(cursor, field) : 1;
  if (cursor->relative) {
    // None lies beyond the last address.
    if (item->address > cursor->list.reach || item->address > ~cursor->list.base) {
      damaged(cursor, KELVANE_APPLY_BAD_LIST);
    }
    item->address += cursor->list.base;
    cursor->list.base = item->address;
    cursor->list.reach = 0xFF;
  }
  item->value = cursor->position;
  item->size = item->count;
  skip(cursor, item->count);
  return KELVANE_ITEM_STORE;
}

// ---- Increments ---------------------------------------------------------------------------------

// Takes a field of up to 32 bits, lowest bit first; 0 bits give 0.
static uint32_t take_bits(kelvane_cursor* cursor, uint32_t count) {
  uint32_t value = 0;  // what is taken comes in at the top
  uint32_t left;
  for (left = count; left > 0; --left) {
    uint32_t byte;
    if (cursor->words.position >= cursor->position) {
      cursor->words.map |= WORDS_OVERRUN;
      return 0;
    }
    byte = kelvane_apply_byte(cursor->applier, cursor->words.position);
    value = value >> 1 | byte >> (cursor->words.map >> BIT_SHIFT) << 31;
    cursor->words.map += 1u << BIT_SHIFT;
    if (cursor->words.map >> BIT_SHIFT == 0) {
      ++cursor->words.position;
    }
  }
  return value >> ((0u - count) & 31u);
}

// Goes ahead of the first class of a stream of `size` bytes that lie ahead.
static void start_stream(kelvane_cursor* cursor, uint32_t size) {
  kelvane_words* const words = &cursor->words;
  words->position = cursor->position;
  words->value = 0;
  words->map = 0;
  cursor->position += size;
  // Without a class there is just the end code, which is shorter than any class.
  if (size == 2 && take_bits(cursor, 16) == 0x0200) {
    cursor->stage = AT_COMMAND;
    return;
  }
  words->position = cursor->position - size;
  cursor->lists = (uint16_t)(SHORT_FORM + take_bits(cursor, 1));
}

// A map gives each rank a category of its own.
static int is_map(uint32_t map) {
  uint32_t seen = 0;
  uint32_t rank;
  for (rank = 0; rank < RANKS; ++rank) {
    seen |= 1u << (map & 7u);
    map >>= 3;
  }
  return seen == 0x7F;
}

// `lists` is the form of the class.
static uint32_t next_class(kelvane_cursor* cursor, kelvane_item* item) {
  kelvane_words* const words = &cursor->words;
  uint32_t map = default_map;
  if (cursor->lists == END_OF_STREAM) {
    // Bits of 0 fill the last byte, and nothing follows it.
    cursor->stage = AT_COMMAND;
    return take_bits(cursor, (0u - (words->map >> BIT_SHIFT)) & 7u) != 0 ||
                   words->position != cursor->position
               ? damaged(cursor, KELVANE_APPLY_BAD_INCREMENTS)
               : (uint32_t)NO_ITEM;
  }
  if (cursor->lists == SHORT_FORM) {
    words->value += take_bits(cursor, 16) + 1;
  } else {
    words->value = take_bits(cursor, 32);
  }
  if (take_bits(cursor, 1)) {
    map = take_bits(cursor, 21);
    // A coder starts with a map of 0, which acts as the default one.
    map = map == 0 ? default_map : map;
  }
  if ((words->map & WORDS_OVERRUN) != 0 || !is_map(map)) {
    return damaged(cursor, KELVANE_APPLY_BAD_INCREMENTS);
  }
  words->map = (words->map & 0xE0000000u) | map;
  words->address = 0;
  item->size = 0;
  item->value = words->value;
  item->count = map;
  cursor->stage = AT_WORD;
  return KELVANE_ITEM_CLASS;
}

uint32_t kelvane_apply_next_word(kelvane_cursor* cursor, kelvane_item* item) {
  kelvane_words* const words = &cursor->words;
  uint32_t rank = 0;
  uint32_t category;
  uint32_t jump;
  // The number of 0 bits ahead of the next 1 bit: up to 6 a rank, 7 to 9 the end of a class. More
  // means a damaged stream.
  while (take_bits(cursor, 1) == 0) {
    if ((words->map & WORDS_OVERRUN) != 0 || ++rank > END_OF_STREAM) {
      return damaged(cursor, KELVANE_APPLY_BAD_INCREMENTS);
    }
  }
  if (rank >= RANKS) {
    cursor->lists = (uint16_t)rank;
    cursor->stage = AT_CLASS;
    return NO_ITEM;
  }
  category = (words->map >> (3 * rank)) & 7u;
  jump = smallest_jump[category] + take_bits(cursor, (1u << category) >> 1);
  // Addresses ascend, so none lies beyond the last word of the address space.
  if ((words->map & WORDS_OVERRUN) != 0 || jump > (~words->address >> 2)) {
    return damaged(cursor, KELVANE_APPLY_BAD_INCREMENTS);
  }
  words->address += jump * 4;
  item->address = words->address;
  item->size = 4;
  item->value = words->value;
  return KELVANE_ITEM_INCREMENT;
}

// ---- Commands -----------------------------------------------------------------------------------

#ifndef KELVANE_APPLY_FILE_MODE_ONLY
static uint32_t next_region(kelvane_cursor* cursor, kelvane_item* item) {
  uint32_t end;
  item->after = cursor->closed;
  if (cursor->list.left == 0) {
    item->size = 0;
    item->value = take(cursor, 4);
    cursor->stage = AT_COMMAND;
    return KELVANE_ITEM_CHECKSUM;
  }
  --cursor->list.left;
  item->address = take(cursor, 4);
  end = take(cursor, 4);
  // An end of 0 stands for the end of the address space.
  if (end < item->address && end != 0) {
    return damaged(cursor, KELVANE_APPLY_BAD_REGION);
  }
  item->size = end - item->address;
  return KELVANE_ITEM_REGION;
}
#endif

// The stage, the bytes of the count and those of each counted element, by command.
static const uint8_t commands[8][3] = {
    {AT_END, 0, 0},    // no command
    {AT_LIST, 2, 0},   // CM_SUBSTITUTE
    {AT_LIST, 2, 0},   // CM_SUB_ONE
    {AT_MOVE, 2, 12},  // CM_MOVE
#ifdef KELVANE_APPLY_FILE_MODE_ONLY
    {AT_END, 0, 0},
#else
    {AT_REGION, 4, 8},  // CM_CHECKSUM
#endif
    {AT_LIST, 2, 0},   // CM_SUB_COMP
    {AT_FILL, 2, 7},   // CM_FILL
    {AT_CLASS, 4, 1},  // CM_INCRS
};

// Whether the command may stand here: CM_CHECKSUM frames the others, and only a version 1 patch in
// memory mode has it.
static int is_placed(kelvane_cursor* cursor) {
  if (cursor->command == KELVANE_CM_CHECKSUM) {
    cursor->closed = cursor->in_set;
    return cursor->applier->header_size == MEMORY_HEADER_SIZE;
  }
  cursor->in_set = 1;
  return !cursor->closed;
}

// Whether `count` elements of `size` bytes each, 12 at most, still lie ahead.
static int ahead(const kelvane_cursor* cursor, uint32_t count, uint32_t size) {
  const uint32_t left = cursor->applier->patch.size - cursor->position;
  return count <= left && (size == 1 || (count < 0x10000000u && count * size <= left));
}

static uint32_t next_command(kelvane_cursor* cursor, kelvane_item* item) {
  const uint8_t* form;
  if (cursor->position >= cursor->applier->patch.size) {
    cursor->stage = AT_END;
    return cursor->in_set ? (uint32_t)NO_ITEM : damaged(cursor, KELVANE_APPLY_NO_COMMANDS);
  }
  cursor->command = (uint8_t)take(cursor, 1);
  if (!is_placed(cursor)) {
    return damaged(cursor, KELVANE_APPLY_MISPLACED);
  }
  form = commands[cursor->command < 8 ? cursor->command : 0];
  cursor->stage = form[0];
  if (form[0] == AT_END) {
    return damaged(cursor, KELVANE_APPLY_BAD_COMMAND);
  }
  cursor->list.left = item->count = take(cursor, form[1]);
  item->size = 0;
  item->after = cursor->closed;
  if (form[0] == AT_LIST) {
    cursor->lists = (uint16_t)item->count;
    cursor->relative = 0;
    if (item->count == 0) {
      return damaged(cursor, KELVANE_APPLY_BAD_LIST);
    }
  } else if (!ahead(cursor, item->count, form[2])) {
    return damaged(cursor, KELVANE_APPLY_TRUNCATED);
  }
  if (form[0] == AT_CLASS) {
    start_stream(cursor, item->count);
  }
  return KELVANE_ITEM_COMMAND;
}

// A move or a fill, whose command has been found to hold all of them.
static uint32_t next_plain(kelvane_cursor* cursor, kelvane_item* item) {
  const int is_fill = cursor->stage == AT_FILL;
  if (cursor->list.left == 0) {
    cursor->stage = AT_COMMAND;
    return NO_ITEM;
  }
  --cursor->list.left;
  item->address = take(cursor, 4);
  item->size = take(cursor, is_fill ? 2 : 4);
  item->value = take(cursor, is_fill ? 1 : 4);
  return is_fill ? KELVANE_ITEM_FILL : KELVANE_ITEM_MOVE;
}

// By stage. Each is called by itself, so that the stack holds what one of them needs.
static uint32_t (*const next[])(kelvane_cursor* cursor, kelvane_item* item) = {
    next_command, next_plain,
    next_plain,   next_list,
    next_store,
#ifdef KELVANE_APPLY_FILE_MODE_ONLY
    NULL,
#else
    next_region,
#endif
    next_class,   kelvane_apply_next_word,
};

void kelvane_apply_start(kelvane_cursor* cursor, kelvane_applier* applier, uint32_t position) {
  cursor->applier = applier;
  cursor->position = position;
  cursor->stage = AT_COMMAND;
  cursor->in_set = 0;
  cursor->closed = 0;
  cursor->code = KELVANE_APPLY_OK;
}

void kelvane_cursor_start(kelvane_cursor* cursor, kelvane_applier* applier) {
  if (applier == NULL || applier->header_size == 0) {
    cursor->stage = AT_END;
    cursor->code = KELVANE_APPLY_BAD_ARGUMENT;
    return;
  }
  kelvane_apply_start(cursor, applier, applier->header_size);
}

int kelvane_item_next(kelvane_cursor* cursor, kelvane_item* item) {
  do {
    if (cursor->code != KELVANE_APPLY_OK || cursor->stage == AT_END) {
      return 0;
    }
    cursor->applier->error_position =
        cursor->stage >= AT_CLASS ? cursor->words.position : cursor->position;
    item->kind = (uint8_t)next[cursor->stage](cursor, item);
    if (cursor->applier->fetch_code != KELVANE_APPLY_OK) {
      cursor->code = cursor->applier->fetch_code;
    }
  } while (item->kind == NO_ITEM);
  item->command = cursor->command;
  if (item->kind == KELVANE_ITEM_STORE && item->command == KELVANE_CM_SUB_COMP &&
      cursor->code == KELVANE_APPLY_OK) {
    cursor->code = (uint8_t)kelvane_apply_expanded_size(cursor->applier, item);
  }
  return cursor->code == KELVANE_APPLY_OK;
}

int kelvane_apply_check_commands(kelvane_applier* applier) {
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_apply_start(&cursor, applier, applier->header_size);
  while (kelvane_item_next(&cursor, &item)) {
  }
  return cursor.code;
}
