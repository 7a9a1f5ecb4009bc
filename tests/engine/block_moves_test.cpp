#include "block_moves.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "binshared.h"
#include "byte_order.h"
#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"

namespace kelvane {
namespace {

// A block as it stands in the patch.
struct Block {
  uint32_t source;
  uint32_t length;
  int32_t shift;
  friend bool operator==(const Block&, const Block&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Block& block) {
    return out << std::hex << "(" << block.source << ", " << block.length << ", " << std::dec
               << block.shift << ")";
  }
};
using Blocks = std::vector<Block>;

// The blocks that the moves added so far give.
Blocks blocks_written() {
  new_output_buf();
  output_block_moves(first_move);
  first_move = nullptr;
  last_move = nullptr;
  const uint8_t* bytes = get_output_buf();
  const uint32_t count = load_half(bytes, ByteOrder::little);
  EXPECT_EQ(get_output_buf_size(), 2 + 12 * count);
  bytes += 2;
  Blocks blocks;
  for (uint32_t i = 0; i < count; ++i, bytes += 12) {
    blocks.push_back({load_word(bytes, ByteOrder::little), load_word(bytes + 4, ByteOrder::little),
                      static_cast<int32_t>(load_word(bytes + 8, ByteOrder::little))});
  }
  return blocks;
}

class BlockMoves : public EngineTest {};

TEST_F(BlockMoves, NeedAPairOfMovesAndAShift) {
  EXPECT_EQ(blocks_written(), Blocks{});
  add_move(0x100, 4);
  EXPECT_EQ(blocks_written(), Blocks{});
  add_move(0x100, 0);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(), Blocks{});
}

TEST_F(BlockMoves, SpanWhatLiesBetweenThePointsOfChange) {
  add_move(0x100, 4);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x100, 0x100, 4}}));
  add_move(0x100, -4);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x100, 0x100, -4}}));
  add_move(0x100, 4);
  add_move(0x180, -8);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x100, 0x78, 4}, {0x180, 0x80, -4}}));
}

TEST_F(BlockMoves, KeepTheShiftOfABlockOfNoLength) {
  add_move(0x100, 4);
  add_move(0x100, 8);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x100, 0x100, 12}}));
}

TEST_F(BlockMoves, ReturnToNoShiftBehindTwoEndMarks) {
  add_move(0x100, 4);
  add_move(0x200, 0);
  add_move(0x300, 0);
  add_move(0x300, 8);
  add_move(0x400, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x300, 0x100, 8}, {0x100, 0x100, 4}}));
}

TEST_F(BlockMoves, GoInAnOrderInWhichNoneOverwritesALaterOne) {
  add_move(0x100, 4);
  add_move(0x200, 4);
  add_move(0x300, 4);
  add_move(0x400, -20);
  add_move(0x500, 0);
  EXPECT_EQ(blocks_written(),
            (Blocks{{0x300, 0xEC, 12}, {0x200, 0x100, 8}, {0x100, 0x100, 4}, {0x400, 0x100, -8}}));
}

TEST_F(BlockMoves, PutAbsoluteBlocksFirstAndJoinThoseThatTouch) {
  add_abs_move(0x1000, 0x500);
  add_abs_move(0x1080, 0);
  add_abs_move(0x1080, 0x500);
  add_abs_move(0x1100, 0);
  add_abs_move(0x1200, 0x500);  // does not touch
  add_abs_move(0x1300, 0);
  add_move(0x100, 4);
  add_move(0x200, 0);
  EXPECT_EQ(blocks_written(),
            (Blocks{{0x1000, 0x100, 0x500}, {0x1200, 0x100, 0x500}, {0x100, 0x100, 4}}));
}

TEST_F(BlockMoves, JoinABlockThatEndsWhereTheOneBeforeItBegins) {
  add_abs_move(0x1080, 0x500);
  add_abs_move(0x1100, 0);
  add_abs_move(0x1000, 0x500);
  add_abs_move(0x1080, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x1000, 0x100, 0x500}}));
}

TEST_F(BlockMoves, JoinAbsoluteBlocksEvenWhereTheFirstOverwritesTheSecond) {
  add_abs_move(0x1000, 0x40);
  add_abs_move(0x1080, 0);
  add_abs_move(0x1080, 0x40);
  add_abs_move(0x1100, 0);
  EXPECT_EQ(blocks_written(), (Blocks{{0x1000, 0x100, 0x40}}));
}

// Where the absolute blocks meet the others: the first block would overwrite what the second has
// still to read, so that carrying both out one by one moves some bytes twice; joined, each byte
// would move once.
TEST_F(BlockMoves, DoNotJoinAcrossTheMeetingWhereThatWouldChangeTheBytesMoved) {
  const auto meeting = [](int32_t shift) {
    add_abs_move(0x1000, shift);
    add_abs_move(0x1080, 0);
    add_move(0x1080, shift);
    add_move(0x1100, 0);
    return blocks_written();
  };
  EXPECT_EQ(meeting(0x40), (Blocks{{0x1000, 0x80, 0x40}, {0x1080, 0x80, 0x40}}));
  EXPECT_EQ(meeting(0x100), (Blocks{{0x1000, 0x100, 0x100}}));
}

TEST_F(BlockMoves, PrintWhatTheyDo) {
  add_move(0x100, -4);
  add_move(0x200, 0);
  debug_level = 2;
  EXPECT_EQ(capture([] { blocks_written(); }).errors,
            "num_blocks=1\n memmove(0xfc, 0x100, 0x100)\n");
}

// Random moves, carried out one after another in place, give what the shifts say.
TEST_F(BlockMoves, MoveEveryByteToItsPlaceInPlace) {
  Random random(11);
  for (int round = 0; round < 300; ++round) {
    const Bytes old_bytes = random.bytes(400);
    Bytes expected(old_bytes.size() * 2 + 100, 0);
    Bytes memory = expected;
    std::copy(old_bytes.begin(), old_bytes.end(), memory.begin());
    uint32_t address = 0;
    int32_t shift = 0;
    while (address < 380) {
      const uint32_t kept = random.below(20);
      std::copy_n(old_bytes.begin() + address, kept, expected.begin() + address + shift);
      address += kept;
      if (random.below(2) == 0) {
        const auto inserted = static_cast<int32_t>(1 + random.below(9));
        add_move(address, inserted);
        std::fill_n(expected.begin() + address + shift, inserted, uint8_t{0xEE});
        shift += inserted;
      } else {
        const auto removed = std::min<uint32_t>(1 + random.below(9), 400 - address);
        address += removed;
        add_move(address, -static_cast<int32_t>(removed));
        shift -= static_cast<int32_t>(removed);
      }
    }
    std::copy(old_bytes.begin() + address, old_bytes.end(), expected.begin() + address + shift);
    add_move(400, 0);
    for (const Block& block : blocks_written()) {
      std::memmove(memory.data() + block.source + block.shift, memory.data() + block.source,
                   block.length);
    }
    const auto new_size = static_cast<size_t>(400 + shift);
    for (size_t i = 0; i < new_size; ++i) {
      if (expected[i] != 0xEE) {  // inserted bytes are stored by other commands
        ASSERT_EQ(memory[i], expected[i]) << "round " << round << " byte " << i;
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
