// What a search does when memory runs out: this program's operator new can refuse a request.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "image_pair.h"
#include "plan_search.h"

namespace {

std::atomic<int64_t> requests_left = -1;  // 0: the next one is refused; below 0: none is

}  // namespace

// Not inlined: the compiler takes one of a pair that it sees and one that it doesn't for a
// mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
  if (requests_left >= 0 && requests_left-- == 0) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace kelvane {
namespace {

TEST(PlanMemoryTest, ARefusedRequestEndsTheSearchWithBadAlloc) {
  Random random(11);
  const ImagePair pair = make_pair_of(PairKind::mixed, random);
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

}  // namespace
}  // namespace kelvane
