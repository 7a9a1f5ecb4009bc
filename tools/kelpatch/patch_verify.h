#pragma once

#include <string>

#include "patch_file.h"

namespace kelpatch {

// Makes the new file from the old one with the patch and writes it to `new_name`, which receives it
// whole or not at all. Ends the run with status 1 if the old file is not the one that the patch was
// made for, or the result has not the checksum that it should have; with status 2 for a damaged
// patch, one in memory mode, or a file that can't be read or written.
void apply_patch(const std::string& old_name, const std::string& patch_name,
                 const std::string& new_name, ByteOrder order);

// Makes the new file in memory and compares it with the one at `new_name`. Ends the run as
// apply_patch does, and with status 1 if the two differ.
void verify_patch(const std::string& old_name, const std::string& new_name,
                  const std::string& patch_name, ByteOrder order);

}  // namespace kelpatch
