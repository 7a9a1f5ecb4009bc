// SPDX-License-Identifier: Apache-2.0
#pragma once

// Computes a new image from an old one and a dense payload, in ascending order, a window at a time.
//
// Plain C11, no heap, no recursion, no integer wider than 32 bits. docs/dense-format.md tells the
// format to the byte: copies of old bytes, in which references (addresses, calls, halves of
// addresses) are predicted through a map of what moved where, and everything else by one adaptive
// binary coder.
//
// The decoder reads payload, old image and finished parts of the new image by callbacks and writes
// nothing but the window that it is given. Whatever the payload holds, it reads inside the images
// alone and ends; what it can't take gives a code.
//
//   static kelvane_dense_decoder decoder;
//   static uint32_t map[1024];
//   const kelvane_dense_input input = {&board, payload_size, read_payload, read_old, read_new, 0};
//   kelvane_dense_info info;
//   int code = kelvane_dense_open(&decoder, &input, map, sizeof map, &info);
//   if (code == KELVANE_DENSE_OK && old image and room fit info) {
//     code = kelvane_dense_restart(&decoder);
//     for (at = 0; code == KELVANE_DENSE_OK && at < info.new_size; at += sizeof window) {
//       code = kelvane_dense_window(&decoder, at, window, sizeof window);
//       ... the caller puts the window in its place
//     }
//   }
//   the caller compares info.new_checksum with the checksum of what came out
//
// Resuming: the first KELVANE_DENSE_SAVED bytes of the decoder are all that the next window depends
// on, besides payload, images and map, and hold no pointer. Saved between two windows and put back
// later, into a decoder that has been opened and asked to resume, it goes on from there.
//
// Room: the decoder itself (7160 bytes for a Cortex-M3, 7132 of them saved) and 14 bytes for each
// entry of the map. With KELVANE_DENSE_LARGEST_MODEL 0 it takes 3832 bytes (3804) and refuses
// payloads made for the larger model. Machines whose KELVANE_DENSE_WITH_... is 0 cost no code, and
// their payloads are refused.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELVANE_DENSE_WITH_THUMB
#define KELVANE_DENSE_WITH_THUMB 1
#endif
#ifndef KELVANE_DENSE_WITH_ARM
#define KELVANE_DENSE_WITH_ARM 1
#endif
#ifndef KELVANE_DENSE_WITH_POWERPC
#define KELVANE_DENSE_WITH_POWERPC 1
#endif
#ifndef KELVANE_DENSE_WITH_MIPS
#define KELVANE_DENSE_WITH_MIPS 1
#endif
#ifndef KELVANE_DENSE_WITH_RISCV
#define KELVANE_DENSE_WITH_RISCV 1
#endif

// The largest model that is taken: 0 or 1.
#ifndef KELVANE_DENSE_LARGEST_MODEL
#define KELVANE_DENSE_LARGEST_MODEL 1
#endif

// What a model has: counters for decisions and for literals, and references that it remembers.
#define KELVANE_DENSE_FLAGS(model) (512u << (model))
#define KELVANE_DENSE_LITERALS(model) (1024u << (model))
#define KELVANE_DENSE_LEARNED(model) (32u << (model))

enum kelvane_dense_code {
  KELVANE_DENSE_OK = 0,
  KELVANE_DENSE_BAD_ARGUMENT = 64,  // a window out of turn, or a decoder that was not opened
  KELVANE_DENSE_BAD_HEADER,         // no dense payload, or a version that is not known
  KELVANE_DENSE_NO_MACHINE,         // made for a machine that was left out
  KELVANE_DENSE_NO_ROOM,            // the model or the map is too large
  KELVANE_DENSE_BAD_PAYLOAD,        // asks for what is not there
  KELVANE_DENSE_READ_FAILED         // a callback gave no code of its own
};

enum kelvane_dense_machine {
  KELVANE_DENSE_NONE = 0,
  KELVANE_DENSE_THUMB,
  KELVANE_DENSE_ARM,
  KELVANE_DENSE_POWERPC,
  KELVANE_DENSE_MIPS,
  KELVANE_DENSE_RISCV,  // 32 and 64 bit, compressed or not
  KELVANE_DENSE_MACHINES
};

// What the decoder reads. Each callback copies `count` bytes (never 0) to `bytes` and gives 0, or a
// code that the decoder hands back. None is asked for bytes outside the payload or the images.
typedef struct kelvane_dense_input {
  void* context;
  uint32_t payload_size;
  int (*read_payload)(void* context, uint32_t position, uint8_t* bytes, uint32_t count);
  // The old image as it was before the first window, whatever has been written since.
  int (*read_old)(void* context, uint32_t address, uint8_t* bytes, uint32_t count);
  // The new image below the window at hand. Null: no match into the new image is taken.
  int (*read_new)(void* context, uint32_t address, uint8_t* bytes, uint32_t count);
  uint32_t largest_image;  // refuse payloads for larger images; 0 for 0x7FFFFFFF
} kelvane_dense_input;

