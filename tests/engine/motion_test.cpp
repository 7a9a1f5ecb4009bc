#include "motion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "engine_steps.h"
#include "image.h"
#include "plain_motion.h"

namespace kelvane {
namespace {

using Moves = std::vector<Move>;

struct Piece {
  uint32_t from;
  uint32_t to;
  uint32_t size;
  friend bool operator==(const Piece&, const Piece&) = default;
};
using Pieces = std::vector<Piece>;

constexpr uint32_t kOld = 0x1000;
constexpr uint32_t kNew = 0x2000;

// Symbols as a table gives them; those that are not ".heap" are the relevant ones, in name order.
struct Symbols {
  std::vector<elf32::symbol> records;
  std::string strings;

  void add(const char* name, uint32_t value, uint32_t size) {
    records.push_back({static_cast<uint32_t>(strings.size()), value, size, elf32::STT_FUNC, 0, 1});
    strings += std::string(name) + '\0';
  }
  symbol_table table() {
    const auto is_relevant = [this](const elf32::symbol& symbol) {
      return strings.compare(symbol.st_name, 5, ".heap") != 0;
    };
    return {static_cast<int32_t>(records.size()),
            static_cast<int32_t>(std::count_if(records.begin(), records.end(), is_relevant)),
            records.data(), strings.data(), static_cast<uint32_t>(strings.size())};
  }
};

class Motion : public EngineTest {
 protected:
  Motion() { start(); }

  void start() {
    reset_all_state();
    gen_endian_init();
    old_bytes_.resize(256);
    std::iota(old_bytes_.begin(), old_bytes_.end(), uint8_t{0});
    new_bytes_ = old_bytes_;
    moved_ = old_bytes_;
    old_symbols_ = {};
    new_symbols_ = {};
    compared_.clear();
    swap_enabled = 1;
  }

  // Puts bytes of the old section at another place of the new one.
  void carry(uint32_t from, uint32_t to, uint32_t size) {
    std::copy_n(old_bytes_.begin() + from, size, new_bytes_.begin() + to);
  }

  void move(int32_t deconstruct) {
    table1 = old_symbols_.table();
    table2 = new_symbols_.table();
    if (!compared_.empty()) {
      begin_motion(compared_);
    }
    moved_ = old_bytes_;
    const auto size = static_cast<uint32_t>(moved_.size());
    uint8_t* const bytes = moved_.data();
    do_sym_diff(bytes, kOld, size, new_bytes_.data(), kNew,
                static_cast<uint32_t>(new_bytes_.size()), deconstruct);
  }

  const char* section() const {
    return moved_ == new_bytes_ ? "new" : moved_ == old_bytes_ ? "old" : "other";
  }

