#pragma once

#include <cstdint>

namespace kelvane {

// A stretch of replaced bytes on its way to commands.
struct changed_stretch {
  const uint8_t* old_bytes;  // in the first image
  const uint8_t* new_bytes;  // in the second
  uint32_t command_address;  // where the commands apply
  uint32_t length;
  uint32_t old_address;  // of the stretch in the two images, which decide alignment
  uint32_t new_address;

  // Leaves `count` bytes behind. The length wraps where a last step goes beyond the end.
  void advance(uint32_t count) {
    old_bytes += count;
    new_bytes += count;
    command_address += count;
    length -= count;
    old_address += count;
    new_address += count;
  }
};

}  // namespace kelvane
