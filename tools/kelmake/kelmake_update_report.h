// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "dense_search.h"
#include "kelmake_elf.h"
#include "kelmake_options.h"
#include "update_file.h"

namespace kelmake {

// The update that a patch of the described format would be, with the fewest spare pages.
struct PatchWay {
  uint64_t size = 0;  // of the whole file
  uint32_t ring = 0;
  uint32_t slots = 0;
  uint32_t classes = 0;  // of increments
};

// What a run with --bundle has found.
struct UpdateOutcome {
  const Options& options;
  const FlashImages& images;
  const kelvane::dense_update& found;
  const kelpatch::UpdateFile& update;
  PatchWay patch;
  double seconds = 0;
};

// What is compared and how.
std::string text_of_images(const Options& options, const FlashImages& images);
// The size, and what the device needs, beside the same for a patch.
std::string text_of_update(const UpdateOutcome& outcome);
// The same as JSON, with a newline at the end.
std::string json_of_update(const UpdateOutcome& outcome);

}  // namespace kelmake
