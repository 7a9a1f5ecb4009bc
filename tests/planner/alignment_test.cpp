#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alignment.h"
#include "image_pair.h"
#include "seeds.h"

namespace kelvane {
namespace {

using testing::Contains;
using testing::IsEmpty;

// As in a later round, which knows the classes of the one before.
std::vector<shift_stretch> stretches_of(const Bytes& old_image, const Bytes& new_image,
                                        std::span<const class_price> classes = {}) {
  const string_seeds strings(old_image);
  const difference_seeds differences(old_image, ByteOrder::kLittle);
  const class_prices prices(classes);
  return align_images({{old_image, new_image}, ByteOrder::kLittle, &strings, &differences, &prices},
                      {.stored_word_bits = 22, .kept_shifts = {}});
}

TEST(SeedsTest, FindEqualStringsAtAnyPlaceOfTheNewImage) {
  Random random(1);
  const Bytes old_image = random.bytes(4000);
  const string_seeds seeds(old_image);
  for (uint32_t place = 0; place + kSeedBytes <= old_image.size(); place += 4) {
    EXPECT_THAT(seeds.places(&old_image[place]), Contains(place));
  }
  const Bytes gap(kSeedBytes, 0xFF);
  EXPECT_THAT(seeds.places(gap.data()), IsEmpty());
}

TEST(SeedsTest, FindTablesOfWhichEachColumnMoved) {
  for (const bool big_endian : {false, true}) {
    for (uint32_t columns = 1; columns <= kSeedStrides; ++columns) {
      Random random(columns);
      Bytes old_image;
      Bytes new_image;
      for (uint32_t i = 0; i < 64; ++i) {
        const uint32_t word = random.below(1000000);
        append_word(old_image, word, big_endian);
        append_word(new_image, word + 1000 * (i % columns), big_endian);
      }
      const difference_seeds seeds(old_image, byte_order_of(big_endian));
      EXPECT_THAT(seeds.places(&new_image[32], columns), Contains(32U)) << columns;
    }
  }
}

TEST(SeedsTest, GiveNothingForImagesThatAreTooShort) {
  const Bytes bytes = bytes_of("0123456789abcdefghijklmnopqrstuvwxyz");
  for (size_t size = 0; size < kSeedBytes; ++size) {
    EXPECT_THAT(string_seeds(std::span(bytes).first(size)).places(bytes.data()), IsEmpty());
  }
  EXPECT_THAT(difference_seeds(std::span(bytes).first(31), ByteOrder::kBig).places(bytes.data(), 1),
              IsEmpty());
}

TEST(AlignmentTest, FindsWhereBytesWerePutIn) {
  Random random(5);
  for (const uint32_t inserted : {1U, 2U, 3U, 4U, 30U, 1001U}) {
    const Bytes old_image = random.bytes(6000);
    const Bytes piece = random.bytes(inserted);
    Bytes new_image = old_image;
    new_image.insert(new_image.begin() + 3000, piece.begin(), piece.end());
    const auto stretches = stretches_of(old_image, new_image);
    ASSERT_GE(stretches.size(), 2U) << inserted;
    EXPECT_EQ(stretches.front().shift, 0);
    // What was put in may stand on either side, or be stored.
    EXPECT_GE(stretches.front().end, 2996U);
    EXPECT_LE(stretches.front().end, 3000 + inserted);
    EXPECT_EQ(stretches.back().shift, inserted);
    EXPECT_GE(stretches.back().begin, 2996U);
    EXPECT_LE(stretches.back().begin, 3004 + inserted);
    EXPECT_EQ(stretches.back().end, new_image.size());
  }
}

TEST(AlignmentTest, StoresWhatComesFromNowhere) {
  Random random(6);
  const Bytes new_image = random.bytes(2000);
  const auto stretches = stretches_of(random.bytes(2000), new_image);
  ASSERT_EQ(stretches.size(), 1U);
  EXPECT_EQ(stretches[0].shift, kStoredShift);
  EXPECT_THAT(stretches_of({}, {}), IsEmpty());
}

TEST(AlignmentTest, FollowsATableByItsDifferences) {
  // A table of addresses that moved up by 0x240 and whose every entry grew: no equal bytes at all.
  Random random(7);
  Bytes table;
  Bytes grown;
  for (uint32_t i = 0; i < 300; ++i) {
    const uint32_t word = 0x8000000 + random.below(0x100000);
    append_word(table, word, false);
    append_word(grown, word + 0x1240, false);
  }
  const Bytes front = random.bytes(2000);
  const Bytes old_image = joined({front, table, random.bytes(400)});
  const Bytes new_image = joined({front, random.bytes(0x240), grown});
  const class_price growth[] = {{0x1240, 4}};
  const auto stretches = stretches_of(old_image, new_image, growth);
  EXPECT_THAT(widest_shifts(stretches), testing::ElementsAre(0x240));
}

}  // namespace
}  // namespace kelvane
