#include "motion.h"

#include <gtest/gtest.h>

#include <list>
#include <numeric>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "image.h"
#include "plain_motion.h"

namespace kelvane {
namespace {

using Moves = std::vector<Move>;

struct Symbol {
  const char* name;
  uint32_t value;
  uint32_t size;
};

struct Piece {
  uint32_t from;
  uint32_t to;
  uint32_t size;
  friend bool operator==(const Piece&, const Piece&) = default;
};
using Pieces = std::vector<Piece>;

Pieces pieces_of(const map_list& list) {
  Pieces pieces;
  for (const memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
    pieces.push_back({piece->from, piece->to, piece->size});
  }
  return pieces;
}

constexpr uint32_t kOld = 0x1000;
constexpr uint32_t kNew = 0x2000;

class Motion : public EngineTest {
 protected:
  Motion() {
    old_bytes_.resize(256);
    std::iota(old_bytes_.begin(), old_bytes_.end(), uint8_t{0});
    new_bytes_ = old_bytes_;
    swap_enabled = 1;
  }

  // The symbols of one image; those in front of ".heap" are the relevant ones, in name order.
  void define(symbol_table* symbols, std::vector<Symbol> list) {
    tables_.emplace_back();
    auto& [records, strings] = tables_.back();
    int32_t relevant = 0;
    for (const Symbol& symbol : list) {
      records.push_back({static_cast<uint32_t>(strings.size()), symbol.value, symbol.size,
                         elf32::STT_FUNC, 0, 1});
      strings += symbol.name;
      strings += '\0';
      relevant += std::string_view(symbol.name) != ".heap" ? 1 : 0;
    }
    *symbols = {static_cast<int32_t>(records.size()), relevant, records.data(), strings.data(),
                static_cast<uint32_t>(strings.size())};
  }

  // Puts bytes of the old section at another place of the new one.
  void carry(uint32_t from, uint32_t to, uint32_t size) {
    std::copy_n(old_bytes_.begin() + from, size, new_bytes_.begin() + to);
  }

  CapturedRun move(int32_t deconstruct = -1) {
    moved_ = old_bytes_;
    const auto size = static_cast<uint32_t>(moved_.size());
    uint8_t* const bytes = moved_.data();
    return capture([&] {
      do_sym_diff(bytes, kOld, size, new_bytes_.data(), kNew,
                  static_cast<uint32_t>(new_bytes_.size()), deconstruct);
    });
  }

  Bytes old_bytes_;
  Bytes new_bytes_;
  Bytes moved_;

