#include "indzip.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "indzip_internal.h"

namespace kelvane {

namespace {

constexpr int32_t kWindow = 4096;
constexpr int32_t kLongest = 18;                            // longest match
constexpr int32_t kShortest = 3;                            // a shorter match is sent as a literal
constexpr int32_t kWriteStart = kWindow - kLongest;         // where the output begins in the ring
constexpr int32_t kFirstInserted = kWriteStart - kLongest;  // first zero string in the tree
constexpr int32_t kNil = kWindow;                           // no node
constexpr int32_t kRoots = kWindow + 1;                     // 256 roots, one for each first byte
constexpr uint32_t kRingMask = kWindow - 1;

// Index of a node, a root or kNil. With 16 bits the whole tree stays in the first-level cache.
using Node = int16_t;

// One binary tree for each first byte. A node is a ring position and stands for the 18 bytes
// there; the strings of a tree are ordered as bytes, and no two are equal. Nodes are deleted before
// their bytes are overwritten, so the order holds throughout a call.
struct State {
  // The ring; its first 17 slots are mirrored behind its end, so that 18 bytes can be read at any
  // position. Slots from kWriteStart on keep what the call before left there.
  std::array<uint8_t, kWindow + kLongest - 1> text_buf{};
  // The two sons of each node, side by side: the left one at twice the node's index, the right one
  // behind it. A root has a right son only.
  std::array<Node, size_t{2} * (kRoots + 256)> sons{};
  std::array<Node, kWindow + 1> dad{};  // kNil: not in a tree
  int32_t match_position = 0;
  int32_t match_length = 0;
  // Ring slots from 0 on that the call before may have used. All of them at program start, where
  // `dad` has not been filled yet.
  size_t touched = kWindow;
};
State state;

constexpr size_t at(int32_t index) {
  return static_cast<size_t>(index);
}

constexpr int32_t next_in_ring(int32_t position) {
  return static_cast<int32_t>((static_cast<uint32_t>(position) + 1U) & kRingMask);
}

Node& lson(int32_t p) {
  return state.sons[2 * at(p)];
}

Node& rson(int32_t p) {
  return state.sons[2 * at(p) + 1];
}

// Eight bytes as a number that orders like them.
uint64_t load_ordered(const uint8_t* bytes) {
  uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::little) {
    word = __builtin_bswap64(word);
  }
  return word;
}

// A string ready for comparison: all but its first byte, which the root of its tree stands for.
struct RingString {
  uint64_t first;
  uint64_t second;
  uint8_t last;
};

RingString ring_string(const uint8_t* bytes) {
  return {load_ordered(bytes + 1), load_ordered(bytes + 9), bytes[17]};
}

// What a comparison found: how many bytes are equal, the first one included, and the side of the
// other string on which this one belongs (0 left, 1 right).
struct Comparison {
  int32_t equal;
  uint32_t side;
};

inline Comparison compare(const RingString& string, const uint8_t* bytes) {
  const uint64_t first = load_ordered(bytes + 1);
  if (string.first != first) [[likely]] {
    return {1 + std::countl_zero(string.first ^ first) / 8, string.first > first ? 1U : 0U};
  }
  const uint64_t second = load_ordered(bytes + 9);
  if (string.second != second) {
    return {9 + std::countl_zero(string.second ^ second) / 8, string.second > second ? 1U : 0U};
  }
  return {string.last == bytes[17] ? kLongest : kLongest - 1, string.last >= bytes[17] ? 1U : 0U};
}

// Makes the parent of `child` point to `replacement`.
void replace_child(int32_t child, Node replacement) {
  const Node parent = state.dad[at(child)];
  // Right or left is a coin's throw: no branch.
  state.sons[2 * at(parent) + (rson(parent) == child ? 1U : 0U)] = replacement;
}

// Empties the trees. The first `touched` positions, and those that every call inserts, are all
// that a call can have put into them.
void InitTree() {
  std::fill(state.sons.begin() + std::ptrdiff_t{2} * kRoots, state.sons.end(), Node{kNil});
  std::fill_n(state.dad.begin(), state.touched, Node{kNil});
  std::fill(state.dad.begin() + kFirstInserted, state.dad.begin() + kWindow, Node{kNil});
}

// Adds the string at ring position `r`, whose 18 bytes stand at `bytes`, to the tree of its first
// byte. Leaves the longest match with a string already there in match_length and match_position; of
// equally long ones the first met. A string equal to the new one gives up its place, so that
// references point to the most recent copy.
void InsertNode(int32_t r, const uint8_t* bytes) {
  const RingString added = ring_string(bytes);
  const auto node = static_cast<Node>(r);
  auto p = static_cast<Node>(kRoots + bytes[0]);
  lson(r) = kNil;
  rson(r) = kNil;
  int32_t longest = 0;
  Node longest_at = 0;
  uint32_t side = 1;
  Node below = rson(p);
  while (longest < kLongest) {
    if (below == kNil) {
      state.sons[2 * at(p) + side] = node;
      state.dad[at(r)] = p;
      state.match_length = longest;
      state.match_position = longest_at;
      return;
    }
    p = below;
    // Which way the walk turns can't be foreseen. So both sons are fetched while the strings are
    // compared, and one is picked by a mask, without a branch.
    const uint32_t left = static_cast<uint16_t>(lson(p));
    const uint32_t right = static_cast<uint16_t>(rson(p));
    const Comparison found = compare(added, &state.text_buf[at(p)]);
    side = found.side;
    below = static_cast<Node>(left ^ ((left ^ right) & (0U - side)));
    if (found.equal > longest) {
      longest = found.equal;
      longest_at = p;
    }
  }
  state.match_length = longest;
  state.match_position = p;
  state.dad[at(r)] = state.dad[at(p)];
  lson(r) = lson(p);
  rson(r) = rson(p);
  state.dad[at(lson(p))] = node;
  state.dad[at(rson(p))] = node;
  replace_child(p, node);
  state.dad[at(p)] = kNil;
}

// Does what InsertNode does for the strings of zeros in front of a piece that does not begin with
// a zero: each of them is smaller than the one before, so they make a chain to the left.
void insert_zero_chain() {
  Node parent = kRoots;
  for (Node position = kWriteStart - 1; position >= kFirstInserted; --position) {
    state.sons[2 * at(parent) + (parent == kRoots ? 1U : 0U)] = position;
    lson(position) = kNil;
    rson(position) = kNil;
    state.dad[at(position)] = parent;
    parent = position;
  }
}

// Takes the string at ring position `p` out of its tree, if it is in one. Of two children the
// greatest string below the left one takes its place. `dad` has a slot for kNil, which is written
// where a child is missing, and never read.
void DeleteNode(int32_t p) {
  if (state.dad[at(p)] == kNil) {
    return;
  }
  const Node left = lson(p);
  const Node right = rson(p);
  Node q = left;
  if (right != kNil) {
    if (left == kNil) {
      q = right;
    } else {
      if (rson(q) != kNil) {
        while (rson(q) != kNil) {
          q = rson(q);
        }
        rson(state.dad[at(q)]) = lson(q);
        state.dad[at(lson(q))] = state.dad[at(q)];
        lson(q) = left;
        state.dad[at(left)] = q;
      }
      rson(q) = right;
      state.dad[at(right)] = q;
    }
  }
  state.dad[at(q)] = state.dad[at(p)];
  replace_child(p, q);
  state.dad[at(p)] = kNil;
}

// The group being built: the flag byte, then its items.
class Group {
 public:
  explicit Group(void (*put)(int32_t byte)) : put_(put) {}

