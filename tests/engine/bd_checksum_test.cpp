#include "bd_checksum.h"

#include <gtest/gtest.h>

#include "bytes.h"

namespace kelvane {
namespace {

uint32_t checksum_of(const Bytes& bytes, uint32_t start = 0) {
  uint32_t sum = start;
  bd_checksum(bytes.data(), static_cast<uint32_t>(bytes.size()), &sum);
  return sum;
}

TEST(Checksum, RotatesAndAdds) {
  EXPECT_EQ(checksum_of({}), 0U);
  EXPECT_EQ(checksum_of(bytes_of("abc")), 0x187163U);
  EXPECT_EQ(checksum_of({3, 0, 0}), 0xC000U);
  EXPECT_EQ(checksum_of({0xFF}, 0xFFFFFFFFU), 0xFEU);     // the sum wraps
  EXPECT_EQ(checksum_of({0}, 0x80000001U), 0x000000C0U);  // the bits go round
}

TEST(Checksum, OfPiecesIsThatOfTheWhole) {
  EXPECT_EQ(checksum_of(bytes_of("cde"), checksum_of(bytes_of("ab"))),
            checksum_of(bytes_of("abcde")));
}

}  // namespace
}  // namespace kelvane
