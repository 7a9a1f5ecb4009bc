#pragma once

// The compressed form with the fewest bytes.
//
// A literal costs 9 bits and a reference 17, whatever its length and distance. So the longest match
// at each place is all that is worth knowing (any shorter one is a part of it), and one pass from
// the back finds the cheapest way through. Matches are found within the ring of 4096 bytes, which
// begins with zeros, by chains of places with equal strings of three bytes and of four.

#include <cstdint>
#include <span>
#include <vector>

namespace kelvane {

// Working memory of compressing, which calls share to save the time of making it. Not for two
// threads at once.
class optimal_parser {
 public:
  // `trials`: how many places are looked at for each match. Real data has fewer; a small number
  // gives an estimate in a third of the time.
  explicit optimal_parser(int trials = 400);
  // The bytes that `data` takes in the compressed form.
  uint32_t packed_size(std::span<const uint8_t> data);
  // Appends the compressed form of `data` to `packed`.
  void append_packed(std::span<const uint8_t> data, std::vector<uint8_t>& packed);

 private:
  struct match {
    uint16_t length = 0;
    uint16_t distance = 0;
  };
  // Data is taken by blocks, so that memory doesn't grow with it; no match runs over the end of
  // one.
  static constexpr size_t kBlockBytes = 65536;

  // Finds the cheapest way through the block of `data` that begins at `begin`: matches_ then has
  // it, with length 1 for a literal. Gives its bits.
  uint64_t parse_block(std::span<const uint8_t> data, size_t begin);
  void find_matches(size_t context, size_t size);

  // Places that share the hash of the bytes there. A place has a number that none had in the blocks
  // before, so that nothing has to be cleared from one block to the next.
  struct string_chains {
    std::vector<uint32_t> newest;    // by hash, the last number with it
    std::vector<uint32_t> previous;  // by place, the number before of the same hash
    uint32_t number_of_first = 1;    // in this block; smaller numbers are of those before

    void begin(size_t places);
    // Gives the newest number of the same hash.
    uint32_t add(size_t place, uint32_t bytes);
    uint32_t number_of(size_t place) const {
      return number_of_first + static_cast<uint32_t>(place);
    }
    size_t place_of(uint32_t number) const { return number - number_of_first; }
  };

  int trials_;
  std::vector<uint8_t> ring_;  // what lies before the block, then the block
  string_chains threes_;
  string_chains fours_;
  std::vector<match> matches_;  // by place in the block
  std::vector<uint32_t> costs_;
};

}  // namespace kelvane
