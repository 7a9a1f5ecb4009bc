#include "substitution.h"

#include <gtest/gtest.h>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "increments.h"

namespace kelvane {
namespace {

using Stores = std::vector<Store>;

class Substitution : public EngineTest {
 protected:
  // Hands a stretch at address 0x1000 on, equal but for the places given.
  void replace(size_t length, std::initializer_list<size_t> places) {
    old_bytes_.assign(length, 'a');
    new_bytes_ = old_bytes_;
    uint8_t value = 'b';
    for (const size_t place : places) {
      new_bytes_[place] = value++;
    }
    process_substitution(old_bytes_.data(), new_bytes_.data(), 0x1000,
                         static_cast<uint32_t>(length), 0x1000, 0x1000);
  }

  Bytes old_bytes_;
  Bytes new_bytes_;
};

TEST_F(Substitution, DropsEqualBytesAroundTheDifferences) {
  replace(8, {});
  EXPECT_EQ(first_sub, nullptr);
  EXPECT_EQ(first_sub_one, nullptr);
  replace(8, {2});
  EXPECT_EQ(stores_of(first_sub_one), (Stores{{0x1002, {'b'}}}));
}

TEST_F(Substitution, BridgesGapsOfTwoAndSplitsAtThree) {
  replace(4, {0, 3});
  EXPECT_EQ(stores_of(first_sub), (Stores{{0x1000, {'b', 'a', 'a', 'c'}}}));
  reset_all_state();
  replace(5, {0, 4});
  EXPECT_EQ(stores_of(first_sub_one), (Stores{{0x1000, {'b'}}, {0x1004, {'c'}}}));
}

TEST_F(Substitution, WritesTheStretchWholeWithoutSplicing) {
  substitution_splicing = 0;
  replace(5, {0, 4});
  EXPECT_EQ(stores_of(first_sub), (Stores{{0x1000, {'b', 'a', 'a', 'a', 'c'}}}));
}

TEST_F(Substitution, FilesAPieceUnderTheCheapestCommand) {
  const Bytes equal(65535, 'x');
  compressed_substitutions = 0;
  debug_level = 2;
  const CapturedRun run = capture([&] {
    add_substitution(0x10, 1, equal.data());
    add_substitution(0x20, 2, equal.data());
    add_substitution(0x30, 3, equal.data());
    add_substitution(0x40, 65534, equal.data());
    add_substitution(0x50, 65535, equal.data());
    use_fill_command = 0;
    add_substitution(0x60, 3, equal.data());
  });
  EXPECT_EQ(run.errors,
            " CMD: sub 0x78 into 0x10\n"
            " CMD: sub 2 at 0x20\n"
            " CMD: fill 0x00000030 - 0x00000032 with 0x78\n"
            " CMD: fill 0x00000040 - 0x0001003d with 0x78\n"
            " CMD: sub 65535 at 0x50\n"
            " CMD: sub 3 at 0x60\n");
  EXPECT_EQ(moves_of(first_sub_one), (std::vector<Move>{{0x10, 1}}));
  EXPECT_EQ(moves_of(first_fill), (std::vector<Move>{{0x30, 3}, {0x40, 65534}}));
  EXPECT_EQ(moves_of(first_sub), (std::vector<Move>{{0x20, 2}, {0x50, 65535}, {0x60, 3}}));
  EXPECT_EQ(num_subs, 3);
  EXPECT_EQ(num_sub_ones, 1);
}

TEST_F(Substitution, CompressesOnlyWhatIsLongEnough) {
  use_fill_command = 0;
  const Bytes equal(50, 'x');
  add_substitution(0, 49, equal.data());
  EXPECT_EQ(first_sub_comp, nullptr);
  debug_level = 2;
  // One literal, two references of 18 and one of 13: seven bytes and the flags.
  const CapturedRun run = capture([&] { add_substitution(0x100, 50, equal.data()); });
  EXPECT_EQ(run.errors, " CMD: sub 8/50 at 0x100\n");
  EXPECT_EQ(moves_of(first_sub_comp), (std::vector<Move>{{0x100, 8}}));
  EXPECT_EQ(first_sub_comp->data.bytes[1], 'x');
}

TEST_F(Substitution, NeedsASavingAboveTheLimit) {
  Random random(8);
  Bytes piece = random.bytes(100);
  min_compression_percent = -100;  // take whatever size comes out
  add_substitution(0, 100, piece.data());
  ASSERT_NE(first_sub_comp, nullptr);
  const int32_t saving = 100 - first_sub_comp->size;
  EXPECT_LT(saving, 0);  // random bytes grow

  min_compression_percent = saving;
  add_substitution(0x100, 100, piece.data());
  EXPECT_EQ(stores_of(first_sub), (Stores{{0x100, piece}}));
  min_compression_percent = saving - 1;
  add_substitution(0x200, 100, piece.data());
  EXPECT_EQ(moves_of(first_sub_comp).size(), 2U);
}

TEST_F(Substitution, GrowsTheCompressedBufferAsNeeded) {
  Random random(9);
  const Bytes piece = random.bytes(25000);
  add_substitution(0, 25000, piece.data());
  EXPECT_EQ(stores_of(first_sub), (Stores{{0, piece}}));
  EXPECT_GT(compressed_buffer_end - compressed_buffer_start, 25000);
}

TEST_F(Substitution, LeavesToPiecesWhatIncrementsDoNotTake) {
  incr_enabled = 1;
  const Bytes old_bytes = {1, 0, 0, 0, 0, 0, 0, 0, 9, 9};
  const Bytes new_bytes = {5, 0, 0, 0, 1, 0, 0, 0, 8, 8};  // the second word is a bad difference
  process_substitution(old_bytes.data(), new_bytes.data(), 0x1000, 10, 0x1000, 0x1000);
  EXPECT_EQ(num_incrs[0], 1);
  EXPECT_EQ(stores_of(first_sub_one), (Stores{{0x1004, {1}}}));
  EXPECT_EQ(stores_of(first_sub), (Stores{{0x1008, {8, 8}}}));
  reset_all_state();
  incr_enabled = 1;
  process_substitution(old_bytes.data(), new_bytes.data(), 0x1000, 4, 0x1000, 0x1000);
  EXPECT_EQ(num_incrs[0], 1);
  EXPECT_EQ(first_sub_one, nullptr);
}

}  // namespace
}  // namespace kelvane
