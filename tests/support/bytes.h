#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <vector>

// Byte strings for tests, and random numbers that are the same on every machine.
namespace kelvane {

using Bytes = std::vector<uint8_t>;

inline Bytes bytes_of(std::string_view text) {
  return {text.begin(), text.end()};
}

inline std::string text_of(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

// The pieces end to end.
inline Bytes joined(std::initializer_list<Bytes> pieces) {
  Bytes all;
  for (const Bytes& piece : pieces) {
    all.insert(all.end(), piece.begin(), piece.end());
  }
  return all;
}

class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}

  // A number from 0 to `limit` - 1.
  uint32_t below(size_t limit) { return static_cast<uint32_t>(engine_() % limit); }

  // `count` bytes of an alphabet of `letters` values.
  Bytes bytes(size_t count, uint32_t letters = 256) {
    Bytes result(count);
    for (uint8_t& byte : result) {
      byte = static_cast<uint8_t>(below(letters));
    }
    return result;
  }

 private:
  std::mt19937 engine_;
};

}  // namespace kelvane
