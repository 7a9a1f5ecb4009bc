#include "block_moves.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "engine_steps.h"

namespace kelvane {
namespace {

class BlockMoves : public EngineTest {};

TEST_F(BlockMoves, AreThoseOfTheTable) {
  std::list<Bytes> kept;
  go_through(KELVANE_TABLES "block_moves.table", {}, &kept);
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
    for (size_t i = 0; i < static_cast<size_t>(400 + shift); ++i) {
      if (expected[i] != 0xEE) {  // inserted bytes are stored by other commands
        ASSERT_EQ(memory[i], expected[i]) << "round " << round << " byte " << i;
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