// What a payload says of itself.
typedef struct kelvane_dense_info {
  uint8_t machine;  // KELVANE_DENSE_THUMB and so on
  uint8_t code_big_endian;
  uint8_t data_big_endian;
  uint8_t differences;  // differences between two places are predicted
  uint8_t reads_new;    // has matches into the new image: it can't be computed unwritten
  uint8_t model;
  uint32_t old_size;
  uint32_t new_size;
  uint32_t old_checksum;  // as kelvane_dense_checksum computes it
  uint32_t new_checksum;
  uint32_t base;         // address of the old image's first byte on the target
  uint32_t map_entries;  // 14 bytes each
} kelvane_dense_info;

// An entry of the map: `length` old bytes at `source` went to `target`, but for their references.
typedef struct kelvane_dense_entry {
  uint32_t source;
  uint32_t target;
  uint32_t length;
} kelvane_dense_entry;

typedef struct kelvane_dense_coder {
  uint32_t range;
  uint32_t code;
  uint32_t position;  // of the next byte of the payload
} kelvane_dense_coder;

// What the adaptive coding has seen so far. What is small stands ahead, where instructions reach
// it, here as in the decoder.
typedef struct kelvane_dense_model {
  uint8_t matches;         // the last two: literal or match
  uint8_t outcomes;        // the last three predictions: right or wrong
  uint8_t outcomes_of[9];  // by the kind of token
  uint8_t flag_shift;      // a flag's counter is its hash without that many bits
  uint32_t match_shift;
  uint32_t match_distance;
  uint32_t tail;  // where the second half of an instruction lies that is taken by halves
  uint32_t differences[3][6];
  uint32_t old_registers[32];
  uint32_t new_registers[32];
  uint32_t learned[KELVANE_DENSE_LEARNED(KELVANE_DENSE_LARGEST_MODEL)][2];  // for what, and what
  int16_t weights[6][3];  // of what a literal's counters say
  uint8_t literals[KELVANE_DENSE_LITERALS(KELVANE_DENSE_LARGEST_MODEL)];
  uint32_t flags[KELVANE_DENSE_FLAGS(KELVANE_DENSE_LARGEST_MODEL)];
} kelvane_dense_model;

// Where the decoder stands.
typedef struct kelvane_dense_state {
  uint8_t match_is_new;
  uint8_t pending_count;  // bytes of a copied word that did not fit into the last window
  uint8_t pending[4];     // the last one first
  uint16_t recent;        // the last two bytes, the last one lowest; 0 for those from the new image
  int32_t failed;         // the code that ended it
  kelvane_dense_coder coder;
  uint32_t position;      // the next byte of the new image
  uint32_t literals_end;  // of the command at hand: literals end, copied bytes begin
  uint32_t copy_end;
  uint32_t source;      // of the next copied byte
  uint32_t source_end;  // where the last copy ended in the old image
  uint32_t match_left;  // bytes of the match at hand
  uint32_t match_from;
  uint32_t next_entry;  // of the map
  kelvane_dense_model model;
} kelvane_dense_state;

// The caller's memory for a decoder; what is to be saved stands at its start.
typedef struct kelvane_dense_decoder {
  kelvane_dense_info info;
  kelvane_dense_state state;
  const kelvane_dense_input* input;
  kelvane_dense_entry* entries;  // in order of targets
  uint16_t* by_source;           // their numbers in order of sources
  uint32_t entry_count;
  kelvane_dense_coder behind_map;  // how a pass begins; a range of 0 if nothing is opened
} kelvane_dense_decoder;

#define KELVANE_DENSE_SAVED (sizeof(kelvane_dense_info) + sizeof(kelvane_dense_state))

// Reads and checks the header, tells what it says, and reads the map, whose memory stays in use as
// `input` does: `map_size` bytes, aligned for 32-bit numbers; may be null if there is no map.
int kelvane_dense_open(kelvane_dense_decoder* decoder, const kelvane_dense_input* input, void* map,
                       uint32_t map_size, kelvane_dense_info* info);

// A pass begins, at address 0.
int kelvane_dense_restart(kelvane_dense_decoder* decoder);

// Goes on from a `state` that has been put back since the decoder was opened.
int kelvane_dense_resume(kelvane_dense_decoder* decoder);

// Computes `count` bytes of the new image from `address` on, where the last window ended. Bytes
// behind the end of the image are 0xFF. After a failure every further window gives the same code.
int kelvane_dense_window(kelvane_dense_decoder* decoder, uint32_t address, uint8_t* bytes,
                         uint32_t count);

// Folds bytes into a checksum (CRC-32, reflected, polynomial 0xEDB88320) that starts with 0.
uint32_t kelvane_dense_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count);

#ifdef __cplusplus
}
#endif
