#include "genrand.h"

#include <gtest/gtest.h>

#include <string>

#include "operation_table.h"
#include "shared_reset.h"

namespace kelvane {
namespace {

TEST(RandomNumbers, AndSumsAreThoseOfTheTable) {
  check_table({{"numbers",
                [](uint32_t seed) {
                  std::string all;
                  gen_srand(seed);
                  for (int i = 0; i < 4; ++i) {
                    all += (i == 0 ? "" : ":") + std::to_string(gen_rand());
                  }
                  return all;
                }},
               {"number",
                [](uint32_t seed, int32_t place) {
                  gen_srand(seed);
                  for (; place > 1; --place) {
                    gen_rand();
                  }
                  return gen_rand();
                }},
               {"sum",
                [](const std::string& text, uint32_t value) {
                  uint32_t in_pieces = value;
                  gen_cksum(text.data(), static_cast<uint32_t>(text.size()), &value);
                  for (const char& byte : text) {
                    gen_cksum(&byte, 1, &in_pieces);
                  }
                  EXPECT_EQ(in_pieces, value) << text;
                  return value;
                }}},
              KELVANE_TABLES "genrand.table");
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

}  // namespace
}  // namespace kelvane
