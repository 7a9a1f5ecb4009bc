#include "optimal_parse.h"

#include <algorithm>

namespace kelvane {
namespace {

constexpr uint32_t kRingSize = 4096;
constexpr uint32_t kFirstPlace = 4078;  // where the ring begins to be written
constexpr size_t kShortest = 3;
constexpr size_t kLongest = 18;
constexpr uint32_t kLiteralBits = 9;
constexpr uint32_t kReferenceBits = 17;
constexpr uint32_t kHashBits = 14;
// Zeros in front that matches may begin in: a longer run of them is met by overlapping.
constexpr size_t kZeros = kLongest;

uint32_t slot_of(const uint8_t* bytes) {
  const uint32_t mixed = bytes[0] * 0x9E3779B1U + bytes[1] * 0x85EBCA77U + bytes[2] * 0xC2B2AE3DU;
  return mixed >> (32U - kHashBits);
}

// How many bytes agree, up to `limit`.
size_t agreeing(const uint8_t* first, const uint8_t* second, size_t limit) {
  size_t length = 0;
  while (length < limit && first[length] == second[length]) {
    ++length;
  }
  return length;
}

}  // namespace

optimal_parser::optimal_parser(int trials) : trials_(trials), newest_(size_t{1} << kHashBits, -1) {}

void optimal_parser::find_matches(size_t context, size_t size) {
  previous_.resize(ring_.size());
  matches_.assign(size, {});
  for (const uint32_t slot : touched_) {
    newest_[slot] = -1;
  }
  touched_.clear();
  for (size_t at = 0; at + kShortest <= ring_.size(); ++at) {
    const uint32_t slot = slot_of(&ring_[at]);
    int32_t candidate = newest_[slot];
    if (candidate < 0) {
      touched_.push_back(slot);
    }
    previous_[at] = candidate;
    newest_[slot] = static_cast<int32_t>(at);
    if (at < context) {
      continue;
    }
    match& found = matches_[at - context];
    const size_t limit = std::min(kLongest, ring_.size() - at);
    const uint8_t* const here = &ring_[at];
    size_t longest = kShortest - 1;  // found so far, or what is not enough
    for (int trial = 0; trial < trials_ && candidate >= 0; ++trial) {
      const auto place = static_cast<size_t>(candidate);
      if (at - place > kRingSize) {
        break;
      }
      // What is longer agrees in the byte behind what was found.
      const uint8_t* const there = &ring_[place];
      if (there[longest] == here[longest]) {
        const size_t length = agreeing(there, here, limit);
        if (length > longest) {
          longest = length;
          found = {static_cast<uint16_t>(length), static_cast<uint16_t>(at - place)};
          if (length == limit) {
            break;
          }
        }
      }
      candidate = previous_[place];
    }
  }
}

uint64_t optimal_parser::parse_block(std::span<const uint8_t> data, size_t begin) {
  const size_t size = std::min(kBlockBytes, data.size() - begin);
  const size_t context = begin == 0 ? kZeros : kRingSize;
  if (begin == 0) {
    ring_.assign(kZeros, 0);
  } else {
    const auto before = data.subspan(begin - context, context);
    ring_.assign(before.begin(), before.end());
  }
  const auto block = data.subspan(begin, size);
  ring_.insert(ring_.end(), block.begin(), block.end());
  find_matches(context, size);
  costs_.resize(size + 1);
  costs_[size] = 0;
  for (size_t at = size; at-- > 0;) {
    const size_t longest = matches_[at].length;
    size_t best = 1;
    uint32_t least = costs_[at + 1] + kLiteralBits;
    for (size_t length = kShortest; length <= longest; ++length) {
      if (costs_[at + length] + kReferenceBits <= least) {
        least = costs_[at + length] + kReferenceBits;
        best = length;
      }
    }
    costs_[at] = least;
    matches_[at].length = static_cast<uint16_t>(best);
  }
  return costs_[0];
}

uint32_t optimal_parser::packed_size(std::span<const uint8_t> data) {
  uint64_t bits = 0;
  for (size_t begin = 0; begin < data.size(); begin += kBlockBytes) {
    bits += parse_block(data, begin);
  }
  return static_cast<uint32_t>((bits + 7) / 8);
}

void optimal_parser::append_packed(std::span<const uint8_t> data, std::vector<uint8_t>& packed) {
  size_t flags = 0;
  uint32_t items = 8;
  for (size_t begin = 0; begin < data.size(); begin += kBlockBytes) {
    parse_block(data, begin);
    for (size_t at = 0; at < matches_.size(); at += matches_[at].length) {
      if (items == 8) {
        flags = packed.size();
        packed.push_back(0);
        items = 0;
      }
      const match& chosen = matches_[at];
      if (chosen.length == 1) {
        packed[flags] = static_cast<uint8_t>(packed[flags] | (1U << items));
        packed.push_back(data[begin + at]);
      } else {
        const size_t next = kFirstPlace + begin + at;
        const auto place = static_cast<uint32_t>((next + kRingSize - chosen.distance) % kRingSize);
        packed.push_back(static_cast<uint8_t>(place % 256));
        packed.push_back(static_cast<uint8_t>((place / 16 & 0xF0U) | (chosen.length - kShortest)));
      }
      ++items;
    }
  }
}

}  // namespace kelvane
