// SPDX-License-Identifier: Apache-2.0
#pragma once

// The proof of a dense update: it is decoded by the rule by which a device finds old pages, and the
// result compared.

#include <string>

#include "dense_plan.h"
#include "plan.h"

namespace kelvane {

// What is wrong with an update, in words; empty if it turns the old image into the new one. Old
// bytes are read from pages that do not change, that are not yet written, from the ring, and from
// `kept` pages in their slots; any other read is a fault, be it in a pass without a loss of power
// or in what is computed again after one.
std::string fault_of_dense(const plan_images& images, std::span<const uint8_t> payload,
                           std::span<const kept_page> kept, const flash_geometry& geometry);

// Decodes a payload without regard to pages. Empty if it does not give an image of the old image's
// payload; `largest` is the most bytes that the new image may have.
std::vector<uint8_t> decode_dense(std::span<const uint8_t> old_image,
                                  std::span<const uint8_t> payload, uint32_t largest);

}  // namespace kelvane
