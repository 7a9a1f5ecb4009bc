#include "increments.h"

#include <gtest/gtest.h>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"

namespace kelvane {
namespace {

class Increments : public EngineTest {
 protected:
  // Runs both passes as the caller of the engine does, over a stretch at equal addresses.
  static int32_t take(const Bytes& old_bytes, const Bytes& new_bytes, uint32_t address) {
    const auto length = static_cast<uint32_t>(old_bytes.size());
    const int32_t rehearsed = process_increments(old_bytes.data(), new_bytes.data(), address,
                                                 length, address, address, 0);
    if (rehearsed == 0) {
      return 0;
    }
    const int32_t covered = process_increments(old_bytes.data(), new_bytes.data(), address, length,
                                               address, address, 1);
    EXPECT_EQ(covered, rehearsed);
    return covered;
  }

  // Takes `count` classes: words that change by 1, 2, 3 and so on.
  static void fill_classes(int32_t count) {
    for (int32_t i = 1; i <= count; ++i) {
      add_increment(4 * static_cast<uint32_t>(i), static_cast<uint32_t>(i), 100, 1);
    }
  }
};

TEST_F(Increments, ReadWordsFromTheMiddleInEitherByteOrder) {
  const Bytes old_bytes = {1, 2, 3, 4};
  const Bytes new_bytes = {5, 6, 7, 8};
  uint32_t old_word = 0;
  EXPECT_EQ(word_diff(old_bytes.data(), new_bytes.data(), 0, 4, &old_word), 0x08070605U);
  EXPECT_EQ(old_word, 0x04030201U);
  EXPECT_EQ(word_diff(old_bytes.data(), new_bytes.data(), 2, 6, &old_word), 0x06050000U);
  EXPECT_EQ(old_word, 0x02010000U);
  TargetIsBigEndian = 1;
  EXPECT_EQ(word_diff(old_bytes.data(), new_bytes.data(), 0, 0, nullptr), 0x05060708U);
  EXPECT_EQ(word_diff(old_bytes.data(), new_bytes.data(), 3, 7, &old_word), 5U);
  EXPECT_EQ(old_word, 1U);
}

TEST_F(Increments, RefuseImprobableChangesOfZero) {
  EXPECT_TRUE(bad_diff(0, 0x10000000));
  EXPECT_TRUE(bad_diff(0, 0x1000000));
  EXPECT_FALSE(bad_diff(0, 0xFFFFFC));
  EXPECT_FALSE(bad_diff(0, 0x1000));
  EXPECT_TRUE(bad_diff(0, 0x1001));
  EXPECT_FALSE(bad_diff(0, 0xFFFFFFF0));  // -16
  EXPECT_TRUE(bad_diff(0, 0xFF000000));   // -0x1000000
  EXPECT_TRUE(bad_diff(0, 0x80000000));
  EXPECT_FALSE(bad_diff(1, 0xDEADBEEF - 1));
}

TEST_F(Increments, NeedEqualAlignment) {
  const Bytes bytes(8, 1);
  debug_level = 2;
  const CapturedRun run = capture([&] {
    EXPECT_EQ(process_increments(bytes.data(), bytes.data(), 0x2002, 8, 0x1001, 0x2002, 0), 0);
  });
  EXPECT_EQ(run.errors,
            "INCR PROCESS 00001001 vs 00002002 (len 8)\n"
            "INCR RELATIVELY MISALIGNED\n");
}

TEST_F(Increments, TakePartialWordsAtTheStartOnly) {
  EXPECT_EQ(take({1}, {2}, 0x1002), 0);  // one byte does not reach the word boundary
  EXPECT_EQ(take({1, 0}, {2, 0}, 0x1002), 2);
  ASSERT_EQ(moves_of(first_incr[0]), (std::vector<Move>{{0x1000, 3}}));
  EXPECT_EQ(incr_value[0], 0x10000U);
  EXPECT_EQ(first_incr[0]->data.value, 0x20000U);
  // The last three bytes don't make a word.
  EXPECT_EQ(take({1, 0, 0, 0, 1, 1, 1}, {2, 0, 0, 0, 2, 2, 2}, 0x2000), 4);
  EXPECT_EQ(incr_values, 2);
}

TEST_F(Increments, StopAtTheFirstBadDifference) {
  const Bytes old_bytes = {1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
  const Bytes new_bytes = {5, 0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0};
  debug_level = 2;
  const CapturedRun run = capture([&] { EXPECT_EQ(take(old_bytes, new_bytes, 0x1000), 4); });
  EXPECT_EQ(run.errors,
            "INCR PROCESS 00001000 vs 00001000 (len 12)\n"
            "INCR BAD DIFFERENCE\n"
            "INCR PROCESS 00001000 vs 00001000 (len 12)\n"
            " CMD: inc 0x00000004 (len 1) at 0x1000\n"
            "INCR BAD DIFFERENCE\n");
  EXPECT_EQ(num_incrs[0], 1);
}

TEST_F(Increments, CountAnUnchangedWordAsCovered) {
  EXPECT_EQ(take({7, 7, 7, 7, 1, 0, 0, 0}, {7, 7, 7, 7, 2, 0, 0, 0}, 0x1000), 8);
  EXPECT_EQ(moves_of(first_incr[0]), (std::vector<Move>{{0x1004, 1}}));
}

TEST_F(Increments, MeasureTheBytesThatChange) {
  EXPECT_EQ(take({0xFF, 0, 0, 0}, {0, 1, 0, 0}, 0x1000), 4);  // a difference of 1
  EXPECT_EQ(moves_of(first_incr[0]), (std::vector<Move>{{0x1000, 2}}));
}

TEST_F(Increments, TakeAllOfAStretchOrNothingWhenTheTableIsFull) {
  fill_classes(20);
  EXPECT_EQ(incr_values, 20);
  EXPECT_EQ(add_increment(0x500, 999, 1000, 1), 1);
  const Bytes known = {9, 0, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0};
  const Bytes with_new = {10, 0, 0, 0, 11, 0, 0, 0, 99, 0, 0, 0};
  EXPECT_EQ(take(known, with_new, 0x1000), 0);
  EXPECT_EQ(num_incrs[0], 1);
  const Bytes all_known = {10, 0, 0, 0, 11, 0, 0, 0, 12, 0, 0, 0};
  EXPECT_EQ(take(known, all_known, 0x2000), 12);
  EXPECT_EQ(num_incrs[0], 2);
}

TEST_F(Increments, LeaveNoClassBehindAfterARehearsal) {
  fill_classes(19);
  const Bytes old_bytes = {9, 0, 0, 0, 9, 0, 0, 0};
  const Bytes new_bytes = {99, 0, 0, 0, 199, 0, 0, 0};  // two new classes where one is free
  EXPECT_EQ(process_increments(old_bytes.data(), new_bytes.data(), 0, 8, 0, 0, 0), 0);
  EXPECT_EQ(incr_values, 19);
  EXPECT_EQ(process_increments(old_bytes.data(), new_bytes.data(), 0, 4, 0, 0, 0), 4);
  EXPECT_EQ(incr_values, 19);
  debug_level = 8;
  EXPECT_EQ(capture([&] {
              take({9, 0, 0, 0}, {99, 0, 0, 0}, 0x1000);
            }).errors,
            "INCR PROCESS 00001000 vs 00001000 (len 4)\n"
            "INCR Diff: from 00000009 into 00000063 is 0000005a at 00001000\n"
            "INCR New Increment ACCEPTED 20\n"
            "INCR PROCESS 00001000 vs 00001000 (len 4)\n"
            "INCR WORD DIFF: from 00000009 into 00000063 is 0000005a at 00001000\n"
            "INCR New Increment ACCEPTED 20\n"
            " CMD: inc 0x0000005a (len 1) at 0x1000\n");
  EXPECT_EQ(capture([] { add_increment(0, 12345, 0, 0); }).errors,
            "INCR New Increment REJECTED (no space)\n");
}

}  // namespace
}  // namespace kelvane
