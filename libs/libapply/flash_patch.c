// SPDX-License-Identifier: Apache-2.0
#include "flash_patch.h"

#include "applier_internal.h"
#include "flash_apply.h"

static kelvane_words* words_of(kelvane_patch_payload* self) {
  return (kelvane_words*)(void*)(self + 1);
}

// ---- Opening ------------------------------------------------------------------------------------

// Tells the board that the update goes on, ahead of what may have many items.
static void live_on(const kelvane_patch_payload* self, const kelvane_item* item) {
  if (item->size == 0) {
    self->input->alive(self->input->update);
  }
}

// All items are sound and lie within the pages of the image. Finds the moves, which have to stand
// ahead of everything else.
static int check_items(kelvane_patch_payload* self) {
  kelvane_region room;
  kelvane_memory memory;
  job all;
  int code;
  room.address = 0;
  room.size = self->input->image_size;
  memory.context = self->input->update;
  memory.read = self->input->old_image;  // the check calls it never
  memory.write = NULL;
  memory.regions = &room;
  memory.region_count = 1;
  memory.old_size = KELVANE_SIZE_UNKNOWN;
  memory.page_size = 0;
  all.wanted = CHECK;
  all.pass = CHECK;
  self->move_commands = 0;
  self->local = self->applier.patch.size;
  code = kelvane_apply_begin(&all, &self->applier, &memory);
  if (code == KELVANE_APPLY_OK) {
    kelvane_apply_start(&all.cursor, &self->applier, self->applier.header_size);
  }
  while (code == KELVANE_APPLY_OK && kelvane_item_next(&all.cursor, &all.item)) {
    const uint32_t position = self->applier.error_position;
    if (all.item.kind == KELVANE_ITEM_COMMAND) {
      if (all.item.command == KELVANE_CM_MOVE && position > self->local) {
        return KELVANE_UPDATE_MOVE_BEHIND;
      }
      if (all.item.command == KELVANE_CM_MOVE) {
        ++self->move_commands;
      } else if (position < self->local) {
        self->local = position;
      }
    }
    live_on(self, &all.item);
    code = kelvane_apply_check_item(&all);
  }
  return code == KELVANE_APPLY_OK ? kelvane_apply_end(&all) : code;
}

// Goes to the commands behind the moves. There may be none.
static void start_local(kelvane_patch_payload* self, kelvane_cursor* cursor) {
  kelvane_apply_start(cursor, &self->applier, self->local);
  cursor->in_set = 1;
}

static int patch_open(void* state, uint32_t size, const kelvane_payload_input* input,
                      kelvane_payload_images* images) {
  kelvane_patch_payload* const self = (kelvane_patch_payload*)state;
  kelvane_patch_info info;
  int code;
  if (size < sizeof *self) {
    return KELVANE_UPDATE_BAD_GEOMETRY;
  }
  self->input = input;
  self->room = (size - (uint32_t)sizeof *self) / (uint32_t)sizeof(kelvane_words);
  self->applier.patch = input->payload;
  code = kelvane_apply_open_header(&self->applier, 0);
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  code = kelvane_apply_info(&self->applier, &info);
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  if (info.version == 0 || info.memory_mode) {
    return KELVANE_UPDATE_UNSUPPORTED;
  }
  images->old_size = info.old_size;
  images->new_size = info.new_size;
  images->old_checksum = info.old_checksum;
  images->new_checksum = info.new_checksum;
  return check_items(self);
}

// Goes to the first words of the classes of the first command of increments, as many as have room.
static int patch_restart(void* state) {
  kelvane_patch_payload* const self = (kelvane_patch_payload*)state;
  kelvane_cursor cursor;
  kelvane_item item;
  self->reached = 0;
  self->increments = 0;
  self->classes = 0;
  start_local(self, &cursor);
  self->behind = cursor;
  while (self->room > 0 && kelvane_item_next(&cursor, &item)) {
    if (item.kind == KELVANE_ITEM_COMMAND) {
      if (self->increments != 0) {
        return KELVANE_APPLY_OK;
      }
      if (item.command == KELVANE_CM_INCRS) {
        self->increments = self->applier.error_position;
      }
    } else if (item.kind == KELVANE_ITEM_CLASS) {
      if (self->classes == self->room) {
        return KELVANE_APPLY_OK;
      }
      words_of(self)[self->classes++] = cursor.words;
      self->input->alive(self->input->update);
    }
    self->behind = cursor;
  }
  return cursor.code;
}

// ---- Moves --------------------------------------------------------------------------------------

// Where the moves of a command begin, and how many it has.
static uint32_t moves_of(kelvane_applier* applier, uint32_t command, uint32_t* count) {
  uint32_t position = applier->header_size;
  for (;;) {
    *count = kelvane_apply_number(applier, position + 1, 2);
    position += 3;
    if (command-- == 0) {
      return position;
    }
    position += 12 * *count;
  }
}

// Where the bytes at `at` lay ahead of all moves, and how many of the `*count` go with them.
static uint32_t origin(kelvane_patch_payload* self, uint32_t at, uint32_t* count) {
  kelvane_applier* const applier = &self->applier;
  uint32_t command = self->move_commands;
  while (command-- > 0) {
    uint32_t moves;
    const uint32_t first = moves_of(applier, command, &moves);
    while (moves-- > 0) {
      const uint32_t place = first + 12 * moves;
      const uint32_t size = kelvane_apply_number(applier, place + 4, 4);
      const uint32_t shift = kelvane_apply_number(applier, place + 8, 4);
      const uint32_t target = kelvane_apply_number(applier, place, 4) + shift;
      if (at - target < size) {
        if (*count > size - (at - target)) {
          *count = size - (at - target);
        }
        at -= shift;
      } else if (size > 0 && target - at < *count) {
        *count = target - at;
      }
    }
  }
  return at;
}

