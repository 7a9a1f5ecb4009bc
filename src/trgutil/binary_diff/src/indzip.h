#pragma once

#include <cstddef>
#include <cstdint>

// The compressed form of substitutions in a patch, and of compressed sections in an image: LZSS
// (Storer and Szymanski, 1982) in its common layout of flag bytes and two-byte references.
//
// A stream is a row of groups: one flag byte, then up to eight items, one for each flag bit from
// bit 0 upward. A set bit is a literal, one byte. A clear bit is a reference, two bytes:
//
//   first byte           bits 0 to 7 of the position
//   second byte, high 4  bits 8 to 11 of the position
//   second byte, low 4   the length less 3, so 3 to 18 bytes
//
// The position is a place in a ring of 4096 bytes that starts zero-filled; output is written to it
// from 4078 (0xFEE) on. A stream has no header, no length and no end mark: it ends with its bytes.
// The last group may be short; its unused flag bits are 0.
namespace kelvane {

// Compresses `size` bytes at `source` and hands each byte of the stream, in order, to `put` as a
// value from -128 to 127. A size of 0 emits nothing; `source` may then be null. Cannot fail.
//
// The dictionary starts afresh for each call, but a few bytes of the ring keep what the call before
// left. They can decide which of several equally right references is taken, so the bytes of a
// stream (never their meaning) depend on the calls before. There is one encoder in the process.
//
// Example: "abcabcabcabc" gives 07 61 62 63 EE F6, three literals and a reference of 9 bytes.
void Encode(const uint8_t* source, uint32_t size, void (*put)(int32_t byte));

// How an expansion ended.
enum class ExpandEnd : uint8_t {
  complete,  // the stream ended between two items, and all of it had room
  overrun,   // the stream holds more than the room; the room is full
  cut_item,  // the stream ends inside an item; the whole items before it were expanded
};

struct Expanded {
  ExpandEnd end;
  size_t size;  // bytes written to the destination
};

// Expands `compressed_size` bytes at `source` into the `room` bytes at `destination`, which must
// not overlap, and tells how that ended. Safe for any stream: reads nothing outside the source and
// writes nothing outside the room. A null `source` counts as an empty stream, a null `destination`
// as no room.
Expanded expand_bounded(uint8_t* destination, size_t room, const uint8_t* source,
                        size_t compressed_size);

// Expands `compressed_size` bytes at `source` into `destination` and gives `destination`. Only for
// streams whose expanded size is known: the caller provides the room, and nothing is checked. A
// stream that ends inside an item ends before that item. A size of 0 or a null pointer writes
// nothing.
uint8_t* __qvr_decompress(uint8_t* destination, const uint8_t* source, uint32_t compressed_size);

}  // namespace kelvane
