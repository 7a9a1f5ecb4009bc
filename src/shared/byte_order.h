#pragma once

#include <cstdint>
#include <span>
#include <vector>

// Bytes to numbers and back. Nothing else in the tree assembles a number from bytes by shifting.
// Bytes that nobody vouches for are read through byte_reader.h, which uses this; records are
// written with a ByteWriter.
namespace kelvane {

// Byte order of a file or a target, once its global flag has been read at the edge of a unit.
enum class ByteOrder : uint8_t { little, big };

constexpr ByteOrder byte_order_of(bool big_endian) {
  return big_endian ? ByteOrder::big : ByteOrder::little;
}

// Reads an unsigned number of 2, 4 or 8 bytes; `bytes` need not be aligned.
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

constexpr uint64_t load_long(const uint8_t* bytes, ByteOrder order) {
  const uint64_t first = load_word(bytes, order);
  const uint64_t second = load_word(bytes + 4, order);
  return order == ByteOrder::big ? (first << 32U) | second : (second << 32U) | first;
}

// Stores the low 16, the 32 or the 64 bits of `value` at `bytes`, which need not be aligned.
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

constexpr void store_long(uint8_t* bytes, uint64_t value, ByteOrder order) {
  const auto low = static_cast<uint32_t>(value);
  const auto high = static_cast<uint32_t>(value >> 32U);
  store_word(bytes, order == ByteOrder::big ? high : low, order);
  store_word(bytes + 4, order == ByteOrder::big ? low : high, order);
}

// Records put together for writing, field behind field without padding, in one byte order. What has
// been put stands in bytes(), for the caller to write to its stream in one piece. Signed fields are
// cast to the unsigned type of their width.
class ByteWriter {
 public:
  explicit ByteWriter(ByteOrder order) : order_(order) {}

  void u8(uint8_t value) { bytes_.push_back(value); }
  void u16(uint16_t value) { store_half(room(2), value, order_); }
  void u32(uint32_t value) { store_word(room(4), value, order_); }
  void u64(uint64_t value) { store_long(room(8), value, order_); }
  void raw(std::span<const uint8_t> data) { bytes_.insert(bytes_.end(), data.begin(), data.end()); }
  void zeros(size_t count) { bytes_.resize(bytes_.size() + count); }

  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  uint8_t* room(size_t count) {
    zeros(count);
    return bytes_.data() + (bytes_.size() - count);
  }

  std::vector<uint8_t> bytes_;
  ByteOrder order_;
};

}  // namespace kelvane
