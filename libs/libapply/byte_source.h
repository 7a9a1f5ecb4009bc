// SPDX-License-Identifier: Apache-2.0
#pragma once

// Bytes that are only read: a patch, a bundle or a part of one, in memory or behind a callback, as
// in external flash. Plain C11.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Copies `count` bytes (never 0) from `position` on. It must give the same bytes each time. Gives
// 0, or anything else for a failure.
typedef int (*kelvane_fetch)(void* context, uint32_t position, uint8_t* bytes, uint32_t count);

typedef struct kelvane_source {
  const uint8_t* bytes;  // where they lie in memory; or null, and then
  kelvane_fetch fetch;   // brings them,
  void* context;         // with this,
  uint32_t start;        // from this position on
  uint32_t size;         // in bytes
} kelvane_source;

// Copies `count` bytes from `position` of the source on. Gives 0; or 1 if they do not all lie in it
// or could not be fetched.
int kelvane_source_read(const kelvane_source* source, uint32_t position, uint8_t* bytes,
                        uint32_t count);

// Makes `part` the `size` bytes from `position` of `source` on. Gives 0, or 1 if they do not all
// lie in it. What `source` refers to stays in use.
int kelvane_source_part(const kelvane_source* source, uint32_t position, uint32_t size,
                        kelvane_source* part);

#ifdef __cplusplus
}
#endif
