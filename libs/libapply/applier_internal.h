// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the parts of the applier share: applier_reader.c reads the bytes of the patch and its
// header, applier_cursor.c takes its commands apart and checks their structure, applier_streams.c
// takes compressed bytes apart, applier_memory.c checks items against the memory and carries them
// out, applier.c goes over all of a patch.

#include "applier.h"

#ifdef __cplusplus
extern "C" {
#endif

// The headers of version 0 and, in either mode, of version 1.
enum { V0_HEADER_SIZE = 16, MEMORY_HEADER_SIZE = 40, FILE_HEADER_SIZE = 48 };

// Bytes of the patch that are fetched at a time. They lie at the end of the chunk, which what uses
// all of the chunk gives up.
enum { FETCHED_SIZE = 16, CHUNK_BESIDE_FETCHED = KELVANE_APPLY_CHUNK - FETCHED_SIZE };

// The whole chunk.
uint8_t* kelvane_apply_chunk(kelvane_applier* applier);

// The byte at `position`, which lies in the patch. What can't be fetched is anything, and noted.
uint8_t kelvane_apply_byte(kelvane_applier* applier, uint32_t position);

// The number of `count` bytes there, up to 4, in the byte order of the target.
uint32_t kelvane_apply_number(kelvane_applier* applier, uint32_t position, uint32_t count);

// Opens the patch that is set in `applier`, but for its commands, which are not looked at.
int kelvane_apply_open_header(kelvane_applier* applier, uint32_t version0_flags);

// What the header of a patch for files says.
enum header_word { OLD_CHECKSUM, NEW_CHECKSUM, OLD_SIZE, NEW_SIZE };
uint32_t kelvane_apply_header(kelvane_applier* applier, uint32_t word);

// Whether addresses are those of the target.
static inline int is_memory_mode(const kelvane_applier* applier) {
#ifdef KELVANE_APPLY_FILE_MODE_ONLY
  (void)applier;
  return 0;
#else
  return applier->memory_mode;
#endif
}

// Takes the next word of the increment class at hand and gives the kind of the item; or 0 behind
// the last one, and where the stream is damaged.
uint32_t kelvane_apply_next_word(kelvane_cursor* cursor, kelvane_item* item);

// A compressed stream, taken item by item, and the item at hand.
typedef struct compressed_reader {
  uint32_t position;
  uint32_t end;
  uint16_t flags;  // of the items to come in this group, from bit 0; a 1 stands behind the last
  uint16_t ring_index;
  uint16_t distance;  // how far back it repeats, or 0 for a literal
  uint8_t length;
  uint8_t literal;
} compressed_reader;

// Goes ahead of the first item of a compressed store.
void kelvane_apply_start_compressed(compressed_reader* reader, const kelvane_item* item);

// Takes the next item and gives 1; or gives 0 at the end of the stream, or inside its last item.
int kelvane_apply_take_compressed(kelvane_applier* applier, compressed_reader* reader);

// Sets the size of a compressed store. Gives a code: BAD_COMPRESSION if its stream is damaged.
int kelvane_apply_expanded_size(kelvane_applier* applier, kelvane_item* item);

// Adds `value` to the word of 4 bytes there.
void kelvane_apply_add(uint8_t* bytes, uint8_t big_endian, uint32_t value);

// Looks at the structure of every command. Gives a code.
int kelvane_apply_check_commands(kelvane_applier* applier);

// Goes ahead of the command at `position`, with a set of commands if one has been met before.
void kelvane_apply_start(kelvane_cursor* cursor, kelvane_applier* applier, uint32_t position);

// What is done with a patch, in this order. A flag that leaves one out is the pass.
enum pass {
  CHECK = 1,
  VERIFY_OLD = KELVANE_SKIP_OLD,
  CARRY_OUT = 4,
  VERIFY_NEW = KELVANE_SKIP_NEW,
  ALL_PASSES = 15
};

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
  uint8_t wanted;  // the passes to take
  uint8_t pass;    // the one at hand
} job;

// Sets up `self`, in which `wanted` is set. Gives a code, as all these do.
int kelvane_apply_begin(job* self, kelvane_applier* applier, const kelvane_memory* memory);

// Does what the pass is about with the item at hand; or checks it.
int kelvane_apply_item(job* self);
int kelvane_apply_check_item(job* self);

// What a pass gives behind the last item: a code of the patch, or that a file which grows is not
// written up to its end.
int kelvane_apply_end(const job* self);

// Compares a file with what the header says of the old or the new one.
int kelvane_apply_verify_file(job* self);

#ifdef __cplusplus
}
#endif
