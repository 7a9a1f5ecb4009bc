#include "indzip.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "writer_reset.h"

namespace kelvane {

namespace {

constexpr int32_t kWindow = lzss_encoder::kWindow;
constexpr int32_t kLongest = lzss_encoder::kLongest;
constexpr int32_t kShortest = lzss_encoder::kShortest;
constexpr int32_t kWriteStart = lzss_encoder::kWriteStart;
constexpr uint32_t kRingMask = kWindow - 1;

lzss_encoder engine_encoder;

constexpr size_t at(int32_t index) {
  return static_cast<size_t>(index);
}

constexpr int32_t next_in_ring(int32_t position) {
  return static_cast<int32_t>((static_cast<uint32_t>(position) + 1U) & kRingMask);
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

// The group being built: the flag byte, then its items.
class Group {
 public:
  Group(lzss_encoder::put_bytes put, void* context) : put_(put), context_(context) {}

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
      put_(context_, bytes_.data(), length_);
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

  lzss_encoder::put_bytes put_;
  void* context_;
  std::array<uint8_t, 17> bytes_{};
  size_t length_ = 1;
  uint8_t mask_ = 1;
};

}  // namespace

// Makes the parent of `child` point to `replacement`.
void lzss_encoder::replace_child(int32_t child, Node replacement) {
  const Node parent = dad_[at(child)];
  // Right or left is a coin's throw: no branch.
  sons_[2 * at(parent) + (rson(parent) == child ? 1U : 0U)] = replacement;
}

// Empties the trees. The first `touched` positions, and those that every call inserts, are all
// that a call can have put into them.
void lzss_encoder::InitTree() {
  std::fill(sons_.begin() + std::ptrdiff_t{2} * kRoots, sons_.end(), Node{kNil});
  std::fill_n(dad_.begin(), touched_, Node{kNil});
  std::fill(dad_.begin() + kFirstInserted, dad_.begin() + kWindow, Node{kNil});
}

// Adds the string at ring position `r`, whose 18 bytes stand at `bytes`, to the tree of its first
// byte. Leaves the longest match with a string already there in match_length_ and match_position_;
// of equally long ones the first met. A string equal to the new one gives up its place, so that
// references point to the most recent copy.
void lzss_encoder::InsertNode(int32_t r, const uint8_t* bytes) {
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
      sons_[2 * at(p) + side] = node;
      dad_[at(r)] = p;
      match_length_ = longest;
      match_position_ = longest_at;
      return;
    }
    p = below;
    // Which way the walk turns can't be foreseen. So both sons are fetched while the strings are
    // compared, and one is picked by a mask, without a branch.
    const uint32_t left = static_cast<uint16_t>(lson(p));
    const uint32_t right = static_cast<uint16_t>(rson(p));
    const Comparison found = compare(added, &text_buf_[at(p)]);
    side = found.side;
    below = static_cast<Node>(left ^ ((left ^ right) & (0U - side)));
    if (found.equal > longest) {
      longest = found.equal;
      longest_at = p;
    }
  }
  match_length_ = longest;
  match_position_ = p;
  dad_[at(r)] = dad_[at(p)];
  lson(r) = lson(p);
  rson(r) = rson(p);
  dad_[at(lson(p))] = node;
  dad_[at(rson(p))] = node;
  replace_child(p, node);
  dad_[at(p)] = kNil;
}

// Does what InsertNode does for the strings of zeros in front of a piece that does not begin with
// a zero: each of them is smaller than the one before, so they make a chain to the left.
void lzss_encoder::insert_zero_chain() {
  Node parent = kRoots;
  for (Node position = kWriteStart - 1; position >= kFirstInserted; --position) {
    sons_[2 * at(parent) + (parent == kRoots ? 1U : 0U)] = position;
    lson(position) = kNil;
    rson(position) = kNil;
    dad_[at(position)] = parent;
    parent = position;
  }
}

// Takes the string at ring position `p` out of its tree, if it is in one. Of two children the
// greatest string below the left one takes its place. `dad_` has a slot for kNil, which is written
// where a child is missing, and never read.
void lzss_encoder::DeleteNode(int32_t p) {
  if (dad_[at(p)] == kNil) {
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
        rson(dad_[at(q)]) = lson(q);
        dad_[at(lson(q))] = dad_[at(q)];
        lson(q) = left;
        dad_[at(left)] = q;
      }
      rson(q) = right;
      dad_[at(right)] = q;
    }
  }
  dad_[at(q)] = dad_[at(p)];
  replace_child(p, q);
  dad_[at(p)] = kNil;
}

void lzss_encoder::encode(const uint8_t* source, uint32_t size, put_bytes put, void* context) {
  InitTree();
  std::fill_n(text_buf_.begin(), std::min(touched_, at(kWriteStart)), uint8_t{0});
  touched_ = std::min<size_t>(size, kWindow);
  if (size == 0) {
    return;
  }
  Group group(put, context);
  int32_t s = 0;            // the slot that is overwritten next
  int32_t r = kWriteStart;  // the string that is coded next
  auto remaining = static_cast<int32_t>(std::min<uint32_t>(size, kLongest));
  const uint8_t* const source_end = source + size;
  std::copy_n(source, remaining, &text_buf_[at(r)]);
  // The strings of zeros in front go in first, so that a match may reach back into the zero fill.
  if (*source != 0) {
    insert_zero_chain();
  } else {
    for (int32_t position = r - 1; position >= kFirstInserted; --position) {
      InsertNode(position, &text_buf_[at(position)]);
    }
  }
  InsertNode(r, &text_buf_[at(r)]);
  source += remaining;
  for (;;) {
    int32_t steps = std::min(match_length_, remaining);
    if (steps < kShortest) {
      steps = 1;
      group.add_literal(text_buf_[at(r)]);
    } else {
      group.add_reference(match_position_, steps);
    }
    if (source == source_end && steps == remaining) {
      break;
    }
    for (; steps > 0 && source != source_end; --steps) {
      DeleteNode(s);
      text_buf_[at(s)] = *source;
      if (s < kLongest - 1) {
        text_buf_[at(s + kWindow)] = *source;
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
      InsertNode(r, &text_buf_[at(r)]);
    }
  }
  group.flush();
}

std::vector<uint8_t> lzss_encoder::encoded(std::span<const uint8_t> source) {
  std::vector<uint8_t> stream;
  const auto append = [](void* context, const uint8_t* bytes, size_t count) {
    auto* const appended = static_cast<std::vector<uint8_t>*>(context);
    appended->insert(appended->end(), bytes, bytes + count);
  };
  encode(source.data(), static_cast<uint32_t>(source.size()), append, &stream);
  return stream;
}

void Encode(const uint8_t* source, uint32_t size, void (*put)(int32_t byte)) {
  const auto one_by_one = [](void* context, const uint8_t* bytes, size_t count) {
    const auto put_byte = *static_cast<void (**)(int32_t)>(context);
    for (size_t i = 0; i < count; ++i) {
      put_byte(static_cast<int8_t>(bytes[i]));
    }
  };
  engine_encoder.encode(source, size, one_by_one, &put);
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
  engine_encoder = lzss_encoder{};
}

}  // namespace kelvane
