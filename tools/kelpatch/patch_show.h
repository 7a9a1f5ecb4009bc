#pragma once

#include "memory_image.h"
#include "patch_file.h"

namespace kelpatch {

// The images whose sections give the addresses their names; null where there are none.
struct ShownImages {
  const MemoryImage* old_image = nullptr;
  const MemoryImage* new_image = nullptr;
};

// Prints the patch on standard output: its header, each command in words, and a table of what each
// kind of command takes in the patch and changes on the target. `order` is what the command line
// named, for the remark on where the byte order is known from.
void show_patch(PatchFile& patch, ByteOrder order, const ShownImages& images);

}  // namespace kelpatch
