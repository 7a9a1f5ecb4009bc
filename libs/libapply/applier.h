// SPDX-License-Identifier: Apache-2.0
#pragma once

// Carries out a patch on a target: turns the old contents of a memory into the new ones, in place.
//
// Plain C11, which also compiles as C++. It needs no heap, no stdio, no recursion, no division and
// no integer wider than 32 bits, and it includes nothing but <stddef.h> and <stdint.h>. All its
// state is in a `kelvane_applier`, which the caller provides (KELVANE_APPLIER_BYTES at most).
// docs/device.md states code, state and stack for Cortex-M, as scripts/applier-sizes measures them.
//
// The patch has to be there whole before its first byte can be trusted, since nothing is changed
// before everything has been checked. It is reached by a pointer where it lies in memory or in
// mapped flash, and then bytes to store go to the target without a copy; or by a callback, as in
// external flash. It must not change before it is used.
//
// The target is reached by two callbacks, read and write, so that RAM, flash behind a write buffer
// and a file serve alike. A read must give what the writes before it have written.
//
// The usual call, for an image of `old_size` bytes in a memory of `capacity` (the whole program is
// apply_example.c):
//
//   static int read_memory(void* memory, uint32_t address, uint8_t* bytes, uint32_t count) {
//     memcpy(bytes, (const uint8_t*)memory + address, count);
//     return 0;
//   }
//
//   static int write_memory(void* memory, uint32_t address, const uint8_t* bytes, uint32_t count) {
//     memcpy((uint8_t*)memory + address, bytes, count);
//     return 0;
//   }
//
//   static int update(void* image, uint32_t old_size, uint32_t capacity, const uint8_t* patch,
//                     uint32_t patch_size, uint32_t* new_size) {
//     static kelvane_applier applier;
//     const kelvane_region room = {0, capacity};
//     const kelvane_memory memory = {image, read_memory, write_memory, &room, 1, old_size, 0};
//     kelvane_patch_info info;
//     // The words of a patch between raw images are little-endian, whatever the target's are. Only
//     // version 0 has to be told.
//     int code = kelvane_apply_open(&applier, patch, patch_size, KELVANE_V0_LITTLE_ENDIAN);
//     if (code == KELVANE_APPLY_OK) {
//       code = kelvane_apply_run(&applier, &memory, 0);
//     }
//     if (code != KELVANE_APPLY_OK) {
//       printf("%s (at %u of the patch, %u of the memory)\n", kelvane_apply_text(code),
//              (unsigned)applier.error_position, (unsigned)applier.error_address);
//     }
//     *new_size = kelvane_apply_info(&applier, &info) == KELVANE_APPLY_OK ? info.new_size : 0;
//     return code;
//   }
//
// Nothing here is able to resume: a run that was cut off between its first and its last write
// leaves a mixture. A target that can lose power keeps the old contents elsewhere until the end.

#include <stddef.h>
#include <stdint.h>

#include "byte_source.h"

