#pragma once

#include <cstdint>

// Bytes to numbers and back. Nothing else in the tree assembles a number from bytes by shifting.
namespace kelvane {

// Byte order of a file or a target, once its global flag has been read at the edge of a unit.
enum class ByteOrder : uint8_t { little, big };

constexpr ByteOrder byte_order_of(bool big_endian) {
  return big_endian ? ByteOrder::big : ByteOrder::little;
}

// Reads an unsigned number of 2 or 4 bytes; `bytes` need not be aligned.
constexpr uint16_t load_half(const uint8_t* bytes, ByteOrder order) {
  const uint32_t first = bytes[0];
  const uint32_t second = bytes[1];
  return static_cast<uint16_t>(order == ByteOrder::big ? (first << 8U) | second
                                                       : (second << 8U) | first);
}

constexpr uint32_t load_word(const uint8_t* bytes, ByteOrder order) {
  const uint32_t first = load_half(bytes, order);
  const uint32_t second = load_half(bytes + 2, order);
  return order == ByteOrder::big ? (first << 16U) | second : (second << 16U) | first;
}

// Stores the low 16 or all 32 bits of `value` at `bytes`, which need not be aligned.
constexpr void store_half(uint8_t* bytes, uint32_t value, ByteOrder order) {
  const auto low = static_cast<uint8_t>(value & 0xFFU);
  const auto high = static_cast<uint8_t>((value >> 8U) & 0xFFU);
  bytes[0] = order == ByteOrder::big ? high : low;
  bytes[1] = order == ByteOrder::big ? low : high;
}

constexpr void store_word(uint8_t* bytes, uint32_t value, ByteOrder order) {
  const uint32_t low = value & 0xFFFFU;
  const uint32_t high = value >> 16U;
  store_half(bytes, order == ByteOrder::big ? high : low, order);
  store_half(bytes + 2, order == ByteOrder::big ? low : high, order);
}

}  // namespace kelvane
