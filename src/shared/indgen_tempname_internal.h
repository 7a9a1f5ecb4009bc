#pragma once

#include <cstdint>
#include <string>

namespace kelvane {

// The running number of temporary names: the last one that was tried. Written by this unit, and by
// tests that have to come to its end.
extern int32_t cnt;

// `value` in base 32 without leading zeros, the lowest bit of the first digit being `top_bit`. So
// a value of 0 gives nothing.
std::string base32_digits(uint32_t value, uint32_t top_bit);

}  // namespace kelvane
