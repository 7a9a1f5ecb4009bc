#include "diffshared.h"

#include <gtest/gtest.h>

#include "bytes.h"
#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "plain_search.h"

namespace kelvane {
namespace {

using Moves = std::vector<Move>;
using Stores = std::vector<Store>;

// Compares two blocks at addresses 0 with a search that may fail, in file mode's settings of
// version 0. The new block must outlive the lists.
void compare(const Bytes& old_block, const Bytes& new_block, uint16_t blocksize = 4,
             int32_t max_scan = 10) {
  use_fill_command = 0;
  compressed_substitutions = 0;
  do_diff(old_block.data(), 0, static_cast<uint32_t>(old_block.size()), new_block.data(), 0,
          static_cast<uint32_t>(new_block.size()), blocksize, max_scan, 0);
}

class BlockComparison : public EngineTest {
 protected:
  const Bytes letters_ = bytes_of("abcdefghijklmnopqrstuvwxyz0123456789");
};

TEST_F(BlockComparison, FindsOneChangedByte) {
  Bytes changed = letters_;
  changed[10] = '!';
  compare(letters_, changed);
  EXPECT_EQ(stores_of(first_sub_one), (Stores{{10, {'!'}}}));
  EXPECT_EQ(first_sub, nullptr);
  EXPECT_EQ(moves_of(first_move), (Moves{{36, 0}}));
}

TEST_F(BlockComparison, FindsAnInsertion) {
  Bytes longer = letters_;
  longer.insert(longer.begin() + 20, {'!', '?'});
  compare(letters_, longer);
  EXPECT_EQ(moves_of(first_move), (Moves{{20, 2}, {36, 0}}));
  EXPECT_EQ(stores_of(first_sub), (Stores{{20, {'!', '?'}}}));
}

TEST_F(BlockComparison, FindsARemoval) {
  Bytes shorter = letters_;
  shorter.erase(shorter.begin() + 5, shorter.begin() + 8);
  compare(letters_, shorter);
  EXPECT_EQ(moves_of(first_move), (Moves{{8, -3}, {36, 0}}));
  EXPECT_EQ(first_sub, nullptr);
  EXPECT_EQ(first_sub_one, nullptr);
}

TEST_F(BlockComparison, BridgesOneEqualByteAndSplitsAtThree) {
  Bytes bridged = letters_;
  bridged[4] = '!';
  bridged[6] = '?';
  compare(letters_, bridged);
  EXPECT_EQ(stores_of(first_sub), (Stores{{4, {'!', 'f', '?'}}}));
  EXPECT_EQ(moves_of(first_move), (Moves{{36, 0}}));

  reset_all_state();
  Bytes split = letters_;
  split[4] = '!';
  split[8] = '?';
  compare(letters_, split);
  EXPECT_EQ(stores_of(first_sub_one), (Stores{{4, {'!'}}, {8, {'?'}}}));
  EXPECT_EQ(moves_of(first_move), (Moves{{36, 0}}));
}

TEST_F(BlockComparison, TakesEmptyBlocksAsTheyAre) {
  do_diff(nullptr, 0x100, 0, nullptr, 0x200, 0, 4, 10, 1);
  EXPECT_EQ(moves_of(first_move), (Moves{{0x100, 0}}));

  reset_all_state();
  do_diff(nullptr, 0x100, 0, letters_.data(), 0x200, 3, 4, 10, 1);
  EXPECT_EQ(moves_of(first_move), (Moves{{0x100, 3}, {0x100, 0}}));
  EXPECT_EQ(stores_of(first_sub), (Stores{{0x200, {'a', 'b', 'c'}}}));

  reset_all_state();
  do_diff(letters_.data(), 0x100, 3, nullptr, 0x200, 0, 4, 10, 1);
  EXPECT_EQ(moves_of(first_move), (Moves{{0x103, -3}, {0x103, 0}}));
}

TEST_F(BlockComparison, GivesOnlyAnEndMarkForEqualBlocks) {
  do_diff(letters_.data(), 0x100, 36, letters_.data(), 0x100, 36, 4, 10, 1);
  EXPECT_EQ(moves_of(first_move), (Moves{{0x124, 0}}));
  reset_all_state();
  do_diff(letters_.data(), 0x200, 36, letters_.data(), 0x100, 36, 4, 10, 1);  // no tail match
  EXPECT_EQ(moves_of(first_move), (Moves{{0x224, 0}}));
  EXPECT_EQ(first_sub, nullptr);
}

TEST_F(BlockComparison, MatchesTheTailOnlyIfTheOldEndIsNotTheHigher) {
  // Both blocks end alike; the byte in front is removed. With the tail matched that is a removal in
  // front of the tail, without it the tail itself is rewritten and the end removed.
  const Bytes longer = bytes_of("xabc");
  const Bytes shorter = bytes_of("abc");
  do_diff(longer.data(), 0, 4, shorter.data(), 1, 3, 10, 10, 0);
  EXPECT_EQ(moves_of(first_move), (Moves{{1, -1}, {4, 0}}));
  EXPECT_EQ(first_sub, nullptr);
  reset_all_state();
  do_diff(longer.data(), 0, 4, shorter.data(), 0, 3, 10, 10, 0);
  EXPECT_EQ(moves_of(first_move), (Moves{{4, -1}, {4, 0}}));
  EXPECT_EQ(stores_of(first_sub), (Stores{{0, {'a', 'b', 'c'}}}));
}

TEST_F(BlockComparison, PutsWhatIsLeftOfAFailedSearchIntoOneChange) {
  const Bytes unlike = bytes_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ!@#$%^&*()");
  debug_level = 1;
  const CapturedRun run = capture([&] { compare(letters_, unlike); });
  EXPECT_EQ(run.errors, " No reasonable match found between (nil)-0x23 and (nil)-0x23\n");
  EXPECT_EQ(stores_of(first_sub), (Stores{{0, unlike}}));
  EXPECT_EQ(moves_of(first_move), (Moves{{36, 0}}));
}

TEST_F(BlockComparison, EndsTheProcessAtAFailedSearchInFileMode) {
  Bytes split = letters_;
  split[4] = '!';
  split[8] = '?';
  Bytes old_bytes = letters_;
  const file_data first = {"old", old_bytes.data(), 36, 0, 0, nullptr, nullptr, 0};
  const file_data second = {"new", split.data(), 36, 0, 0, nullptr, nullptr, 0};
  EXPECT_EXIT(diff(&first, &second, 4, 1), testing::ExitedWithCode(1), "^$");
  EXPECT_EXIT(
      {
        debug_level = 1;
        diff(&first, &second, 4, 1);
      },
      testing::ExitedWithCode(1), "No reasonable match found between 0x4-0x8 and 0x4-0x8");
}

// Takes the walk apart where the old code is plainest: byte by byte, pair by pair.
TEST_F(BlockComparison, FindsDifferencesInsideARoughlyMatchingBlock) {
  Random random(5);
  const Bytes old_block = random.bytes(200);
  Bytes new_block = old_block;
  new_block[3] ^= 1U;   // the search agrees again at (1, 1), with a block of 40
  new_block[20] ^= 1U;  // in which one byte of ten may differ
  new_block[35] ^= 1U;
  compare(old_block, new_block, 40, 100);
  EXPECT_EQ(stores_of(first_sub_one),
            (Stores{{3, {new_block[3]}}, {20, {new_block[20]}}, {35, {new_block[35]}}}));
}

TEST_F(BlockComparison, PrintsEachMoveAtLevelTwo) {
  debug_level = 2;
  const CapturedRun run = capture([] {
    add_move(0x100, 0);
    add_move(0x108, -8);
    add_abs_move(0x110, 4);
    add_checksum(&first_checksum1, &last_checksum1, 0x1000, 0x10);
  });
  EXPECT_EQ(run.errors,
            " CMD: end at 0x100\n"
            " CMD: rem -8 at 0x100\n"
            " CMD: ins 4 at 0x110\n"
            " CMD: cksum region 0x1000 - 0x100f\n");
  EXPECT_EQ(num_moves, 2);
  EXPECT_EQ(num_abs_moves, 1);
  EXPECT_EQ(moves_of(first_checksum1), (Moves{{0x1000, 0x10}}));
}

TEST_F(BlockComparison, KeepsListsInTheOrderOfTheirRecords) {
  command_record a = {};
  command_record b = {};
  command_record c = {};
  command_record* first = nullptr;
  command_record* last = nullptr;
  EXPECT_EQ(append_block(&b, &first, &last), &b);
  EXPECT_EQ(append_command(&c, &first, &last), &c);
  EXPECT_EQ(prepend_block(&a, &first, &last), &a);
  EXPECT_EQ(first, &a);
  EXPECT_EQ(a.next, &b);
  EXPECT_EQ(b.next, &c);
  EXPECT_EQ(c.next, nullptr);
  EXPECT_EQ(last, &c);

  command_record* only_first = nullptr;
  command_record* only_last = nullptr;
  prepend_block(&a, &only_first, &only_last);
  EXPECT_EQ(only_first, &a);
  EXPECT_EQ(only_last, &a);
  EXPECT_EQ(a.next, nullptr);

  command_list list1 = {};
  command_list list2 = {};
  command_list* lists = nullptr;
  command_list* last_list = nullptr;
  append_list(&list1, &lists, &last_list);
  append_list(&list2, &lists, &last_list);
  EXPECT_EQ(lists, &list1);
  EXPECT_EQ(list1.next, &list2);
  EXPECT_EQ(last_list, &list2);
}

}  // namespace
}  // namespace kelvane
