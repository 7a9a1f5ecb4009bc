#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

// The bit stream of CM_INCRS: for each class of increments its value and its ascending addresses as
// coded jumps. A jump is a distance in words; it falls into one of seven categories, which tell the
// extra bits behind its prefix:
//   category  jump in words      extra bits  value
//   0         1                  0           none
//   1         2 to 3             1           jump - 2
//   2         4 to 7             2           jump - 4
//   3         8 to 23            4           jump - 8
//   4         24 to 279          8           jump - 24
//   5         280 to 65815       16          jump - 280
//   6         65816 up, and 0    32          jump - 65816, modulo 2 to the 32nd
// The prefix is the rank of the category in the class at hand: k zero bits and a one bit for rank
// k, 0 to 6. Seven, eight and nine zero bits and a one end the class: next class in the short form
// (a 16-bit value relative to the class before), next class in the long form (the 32-bit value),
// end of the stream. A map of seven 3-bit fields says which category has which rank.
//
// Classes stand in ascending order of their values. Bits fill each byte from bit 0 upward, a
// field's least significant bit first. The stream ends on a byte.
namespace kelvane {

inline constexpr int32_t kJumpCategories = 7;
// The map in which rank and category coincide.
inline constexpr uint32_t kDefaultPopulationMap = 0x1AC688;

// Words that change by one value, new word less old word modulo 2 to the 32nd.
struct increment_class {
  uint32_t value;                   // no two classes share one
  std::vector<uint32_t> addresses;  // new addresses, multiples of 4, ascending strictly
};

// The state of the coder: the bits put so far and the statistics of the class at hand.
struct jump_coder {
  int32_t dry_run = 0;                // set: count bits and write nothing
  uint8_t* next_byte = nullptr;       // of the output
  const uint8_t* room_end = nullptr;  // behind the output's room; null where nobody told
  uint8_t bits_in_byte = 0;           // bits already in the byte being built, 0 to 7
  uint32_t byte = 0;                  // the byte being built
  int32_t bits_total = 0;             // bits put since start()
  bool trace = false;                 // debug lines tell what is put
  std::array<int32_t, kJumpCategories> population{};      // uses in this class, by category
  std::array<int32_t, kJumpCategories> population_map{};  // rank in this class, by category

  // Starts a run into `buffer`, or a dry one if that is null.
  void start(uint8_t* buffer);
  // Appends the low `count` bits of `value`, 1 to 32.
  void put_bits(int32_t count, uint32_t value);
  // Puts 0 bits until `bits_total` is a multiple of `boundary`, a power of 2.
  void align(int32_t boundary);
  // Sets the ranks from a map; 0 stands for the default map.
  void set_population_map(uint32_t map);
  // Gives the best map for the class just coded, and leaves the table sorted.
  uint32_t sort_population_map();
  // Counts a use of the category and puts its prefix.
  void put_prefix(int32_t category);
  // Puts the prefix and the extra bits of a jump in words.
  void encode_jump(uint32_t jump);
  // Puts all of a class that stands in front of its jumps, and sets its ranks. `index` is its place
  // in the stream, `previous_value` the value of the class before it, 0 for the first.
  void begin_class(int32_t index, uint32_t previous_value, uint32_t value, uint32_t map);
  // Puts the end code and fills the last byte.
  void end_stream();
};

// Gives the stream of any number of classes, in any order; classes without addresses are left out.
// Empty if there are no others.
std::vector<uint8_t> encode_increments(std::span<const increment_class> classes);

// Its length in bytes, without making it: two runs over all addresses instead of three.
uint32_t size_of_increments(std::span<const increment_class> classes);

}  // namespace kelvane
