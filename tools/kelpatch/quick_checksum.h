// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "flash_payload.h"

// The checksum of dense payloads where thousands of modelled devices compute it of a whole image.
namespace kelpatch {

// What kelvane_dense_checksum gives, in a quarter of the time, by tables that no device has room
// for.
uint32_t quick_dense_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count);

// kelvane_dense_kind with that checksum and all else of the device's own.
kelvane_payload_kind quick_dense_kind();

}  // namespace kelpatch
