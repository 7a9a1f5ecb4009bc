#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "image_pair.h"
#include "memory_target.h"

// Target memory made from a pair of images: both are cut into sections, which lie at addresses of
// their own, in any order, with gaps between them.
namespace kelvane {

struct SectionedPair {
  ImagePair bytes;
  Bytes zeros;
  std::vector<memory_section_pair> sections;
  memory_range spare;
};

SectionedPair make_sections(ImagePair pair, Random& random);

// The memory of the target, byte by byte. To carry out a patch gives nothing if all goes well, and
// else what is wrong: an access to a byte of no section, a byte read that nothing has written, a
// wrong result.
std::string fault_on_target(const SectionedPair& pair, const std::vector<uint8_t>& patch,
                            bool big_endian);

}  // namespace kelvane
