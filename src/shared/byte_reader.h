#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

#include "byte_order.h"

// One bounded cursor for bytes that nobody vouches for, and the comparisons of sums with sizes that
// readers of such bytes need.
namespace kelvane {

// Whether `size` bytes from `offset` on lie within `total` bytes. Nothing can overflow.
constexpr bool fits(uint64_t offset, uint64_t size, uint64_t total) {
  return offset <= total && size <= total - offset;
}

// Whether `count` elements of `element` bytes from `offset` on lie within `total` bytes. Elements
// of no size take no room, however many they are.
constexpr bool fits_array(uint64_t offset, uint64_t count, uint64_t element, uint64_t total) {
  return offset <= total && (element == 0 || count <= (total - offset) / element);
}

// A cursor over a window of bytes: a piece of memory, or a stream from where it stands to its end
// or for a number of bytes. Positions count from the start of the window. The byte order is given
// when the reader is made.
//
// What does not lie within the window is not read: the operation gives zeros (no bytes), the cursor
// stays, and the reader has failed. It stays failed, and every later read gives zeros, so that a
// record is read field by field and failed() asked once behind it:
//
//   ByteReader reader(stream, ByteOrder::big);
//   const entry made = {reader.u16(), reader.u32(), reader.i32()};
//   if (reader.failed()) { ... }
//
// Reading ahead is the stream's business alone: it stands where the cursor stands as long as the
// reader hasn't failed. Nobody puts it back; a caller that must leave it where it found it does so.
// A table of many records is read as one block with bytes(), and taken apart by a reader over that
// memory. Reader and stream or memory belong to the caller; one reader at a time moves a stream.
class ByteReader {
 public:
  ByteReader(std::span<const uint8_t> bytes, ByteOrder order)
      : memory_(bytes.data()), size_(bytes.size()), order_(order) {}
  // The stream must be able to seek; one that can't is an empty window.
  ByteReader(std::FILE* stream, ByteOrder order);
  // At most `size` bytes of the stream, fewer if the file ends before.
  ByteReader(std::FILE* stream, uint64_t size, ByteOrder order);

  uint8_t u8() { return *next<1>(); }
  uint16_t u16() { return load_half(next<2>(), order_); }
  uint32_t u32() { return load_word(next<4>(), order_); }
  uint64_t u64() { return load_long(next<8>(), order_); }
  int8_t i8() { return static_cast<int8_t>(u8()); }
  int16_t i16() { return static_cast<int16_t>(u16()); }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  int64_t i64() { return static_cast<int64_t>(u64()); }

  // Fills `bytes` and tells whether that many were there; if not, they are all zeros.
  bool read(std::span<uint8_t> bytes);
  // Gives the next `count` bytes, fresh; none if that many aren't there, and then no memory is
  // asked for either.
  std::vector<uint8_t> bytes(uint64_t count);

  // Move the cursor and tell whether the place lies within the window, whose end belongs to it.
  bool skip(uint64_t count);
  bool seek(uint64_t position);

  uint64_t position() const { return position_; }
  uint64_t size() const { return size_; }
  uint64_t rest() const { return size_ - position_; }
  bool failed() const { return failed_; }
  ByteOrder order() const { return order_; }

 private:
  // The next bytes, zeros if they aren't there; good until the next call. Here in the header, since
  // tables of many records are taken apart with it.
  template <size_t Size>
  const uint8_t* next() {
    if (stream_ == nullptr && !failed_ && Size <= rest()) {
      position_ += Size;
      return memory_ + (position_ - Size);
    }
    read(std::span(number_).first(Size));
    return number_.data();
  }
  bool fail();

  const uint8_t* memory_ = nullptr;
  std::FILE* stream_ = nullptr;
  uint64_t start_ = 0;  // of the window in the stream
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  std::array<uint8_t, 8> number_{};
  ByteOrder order_;
  bool failed_ = false;
};

// Number of bytes from where the stream stands to the end of its file, and the stream stands there
// still; -1 if it can't seek.
int64_t stream_rest(std::FILE* stream);

}  // namespace kelvane