// ---- A window -----------------------------------------------------------------------------------

typedef struct window {
  kelvane_patch_payload* self;
  uint32_t address;
  uint32_t count;
  uint8_t* bytes;
} window;

// The byte of a compressed store that lies `offset` behind its start: followed back to a literal.
static uint8_t expanded_byte(kelvane_applier* applier, const kelvane_item* item, uint32_t offset) {
  for (;;) {
    compressed_reader next;
    uint32_t start = 0;
    kelvane_apply_start_compressed(&next, item);
    while (kelvane_apply_take_compressed(applier, &next) && offset - start >= next.length) {
      start += next.length;
    }
    // What is further back than the first byte is 0.
    if (next.distance == 0 || next.distance > offset) {
      return next.literal;
    }
    offset -= next.distance;
  }
}

static void expand(const window* part, const kelvane_item* item) {
  kelvane_applier* const applier = &part->self->applier;
  compressed_reader next;
  uint32_t offset = 0;
  kelvane_apply_start_compressed(&next, item);
  while (kelvane_apply_take_compressed(applier, &next)) {
    for (; next.length > 0; --next.length, ++offset) {
      const uint32_t place = item->address + offset - part->address;
      if (item->address + offset >= part->address + part->count) {
        return;
      }
      if (place >= part->count) {
        continue;  // ahead of the window
      }
      if (next.distance == 0 || next.distance > offset) {
        part->bytes[place] = next.literal;
      } else if (next.distance <= place) {
        part->bytes[place] = part->bytes[place - next.distance];
      } else {
        part->bytes[place] = expanded_byte(applier, item, offset - next.distance);
      }
    }
  }
}

static void add(const window* part, uint32_t address, uint32_t value) {
  if (address - part->address < part->count) {
    kelvane_apply_add(part->bytes + (address - part->address), part->self->applier.big_endian,
                      value);
  }
}

// Carries out what the item does in the window.
static int carry_out(const window* part, const kelvane_item* item) {
  const uint32_t start = item->address > part->address ? item->address - part->address : 0;
  const uint32_t skipped = part->address + start - item->address;
  uint32_t count = part->count - start;
  uint32_t i;
  if (start >= part->count || skipped >= item->size) {
    return KELVANE_APPLY_OK;
  }
  if (count > item->size - skipped) {
    count = item->size - skipped;
  }
  switch (item->kind) {
    case KELVANE_ITEM_INCREMENT:
      add(part, item->address, item->value);
      break;
    case KELVANE_ITEM_FILL:
      for (i = 0; i < count; ++i) {
        part->bytes[start + i] = (uint8_t)item->value;
      }
      break;
    case KELVANE_ITEM_STORE:
      if (item->command == KELVANE_CM_SUB_COMP) {
        expand(part, item);
      } else if (kelvane_source_read(&part->self->applier.patch, item->value + skipped,
                                     part->bytes + start, count) != 0) {
        return KELVANE_APPLY_FETCH_FAILED;
      }
      break;
    default:
      break;
  }
  return KELVANE_APPLY_OK;
}

// Reads the classes on that have words of their own.
static void add_words(const window* part) {
  kelvane_patch_payload* const self = part->self;
  kelvane_cursor next = self->behind;
  kelvane_item item;
  uint32_t i;
  for (i = 0; i < self->classes; ++i) {
    kelvane_words* const words = words_of(self) + i;
    next.words = *words;
    while (kelvane_apply_next_word(&next, &item) == KELVANE_ITEM_INCREMENT &&
           (item.address < part->address || item.address - part->address < part->count)) {
      add(part, item.address, item.value);
      *words = next.words;
    }
  }
}

static int patch_window(void* state, uint32_t address, uint8_t* bytes, uint32_t count) {
  kelvane_patch_payload* const self = (kelvane_patch_payload*)state;
  const kelvane_payload_input* const input = self->input;
  window part;
  kelvane_cursor cursor;
  kelvane_item item;
  uint32_t done = 0;
  if (address < self->reached) {
    const int code = patch_restart(self);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  self->reached = address + count;
  while (done < count) {
    uint32_t piece = count - done;
    const uint32_t old = origin(self, address + done, &piece);
    const int code = input->old_image(input->update, old, bytes + done, piece);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    done += piece;
  }
  part.self = self;
  part.address = address;
  part.count = count;
  part.bytes = bytes;
  start_local(self, &cursor);
  while (kelvane_item_next(&cursor, &item)) {
    int code;
    if (item.kind == KELVANE_ITEM_COMMAND && self->applier.error_position == self->increments) {
      add_words(&part);
      cursor = self->behind;
      continue;
    }
    live_on(self, &item);
    code = carry_out(&part, &item);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  return self->applier.fetch_code != KELVANE_APPLY_OK ? self->applier.fetch_code : cursor.code;
}

const kelvane_payload_kind kelvane_patch_kind = {
    KELVANE_PAYLOAD_PATCH, 0, patch_open, patch_restart, NULL, patch_window, patch_window,
    kelvane_apply_checksum};
