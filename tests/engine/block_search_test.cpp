#include "block_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "engine_steps.h"
#include "plain_search.h"

namespace kelvane {
namespace {

TEST(BlockSearch, GivesWhatTheTableSays) {
  std::list<Bytes> kept;
  const auto compare = [](Data a, Data b) {
    return bstrncmp(a.bytes.data(), b.bytes.data(), static_cast<int32_t>(a.bytes.size()));
  };
  const auto find = [](Data a, Data b, uint16_t blocksize, int32_t max_scan) {
    const Agreement found = find_agreement({a.bytes.data(), static_cast<uint32_t>(a.bytes.size())},
                                           {b.bytes.data(), static_cast<uint32_t>(b.bytes.size())},
                                           blocksize, max_scan);
    return std::to_string(found.result) + ":" + std::to_string(found.offset1) + ":" +
           std::to_string(found.offset2);
  };
  go_through(KELVANE_TABLES "block_search.table", {{"compare", compare}, {"find", find}}, &kept);
  EXPECT_EQ(bstrncmp(nullptr, nullptr, 0), 0);
  EXPECT_EQ(bstrncmp(nullptr, nullptr, -1), 0);
}

TEST(FuzzyCompare, AgreesWithThePlainLoopOnRandomBytes) {
  Random random(1);
  for (int round = 0; round < 20000; ++round) {
    const size_t n = random.below(130);
    const Bytes a = random.bytes(n, 2);
    Bytes b = a;
    for (uint32_t change = random.below(12); change > 0 && n > 0; --change) {
      b[random.below(n)] ^= 1U;
    }
    const auto length = static_cast<int32_t>(n);
    ASSERT_EQ(bstrncmp(a.data(), b.data(), length), plain_bstrncmp(a.data(), b.data(), length))
        << "round " << round;
  }
}

TEST(CommonTail, CountsEqualBytesFromTheEnd) {
  Random random(2);
  for (size_t n = 0; n < 40; ++n) {
    for (size_t equal = 0; equal <= n; ++equal) {
      Bytes a = random.bytes(n);
      Bytes b = a;
      if (equal < n) {
        b[n - equal - 1] ^= 0x80U;
      }
      EXPECT_EQ(common_tail(a.data() + n, b.data() + n, n), equal);
    }
  }
}

void expect_same_agreement(const Bytes& a, const Bytes& b, uint16_t blocksize, int32_t max_scan) {
  const Rest rest1 = {a.data(), static_cast<uint32_t>(a.size())};
  const Rest rest2 = {b.data(), static_cast<uint32_t>(b.size())};
  const Agreement expected = plain_find_agreement(rest1, rest2, blocksize, max_scan);
  const Agreement found = find_agreement(rest1, rest2, blocksize, max_scan);
  ASSERT_EQ(found.result, expected.result) << "sizes " << a.size() << " " << b.size();
  ASSERT_EQ(found.offset1, expected.offset1);
  ASSERT_EQ(found.offset2, expected.offset2);
}

// Every pair of strings of up to 7 letters over an alphabet of two.
TEST(RingSearch, FindsTheFirstPairOfThePlainLoopForAllSmallInputs) {
  constexpr size_t kLongest = 7;
  std::vector<Bytes> strings;
  for (size_t length = 2; length <= kLongest; ++length) {
    for (uint32_t bits = 0; bits < (1U << length); ++bits) {
      Bytes string(length);
      for (size_t i = 0; i < length; ++i) {
        string[i] = static_cast<uint8_t>((bits >> i) & 1U);
      }
      strings.push_back(string);
    }
  }
  for (const Bytes& a : strings) {
    for (const Bytes& b : strings) {
      for (uint16_t blocksize = 1; blocksize < std::min(a.size(), b.size()); ++blocksize) {
        expect_same_agreement(a, b, blocksize, 100);
      }
    }
  }
}

struct SearchShape {
  const char* name;
  uint32_t letters;      // size of the alphabet
  uint32_t longest;      // greatest size of a side
  uint32_t block_limit;  // block sizes below this
};

class RingSearchShapes : public testing::TestWithParam<SearchShape> {};

TEST_P(RingSearchShapes, FindsTheFirstPairOfThePlainLoop) {
  const SearchShape& shape = GetParam();
  Random random(3);
  for (int round = 0; round < 1500; ++round) {
    const auto blocksize = static_cast<uint16_t>(1 + random.below(shape.block_limit));
    const size_t size1 = blocksize + 1 + random.below(shape.longest);
    const size_t size2 = blocksize + 1 + random.below(shape.longest);
    Bytes a = random.bytes(size1, shape.letters);
    Bytes b = random.bytes(size2, shape.letters);
    if (round % 3 != 0) {  // the sides have a piece in common, perhaps with a byte changed in it
      const size_t from = random.below(size1);
      const size_t to = random.below(size2);
      const size_t length = std::min(size1 - from, size2 - to);
      std::copy_n(a.begin() + static_cast<std::ptrdiff_t>(from), length,
                  b.begin() + static_cast<std::ptrdiff_t>(to));
      b[to + random.below(length)] ^= 1U;
    }
    const auto max_scan = static_cast<int32_t>(random.below(2 * shape.longest)) - 1;
    SCOPED_TRACE(testing::Message()
                 << "round " << round << " blocksize " << blocksize << " max_scan " << max_scan);
    expect_same_agreement(a, b, blocksize, max_scan);
    if (HasFatalFailure()) {
      return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllShapes, RingSearchShapes,
                         testing::Values(SearchShape{"bytes", 256, 200, 12},
                                         SearchShape{"letters", 3, 150, 14},
                                         SearchShape{"bits", 2, 120, 30},
                                         SearchShape{"blocks_of_default_size", 4, 300, 110},
                                         SearchShape{"one_letter_alphabet", 1, 60, 20}),
                         [](const auto& tested) { return std::string(tested.param.name); });

// Blocks that begin alike at many places, so that the search leaves its index for the diagonals.
TEST(RingSearch, FindsTheFirstPairOfThePlainLoopInPaddedRecords) {
  Random random(4);
  const auto records = [&random](size_t size) {
    Bytes bytes(size, 0);
    const size_t record = 16 + random.below(50);
    for (size_t at = random.below(20); at < size; at += record) {
      const size_t filled = std::min<size_t>(1 + random.below(12), size - at);
      const Bytes content = random.bytes(filled, 1 + random.below(255));
      std::copy(content.begin(), content.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return bytes;
  };
  int32_t agreements = 0;
  for (int round = 0; round < 600; ++round) {
    const auto blocksize = static_cast<uint16_t>(1 + random.below(round % 2 == 0 ? 120 : 40));
    const Bytes a = records(blocksize + 1 + random.below(400));
    Bytes b = records(blocksize + 1 + random.below(400));
    if (round % 3 == 0) {  // a piece in common, far ahead
      const size_t from = random.below(a.size());
      const size_t to = random.below(b.size());
      std::copy_n(a.begin() + static_cast<std::ptrdiff_t>(from),
                  std::min(a.size() - from, b.size() - to),
                  b.begin() + static_cast<std::ptrdiff_t>(to));
    }
    const Rest rest1 = {a.data(), static_cast<uint32_t>(a.size())};
    const Rest rest2 = {b.data(), static_cast<uint32_t>(b.size())};
    SCOPED_TRACE(testing::Message() << "round " << round << " blocksize " << blocksize);
    expect_same_agreement(a, b, blocksize, 1000);
    if (HasFatalFailure()) {
      return;
    }
    const Agreement found = find_agreement(rest1, rest2, blocksize, 1000);
    agreements += found.result >= 0 && std::max(found.offset1, found.offset2) > 64 ? 1 : 0;
  }
  EXPECT_GT(agreements, 20);  // of those that diagonals find
}

}  // namespace
}  // namespace kelvane
