#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

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

// An encoder with its dictionary. The dictionary starts afresh for each piece, but a few bytes of
// the ring keep what the piece before left. They can decide which of several equally right
// references is taken, so the bytes of a stream (never their meaning) depend on the pieces before;
// those of a fresh encoder depend on the piece alone. Some 30 KB; a call allocates nothing.
class lzss_encoder {
 public:
  // The numbers of the format.
  static constexpr int32_t kWindow = 4096;
  static constexpr int32_t kLongest = 18;                     // longest match
  static constexpr int32_t kShortest = 3;                     // a shorter one is sent as literals
  static constexpr int32_t kWriteStart = kWindow - kLongest;  // where the output begins in the ring

  // Compresses `size` bytes at `source` and hands the stream, in order, to `put`, some bytes at a
  // time, with `context`. A size of 0 hands on nothing; `source` may then be null. Cannot fail.
  using put_bytes = void (*)(void* context, const uint8_t* bytes, size_t count);
  void encode(const uint8_t* source, uint32_t size, put_bytes put, void* context);

  // Gives the stream whole.
  std::vector<uint8_t> encoded(std::span<const uint8_t> source);

 private:
  static constexpr int32_t kFirstInserted =
      kWriteStart - kLongest;                     // first zero string in the tree
  static constexpr int32_t kNil = kWindow;        // no node
  static constexpr int32_t kRoots = kWindow + 1;  // 256 roots, one for each first byte

  // Index of a node, a root or kNil. With 16 bits the whole tree stays in the first-level cache.
  using Node = int16_t;

  Node& lson(int32_t p) { return sons_[2 * static_cast<size_t>(p)]; }
  Node& rson(int32_t p) { return sons_[2 * static_cast<size_t>(p) + 1]; }
  void replace_child(int32_t child, Node replacement);
  void InitTree();
  void InsertNode(int32_t r, const uint8_t* bytes);
  void insert_zero_chain();
  void DeleteNode(int32_t p);

  // One binary tree for each first byte. A node is a ring position and stands for the 18 bytes
  // there; the strings of a tree are ordered as bytes, and no two are equal. Nodes are deleted
  // before their bytes are overwritten, so the order holds throughout a call.

  // The ring; its first 17 slots are mirrored behind its end, so that 18 bytes can be read at any
  // position. Slots from kWriteStart on keep what the call before left there.
  std::array<uint8_t, kWindow + kLongest - 1> text_buf_{};
  // The two sons of each node, side by side: the left one at twice the node's index, the right one
  // behind it. A root has a right son only.
  std::array<Node, size_t{2} * (kRoots + 256)> sons_{};
  std::array<Node, kWindow + 1> dad_{};  // kNil: not in a tree
  int32_t match_position_ = 0;
  int32_t match_length_ = 0;
  // Ring slots from 0 on that the call before may have used. All of them in a fresh encoder, where
  // `dad_` has not been filled yet.
  size_t touched_ = kWindow;
};

// Compresses `size` bytes at `source` with the process's one encoder and hands each byte of the
// stream, in order, to `put` as a value from -128 to 127. A size of 0 emits nothing; `source` may
// then be null. Cannot fail.
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
