#include <gtest/gtest.h>

#include <algorithm>

#include "memory_pair.h"
#include "run_program.h"
#include "target_memory.h"
#include "temporary_directory.h"

// Memory mode from end to end: images are built, the programs run, and the patch is carried out
// twice, by kelpatch on what it reads from the images, and here on memory as the linker laid it
// out, with callbacks that take note of any access outside of it.
namespace kelvane {
namespace {

constexpr uint32_t kRounds = 60;  // of each change

std::vector<std::string> random_options(Random& random) {
  std::vector<std::string> options = {"-ram", "-b", std::to_string(4 + random.below(20)), "-s",
                                      std::to_string(50 + random.below(400))};
  const auto maybe = [&](std::initializer_list<std::string> more) {
    if (random.below(2) == 0) {
      options.insert(options.end(), more);
    }
  };
  maybe({"-noopt"});
  maybe({"-fill", "-compressed_substitutions"});
  maybe({"-inc"});
  maybe({"-memmove"});
  maybe({"-memmove_block"});
  maybe({"-memmove_block_minsize", std::to_string(random.below(40))});
  if (random.below(4) == 0) {
    options.insert(options.end(), {"-memmove_maxtrees", std::to_string(random.below(20))});
  }
  if (random.below(4) == 0) {
    options.insert(options.end(), {"-t", std::to_string(random.below(4))});
  }
  if (random.below(8) == 0) {
    options.insert(options.end(), {"-version", "0"});
  }
  return options;
}

// The sections of both images and the swap region, in words, as ranges of their own.
std::vector<std::pair<uint32_t, std::string>> memory_of(const MemoryPair& pair) {
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  const auto add = [&](uint64_t start, uint64_t size) {
    if (size != 0) {
      ranges.emplace_back(start & ~3U, (start + size + 3) & ~3U);
    }
  };
  for (const LinkedImage* const image : {&pair.old_image, &pair.new_image}) {
    for (const LoadedSection& section : image->sections) {
      add(section.address, section.contents.size());
    }
  }
  add(pair.old_image.heap_address, pair.old_image.heap_size);
  std::sort(ranges.begin(), ranges.end());
  std::vector<std::pair<uint32_t, std::string>> memory;
  for (const auto& [start, end] : ranges) {
    if (!memory.empty() && start <= memory.back().first + memory.back().second.size()) {
      auto& [address, bytes] = memory.back();
      bytes.resize(std::max<size_t>(bytes.size(), end - address), '\xEE');
    } else {
      memory.emplace_back(static_cast<uint32_t>(start), std::string(end - start, '\xEE'));
    }
  }
  for (const LoadedSection& section : pair.old_image.sections) {
    for (auto& [address, bytes] : memory) {
      if (section.address >= address && section.address - address < bytes.size()) {
        std::copy(section.contents.begin(), section.contents.end(),
                  bytes.begin() + static_cast<ptrdiff_t>(section.address - address));
      }
    }
  }
  return memory;
}

// How many blocks the patch parks in the swap region, and how many it moves at all.
struct MoveCount {
  const LinkedImage* image;
  uint32_t parked = 0;
  uint32_t moved = 0;
};

void count_moves(kelvane_applier* applier, MoveCount& count) {
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, applier);
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_MOVE) {
      ++count.moved;
      count.parked +=
          item.address + item.value - count.image->heap_address < count.image->heap_size ? 1 : 0;
    }
  }
}

