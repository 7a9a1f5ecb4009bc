#pragma once

#include <cstddef>
#include <cstdint>

// Where two blocks of bytes agree again behind a place where they differ.
namespace kelvane {

// Fuzzy compare of two strings of `n` bytes: at most one byte in ten of those seen so far may
// differ at any moment, so the first nine have to agree. Gives -1 for no match, otherwise the
// number of differing bytes (0: exact). 0 for `n` of 0 or less.
int32_t bstrncmp(const uint8_t* a, const uint8_t* b, int32_t n);

// Index of the first byte that differs, or `n`.
size_t first_difference(const uint8_t* a, const uint8_t* b, size_t n);

// Length of the longest common end of the `n` bytes in front of `a_end` and of `b_end`.
size_t common_tail(const uint8_t* a_end, const uint8_t* b_end, size_t n);

// What lies ahead on one side of a comparison.
struct Rest {
  const uint8_t* bytes;
  uint32_t size;
};

// Where the sides agree again: the distances from where they stand, and the result of bstrncmp for
// the blocks there, -1 if there is no such place.
struct Agreement {
  uint32_t offset1;
  uint32_t offset2;
  int32_t result;
};

// Searches pairs of offsets in rings of growing distance d, from 1 while d is less than `max_scan`
// and a block of `blocksize` bytes at d fits at least one side. Ring d tries (d, d), (d, d - 1) ...
// (d, 0), (d - 1, d) ... (0, d); the first pair whose blocks bstrncmp accepts is the result. More
// than `blocksize` bytes have to lie ahead on both sides.
//
// A pair whose first nine bytes (all bytes of a shorter block) differ is never accepted, so from a
// certain distance on an index of those beginnings names the candidates of a ring, in the same
// order, and a ring costs what its candidates cost. Where many beginnings are equal, as in records
// padded with zeros, the pairs are taken along diagonals instead, so that a search up to distance d
// never costs more than some d * d / 4 steps of eight bytes.
Agreement find_agreement(const Rest& rest1, const Rest& rest2, uint16_t blocksize,
                         int32_t max_scan);

}  // namespace kelvane
