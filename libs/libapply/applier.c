// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// ---- The memory ---------------------------------------------------------------------------------

// What the operations on items below work on. The checksum is that of the regions of the command at
// hand.
typedef struct job {
  kelvane_applier* applier;
  const kelvane_memory* memory;
  uint32_t limit;    // file mode: no offset behind it
  uint32_t reached;  // file mode: the end of the last byte in the file that is written
  uint32_t sum;
  uint8_t after;  // which checksums to verify: those of the new contents
} job;

static uint32_t smaller(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

static int lies_in_regions(const kelvane_memory* memory, uint32_t address, uint32_t size) {
  if (size > 0 && size - 1 > 0xFFFFFFFFu - address) {
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

static int at_address(const job* self, uint32_t address, int code) {
  self->applier->error_address = address;
  return code;
}

static int in_memory(const job* self, const kelvane_item* item, uint32_t address) {
  const uint32_t size = item->size;
  const int in_file = self->applier->info.memory_mode || size == 0 ||
                      (address < self->limit && size <= self->limit - address);
  if (in_file && lies_in_regions(self->memory, address, size)) {
    return KELVANE_APPLY_OK;
  }
  self->applier->error_position = item->position;
  return at_address(self, address, KELVANE_APPLY_OUTSIDE);
}

// As in_memory, for a range that is written.
static int written_in_memory(job* self, const kelvane_item* item, uint32_t address) {
  const int code = in_memory(self, item, address);
  if (code == KELVANE_APPLY_OK && item->size > 0 && address + item->size > self->reached) {
    self->reached = address + item->size;
  }
  return code;
}

static int check_item(job* self, const kelvane_item* item) {
  int code = KELVANE_APPLY_OK;
  switch (item->kind) {
    case KELVANE_ITEM_MOVE:
      code = in_memory(self, item, item->address);
      // A block that stays where it is writes nothing.
      return code != KELVANE_APPLY_OK || item->value == 0
                 ? code
                 : written_in_memory(self, item, item->address + item->value);
    case KELVANE_ITEM_STORE:
    case KELVANE_ITEM_FILL:
    case KELVANE_ITEM_INCREMENT:
      return written_in_memory(self, item, item->address);
    case KELVANE_ITEM_REGION:
      return in_memory(self, item, item->address);
    default:
      return KELVANE_APPLY_OK;
  }
}

// Sets up `self`; gives 0 if the call can't be served.
static int start_job(job* self, kelvane_applier* applier, const kelvane_memory* memory) {
  if (applier == NULL || !applier->opened || memory == NULL || memory->read == NULL ||
      (memory->regions == NULL && memory->region_count > 0)) {
    return 0;
  }
  self->applier = applier;
  self->memory = memory;
  self->limit = applier->info.old_size > applier->info.new_size ? applier->info.old_size
                                                                : applier->info.new_size;
  self->reached = 0;
  self->sum = 0;
  self->after = 0;
  return 1;
}

// Does `operation` for every item of the patch, up to the first that gives a code.
static int for_each_item(job* self, int (*operation)(job* self, const kelvane_item* item)) {
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_apply_start(&cursor, self->applier);
  while (kelvane_item_next(&cursor, &item)) {
    const int code = operation(self, &item);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
  }
  return cursor.code;
}

static int room_for(const job* self, uint32_t size) {
  return self->applier->info.memory_mode || lies_in_regions(self->memory, 0, size)
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_NO_ROOM;
}

int kelvane_apply_check(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  int code;
  if (!start_job(&self, applier, memory)) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  code = room_for(&self, self.limit);
  if (code == KELVANE_APPLY_OK) {
    code = for_each_item(&self, check_item);
  }
  // What a file has grown by was written, up to its last byte. The checksum of the new file doesn't
  // tell: behind 32 bytes of 0 it is what it was.
  if (code == KELVANE_APPLY_OK && !applier->info.memory_mode &&
      applier->info.new_size > applier->info.old_size && self.reached != applier->info.new_size) {
    return at_address(&self, self.reached, KELVANE_APPLY_NEW_SIZE);
  }
  return code;
}

static int read_memory(const job* self, uint32_t address, uint8_t* bytes, uint32_t count) {
  return self->memory->read(self->memory->context, address, bytes, count) == 0
             ? KELVANE_APPLY_OK
             : at_address(self, address, KELVANE_APPLY_READ_FAILED);
}

static int write_memory(const job* self, uint32_t address, const uint8_t* bytes, uint32_t count) {
  return self->memory->write(self->memory->context, address, bytes, count) == 0
             ? KELVANE_APPLY_OK
             : at_address(self, address, KELVANE_APPLY_WRITE_FAILED);
}

// ---- Verification -------------------------------------------------------------------------------

static int add_to_sum(job* self, uint32_t address, uint32_t size) {
  uint8_t* const chunk = self->applier->chunk;
  while (size > 0) {
    const uint32_t step = smaller(size, KELVANE_APPLY_CHUNK);
    const int code = read_memory(self, address, chunk, step);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    self->sum = kelvane_apply_checksum(self->sum, chunk, step);
    address += step;
    size -= step;
  }
  return KELVANE_APPLY_OK;
}

#ifndef KELVANE_APPLY_FILE_MODE_ONLY
static int verify_item(job* self, const kelvane_item* item) {
  if (item->command != KELVANE_CM_CHECKSUM || item->after != self->after) {
    return KELVANE_APPLY_OK;
  }
  if (item->kind == KELVANE_ITEM_COMMAND) {
    self->sum = 0;
  } else if (item->kind == KELVANE_ITEM_REGION) {
    const int code = in_memory(self, item, item->address);
    return code != KELVANE_APPLY_OK ? code : add_to_sum(self, item->address, item->size);
  } else if (item->kind == KELVANE_ITEM_CHECKSUM && item->value != self->sum) {
    return kelvane_apply_fail(
        self->applier, item->position,
        self->after ? KELVANE_APPLY_NEW_CHECKSUM : KELVANE_APPLY_OLD_CHECKSUM);
  }
  return KELVANE_APPLY_OK;
}
#endif

static int verify_file(job* self, uint32_t size, uint32_t checksum, int mismatch) {
  int code = room_for(self, size);
  if (code == KELVANE_APPLY_OK) {
    code = add_to_sum(self, 0, size);
  }
  return code == KELVANE_APPLY_OK && self->sum != checksum ? mismatch : code;
}

int kelvane_apply_verify_old(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  if (!start_job(&self, applier, memory)) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  if (applier->info.memory_mode) {
    return for_each_item(&self, verify_item);
  }
#endif
  if (memory->old_size != KELVANE_SIZE_UNKNOWN && memory->old_size != applier->info.old_size) {
    return KELVANE_APPLY_OLD_SIZE;
  }
  return verify_file(&self, applier->info.old_size, applier->info.old_checksum,
                     KELVANE_APPLY_OLD_CHECKSUM);
}

int kelvane_apply_verify_new(kelvane_applier* applier, const kelvane_memory* memory) {
  job self;
  if (!start_job(&self, applier, memory)) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  self.after = 1;
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  if (applier->info.memory_mode) {
    return for_each_item(&self, verify_item);
  }
#endif
  return verify_file(&self, applier->info.new_size, applier->info.new_checksum,
                     KELVANE_APPLY_NEW_CHECKSUM);
}

// ---- Carrying out -------------------------------------------------------------------------------

// A piece that is written goes up to the end, or down to the start, of a page of the target.
static uint32_t piece_of(const job* self, uint32_t left, uint32_t in_page) {
  const uint32_t most = smaller(left, KELVANE_APPLY_CHUNK);
  return self->memory->page_size == 0 ? most : smaller(most, in_page);
}

// Source and destination may overlap: a block that goes down is taken from its start, one that goes
// up from its end, so that nothing is overwritten before it has been read.
static int move_block(const job* self, uint32_t from, uint32_t to, uint32_t size) {
  uint8_t* const chunk = self->applier->chunk;
  const uint32_t page = self->memory->page_size - 1;
  uint32_t done = 0;
  while (done < size && from != to) {
    const uint32_t left = size - done;
    const uint32_t step = to < from ? piece_of(self, left, page + 1 - ((to + done) & page))
                                    : piece_of(self, left, ((to + left - 1) & page) + 1);
    const uint32_t at = to < from ? done : left - step;
    int code = read_memory(self, from + at, chunk, step);
    if (code == KELVANE_APPLY_OK) {
      code = write_memory(self, to + at, chunk, step);
    }
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    done += step;
  }
  return KELVANE_APPLY_OK;
}

static int fill(const job* self, const kelvane_item* item) {
  uint8_t* const chunk = self->applier->chunk;
  uint32_t done = 0;
  uint32_t i;
  for (i = 0; i < smaller(item->size, KELVANE_APPLY_CHUNK); ++i) {
    chunk[i] = (uint8_t)item->value;
  }
  while (done < item->size) {
    const uint32_t step = smaller(item->size - done, KELVANE_APPLY_CHUNK);
    const int code = write_memory(self, item->address + done, chunk, step);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    done += step;
  }
  return KELVANE_APPLY_OK;
}

// Appends what a reference stands for to the `held` bytes of the chunk, which follow the `written`
// bytes that lie in memory already. What is further back than the first byte is 0.
static int repeat(const job* self, uint32_t address, uint32_t written, uint32_t* held,
                  const compressed_item* reference) {
  uint8_t* const chunk = self->applier->chunk;
  uint32_t left = reference->length;
  while (left > 0) {
    uint32_t step = 1;
    if (reference->distance > written + *held) {
      chunk[*held] = 0;
    } else {
      const uint32_t source = written + *held - reference->distance;
      if (source >= written) {
        chunk[*held] = chunk[source - written];
      } else {
        int code;
        step = smaller(left, written - source);
        code = read_memory(self, address + source, chunk + *held, step);
        if (code != KELVANE_APPLY_OK) {
          return code;
        }
      }
    }
    *held += step;
    left -= step;
  }
  return KELVANE_APPLY_OK;
}

void kelvane_apply_add(uint8_t* bytes, uint8_t big_endian, uint32_t value) {
  uint32_t i;
  uint32_t sum = 0;
  for (i = 0; i < 4; ++i) {
    uint8_t* const byte = bytes + (big_endian ? 3 - i : i);
    // What is carried from the bytes below is in the upper bits.
    sum = (sum >> 8) + *byte + (value & 0xFFu);
    value >>= 8;
    *byte = (uint8_t)(sum & 0xFFu);
  }
}

// Expands without a window of its own: references are read back from the memory.
static int expand(const job* self, const kelvane_item* item) {
  uint8_t* const chunk = self->applier->chunk;
  compressed_reader reader;
  compressed_item next = {0, 0, 0};
  uint32_t written = 0;
  uint32_t held = 0;
  int code;
  kelvane_apply_start_compressed(&reader, self->applier, item);
  while (kelvane_apply_take_compressed(&reader, &next) == ITEM_TAKEN) {
    if (held > KELVANE_APPLY_CHUNK - LONGEST_REFERENCE) {
      code = write_memory(self, item->address + written, chunk, held);
      if (code != KELVANE_APPLY_OK) {
        return code;
      }
      written += held;
      held = 0;
    }
    if (next.distance == 0) {
      chunk[held++] = next.literal;
    } else {
      code = repeat(self, item->address, written, &held, &next);
      if (code != KELVANE_APPLY_OK) {
        return code;
      }
    }
  }
  return held == 0 ? KELVANE_APPLY_OK : write_memory(self, item->address + written, chunk, held);
}

// Bytes in memory go to the target as they lie there; fetched ones by way of the chunk.
static int store(const job* self, const kelvane_item* item) {
  const kelvane_source* const patch = &self->applier->patch;
  uint32_t done = 0;
  while (done < item->size) {
    uint32_t step = item->size - done;
    const uint8_t* bytes = self->applier->chunk;
    int code;
    if (patch->bytes != NULL) {
      bytes = patch->bytes + item->data;
    } else {
      step = smaller(step, KELVANE_APPLY_CHUNK);
      if (kelvane_source_read(patch, item->data + done, self->applier->chunk, step) != 0) {
        return KELVANE_APPLY_FETCH_FAILED;
      }
    }
    code = write_memory(self, item->address + done, bytes, step);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    done += step;
  }
  return KELVANE_APPLY_OK;
}

static int add_to_word(const job* self, uint32_t address, uint32_t value) {
  uint8_t bytes[4];
  const int code = read_memory(self, address, bytes, 4);
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  kelvane_apply_add(bytes, self->applier->info.big_endian, value);
  return write_memory(self, address, bytes, 4);
}

static int carry_out_item(job* self, const kelvane_item* item) {
  self->applier->error_position = item->position;
  switch (item->kind) {
    case KELVANE_ITEM_MOVE:
      return move_block(self, item->address, item->address + item->value, item->size);
    case KELVANE_ITEM_STORE:
      return item->command == KELVANE_CM_SUB_COMP ? expand(self, item) : store(self, item);
    case KELVANE_ITEM_FILL:
      return fill(self, item);
    case KELVANE_ITEM_INCREMENT:
      return add_to_word(self, item->address, item->value);
    default:
      return KELVANE_APPLY_OK;
  }
}

int kelvane_apply_run(kelvane_applier* applier, const kelvane_memory* memory, uint32_t skip) {
  job self;
  int code;
  if (!start_job(&self, applier, memory) || memory->write == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  code = kelvane_apply_check(applier, memory);
  if (code == KELVANE_APPLY_OK && (skip & KELVANE_SKIP_OLD) == 0) {
    code = kelvane_apply_verify_old(applier, memory);
  }
  if (code == KELVANE_APPLY_OK) {
    code = for_each_item(&self, carry_out_item);
  }
  if (code == KELVANE_APPLY_OK && (skip & KELVANE_SKIP_NEW) == 0) {
    code = kelvane_apply_verify_new(applier, memory);
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
