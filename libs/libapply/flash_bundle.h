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

// The header:
//   0  2  magic "KB"
//   2  4  checksum of all that follows, little-endian
//   6  1  bits 0 to 3: version, 1; bits 4 to 7: kind of payload
//   7  1  bits 0 to 4: page size, as a power of two; KELVANE_BUNDLE_HAS_...
//   8     numbers: pages of the ring; changed pages from one checkpoint to the next, or 0; size of
//         the payload; and of plan, bundle back and signature, each if there is one
enum {
  KELVANE_BUNDLE_FIXED_SIZE = 8,  // of the header, ahead of its numbers
  KELVANE_BUNDLE_CHECKSUM_AT = 2,
  KELVANE_BUNDLE_SUMMED_FROM = 6,  // what stands ahead is compared, or is the checksum
  KELVANE_BUNDLE_VERSION = 1,
  KELVANE_BUNDLE_HAS_PLAN = 1 << 5,  // none: all pages of the new image change, and none is kept
  KELVANE_BUNDLE_HAS_BACK = 1 << 6,
  KELVANE_BUNDLE_HAS_SIGNATURE = 1 << 7
};

// What the header says. The parts refer to the source that it was read from.
typedef struct kelvane_bundle {
  kelvane_source summed;     // all under the checksum, which is what a signature has to cover
  kelvane_source signature;  // behind it
  kelvane_source plan;       // size 0 where there is none
  kelvane_source payload;
  kelvane_source back;  // the bundle that leads back; size 0 where there is none
  uint32_t page_size;
  uint32_t checksum;
  uint16_t ring;
  uint16_t checkpoint;  // changed pages from one checkpoint to the next, or 0
  uint8_t kind;
} kelvane_bundle;

enum kelvane_bundle_code {
  KELVANE_BUNDLE_OK = 0,
  KELVANE_BUNDLE_NONE,      // too short for a header, or no bundle
  KELVANE_BUNDLE_VERSIONS,  // of another version
  KELVANE_BUNDLE_SIZES,     // shorter than it says, or a number that no writer makes
  KELVANE_BUNDLE_CHECKSUM,
  KELVANE_BUNDLE_FETCH
};

// Reads a number of header or plan: seven bits a byte, the least first, bit 7 set in all but the
// last. What does not fit 32 bits or has more bytes than it needs gives KELVANE_BUNDLE_SIZES.
int kelvane_bundle_number(const kelvane_source* source, uint32_t* position, uint32_t* value);

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
