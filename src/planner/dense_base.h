// SPDX-License-Identifier: Apache-2.0
#pragma once

// The address of the image on its target, found from the two images alone: the one under which most
// words that changed are pointers which moved as what they point to did.

#include "dense_plan.h"
#include "plan.h"

namespace kelvane {

// `target`: machine and byte orders to look with; its base is not looked at. 0 if nothing tells.
uint32_t likely_base(const plan_images& images, std::span<const dense_copy> copies,
                     const dense_target& target);

}  // namespace kelvane
