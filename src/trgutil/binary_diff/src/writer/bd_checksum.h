#pragma once

#include <cstdint>

namespace kelvane {

// Folds `length` bytes into the 32-bit value that `sum` points to: for each byte the value is
// rotated left by 7 bits and the byte added, modulo 2 to the 32nd. Several pieces are summed by
// calling it for one after the other with the same `sum`. Of "abc" from 0 it gives 0x187163.
void bd_checksum(const uint8_t* bytes, uint32_t length, uint32_t* sum);

}  // namespace kelvane
