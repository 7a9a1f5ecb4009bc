#include "diffout.h"

#include <gtest/gtest.h>

#include <list>

#include "binshared.h"
#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "image.h"
#include "increments.h"
#include "substitution.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

Bytes written() {
  return {get_output_buf(), get_output_buf() + get_output_buf_size()};
}

class PatchFormat : public EngineTest {
 protected:
  PatchFormat() { new_output_buf(); }

  // Adds a substitution of bytes that live as long as the test.
  void substitute(uint32_t address, Bytes bytes) {
    const Bytes& kept = images_.emplace_back(std::move(bytes));
    add_substitution(address, static_cast<uint32_t>(kept.size()), kept.data());
  }

  // The CM_SUBSTITUTE of what was added so far, and nothing else.
  Bytes substitute_command() {
    new_output_buf();
    dump_sub_command(CM_SUBSTITUTE, first_sub, 0);
    first_sub = nullptr;
    last_sub = nullptr;
    return written();
  }

  std::list<Bytes> images_;
};

TEST_F(PatchFormat, DividesAListIntoAbsoluteAndRelativeCommands) {
  TargetIsBigEndian = 1;
  substitute(0x1000, {0x11, 0x22});
  substitute(0x1010, {0x33, 0x44, 0x55});
  substitute(0x5000, {0x66, 0x77});
  EXPECT_EQ(substitute_command(),
            (Bytes{0x01, 0x00, 0x02,                                            // code, lists
                   0x00, 0x01, 0x00, 0x00, 0x50, 0x00, 0, 0, 0, 2, 0x66, 0x77,  // absolute list
                   0x00, 0x02, 0x00, 0x00, 0x10, 0x00,  // relative list, base
                   0x00, 0x02, 0x11, 0x22,              // distance, size, data
                   0x10, 0x03, 0x33, 0x44, 0x55}));
  TargetIsBigEndian = 0;
  substitute(0x5000, {0x66, 0x77});
  EXPECT_EQ(substitute_command(), (Bytes{1, 1, 0, 1, 0, 0x00, 0x50, 0, 0, 2, 0, 0, 0, 0x66, 0x77}));
}

TEST_F(PatchFormat, KeepsDistancesAndSizesOfARelativeListInAByte) {
  use_fill_command = 0;
  compressed_substitutions = 0;
  const auto lists_of = [this](std::vector<Move> commands) {
    for (const Move& command : commands) {
      substitute(command.address, Bytes(static_cast<size_t>(command.size), 'x'));
    }
    command_list* lists = nullptr;
    command_list* last = nullptr;
    const uint16_t count = generate_command_list(first_sub, &lists, &last, 0);
    first_sub = nullptr;
    last_sub = nullptr;
    std::vector<std::vector<uint32_t>> addresses;
    for (const command_list* list = lists; list != nullptr; list = list->next) {
      EXPECT_EQ(list->flags, addresses.empty() ? 0U : CL_RELATIVE);
      addresses.emplace_back();
      for (const command_record* record = list->first; record != nullptr; record = record->next) {
        addresses.back().push_back(record->address);
      }
      EXPECT_EQ(addresses.back().size(), list->num_commands);
    }
    EXPECT_EQ(count, addresses.size());
    free_command_list(lists);
    return addresses;
  };
  using Lists = std::vector<std::vector<uint32_t>>;
  EXPECT_EQ(lists_of({{0, 255}, {255, 255}}), (Lists{{}, {0, 255}}));
  EXPECT_EQ(lists_of({{0, 255}, {256, 255}}), (Lists{{0, 256}}));
  EXPECT_EQ(lists_of({{0, 256}, {100, 255}}), (Lists{{0, 100}}));
  EXPECT_EQ(lists_of({{0, 2}, {100, 256}}), (Lists{{0, 100}}));
  EXPECT_EQ(lists_of({{0, 2}, {10, 2}, {20, 256}}), (Lists{{20}, {0, 10}}));
  EXPECT_EQ(lists_of({{100, 2}, {50, 2}}), (Lists{{100, 50}}));  // descending
  EXPECT_EQ(lists_of({{0, 2}, {10, 2}, {1000, 2}, {2000, 2}, {2010, 2}}),
            (Lists{{1000}, {0, 10}, {2000, 2010}}));
  relative_substitutions = 0;
  EXPECT_EQ(lists_of({{0, 2}, {10, 2}}), (Lists{{0, 10}}));
}

