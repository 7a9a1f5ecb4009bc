#include "increment_coder.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "binshared.h"
#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "increments.h"

namespace kelvane {
namespace {

class IncrementCoder : public EngineTest {
 protected:
  IncrementCoder() { incr_enabled = 1; }

  static void add_class(uint32_t value, std::initializer_list<uint32_t> addresses) {
    for (const uint32_t address : addresses) {
      add_increment(address, value, value, 1);
    }
  }

  // The stream of the classes added so far, without its frame.
  static Bytes stream() {
    new_output_buf();
    reject_some_sort_others(0);
    commit_rejections();
    output_increments();
    const Bytes all(get_output_buf(), get_output_buf() + get_output_buf_size());
    if (all.empty()) {
      return {};
    }
    EXPECT_EQ(all[0], 7);
    EXPECT_EQ(all[1], all.size() - 5);
    EXPECT_EQ(incr_size, static_cast<int32_t>(all.size()) - 5);
    return {all.begin() + 5, all.end()};
  }

  // The bits of one jump with the default ranks, in stream order.
  static std::string bits_of_jump(uint32_t jump) {
    std::array<uint8_t, 16> buffer{};
    set_put_pointer(buffer.data());
    set_population_map(0);
    encode_jump(jump);
    const int32_t bits = bits_total;
    align_output(8);
    std::string text;
    for (int32_t i = 0; i < bits; ++i) {
      const uint32_t byte = buffer[static_cast<size_t>(i) / 8];
      text += ((byte >> (static_cast<uint32_t>(i) % 8)) & 1U) != 0 ? '1' : '0';
    }
    return text;
  }
};

TEST_F(IncrementCoder, CodesOneClassWithAMapOfItsOwn) {
  add_class(4, {0x100, 0x104, 0x200});
  EXPECT_EQ(stream(), (Bytes{0x06, 0x00, 0x12, 0xD1, 0xEA, 0x28, 0x3E, 0x01, 0x10}));
}

TEST_F(IncrementCoder, CodesALongValueWithTheDefaultMap) {
  add_class(0x20000, {4, 8, 12});
  EXPECT_EQ(stream(), (Bytes{0x01, 0x00, 0x04, 0x00, 0x1C, 0x40}));
}

TEST_F(IncrementCoder, CodesAJumpOfZeroInTheLastCategory) {
  add_class(4, {0});
  EXPECT_EQ(stream(), (Bytes{0x06, 0x00, 0x3A, 0x1A, 0x8B, 0xE8, 0xFE, 0xFE, 0xFF, 0x00, 0x02}));
}

TEST_F(IncrementCoder, WritesNothingWithoutClasses) {
  EXPECT_EQ(stream(), Bytes{});
  EXPECT_EQ(incr_size, 2);
  incr_enabled = 0;
  incr_size = 0;
  add_class(4, {0x100});
  EXPECT_EQ(stream(), Bytes{});
}

TEST_F(IncrementCoder, PutsEachJumpIntoItsCategory) {
  EXPECT_EQ(bits_of_jump(1), "1");
  EXPECT_EQ(bits_of_jump(2), "010");
  EXPECT_EQ(bits_of_jump(3), "011");
  EXPECT_EQ(bits_of_jump(4), "00100");
  EXPECT_EQ(bits_of_jump(7), "00111");
  EXPECT_EQ(bits_of_jump(8), "00010000");
  EXPECT_EQ(bits_of_jump(23), "00011111");
  EXPECT_EQ(bits_of_jump(24), "0000100000000");
  EXPECT_EQ(bits_of_jump(279), "0000111111111");
  EXPECT_EQ(bits_of_jump(280), "0000010000000000000000");
  EXPECT_EQ(bits_of_jump(65815), "0000011111111111111111");
  EXPECT_EQ(bits_of_jump(65816), "000000100000000000000000000000000000000");
  EXPECT_EQ(bits_of_jump(0), "000000100010111011111110111111111111111");  // 0xFFFEFEE8
}

TEST_F(IncrementCoder, ChoosesTheFormByTheDistanceOfTheValues) {
  add_class(5, {4});
  add_class(0x10005, {4});
  // Short form of 5, jump, next class in the short form with the field 0xFFFF, jump, end.
  EXPECT_EQ(stream(), (Bytes{0x08, 0x00, 0x04, 0xFC, 0xFF, 0x17, 0x40}));
  reset_all_state();
  incr_enabled = 1;
  add_class(0xFFFFFFF0, {4});  // -16, behind the positive ones
  add_class(5, {4});
  // The first class, then eight 0 bits and a 1, then the value whole.
  EXPECT_EQ(stream(), (Bytes{0x08, 0x00, 0x04, 0x08, 0xFF, 0xFF, 0xFF, 0x2F, 0x80}));
}

TEST_F(IncrementCoder, KeepsAllBitsOfALongField) {
  std::array<uint8_t, 5> buffer{};
  set_put_pointer(buffer.data());
  put_bits(5, 0);
  put_bits(32, 0xFFFFFFFF);
  EXPECT_EQ(bits_total, 37);
  EXPECT_EQ(put_bits_in_byte, 5);
  align_output(8);
  EXPECT_EQ(buffer, (std::array<uint8_t, 5>{0xE0, 0xFF, 0xFF, 0xFF, 0x1F}));
  align_output(8);
  EXPECT_EQ(bits_total, 40);
}

TEST_F(IncrementCoder, BreaksTiesInTheOrderOfTheRanks) {
  set_put_pointer(nullptr);
  set_population_map(0);
  put_prefix(6);
  const uint32_t first_pass = sort_population_map();  // fields 6, 0, 1, 2, 3, 4, 5
  EXPECT_EQ(first_pass, 06U | 00U << 3 | 01U << 6 | 02U << 9 | 03U << 12 | 04U << 15 | 05U << 18);
  clear_population();
  set_population_map(first_pass);
  EXPECT_EQ(population_map, (std::array<int32_t, 7>{1, 2, 3, 4, 5, 6, 0}));
  put_prefix(6);
  const uint32_t second_pass = sort_population_map();  // fields 6, 1, 2, 3, 4, 5, 0
  EXPECT_EQ(second_pass, 06U | 01U << 3 | 02U << 6 | 03U << 9 | 04U << 12 | 05U << 15 | 00U << 18);
}

TEST_F(IncrementCoder, PrintsItsCosts) {
  add_class(4, {0x100, 0x104, 0x200});
  debug_level = 2;
  EXPECT_EQ(capture([] { stream(); }).errors,
            "INCR SUBTOTAL 00000004 bits 0\n"
            "INCR GRANDTOTAL bits 80 (10 bytes)\n"
            "INCR SORT COST: 10 bytes\n"
            "INCR SUBTOTAL 00000004 bits 0\n"
            "INCR GRANDTOTAL bits 72 (9 bytes)\n"
            "INCR DOUBLE SORTED COST: 9 bytes\n"
            "INCR REJECTED COST: MIN=0 bytes, MAX=0 bytes\n"
            "\nCM_INCRS\n"
            "INCR SUBTOTAL 00000004 bits 0\n"
            "INCR GRANDTOTAL bits 72 (9 bytes)\n");
}

TEST_F(IncrementCoder, MergesWhatAThresholdRejects) {
  add_class(4, {0x100, 0x200});
  add_class(8, {0x80, 0x100, 0x300});
  add_class(12, {4, 8, 12, 16});
  debug_level = 1;
  const CapturedRun run = capture([] { reject_some_sort_others(3); });
  EXPECT_NE(run.errors.find("INCR REJECTED COST: MIN=10 bytes, MAX=40 bytes\n"), std::string::npos);
  EXPECT_EQ(sorted_incrs, 1);
  EXPECT_EQ(rejected_incrs, 2);
  debug_level = 5;
  EXPECT_EQ(capture([] { commit_rejections(); }).errors, "INCR COMMIT_REJECTIONS (2)\n");
  std::vector<uint32_t> addresses;
  std::vector<uint32_t> values;
  for (const command_record* record = first_rejected_incs; record != nullptr;
       record = record->next) {
    addresses.push_back(record->address);
    values.push_back(record->data.value);
  }
  EXPECT_EQ(addresses, (std::vector<uint32_t>{0x80, 0x100, 0x100, 0x200, 0x300}));
  EXPECT_EQ(values, (std::vector<uint32_t>{8, 4, 8, 4, 8}));  // at equal addresses the older first
  EXPECT_EQ(first_incr[0], nullptr);                          // each record has one owner
}

}  // namespace
}  // namespace kelvane
