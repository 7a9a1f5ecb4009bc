// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "bytes.h"
#include "dense_decoder.h"
#include "plain_dense_decoder.h"

namespace kelvane {

inline constexpr uint32_t kLargestDecoded = 1U << 20U;

// A decoder whose reads are checked, run in windows of any size, up to `largest_window`, and moved
// to a fresh one now and then (for each window where these are small), with nothing but its state.
// `wrote` is what came out before it ended.
struct CheckedRun {
  CheckedRun(std::span<const uint8_t> old_bytes, std::span<const uint8_t> payload_bytes,
             Random& random, uint32_t largest_window = 700)
      : old_image(old_bytes), payload(payload_bytes) {
    const kelvane_dense_input input = {this,         static_cast<uint32_t>(payload.size()),
                                       read_payload, read_old,
                                       read_new,     kLargestDecoded};
    std::vector<uint32_t> map(0xFFFF * 14 / 4 + 1);
    auto decoder = std::make_unique<kelvane_dense_decoder>();
    kelvane_dense_info info = {};
    code = kelvane_dense_open(decoder.get(), &input, map.data(),
                              static_cast<uint32_t>(map.size() * 4), &info);
    if (code == KELVANE_DENSE_OK && info.old_size != old_image.size()) {
      code = KELVANE_DENSE_BAD_HEADER;
    }
    if (code == KELVANE_DENSE_OK) {
      code = kelvane_dense_restart(decoder.get());
    }
    std::vector<uint8_t> window(largest_window);
    while (code == KELVANE_DENSE_OK && wrote.size() < info.new_size) {
      if (random.below(8) == 0 || largest_window < 8) {
        auto other = std::make_unique<kelvane_dense_decoder>();
        std::fill_n(map.begin(), 256, 0xDEADBEEF);
        EXPECT_EQ(kelvane_dense_open(other.get(), &input, map.data(),
                                     static_cast<uint32_t>(map.size() * 4), &info),
                  KELVANE_DENSE_OK);
        std::memcpy(other.get(), decoder.get(), KELVANE_DENSE_SAVED);
        std::memset(&other->info, 0xA5, sizeof other->info);  // which the payload says again
        EXPECT_EQ(kelvane_dense_resume(other.get()), KELVANE_DENSE_OK);
        decoder = std::move(other);
      }
      const uint32_t count = std::min<uint32_t>(
          1 + random.below(window.size()), info.new_size - static_cast<uint32_t>(wrote.size()));
      code = kelvane_dense_window(decoder.get(), static_cast<uint32_t>(wrote.size()), window.data(),
                                  count);
      if (code == KELVANE_DENSE_OK) {
        wrote.insert(wrote.end(), window.begin(), window.begin() + count);
      }
    }
  }

  static int copy(std::span<const uint8_t> from, uint32_t at, uint8_t* bytes, uint32_t count) {
    EXPECT_NE(count, 0U);
    if (at > from.size() || count > from.size() - at) {
      ADD_FAILURE() << "read outside: " << count << " bytes at " << at << " of " << from.size();
      return 1;
    }
    std::copy_n(from.begin() + at, count, bytes);
    return 0;
  }
  static int read_payload(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    return copy(static_cast<CheckedRun*>(context)->payload, at, bytes, count);
  }
  static int read_old(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    return copy(static_cast<CheckedRun*>(context)->old_image, at, bytes, count);
  }
  static int read_new(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    return copy(static_cast<CheckedRun*>(context)->wrote, at, bytes, count);
  }

  std::span<const uint8_t> old_image;
  std::span<const uint8_t> payload;
  Bytes wrote;
  int code = 0;
};

// Both decoders take it with the same result, or both refuse it.
inline void expect_agreement(std::span<const uint8_t> old_image, std::span<const uint8_t> payload,
                             Random& random) {
  const CheckedRun run(old_image, payload, random);
  const std::optional<Bytes> plain = plain_dense_decode(old_image, payload, kLargestDecoded);
  ASSERT_EQ(run.code == KELVANE_DENSE_OK, plain.has_value()) << run.code;
  if (plain) {
    ASSERT_EQ(run.wrote, *plain);
  }
}

}  // namespace kelvane
