#include "plain_search.h"

namespace kelvane {

int32_t plain_bstrncmp(const uint8_t* a, const uint8_t* b, int32_t n) {
  int32_t differing = 0;
  for (int32_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) {
      ++differing;
      if (10 * differing > i + 1) {
        return -1;
      }
    }
  }
  return differing;
}

Agreement plain_find_agreement(const Rest& rest1, const Rest& rest2, uint16_t blocksize,
                               int32_t max_scan) {
  for (int32_t d = 1; d < max_scan; ++d) {
    const bool room1 = static_cast<uint32_t>(d) + blocksize <= rest1.size;
    const bool room2 = static_cast<uint32_t>(d) + blocksize <= rest2.size;
    if (room1) {
      int64_t offset2 = room2 ? int64_t{d} : int64_t{rest2.size} - blocksize;
      for (; offset2 >= 0; --offset2) {
        const int32_t r = plain_bstrncmp(rest1.bytes + d, rest2.bytes + offset2, blocksize);
        if (r >= 0) {
          return {static_cast<uint32_t>(d), static_cast<uint32_t>(offset2), r};
        }
      }
    }
    if (room2) {
      int64_t offset1 = room1 ? int64_t{d} - 1 : int64_t{rest1.size} - blocksize - 2;
      for (; offset1 >= 0; --offset1) {
        const int32_t r = plain_bstrncmp(rest1.bytes + offset1, rest2.bytes + d, blocksize);
        if (r >= 0) {
          return {static_cast<uint32_t>(offset1), static_cast<uint32_t>(d), r};
        }
      }
    }
    if (!room1 && !room2) {
      break;
    }
  }
  return {0, 0, -1};
}

}  // namespace kelvane
