#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "patch_file.h"

namespace kelpatch {

// What the command line may say of a patch that is carried out.
struct PatchOptions {
  ByteOrder order = ByteOrder::kFound;
  // The most bytes that the new file may have. By default 16 times those of the old file, and at
  // least 16 MiB.
  std::optional<uint32_t> max_size;
};

// Ends the run with status 2 unless the patch is one in file mode that stays inside its two files.
void require_file_mode(PatchFile& patch);

// Makes the new file in memory from `contents`, those of the old one. Ends the run as apply_patch
// does.
Bytes patched(PatchFile& patch, const std::string& old_name, Bytes contents,
              std::optional<uint32_t> max_size);

// Makes the new file from the old one with the patch, or with the update of a device that the file
// is, and writes it to `new_name`, which receives it whole or not at all. Ends the run with status
// 1 if the old file is not the one that the patch was made for, or the result has not the checksum
// that it should have; with status 2 for a damaged patch, one in memory mode, one that makes too
// large a file, or a file that can't be read or written.
void apply_patch(const std::string& old_name, const std::string& patch_name,
                 const std::string& new_name, const PatchOptions& options);

// Makes the new file in memory and compares it with the one at `new_name`. Ends the run as
// apply_patch does, and with status 1 if the two differ.
void verify_patch(const std::string& old_name, const std::string& new_name,
                  const std::string& patch_name, const PatchOptions& options);

}  // namespace kelpatch
