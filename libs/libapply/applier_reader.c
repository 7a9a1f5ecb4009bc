// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The layout of the header in both versions, as offsets from the start of the patch.
enum {
  V0_HEADER_SIZE = 16,
  SIGNATURE_SIZE = 4,
  FRAME_SIZE = 20,  // what stands ahead of `version`, and what patch_size leaves out
  FILE_SIZE_POSITION = 40,
  FILE_HEADER_SIZE = 48,
  MEMORY_SIZE_POSITION = 24,
  MEMORY_HEADER_SIZE = 40
};

// The frame of version 1 is the same in every patch.
static const uint8_t frame[FRAME_SIZE] = {
    0x7F, 'Q', 'V', 'R',  // signature
    0,    0,   0,   1,    // version of the frame
    0,    0,   0,   7,    // file type: a patch
    0,    0,   0,   0,    // file version
    4,    0,   0,   0     // 32-bit addresses, no descriptors, no raw arrays
};

// Jumps between the words of an increment class, by category: payload bits and smallest jump.
enum { CATEGORIES = 7 };
static const uint8_t payload_bits[CATEGORIES] = {0, 1, 2, 4, 8, 16, 32};
static const uint32_t smallest_jump[CATEGORIES] = {1, 2, 4, 8, 24, 280, 65816};
static const uint32_t default_map = 0x1AC688;

// ---- Bytes of the patch -------------------------------------------------------------------------

uint32_t kelvane_apply_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count) {
  uint32_t i;
  for (i = 0; i < count; ++i) {
    sum = ((sum << 7) | (sum >> 25)) + bytes[i];
  }
  return sum;
}

uint32_t kelvane_apply_word(const uint8_t* bytes, uint8_t big_endian) {
  if (big_endian) {
    return ((uint32_t)bytes[0] << 24) | ((uint32_t)bytes[1] << 16) | ((uint32_t)bytes[2] << 8) |
           bytes[3];
  }
  return ((uint32_t)bytes[3] << 24) | ((uint32_t)bytes[2] << 16) | ((uint32_t)bytes[1] << 8) |
         bytes[0];
}

static uint32_t word_at(const kelvane_applier* applier, uint32_t position) {
  return kelvane_apply_word(applier->patch + position, applier->info.big_endian);
}

// Whether `count` elements of `size` bytes each still lie ahead.
static int ahead(const kelvane_applier* applier, uint32_t count, uint32_t size) {
  return count <= (applier->size - applier->position) / size;
}

// These take the next field; the caller has made sure that it lies ahead.
static uint32_t take_byte(kelvane_applier* applier) {
  return applier->patch[applier->position++];
}

static uint32_t take_half(kelvane_applier* applier) {
  const uint32_t first = take_byte(applier);
  const uint32_t second = take_byte(applier);
  return applier->info.big_endian ? (first << 8) | second : (second << 8) | first;
}

static uint32_t take_word(kelvane_applier* applier) {
  const uint32_t word = word_at(applier, applier->position);
  applier->position += 4;
  return word;
}

// ---- The walk over the commands -----------------------------------------------------------------

// One walk: checks the structure of what it passes, and shows it to the visitor.
typedef struct walk {
  kelvane_applier* applier;
  kelvane_visitor visitor;
  void* context;
  kelvane_item item;
  uint8_t in_set;  // a command other than CM_CHECKSUM has been met
  uint8_t closed;  // and a CM_CHECKSUM behind it
} walk;

static int emit(walk* self, int kind) {
  self->item.kind = (uint8_t)kind;
  return self->visitor == NULL ? KELVANE_APPLY_OK : self->visitor(self->context, &self->item);
}

int kelvane_apply_fail(kelvane_applier* applier, uint32_t position, int code) {
  applier->error_position = position;
  return code;
}

static int damaged(const walk* self, int code) {
  return kelvane_apply_fail(self->applier, self->item.position, code);
}

// Sets the fields of the next item, whose first byte is at the place reached.
static void begin_item(walk* self) {
  kelvane_item* const item = &self->item;
  item->position = self->applier->position;
  item->relative = 0;
  item->count = 0;
  item->address = 0;
  item->size = 0;
  item->value = 0;
  item->data = NULL;
  item->data_size = 0;
}