 private:
  std::list<std::pair<std::vector<elf32::symbol>, std::string>> tables_;
};

constexpr char kNoRegion[] = "warning: No usable swap region found for memory swapping pass\n";

TEST_F(Motion, DoesNothingUnlessItIsAskedFor) {
  swap_enabled = 0;
  define(&table1, {{"f", kOld, 32}});
  define(&table2, {{"f", kNew + 64, 32}});
  EXPECT_EQ(move().errors, "");
  EXPECT_EQ(first_abs_move, nullptr);
}

TEST_F(Motion, MovesASymbolWithoutASwapRegion) {
  define(&table1, {{"f", kOld + 16, 32}, {"stays", kOld + 128, 32}, {"leaves", kOld + 200, 16}});
  define(&table2, {{"f", kNew + 64, 40}, {"leaves", 0x9000, 16}, {"stays", kNew + 128, 32}});
  carry(16, 64, 32);
  debug_level = 3;
  EXPECT_EQ(move().errors, std::string(kNoRegion) +
                               "Symbol f moved\nNeed 0 bytes of swap to move symbols, 0 avail\n"
                               " CMD: ins 48 at 0x1010\n CMD: end at 0x1030\n");
  EXPECT_EQ(moves_of(first_abs_move), (Moves{{kOld + 16, 48}, {kOld + 48, 0}}));
  EXPECT_EQ(moved_, new_bytes_);
  EXPECT_EQ(swap_trees, 2);
}

TEST_F(Motion, ParksOneOfTwoSymbolsThatExchangeTheirPlaces) {
  define(&table1, {{"a", kOld, 32}, {"b", kOld + 32, 32}, {".heap", 0x8000, 0x100}});
  define(&table2, {{"a", kNew + 32, 32}, {"b", kNew, 32}});
  carry(0, 32, 32);
  carry(32, 0, 32);
  debug_level = 3;
  EXPECT_EQ(move().errors,
            "Symbol a moved\nSymbol b moved\n"
            "Need 32 bytes of swap to move symbols, 256 avail\n"
            " CMD: ins 28672 at 0x1000\n CMD: end at 0x1020\n"
            " CMD: rem -32 at 0x1000\n CMD: end at 0x1040\n");
  // The first comes back from where nothing favours it any more, so it stays in the swap region.
  EXPECT_EQ(moves_of(first_abs_move),
            (Moves{{kOld, 0x7000}, {kOld + 32, 0}, {kOld + 32, -32}, {kOld + 64, 0}}));
}

TEST_F(Motion, MovesPiecesAboveTheLimitOnly) {
  struct Case {
    uint32_t size;
    bool exchanged;
    size_t moves;  // records of the list
  };
  for (const Case& row :
       {Case{12, false, 0}, Case{13, false, 2}, Case{24, true, 2}, Case{25, true, 4}}) {
    SCOPED_TRACE(row.size);
    reset_all_state();
    swap_enabled = 1;
    new_bytes_ = old_bytes_;
    define(&table1, {{"a", kOld, row.size}, {"b", kOld + 100, row.size}, {".heap", 0x8000, 64}});
    define(&table2,
           {{"a", kNew + 100, row.size}, {"b", kNew + (row.exchanged ? 0 : 100), row.size}});
    carry(0, 100, row.size);
    if (row.exchanged) {
      carry(100, 0, row.size);
    }
    EXPECT_EQ(move().errors, "");
    EXPECT_EQ(moves_of(first_abs_move).size(), row.moves);
  }
}

TEST_F(Motion, StaysInsideTheOldSection) {
  new_bytes_.resize(400);
  define(&table1, {{"a", kOld, 32}, {"b", kOld + 64, 32}, {"c", kOld + 240, 999}});
  define(&table2, {{"a", kNew + 240, 32}, {"b", kNew + 300, 32}, {"c", kNew + 128, 999}});
  carry(0, 240, 32);
  carry(64, 300, 32);
  carry(240, 128, 16);
  EXPECT_EQ(move().errors, kNoRegion);
  // The first is cut at the end, the second lies behind it, the third has an end of its own.
  EXPECT_EQ(moves_of(first_abs_move),
            (Moves{{kOld + 240, -112}, {kOld + 256, 0}, {kOld, 240}, {kOld + 16, 0}}));
}

TEST_F(Motion, TakesTheSwapRegionThatBothImagesHaveAndNoComparedSectionTouches) {
  struct Case {
    Symbol heap1;
    Symbol heap2;
    std::vector<address_range> compared;
    int32_t available;
  };
  const Case cases[] = {
      {{".heap", 0x8000, 0x100}, {".heap", 0x8040, 0x100}, {}, 0xC0},
      {{".heap", 0x8000, 0x100}, {".heap", 0x9000, 0x40}, {}, 0x100},
      {{".heap", 0x8000, 0x100}, {".heap", 0x8040, 0}, {}, 0},
      {{".heap", 0x8000, 0x100}, {"other", 0, 0}, {{0x8100, 16}, {0x7FF0, 16}}, 0x100},
      {{".heap", 0x8000, 0x100}, {"other", 0, 0}, {{0x80FF, 16}}, 0},
      {{".heap", 0xFFFFFF00, 0x200}, {"other", 0, 0}, {{0, 0x100}}, 0x100},
  };
  for (const Case& row : cases) {
    define(&table1, {{"a", kOld, 8}, row.heap1});
    define(&table2, {{"a", kNew + 32, 8}, row.heap2});
    begin_motion(row.compared);
    debug_level = 3;
    EXPECT_EQ(move().errors, (row.available == 0 ? kNoRegion : "") +
                                 ("Symbol a moved\nNeed 0 bytes of swap to move symbols, " +
                                  std::to_string(row.available) + " avail\n"));
  }
}

TEST_F(Motion, GivesUpWhereTheSwapRegionIsTooSmall) {
  define(&table1, {{"a", kOld, 32}, {"b", kOld + 32, 32}, {".heap", 0x8000, 31}});
  define(&table2, {{"a", kNew + 32, 32}, {"b", kNew, 32}});
  carry(0, 32, 32);
  carry(32, 0, 32);
  const std::string need = "Need 32 bytes of swap to move symbols, 31 avail\n";
  const std::string attempt = "Attempting to deconstruct memory motion tree.\n";
  const std::string gives_up =
      "warning: Unable to perform memory swapping pass.  Not enough memory.\n";
  EXPECT_EQ(move(-1).errors, "warning: " + need + "warning: " + attempt + gives_up);
  EXPECT_EQ(move(0).errors, "info: " + need + "info: " + attempt + gives_up);
  EXPECT_EQ(first_abs_move, nullptr);
  EXPECT_EQ(moved_, old_bytes_);
  // Asked for, the lines come with enough memory too.
  define(&table1, {{"a", kOld, 32}, {".heap", 0x8000, 31}});
  define(&table2, {{"a", kNew + 64, 32}});
  EXPECT_EQ(move(1).errors,
            "info: Need 0 bytes of swap to move symbols, 31 avail\ninfo: " + attempt);
}

TEST_F(Motion, CountsPiecesOfAllSectionsAgainstTheLimitOfTrees) {
  define(&table1, {{"a", kOld, 16}, {"b", kOld + 64, 16}});
  define(&table2, {{"a", kNew + 32, 16}, {"b", kNew + 96, 16}});
  carry(0, 32, 16);
  carry(64, 96, 16);
  struct Case {
    int32_t limit;
    size_t moves_first;
    size_t moves_both;
    int32_t left;
  };
  for (const Case& row : {Case{0, 0, 0, 0}, Case{1, 2, 2, 0}, Case{3, 4, 6, 0}}) {
    reset_all_state();
    define(&table1, {{"a", kOld, 16}, {"b", kOld + 64, 16}});
    define(&table2, {{"a", kNew + 32, 16}, {"b", kNew + 96, 16}});
    swap_enabled = 1;
    swap_maxtrees = row.limit;
    EXPECT_EQ(move().errors, kNoRegion);
    EXPECT_EQ(moves_of(first_abs_move).size(), row.moves_first);
    move();
    EXPECT_EQ(moves_of(first_abs_move).size(), row.moves_both);
    EXPECT_EQ(swap_maxtrees, row.left);
  }
}

TEST_F(Motion, SplitsAPieceThatSticksOut) {
  map_list list;
  memory_map* const parent = new_map(200, 100, 50);
  memory_map* const piece = new_map(90, 500, 80);
  insert_map(list, piece);
  insert_map(list, parent);
  buildTree(parent, list, 0);
  EXPECT_EQ(pieces_of(list),
            (Pieces{{90, 500, 10}, {100, 510, 50}, {150, 560, 20}, {200, 100, 50}}));
  EXPECT_EQ(parent->child, piece);
  EXPECT_EQ(piece->from, 100U);
}

TEST_F(Motion, RefusesTwoPiecesOfOneSourceInsideTheList) {
  map_list list;
  insert_map(list, new_map(10, 0, 4));
  insert_map(list, new_map(10, 50, 4));
  insert_map(list, new_map(30, 60, 4));
  EXPECT_EQ(pieces_of(list), (Pieces{{10, 50, 4}, {10, 0, 4}, {30, 60, 4}}));
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
