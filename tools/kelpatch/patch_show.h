#pragma once

#include "patch_file.h"

namespace kelpatch {

// Prints the patch on standard output: its header, each command in words, and a table of what each
// kind of command takes in the patch and changes on the target. `order` is what the command line
// named, for the remark on where the byte order is known from.
void show_patch(PatchFile& patch, ByteOrder order);

}  // namespace kelpatch