void expect_new_memory(const MemoryPair& pair, const std::string& patch, MoveCount* count) {
  const auto memory = memory_of(pair);
  TargetMemory target(memory);
  const uint32_t flags = KELVANE_V0_MEMORY_MODE |
                         (pair.old_image.image.order == ByteOrder::kBig ? KELVANE_V0_BIG_ENDIAN
                                                                        : KELVANE_V0_LITTLE_ENDIAN);
  OpenedPatch opened(patch, flags);
  ASSERT_EQ(opened.code, KELVANE_APPLY_OK);
  count->image = &pair.old_image;
  count_moves(opened.applier(), *count);
  const int code = kelvane_apply_run(opened.applier(), target.access(), 0);
  ASSERT_EQ(code, KELVANE_APPLY_OK) << kelvane_apply_text(code);
  EXPECT_EQ(target.outside, 0U);
  EXPECT_TRUE(target.guards_stand());
  for (const LoadedSection& section : pair.new_image.sections) {
    for (size_t i = 0; i < memory.size(); ++i) {
      const uint32_t at = section.address - memory[i].first;
      if (at < memory[i].second.size()) {
        EXPECT_EQ(target.contents(i).substr(at, section.contents.size()), text_of(section.contents))
            << section.name;
      }
    }
  }
}

// A section that takes no part must stay as it is.
void leave_out(const std::string& name, MemoryPair* pair) {
  for (LinkedImage* const image : {&pair->old_image, &pair->new_image}) {
    std::erase_if(image->sections,
                  [&](const LoadedSection& section) { return section.name == name; });
  }
}

class MemoryRoundTrip : public testing::TestWithParam<ProgramChange> {
 protected:
  ProgramResult run(std::vector<std::string> arguments, std::initializer_list<std::string> more) {
    arguments.insert(arguments.end(), more);
    return run_program(arguments, directory_.name());
  }

  TemporaryDirectory directory_;
};

TEST_P(MemoryRoundTrip, LeavesTheMemoryOfTheNewImage) {
  MoveCount count = {};
  directory_.write("words", ".rodata\n");
  for (uint32_t round = 0; round < kRounds; ++round) {
    Random random(90001U + 1009U * static_cast<uint32_t>(GetParam()) + round);
    const ByteOrder order = round % 2 == 0 ? ByteOrder::kLittle : ByteOrder::kBig;
    MemoryPair pair = make_memory_pair(
        GetParam(), order, {8 + random.below(40), 40 + random.below(200), round % 3 == 0}, random);
    directory_.write("old.elf", text_of(build_image(pair.old_image.image)));
    directory_.write("new.elf", text_of(build_image(pair.new_image.image)));
    std::vector<std::string> command = random_options(random);
    command.insert(command.begin(), kelvane_program());
    SCOPED_TRACE("round " + std::to_string(round) + ": " + testing::PrintToString(command));
    std::vector<std::string> verification = {kelpatch_program(), "verify", "--ram"};
    if (round % 6 == 0) {
      leave_out(".rodata", &pair);
      command.insert(command.end(), {"-exclude", "words"});
      verification.insert(verification.end(), {"--exclude", "words"});
    }
    const auto expect_right_patch = [&](const ProgramResult& made) {
      ASSERT_EQ(made.status, 0) << made.errors;
      const ProgramResult verified = run(verification, {"old.elf", "new.elf", "a.patch"});
      ASSERT_EQ(verified.errors, "");
      ASSERT_EQ(verified.status, 0);
      expect_new_memory(pair, directory_.read("a.patch"), &count);
    };
    expect_right_patch(run(command, {"-o", "a.patch", "old.elf", "new.elf"}));
    ASSERT_FALSE(HasFailure());
    std::vector<std::string> other = {kelmake_program(), "-q", "--ram", "-o", "a.patch"};
    if (round % 6 == 0) {
      other.insert(other.end(), {"--exclude", "words"});
    }
    const char* const profiles[] = {"any", "wide", "libapply"};
    expect_right_patch(run(other, {"--profile", profiles[random.below(3)], "--format",
                                   std::to_string(random.below(2)), "old.elf", "new.elf"}));
    ASSERT_FALSE(HasFailure());
  }
  // The pairs do reach what they are for.
  EXPECT_GT(count.moved, 0U);
}

INSTANTIATE_TEST_SUITE_P(AllChanges, MemoryRoundTrip, testing::ValuesIn(kAllProgramChanges));

}  // namespace
}  // namespace kelvane