  void add_literal(uint8_t byte) {
    bytes_[0] = static_cast<uint8_t>(bytes_[0] | mask_);
    bytes_[length_++] = byte;
    end_item();
  }

  void add_reference(int32_t position, int32_t length) {
    const auto place = static_cast<uint32_t>(position);
    bytes_[length_++] = static_cast<uint8_t>(place & 0xFFU);
    bytes_[length_++] =
        static_cast<uint8_t>(((place >> 4U) & 0xF0U) | static_cast<uint32_t>(length - kShortest));
    end_item();
  }

  // Hands on what is there, if there is an item.
  void flush() {
    if (length_ > 1) {
      for (size_t i = 0; i < length_; ++i) {
        put_(static_cast<int8_t>(bytes_[i]));
      }
    }
    bytes_[0] = 0;
    length_ = 1;
    mask_ = 1;
  }

 private:
  void end_item() {
    mask_ = static_cast<uint8_t>(mask_ << 1U);
    if (mask_ == 0) {
      flush();
    }
  }

  void (*put_)(int32_t byte);
  std::array<uint8_t, 17> bytes_{};
  size_t length_ = 1;
  uint8_t mask_ = 1;
};

}  // namespace

void Encode(const uint8_t* source, uint32_t size, void (*put)(int32_t byte)) {
  InitTree();
  std::fill_n(state.text_buf.begin(), std::min(state.touched, at(kWriteStart)), uint8_t{0});
  state.touched = std::min<size_t>(size, kWindow);
  if (size == 0) {
    return;
  }
  Group group(put);
  int32_t s = 0;            // the slot that is overwritten next
  int32_t r = kWriteStart;  // the string that is coded next
  auto remaining = static_cast<int32_t>(std::min<uint32_t>(size, kLongest));
  const uint8_t* const source_end = source + size;
  std::copy_n(source, remaining, &state.text_buf[at(r)]);
  // The strings of zeros in front go in first, so that a match may reach back into the zero fill.
  if (*source != 0) {
    insert_zero_chain();
  } else {
    for (int32_t position = r - 1; position >= kFirstInserted; --position) {
      InsertNode(position, &state.text_buf[at(position)]);
    }
  }
  InsertNode(r, &state.text_buf[at(r)]);
  source += remaining;
  for (;;) {
    int32_t steps = std::min(state.match_length, remaining);
    if (steps < kShortest) {
      steps = 1;
      group.add_literal(state.text_buf[at(r)]);
    } else {
      group.add_reference(state.match_position, steps);
    }
    if (source == source_end && steps == remaining) {
      break;
    }
    for (; steps > 0 && source != source_end; --steps) {
      DeleteNode(s);
      state.text_buf[at(s)] = *source;
      if (s < kLongest - 1) {
        state.text_buf[at(s + kWindow)] = *source;
      }
      ++source;
      s = next_in_ring(s);
      r = next_in_ring(r);
      // The 18 bytes just read are the string at `r`; taken from the source, they need not wait for
      // the ring to be written.
      InsertNode(r, source - kLongest);
    }
    for (; steps > 0; --steps) {
      DeleteNode(s);
      s = next_in_ring(s);
      r = next_in_ring(r);
      --remaining;
      InsertNode(r, &state.text_buf[at(r)]);
    }
  }
  group.flush();
}

