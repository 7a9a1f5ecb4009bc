// SPDX-License-Identifier: Apache-2.0
#pragma once

// The machine whose code an image holds, found by the instructions with which functions return.

#include <cstdint>
#include <optional>
#include <span>

namespace kelvane {

// One of KELVANE_DENSE_THUMB and so on: the one of which most returns stand in the image, in either
// byte order. Nothing if they are so few that data may have them by chance.
std::optional<uint8_t> machine_by_returns(std::span<const uint8_t> image);

}  // namespace kelvane
