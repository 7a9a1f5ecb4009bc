// SPDX-License-Identifier: Apache-2.0
// What the items of a patch do to the memory: whether they may, what it holds, and carried out.

#include "applier_internal.h"

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
int kelvane_apply_check_item(job* self) {
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

static int room_for(const job* self, uint32_t size) {
  return is_memory_mode(self->cursor.applier) || lies_in_regions(self->memory, 0, size)
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_NO_ROOM;
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
  if (item->kind == KELVANE_ITEM_MOVE && item->value == 0) {
    return KELVANE_APPLY_OK;
  }
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
        code = applier->fetch_code;
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
  if (item->command != KELVANE_CM_CHECKSUM ||
      self->pass != (item->after ? VERIFY_NEW : VERIFY_OLD)) {
    return KELVANE_APPLY_OK;
  }
  if (item->kind == KELVANE_ITEM_COMMAND) {
    self->sum = 0;
  } else if (item->kind == KELVANE_ITEM_REGION) {
    const int code = in_memory(self, item->address);
    return code == KELVANE_APPLY_OK ? go_over(self) : code;
  } else if (item->value != self->sum) {
    return KELVANE_APPLY_OLD_CHECKSUM + item->after;
  }
  return KELVANE_APPLY_OK;
}
#endif

int kelvane_apply_verify_file(job* self) {
  const uint32_t after = self->pass == VERIFY_NEW;
  kelvane_applier* const applier = self->cursor.applier;
  const uint32_t checksum = kelvane_apply_header(applier, OLD_CHECKSUM + after);
  const uint32_t size = kelvane_apply_header(applier, OLD_SIZE + after);
  int code;
  // It is about the header, and no place in memory.
  applier->error_position = 0;
  applier->error_address = 0;
  if (applier->fetch_code != KELVANE_APPLY_OK) {
    return applier->fetch_code;
  }
  if (!after && self->memory->old_size != KELVANE_SIZE_UNKNOWN && self->memory->old_size != size) {
    return KELVANE_APPLY_OLD_SIZE;
  }
  code = room_for(self, size);
  if (code == KELVANE_APPLY_OK) {
    self->sum = 0;
    self->item.kind = KELVANE_ITEM_REGION;
    self->item.address = 0;
    self->item.size = size;
    code = go_over(self);
  }
  return code == KELVANE_APPLY_OK && self->sum != checksum ? KELVANE_APPLY_OLD_CHECKSUM + (int)after
                                                           : code;
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
  kelvane_item* const item = &self->item;
  compressed_reader reader;
  uint32_t held = 0;  // bytes in the chunk, which go to the item's address
  int code = KELVANE_APPLY_OK;
  kelvane_apply_start_compressed(&reader, item);
  item->value = 0;  // from here on the bytes that are expanded
  while (code == KELVANE_APPLY_OK && kelvane_apply_take_compressed(self->cursor.applier, &reader)) {
    while (code == KELVANE_APPLY_OK && reader.length > 0) {
      uint8_t* const to = self->cursor.applier->chunk + held;
      uint32_t step = 1;
      if (held == CHUNK_BESIDE_FETCHED) {
        code = write_memory(self, item->address, self->cursor.applier->chunk, held);
        item->address += held;
        held = 0;
        continue;
      }
      if (reader.distance == 0 || reader.distance > item->value) {
        *to = reader.literal;
      } else if (reader.distance <= held) {
        *to = *(to - reader.distance);
      } else {
        step = smaller(smaller(reader.length, reader.distance - held), CHUNK_BESIDE_FETCHED - held);
        code = read_memory(self, item->address + held - reader.distance, to, step);
      }
      item->value += step;
      held += step;
      reader.length = (uint8_t)(reader.length - step);
    }
  }
  return code == KELVANE_APPLY_OK && held > 0
             ? write_memory(self, item->address, self->cursor.applier->chunk, held)
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

// ---- Passes -------------------------------------------------------------------------------------

int kelvane_apply_begin(job* self, kelvane_applier* applier, const kelvane_memory* memory) {
  uint32_t new_size;
  if (applier == NULL || applier->header_size == 0 || memory == NULL || memory->read == NULL ||
      (memory->regions == NULL && memory->region_count > 0) ||
      ((self->wanted & CARRY_OUT) != 0 && memory->write == NULL)) {
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
  if (applier->fetch_code != KELVANE_APPLY_OK) {
    return applier->fetch_code;
  }
  return (self->wanted & CHECK) != 0 ? room_for(self, self->limit) : (int)KELVANE_APPLY_OK;
}

// Each operation is called by itself, so that the stack holds what one of them needs.
int kelvane_apply_item(job* self) {
  int (*operation)(job * self) = go_over;
  if (self->pass == CHECK) {
    operation = kelvane_apply_check_item;
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  } else if (self->pass != CARRY_OUT || self->item.command == KELVANE_CM_CHECKSUM) {
    operation = verify_item;
#endif
  } else if (self->item.kind == KELVANE_ITEM_INCREMENT) {
    operation = add_to_word;
  } else if (self->item.kind == KELVANE_ITEM_STORE && self->item.command == KELVANE_CM_SUB_COMP) {
    operation = expand;
  }
  return operation(self);
}

int kelvane_apply_end(const job* self) {
  if (self->cursor.code != KELVANE_APPLY_OK || self->pass != CHECK ||
      is_memory_mode(self->cursor.applier) || self->reached == self->limit) {
    return self->cursor.code;
  }
  // What a file has grown by was written, up to its last byte. The checksum of the new file doesn't
  // tell: behind 32 bytes of 0 it is what it was.
  self->cursor.applier->error_address = self->reached;
  return KELVANE_APPLY_NEW_SIZE;
}
