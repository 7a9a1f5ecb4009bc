#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "bytes.h"

// Pairs of an old and a new image, made from a seed.
namespace kelvane {

struct ImagePair {
  Bytes old_image;
  Bytes new_image;
};

// How the new image comes from the old one.
enum class PairKind {
  kEdits,        // bytes replaced here and there
  kInsertions,   // pieces put in
  kRemovals,     // pieces taken out
  kMovedBlocks,  // pieces that stand somewhere else
  kRuns,         // stretches that became one byte repeated
  kWordTables,   // words that grew by a few common values
  kMixed,        // all of these
  kTiny,         // up to 20 bytes on each side
  kUnlike,       // nothing in common
  kEqual,
  kInside,  // one image is a part of the other
};

inline constexpr PairKind kAllPairKinds[] = {
    PairKind::kEdits,  PairKind::kInsertions, PairKind::kRemovals, PairKind::kMovedBlocks,
    PairKind::kRuns,   PairKind::kWordTables, PairKind::kMixed,    PairKind::kTiny,
    PairKind::kUnlike, PairKind::kEqual,      PairKind::kInside};

std::string name_of(PairKind kind);
inline void PrintTo(PairKind kind, std::ostream* out) {
  *out << name_of(kind);
}

// A pair of that kind, with images of up to some 4000 bytes.
ImagePair make_pair_of(PairKind kind, Random& random);

// The steps that the kinds consist of: each changes an image in one random place.
void replace_piece(Bytes& image, Random& random);
void insert_piece(Bytes& image, Random& random);
void remove_piece(Bytes& image, Random& random);
void move_piece(Bytes& image, Random& random);
void fill_piece(Bytes& image, Random& random);

// Appends a word in the byte order given.
void append_word(Bytes& image, uint32_t word, bool big_endian);

// `size` bytes that look like the code of a 32-bit target: few instructions, small operands.
Bytes code_like(size_t size, Random& random);
// `size` bytes of words from a small vocabulary.
Bytes text_like(size_t size, Random& random);

}  // namespace kelvane
