#include "indgen_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "captured_run.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "sanitizers.h"

namespace kelvane {
namespace {

int32_t released = 0;
int32_t allocated = 0;

class Memory : public testing::Test {
 protected:
  Memory() {
    reset_all_state();
    released = 0;
    allocated = 0;
  }
  ~Memory() override { reset_all_state(); }
};

bool all_zero(const void* memory, size_t size) {
  const auto* const bytes = static_cast<const uint8_t*>(memory);
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

TEST_F(Memory, IsZeroFilledAndNullForNoElements) {
  EXPECT_EQ(gen_alloc(0, 100), nullptr);
  const gen_ptr<void> memory(gen_alloc(300, 7));
  EXPECT_TRUE(all_zero(memory.get(), 2100));
  gen_free(nullptr);
}

TEST_F(Memory, IsResizedWithItsContents) {
  auto* text = static_cast<char*>(gen_realloc(nullptr, 2000));
  EXPECT_TRUE(all_zero(text, 2000));
  std::strcpy(text, "kept");
  text = static_cast<char*>(gen_realloc(text, 100000));
  EXPECT_STREQ(text, "kept");
  text = static_cast<char*>(gen_allocate(text, 5, 1));
  EXPECT_STREQ(text, "kept");
  EXPECT_EQ(gen_realloc(text, 0), nullptr);
}

TEST_F(Memory, OfLessThanOneByteIsReleasedAndFreshMemoryGoesThroughThePointers) {
  gen_free = [](void* pointer) {
    ++released;
    gen_default_free(pointer);
  };
  gen_alloc = [](uint32_t count, uint32_t size) {
    ++allocated;
    EXPECT_EQ(count, 1U);
    return gen_default_alloc(count, size);
  };
  void* const first = gen_realloc(nullptr, 12);
  void* const second = gen_allocate(nullptr, 3, 4);
  EXPECT_EQ(allocated, 2);
  EXPECT_EQ(gen_realloc(first, 0), nullptr);
  EXPECT_EQ(gen_realloc(second, -1), nullptr);
  EXPECT_EQ(gen_realloc(nullptr, -1), nullptr);
  EXPECT_EQ(released, 3);
}

TEST_F(Memory, CopiesAStructure) {
  EXPECT_EQ(gen_structcopy(nullptr, 8), nullptr);
  constexpr char kRecord[] = "a\0b";
  const gen_ptr<void> copy(gen_structcopy(kRecord, sizeof kRecord));
  EXPECT_NE(copy.get(), kRecord);
  EXPECT_EQ(std::memcmp(copy.get(), kRecord, sizeof kRecord), 0);
}

TEST_F(Memory, ExhaustedIsToldInFixedBytesAndEndsTheRunWithStatus3) {
  const auto exhausted = [] { return capture([] { gen_out_of_memory(12); }); };
  EXPECT_EQ(exhausted().errors, "fatal: Out of memory\n");
  gen_changeprogname("kelvane");
  EXPECT_EQ(exhausted().errors, "kelvane: fatal: Out of memory\n");
  EXPECT_EQ(exhausted().status, 3);
  gen_changeprogname("");
  EXPECT_EQ(exhausted().errors, "fatal: Out of memory\n");
}

TEST_F(Memory, ThatCannotBeGrantedEndsTheRun) {
  const CapturedRun product = capture([] { gen_allocate(nullptr, 0x10000, 0x8000); });
  EXPECT_EQ(product.status, 3);
  EXPECT_EQ(product.errors, "fatal: Out of memory\n");
  if (!kUnderAddressSanitizer) {  // which refuses such a request itself
    EXPECT_EQ(capture([] { gen_alloc(0xFFFFFFFFU, 0xFFFFFFFFU); }).status, 3);
  }
}

TEST_F(Memory, RingKeepsABufferForAsManyRequestsAsItHasSlots) {
  void* const first = gen_get_temp_buf(3, 24);
  void* const second = gen_get_temp_buf(3, 24);
  EXPECT_EQ(gen_get_temp_buf(3, 0), nullptr);   // doesn't move the ring
  void* const third = gen_get_temp_buf(1, 24);  // the ring never shrinks
  EXPECT_NE(first, second);
  EXPECT_NE(second, third);
  EXPECT_NE(first, third);
  EXPECT_EQ(gen_temp_copy(3, nullptr), nullptr);  // doesn't move the ring either
  EXPECT_EQ(gen_get_temp_buf(3, 24), first);
  EXPECT_EQ(gen_get_temp_buf(3, 8), second);
}

TEST_F(Memory, RingGrowsBehindTheBuffersInUse) {
  char* const one = gen_temp_copy(1, "one");
  char* const two = gen_temp_copy(3, "two");
  char* const three = gen_temp_copy(3, "three");
  EXPECT_STREQ(one, "one");
  EXPECT_STREQ(two, "two");
  EXPECT_STREQ(three, "three");
  EXPECT_STREQ(gen_temp_copy(3, ""), "");
  EXPECT_STREQ(one, "");
}

TEST_F(Memory, RingKeepsContentsAndCapacityUnlessZeroesAreAskedFor) {
  char* const text = gen_temp_copy(1, "four letters");
  EXPECT_EQ(gen_get_temp_buf(1, 5), text);  // a smaller request leaves the buffer as it is
  EXPECT_STREQ(text, "four letters");
  EXPECT_EQ(gen_get_zeroed_temp_buf(1, 4), text);
  EXPECT_STREQ(text + 4, " letters");
  EXPECT_TRUE(all_zero(text, 4));
  EXPECT_EQ(gen_get_zeroed_temp_buf(1, 0), nullptr);
  EXPECT_TRUE(all_zero(gen_get_zeroed_temp_buf(1, 4000), 4000));
}

}  // namespace
}  // namespace kelvane
