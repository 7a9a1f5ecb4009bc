#include "byte_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "bytes.h"
#include "indgen_memory.h"

namespace kelvane {
namespace {

constexpr uint64_t kMost = UINT64_MAX;

TEST(Fits, HoldsWithoutOverflow) {
  struct Row {
    uint64_t offset, count, element, total;
    bool expected;
  };
  for (const Row& row :
       {Row{0, 0, 1, 0, true}, Row{4, 4, 1, 8, true}, Row{4, 5, 1, 8, false}, Row{8, 0, 1, 8, true},
        Row{9, 0, 1, 8, false}, Row{kMost, 2, 1, 8, false}, Row{2, kMost, 1, 8, false},
        Row{kMost, kMost, 1, kMost, false}, Row{0, kMost, 1, kMost, true}, Row{4, 2, 2, 8, true},
        Row{4, 2, 3, 8, false}, Row{0, kMost / 2 + 1, 2, 8, false}, Row{8, kMost, 0, 8, true},
        Row{9, 0, 0, 8, false}}) {
    EXPECT_EQ(fits_array(row.offset, row.count, row.element, row.total), row.expected)
        << row.offset << ' ' << row.count << ' ' << row.element;
    if (row.element == 1) {
      EXPECT_EQ(fits(row.offset, row.count, row.total), row.expected)
          << row.offset << ' ' << row.count;
    }
  }
}

// The same bytes as memory and as a stream that stands behind two bytes of something else.
class Reading : public testing::TestWithParam<bool> {
 protected:
  ByteReader reader(const Bytes& bytes, ByteOrder order) {
    bytes_ = bytes;
    if (!GetParam()) {
      return {bytes_, order};
    }
    bytes_.insert(bytes_.begin(), {0xEE, 0xEE});
    bytes_.push_back(0xEE);
    stream_.reset(::fmemopen(bytes_.data(), bytes_.size(), "r"));
    std::fseek(stream_.get(), 2, SEEK_SET);
    return {stream_.get(), bytes.size(), order};
  }

  Bytes bytes_;
  file_ptr stream_;
};
INSTANTIATE_TEST_SUITE_P(MemoryAndStream, Reading, testing::Bool());

TEST_P(Reading, GivesNumbersOfEveryWidthInEitherOrder) {
  const Bytes bytes = {0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88,
                       0x89, 0x8A, 0x8B, 0x8C, 0x8D, 0x8E, 0x8F};
  ByteReader big = reader(bytes, ByteOrder::big);
  EXPECT_EQ(big.u8(), 0x81U);
  EXPECT_EQ(big.u16(), 0x8283U);
  EXPECT_EQ(big.u32(), 0x84858687U);
  EXPECT_EQ(big.u64(), 0x88898A8B8C8D8E8FU);
  EXPECT_EQ(big.rest(), 0U);
  EXPECT_FALSE(big.failed());
  ByteReader little = reader(bytes, ByteOrder::little);
  EXPECT_EQ(little.i8(), -0x7F);
  EXPECT_EQ(little.i16(), static_cast<int16_t>(0x8382));
  EXPECT_EQ(little.i32(), static_cast<int32_t>(0x87868584U));
  EXPECT_EQ(little.i64(), static_cast<int64_t>(0x8F8E8D8C8B8A8988U));
}

TEST_P(Reading, MovesWithinItsWindowAlone) {
  ByteReader cursor = reader({1, 2, 3, 4, 5}, ByteOrder::big);
  EXPECT_EQ(cursor.size(), 5U);
  EXPECT_TRUE(cursor.skip(3));
  EXPECT_EQ(cursor.bytes(2), (Bytes{4, 5}));
  EXPECT_TRUE(cursor.seek(1));
  EXPECT_EQ(cursor.u16(), 0x0203U);
  EXPECT_EQ(cursor.position(), 3U);
  if (stream_ != nullptr) {
    EXPECT_EQ(std::ftell(stream_.get()), 5);
  }
  EXPECT_TRUE(cursor.seek(5));
  EXPECT_EQ(cursor.bytes(0), Bytes{});
  EXPECT_FALSE(cursor.failed());
  EXPECT_FALSE(cursor.seek(6));
  EXPECT_FALSE(cursor.seek(0)) << "the failure stays";
}

TEST_P(Reading, StaysFailedBehindTheFirstFieldThatIsNotThere) {
  const auto fails = [&](auto&& action) {
    ByteReader cursor = reader({1, 2, 3}, ByteOrder::little);
    cursor.u8();
    action(cursor);
    EXPECT_TRUE(cursor.failed());
    EXPECT_EQ(cursor.position(), 1U);
    EXPECT_EQ(cursor.u8(), 0U);
  };
  fails([](ByteReader& cursor) { EXPECT_EQ(cursor.u32(), 0U); });
  fails([](ByteReader& cursor) { EXPECT_EQ(cursor.bytes(kMost), Bytes{}); });
  fails([](ByteReader& cursor) { EXPECT_FALSE(cursor.skip(kMost)); });
  fails([](ByteReader& cursor) {
    std::array<uint8_t, 3> bytes = {7, 7, 7};
    EXPECT_FALSE(cursor.read(bytes));
    EXPECT_EQ(bytes, (std::array<uint8_t, 3>{}));
  });
}

TEST(ByteReader, SeesNothingInAStreamThatStandsBehindItsEndOrCannotSeek) {
  const file_ptr stream(std::tmpfile());
  std::fseek(stream.get(), 9, SEEK_SET);
  EXPECT_EQ(ByteReader(stream.get(), ByteOrder::big).size(), 0U);
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const file_ptr pipe(::fdopen(ends[0], "r"));
  ByteReader reader(pipe.get(), ByteOrder::big);
  EXPECT_EQ(reader.u8(), 0U);
  EXPECT_TRUE(reader.failed());
  ::close(ends[1]);
}

TEST(ByteWriter, PutsFieldsBehindEachOther) {
  ByteWriter big(ByteOrder::big);
  big.u8(1);
  big.u16(0x0203);
  big.u32(0x04050607);
  big.u64(0x08090A0B0C0D0E0F);
  big.zeros(2);
  big.raw(Bytes{9});
  EXPECT_EQ(big.bytes(), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0, 0, 9}));
  ByteWriter little(ByteOrder::little);
  little.u16(0x0201);
  little.u64(0x0A09080706050403);
  EXPECT_EQ(little.bytes(), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

}  // namespace
}  // namespace kelvane
