#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "class_costs.h"
#include "image_pair.h"
#include "indzip.h"
#include "make_plan.h"
#include "optimal_parse.h"
#include "patch_writer.h"
#include "plan_patch.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

plan plan_without_moves(const Bytes& old_image, const Bytes& new_image,
                        patch_profile profile = patch_profile::wide, uint8_t format = 1) {
  const plan_images images = {old_image, new_image};
  const plan_rules rules = rules_for(profile, format);
  packed_runs forms(new_image);
  plan planned = make_plan(images, {}, rules, {ByteOrder::kBig, 58 * 32 / 10, 66 * 32}, forms);
  EXPECT_EQ(fault_of_patch(images, write_plan(images, planned, rules), ByteOrder::kBig), "");
  return planned;
}

TEST(ClassCostTest, IsWhatTheStreamTakes) {
  Random random(1);
  for (int round = 0; round < 200; ++round) {
    std::vector<increment_class> classes;
    uint64_t bits = 10;
    uint32_t last_value = 0;
    for (uint32_t i = 0; i < 1 + random.below(5); ++i) {
      const uint32_t value = last_value + 1 + random.below(random.below(2) == 0 ? 9 : 0x20000);
      std::vector<uint32_t> words;
      uint32_t word = 0;
      for (uint32_t count = 1 + random.below(60); count > 0; --count) {
        word += random.below(9) == 0 ? random.below(70000) : random.below(30) + 1;
        if (words.empty() || words.back() != word) {
          words.push_back(word);
        }
      }
      const jump_counts counts = count_jumps(words);
      const jump_prices prices = prices_for(counts);
      bits += head_bits(last_value, value) + jump_bits(counts, prices) +
              (prices.has_map ? kMapBits : 0);
      if (i == 0) {  // says its form in one bit
        bits -= head_bits(last_value, value) == 25 ? 7 : 8;
      }
      for (uint32_t& each : words) {
        each *= 4;
      }
      classes.push_back({value, words});
      last_value = value;
    }
    EXPECT_EQ((bits + 7) / 8, size_of_increments(classes));
  }
}

TEST(OptimalParseTest, ExpandsToTheDataAndIsNeverLargerThanTheFirstMatch) {
  Random random(2);
  optimal_parser parser(4096);  // looks everywhere
  lzss_encoder encoder;
  for (int round = 0; round < 80; ++round) {
    const Bytes zeros(70000, 0);
    const size_t size = 1 + random.below(round % 30 == 1 ? 150000 : 6000);
    Bytes data;
    switch (round % 4) {
      case 0:
        data = random.bytes(size, 2);
        break;
      case 1:
        data = text_like(size, random);
        break;
      case 2:
        data = zeros;
        break;
      default:
        data = code_like(size, random);
    }
    Bytes packed = bytes_of("before");
    parser.append_packed(data, packed);
    packed.erase(packed.begin(), packed.begin() + 6);
    EXPECT_EQ(parser.packed_size(data), packed.size());
    Bytes expanded(data.size());
    const Expanded result =
        expand_bounded(expanded.data(), expanded.size(), packed.data(), packed.size());
    ASSERT_EQ(result.end, ExpandEnd::kComplete);
    EXPECT_EQ(expanded, data);
    // A block may cut a match at its end.
    EXPECT_LE(packed.size(), encoder.encoded(data).size() + 3 * (data.size() / 65536));
  }
}

// Words of which every third grew by `value`, and the first byte of every tenth changed besides.
struct Grown {
  Bytes old_image;
  Bytes new_image;
};

Grown grown_words(uint32_t count, uint32_t value) {
  Random random(count);
  Grown grown;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t word = random.below(0x7FFFFFFF);
    append_word(grown.old_image, word, true);
    append_word(grown.new_image, word + (i % 3 == 0 ? value : 0), true);
  }
  return grown;
}

TEST(WordsTest, ValuesOfManyWordsBecomeClassesAndOthersStores) {
  Grown grown = grown_words(300, 0x1234);
  grown.new_image[401] ^= 0x55;
  const plan planned = plan_without_moves(grown.old_image, grown.new_image);
  ASSERT_EQ(planned.classes.size(), 1U);
  EXPECT_EQ(planned.classes[0].value, 0x1234U);
  EXPECT_EQ(planned.classes[0].count, 100U);
  ASSERT_EQ(planned.stores.size(), 1U);
  EXPECT_EQ(planned.stores[0].address, 401U);
}

TEST(WordsTest, TheNumberOfClassesIsLimitedOnlyForAnyApplier) {
  Grown grown;
  Random random(4);
  for (uint32_t i = 0; i < 4000; ++i) {
    const uint32_t word = random.below(0x7FFFFFFF);
    append_word(grown.old_image, word, true);
    append_word(grown.new_image, word + 0x10001 * (1 + i % 40), true);
  }
  EXPECT_EQ(plan_without_moves(grown.old_image, grown.new_image).classes.size(), 40U);
  EXPECT_LE(plan_without_moves(grown.old_image, grown.new_image, patch_profile::any).classes.size(),
            20U);
}

TEST(StoresTest, LongRunsAreFilledAndRepetitionsCompressed) {
  Random random(5);
  const Bytes old_image = random.bytes(1000);
  Bytes new_image = old_image;
  std::fill_n(new_image.begin() + 100, 50, uint8_t{0xFF});
  for (size_t i = 300; i < 500; ++i) {
    new_image[i] = static_cast<uint8_t>('a' + i % 5);
  }
  const plan planned = plan_without_moves(old_image, new_image);
  ASSERT_EQ(planned.fills.size(), 1U);
  EXPECT_EQ(planned.fills[0].address, 100U);
  EXPECT_EQ(planned.fills[0].size, 50U);
  ASSERT_EQ(planned.stores.size(), 1U);
  EXPECT_EQ(planned.stores[0].kind, store_kind::compressed);
  const plan plain = plan_without_moves(old_image, new_image, patch_profile::wide, 0);
  EXPECT_TRUE(plain.fills.empty());
  EXPECT_TRUE(plain.packed.empty());
}

TEST(StoresTest, StoresOfEqualBytesLinkLists) {
  const Bytes old_image(4000, 7);
  const auto cost = [&](uint32_t gap, patch_profile profile, size_t size) {
    Bytes new_image = old_image;
    for (uint32_t at = 10; at + 600 < 4000; at += gap) {
      for (size_t i = 0; i < size; ++i) {
        new_image[at + i] ^= static_cast<uint8_t>(0x11 * (i + 1) + at % 13);
      }
    }
    return plan_without_moves(old_image, new_image, profile).stores.size();
  };
  // Two stores out of reach of each other by a byte or two are linked by a third.
  EXPECT_GT(cost(300, patch_profile::wide, 1), size_t{(4000 - 600) / 300 + 1});
  EXPECT_EQ(cost(200, patch_profile::wide, 1), size_t{(4000 - 610) / 200 + 1});
  EXPECT_GT(cost(300, patch_profile::libapply, 2), size_t{(4000 - 600) / 300 + 1});
}

}  // namespace
}  // namespace kelvane
