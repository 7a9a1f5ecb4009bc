#include "seeds.h"

#include <array>
#include <bit>
#include <cstring>
#include <optional>

namespace kelvane {
namespace {

// Odd numbers that spread bits well; the first is 2^64 divided by the golden ratio.
constexpr uint64_t kMix1 = 0x9E3779B97F4A7C15U;
constexpr uint64_t kMix2 = 0xC2B2AE3D27D4EB4FU;
constexpr uint64_t kMix3 = 0x165667B19E3779F9U;
constexpr uint64_t kMix4 = 0xD6E8FEB86659FD93U;

// All its bits are good; the highest are used.
std::optional<uint64_t> string_hash(const uint8_t* bytes) {
  const uint64_t head = load_word(bytes, ByteOrder::kLittle);
  const uint64_t middle = load_word(bytes + 4, ByteOrder::kLittle);
  const uint64_t tail = load_word(bytes + 8, ByteOrder::kLittle);
  if (head == middle && middle == tail && head == std::rotr(static_cast<uint32_t>(head), 8)) {
    return std::nullopt;
  }
  return (((head + (middle << 32U)) * kMix1) ^ (tail * kMix2)) * kMix1;
}

constexpr uint32_t highest_bits(uint64_t hash, uint32_t bits) {
  return static_cast<uint32_t>(hash >> (64U - bits));
}

// Bytes from one place with difference seeds to the next.
constexpr size_t kDifferenceStep = 32;

template <ByteOrder order>
std::optional<uint32_t> difference_hash(const uint8_t* bytes, uint32_t stride, uint32_t bits) {
  const auto difference = [&](uint32_t row) -> uint64_t {
    return load_word(bytes + 4 * size_t{row + stride}, order) -
           load_word(bytes + 4 * size_t{row}, order);
  };
  const uint64_t first = difference(0);
  const uint64_t second = difference(1);
  const uint64_t third = difference(2);
  const uint64_t fourth = difference(3);
  if ((first | second | third | fourth) == 0) {
    return std::nullopt;
  }
  const uint64_t mixed =
      ((first * kMix1) ^ (second * kMix2) ^ (third * kMix3) ^ ((fourth + stride) * kMix4)) * kMix1;
  return highest_bits(mixed, bits);
}

template <ByteOrder order>
void each_difference(std::span<const uint8_t> image, const row_bytes* known, uint32_t bits,
                     const auto& take) {
  const size_t longest = difference_seed_bytes(kSeedStrides);
  if (image.size() < longest) {
    return;
  }
  for (size_t at = (image.size() - longest) / kDifferenceStep * kDifferenceStep + kDifferenceStep;
       at != 0;) {
    at -= kDifferenceStep;
    for (uint32_t stride = 1; stride <= kSeedStrides; ++stride) {
      if (known != nullptr &&
          !known->has(static_cast<int64_t>(at), difference_seed_bytes(stride))) {
        break;
      }
      if (const auto hash = difference_hash<order>(&image[at], stride, bits)) {
        take(*hash, static_cast<uint32_t>(at));
      }
    }
  }
}

}  // namespace

template <typename Each>
void seed_index::build(uint64_t expected, const Each& each) {
  // A bucket for about two seeds; more than 2^22 leave the caches.
  while (bits_ < 22 && (uint64_t{2} << bits_) < expected) {
    ++bits_;
  }
  begin_.assign((size_t{1} << bits_) + 1, 0);
  each([&](uint32_t hash, uint32_t) { ++begin_[hash]; });
  uint32_t sum = 0;
  for (uint32_t& bucket_end : begin_) {
    sum += bucket_end;
    bucket_end = sum;
  }
  places_.resize(sum);
  each([&](uint32_t hash, uint32_t place) { places_[--begin_[hash]] = place; });
}

string_seeds::string_seeds(std::span<const uint8_t> old_image, const row_bytes* known) {
  build(old_image.size() / 4, [&](const auto& take) {
    if (old_image.size() < kSeedBytes) {
      return;
    }
    present_.resize(size_t{1} << (bits_ + kPresenceBits - 6));
    for (size_t at = ((old_image.size() - kSeedBytes) & ~size_t{3}) + 4; at != 0;) {
      at -= 4;
      if (known != nullptr && !known->has(static_cast<int64_t>(at), kSeedBytes)) {
        continue;
      }
      if (const auto hash = string_hash(&old_image[at])) {
        const uint32_t presence = highest_bits(*hash, bits_ + kPresenceBits);
        present_[presence / 64] |= uint64_t{1} << (presence % 64);
        take(presence >> kPresenceBits, static_cast<uint32_t>(at));
      }
    }
  });
}

std::span<const uint32_t> string_seeds::places(const uint8_t* bytes) const {
  const auto hash = string_hash(bytes);
  if (!hash || present_.empty()) {
    return {};
  }
  const uint32_t presence = highest_bits(*hash, bits_ + kPresenceBits);
  const bool is_present = (present_[presence / 64] >> (presence % 64) & 1U) != 0;
  return is_present ? bucket(presence >> kPresenceBits) : std::span<const uint32_t>{};
}

difference_seeds::difference_seeds(std::span<const uint8_t> old_image, ByteOrder order,
                                   const row_bytes* known)
    : order_(order) {
  build(old_image.size() / kDifferenceStep * kSeedStrides, [&](const auto& take) {
    if (order == ByteOrder::kBig) {
      each_difference<ByteOrder::kBig>(old_image, known, bits_, take);
    } else {
      each_difference<ByteOrder::kLittle>(old_image, known, bits_, take);
    }
  });
}

std::span<const uint32_t> difference_seeds::places(const uint8_t* bytes, uint32_t stride) const {
  const auto hash = order_ == ByteOrder::kBig
                        ? difference_hash<ByteOrder::kBig>(bytes, stride, bits_)
                        : difference_hash<ByteOrder::kLittle>(bytes, stride, bits_);
  return hash ? bucket(*hash) : std::span<const uint32_t>{};
}

}  // namespace kelvane