#ifdef __cplusplus
extern "C" {
#endif

// The bytes that are moved, filled, expanded and summed at a time, also room for what is fetched of
// the patch. A larger one makes fewer calls; 32 is the least.
#ifndef KELVANE_APPLY_CHUNK
#define KELVANE_APPLY_CHUNK 256
#endif

// Nothing larger is ever needed for a kelvane_applier, with pointers of up to 64 bits.
#define KELVANE_APPLIER_BYTES (KELVANE_APPLY_CHUNK + 64)

// Define KELVANE_APPLY_FILE_MODE_ONLY for a target that takes patches between raw images alone: the
// code for patches of target memory drops out, and such a patch is refused as damaged.

// What the operations give.
enum kelvane_apply_code {
  KELVANE_APPLY_OK = 0,
  // The call itself is wrong, or the patch was not opened.
  KELVANE_APPLY_BAD_ARGUMENT,
  // The patch is damaged, or no patch. Nothing has been written.
  KELVANE_APPLY_TOO_SHORT,
  KELVANE_APPLY_BAD_HEADER,
  KELVANE_APPLY_BAD_VERSION,
  KELVANE_APPLY_BAD_SIZE,
  KELVANE_APPLY_BAD_CHECKSUM,
  KELVANE_APPLY_BAD_SHAPE,
  KELVANE_APPLY_NO_COMMANDS,
  KELVANE_APPLY_BAD_COMMAND,
  KELVANE_APPLY_MISPLACED,
  KELVANE_APPLY_TRUNCATED,
  KELVANE_APPLY_BAD_LIST,
  KELVANE_APPLY_BAD_REGION,
  KELVANE_APPLY_BAD_COMPRESSION,
  KELVANE_APPLY_BAD_INCREMENTS,
  // The patch is sound and does not fit the memory. Nothing has been written.
  KELVANE_APPLY_NO_ROOM,
  KELVANE_APPLY_OUTSIDE,
  // File mode: the new file is the longer one, and the last byte that the patch writes is not its
  // last one, so the header is damaged. Nothing has been written.
  KELVANE_APPLY_NEW_SIZE,
  // The old contents are not those that the patch was made for. Nothing has been written.
  KELVANE_APPLY_OLD_SIZE,
  KELVANE_APPLY_OLD_CHECKSUM,
  // The new contents are not what they should be.
  KELVANE_APPLY_NEW_CHECKSUM,
  // A callback failed. With a failed write, or a failed read once writing has begun, the memory is
  // neither old nor new.
  KELVANE_APPLY_READ_FAILED,
  KELVANE_APPLY_WRITE_FAILED,
  // The patch could not be fetched. If writing had begun, as above.
  KELVANE_APPLY_FETCH_FAILED,
  KELVANE_APPLY_CODES  // the number of codes
};

// The commands, by their code in the patch.
enum kelvane_command {
  KELVANE_CM_SUBSTITUTE = 1,
  KELVANE_CM_SUB_ONE = 2,
  KELVANE_CM_MOVE = 3,
  KELVANE_CM_CHECKSUM = 4,
  KELVANE_CM_SUB_COMP = 5,
  KELVANE_CM_FILL = 6,
  KELVANE_CM_INCRS = 7
};

// What a version 0 patch does not say about itself. Version 1 says both, and the flags are ignored.
#define KELVANE_V0_LITTLE_ENDIAN 0u
#define KELVANE_V0_BIG_ENDIAN 1u
#define KELVANE_V0_MEMORY_MODE 2u  // the addresses are those of the target, not offsets in a file

// Verifications that kelvane_apply_run is to leave out.
#define KELVANE_SKIP_OLD 2u
#define KELVANE_SKIP_NEW 8u

// For kelvane_memory.old_size: the target can't tell how long the old file is.
#define KELVANE_SIZE_UNKNOWN 0xFFFFFFFFu

// A stretch of memory that may be read and written: `size` bytes from `address`.
typedef struct kelvane_region {
  uint32_t address;
  uint32_t size;
} kelvane_region;

// Copies `count` bytes (never 0) between the target's memory at `address` and `bytes`. No call
// leaves the regions named in kelvane_memory; one call may run over the seam of two regions that
// touch. `count` has no other limit. Gives 0, or anything else for a failure.
typedef int (*kelvane_read)(void* context, uint32_t address, uint8_t* bytes, uint32_t count);
typedef int (*kelvane_write)(void* context, uint32_t address, const uint8_t* bytes, uint32_t count);

// The memory to change.
typedef struct kelvane_memory {
  void* context;  // handed to the callbacks
  kelvane_read read;
  kelvane_write write;
  // All the memory that the patch may touch, in any order. In file mode the addresses are offsets
  // from the start of the file: usually one region from 0, as large as the file may become. In
  // memory mode words are changed whole at addresses that are multiples of 4, so a region should
  // start and end at such an address even where a section does not; and the scratch space that the
  // patch may use, the symbol ".heap", is a region too.
  const kelvane_region* regions;
  uint32_t region_count;
  // File mode: the bytes that the old file has, or KELVANE_SIZE_UNKNOWN.
  uint32_t old_size;
  // Bytes of a page of the memory, a power of two, or 0. No piece of a block that is moved, stored
  // or filled is written over the end of a page, so that a write buffer of one page takes each page
  // in once.
  uint32_t page_size;
} kelvane_memory;

// What the header says.
typedef struct kelvane_patch_info {
  uint8_t version;        // 0 or 1
  uint8_t memory_mode;    // 0: addresses are offsets in a file; 1: addresses of the target
  uint8_t big_endian;     // byte order of the target: 1 big-endian, 0 little-endian
  uint32_t header_size;   // offset of the first command
  uint32_t old_checksum;  // version 0 and file mode: the whole old file
  uint32_t new_checksum;  // and the whole new one
  uint32_t old_size;      // bytes of each
  uint32_t new_size;
  uint32_t old_crt1;  // version 1 in memory mode: address of the start-up code in the old
  uint32_t new_crt1;  // and in the new image
} kelvane_patch_info;

// The working memory. `error_position` and `error_address` are for the caller to read.
typedef struct kelvane_applier {
  uint8_t header_size;  // of the patch; 0 if none is opened
  uint8_t memory_mode;
  uint8_t big_endian;
  uint8_t fetch_code;  // KELVANE_APPLY_FETCH_FAILED once that has happened
  kelvane_source patch;
  uint32_t error_position;  // where the item of the patch at hand begins: with a code other than
                            // OK, the place in the patch that it is about
  uint32_t error_address;   // OUTSIDE, READ_FAILED, WRITE_FAILED: where in memory;
                            // NEW_SIZE: the size that the file would have
  uint32_t fetched;         // the position of what is fetched, at the end of the chunk
  uint8_t chunk[KELVANE_APPLY_CHUNK];
} kelvane_applier;

#ifdef __cplusplus
static_assert(sizeof(kelvane_applier) <= KELVANE_APPLIER_BYTES, "as stated");
static_assert(KELVANE_APPLY_CHUNK >= 32, "what is fetched leaves room");
#else
_Static_assert(sizeof(kelvane_applier) <= KELVANE_APPLIER_BYTES, "as stated");
_Static_assert(KELVANE_APPLY_CHUNK >= 32, "what is fetched leaves room");
#endif

// The things that a patch consists of, in the order in which they come:
//   COMMAND, then (for the three substitutions) LIST, then the items of the command
enum kelvane_item_kind {
  KELVANE_ITEM_COMMAND = 1,  // count: blocks, lists, fills, regions, or bytes of the stream
  KELVANE_ITEM_LIST,         // count: commands; relative; address: base of a relative list
  KELVANE_ITEM_MOVE,         // address: source; size; value: what to add to get the destination
  KELVANE_ITEM_STORE,  // address; size; value: offset of its bytes in the patch; count: how many
                       // these are (compressed in CM_SUB_COMP; size counts the expanded ones)
  KELVANE_ITEM_FILL,   // address; size; value: the byte
  KELVANE_ITEM_CLASS,  // value: what to add to the words of this class; count: its map
  KELVANE_ITEM_INCREMENT,  // address: the word; size: 4; value: what to add to it
  KELVANE_ITEM_REGION,     // address; size: a region under a checksum
  KELVANE_ITEM_CHECKSUM    // value: the checksum of all regions of this command together
};

// What a kind does not name is not set, but for the size, which is 0 then. Where the item begins in
// the patch is told by `error_position` of the applier, until the next item is taken.
typedef struct kelvane_item {
  uint8_t kind;      // KELVANE_ITEM_...
  uint8_t command;   // KELVANE_CM_..., the command that it belongs to
  uint8_t relative;  // of the list: 0 absolute, 1 relative
  uint8_t after;     // of CM_CHECKSUM: 0 describes the old contents, 1 the new ones
  uint32_t address;
  uint32_t size;
  uint32_t value;
  uint32_t count;
} kelvane_item;

// How far the words of one increment class are read. A copy goes on from there by itself.
typedef struct kelvane_words {
  uint32_t position;  // byte in the patch
  uint32_t address;   // of the last word; 0 ahead of the first
  uint32_t value;     // what is added to each
  uint32_t map;       // of the class; from bit 29 on the bit in the byte; bit 28: overrun
} kelvane_words;

// How far a command of another kind is read.
typedef struct kelvane_listed {
  uint32_t left;   // items of the command, or of the list, that are still to come
  uint32_t base;   // of a relative list: what the next address is told from,
  uint32_t reach;  // and how far it may lie behind
} kelvane_listed;

// A walk over the items of a patch. It may be copied, and the copy goes on by itself. `code` is for
// the caller to read.
typedef struct kelvane_cursor {
  kelvane_applier* applier;
  uint8_t command;
  uint8_t stage;
  uint8_t relative;
  uint8_t in_set;     // a command other than CM_CHECKSUM has been met
  uint8_t closed;     // and a CM_CHECKSUM behind it
  uint8_t code;       // KELVANE_APPLY_..., once there is no further item
  uint16_t lists;     // that are still to come; among increments, the form of the class
  uint32_t position;  // in the patch; among increments, the end of their stream
  union {
    kelvane_listed list;
    kelvane_words words;
  };
} kelvane_cursor;

// Reads the patch of `size` bytes at `patch` and checks all that can be checked without the
// target: header, size, checksum, the structure of every command with its streams. `version0_flags`
// (KELVANE_V0_...) tell what a version 0 patch leaves open. The patch must stay where it is as long
// as `applier` is used. Gives a code.
int kelvane_apply_open(kelvane_applier* applier, const uint8_t* patch, uint32_t size,
                       uint32_t version0_flags);

// The same for a patch that is fetched. `source` is copied.
int kelvane_apply_open_source(kelvane_applier* applier, const kelvane_source* source,
                              uint32_t version0_flags);

// Reads the header of an opened patch. Gives a code.
int kelvane_apply_info(kelvane_applier* applier, kelvane_patch_info* info);

// Goes to the start of an opened patch, for:
//   while (kelvane_item_next(&cursor, &item)) { ... }
// A patch that was not opened gives no item and the code KELVANE_APPLY_BAD_ARGUMENT.
void kelvane_cursor_start(kelvane_cursor* cursor, kelvane_applier* applier);

// Takes the next item and gives 1; or gives 0 at the end, where `cursor->code` is
// KELVANE_APPLY_OK, or tells what is wrong with the patch.
int kelvane_item_next(kelvane_cursor* cursor, kelvane_item* item);

// Tests that nothing in the patch reads or writes outside the regions of `memory` (in file mode:
// nor behind the longer of the two files, which must fit the regions), and that a file which grows
// is written up to its end. Calls no callback.
int kelvane_apply_check(kelvane_applier* applier, const kelvane_memory* memory);

// Compare the contents of `memory` with what the patch says of the old (new) ones: size and
// checksum of the whole file, in memory mode the checksums of the regions in CM_CHECKSUM. A version
// 0 patch in memory mode says nothing that could be compared, so it gives KELVANE_APPLY_OK.
// They call `read` only.
int kelvane_apply_verify_old(kelvane_applier* applier, const kelvane_memory* memory);
int kelvane_apply_verify_new(kelvane_applier* applier, const kelvane_memory* memory);

// Carries out the patch: kelvane_apply_check, kelvane_apply_verify_old, then every command in the
// order of the patch, then kelvane_apply_verify_new. `skip` (KELVANE_SKIP_..., 0 for none) leaves
// out a verification; the check is never left out. Nothing is written before all of that has
// passed. In file mode the result is the first `new_size` bytes that the header tells.
int kelvane_apply_run(kelvane_applier* applier, const kelvane_memory* memory, uint32_t skip);

// Folds `count` bytes into the checksum `sum` and gives the new one; start with 0. For each byte
// the sum is rotated left by 7 bits and the byte added.
uint32_t kelvane_apply_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count);

// A short text for a code, in English, without a full stop.
const char* kelvane_apply_text(int code);

#ifdef __cplusplus
}
#endif
