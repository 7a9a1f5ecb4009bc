// SPDX-License-Identifier: Apache-2.0
#pragma once

// The numbers of a dense payload as the plain decoder reads them: those of the header, and the
// adaptive binary coder behind it.

#include <algorithm>
#include <cstdint>
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
  void take_literals(uint32_t count) { literals_.assign(count, {1U << 11, 0}); }

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
    for (uint32_t i = 0; i < length; ++i) {
      v = 2 * v + (length <= 3 ? flag(a, 32 + 8 * length + v) : bit(range_ / 2));
    }
    return v - 1;
  }
  uint32_t signed_number(uint32_t a) { return with_sign(number(a)); }
  uint8_t literal(uint32_t position) {
    uint32_t node = 1;
    while (node < 256) {
      auto& [q, n] = literals_[(256 * (position % 4) + node) % literals_.size()];
      const uint32_t one = bit_of(16 * q);
      q = one != 0 ? q + 2 * (4095 - q) / (2 * n + 3) : q - 2 * q / (2 * n + 3);
      n = std::min(n + 1, 15U);
      node = 2 * node + one;
    }
    return static_cast<uint8_t>(node - 256);
  }

  size_t at_ = 0;

 private:
  std::span<const uint8_t> payload_;
  uint32_t range_ = 0xFFFFFFFF, code_ = 0, hash_bits_ = 8;
  std::vector<std::pair<uint32_t, uint32_t>> counters_, literals_;
};

}  // namespace kelvane::plain_dense
