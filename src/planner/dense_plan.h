// SPDX-License-Identifier: Apache-2.0
#pragma once

// A dense update as a value: what is copied, what is stored, and which old pages are kept for it.
//
// The device computes the new image in one pass in ascending order, page by page, in the place of
// the old one, and writes the pages that change. An old byte can be read while a page is written if
// its own page does not change, has not been written yet, is one of the last in the ring, or is
// kept in a slot until its last reader is done. Where the old image is raised first, that is the
// page to which it was moved. A device that takes checkpoints may have to compute
// pages again that it has written since the last one.

#include <cstdint>
#include <optional>
#include <vector>

#include "alignment.h"
#include "dense_decoder.h"

namespace kelvane {

// What the device has to keep old pages in.
struct flash_geometry {
  uint32_t page_size = 4096;
  // The pages of the ring, which has the old contents of the last so many pages that change, the
  // one that is written among them. 0: every old byte can be read at any time.
  uint32_t ring_pages = 8;
  uint32_t slots = 8;  // pages besides
  // Pages that change from one checkpoint to the next: whatever one of them reads has to be there
  // until the last of them is written. 0: no checkpoints.
  uint32_t checkpoint = 0;
  // Pages by which the device moves the old image up first. Then all pages of the new image change.
  uint32_t raise = 0;
};

// What the images are made for.
struct dense_target {
  uint8_t machine = KELVANE_DENSE_NONE;
  ByteOrder code_order = ByteOrder::kLittle;
  ByteOrder data_order = ByteOrder::kLittle;
  uint32_t base = 0;  // the target address of the first byte
};

// `length` bytes at `source` of the old image become, but for what is put right, those at `target`.
struct dense_copy {
  uint32_t source = 0;
  uint32_t target = 0;
  uint32_t length = 0;
};

// What lies between copies: bytes as they are, or bytes that are somewhere already.
struct dense_item {
  enum source : uint8_t { literal, old_image, new_image };
  uint32_t length : 30 = 0;
  source kind : 2 = literal;
  uint32_t from = 0;  // the place in that image
};

// What page `page`, which changes, has of the old image lies in `slot` from when it is saved until
// page `last_use` has been written.
struct kept_page {
  uint32_t page = 0;
  uint32_t slot = 0;
  uint32_t last_use = 0;
};

struct dense_plan {
  std::vector<dense_copy> copies;        // by ascending target, which do not overlap
  std::vector<dense_item> items;         // for the bytes of no copy, in order
  std::vector<kelvane_dense_entry> map;  // some of the copies, by ascending target
};

struct dense_options {
  dense_target target;
  uint8_t model = 1;        // 0 takes half the memory
  bool differences = true;  // predict distances between two places
  bool reads_new = true;    // there are matches into the new image
};

}  // namespace kelvane
