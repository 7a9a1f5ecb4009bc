#include "optimal_parse.h"

#include <algorithm>

#include "byte_order.h"

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
// Behind the block, so that a word can be read at each of its places.
constexpr size_t kPadding = 3;

constexpr uint32_t kThreeBytes = 0xFFFFFF;

uint32_t slot_of(uint32_t bytes) {
  return (bytes * 0x9E3779B1U) >> (32U - kHashBits);
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

void optimal_parser::string_chains::begin(size_t places) {
  previous.resize(places);
  newest.resize(size_t{1} << kHashBits, 0);
  if (number_of_first > UINT32_MAX - 2 * places) {
    number_of_first = 1;
    std::fill(newest.begin(), newest.end(), 0);
  }
}

uint32_t optimal_parser::string_chains::add(size_t place, uint32_t bytes) {
  uint32_t& last = newest[slot_of(bytes)];
  const uint32_t found = last;
  previous[place] = found;
  last = number_of_first + static_cast<uint32_t>(place);
  return found;
}

optimal_parser::optimal_parser(int trials) : trials_(trials) {}

// What the place before was found to match goes on here, a byte shorter. So most places know a
// match already, and ask for longer ones only. Places that know none ask for three equal bytes
// first.
void optimal_parser::find_matches(size_t context, size_t size) {
  const size_t end = context + size;
  matches_.assign(size, {});
  threes_.begin(end);
  fours_.begin(end);
  const uint8_t* const ring = ring_.data();
  match last;
  for (size_t at = 0; at + kShortest <= end; ++at) {
    const uint8_t* const here = ring + at;
    const uint32_t word = load_word(here, ByteOrder::kLittle);
    uint32_t three = threes_.add(at, word & kThreeBytes);
    uint32_t four = fours_.add(at, word);
    if (at < context) {
      continue;
    }
    const size_t limit = std::min(kLongest, end - at);
    // No match begins farther ahead than the ring is long.
    const auto back = static_cast<uint32_t>(std::min<size_t>(at, kRingSize));
    size_t length = 0;
    size_t distance = 0;
    if (last.length > kShortest) {
      length = last.length - size_t{1};
      distance = last.distance;
      if (last.length == kLongest && limit == kLongest) {
        length += agreeing(here + length, here + length - distance, 1);
      }
    } else {
      const uint32_t first = threes_.number_of(at) - back;
      for (int trial = 0; trial < trials_ && three >= first; ++trial) {
        const size_t place = threes_.place_of(three);
        if (((load_word(ring + place, ByteOrder::kLittle) ^ word) & kThreeBytes) == 0) {
          length = kShortest;
          distance = at - place;
          break;
        }
        three = threes_.previous[place];
      }
    }
    if (length >= kShortest) {
      const uint32_t first = fours_.number_of(at) - back;
      for (int trial = 0; length < limit && trial < trials_ && four >= first; ++trial) {
        const size_t place = fours_.place_of(four);
        // What is longer agrees in the byte behind what was found.
        const uint8_t* const there = ring + place;
        if (there[length] == here[length]) {
          const size_t agreed = agreeing(there, here, limit);
          if (agreed > length) {
            length = agreed;
            distance = at - place;
          }
        }
        four = fours_.previous[place];
      }
    }
    last = {static_cast<uint16_t>(length), static_cast<uint16_t>(distance)};
    matches_[at - context] = last;
  }
  threes_.number_of_first += static_cast<uint32_t>(end);
  fours_.number_of_first += static_cast<uint32_t>(end);
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
  ring_.insert(ring_.end(), kPadding, 0);
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
