#pragma once

// Alignment: which bytes of the new image come from where in the old one.
//
// The new image is cut into stretches of one shift each (old place = new place - shift), or of no
// shift at all, to be stored. The best cut is found by dynamic programming in one pass over the
// words of the new image. A state is a shift; its cost is the number of bits that the patch needs
// for everything so far if the word at hand comes from that shift. A word costs nothing if it is
// equal there, the price of its class if it differs by the value of a known class of increments,
// and else what storing it takes. Going over to another shift costs a block of a move. A state that
// is dearer than the best one and such a step is set to just that, with the best one as the way by
// which it was reached; so a state never has to be given up for good while it may still win.
//
// All shifts are too many. Alive are shift 0, those that served most in the round before, "stored",
// and up to 28 that seeds have proposed because the best state fits badly just there:
// - equal strings, looked up while the best state differs within the next 64 bytes;
// - every eighth word, if the next 16 words cost more than 6 bits each: equal differences, shifts
//   up to 128 bytes beside the one at hand, 0, and the shift by which the ends of both images meet.
//
// Where one shift gives way to another is then settled to the byte.
//
// The first round knows no classes: any difference may become one, and costs 15 bits. Two more
// rounds with the classes of the round before make the patch up to a quarter smaller where tables
// have moved, and 1 % elsewhere; a fourth changed nothing.

#include <cstdint>
#include <span>
#include <vector>

#include "class_prices.h"
#include "plan.h"
#include "seeds.h"

namespace kelvane {

// The shift of a stretch that comes from nowhere.
inline constexpr int64_t kStoredShift = INT64_MIN;

// The bytes from `begin` to `end` (excluded) of the new image.
struct shift_stretch {
  uint32_t begin = 0;
  uint32_t end = 0;
  int64_t shift = 0;
};

struct alignment_settings {
  // Going over to another shift: 110 is a block of 12 bytes and a bit. Where blocks are in each
  // other's way they cost more than their bytes, and 240 is better.
  uint32_t block_bits = 240;
  // A stored word. 0: there is no such state, for a format without
  // compression, where words are stored one by one.
  uint32_t stored_word_bits = 40;
  uint32_t enter_stored_bits = 70;  // address and size of a compressed store
  uint32_t enter_zero_bits = 2;     // going over to shift 0, which needs no block
  // Proposals where the best state fits badly are made at every multiple of 32 bytes, in vain or
  // not: slower, and it finds tables that else are missed.
  bool proposes_on_grid = false;
  // Shifts to keep alive throughout: shift 0 not among them, 12 at most.
  std::vector<int64_t> kept_shifts;
};

// Costs of another format, in place of those of a patch.
class word_pricing {
 public:
  virtual ~word_pricing() = default;
  // Bits of the word at `at` of the new image, which has 4 bytes there, if it comes from `place`,
  // which may lie outside the old image. `after_miss` tells whether the word before was not
  // foreseen, and is set to whether this one was not.
  virtual uint32_t word(int64_t place, int64_t at, bool& after_miss) = 0;

 protected:
  word_pricing() = default;
  word_pricing(const word_pricing&) = default;
  word_pricing& operator=(const word_pricing&) = default;
};

// What the alignment looks at; all of it stays the caller's.
struct alignment_input {
  plan_images images;
  ByteOrder order = ByteOrder::kLittle;
  const string_seeds* strings = nullptr;
  const difference_seeds* differences = nullptr;
  const class_prices* prices = nullptr;  // not used with a pricing of its own
  word_pricing* pricing = nullptr;       // null: as in a patch
};

// Gives stretches that follow each other, from 0 to the end of the new image; neighbours differ in
// their shift. A stretch may reach outside the old image. Nothing for an empty new image.
std::vector<shift_stretch> align_images(const alignment_input& input,
                                        const alignment_settings& settings);

// The shifts of the stretches that cover most, 0 and kStoredShift left out, 12 at most.
std::vector<int64_t> widest_shifts(std::span<const shift_stretch> stretches);

}  // namespace kelvane
