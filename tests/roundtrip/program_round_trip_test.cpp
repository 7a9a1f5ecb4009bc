#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "round_trip.h"
#include "run_program.h"
#include "temporary_directory.h"

// The same through the programs, which are other processes than this one.
namespace kelvane {
namespace {

constexpr uint32_t kRounds = 12;

// What the command line can ask for.
PatchOptions options_of(uint32_t round, Random& random) {
  PatchOptions options;
  options.patch_version = (round & 1U) != 0 ? 1 : 0;
  options.increments = (round & 2U) != 0;
  options.fill = options.patch_version > 0 && (round & 4U) != 0;
  options.compression = options.patch_version > 0 && (round & 8U) != 0;
  options.min_length = random.below(2) == 0 ? 50 : 8;
  options.blocksize = static_cast<uint16_t>(1 + random.below(16));
  return options;
}

class ProgramRoundTrip : public testing::TestWithParam<PairKind> {
 protected:
  // False if the search failed, which ends the program without a word.
  bool patch_is_made(const ImagePair& pair, const PatchOptions& options) const {
    directory_.write("old.bin", text_of(pair.old_image));
    directory_.write("new.bin", text_of(pair.new_image));
    std::vector<std::string> command = {kelvane_program()};
    for (const std::string& argument : arguments_for(options)) {
      command.push_back(argument);
    }
    command.insert(command.end(), {"-o", "a.patch", "old.bin", "new.bin"});
    const ProgramResult made = run_program(command, directory_.name());
    EXPECT_EQ(made.errors, "");
    if (made.status == 1) {
      EXPECT_THAT(make_patch_file(pair, options, 1).messages,
                  testing::HasSubstr("No reasonable match found"));
      return false;
    }
    EXPECT_EQ(made.status, 0);
    return true;
  }

  void expect_kelpatch(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {kelpatch_program()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const ProgramResult result = run_program(command, directory_.name());
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
  }

  TemporaryDirectory directory_;
};

TEST_P(ProgramRoundTrip, MakesTheSamePatchInAnotherProcessAndTheNewFileFromIt) {
  for (uint32_t round = 0; round < kRounds; ++round) {
    Random random(7000003U + 1000003U * static_cast<uint32_t>(GetParam()) + round);
    const ImagePair pair = make_pair_of(GetParam(), random);
    const PatchOptions options = options_of(round, random);
    if (pair.old_image.empty() || pair.new_image.empty()) {
      continue;  // the program refuses an empty file
    }
    SCOPED_TRACE("round " + std::to_string(round) + ": " + describe(options));
    if (!patch_is_made(pair, options)) {
      continue;
    }
    EXPECT_EQ(directory_.read("a.patch"), make_patch_file(pair, options).file);
    expect_kelpatch({"apply", "old.bin", "a.patch", "-o", "made.bin"});
    EXPECT_EQ(directory_.read("made.bin"), text_of(pair.new_image));
    expect_kelpatch({"verify", "old.bin", "new.bin", "a.patch"});
    ASSERT_FALSE(HasFailure());
  }
}

INSTANTIATE_TEST_SUITE_P(AllKinds, ProgramRoundTrip, testing::ValuesIn(kAllPairKinds),
                         [](const auto& tested) { return name_of(tested.param); });

}  // namespace
}  // namespace kelvane