static int walk_moves(walk* self) {
  kelvane_applier* const applier = self->applier;
  uint32_t count;
  int code;
  if (!ahead(applier, 1, 2)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  count = self->item.count = take_half(applier);
  if (!ahead(applier, count, 12)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  code = emit(self, KELVANE_ITEM_COMMAND);
  for (; count > 0 && code == KELVANE_APPLY_OK; --count) {
    begin_item(self);
    self->item.address = take_word(applier);
    self->item.size = take_word(applier);
    self->item.value = take_word(applier);
    code = emit(self, KELVANE_ITEM_MOVE);
  }
  return code;
}

// One command of a list. `previous` is the address that the distance of a relative one counts from.
static int walk_store(walk* self, uint32_t relative, uint32_t first, uint32_t previous) {
  kelvane_applier* const applier = self->applier;
  kelvane_item* const item = &self->item;
  const uint32_t sized = item->command != KELVANE_CM_SUB_ONE;
  begin_item(self);
  item->size = 1;
  if (!ahead(applier, 1, relative ? 1 + sized : 4 + 4 * sized)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  if (relative) {
    const uint32_t distance = take_byte(applier);
    if ((first && distance != 0) || distance > 0xFFFFFFFFu - previous) {
      return damaged(self, KELVANE_APPLY_BAD_LIST);
    }
    item->address = previous + distance;
    if (sized) {
      item->size = take_byte(applier);
    }
  } else {
    item->address = take_word(applier);
    if (sized) {
      item->size = take_word(applier);
    }
  }
  item->data = applier->patch + applier->position;
  item->data_size = item->size;
  if (!ahead(applier, item->data_size, 1)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  applier->position += item->data_size;
  if (item->command == KELVANE_CM_SUB_COMP &&
      !kelvane_apply_expanded_size(item->data, item->data_size, &item->size)) {
    return damaged(self, KELVANE_APPLY_BAD_COMPRESSION);
  }
  return emit(self, KELVANE_ITEM_STORE);
}

static int walk_list(walk* self, uint8_t relative) {
  kelvane_applier* const applier = self->applier;
  uint32_t address = 0;
  uint32_t count;
  uint32_t i;
  int code;
  begin_item(self);
  if (!ahead(applier, 1, relative ? 6 : 2)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  count = self->item.count = take_half(applier);
  if (relative) {
    address = self->item.address = take_word(applier);
    if (count < 2) {
      return damaged(self, KELVANE_APPLY_BAD_LIST);
    }
  }
  self->item.relative = relative;
  code = emit(self, KELVANE_ITEM_LIST);
  for (i = 0; i < count && code == KELVANE_APPLY_OK; ++i) {
    code = walk_store(self, relative, i == 0, address);
    address = self->item.address;
  }
  return code;
}

static int walk_substitution(walk* self) {
  kelvane_applier* const applier = self->applier;
  uint32_t lists;
  uint32_t i;
  int code;
  if (!ahead(applier, 1, 2)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  lists = self->item.count = take_half(applier);
  if (lists == 0) {
    return damaged(self, KELVANE_APPLY_BAD_LIST);
  }
  code = emit(self, KELVANE_ITEM_COMMAND);
  for (i = 0; i < lists && code == KELVANE_APPLY_OK; ++i) {
    code = walk_list(self, i > 0);
  }
  return code;
}

static int walk_fills(walk* self) {
  kelvane_applier* const applier = self->applier;
  uint32_t count;
  int code;
  if (!ahead(applier, 1, 2)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  count = self->item.count = take_half(applier);
  if (!ahead(applier, count, 7)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  code = emit(self, KELVANE_ITEM_COMMAND);
  for (; count > 0 && code == KELVANE_APPLY_OK; --count) {
    begin_item(self);
    self->item.address = take_word(applier);
    self->item.size = take_half(applier);
    self->item.value = take_byte(applier);
    code = emit(self, KELVANE_ITEM_FILL);
  }
  return code;
}

static int walk_checksum(walk* self) {
  kelvane_applier* const applier = self->applier;
  uint32_t count;
  int code;
  if (!ahead(applier, 1, 4)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  count = self->item.count = take_word(applier);
  if (!ahead(applier, count, 8)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  self->item.after = self->in_set;
  code = emit(self, KELVANE_ITEM_COMMAND);
  for (; count > 0 && code == KELVANE_APPLY_OK; --count) {
    uint32_t end;
    begin_item(self);
    self->item.address = take_word(applier);
    end = take_word(applier);
    // An end of 0 stands for the end of the address space.
    if (end < self->item.address && end != 0) {
      return damaged(self, KELVANE_APPLY_BAD_REGION);
    }
    self->item.size = end - self->item.address;
    code = emit(self, KELVANE_ITEM_REGION);
  }
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  begin_item(self);
  if (!ahead(applier, 1, 4)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  self->item.value = take_word(applier);
  return emit(self, KELVANE_ITEM_CHECKSUM);
}

// A map gives each rank a category of its own.
static int is_map(uint32_t map) {
  uint32_t seen = 0;
  uint32_t rank;
  for (rank = 0; rank < CATEGORIES; ++rank) {
    seen |= 1u << ((map >> (3 * rank)) & 7u);
  }
  return seen == 0x7F;
}

// Where the reader stands, as an offset in the patch: its bytes begin at `start`.
static void begin_stream_item(walk* self, uint32_t start, const bit_reader* reader) {
  begin_item(self);
  self->item.position = start + reader->position;
}

// The words of one class, up to the code behind the last of them, which goes to `code_behind`.
static int walk_jumps(walk* self, bit_reader* reader, uint32_t start, uint32_t value, uint32_t map,
                      uint32_t* code_behind) {
  uint32_t address = 0;
  for (;;) {
    uint32_t rank;
    uint32_t category;
    uint32_t jump;
    int code;
    begin_stream_item(self, start, reader);
    rank = kelvane_apply_take_prefix(reader);
    if (rank >= CATEGORIES) {
      *code_behind = rank;
      return KELVANE_APPLY_OK;
    }
    category = (map >> (3 * rank)) & 7u;
    jump = smallest_jump[category] + kelvane_apply_take_bits(reader, payload_bits[category]);
    // Addresses ascend, so none lies beyond the last word of the address space.
    if (reader->overrun || jump > (0xFFFFFFFFu - address) / 4) {
      return damaged(self, KELVANE_APPLY_BAD_INCREMENTS);
    }
    address += jump * 4;
    self->item.address = address;
    self->item.size = 4;
    self->item.value = value;
    code = emit(self, KELVANE_ITEM_INCREMENT);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
}

// Codes 7 and 8 in front of a class tell the form of its value, 9 ends the stream. The first class
// has a single bit instead.
enum { SHORT_FORM = 7, LONG_FORM = 8, END_OF_STREAM = 9 };

static int walk_classes(walk* self, bit_reader* reader, uint32_t start) {
  uint32_t value = 0;
  uint32_t form = SHORT_FORM + kelvane_apply_take_bits(reader, 1);
  while (form != END_OF_STREAM) {
    uint32_t map = default_map;
    int code;
    begin_stream_item(self, start, reader);
    if (form == SHORT_FORM) {
      value += kelvane_apply_take_bits(reader, 16) + 1;
    } else {
      value = kelvane_apply_take_bits(reader, 32);
    }
    if (kelvane_apply_take_bits(reader, 1)) {
      map = kelvane_apply_take_bits(reader, 21);
      // A coder starts with a map of 0, which acts as the default one.
      map = map == 0 ? default_map : map;
    }
    if (reader->overrun || !is_map(map)) {
      return damaged(self, KELVANE_APPLY_BAD_INCREMENTS);
    }
    self->item.value = value;
    self->item.count = map;
    code = emit(self, KELVANE_ITEM_CLASS);
    if (code == KELVANE_APPLY_OK) {
      code = walk_jumps(self, reader, start, value, map, &form);
    }
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  // Bits of 0 fill the last byte, and nothing follows it.
  begin_stream_item(self, start, reader);
  if (reader->bit != 0 && kelvane_apply_take_bits(reader, 8 - reader->bit) != 0) {
    return damaged(self, KELVANE_APPLY_BAD_INCREMENTS);
  }
  return reader->position == reader->size ? KELVANE_APPLY_OK
                                          : damaged(self, KELVANE_APPLY_BAD_INCREMENTS);
}

static int walk_increments(walk* self) {
  kelvane_applier* const applier = self->applier;
  bit_reader reader;
  uint32_t start;
  int code;
  if (!ahead(applier, 1, 4)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  reader.size = self->item.count = take_word(applier);
  if (!ahead(applier, reader.size, 1)) {
    return damaged(self, KELVANE_APPLY_TRUNCATED);
  }
  start = applier->position;
  reader.bytes = applier->patch + start;
  reader.position = 0;
  reader.bit = 0;
  reader.overrun = 0;
  code = emit(self, KELVANE_ITEM_COMMAND);
  applier->position += reader.size;
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  // Without a class there is just the end code, which is shorter than any class.
  if (reader.size == 2 && reader.bytes[0] == 0x00 && reader.bytes[1] == 0x02) {
    return KELVANE_APPLY_OK;
  }
  return walk_classes(self, &reader, start);
}

static int walk_command(walk* self) {
  kelvane_applier* const applier = self->applier;
  const uint32_t start = applier->position;
  int code;
  begin_item(self);
  self->item.command = (uint8_t)take_byte(applier);
  self->item.after = 0;
  if (self->item.command != KELVANE_CM_CHECKSUM) {
    if (self->closed) {
      return damaged(self, KELVANE_APPLY_MISPLACED);
    }
    self->in_set = 1;
  }
  switch (self->item.command) {
    case KELVANE_CM_MOVE:
      code = walk_moves(self);
      break;
    case KELVANE_CM_SUBSTITUTE:
    case KELVANE_CM_SUB_COMP:
    case KELVANE_CM_SUB_ONE:
      code = walk_substitution(self);
      break;
    case KELVANE_CM_FILL:
      code = walk_fills(self);
      break;
    case KELVANE_CM_INCRS:
      code = walk_increments(self);
      break;
    case KELVANE_CM_CHECKSUM:
      // It frames the other commands, and only a version 1 patch in memory mode has it.
      if (applier->info.version == 0 || !applier->info.memory_mode) {
        return damaged(self, KELVANE_APPLY_MISPLACED);
      }
      self->closed = self->in_set;
      code = walk_checksum(self);
      break;
    default:
      return damaged(self, KELVANE_APPLY_BAD_COMMAND);
  }
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  begin_item(self);
  self->item.position = start;
  self->item.data_size = applier->position - start;
  return emit(self, KELVANE_ITEM_COMMAND_END);
}

int kelvane_apply_walk(kelvane_applier* applier, kelvane_visitor visitor, void* context) {
  walk self;
  int code = KELVANE_APPLY_OK;
  self.applier = applier;
  self.visitor = visitor;
  self.context = context;
  self.in_set = 0;
  self.closed = 0;
  applier->position = applier->info.header_size;
  while (applier->position < applier->size && code == KELVANE_APPLY_OK) {
    code = walk_command(&self);
  }
  if (code == KELVANE_APPLY_OK && !self.in_set) {
    return kelvane_apply_fail(applier, applier->position, KELVANE_APPLY_NO_COMMANDS);
  }
  return code;
}

int kelvane_apply_visit(kelvane_applier* applier, kelvane_visitor visitor, void* context) {
  if (applier == NULL || !applier->opened || visitor == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  return kelvane_apply_walk(applier, visitor, context);
}

// ---- The header ---------------------------------------------------------------------------------

static void take_file_fields(kelvane_applier* applier, uint32_t position) {
  applier->info.old_checksum = word_at(applier, position);
  applier->info.new_checksum = word_at(applier, position + 4);
  applier->info.old_size = word_at(applier, position + 8);
  applier->info.new_size = word_at(applier, position + 12);
}

// What the pair patch_size, patch_checksum at `position` says of the patch. The checksum covers
// what stands behind the pair.
enum fit { FITS, SIZE_DIFFERS, CHECKSUM_DIFFERS };

static enum fit fit_at(const kelvane_applier* applier, uint32_t position, uint32_t header_size) {
  const uint32_t behind = position + 8;
  if (applier->size < header_size || word_at(applier, position) != applier->size - FRAME_SIZE) {
    return SIZE_DIFFERS;
  }
  return kelvane_apply_checksum(0, applier->patch + behind, applier->size - behind) ==
                 word_at(applier, position + 4)
             ? FITS
             : CHECKSUM_DIFFERS;
}

static int open_version_1(kelvane_applier* applier) {
  kelvane_patch_info* const info = &applier->info;
  enum fit file_fit;
  enum fit memory_fit;
  uint32_t i;
  if (applier->size < MEMORY_HEADER_SIZE) {
    return kelvane_apply_fail(applier, applier->size, KELVANE_APPLY_TOO_SHORT);
  }
  for (i = 0; i < FRAME_SIZE; ++i) {
    if (applier->patch[i] != frame[i]) {
      return kelvane_apply_fail(applier, i, KELVANE_APPLY_BAD_HEADER);
    }
  }
  // The version is 1 in one byte order only, and this is the order of all the rest.
  info->version = 1;
  info->big_endian = 1;
  if (word_at(applier, FRAME_SIZE) != 1) {
    info->big_endian = 0;
    if (word_at(applier, FRAME_SIZE) != 1) {
      return kelvane_apply_fail(applier, FRAME_SIZE, KELVANE_APPLY_BAD_VERSION);
    }
  }
  // Nothing names the mode. The two words that describe the patch itself stand in another place,
  // and only in the right one do they fit.
  file_fit = fit_at(applier, FILE_SIZE_POSITION, FILE_HEADER_SIZE);
  memory_fit = fit_at(applier, MEMORY_SIZE_POSITION, MEMORY_HEADER_SIZE);
  if (file_fit == FITS && memory_fit == FITS) {
    return kelvane_apply_fail(applier, FRAME_SIZE, KELVANE_APPLY_BAD_SHAPE);
  }
  if (file_fit == FITS) {
    info->memory_mode = 0;
    info->header_size = FILE_HEADER_SIZE;
    take_file_fields(applier, FRAME_SIZE + 4);
    return KELVANE_APPLY_OK;
  }
  if (memory_fit == FITS) {
    info->memory_mode = 1;
    info->header_size = MEMORY_HEADER_SIZE;
    info->old_crt1 = word_at(applier, MEMORY_SIZE_POSITION + 8);
    info->new_crt1 = word_at(applier, MEMORY_SIZE_POSITION + 12);
    return KELVANE_APPLY_OK;
  }
  return kelvane_apply_fail(applier, FRAME_SIZE,
                            file_fit == SIZE_DIFFERS && memory_fit == SIZE_DIFFERS
                                ? KELVANE_APPLY_BAD_SIZE
                                : KELVANE_APPLY_BAD_CHECKSUM);
}

static int is_signed(const uint8_t* patch, uint32_t size) {
  uint32_t i;
  for (i = 0; i < SIGNATURE_SIZE; ++i) {
    if (i >= size || patch[i] != frame[i]) {
      return 0;
    }
  }
  return 1;
}

int kelvane_apply_open(kelvane_applier* applier, const uint8_t* patch, uint32_t size,
                       uint32_t version0_flags) {
  kelvane_patch_info* info;
  int code = KELVANE_APPLY_OK;
  if (applier == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  info = &applier->info;
  applier->opened = 0;
  applier->error_position = 0;
  applier->error_address = 0;
  if (patch == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  applier->patch = patch;
  applier->size = size;
  info->version = 0;
  info->memory_mode = (version0_flags & KELVANE_V0_MEMORY_MODE) != 0;
  info->big_endian = (version0_flags & KELVANE_V0_BIG_ENDIAN) != 0;
  info->header_size = V0_HEADER_SIZE;
  info->old_checksum = 0;
  info->new_checksum = 0;
  info->old_size = 0;
  info->new_size = 0;
  info->old_crt1 = 0;
  info->new_crt1 = 0;
  if (is_signed(patch, size)) {
    code = open_version_1(applier);
  } else if (size < V0_HEADER_SIZE) {
    code = kelvane_apply_fail(applier, size, KELVANE_APPLY_TOO_SHORT);
  } else {
    take_file_fields(applier, 0);
  }
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_apply_walk(applier, NULL, NULL);
  }
  applier->opened = code == KELVANE_APPLY_OK;
  return code;
}
