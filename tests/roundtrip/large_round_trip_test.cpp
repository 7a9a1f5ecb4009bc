#include <gtest/gtest.h>

#include <algorithm>

#include "bd_checksum.h"
#include "byte_order.h"
#include "patch_writer.h"
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

// A patch told as a value: blocks that only this order carries out, and more classes of increments
// than a comparison keeps.
TEST(LargeRoundTrip, ToldPatchesAreAppliedToo) {
  Random random(3);
  ImagePair pair;
  for (uint32_t i = 0; i < 900; ++i) {
    append_word(pair.old_image, 0x10000 * i + random.below(0x10000), true);
  }
  pair.new_image = pair.old_image;
  patch_commands commands;
  // Two neighbours change places by way of the room behind them.
  commands.blocks = {{0, 100, 400}, {100, 100, -100}, {400, 100, -300}};
  std::copy_n(pair.old_image.begin() + 100, 100, pair.new_image.begin());
  std::copy_n(pair.old_image.begin(), 100, pair.new_image.begin() + 100);
  std::copy_n(pair.old_image.begin(), 100, pair.new_image.begin() + 400);
  for (uint32_t i = 0; i < 60; ++i) {
    commands.increments.push_back({0x40000000U - 77777 * i, {}});
    for (uint32_t word = 200 + i; word < 900; word += 60) {
      Bytes changed;
      append_word(
          changed,
          load_word(&pair.old_image[4 * word], ByteOrder::kBig) + commands.increments.back().value,
          true);
      std::copy_n(changed.begin(), 4, pair.new_image.begin() + 4 * word);
      commands.increments.back().addresses.push_back(4 * word);
    }
  }
  patch_header header;
  header.old_size = header.new_size = static_cast<uint32_t>(pair.old_image.size());
  bd_checksum(pair.old_image.data(), header.old_size, &header.old_checksum);
  bd_checksum(pair.new_image.data(), header.new_size, &header.new_checksum);
  PatchOptions options;
  options.big_endian = true;
  const Bytes file = write_patch(std::move(commands), header, {1, false, true, true});
  EXPECT_EQ(
      fault_in_patch({reinterpret_cast<const char*>(file.data()), file.size()}, pair, options),
      std::nullopt);
}

}  // namespace
}  // namespace kelvane
