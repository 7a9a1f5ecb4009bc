#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "applier.h"
#include "round_trip.h"
#include "target_memory.h"

// Patches with more items than the count of one command can tell, so that commands are repeated.
namespace kelvane {
namespace {

constexpr size_t kPlaces = 66000;  // a little above 65535

// The number of commands of each code in a patch.
std::vector<int> commands_in(const std::string& patch) {
  OpenedPatch opened(patch);
  std::vector<int> counts(8);
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, opened.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_COMMAND) {
      ++counts.at(item.command);
    }
  }
  EXPECT_EQ(cursor.code, KELVANE_APPLY_OK);
  return counts;
}

// An image with `changed` bytes replaced by other ones at the start of every `distance` bytes.
ImagePair replaced_everywhere(size_t changed, size_t distance) {
  Random random(1);
  ImagePair pair;
  pair.old_image = random.bytes(kPlaces * distance, 128);
  pair.new_image = pair.old_image;
  for (size_t place = 0; place < kPlaces; ++place) {
    for (size_t i = 0; i < changed; ++i) {
      pair.new_image[place * distance + i] = static_cast<uint8_t>(128 + random.below(128));
    }
  }
  return pair;
}

void expect_repeated(const ImagePair& pair, const PatchOptions& options, int code,
                     const std::string& name) {
  const MadePatch made = make_patch_file(pair, options);
  ASSERT_FALSE(made.ended);
  EXPECT_THAT(made.messages,
              testing::EndsWith("warning: " + name + " takes 2 commands in this patch\n"));
  EXPECT_EQ(commands_in(made.file)[static_cast<size_t>(code)], 2);
  EXPECT_EQ(fault_in_patch(made.file, pair, options), std::nullopt);
}

TEST(RepeatedCommands, FillsAreAppliedAllTheSame) {
  ImagePair pair = replaced_everywhere(0, 8);
  for (size_t place = 0; place < kPlaces; ++place) {
    std::fill_n(&pair.new_image[place * 8], 4, static_cast<uint8_t>(128 + place % 128));
  }
  PatchOptions options;
  options.blocksize = 4;
  expect_repeated(pair, options, KELVANE_CM_FILL, "CM_FILL");
}

TEST(RepeatedCommands, BlocksAreAppliedAllTheSame) {
  Random random(2);
  ImagePair inserted;
  for (size_t place = 0; place < kPlaces; ++place) {
    const Bytes piece = random.bytes(8);
    inserted.old_image.insert(inserted.old_image.end(), piece.begin(), piece.end());
    inserted.new_image.insert(inserted.new_image.end(), piece.begin(), piece.end());
    inserted.new_image.push_back(static_cast<uint8_t>(random.below(256)));
  }
  const ImagePair removed = {inserted.new_image, inserted.old_image};
  PatchOptions options;
  options.blocksize = 4;
  expect_repeated(inserted, options, KELVANE_CM_MOVE, "CM_MOVE");
  expect_repeated(removed, options, KELVANE_CM_MOVE, "CM_MOVE");
}

struct SubstitutionShape {
  int code;
  const char* name;
  size_t changed;
};

void PrintTo(const SubstitutionShape& shape, std::ostream* out) {
  *out << shape.name;
}

class RepeatedSubstitutions : public testing::TestWithParam<SubstitutionShape> {};

TEST_P(RepeatedSubstitutions, AbsoluteCommandsAreAppliedAllTheSame) {
  PatchOptions options;
  options.blocksize = 4;
  options.relative = false;
  options.compression = GetParam().code == KELVANE_CM_SUB_COMP;
  options.min_percent = -200;
  options.min_length = 2;
  expect_repeated(replaced_everywhere(GetParam().changed, 8), options, GetParam().code,
                  GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(AllCodes, RepeatedSubstitutions,
                         testing::Values(SubstitutionShape{KELVANE_CM_SUBSTITUTE, "CM_SUBSTITUTE",
                                                           2},
                                         SubstitutionShape{KELVANE_CM_SUB_ONE, "CM_SUB_ONE", 1},
                                         SubstitutionShape{KELVANE_CM_SUB_COMP, "CM_SUB_COMP", 3}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(RepeatedCommands, RelativeListsAreAppliedAllTheSame) {
  // Pairs of single bytes, each pair out of reach of the one before: a list for each.
  ImagePair pair = replaced_everywhere(1, 280);
  for (size_t place = 0; place < kPlaces; ++place) {
    pair.new_image[place * 280 + 8] ^= 0x80U;
  }
  PatchOptions options;
  options.blocksize = 4;
  expect_repeated(pair, options, KELVANE_CM_SUB_ONE, "CM_SUB_ONE");
}

TEST(RepeatedCommands, OneRelativeListEndsBeforeItsCountWraps) {
  const ImagePair pair = replaced_everywhere(1, 8);
  PatchOptions options;
  options.blocksize = 4;
  const MadePatch made = make_patch_file(pair, options);
  EXPECT_EQ(made.messages, "");
  EXPECT_EQ(commands_in(made.file)[KELVANE_CM_SUB_ONE], 1);
  EXPECT_EQ(fault_in_patch(made.file, pair, options), std::nullopt);
}

}  // namespace
}  // namespace kelvane
