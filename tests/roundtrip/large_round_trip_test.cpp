#include <gtest/gtest.h>

#include <algorithm>

#include "round_trip.h"

// Distances and sizes beyond what the random pairs reach.
namespace kelvane {
namespace {

TEST(LargeRoundTrip, IncrementsMayStandFarApart) {
  // A distance in words of each length that the coder knows, at its ends.
  constexpr uint32_t kJumps[] = {1,   2,   3,   4,     7,     8,     23,    24,
                                 279, 280, 281, 65815, 65816, 65817, 70000, 1};
  for (const bool big_endian : {false, true}) {
    Random random(1);
    ImagePair pair;
    uint32_t word = 5;
    for (const uint32_t jump : kJumps) {
      word += jump;
    }
    pair.old_image = random.bytes(4 * (word + 50));
    pair.new_image = pair.old_image;
    word = 5;
    for (const uint32_t jump : kJumps) {
      word += jump;
      uint8_t* const lanes = &pair.new_image[4 * word];
      lanes[0] = 1;  // changes by 0x02000002 in either byte order
      lanes[3] = 1;
      std::copy_n(lanes, 4, &pair.old_image[4 * word]);
      lanes[0] = 3;
      lanes[3] = 3;
    }
    PatchOptions options;
    options.increments = true;
    options.big_endian = big_endian;
    EXPECT_EQ(fault_in_round_trip(pair, options), std::nullopt);
    EXPECT_LT(make_patch_file(pair, options).file.size(), 120U);
  }
}

TEST(LargeRoundTrip, LongRunsAreWrittenWithWhateverCanTellTheirSize) {
  for (const size_t size : {65533U, 65534U, 65535U, 65536U, 200000U}) {
    for (const bool compression : {false, true}) {
      Random random(2);
      ImagePair pair;
      pair.old_image = random.bytes(size + 100, 128);
      pair.new_image = pair.old_image;
      std::fill_n(pair.new_image.begin() + 50, size, uint8_t{200});
      PatchOptions options;
      options.compression = compression;
      options.max_scan = 300000;
      EXPECT_EQ(fault_in_round_trip(pair, options), std::nullopt) << size;
    }
  }
}

}  // namespace
}  // namespace kelvane
