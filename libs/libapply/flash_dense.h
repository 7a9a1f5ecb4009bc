// SPDX-License-Identifier: Apache-2.0
#pragma once

// The dense payload of a bundle (docs/dense-format.md): an update of flash by dense_decoder.h.
// Plain C11.
//
// The decoder's state is what a checkpoint saves; the map is read again from the payload after a
// restart. A payload may read back what it has written of the new image (`reads_new`). Then the new
// image is not known ahead of the first erase: the payload is decoded all the same, which shows
// that it is sound and that every old byte that it reads is kept, as neither depends on what is
// read back.

#include "dense_decoder.h"
#include "flash_payload.h"

#ifdef __cplusplus
extern "C" {
#endif

// The state. What the caller gives behind it holds the map, KELVANE_DENSE_ENTRY_SIZE bytes for each
// of its entries. A small state comes of KELVANE_DENSE_LARGEST_MODEL 0.
typedef struct kelvane_dense_payload {
  kelvane_dense_decoder decoder;
  kelvane_dense_input reads;
  const kelvane_payload_input* input;
} kelvane_dense_payload;

#define KELVANE_DENSE_ENTRY_SIZE 14u

extern const kelvane_payload_kind kelvane_dense_kind;

#ifdef __cplusplus
}
#endif
