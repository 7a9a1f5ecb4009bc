// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The walk over the commands: takes them apart and checks their structure as it goes. What it
// stands ahead of is its stage.
enum stage {
  AT_COMMAND,
  AT_MOVE,
  AT_LIST,
  AT_STORE,
  AT_FILL,
  AT_REGION,
  AT_STREAM,
  AT_CLASS,
  AT_WORD,
  AT_COMMAND_END,
  AT_END
};

// What a stage gives besides the kind of an item and the (larger) codes of damages.
enum { NEXT_STAGE = 64, NO_ITEM = 65, DAMAGE = 128 };

// Codes 7 and 8 in front of a class tell the form of its value, 9 ends the stream. The first class
// has a single bit instead.
enum { SHORT_FORM = 7, LONG_FORM = 8, END_OF_STREAM = 9, RANKS = 7 };
static const uint32_t default_map = 0x1AC688;

static uint32_t damaged(uint32_t code) {
  return DAMAGE + code;
}

// Whether `count` elements of `size` bytes each, 12 at most, still lie ahead.
static int ahead(const kelvane_cursor* cursor, uint32_t count, uint32_t size) {
  const uint32_t left = cursor->applier->patch.size - cursor->position;
  return count <= left && (size == 1 || (count < 0x10000000u && count * size <= left));
}

// These take the next field; the caller has made sure that it lies ahead.
static uint32_t take_byte(kelvane_cursor* cursor) {
  return kelvane_apply_byte(cursor->applier, cursor->position++);
}

static uint32_t take_half(kelvane_cursor* cursor) {
  const uint32_t first = take_byte(cursor);
  const uint32_t second = take_byte(cursor);
  return cursor->applier->info.big_endian ? (first << 8) | second : (second << 8) | first;
}

static uint32_t take_word(kelvane_cursor* cursor) {
  cursor->position += 4;
  return kelvane_apply_word(cursor->applier, cursor->position - 4);
}

// ---- Stores -------------------------------------------------------------------------------------

static uint32_t next_list(kelvane_cursor* cursor, kelvane_item* item) {
  if (cursor->lists == 0) {
    cursor->stage = AT_COMMAND_END;
    return NEXT_STAGE;
  }
  --cursor->lists;
  if (!ahead(cursor, 1, cursor->relative ? 6 : 2)) {
    return damaged(KELVANE_APPLY_TRUNCATED);
  }
  cursor->left = item->count = take_half(cursor);
  if (cursor->relative) {
    cursor->words.address = item->address = take_word(cursor);
    if (item->count < 2) {
      return damaged(KELVANE_APPLY_BAD_LIST);
    }
  }
  item->relative = cursor->relative;
  // The first one of a relative list has no distance.
  cursor->words.value = 1;
  cursor->stage = AT_STORE;
  return KELVANE_ITEM_LIST;
}

static uint32_t next_store(kelvane_cursor* cursor, kelvane_item* item) {
  const uint32_t sized = item->command != KELVANE_CM_SUB_ONE;
  if (cursor->left == 0) {
    cursor->relative = 1;
    cursor->stage = AT_LIST;
    return NEXT_STAGE;
  }
  --cursor->left;
  item->data_size = 1;
  if (!ahead(cursor, 1, cursor->relative ? 1 + sized : 4 + 4 * sized)) {
    return damaged(KELVANE_APPLY_TRUNCATED);
  }
  if (cursor->relative) {
    const uint32_t distance = take_byte(cursor);
    if ((cursor->words.value && distance != 0) || distance > 0xFFFFFFFFu - cursor->words.address) {
      return damaged(KELVANE_APPLY_BAD_LIST);
    }
    item->address = cursor->words.address + distance;
    cursor->words.address = item->address;
    cursor->words.value = 0;
    if (sized) {
      item->data_size = take_byte(cursor);
    }
  } else {
    item->address = take_word(cursor);
    if (sized) {
      item->data_size = take_word(cursor);
    }
  }
  item->data = cursor->position;
  item->size = item->data_size;
  if (!ahead(cursor, item->data_size, 1)) {
    return damaged(KELVANE_APPLY_TRUNCATED);
  }
  cursor->position += item->data_size;
  if (item->command == KELVANE_CM_SUB_COMP && !kelvane_apply_expanded_size(cursor->applier, item)) {
    return damaged(KELVANE_APPLY_BAD_COMPRESSION);
  }
  return KELVANE_ITEM_STORE;
}

// ---- Increments ---------------------------------------------------------------------------------

static uint32_t take_bits(kelvane_cursor* cursor, uint32_t count) {
  return kelvane_apply_take_bits(cursor->applier, &cursor->words, cursor->end, count);
}