TEST_F(PatchFormat, WritesSingleBytesWithoutSizes) {
  TargetIsBigEndian = 1;
  substitute(0x1000, {0xAA});
  substitute(0x1005, {0xBB});
  substitute(0x9000, {0xCC});
  dump_command_set(0);
  EXPECT_EQ(written(), (Bytes{3, 0, 0,                                      //
                              2, 0, 2,                                      //
                              0, 1, 0, 0, 0x90, 0, 0xCC,                    // absolute
                              0, 2, 0, 0, 0x10, 0, 0,    0xAA, 5, 0xBB}));  // relative
  EXPECT_EQ(first_sub_one, nullptr);
}

TEST_F(PatchFormat, WritesEachKindInItsOrderAndEmptiesTheLists) {
  incr_enabled = 1;
  add_move(0x10, -4);
  add_move(0x20, 0);
  substitute(0x100, Bytes(100, 'a'));  // a fill
  substitute(0x200, {1, 2});           // bytes
  substitute(0x300, {7});              // one byte
  use_fill_command = 0;
  substitute(0x400, Bytes(18, 0));  // too short to be compressed
  min_compression_length = 3;
  substitute(0x500, Bytes(18, 0));  // compressed: 00 DC FF
  add_increment(0x1000, 4, 4, 1);
  EXPECT_EQ(dump_command_set(42), 42);
  Bytes expected = {3, 1, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0, 0xFC, 0xFF, 0xFF, 0xFF};
  const Bytes substitutes = joined(
      {{1, 1, 0, 2, 0}, {0, 2, 0, 0, 2, 0, 0, 0, 1, 2}, {0, 4, 0, 0, 18, 0, 0, 0}, Bytes(18, 0)});
  const Bytes compressed = {5, 1, 0, 1, 0, 0, 5, 0, 0, 3, 0, 0, 0, 0, 0xDC, 0xFF};
  const Bytes single = {2, 1, 0, 1, 0, 0, 3, 0, 0, 7};
  const Bytes fill = {6, 1, 0, 0, 1, 0, 0, 100, 0, 'a'};
  const Bytes result = written();
  expected = joined({expected, substitutes, compressed, single, fill});
  ASSERT_GT(result.size(), expected.size());
  EXPECT_EQ(Bytes(result.begin(), result.begin() + static_cast<std::ptrdiff_t>(expected.size())),
            expected);
  EXPECT_EQ(result[expected.size()], 7);  // CM_INCRS comes last

  new_output_buf();
  incr_enabled = 0;
  dump_command_set(0);
  EXPECT_EQ(written(), (Bytes{3, 0, 0}));
}

class PatchOfFiles : public PatchFormat {
 protected:
  file_data first_ = {"old.elf", nullptr, 0x1122, 0x01020304, 0, nullptr, nullptr, 0};
  file_data second_ = {"new.elf", nullptr, 0x3344, 0x05060708, 0, nullptr, nullptr, 0};
};

TEST_F(PatchOfFiles, WritesBothVersionsOfAPatchOfEqualFiles) {
  const TemporaryDirectory directory;
  file_data file = {"f", nullptr, 6, 0xAABBCCDD, 0, nullptr, nullptr, 0};
  dump_to_file(&file, &file, directory.path("v0").c_str());
  EXPECT_EQ(bytes_of(directory.read("v0")), (Bytes{0xDD, 0xCC, 0xBB, 0xAA, 0xDD, 0xCC, 0xBB, 0xAA,
                                                   6, 0, 0, 0, 6, 0, 0, 0, 3, 0, 0}));
  version = 1;
  debug_level = 1;
  const CapturedRun run =
      capture([&] { dump_to_file(&file, &file, directory.path("v1").c_str()); });
  EXPECT_EQ(run.errors, "Patch size: 31  checksum: 0xc000\n");
  EXPECT_EQ(bytes_of(directory.read("v1")),
            joined({{0x7F, 'Q', 'V', 'R', 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 0, 4, 0, 0, 0},
                    {1, 0, 0, 0, 0xDD, 0xCC, 0xBB, 0xAA, 0xDD, 0xCC, 0xBB, 0xAA},
                    {6, 0, 0, 0, 6, 0, 0, 0, 31, 0, 0, 0, 0, 0xC0, 0, 0, 3, 0, 0}}));
}

