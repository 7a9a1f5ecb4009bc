#include "controller.h"

// Groups of a flag byte and eight items, bit 0 first: a set bit is a byte as it is, a clear one two
// bytes that name a place in a ring of 4096 bytes and a length. The ring is written from 4078 on, and
// what was never written in it is 0.
#define RING 4096U
#define RING_START 4078U

void unpack(uint8_t* to, const uint8_t* from, const uint8_t* end) {
  uint8_t* const start = to;
  uint32_t flags = 1;
  while (from < end) {
    if (flags == 1U) {
      flags = 0x100U | *from++;
    }
    if ((flags & 1U) != 0) {
      *to++ = *from++;
    } else {
      const uint32_t place = from[0] | (from[1] & 0xF0U) << 4U;
      const uint32_t length = (from[1] & 0x0FU) + 3U;
      const uint32_t written = (uint32_t)(to - start);
      const uint32_t distance = ((RING_START + written - place - 1U) % RING) + 1U;
      for (uint32_t count = 0; count < length; ++count, ++to) {
        *to = distance > written + count ? 0 : *(to - distance);
      }
      from += 2;
    }
    flags >>= 1U;
  }
}
