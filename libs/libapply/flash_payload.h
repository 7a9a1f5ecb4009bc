// SPDX-License-Identifier: Apache-2.0
#pragma once

// What computes the new image from the payload of a bundle, a window at a time, apart from pages,
// ring and journal: flash_apply.h knows a payload by this interface alone. Plain C11.
//
// A payload sees the old image as it was before the update, by `old_image`, whatever has been
// written meanwhile; the update looks up where each page of it lies now. Windows come in ascending
// order and never overlap, within one pass; a pass begins with `restart`. There are two sorts of
// kinds:
//   state_size 0   Any window may be asked for behind any other, and gives the same bytes each
//   time.
//                  Pages that do not change are left out.
//   otherwise      The first `state_size` bytes of the state decide what comes next. Every window
//   from
//                  0 to the end of the new image is asked for, those of pages that do not change
//                  too. Whenever the pages that the bundle tells are done, the update saves these
//                  bytes in spare pages; a restart after power loss puts the last of them back,
//                  calls `resume`, and asks for the windows that have been written since once more.

#include <stdint.h>

#include "byte_source.h"

#ifdef __cplusplus
extern "C" {
#endif

// The kinds, as the bundle has them.
enum kelvane_payload_number {
  KELVANE_PAYLOAD_PATCH = 1,  // a patch of version 1 in file mode, unchanged
  KELVANE_PAYLOAD_DENSE = 2   // what a decoder with a state of its own expands
};

// What a payload reads; set up by the update, and in use as long as the payload is. The callbacks
// give 0, or a code that the payload hands back as it is.
typedef struct kelvane_payload_input {
  kelvane_source payload;  // the payload's own bytes, unchecked but for the checksum of the bundle
  uint32_t image_size;     // bytes of the image's pages; neither image may be larger
  void* update;            // handed to the callbacks
  // Bytes of the old image. A range outside the image's pages, or one that the plan did not keep,
  // gives a code.
  int (*old_image)(void* update, uint32_t address, uint8_t* bytes, uint32_t count);
  // Bytes of the new image below the window at hand. A rehearsal does not have them: it gives 0xFF
  // for each to a payload that says `reads_new`, and a code to others.
  int (*new_image)(void* update, uint32_t address, uint8_t* bytes, uint32_t count);
  // Tells the board that the work goes on; to be called now and then in whatever takes long.
  void (*alive)(void* update);
} kelvane_payload_input;

// What a payload says of the two images.
typedef struct kelvane_payload_images {
  uint32_t old_size;
  uint32_t new_size;
  uint32_t old_checksum;
  uint32_t new_checksum;
  // The payload may ask for bytes of the new image. A rehearsal then sees which bytes it reads and
  // that it is sound, but not what it makes; so none of what it reads, nor how far it goes, may
  // depend on these bytes. 0 unless open says so.
  uint32_t reads_new;
} kelvane_payload_images;

// A kind of payload. `state` is memory of the caller's, aligned for any type, of `size` bytes.
// Operations give a code (KELVANE_APPLY_..., KELVANE_UPDATE_...), 0 for success.
typedef struct kelvane_payload_kind {
  uint8_t number;       // KELVANE_PAYLOAD_...
  uint32_t state_size;  // bytes of the state that a checkpoint saves, from its start; or 0
  // Checks all that can be checked without the images, and tells what they are. `input` stays.
  int (*open)(void* state, uint32_t size, const kelvane_payload_input* input,
              kelvane_payload_images* images);
  // A pass begins, at window 0 if state_size is not 0.
  int (*restart)(void* state);
  // After open, the saved bytes of the state have been put back: makes all else of the state fit,
  // in place of restart. May be null where state_size is 0.
  int (*resume)(void* state);
  // As window, before anything has been written: it serves the check that the new image comes out
  // right and that the plan keeps every byte that is read.
  int (*rehearse)(void* state, uint32_t address, uint8_t* bytes, uint32_t count);
  // Computes `count` bytes of the new image from `address` on, all of them in one page, also those
  // behind the end of the image in its last page.
  int (*window)(void* state, uint32_t address, uint8_t* bytes, uint32_t count);
  // Folds bytes into the checksum of an image; starts with 0.
  uint32_t (*checksum)(uint32_t sum, const uint8_t* bytes, uint32_t count);
} kelvane_payload_kind;

#ifdef __cplusplus
}
#endif
