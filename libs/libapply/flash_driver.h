// SPDX-License-Identifier: Apache-2.0
#pragma once

// What a board gives so that its flash can be updated: three calls and the geometry. Plain C11.
//
// Flash is erased a page at a time, to bytes of 0xFF, and programmed a unit at a time. Power may go
// at any moment: a page or a unit that was being changed then may read differently each time, or
// fail to read (ECC), until its page is erased again. Nothing else changes.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The largest unit.
#define KELVANE_FLASH_LARGEST_UNIT 32u

typedef struct kelvane_flash_driver {
  void* context;  // handed to the calls
  // Each gives 0 for success and anything else for a failure. `address` is the board's own.
  // Copies `count` bytes (never 0) to `bytes`.
  int (*read)(void* context, uint32_t address, uint8_t* bytes, uint32_t count);
  // Erases the page that begins at `address`.
  int (*erase)(void* context, uint32_t address);
  // Programs `count` bytes, whole units, each of which has been erased and not programmed since.
  int (*program)(void* context, uint32_t address, const uint8_t* bytes, uint32_t count);
  uint32_t page_size;  // bytes of an erase page, a multiple of `unit`
  uint32_t unit;       // bytes programmed at once: 4, 8, 16 or 32
} kelvane_flash_driver;

#ifdef __cplusplus
}
#endif
