#pragma once

// What each word that differs becomes: an increment, part of a plain store or part of a compressed
// one.
//
// One pass of dynamic programming over the words that differ, with three states: outside of any
// store, in a plain one, in a compressed one. Equal words between two that differ cost nothing
// outside and their bytes inside, so a store goes on over them where that is cheaper than another.
// Whole words decide, not stretches of bytes: one word of no class doesn't keep its neighbours from
// their classes.

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "changed_words.h"

namespace kelvane {

// How many other stores a relative list would reach from a word: 0, 1, or 2 for more. The store at
// the word itself and those in the words beside it don't count. A lonely store pays for a whole
// entry in the absolute list, one of a pair for half a list, and one of many for two bytes.
struct store_density {
  uint8_t plain : 2 = 2;
  uint8_t single : 2 = 2;
  bool is_known : 1 = false;  // not before stores have been chosen once
};

struct stored_run {
  uint32_t begin = 0;
  uint32_t end = 0;
  bool is_compressed = false;

  bool operator==(const stored_run&) const = default;
};

struct walk_settings {
  bool compression = true;
  bool short_stores = false;
  // A byte of a compressed store, and the store's address and size, in bit parts.
  uint32_t packed_byte = 58 * kBit / 10;
  uint32_t packed_entry = 66 * kBit;
};

// The entry of a plain store alone, with another one in reach, and with two, in bit parts.
inline uint32_t plain_entry(const store_density& density) {
  constexpr std::array<uint32_t, 3> kEntry = {64 * kBit, 28 * kBit, 18 * kBit};
  return kEntry[density.plain];
}

// The same for a single byte, its byte included. It can also join the list of plain stores that
// passes by, as two bytes or, where short stores are allowed, as one.
inline uint32_t single_store(const store_density& density, bool short_stores) {
  constexpr std::array<uint32_t, 3> kAlone = {40 * kBit, 24 * kBit, 16 * kBit};
  constexpr uint32_t kUnknown = 20 * kBit;
  if (!density.is_known) {
    return kUnknown;
  }
  const uint32_t beside_plain = (short_stores ? 24 : 32) * kBit;
  const uint32_t alone = kAlone[density.single];
  return density.plain > 0 ? std::min(alone, beside_plain) : alone;
}

// Chooses, sets changed_word::is_increment, and gives the runs of bytes to store, ascending.
// `densities` has one element a word, or none the first time.
std::vector<stored_run> walk_words(changed_words& changed, std::span<const store_density> densities,
                                   const walk_settings& settings);

// The densities of all words under these runs.
std::vector<store_density> measure_density(const changed_words& changed,
                                           std::span<const stored_run> runs);

}  // namespace kelvane
