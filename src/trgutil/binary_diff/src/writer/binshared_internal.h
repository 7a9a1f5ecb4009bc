#pragma once

#include <cstdint>

namespace kelvane {

// Doubles the room of the engine's buffer; the data keep their offsets.
void grow_buf();

// Writes `count` bytes, which are a number in the host's byte order, in that of the target. The
// bytes may be reversed in place.
void put_n_bytes_endian(uint8_t* bytes, uint32_t count);

// Reverses `count` bytes in place.
void charreverse(uint8_t* bytes, uint32_t count);

}  // namespace kelvane
