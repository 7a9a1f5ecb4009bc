#include "genrand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "shared_reset.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

std::vector<int32_t> numbers_from(uint32_t seed) {
  gen_srand(seed);
  return {gen_rand(), gen_rand(), gen_rand(), gen_rand()};
}

TEST(RandomNumbers, AreTheSameForASeedOnEveryHost) {
  EXPECT_THAT(numbers_from(1), ElementsAre(1016015, 1054118064, 3002998, 454874417));
  EXPECT_THAT(numbers_from(0), ElementsAre(1000999, 828637808, 679308627, 454814356));
  EXPECT_THAT(numbers_from(0x10000), ElementsAre(985089575, 316796949, 926040583, 332868002));
  EXPECT_THAT(numbers_from(0x12345678), ElementsAre(528582835, 1578381584, 1651214343, 1648882012));
  EXPECT_THAT(numbers_from(0x7fffffff), ElementsAre(920663051, 745928490, 496028839, 1749115673));
  gen_srand(1);
  for (int skipped = 0; skipped < 9999; ++skipped) {
    gen_rand();
  }
  EXPECT_EQ(gen_rand(), 1441905476);
}

TEST(RandomNumbers, IgnoreTheTopBitOfTheSeed) {
  EXPECT_EQ(numbers_from(0x92345678), numbers_from(0x12345678));
}

TEST(RandomNumbers, MayGiveTheModulusInPlaceOfZero) {
  gen_srand(1276535261);
  EXPECT_EQ(gen_rand(), 0x78F0E079);
}

TEST(RandomNumbers, StartFromTheClockWhenNobodySeededThem) {
  // The clock's microseconds are below 2^20, so the first number is one of these.
  reset_genrand();
  const int32_t first = gen_rand();
  bool found = false;
  for (int64_t seed = 0; seed < 1000000 && !found; ++seed) {
    found = (15016 * seed + 1000999) % 0x78F0E079 == first;
  }
  EXPECT_TRUE(found) << first;
  trand();
  const int32_t after_trand = gen_rand();
  reset_genrand();
  EXPECT_FALSE(first == after_trand && after_trand == gen_rand());
}

uint32_t cksum(std::string_view text, uint32_t start) {
  uint32_t value = start;
  gen_cksum(text.data(), static_cast<uint32_t>(text.size()), &value);
  return value;
}

TEST(Cksum, IsABitwiseCrcWithoutInversions) {
  EXPECT_EQ(cksum("abc", 0), 0x8065fd10U);
  EXPECT_EQ(cksum("abc", 0xffffffff), 0x4cf5de93U);
  EXPECT_EQ(cksum("123456789", 0), 0xb1c13d60U);
  EXPECT_EQ(cksum("", 0x12345678), 0x12345678U);
}

TEST(Cksum, GoesOnWhereTheLastPieceEnded) {
  EXPECT_EQ(cksum("456789", cksum("123", 0)), cksum("123456789", 0));
}

}  // namespace
}  // namespace kelvane
