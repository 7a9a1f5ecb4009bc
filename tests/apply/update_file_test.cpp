// SPDX-License-Identifier: Apache-2.0
// Updates taken apart: the plan as it was written, damage behind a right checksum, and a device
// that refuses what the plan does not keep.

#include "update_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dense_bundle.h"
#include "flash_pairs.h"
#include "update_trial.h"

extern "C" const uint32_t state_of_small_model;

namespace kelvane {
namespace {

using kelpatch::Failure;
using kelpatch::PagePlan;
using kelpatch::UpdateFile;

constexpr uint32_t kPage = 256;

// An image of `pages` pages, and one in which the last of them comes first.
kelpatch::Bytes image_of(uint32_t pages) {
  std::minstd_rand random(7);
  return bytes_of(random_bytes(random, size_t{pages} * kPage));
}

kelpatch::Bytes turned(const kelpatch::Bytes& image) {
  kelpatch::Bytes other = image;
  std::rotate(other.begin(), other.end() - kPage, other.end());
  return other;
}

DenseBundle bundle_of(const kelpatch::Bytes& old_image, const kelpatch::Bytes& new_image,
                      std::vector<kelpatch::PageRange> ranges = {}) {
  dense_request request;
  request.images = {old_image, new_image};
  request.geometry = {kPage, 2, 4, 2};
  request.effort = dense_effort::quick;
  return dense_bundle(request, 2, std::move(ranges));
}

TEST(UpdateFileTest, KnowsWhatACheckpointOfEitherModelTakes) {
  EXPECT_EQ(kelpatch::dense_state_size(0), state_of_small_model);
  EXPECT_EQ(kelpatch::dense_state_size(1), KELVANE_DENSE_SAVED);
}

TEST(UpdateFileTest, ReadsThePlanThatWasWritten) {
  std::minstd_rand random(3);
  const kelpatch::Bytes image = image_of(40);
  const DenseBundle made = bundle_of(image, turned(image));
  for (int round = 0; round < 300; ++round) {
    PagePlan plan = made.plan;
    plan.changed.clear();
    plan.kept.clear();
    plan.ranges.clear();
    plan.slots = 0;
    if (random() % 2 == 0) {
      plan.ranges = {{0, 9}, {10 + static_cast<uint32_t>(random() % 9), 12}};
    }
    const uint32_t share = static_cast<uint32_t>(random() % 4);
    for (uint32_t page = 0; page < plan.pages; ++page) {
      if (plan.has(page) && random() % 3 < share) {
        plan.changed.push_back(page);
        if (random() % 4 == 0) {
          plan.kept.push_back({page, plan.slots++});
        }
      }
    }
    const UpdateFile update("update", make_bundle(plan, made.parts));
    EXPECT_EQ(update.plan().changed, plan.changed);
    EXPECT_EQ(update.plan().encoded(), plan.encoded());
    EXPECT_EQ(update.plan().slots, plan.slots);
    EXPECT_EQ(update.payload(), made.parts.payload);
  }
}

TEST(UpdateFileTest, TellsWhatADeviceRefuses) {
  const kelpatch::Bytes image = image_of(20);
  const kelpatch::Bytes other = turned(turned(image));
  DenseBundle made = bundle_of(other, image);
  const UpdateFile update("update", made.bytes);
  EXPECT_EQ(updated(update, "old", other, {}), image);
  ASSERT_FALSE(made.plan.kept.empty());
  made.plan.kept.clear();
  const UpdateFile careless("update", make_bundle(made.plan, made.parts));
  try {
    updated(careless, "old", other, {});
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(
        failure.message,
        "error: a device refuses 'update': the plan of the bundle does not keep what is needed");
  }
}

TEST(UpdateFileTest, HasNoBytesOutsideItsRanges) {
  const kelpatch::Bytes image = image_of(6);
  EXPECT_EQ(kelpatch::plan_changes(image, turned(image), kPage, {{0, 6}}, "update").changed.size(),
            6U);
  try {
    kelpatch::plan_changes(image, image, kPage, {{0, 2}, {3, 3}}, "update");
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.message, "error: 'update' has bytes at offset 512, which lies in no range");
  }
}

// Whatever stands behind a right checksum is refused in words, or makes the new image.
TEST(UpdateFileTest, SurvivesDamage) {
  const kelpatch::Bytes image = image_of(6);
  const kelpatch::Bytes other = turned(image);
  const DenseBundle made = bundle_of(image, other);
  for (size_t at = KELVANE_BUNDLE_SUMMED_FROM; at < made.bytes.size(); ++at) {
    for (const uint32_t change : {1U, 0x10U, 0x80U, 0xFFU}) {
      kelpatch::Bytes bytes = made.bytes;
      bytes[at] = static_cast<uint8_t>(bytes[at] ^ change);
      const uint32_t sum =
          kelvane_crc32(0, bytes.data() + KELVANE_BUNDLE_SUMMED_FROM,
                        static_cast<uint32_t>(bytes.size()) - KELVANE_BUNDLE_SUMMED_FROM);
      store_word(bytes.data() + KELVANE_BUNDLE_CHECKSUM_AT, sum, ByteOrder::kLittle);
      try {
        const UpdateFile update("update", bytes);
        EXPECT_EQ(updated(update, "old", image, 100000), other) << at;
      } catch (const Failure& failure) {
        EXPECT_FALSE(failure.message.empty());
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
