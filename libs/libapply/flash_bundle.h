// SPDX-License-Identifier: Apache-2.0
#pragma once

// The bundle: what a device gets to update its flash by. A header, the plan that says in which
// order pages are saved and written, the payload that gives the new image, perhaps a second bundle
// that leads back to the old one, and room for a signature. docs/bundle-format.md describes it.
// Plain C11.

#include <stdint.h>

#include "byte_source.h"

#ifdef __cplusplus
extern "C" {
#endif

// The header, little-endian:
//   0  4  magic "KELB"           20  4  page size              36  4  size of the bundle back, or 0
//   4  2  version, 1             24  2  pages of the ring      40  4  bytes of a checkpoint, or 0
//   6  1  kind of payload        26  2  slots
//   7  1  pages a checkpoint     28  4  size of the plan
//   8  4  checksum               32  4  size of the payload
//  12  4  size up to the signature
//  16  4  bytes of the signature
// The plan, halves: count of runs of pages that change, {first page, pages} of each, ascending;
// count of kept pages, {page, slot} of each, ascending.
enum {
  KELVANE_BUNDLE_HEADER_SIZE = 44,
  KELVANE_BUNDLE_VERSION = 1,
  KELVANE_BUNDLE_SUMMED_FROM = 12  // what stands ahead is compared, or is the checksum
};

// What the header says. The parts refer to the source that it was read from.
typedef struct kelvane_bundle {
  kelvane_source summed;     // all under the checksum, which is what a signature has to cover
  kelvane_source signature;  // behind it
  kelvane_source plan;
  kelvane_source payload;
  kelvane_source back;  // the bundle that leads back; size 0 where there is none
  uint32_t page_size;
  uint32_t checksum;
  uint32_t state_size;  // bytes of a checkpoint
  uint16_t ring;
  uint16_t slots;
  uint8_t kind;
  uint8_t checkpoint;  // changed pages from one checkpoint to the next, or 0
} kelvane_bundle;

enum kelvane_bundle_code {
  KELVANE_BUNDLE_OK = 0,
  KELVANE_BUNDLE_NONE,      // too short for a header, or no bundle
  KELVANE_BUNDLE_VERSIONS,  // of another version
  KELVANE_BUNDLE_SIZES,     // shorter than it says, or its parts don't make it up
  KELVANE_BUNDLE_CHECKSUM,
  KELVANE_BUNDLE_FETCH
};

// Reads the header and cuts the bundle into its parts. The checksum is not looked at.
int kelvane_bundle_read(kelvane_bundle* bundle, const kelvane_source* source);

// Compares the checksum, `work_size` bytes at a time by way of `work`; `alive` is called after each
// and may be null.
int kelvane_bundle_check(const kelvane_bundle* bundle, uint8_t* work, uint32_t work_size,
                         void (*alive)(void* context), void* context);

// Folds bytes into the CRC-32 of IEEE 802.3 (reflected, 0xEDB88320); starts with 0.
uint32_t kelvane_crc32(uint32_t crc, const uint8_t* bytes, uint32_t count);

#ifdef __cplusplus
}
#endif
