#include "minimise.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kelvane {
namespace {

TEST(Minimiser, LeavesWhatAFailureNeeds) {
  Random random(1);
  ImagePair pair = {random.bytes(1000, 4), random.bytes(900, 4)};
  pair.old_image[700] = 7;
  pair.new_image[11] = 9;
  const ImagePair small = minimised(pair, [](const ImagePair& candidate) {
    return std::count(candidate.old_image.begin(), candidate.old_image.end(), 7) > 0 &&
           std::count(candidate.new_image.begin(), candidate.new_image.end(), 9) > 0;
  });
  EXPECT_EQ(small.old_image, Bytes{7});
  EXPECT_EQ(small.new_image, Bytes{9});
}

}  // namespace
}  // namespace kelvane
