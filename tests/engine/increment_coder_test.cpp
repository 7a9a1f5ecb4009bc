#include "increment_coder.h"

#include <gtest/gtest.h>

#include <array>

#include "engine_steps.h"
#include "indgen_memory.h"
#include "run_program.h"

namespace kelvane {
namespace {

class IncrementCoder : public EngineTest {};

// The stream of the classes added so far, without its frame.
std::string stream() {
  new_output_buf();
  reject_some_sort_others(0);
  commit_rejections();
  output_increments();
  const Bytes all = output_bytes();
  if (all.empty()) {
    return "";
  }
  EXPECT_EQ(all[0], 7);
  EXPECT_EQ(all[1], all.size() - 5);
  EXPECT_EQ(incr_size, static_cast<int32_t>(all.size()) - 5);
  return hex_of({all.begin() + 5, all.end()});
}

// The bits of one jump with the default ranks, in stream order.
std::string jump_bits(uint32_t jump) {
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

// The room that writing the stream asks for.
uint32_t asked = 0;
std::string room_asked() {
  void* (*const real)(uint32_t, uint32_t) = gen_alloc;
  gen_alloc = [](uint32_t count, uint32_t) -> void* {
    asked = count;
    throw EndOfRun{3};
  };
  asked = 0;
  try {
    output_increments();
  } catch (const EndOfRun&) {
  }
  gen_alloc = real;
  return in_hex(asked);
}

TEST_F(IncrementCoder, GivesTheStreamsOfTheTable) {
  std::list<Bytes> kept;
  using Text = const char*;
  // clang-format off
  go_through(KELVANE_TABLES "increment_coder.table",
             {{"stream", [](Text) { return stream(); }},
              KELVANE_OPERATION(jump_bits),
              {"room_asked", [](Text) { return room_asked(); }},
              {"incr_size", [](Text) { return incr_size; }},
              {"reject", [](int32_t threshold) { reject_some_sort_others(threshold); return ""; }},
              {"commit", [](Text) { commit_rejections(); return ""; }},
              {"output", [](Text) { output_increments(); return ""; }},
              {"rejected", [](Text) { return values_in(first_rejected_incs); }}},
             &kept);
  // clang-format on
}

TEST_F(IncrementCoder, PrintsEachStep) {
  incr_enabled = 1;
  for (const uint32_t address : {0x100U, 0x104U}) {
    add_increment(address, 8, 8, 1);
  }
  add_increment(0x100, 4, 4, 1);
  debug_level = 8;
  EXPECT_EQ(capture([] {
              reject_some_sort_others(1);
              commit_rejections();
              output_increments();
            }).errors,
            read_whole_file(KELVANE_TABLES "increment_coder.words"));
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

}  // namespace
}  // namespace kelvane
