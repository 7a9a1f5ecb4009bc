#include "bd_checksum.h"

#include <bit>

namespace kelvane {

void bd_checksum(const uint8_t* bytes, uint32_t length, uint32_t* sum) {
  constexpr int kRotation = 7;
  uint32_t value = *sum;
  for (const uint8_t* byte = bytes; byte != bytes + length; ++byte) {
    value = std::rotl(value, kRotation) + *byte;
  }
  *sum = value;
}

}  // namespace kelvane
