// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "patch_file.h"

// What linked images (ELF, 32 or 64 bits, either byte order) load into flash, for updates between
// them: the bytes of their segments at their load addresses. kelmake lays them out the same way;
// the reader here is one of its own, so that a mistake of one is no mistake of the other.
namespace kelpatch {

// An image, and what it is called.
struct NamedImage {
  std::string name;
  Bytes bytes;
};

// Where both are linked images, makes each what it loads, from the first page of the two on;
// without `new_image` (null) from that of the old one. Raw images stay as they are. Ends the run if
// one of two is linked and the other is not, and for a linked image that is damaged, loads nothing,
// more than 256 MiB, or a byte whose address needs more than 32 bits.
void load_linked(uint32_t page_size, NamedImage& old_image, NamedImage* new_image);

}  // namespace kelpatch
