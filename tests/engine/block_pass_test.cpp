#include "block_pass.h"

#include <gtest/gtest.h>

#include "engine_steps.h"
#include "plain_motion.h"

namespace kelvane {
namespace {

using Blocks = std::vector<found_block>;

std::string text_of_runs(const Blocks& blocks) {
  std::vector<std::string> items;
  for (const found_block& block : blocks) {
    items.push_back(in_hex(block.from) + ">" + in_hex(block.to) + "+" + in_hex(block.size));
  }
  return separated(items);
}

class BlockPass : public EngineTest {};

TEST_F(BlockPass, FindsWhatTheTableSays) {
  std::list<Bytes> kept;
  const auto runs = [](Data old_data, Data new_data, uint32_t limit) {
    return text_of_runs(moved_blocks(old_data.bytes, new_data.bytes, limit));
  };
  const auto pass = [](Data old_data, Data new_data) {
    map_list list;
    block_pass(list, old_data.bytes, 0x1000, new_data.bytes, 0x2000);
    Blocks pieces;
    for (const memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
      pieces.push_back({piece->from, piece->to, piece->size});
    }
    return text_of_runs(pieces);
  };
  map_list list;
  insert_map(list, new_map(20, 50, 4));
  insert_map(list, new_map(40, 30, 4));
  const auto overlaps = [&list](uint32_t from, uint32_t to, uint32_t size) {
    return is_map(list, from, to, size);
  };
  go_through(KELVANE_TABLES "block_pass.table",
             {{"runs", runs}, {"pass", pass}, {"is_map", overlaps}}, &kept);
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

}  // namespace
}  // namespace kelvane
