#include "byte_order.h"

#include <gtest/gtest.h>

#include <array>

namespace kelvane {
namespace {

TEST(ByteOrder, NamesTheOrderOfAFlag) {
  EXPECT_EQ(byte_order_of(true), ByteOrder::kBig);
  EXPECT_EQ(byte_order_of(false), ByteOrder::kLittle);
}

TEST(ByteOrder, ReadsNumbersAtAnyAddress) {
  constexpr std::array<uint8_t, 5> kBytes = {0x00, 0x81, 0x92, 0xA3, 0xB4};
  EXPECT_EQ(load_half(&kBytes[1], ByteOrder::kBig), 0x8192U);
  EXPECT_EQ(load_half(&kBytes[1], ByteOrder::kLittle), 0x9281U);
  EXPECT_EQ(load_word(&kBytes[1], ByteOrder::kBig), 0x8192A3B4U);
  EXPECT_EQ(load_word(&kBytes[1], ByteOrder::kLittle), 0xB4A39281U);
}

TEST(ByteOrder, WritesTheLowBytesAndNothingBeside) {
  using Bytes = std::array<uint8_t, 6>;
  Bytes bytes{};
  store_half(&bytes[1], 0xF1F28192U, ByteOrder::kBig);
  EXPECT_EQ(bytes, (Bytes{0, 0x81, 0x92, 0, 0, 0}));
  store_half(&bytes[1], 0xF1F28192U, ByteOrder::kLittle);
  EXPECT_EQ(bytes, (Bytes{0, 0x92, 0x81, 0, 0, 0}));
  store_word(&bytes[1], 0x8192A3B4U, ByteOrder::kBig);
  EXPECT_EQ(bytes, (Bytes{0, 0x81, 0x92, 0xA3, 0xB4, 0}));
  store_word(&bytes[1], 0x8192A3B4U, ByteOrder::kLittle);
  EXPECT_EQ(bytes, (Bytes{0, 0xB4, 0xA3, 0x92, 0x81, 0}));
}

}  // namespace
}  // namespace kelvane
