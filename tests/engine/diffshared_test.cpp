#include "diffshared.h"

#include <gtest/gtest.h>

#include "engine_steps.h"

namespace kelvane {
namespace {

class BlockComparison : public EngineTest {};

TEST_F(BlockComparison, FindsWhatTheTableSays) {
  std::list<Bytes> kept;
  const auto compare_at = [&kept](Data old_data, uint32_t address1, Data new_data,
                                  uint32_t address2, uint16_t blocksize) {
    const Bytes& new_bytes = kept.emplace_back(new_data.bytes);
    use_fill_command = 0;
    compressed_substitutions = 0;
    do_diff(old_data.bytes.data(), address1, static_cast<uint32_t>(old_data.bytes.size()),
            new_bytes.data(), address2, static_cast<uint32_t>(new_bytes.size()), blocksize, 10, 0);
    return "";
  };
  const auto compare = [=](Data old_data, Data new_data) {
    return compare_at(old_data, 0, new_data, 0, 4);
  };
  go_through(KELVANE_TABLES "diffshared.table", {{"compare", compare}, {"compare_at", compare_at}},
             &kept);
}

TEST_F(BlockComparison, EndsTheProcessAtAFailedSearchInFileMode) {
  Bytes old_bytes = bytes_of("abcdefghijklmnopqrstuvwxyz0123456789");
  Bytes split = old_bytes;
  split[4] = '!';
  split[8] = '?';
  const file_data first = {"old", old_bytes.data(), 36, 0, 0, nullptr, nullptr, 0};
  const file_data second = {"new", split.data(), 36, 0, 0, nullptr, nullptr, 0};
  EXPECT_EXIT(diff(&first, &second, 4, 1), testing::ExitedWithCode(1), "^$");
  debug_level = 1;
  EXPECT_EXIT(diff(&first, &second, 4, 1), testing::ExitedWithCode(1),
              "No reasonable match found between 0x4-0x8 and 0x4-0x8");
}

TEST_F(BlockComparison, FindsDifferencesInsideARoughlyMatchingBlock) {
  Random random(5);
  const Bytes old_block = random.bytes(200);
  Bytes new_block = old_block;
  new_block[3] ^= 1U;   // the search agrees again at (1, 1), with a block of 40
  new_block[20] ^= 1U;  // in which one byte of ten may differ
  new_block[35] ^= 1U;
  do_diff(old_block.data(), 0, 200, new_block.data(), 0, 200, 40, 100, 0);
  EXPECT_EQ(
      stores_of(first_sub_one),
      (std::vector<Store>{{3, {new_block[3]}}, {20, {new_block[20]}}, {35, {new_block[35]}}}));
}

}  // namespace
}  // namespace kelvane
