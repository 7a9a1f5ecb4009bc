#include "block_pass.h"

#include <gtest/gtest.h>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "plain_motion.h"

namespace kelvane {
namespace {

using Blocks = std::vector<moved_block>;

std::vector<moved_block> pieces_of(const map_list& list) {
  Blocks pieces;
  for (const memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
    pieces.push_back({piece->from, piece->to, piece->size});
  }
  return pieces;
}

class BlockPass : public EngineTest {};

TEST_F(BlockPass, FindsARunThatIsLongerThanTheLimit) {
  const Bytes old_bytes = bytes_of("ABCDEFGHIJKLM..");
  const Bytes new_bytes = bytes_of("++ABCDEFGHIJKLM");
  EXPECT_EQ(moved_blocks(old_bytes, new_bytes, 13), Blocks{});
  EXPECT_EQ(moved_blocks(old_bytes, new_bytes, 12), (Blocks{{0, 2, 13}}));
  EXPECT_EQ(moved_blocks(old_bytes, new_bytes, UINT32_MAX), Blocks{});
  EXPECT_EQ(moved_blocks({}, new_bytes, 0), Blocks{});
}

TEST_F(BlockPass, FindsWhatThePlainLoopFindsInAllShortSections) {
  // Both sections as numbers of base 2, of up to 6 bytes each.
  for (uint32_t old_code = 1; old_code < 128; ++old_code) {
    for (uint32_t new_code = 1; new_code < 128; ++new_code) {
      Bytes sides[2];
      for (const uint32_t side : {0U, 1U}) {
        for (uint32_t rest = side == 0 ? old_code : new_code; rest > 1; rest /= 2) {
          sides[side].push_back(static_cast<uint8_t>(rest % 2));
        }
      }
      for (const uint32_t limit : {0U, 1U, 2U}) {
        ASSERT_EQ(moved_blocks(sides[0], sides[1], limit),
                  plain_moved_blocks(sides[0], sides[1], limit))
            << old_code << " " << new_code << " " << limit;
      }
    }
  }
}

TEST_F(BlockPass, FindsWhatThePlainLoopFindsInShuffledSections) {
  Random random(7);
  for (int round = 0; round < 300; ++round) {
    const Bytes old_bytes = random.bytes(200 + random.below(200), 2 + random.below(40));
    Bytes new_bytes;
    while (new_bytes.size() < 300) {
      const uint32_t start = random.below(old_bytes.size());
      const uint32_t size =
          std::min<uint32_t>(1 + random.below(60), static_cast<uint32_t>(old_bytes.size()) - start);
      new_bytes.insert(new_bytes.end(), old_bytes.begin() + start,
                       old_bytes.begin() + start + size);
    }
    const uint32_t limit = random.below(24);
    ASSERT_EQ(moved_blocks(old_bytes, new_bytes, limit),
              plain_moved_blocks(old_bytes, new_bytes, limit))
        << round;
  }
}

TEST_F(BlockPass, MakesNoPieceOfWhatIsInPlaceOrOverlapsAnother) {
  min_swap_block_size = 3;
  debug_level = 3;
  map_list list;
  insert_map(list, new_map(20, 50, 4));
  insert_map(list, new_map(40, 30, 4));
  struct Case {
    const char* why;
    const char* old_text;
    const char* new_text;
    Blocks pieces;
    const char* words;
  };
  const Case cases[] = {
      {"moved", "abcd....", "####abcd", {{0, 4, 4}}, "Memory 0x1000 moved to 0x2004\n"},
      {"the bytes are there already",
       "abcdabcd",
       "########abcd####abcd",
       {{0, 8, 4}},
       "Memory 0x1000 moved to 0x2008\n"},
      {"in place", "abcdabcd", "####abcd", {}, ""},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.why);
    const Bytes old_bytes = bytes_of(row.old_text);
    const Bytes new_bytes = bytes_of(row.new_text);
    map_list own;
    const CapturedRun run = capture([&] { block_pass(own, old_bytes, 0x1000, new_bytes, 0x2000); });
    EXPECT_EQ(pieces_of(own), row.pieces);
    EXPECT_EQ(run.errors, row.words);
  }
  // Sources are compared with sources and destinations with destinations.
  EXPECT_TRUE(is_map(list, 23, 90, 4));
  EXPECT_FALSE(is_map(list, 24, 90, 4));
  EXPECT_TRUE(is_map(list, 90, 27, 4));
  EXPECT_FALSE(is_map(list, 90, 26, 4));
  EXPECT_FALSE(is_map(list, 50, 40, 4));
}

}  // namespace
}  // namespace kelvane
