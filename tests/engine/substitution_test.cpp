#include "substitution.h"

#include <gtest/gtest.h>

#include "engine_steps.h"

namespace kelvane {
namespace {

class Substitution : public EngineTest {};

TEST_F(Substitution, FilesWhatTheTableSays) {
  std::list<Bytes> kept;
  const auto replace = [&kept](Data old_data, Data new_data) {
    const Bytes& new_bytes = kept.emplace_back(new_data.bytes);
    process_substitution(old_data.bytes.data(), new_bytes.data(), 0x1000,
                         static_cast<uint32_t>(new_bytes.size()), 0x1000, 0x1000);
    return "";
  };
  go_through(KELVANE_TABLES "substitution.table", {{"replace", replace}}, &kept);
}

TEST_F(Substitution, NeedsASavingAboveTheLimit) {
  Random random(8);
  const Bytes piece = random.bytes(100);
  min_compression_percent = -100;  // take whatever size comes out
  add_substitution(0, 100, piece.data());
  ASSERT_NE(first_sub_comp, nullptr);
  const int32_t saving = 100 - first_sub_comp->size;
  EXPECT_LT(saving, 0);  // random bytes grow

  min_compression_percent = saving;
  add_substitution(0x100, 100, piece.data());
  EXPECT_EQ(stores_of(first_sub), (std::vector<Store>{{0x100, piece}}));
  min_compression_percent = saving - 1;
  add_substitution(0x200, 100, piece.data());
  EXPECT_EQ(moves_of(first_sub_comp).size(), 2U);
}

TEST_F(Substitution, GrowsTheCompressedBufferAsNeeded) {
  Random random(9);
  const Bytes piece = random.bytes(25000);
  add_substitution(0, 25000, piece.data());
  EXPECT_EQ(stores_of(first_sub), (std::vector<Store>{{0, piece}}));
  EXPECT_GT(compressed_buffer_end - compressed_buffer_start, 25000);
}

}  // namespace
}  // namespace kelvane