static uint32_t start_stream(kelvane_cursor* cursor) {
  kelvane_words* const words = &cursor->words;
  words->position = cursor->position;
  words->value = 0;
  words->map = 0;
  cursor->end = cursor->position + cursor->left;
  cursor->position = cursor->end;
  // Without a class there is just the end code, which is shorter than any class.
  cursor->stage = AT_COMMAND_END;
  if (cursor->left != 2 || kelvane_apply_byte(cursor->applier, words->position) != 0x00 ||
      kelvane_apply_byte(cursor->applier, words->position + 1) != 0x02) {
    cursor->stage = AT_CLASS;
    cursor->left = SHORT_FORM + take_bits(cursor, 1);
  }
  return NEXT_STAGE;
}

// A map gives each rank a category of its own.
static int is_map(uint32_t map) {
  uint32_t seen = 0;
  uint32_t rank;
  for (rank = 0; rank < RANKS; ++rank) {
    seen |= 1u << ((map >> (3 * rank)) & 7u);
  }
  return seen == 0x7F;
}

// `left` is the form of the class.
static uint32_t next_class(kelvane_cursor* cursor, kelvane_item* item) {
  kelvane_words* const words = &cursor->words;
  const uint32_t bits_in_use = words->map >> 29;
  uint32_t map = default_map;
  item->position = words->position;
  if (cursor->left == END_OF_STREAM) {
    // Bits of 0 fill the last byte, and nothing follows it.
    cursor->stage = AT_COMMAND_END;
    return (bits_in_use != 0 && take_bits(cursor, 8 - bits_in_use) != 0) ||
                   words->position != cursor->end
               ? damaged(KELVANE_APPLY_BAD_INCREMENTS)
               : (uint32_t)NEXT_STAGE;
  }
  if (cursor->left == SHORT_FORM) {
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
    return damaged(KELVANE_APPLY_BAD_INCREMENTS);
  }
  words->map = (words->map & 0xE0000000u) | map;
  words->address = 0;
  item->value = words->value;
  item->count = map;
  cursor->stage = AT_WORD;
  return KELVANE_ITEM_CLASS;
}

static uint32_t next_word(kelvane_cursor* cursor, kelvane_item* item) {
  uint32_t code;
  item->position = cursor->words.position;
  code = kelvane_apply_take_word(cursor->applier, &cursor->words, cursor->end);
  if (code == WORD_DAMAGED) {
    return damaged(KELVANE_APPLY_BAD_INCREMENTS);
  }
  if (code != WORD_TAKEN) {
    cursor->left = code;
    cursor->stage = AT_CLASS;
    return NEXT_STAGE;
  }
  item->address = cursor->words.address;
  item->size = 4;
  item->value = cursor->words.value;
  return KELVANE_ITEM_INCREMENT;
}

// ---- Commands -----------------------------------------------------------------------------------