TEST_F(PatchOfFiles, FramesMemoryModeWithCrt1AndChecksums) {
  fDiffMemory = 1;
  version = 1;
  TargetIsBigEndian = 1;
  first_.crt1 = 0x100;
  second_.crt1 = 0x200;
  add_checksum(&first_checksum1, &last_checksum1, 0x1000, 0x10);
  checksum1 = 0xDEADBEEF;
  debug_level = 2;
  const CapturedRun run = capture([this] { dump_commands(&first_, &second_); });
  EXPECT_EQ(run.errors,
            "\n"
            "old.elf: crt1: 0x100\n"
            "new.elf: crt1: 0x200\n"
            "\nCM_CHECKSUM\n"
            "num_regions=1\n"
            " range=0x1000 - 0x100f\n"
            " checksum=0xdeadbeef\n"
            "\nCM_MOVE\n"
            "num_blocks=0\n"
            "\nCM_SUBSTITUTE\n"
            "\nCM_SUB_COMP\n"
            "\nCM_SUB_ONE\n"
            "\nCM_FILL\n"
            "\nCM_CHECKSUM\n"
            "\n"
            "Patch size: 40  checksum: 0xf14bff4\n");
  const Bytes result = written();
  EXPECT_EQ(Bytes(result.begin(), result.begin() + 8), (Bytes{0, 0, 0, 1, 0, 0, 0, 40}));
  EXPECT_EQ(
      Bytes(result.begin() + 12, result.end()),
      (Bytes{0, 0, 1, 0, 0, 0, 2, 0,  // crt1
             4, 0, 0, 0, 1, 0, 0, 0x10, 0, 0, 0, 0x10, 0x10, 0xDE, 0xAD, 0xBE, 0xEF, 3, 0, 0}));
}

TEST_F(PatchOfFiles, EndsTheRunWithoutCrt1OrWhereItCannotWrite) {
  const TemporaryDirectory directory;
  fDiffMemory = 1;
  version = 1;
  second_.crt1 = 5;
  CapturedRun run = capture([&] { dump_to_file(&first_, &second_, directory.path("p").c_str()); });
  EXPECT_EQ(run.errors, "fatal: could not find __qvr_ind_crt1() in 'old.elf'\n");
  EXPECT_EQ(run.status, 1);
  first_.crt1 = 5;
  second_.crt1 = 0;
  run = capture([&] { dump_to_file(&first_, &second_, directory.path("p").c_str()); });
  EXPECT_EQ(run.errors, "fatal: could not find __qvr_ind_crt1() in 'new.elf'\n");
  for (const int32_t patch_version : {0, 1}) {
    version = patch_version;
    fDiffMemory = 0;
    run = capture([&] { dump_to_file(&first_, &second_, directory.path("no/p").c_str()); });
    EXPECT_EQ(run.errors, "fatal: gfile: could not open file for writing\n");
    EXPECT_EQ(run.status, 1);
    run = capture([&] { dump_to_file(&first_, &second_, "/dev/full"); });
    EXPECT_EQ(run.errors, "fatal: error writing patch file '/dev/full': No space left on device\n");
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(PatchFormat, PrintsWhatItWrites) {
  substitute(0x1000, bytes_of("0123456789abcdefg"));
  substitute(0x1020, {1, 2});
  substitute(0x9000, {9});
  substitute(0xA000, {5, 5, 5, 5});
  debug_level = 4;
  EXPECT_EQ(capture([] { dump_command_set(0); }).errors,
            "\nCM_MOVE\n"
            "num_blocks=0\n"
            "\nCM_SUBSTITUTE\n"
            " generate_command_list\n"
            "  add rel(0x1000)\n"
            "  add rel(0x1020)\n"
            "num_lists=2\n"
            "num_commands=0\n"
            " size: 0x6 - 0x8\n"
            "num_commands=2 (rel)\n"
            " <0x1000, 0x11>\n"
            "   30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66\n"
            "   67\n"
            " <0x1020, 0x2>\n"
            "   01 02\n"
            " size: 0x8 - 0x25\n"
            "\nCM_SUB_COMP\n"
            "\nCM_SUB_ONE\n"
            " generate_command_list\n"
            "  add abs(0x9000)\n"
            "num_lists=1\n"
            "num_commands=1\n"
            " <0x9000>\n"
            "   09\n"
            " size: 0x28 - 0x2f\n"
            "\nCM_FILL\n"
            "num_commands=1\n"
            " <0xa000, 0x4, 0x05>\n"
            " size: 0x2f - 0x39\n");
}

}  // namespace
}  // namespace kelvane
