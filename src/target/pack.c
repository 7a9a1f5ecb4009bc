// Runs on the workstation: compresses standard input to standard output, in the form that unpack.c
// expands.
#include <stdint.h>
#include <stdio.h>

#define RING 4096U
#define RING_START 4078U
#define LONGEST 18U
#define SHORTEST 3U

static uint8_t bytes[65536];

// The longest run in front of `at` that repeats there; its distance goes to `distance`.
static uint32_t longest_match(uint32_t at, uint32_t size, uint32_t* distance) {
  uint32_t best = 0;
  for (uint32_t back = 1; back <= at && back < RING; ++back) {
    uint32_t length = 0;
    while (length < LONGEST && at + length < size && bytes[at + length] == bytes[at + length - back]) {
      ++length;
    }
    if (length > best) {
      best = length;
      *distance = back;
    }
  }
  return best;
}

int main(void) {
  const uint32_t size = (uint32_t)fread(bytes, 1, sizeof(bytes), stdin);
  uint32_t at = 0;
  while (at < size) {
    uint8_t group[17] = {0};
    uint32_t used = 1;
    for (uint32_t item = 0; item < 8U && at < size; ++item) {
      uint32_t distance = 0;
      const uint32_t length = longest_match(at, size, &distance);
      if (length < SHORTEST) {
        group[0] = (uint8_t)(group[0] | 1U << item);
        group[used++] = bytes[at++];
        continue;
      }
      const uint32_t place = (RING_START + at - distance) % RING;
      group[used++] = (uint8_t)place;
      group[used++] = (uint8_t)((place >> 4U & 0xF0U) | (length - SHORTEST));
      at += length;
    }
    fwrite(group, 1, used, stdout);
  }
  return 0;
}
