#include "diffout.h"

#include <gtest/gtest.h>

#include "engine_steps.h"
#include "image.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {

// Commands in a table: address and size of each.
struct Commands {
  std::vector<Move> list;
};
static void from_text(const std::string& text, Commands* commands) {
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find(';', start), text.size());
    const size_t colon = text.find(':', start);
    commands->list.push_back(
        {static_cast<uint32_t>(std::stoul(text.substr(start))), std::stoi(text.substr(colon + 1))});
    start = end + 1;
  }
}

namespace {

class PatchFormat : public EngineTest {
 protected:
  PatchFormat() { new_output_buf(); }

  // The lists into which commands of a size are divided.
  static std::string lists_of(const Commands& commands) {
    command_record* first = nullptr;
    command_record* last = nullptr;
    for (const Move& command : commands.list) {
      command_record* const record = gen_alloc_array<command_record>(1);
      record->address = command.address;
      record->size = command.size;
      append_command(record, &first, &last);
    }
    command_list* lists = nullptr;
    command_list* last_list = nullptr;
    const uint16_t count = generate_command_list(first, &lists, &last_list, 0);
    std::string text;
    size_t found = 0;
    for (const command_list* list = lists; list != nullptr; list = list->next, ++found) {
      EXPECT_EQ(list->flags, found == 0 ? 0U : CL_RELATIVE);
      std::vector<std::string> addresses;
      for (const Move& command : moves_of(list->first)) {
        addresses.push_back(in_hex(command.address));
      }
      EXPECT_EQ(addresses.size(), list->num_commands);
      text += "[" + separated(addresses) + "]";
    }
    EXPECT_EQ(count, found);
    free_command_list(lists);
    return text;
  }

  // The bytes behind those shown last.
  std::string next(size_t count) {
    const Bytes all = output_bytes();
    shown_ = std::min(shown_, all.size());
    const size_t end = std::min(shown_ + count, all.size());
    const auto at = [&all](size_t place) { return all.begin() + static_cast<ptrdiff_t>(place); };
    const std::string text = hex_of({at(shown_), at(end)});
    shown_ = end;
    return text;
  }

  int32_t dump(int32_t x) {
    shown_ = 0;
    return dump_command_set(x);
  }

  size_t shown_ = 0;
};

TEST_F(PatchFormat, IsWhatTheTableSays) {
  std::list<Bytes> kept;
  go_through(KELVANE_TABLES "diffout.table",
             {{"lists", [](Commands commands) { return lists_of(commands); }},
              {"next", [this](size_t count) { return next(count); }},
              {"dump_command_set", [this](int32_t x) { return dump(x); }}},
             &kept);
}

class PatchOfFiles : public PatchFormat {
 protected:
  CapturedRun dump_to(const std::string& name) {
    return capture([&] { dump_to_file(&first_, &second_, name.c_str()); });
  }

  file_data first_ = {"old.elf", nullptr, 0x1122, 0x01020304, 0, nullptr, nullptr, 0};
  file_data second_ = {"new.elf", nullptr, 0x3344, 0x05060708, 0, nullptr, nullptr, 0};
  TemporaryDirectory directory_;
};

TEST_F(PatchOfFiles, PrintsWhatItWrites) {
  const Bytes bytes = bytes_of("0123456789abcdefg\1\2\11\5\5\5\5");
  add_substitution(0x1000, 17, &bytes[0]);
  add_substitution(0x1020, 2, &bytes[17]);
  add_substitution(0x9000, 1, &bytes[19]);
  add_substitution(0xA000, 4, &bytes[20]);
  debug_level = 4;
  std::string words = capture([] { dump_command_set(0); }).errors;
  debug_level = 0;

  // A patch of memory mode, with its bytes from the crt1 on.
  fDiffMemory = 1;
  version = 1;
  TargetIsBigEndian = 1;
  first_.crt1 = 0x100;
  second_.crt1 = 0x200;
  add_checksum(&first_checksum1, &last_checksum1, 0x1000, 0x10);
  checksum1 = 0xDEADBEEF;
  swap_trees = 3;
  debug_level = 2;
  num_moves = 7;
  new_output_buf();
  words += capture([this] { dump_commands(&first_, &second_); }).errors;
  EXPECT_EQ(words, read_whole_file(KELVANE_TABLES "diffout.words"));
  EXPECT_EQ(num_moves, 0);
  EXPECT_EQ(hex_of(output_bytes()).substr(0, 16), "0000000100000028");
  EXPECT_EQ(hex_of(output_bytes()).substr(24),
            "0000010000000200"                            // crt1
            "04000000010000100000001010deadbeef030000");  // checksum, moves
}

TEST_F(PatchOfFiles, WritesBothVersionsOfAPatchOfEqualFiles) {
  first_ = second_ = {"f", nullptr, 6, 0xAABBCCDD, 0, nullptr, nullptr, 0};
  EXPECT_EQ(dump_to(directory_.path("v0")).errors, "");
  EXPECT_EQ(hex_of(bytes_of(directory_.read("v0"))), "ddccbbaaddccbbaa0600000006000000030000");
  version = 1;
  debug_level = 1;
  EXPECT_EQ(dump_to(directory_.path("v1")).errors, "Patch size: 31  checksum: 0xc000\n");
  EXPECT_EQ(hex_of(bytes_of(directory_.read("v1"))),
            "7f5156520000000100000007000000000400000001000000ddccbbaaddccbbaa"
            "06000000060000001f00000000c00000030000");
}

TEST_F(PatchOfFiles, EndsTheRunWithoutCrt1OrWhereItCannotWrite) {
  fDiffMemory = 1;
  version = 1;
  for (const bool first : {true, false}) {
    first_.crt1 = first ? 0 : 5;
    second_.crt1 = first ? 5 : 0;
    const CapturedRun run = dump_to(directory_.path("p"));
    EXPECT_EQ(run.errors, std::string("fatal: could not find __qvr_ind_crt1() in '") +
                              (first ? "old.elf'\n" : "new.elf'\n"));
    EXPECT_EQ(run.status, 1);
  }
  for (const int32_t patch_version : {0, 1}) {
    version = patch_version;
    fDiffMemory = 0;
    CapturedRun run = dump_to(directory_.path("no/p"));
    EXPECT_EQ(run.errors, "fatal: gfile: could not open file for writing\n");
    EXPECT_EQ(run.status, 1);
    run = dump_to("/dev/full");
    EXPECT_EQ(run.errors, "fatal: error writing patch file '/dev/full': No space left on device\n");
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(PatchOfFiles, AsksWhetherItsPositionsCouldBeTaken) {
  version = 1;
  std::FILE* const pipe = ::popen("cat >/dev/null", "w");
  set_output_file(pipe);
  const CapturedRun run = capture([this] { dump_commands(&first_, &second_); });
  EXPECT_EQ(run.errors, "fatal: error writing patch file 'unnamed': Illegal seek\n");
  EXPECT_EQ(run.status, 1);
  set_output_file(nullptr);
  ::pclose(pipe);
}

}  // namespace
}  // namespace kelvane
