// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kelvane {

// The dense payload decoded as docs/dense-format.md tells it, with everything in memory, one step
// after the other. It shares nothing with the decoder that it is held against. Nothing if the
// payload asks for what is not there; an image may have `largest` bytes.
std::optional<std::vector<uint8_t>> plain_dense_decode(std::span<const uint8_t> old_image,
                                                       std::span<const uint8_t> payload,
                                                       uint32_t largest);

}  // namespace kelvane
