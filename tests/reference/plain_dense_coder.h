// SPDX-License-Identifier: Apache-2.0
#pragma once

// The numbers of a dense payload as the plain decoder reads them: those of the header, and the
// adaptive binary coder behind it.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace kelvane::plain_dense {

struct Refused {};

void require(bool holds) {
  if (!holds) {
    throw Refused();
  }
}

class PlainCoder {
 public:
  explicit PlainCoder(std::span<const uint8_t> payload) : payload_(payload) {}

  uint32_t header_byte() {
    require(at_ < payload_.size());
    return payload_[at_++];
  }
  uint32_t header_number() {
    uint64_t number = 0;
    for (int i = 0; i < 5; ++i) {
      const uint32_t byte = header_byte();
      number |= uint64_t{byte & 127} << (7 * i);
      if (byte < 128) {
        require(number <= 0xFFFFFFFF);
        return static_cast<uint32_t>(number);
      }
    }
    throw Refused();
  }
  static uint32_t with_sign(uint32_t z) { return z % 2 == 0 ? z / 2 : 0U - z / 2 - 1; }

  // Begins with what is coded.
  void start() {
    for (int i = 0; i < 4; ++i) {
      code_ = code_ << 8 | next();
    }
  }
  // Takes fresh counters for flags, 2 to the power of `bits`.
  void take_counters(uint32_t bits) {
    counters_.assign(size_t{1} << bits, {0, 0});
    hash_bits_ = bits;
  }
  void take_literals(uint32_t count) { literals_.assign(count, {16, 0}); }

  uint32_t next() { return at_ < payload_.size() ? payload_[at_++] : 0; }

  uint32_t bit(uint32_t bound) {
    const bool is_one = code_ < bound;
    code_ -= is_one ? 0 : bound;
    range_ = is_one ? bound : range_ - bound;
    while (range_ < 1U << 24) {
      range_ <<= 8;
      code_ = code_ << 8 | next();
    }
    return is_one ? 1 : 0;
  }
  uint32_t bit_of(uint32_t p) { return bit(static_cast<uint32_t>(uint64_t{range_} * p >> 16)); }
  static uint32_t hash(uint32_t x) {
    x *= 0x9E3779B1;
    return x ^ x >> 15;
  }
  uint32_t flag(uint32_t a, uint32_t b, uint32_t s = 0) {
    auto& [q, n] = counters_[hash(256 * a + b) >> (32 - hash_bits_)];
    q = n == 0 ? (8 + s) << 18 : q;
    const uint32_t likely = q >> 21;
    const uint32_t one = bit_of(q >> 6);
    q = one != 0 ? q + (0x3FFFFF - q) / (n + 2) : q - q / (n + 2);
    n = std::min(n + 1, 255U);
    n -= one != likely ? n / 4 : 0;
    return one;
  }
  uint32_t tree(uint32_t a, uint32_t bits) {
    uint32_t node = 1;
    for (uint32_t i = 0; i < bits; ++i) {
      node = 2 * node + flag(a, node);
    }
    return node - (1U << bits);
  }
  uint32_t number(uint32_t a) {
    uint32_t length = 0;
    while (length < 31 && flag(a, length, 4) != 0) {
      ++length;
    }
    uint32_t v = 1;
    for (uint32_t i = length; i-- != 0;) {
      const uint32_t one = length <= 3 ? flag(a, 32 + 8 * length + v)
                           : i < 2     ? flag(a, 82 + 2 * i + v % 2)
                                       : bit(range_ / 2);
      v = 2 * v + one;
    }
    return v - 1;
  }
  uint32_t signed_number(uint32_t a) { return with_sign(number(a)); }
  uint32_t weighed_bit(uint32_t node, uint32_t p, uint32_t e, uint32_t f) {
    static constexpr int kS[16] = {2, 6, 9, 13, 17, 22, 26, 31, 36, 41, 47, 54, 63, 74, 90, 124};
    static constexpr int kQ[17] = {32768, 41305, 48756, 54527, 58596, 61278, 62969, 64005, 64629,
                                   65001, 65221, 65351, 65427, 65472, 65499, 65514, 65523};
    static constexpr uint32_t kR[8] = {171, 102, 73, 57, 47, 39, 34, 30};
    const std::array<uint32_t, 3> c = {p % 4, 4 + 2 * (e / 16) + p % 2, 36 + 2 * (f / 16) + p % 2};
    std::array<int16_t, 3>& weights =
        weights_[f < 256 ? 2 * (p % 2) + (node > 15 ? 1 : 0) : 4 + p % 2];
    std::array<size_t, 3> numbers = {};
    std::array<int, 3> said = {};
    int t = 0;
    for (size_t i = 0; i < 3; ++i) {
      numbers[i] = (hash(256 * c[i] + node) >> 16) * literals_.size() >> 16;
      const uint32_t q = literals_[numbers[i]].first;
      said[i] = q < 16 ? -kS[15 - q] : kS[q - 16];
      t += weights[i] * said[i];
    }
    const int a = std::min(std::abs(t) >> 14, 255);
    const int v = kQ[a / 16] + (kQ[a / 16 + 1] - kQ[a / 16]) * (a % 16) / 16;
    const int probability = t < 0 ? 65536 - v : v;
    const uint32_t one = bit_of(static_cast<uint32_t>(probability));
    for (size_t i = 0; i < 3; ++i) {
      weights[i] = static_cast<int16_t>(weights[i] +
                                        ((one != 0 ? 65536 : 0) - probability) * said[i] / 8192);
      auto& [q, n] = literals_[numbers[i]];
      q = one != 0 ? q + ((31 - q) * kR[n] + 128) / 256 : q - (q * kR[n] + 128) / 256;
      n = std::min(n + 1, 7U);
    }
    return one;
  }
  uint8_t literal(uint32_t p, uint32_t e, uint32_t f) {
    uint32_t node = 1;
    while (node < 256) {
      node = 2 * node + weighed_bit(node, p, e, f);
    }
    return static_cast<uint8_t>(node - 256);
  }

  size_t at_ = 0;

 private:
  std::span<const uint8_t> payload_;
  uint32_t range_ = 0xFFFFFFFF, code_ = 0, hash_bits_ = 8;
  std::vector<std::pair<uint32_t, uint32_t>> counters_, literals_;
  std::array<std::array<int16_t, 3>, 6> weights_ = {{{6554, 6554, 6554},
                                                     {6554, 6554, 6554},
                                                     {6554, 6554, 6554},
                                                     {6554, 6554, 6554},
                                                     {6554, 6554, 6554},
                                                     {6554, 6554, 6554}}};
};

}  // namespace kelvane::plain_dense
