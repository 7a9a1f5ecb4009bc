#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "image.h"
#include "indgen_memory.h"
#include "motion.h"

// The sections of two images, paired by name, with what they hold. Whoever compares memory begins
// here. What is refused ends the run with status 1.
namespace kelvane {

inline constexpr uint64_t kHalfOfTheAddresses = uint64_t{1} << 31U;

inline uint32_t address_of(const sym_addr& section) {
  return section.addr.low;
}

// What a section holds: in the file image, or in a buffer of its own.
struct section_contents {
  const uint8_t* bytes = nullptr;
  gen_ptr<uint8_t> buffer;
  bool is_zero = false;  // the file has no bytes for it
};

// A section of the second image with its partner in the first.
struct section_pair {
  const char* name;  // borrowed from the record of the second
  uint32_t address1;
  uint32_t size1;
  section_contents contents1;
  uint32_t address2;
  uint32_t size2;
  section_contents contents2;
};

class section_pairing {
 public:
  // Sorts both section lists in place by their addresses. Refuses sections of one image that
  // overlap. Both files have to stay.
  section_pairing(const file_data* first, const file_data* second);

  // The sections of the second image, with those that aren't compared.
  uint32_t count() const;
  // The pair of the section of that index, in ascending order of addresses, with its contents
  // expanded; nothing for one that is not compared. Where a name stands twice in the first image
  // the first in the list counts. Refuses a section without a partner, one that lies outside its
  // file or the addresses, and a damaged compressed one.
  std::optional<section_pair> pair_at(uint32_t index) const;
  // Where the compared sections of the first image lie, empty ones left out.
  std::vector<address_range> compared() const;

 private:
  const sym_addr* partner_of(const char* name) const;

  const file_data* first_;
  const file_data* second_;
  std::vector<const sym_addr*> by_name_;
};

// Refuses partners that lie more than half of the addresses apart, which have a shift that no
// signed number holds.
void refuse_far_pair(const section_pair& pair);

}  // namespace kelvane
