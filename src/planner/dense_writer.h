// SPDX-License-Identifier: Apache-2.0
#pragma once

// Writes a plan as a dense payload; docs/dense-format.md has the format. The counters and the
// prediction of references are those of the decoder, so that both know the same at every byte.

#include <vector>

#include "dense_plan.h"
#include "plan.h"

namespace kelvane {

struct image_checksums {
  uint32_t old_image = 0;
  uint32_t new_image = 0;
};
image_checksums checksums_of(const plan_images& images);

// The payload. `plan` covers the new image, and its map has 65535 entries at most. `size`: how many
// bytes it is going to have, if known.
std::vector<uint8_t> write_dense(const plan_images& images, const image_checksums& checksums,
                                 const dense_plan& plan, const dense_options& options,
                                 size_t size = 0);

// How many bytes that would be. Keeps none of them.
size_t size_of_dense(const plan_images& images, const dense_plan& plan,
                     const dense_options& options);

// What a payload would take for the map and for some of what is copied, in bytes: enough to choose
// between machines. Of large images it looks at an even share.
size_t estimate_dense(const plan_images& images, const dense_plan& plan,
                      const dense_options& options);

}  // namespace kelvane
