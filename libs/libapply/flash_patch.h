// SPDX-License-Identifier: Apache-2.0
#pragma once

// The payload that is a patch: a window of the new image is computed from the old image and the
// patch alone, so that windows may come again. Plain C11.
//
// No move is ever carried out. All moves stand ahead of the other commands (a patch where they do
// not is refused), so for each byte of a window they are followed backwards to the place where it
// lay, and the other commands are then carried out on the window. An increment class is read on
// from where the last window left it as long as there is a kelvane_words for it; the classes behind
// are read from their start for each window, which costs time and nothing else.

#include "applier.h"
#include "flash_payload.h"

#ifdef __cplusplus
extern "C" {
#endif

// The state. What the caller gives behind it holds one kelvane_words (16 bytes) for each class.
typedef struct kelvane_patch_payload {
  kelvane_applier applier;
  const kelvane_payload_input* input;
  uint32_t local;          // position of the commands behind the moves
  kelvane_cursor behind;   // behind the classes that are read on, in their command
  uint32_t move_commands;  // at the head of the patch
  uint32_t increments;     // position of the command whose classes are read on; 0 for none
  uint32_t room;           // for classes
  uint32_t classes;        // that are read on
  uint32_t reached;        // windows below this one are past
} kelvane_patch_payload;

extern const kelvane_payload_kind kelvane_patch_kind;

#ifdef __cplusplus
}
#endif
