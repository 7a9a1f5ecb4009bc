// How much memory searches take, and what they do when it runs out: this program's operator new
// counts, and can refuse a request.

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "dense_search.h"
#include "image_pair.h"
#include "plan_search.h"

namespace {

std::atomic<int64_t> requests_left = -1;  // 0: the next one is refused; below 0: none is
std::atomic<uint64_t> in_use = 0;         // bytes
std::atomic<uint64_t> most_in_use = 0;

// The size of a block stands in front of it.
constexpr size_t kHead = alignof(std::max_align_t);

void* allocated(size_t size) {
  auto* const block = static_cast<size_t*>(std::malloc(size + kHead));
  if (block == nullptr) {
    return nullptr;
  }
  *block = size;
  const uint64_t now = in_use += size;
  for (uint64_t most = most_in_use; most < now && !most_in_use.compare_exchange_weak(most, now);) {
  }
  return reinterpret_cast<char*>(block) + kHead;
}

void released(void* memory) {
  if (memory != nullptr) {
    void* const block = static_cast<char*>(memory) - kHead;
    in_use -= *static_cast<size_t*>(block);
    std::free(block);
  }
}

}  // namespace

// Not inlined: the compiler takes one of a pair that it sees and one that it doesn't for a
// mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
  if (requests_left >= 0 && requests_left-- == 0) {
    throw std::bad_alloc();
  }
  void* const memory = allocated(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
// Of those who can do without.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return allocated(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  released(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  released(memory);
}

namespace kelvane {
namespace {

TEST(PlanMemoryTest, ARefusedRequestEndsTheSearchWithBadAlloc) {
  Random random(11);
  const ImagePair pair = make_pair_of(PairKind::kMixed, random);
  for (const uint32_t jobs : {1U, 2U}) {
    bool is_through = false;
    for (int64_t refused = 0; !is_through; refused += 1 + refused / 40) {
      plan_request request;
      request.images = {pair.old_image, pair.new_image};
      request.rules = rules_for(patch_profile::libapply, 1);
      request.jobs = jobs;
      requests_left = refused;
      try {
        search_plan(request);
        is_through = requests_left >= 0;
        // A refused thread is no fault: the search has done without it.
      } catch (const std::bad_alloc&) {
        EXPECT_LT(requests_left, 0);
      }
      requests_left = -1;
      ASSERT_LT(refused, 1000000);
    }
  }
}

// Each index goes before the next one comes, and nothing is kept that can be made again. The caller
// has the images besides.
TEST(PlanMemoryTest, ASearchForAnUpdateTakesAtMostTwiceTheImages) {
  constexpr size_t kSize = 1U << 19U;
  Random random(5);
  const Bytes old_image = random.bytes(kSize);
  Bytes new_image = old_image;
  for (size_t at = 0; at < kSize; at += 64) {
    new_image[at] ^= 1;
  }
  dense_request request;
  request.images = {old_image, new_image};
  request.effort = dense_effort::quick;
  request.jobs = 2;
  const uint64_t before = in_use;
  most_in_use = before;
  search_dense(request);
  EXPECT_LT(most_in_use - before, 2 * (old_image.size() + new_image.size()));
}

}  // namespace
}  // namespace kelvane
