#include "genrand.h"

#include <sys/time.h>

#include <span>

#include "shared_reset.h"

namespace kelvane {

namespace {

// The last number in base 65536. Both halves may be out of range, even negative, in between.
struct Halves {
  int32_t low = 0;
  int32_t high = 0;
};

struct State {
  Halves seed;
  uint8_t initted = 0;  // set once there is a seed
};
State state;

constexpr uint32_t kMultiplier = 15016;
constexpr uint32_t kIncrement = 1000999;
constexpr int32_t kModulusHigh = 30960;  // 0x78F0E079 is 30960 * 65536 + 57465
constexpr int32_t kModulusLow = 57465;
constexpr int32_t kBase = 65536;
constexpr int32_t kBaseBits = 16;
constexpr int32_t kBaseMask = kBase - 1;

// value * factor and value + amount, wrapping around at 32 bits.
int32_t times(int32_t value, uint32_t factor) {
  return static_cast<int32_t>(static_cast<uint32_t>(value) * factor);
}
int32_t plus(int32_t value, int32_t amount) {
  return static_cast<int32_t>(static_cast<uint32_t>(value) + static_cast<uint32_t>(amount));
}
int32_t minus(int32_t value, int32_t amount) {
  return static_cast<int32_t>(static_cast<uint32_t>(value) - static_cast<uint32_t>(amount));
}

// Moves what the low half has beyond 16 bits to the high half, and brings the high half into the
// range of the modulus.
void normalise(Halves& number) {
  while (true) {
    if (number.low < 0) {
      const int32_t borrowed = (minus(0, number.low) >> kBaseBits) + 1;
      number.low = plus(number.low, times(borrowed, kBase));
      number.high = minus(number.high, borrowed);
    } else if (number.low >= kBase) {
      number.high = plus(number.high, number.low >> kBaseBits);
      number.low &= kBaseMask;
    }
    if (number.high < 0) {
      number.high += kModulusHigh;
      number.low = plus(number.low, kModulusLow);
    } else if (number.high > kModulusHigh) {
      number.high -= kModulusHigh;
      number.low = minus(number.low, kModulusLow);
    } else {
      return;
    }
  }
}

}  // namespace

void gen_srand(uint32_t seed) {
  state.seed.low = static_cast<int32_t>(seed & 0xffffU);
  state.seed.high = static_cast<int32_t>((seed >> kBaseBits) & 0x7fffU);
  state.initted = 1;
}

void trand() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  gen_srand(static_cast<uint32_t>(now.tv_usec));
}

int32_t gen_rand() {
  Halves& seed = state.seed;
  if (state.initted == 0) {
    state.initted = 1;
    seed.low = 1;
    trand();
  }
  seed.low = plus(times(seed.low, kMultiplier), static_cast<int32_t>(kIncrement));
  seed.high = plus(times(seed.high, kMultiplier), seed.low >> kBaseBits);
  seed.low &= kBaseMask;
  const int32_t quotient = seed.high / kModulusHigh;
  seed.high -= quotient * kModulusHigh;
  seed.low = minus(seed.low, times(quotient, kModulusLow));
  normalise(seed);
  return plus(seed.low, times(seed.high, kBase));
}

void gen_cksum(const void* data, uint32_t length, uint32_t* checksum) {
  constexpr uint32_t kPolynomial = 0x10211021;
  constexpr uint32_t kTopBit = 0x80000000;
  uint32_t value = *checksum;
  for (const uint8_t byte : std::span(static_cast<const uint8_t*>(data), length)) {
    uint32_t d = static_cast<uint32_t>(byte) << 24U;
    for (int bit = 0; bit < 8; ++bit) {
      const bool subtract = ((value ^ d) & kTopBit) != 0;
      value <<= 1U;
      if (subtract) {
        value ^= kPolynomial;
      }
      d <<= 1U;
    }
  }
  *checksum = value;
}

void reset_genrand() {
  state = State{};
}

}  // namespace kelvane