#ifndef KELVANE_APPLY_FILE_MODE_ONLY
static uint32_t next_region(kelvane_cursor* cursor, kelvane_item* item) {
  uint32_t end;
  item->after = cursor->closed;
  if (cursor->left == 0) {
    if (!ahead(cursor, 1, 4)) {
      return damaged(KELVANE_APPLY_TRUNCATED);
    }
    item->value = take_word(cursor);
    cursor->stage = AT_COMMAND_END;
    return KELVANE_ITEM_CHECKSUM;
  }
  --cursor->left;
  item->address = take_word(cursor);
  end = take_word(cursor);
  // An end of 0 stands for the end of the address space.
  if (end < item->address && end != 0) {
    return damaged(KELVANE_APPLY_BAD_REGION);
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
    {AT_LIST, 2, 0},    // CM_SUB_COMP
    {AT_FILL, 2, 7},    // CM_FILL
    {AT_STREAM, 4, 1},  // CM_INCRS
};

// Whether the command may stand here: CM_CHECKSUM frames the others, and only a version 1 patch in
// memory mode has it.
static int is_placed(kelvane_cursor* cursor) {
  if (cursor->command == KELVANE_CM_CHECKSUM) {
    cursor->closed = cursor->in_set;
    return cursor->applier->info.version != 0 && cursor->applier->info.memory_mode;
  }
  cursor->in_set = 1;
  return !cursor->closed;
}

static uint32_t next_command(kelvane_cursor* cursor, kelvane_item* item) {
  const uint8_t* form;
  cursor->command_position = cursor->position;
  if (cursor->position >= cursor->applier->patch.size) {
    cursor->stage = AT_END;
    return cursor->in_set ? (uint32_t)NO_ITEM : damaged(KELVANE_APPLY_NO_COMMANDS);
  }
  item->command = cursor->command = (uint8_t)take_byte(cursor);
  if (!is_placed(cursor)) {
    return damaged(KELVANE_APPLY_MISPLACED);
  }
  form = commands[cursor->command < 8 ? cursor->command : 0];
  if (form[0] == AT_END) {
    return damaged(KELVANE_APPLY_BAD_COMMAND);
  }
  if (!ahead(cursor, 1, form[1])) {
    return damaged(KELVANE_APPLY_TRUNCATED);
  }
  item->count = form[1] == 2 ? take_half(cursor) : take_word(cursor);
  item->after = cursor->closed;
  cursor->left = item->count;
  cursor->stage = form[0];
  if (form[0] == AT_LIST) {
    cursor->lists = (uint16_t)item->count;
    cursor->relative = 0;
    if (item->count == 0) {
      return damaged(KELVANE_APPLY_BAD_LIST);
    }
  } else if (!ahead(cursor, item->count, form[2])) {
    return damaged(KELVANE_APPLY_TRUNCATED);
  }
  return KELVANE_ITEM_COMMAND;
}

// A move or a fill, whose command has been found to hold all of them.
static uint32_t next_plain(kelvane_cursor* cursor, kelvane_item* item) {
  if (cursor->left == 0) {
    cursor->stage = AT_COMMAND_END;
    return NEXT_STAGE;
  }
  --cursor->left;
  item->address = take_word(cursor);
  if (cursor->stage == AT_FILL) {
    item->size = take_half(cursor);
    item->value = take_byte(cursor);
    return KELVANE_ITEM_FILL;
  }
  item->size = take_word(cursor);
  item->value = take_word(cursor);
  return KELVANE_ITEM_MOVE;
}

static uint32_t next(kelvane_cursor* cursor, kelvane_item* item) {
  switch (cursor->stage) {
    case AT_COMMAND:
      return next_command(cursor, item);
    case AT_MOVE:
    case AT_FILL:
      return next_plain(cursor, item);
    case AT_LIST:
      return next_list(cursor, item);
    case AT_STORE:
      return next_store(cursor, item);
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
    case AT_REGION:
      return next_region(cursor, item);
#endif
    case AT_STREAM:
      return start_stream(cursor);
    case AT_CLASS:
      return next_class(cursor, item);
    case AT_WORD:
      return next_word(cursor, item);
    case AT_COMMAND_END:
      cursor->stage = AT_COMMAND;
      item->position = cursor->command_position;
      item->data_size = cursor->position - item->position;
      return KELVANE_ITEM_COMMAND_END;
    default:
      return NO_ITEM;
  }
}

void kelvane_apply_start(kelvane_cursor* cursor, kelvane_applier* applier) {
  cursor->applier = applier;
  cursor->position = applier->info.header_size;
  cursor->stage = AT_COMMAND;
  cursor->command = 0;
  cursor->in_set = 0;
  cursor->closed = 0;
  cursor->code = KELVANE_APPLY_OK;
}

void kelvane_cursor_start(kelvane_cursor* cursor, kelvane_applier* applier) {
  if (applier == NULL || !applier->opened) {
    cursor->stage = AT_END;
    cursor->code = KELVANE_APPLY_BAD_ARGUMENT;
    return;
  }
  kelvane_apply_start(cursor, applier);
}

int kelvane_item_next(kelvane_cursor* cursor, kelvane_item* item) {
  uint32_t result;
  item->command = cursor->command;
  do {
    item->relative = 0;
    item->after = 0;
    item->position = cursor->position;
    item->count = 0;
    item->address = 0;
    item->size = 0;
    item->value = 0;
    item->data = 0;
    item->data_size = 0;
    result = next(cursor, item);
  } while (result == NEXT_STAGE);
  if (result < NEXT_STAGE) {
    item->kind = (uint8_t)result;
    if (!cursor->applier->fetch_failed) {
      return 1;
    }
  }
  if (result == NO_ITEM && cursor->code != KELVANE_APPLY_OK) {
    return 0;
  }
  cursor->stage = AT_END;
  if (cursor->applier->fetch_failed) {
    cursor->code = KELVANE_APPLY_FETCH_FAILED;
  } else if (result >= DAMAGE) {
    cursor->code = (uint8_t)(result - DAMAGE);
  }
  if (cursor->code != KELVANE_APPLY_OK) {
    kelvane_apply_fail(cursor->applier, item->position, cursor->code);
  }
  return 0;
}
