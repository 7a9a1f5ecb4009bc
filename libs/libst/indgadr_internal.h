#pragma once

#include <cstdint>

#include "indgadr.h"

// The parts of an address by value, the same on every host.
namespace kelvane {

inline constexpr uint16_t kNil16 = 0xFFFF;
inline constexpr uint32_t kNil32 = 0xFFFFFFFF;
inline constexpr uint64_t kNil64 = 0xFFFFFFFFFFFFFFFF;

constexpr uint16_t off(const gadr& a) {
  return static_cast<uint16_t>(a.low & 0xFFFFU);
}

constexpr uint16_t seg(const gadr& a) {
  return static_cast<uint16_t>(a.low >> 16U);
}

// The low word of a segment and an offset, each taken mod 2^16.
constexpr uint32_t segmented(uint32_t segment, uint32_t offset) {
  return (segment << 16U) | (offset & 0xFFFFU);
}

// Both words as one number.
constexpr uint64_t number(const gadr& a) {
  return (uint64_t{a.high} << 32U) | a.low;
}

constexpr gadr address(uint64_t number) {
  return {static_cast<uint32_t>(number & kNil32), static_cast<uint32_t>(number >> 32U)};
}

}  // namespace kelvane
