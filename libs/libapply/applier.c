// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// ---- The memory ---------------------------------------------------------------------------------

// A walk over the patch for a memory, and the item at hand.
typedef struct job {
  kelvane_cursor cursor;
  kelvane_item item;
  const kelvane_memory* memory;
  uint32_t limit;  // file mode: no offset behind it
  union {
    uint32_t reached;  // in a check, file mode: the end of the last byte that is written
    uint32_t sum;      // in a verification: the checksum of what was read
  };
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  uint8_t after;  // which checksums to verify: those of the new contents
#endif
} job;

static uint32_t smaller(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

static int lies_in_regions(const kelvane_memory* memory, uint32_t address, uint32_t size) {
  if (size > 0 && size - 1 > ~address) {
    return 0;
  }
  while (size > 0) {
    uint32_t part = 0;
    uint32_t i;
    for (i = 0; i < memory->region_count && part == 0; ++i) {
      const kelvane_region* const region = &memory->regions[i];
      if (address >= region->address && address - region->address < region->size) {
        part = smaller(size, region->size - (address - region->address));
      }
    }
    if (part == 0) {
      return 0;
    }
    address += part;
    size -= part;
  }
  return 1;
}

// The bytes at `address`, as many as the item has.
static int in_memory(const job* self, uint32_t address) {
  const uint32_t size = self->item.size;
  kelvane_applier* const applier = self->cursor.applier;
  applier->error_address = address;
  return (is_memory_mode(applier) || size == 0 ||
          (address < self->limit && size <= self->limit - address)) &&
                 lies_in_regions(self->memory, address, size)
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_OUTSIDE;
}

// Items that name no bytes have none.
static int check_item(job* self) {
  uint32_t address = self->item.address;
  int code = in_memory(self, address);
  if (self->item.kind == KELVANE_ITEM_MOVE) {
    // A block that stays where it is writes nothing.
    if (code != KELVANE_APPLY_OK || self->item.value == 0) {
      return code;
    }
    address += self->item.value;
    code = in_memory(self, address);
  }
  address += self->item.size;
  if (self->item.size > 0 && address > self->reached) {
    self->reached = address;
  }
  return code;
}

// Sets up `self`; gives a code.
static int start_job(job* self, kelvane_applier* applier, const kelvane_memory* memory) {
  uint32_t new_size;
  if (applier == NULL || applier->header_size == 0 || memory == NULL || memory->read == NULL ||
      (memory->regions == NULL && memory->region_count > 0)) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  self->cursor.applier = applier;
  self->memory = memory;
  // A file that does not grow need not be written up to its end.
  self->limit = self->reached = kelvane_apply_header(applier, OLD_SIZE);
  new_size = kelvane_apply_header(applier, NEW_SIZE);
  if (new_size > self->limit) {
    self->limit = new_size;
    self->reached = 0;
  }
  return applier->fetch_failed ? KELVANE_APPLY_FETCH_FAILED : KELVANE_APPLY_OK;
}

// Does `operation` for every item of the patch, up to the first that gives a code.
static int for_each_item(job* self, int (*operation)(job* self)) {
  kelvane_applier* const applier = self->cursor.applier;
  kelvane_apply_start(&self->cursor, applier, applier->header_size);
  while (kelvane_item_next(&self->cursor, &self->item)) {
    const int code = operation(self);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  return self->cursor.code;
}

static int room_for(const job* self, uint32_t size) {
  return is_memory_mode(self->cursor.applier) || lies_in_regions(self->memory, 0, size)
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_NO_ROOM;
}

static int check_end(job* self) {
  // What a file has grown by was written, up to its last byte. The checksum of the new file doesn't
  // tell: behind 32 bytes of 0 it is what it was.
  self->cursor.applier->error_address = self->reached;
  return is_memory_mode(self->cursor.applier) || self->reached == self->limit
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_NEW_SIZE;
}

int kelvane_apply_check(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  int code = start_job(&self, applier, memory);
  if (code == KELVANE_APPLY_OK) {
    code = room_for(&self, self.limit);
  }
  if (code == KELVANE_APPLY_OK) {
    code = for_each_item(&self, check_item);
  }
  return code == KELVANE_APPLY_OK ? check_end(&self) : code;
}

static int read_memory(const job* self, uint32_t address, uint8_t* bytes, uint32_t count) {
  self->cursor.applier->error_address = address;
  return self->memory->read(self->memory->context, address, bytes, count) == 0
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_READ_FAILED;
}

static int write_memory(const job* self, uint32_t address, const uint8_t* bytes, uint32_t count) {
  self->cursor.applier->error_address = address;
  return self->memory->write(self->memory->context, address, bytes, count) == 0
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_WRITE_FAILED;
}

// ---- Bytes, piece by piece ----------------------------------------------------------------------

// Moves, stores or fills the bytes of an item, or adds those of a region to the sum. The item is
// what is left of it.
//
// Source and destination of a move may overlap: a block that goes down is taken from its start, one
// that goes up from its end, so that nothing is overwritten before it has been read. A piece goes
// up to the end, or down to the start, of a page of the target. Bytes to store that lie in memory
// go to the target from there; fetched ones by way of the chunk, beside the place where they were
// fetched.
static int go_over(job* self) {
  kelvane_item* const item = &self->item;
  kelvane_applier* const applier = self->cursor.applier;
  while (item->size > 0) {
    const uint32_t page = self->memory->page_size - 1;
    const uint8_t* bytes = applier->chunk;
    uint32_t step = smaller(item->size, KELVANE_APPLY_CHUNK);
    uint32_t from = item->address;
    uint32_t to = from;
    int code = KELVANE_APPLY_OK;
    if (item->kind == KELVANE_ITEM_STORE) {
      bytes = applier->patch.bytes;
      step = bytes != NULL ? item->size : smaller(step, CHUNK_BESIDE_FETCHED);
    } else if (item->kind == KELVANE_ITEM_MOVE) {
      to += item->value;
    }
    if (to > from) {
      step = smaller(step - 1, (to + item->size - 1) & page) + 1;
      from += item->size - step;
      to += item->size - step;
    } else {
      step = smaller(step - 1, ~to & page) + 1;
      item->address += step;
    }
    item->size -= step;
    if (item->kind == KELVANE_ITEM_STORE) {
      if (bytes != NULL) {
        bytes += item->value;
      } else {
        uint32_t i;
        bytes = applier->chunk;
        for (i = 0; i < step; ++i) {
          applier->chunk[i] = kelvane_apply_byte(applier, item->value + i);
        }
        if (applier->fetch_failed) {
          code = KELVANE_APPLY_FETCH_FAILED;
        }
      }
      item->value += step;
    } else if (item->kind == KELVANE_ITEM_FILL) {
      uint8_t* const chunk = kelvane_apply_chunk(applier);
      uint32_t i;
      for (i = 0; i < step; ++i) {
        chunk[i] = (uint8_t)item->value;
      }
    } else {
      code = read_memory(self, from, kelvane_apply_chunk(applier), step);
    }
    if (item->kind == KELVANE_ITEM_REGION) {
      self->sum = kelvane_apply_checksum(self->sum, applier->chunk, step);
    } else if (code == KELVANE_APPLY_OK) {
      code = write_memory(self, to, bytes, step);
    }
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  return KELVANE_APPLY_OK;
}

// ---- Verification -------------------------------------------------------------------------------

#ifndef KELVANE_APPLY_FILE_MODE_ONLY
static int verify_item(job* self) {
  const kelvane_item* const item = &self->item;
  if (item->command != KELVANE_CM_CHECKSUM || item->after != self->after) {
    return KELVANE_APPLY_OK;
  }
  if (item->kind == KELVANE_ITEM_COMMAND) {
    self->sum = 0;
  } else if (item->kind == KELVANE_ITEM_REGION) {
    const int code = in_memory(self, item->address);
    return code == KELVANE_APPLY_OK ? go_over(self) : code;
  } else if (item->value != self->sum) {
    return KELVANE_APPLY_OLD_CHECKSUM + self->after;
  }
  return KELVANE_APPLY_OK;
}
#endif

// Compares the old (after: 0) or the new (1) contents with what the patch says of them.
static int verify(job* self, uint8_t after) {
  kelvane_applier* const applier = self->cursor.applier;
  const uint32_t checksum = kelvane_apply_header(applier, OLD_CHECKSUM + after);
  const uint32_t size = kelvane_apply_header(applier, OLD_SIZE + after);
  int code = KELVANE_APPLY_FETCH_FAILED;
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  if (applier->memory_mode) {
    self->after = after;
    return for_each_item(self, verify_item);
  }
#endif
  // It is about the header, and no place in memory.
  applier->error_position = 0;
  applier->error_address = 0;
  if (!applier->fetch_failed) {
    if (!after && self->memory->old_size != KELVANE_SIZE_UNKNOWN &&
        self->memory->old_size != size) {
      return KELVANE_APPLY_OLD_SIZE;
    }
    code = room_for(self, size);
  }
  if (code == KELVANE_APPLY_OK) {
    self->sum = 0;
    self->item.kind = KELVANE_ITEM_REGION;
    self->item.address = 0;
    self->item.size = size;
    code = go_over(self);
    if (code == KELVANE_APPLY_OK && self->sum != checksum) {
      code = KELVANE_APPLY_OLD_CHECKSUM + after;
    }
  }
  return code;
}

int kelvane_apply_verify_old(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  const int code = start_job(&self, applier, memory);
  return code == KELVANE_APPLY_OK ? verify(&self, 0) : code;
}

int kelvane_apply_verify_new(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  const int code = start_job(&self, applier, memory);
  return code == KELVANE_APPLY_OK ? verify(&self, 1) : code;
}

// ---- Carrying out -------------------------------------------------------------------------------

void kelvane_apply_add(uint8_t* bytes, uint8_t big_endian, uint32_t value) {
  uint32_t i;
  for (i = 0; i < 4; ++i) {
    uint8_t* const byte = bytes + (big_endian ? 3 - i : i);
    // What is lost of a carry lies beyond the word.
    value += *byte;
    *byte = (uint8_t)(value & 0xFFu);
    value >>= 8;
  }
}

// Expands without a window of its own: references are read back from the memory. What is further
// back than the first byte is 0.
static int expand(job* self) {
  kelvane_applier* const applier = self->cursor.applier;
  compressed_reader reader;
  uint32_t done = 0;
  uint32_t held = 0;  // bytes in the chunk, the last of those that are done
  int code = KELVANE_APPLY_OK;
  kelvane_apply_start_compressed(&reader, &self->item);
  while (code == KELVANE_APPLY_OK && kelvane_apply_take_compressed(applier, &reader)) {
    while (code == KELVANE_APPLY_OK && reader.length > 0) {
      uint8_t* to;
      uint32_t step = 1;
      if (held == CHUNK_BESIDE_FETCHED) {
        code = write_memory(self, self->item.address + done - held, applier->chunk, held);
        held = 0;
        continue;
      }
      to = applier->chunk + held;
      if (reader.distance == 0 || reader.distance > done) {
        *to = reader.literal;
      } else if (reader.distance <= held) {
        *to = *(to - reader.distance);
      } else {
        step = smaller(smaller(reader.length, reader.distance - held), CHUNK_BESIDE_FETCHED - held);
        code = read_memory(self, self->item.address + done - reader.distance, to, step);
      }
      done += step;
      held += step;
      reader.length = (uint8_t)(reader.length - step);
    }
  }
  return code == KELVANE_APPLY_OK && held > 0
             ? write_memory(self, self->item.address + done - held, applier->chunk, held)
             : code;
}

static int add_to_word(job* self) {
  kelvane_applier* const applier = self->cursor.applier;
  const int code = read_memory(self, self->item.address, applier->chunk, 4);
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  kelvane_apply_add(applier->chunk, applier->big_endian, self->item.value);
  return write_memory(self, self->item.address, applier->chunk, 4);
}

static int carry_out_item(job* self) {
  const uint8_t kind = self->item.kind;
  int (*operation)(job * self) = go_over;
  if (kind == KELVANE_ITEM_REGION || (kind == KELVANE_ITEM_MOVE && self->item.value == 0)) {
    return KELVANE_APPLY_OK;
  }
  if (kind == KELVANE_ITEM_INCREMENT) {
    operation = add_to_word;
  } else if (kind == KELVANE_ITEM_STORE && self->item.command == KELVANE_CM_SUB_COMP) {
    operation = expand;
  }
  return operation(self);
}

int kelvane_apply_run(kelvane_applier* applier, const kelvane_memory* memory, uint32_t skip) {
  job self;
  int code = start_job(&self, applier, memory);
  if (code == KELVANE_APPLY_OK) {
    code = memory->write == NULL ? (int)KELVANE_APPLY_BAD_ARGUMENT : room_for(&self, self.limit);
  }
  if (code == KELVANE_APPLY_OK) {
    code = for_each_item(&self, check_item);
  }
  if (code == KELVANE_APPLY_OK) {
    code = check_end(&self);
  }
  if (code == KELVANE_APPLY_OK && (skip & KELVANE_SKIP_OLD) == 0) {
    code = verify(&self, 0);
  }
  if (code == KELVANE_APPLY_OK) {
    code = for_each_item(&self, carry_out_item);
  }
  if (code == KELVANE_APPLY_OK && (skip & KELVANE_SKIP_NEW) == 0) {
    code = verify(&self, 1);
  }
  return code;
}

// ---- Words --------------------------------------------------------------------------------------

const char* kelvane_apply_text(int code) {
  static const char* const texts[KELVANE_APPLY_CODES] = {
      "no error",
      "the applier was called with a wrong argument",
      "the patch is shorter than its header",
      "the header is not that of a patch",
      "the version of the patch is not known",
      "the patch has not the size that its header states",
      "the patch has not the checksum that its header states",
      "the header fits file mode and memory mode",
      "the patch holds no command",
      "a command has an unknown code",
      "a command stands where it may not stand",
      "a command runs over the end of the patch",
      "a list of substitutions is damaged",
      "a region ends before it starts",
      "a compressed substitution is damaged",
      "the stream of increments is damaged",
      "the memory is too small for the old or the new file",
      "an address lies outside the memory",
      "the new file has not the size that the header states",
      "the old file has another size",
      "the old contents have another checksum",
      "the new contents have another checksum",
      "reading the memory failed",
      "writing the memory failed",
      "fetching the patch failed",
  };
  return code >= 0 && code < KELVANE_APPLY_CODES ? texts[code] : "unknown error";
}
