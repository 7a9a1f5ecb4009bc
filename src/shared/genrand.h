#pragma once

#include <cstdint>

// A portable random number generator and a checksum.
namespace kelvane {

// Starts the sequence of gen_rand at a place given by the lower 31 bits of `seed`; the top bit is
// ignored. The same seed gives the same numbers on every host.
void gen_srand(uint32_t seed);

// Starts the sequence at a place taken from the clock.
void trand();

// Gives the next number of the sequence, 0 to 2029052025. Without a seed the sequence starts by
// trand.
// Linear congruential, x' = (15016 x + 1000999) mod 0x78F0E079. gen_srand(1) is followed by
// 1016015, 1054118064 and 3002998.
int32_t gen_rand();

// Takes `length` bytes into the 32-bit value at `checksum`, whose starting value is the caller's
// choice; a text taken in pieces gives the same as the whole. A bit-wise CRC, most significant bit
// first, with the polynomial word 0x10211021 and no inversions: from 0, "abc" gives 0x8065fd10.
void gen_cksum(const void* data, uint32_t length, uint32_t* checksum);

}  // namespace kelvane