Expanded expand_bounded(uint8_t* destination, size_t room, const uint8_t* source,
                        size_t compressed_size) {
  const size_t source_size = source == nullptr ? 0 : compressed_size;
  const size_t capacity = destination == nullptr ? 0 : room;
  size_t written = 0;
  size_t next = 0;
  uint32_t flags = 0;  // the ones in bits 8 to 15 count the items left in a group
  while (next < source_size) {
    flags >>= 1U;
    if ((flags & 0x100U) == 0) {
      flags = source[next++] | 0xFF00U;
    }
    const bool literal = (flags & 1U) != 0;
    if (source_size - next < (literal ? 1U : 2U)) {
      return {ExpandEnd::cut_item, written};
    }
    if (literal) {
      if (written == capacity) {
        return {ExpandEnd::overrun, written};
      }
      destination[written++] = source[next++];
      continue;
    }
    const uint32_t low = source[next];
    const uint32_t high = source[next + 1];
    next += 2;
    const uint32_t position = low | ((high & 0xF0U) << 4U);
    const size_t length = (high & 0x0FU) + kShortest;
    const size_t ring_index = (written + kWriteStart) & kRingMask;
    const size_t distance =
        ring_index > position ? ring_index - position : ring_index - position + kWindow;
    const size_t copied = std::min(length, capacity - written);
    // Byte by byte, since a reference may overlap its own output; places before the output are
    // the zero fill.
    for (size_t i = 0; i < copied; ++i, ++written) {
      destination[written] = distance > written ? uint8_t{0} : destination[written - distance];
    }
    if (copied < length) {
      return {ExpandEnd::overrun, written};
    }
  }
  return {ExpandEnd::complete, written};
}

uint8_t* __qvr_decompress(uint8_t* destination, const uint8_t* source, uint32_t compressed_size) {
  expand_bounded(destination, SIZE_MAX, source, compressed_size);
  return destination;
}

void reset_indzip() {
  state = State{};
}

}  // namespace kelvane