  Bytes old_bytes_;
  Bytes new_bytes_;
  Bytes moved_;
  Symbols old_symbols_;
  Symbols new_symbols_;
  std::vector<address_range> compared_;
};

TEST_F(Motion, DoesWhatTheTableSays) {
  std::list<Bytes> kept;
  using Text = const char*;
  // clang-format off
  go_through(KELVANE_TABLES "motion.table",
             {{"scenario", [this](Text) { start(); return ""; }},
              {"old_symbol", [this](Text name, uint32_t value, uint32_t size) { old_symbols_.add(name, value, size); return ""; }},
              {"new_symbol", [this](Text name, uint32_t value, uint32_t size) { new_symbols_.add(name, value, size); return ""; }},
              {"new_size", [this](size_t size) { new_bytes_.resize(size); return ""; }},
              {"carry", [this](uint32_t from, uint32_t to, uint32_t size) { carry(from, to, size); return ""; }},
              {"compared", [this](uint32_t address, uint32_t size) { compared_.push_back({address, size}); return ""; }},
              {"move", [this](int32_t deconstruct) { move(deconstruct); return ""; }},
              {"section", [this](Text) { return section(); }},
              {"trees", [](Text) { return swap_trees; }},
              {"trees_left", [](Text) { return swap_maxtrees; }}},
             &kept);
  // clang-format on
}

TEST_F(Motion, RefusesTwoPiecesOfOneSourceInsideTheList) {
  map_list list;
  insert_map(list, new_map(10, 0, 4));
  insert_map(list, new_map(10, 50, 4));  // at the head they may be, the later one in front
  EXPECT_EQ(list.first()->to, 50U);
  insert_map(list, new_map(30, 60, 4));
  const CapturedRun run = capture([&] { insert_map(list, new_map(30, 70, 4)); });
  EXPECT_EQ(run.errors, "fatal: insert_map: Fatal Algorithm Error\n");
  EXPECT_EQ(run.status, 1);
}

TEST_F(Motion, RefusesToParkWithoutABuffer) {
  map_list list;
  memory_map* const piece = new_map(0, 100, 32);
  piece->swap = 1;
  insert_map(list, piece);
  carry(0, 100, 32);
  const CapturedRun run = capture([&] {
    processTree(piece, {old_bytes_.data(), new_bytes_.data(), nullptr, 64, 0, 0, 256});
  });
  EXPECT_EQ(run.errors, "fatal: processTree: Fatal Algorithm Error\n");
  EXPECT_EQ(run.status, 1);
}

// Pieces of a section: what a rebuilt program gives (functions in another order, some inserted), or
// any, which overlap each other.
Pieces random_pieces(Random& random, uint32_t size, bool disjoint) {
  Pieces pieces;
  if (!disjoint) {
    const uint32_t count = 2 + random.below(12);
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t length = 1 + random.below(size / 4);
      const uint32_t from = random.below(size - length);
      const uint32_t to = random.below(size);
      if (from != to) {
        pieces.push_back({from, to, std::min(length, size - to)});
      }
    }
    return pieces;
  }
  std::vector<Piece> functions;
  for (uint32_t at = 0; at + 20 < size;) {
    const uint32_t length = 1 + random.below(40);
    functions.push_back({at, 0, std::min(length, size - at)});
    at += length + random.below(3);
  }
  for (uint32_t i = 0; i < functions.size(); i += 1 + random.below(6)) {
    std::swap(functions[i], functions[random.below(functions.size())]);
  }
  uint32_t to = 4 * random.below(3);
  for (Piece& function : functions) {
    function.to = to;
    if (function.from != to && to + function.size <= size) {
      pieces.push_back(function);
    }
    to += function.size;
  }
  return pieces;
}

TEST_F(Motion, DoesWhatThePlainRecursionDoes) {
  Random random(11);
  for (int round = 0; round < 2000; ++round) {
    SCOPED_TRACE(round);
    reset_all_state();
    const uint32_t size = 40 + random.below(400);
    const Bytes contents = random.bytes(size, 2 + random.below(200));
    Bytes wanted = random.bytes(size, 2);
    PlainMotion plain;
    map_list list;
    for (const Piece& piece : random_pieces(random, size, round % 3 != 0)) {
      if (plain.insert(piece.from, piece.to, piece.size)) {
        insert_map(list, new_map(piece.from, piece.to, piece.size));
        std::copy_n(contents.begin() + piece.from, piece.size, wanted.begin() + piece.to);
      }
    }
    const auto deconstruct = static_cast<int32_t>(random.below(4));
    debug_level = -1;
    uint32_t need = 0;
    capture([&] { need = build_forest(list, UINT32_MAX, deconstruct); });
    ASSERT_EQ(need, plain.build_forest(deconstruct));
    ASSERT_EQ(most_parked(list), plain.most_parked());
    const memory_map* piece = list.first();
    for (const PlainPiece& expected : plain.pieces) {
      ASSERT_NE(piece, nullptr);
      ASSERT_EQ((Piece{piece->from, piece->to, piece->size}),
                (Piece{expected.from, expected.to, expected.size}));
      ASSERT_EQ(piece->level, expected.level);
      ASSERT_EQ(piece->swap != 0, expected.swap);
      ASSERT_EQ(piece->root != 0, expected.root);
      piece = piece->next;
    }
    ASSERT_EQ(piece, nullptr);
    min_swap_block_size = static_cast<int32_t>(random.below(14));
    swap_maxtrees =
        static_cast<int32_t>(random.below(3)) == 0 ? static_cast<int32_t>(random.below(20)) : -1;
    int32_t trees_left = swap_maxtrees;
    Bytes old1 = contents;
    Bytes old2 = contents;
    const uint32_t room = random.below(200);
    Bytes buffer1(room + 1);
    Bytes buffer2(room + 1);
    processForest(list,
                  {old1.data(), wanted.data(), buffer1.data(), room, 0x8000 - kOld, kOld, size});
    plain.process_forest(
        {old2.data(), wanted.data(), buffer2.data(), room, 0x8000 - kOld, kOld, size}, &trees_left,
        static_cast<uint32_t>(min_swap_block_size));
    ASSERT_EQ(old1, old2);
    ASSERT_EQ(swap_maxtrees, trees_left);
    ASSERT_EQ(swap_trees, plain.trees);
    Moves expected;
    for (const PlainMove& made : plain.moves) {
      expected.push_back({made.source, static_cast<int32_t>(made.shift)});
      expected.push_back({made.source + made.size, 0});
    }
    ASSERT_EQ(moves_of(first_abs_move), expected);
  }
}

TEST_F(Motion, ServesAChainAsLongAsTheSection) {
  // Everything shifts by 4, so the pieces come apart into a chain of 50000.
  constexpr uint32_t kSize = 200000;
  map_list list;
  for (uint32_t at = 0; at + 104 <= kSize; at += 100) {
    insert_map(list, new_map(at, at + 4, 100));
  }
  EXPECT_EQ(build_forest(list, 0, -1), 0U);
  int32_t deepest = 0;
  for (const memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
    deepest = std::max(deepest, piece->level);
  }
  EXPECT_EQ(deepest, 49950);
}

}  // namespace
}  // namespace kelvane
