// The program, run for real.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "patch_builder.h"
#include "run_program.h"
#include "temporary_directory.h"
#include "worked_patch.h"

namespace kelvane {
namespace {

namespace fs = std::filesystem;
using Order = PatchBuilder::Order;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Kelpatch : public ::testing::Test {
 protected:
  Kelpatch() {
    folder.write("old.bin", worked_old_file());
    folder.write("new.bin", worked_new_file());
    folder.write("diff.out", worked_patch());
  }

  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kelpatch_program());
    return run_program(arguments, folder.name());
  }
  ProgramResult shell(const std::string& script) const {
    return run_program({"/bin/sh", "-c", script}, folder.name(), {{"K", kelpatch_program()}});
  }
  // One line on standard error, nothing on standard output.
  void expect_failure(const std::vector<std::string>& arguments, int status,
                      const std::string& message) const {
    const ProgramResult result = run(arguments);
    EXPECT_EQ(result.errors, "kelpatch: " + message + "\n");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, status);
  }
  // The patch with the checksum of the patch itself made to fit again.
  void write_version1(const PatchBuilder& commands, const std::string& old_file,
                      const std::string& new_file) const {
    folder.write("diff.out", commands.version1(old_file, new_file));
    folder.write("old.bin", old_file);
    folder.write("new.bin", new_file);
  }
  size_t entries() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder.name()), {}));
  }

  TemporaryDirectory folder;
};

TEST_F(Kelpatch, PrintsHelpAndVersionOnStandardOutput) {
  const ProgramResult help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.errors, "");
  EXPECT_THAT(help.output, StartsWith("usage: kelpatch show [options] PATCH\n"));
  EXPECT_EQ(run({"apply", "--help"}).output, help.output);
  const ProgramResult version = run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, ::testing::MatchesRegex("kelpatch [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(Kelpatch, RefusesACallThatItDoesNotKnow) {
  const struct {
    std::vector<std::string> arguments;
    const char* text;
  } calls[] = {
      {{}, "no command given"},
      {{"merge"}, "unknown command 'merge'"},
      {{"show"}, "'show' takes one file"},
      {{"show", "a", "b"}, "'show' takes one file"},
      {{"show", "a", "-o", "b"}, "'show' writes no file"},
      {{"apply", "a", "-o", "b"}, "'apply' takes two files"},
      {{"apply", "a", "b"}, "'apply' requires the option '-o'"},
      {{"apply", "a", "b", "-o"}, "option '-o' requires an argument"},
      {{"verify", "a", "b"}, "'verify' takes three files"},
      {{"show", "a", "--byte-order"}, "option '--byte-order' requires an argument"},
      {{"show", "a", "--byte-order=middle"}, "unknown byte order 'middle'"},
      {{"show", "a", "--quiet"}, "unknown option '--quiet'"},
      {{"show", "a", "--help=b"}, "unknown option '--help=b'"},
  };
  for (const auto& [arguments, text] : calls) {
    expect_failure(arguments, 2, std::string("error: ") + text + " (see kelpatch --help)");
  }
  expect_failure({"show", "--", "--quiet"}, 2,
                 "fatal: unable to open input file '--quiet': No such file or directory");
}

TEST_F(Kelpatch, ShowsEachCommandInWords) {
  const ProgramResult result = run({"show", "diff.out"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "version 1, file mode, big-endian, 163 bytes\n"
            "old file: 64 bytes, checksum 0x125dceeb\n"
            "new file: 68 bytes, checksum 0xa056bbcf\n"
            "\n"
            "CM_MOVE, 1 block\n"
            "  move 48 bytes from 0x10 to 0x14 (+4)\n"
            "CM_SUBSTITUTE, 2 lists\n"
            "  absolute list, 1 command\n"
            "    store 4 bytes at 0x10: 4e 45 57 21\n"
            "  relative list from 0x25, 2 commands\n"
            "    store 2 bytes at 0x25: 78 79\n"
            "    store 1 byte at 0x29: 7a\n"
            "CM_SUB_COMP, 1 list\n"
            "  absolute list, 1 command\n"
            "    expand 6 bytes to 8 bytes at 0x3c: 07 61 62 63 ee f2\n"
            "CM_SUB_ONE, 1 list\n"
            "  absolute list, 1 command\n"
            "    store 0x21 at 0x16\n"
            "CM_SUB_ONE, 2 lists\n"
            "  absolute list, 0 commands\n"
            "  relative list from 0x2d, 2 commands\n"
            "    store 0x2d at 0x2d\n"
            "    store 0x2b at 0x30\n"
            "CM_FILL, 1 fill\n"
            "  fill 8 bytes at 0x34 with 0xff\n"
            "CM_INCRS, 11 bytes\n"
            "  class of 4 (0x00000004), map 0x163470\n"
            "    add 4 to the word at 0x0\n"
            "    add 4 to the word at 0x4\n"
            "    add 4 to the word at 0x8\n"
            "\n"
            "kind            commands     items  patch bytes  target bytes\n"
            "header                 0         0           48             0\n"
            "CM_MOVE                1         1           15            48\n"
            "CM_SUBSTITUTE          1         3           30             7\n"
            "CM_SUB_COMP            1         1           19             8\n"
            "CM_SUB_ONE             2         3           25             3\n"
            "CM_FILL                1         1           10             8\n"
            "CM_INCRS               1         3           16            12\n"
            "total                  7        12          163            86\n");
}

TEST_F(Kelpatch, ShowsAMemoryPatch) {
  PatchBuilder commands(Order::kLittle);
  commands.checksum({{0x8000, 0x8100}, {0x9000, 0x9001}}, 0x1234);
  commands.move({{0x8010, 4, 0xFFFFFFFC}}).substitute(1, {{0x8000, std::string(17, 'a')}});
  commands.increments({{0xFFFFFFF0, {0x8000}}}).checksum({}, 0);
  folder.write("memory.out", commands.version1_memory(0x8000, 0x8004));
  EXPECT_EQ(run({"show", "memory.out"}).output,
            "version 1, memory mode, little-endian, 133 bytes\n"
            "old start-up code at 0x8000\n"
            "new start-up code at 0x8004\n"
            "\n"
            "CM_CHECKSUM of the old contents, 2 regions\n"
            "  region of 256 bytes at 0x8000\n"
            "  region of 1 byte at 0x9000\n"
            "  checksum 0x00001234\n"
            "CM_MOVE, 1 block\n"
            "  move 4 bytes from 0x8010 to 0x800c (-4)\n"
            "CM_SUBSTITUTE, 1 list\n"
            "  absolute list, 1 command\n"
            "    store 17 bytes at 0x8000: 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 ...\n"
            "CM_INCRS, 9 bytes\n"
            "  class of -16 (0xfffffff0), map 0x1ac688\n"
            "    add -16 to the word at 0x8000\n"
            "CM_CHECKSUM of the new contents, 0 regions\n"
            "  checksum 0x00000000\n"
            "\n"
            "kind            commands     items  patch bytes  target bytes\n"
            "header                 0         0           40             0\n"
            "CM_CHECKSUM            2         2           34           257\n"
            "CM_MOVE                1         1           15             4\n"
            "CM_SUBSTITUTE          1         1           30            17\n"
            "CM_INCRS               1         1           14             4\n"
            "total                  5         5          133           282\n");
  const char* const text =
      "fatal: 'memory.out' is a patch for target memory, and only a patch for a file can be "
      "applied "
      "here";
  expect_failure({"apply", "old.bin", "memory.out", "-o", "out"}, 2, text);
  expect_failure({"verify", "old.bin", "new.bin", "memory.out"}, 2, text);
}

// Version 0 stores no byte order and no mode.
TEST_F(Kelpatch, FindsTheByteOrderOfAVersion0Patch) {
  for (const Order order : {Order::kLittle, Order::kBig}) {
    const std::string name = order == Order::kBig ? "big" : "little";
    const std::string other = order == Order::kBig ? "little" : "big";
    PatchBuilder commands(order);
    commands.move({}).fill({{1, 2, '-'}});
    folder.write("old", "abcd");
    folder.write("new", "a--d");
    folder.write("patch", commands.version0("abcd", "a--d"));
    EXPECT_THAT(run({"show", "patch"}).output, StartsWith("version 0, file mode, " + name +
                                                          "-endian (found from the sizes), 29 "));
    EXPECT_THAT(run({"show", "--byte-order", name, "patch"}).output,
                StartsWith("version 0, file mode, " + name + "-endian (as told), 29 bytes\n"));
    EXPECT_EQ(run({"verify", "old", "new", "patch"}).errors, "");
    EXPECT_EQ(run({"apply", "old", "patch", "--output=out"}).status, 0);
    EXPECT_EQ(folder.read("out"), "a--d");
    EXPECT_THAT(run({"verify", "old", "new", "patch", "--byte-order=" + other}).errors,
                HasSubstr("patch file 'patch' is damaged at offset 19: a command runs over"));
    // Sizes that read the same in both orders leave it to the commands, and then to their
    // addresses.
    PatchBuilder alike(order);
    alike.fill({{2, 1, 'x'}});
    std::string patch = alike.version0("", "");
    patch.replace(8, 8, from_hex("00010100 00010100"));
    folder.write("alike", patch);
    EXPECT_THAT(run({"show", "alike"}).output, HasSubstr(name + "-endian"));
  }
  // The old file decides where the patch is sound in both orders.
  PatchBuilder empty(Order::kBig);
  empty.move({});
  folder.write("empty", empty.version0(std::string(256, 'a'), std::string(256, 'a')));
  folder.write("short", std::string(256, 'a'));
  EXPECT_EQ(run({"apply", "short", "empty", "-o", "out"}).status, 0);
  PatchBuilder memory(Order::kBig);
  memory.move({}).fill({{0x80, 1, 0}});
  folder.write("ram", memory.version0("a", "b"));
  folder.write("a", "a");
  EXPECT_THAT(
      run({"show", "ram"}).output,
      StartsWith("version 0, memory mode (addresses outside both files), big-endian (found"));
  expect_failure(
      {"apply", "a", "ram", "-o", "out"}, 2,
      "fatal: 'ram' changes the address 0x80 (at offset 22), outside the old and the new "
      "file: it may be for target memory or have another byte order");
}

TEST_F(Kelpatch, AppliesAPatch) {
  const size_t before = entries();
  const ProgramResult result = run({"apply", "-o", "out.bin", "old.bin", "diff.out"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output + result.errors, "");
  EXPECT_EQ(folder.read("out.bin"), worked_new_file());
  EXPECT_EQ(entries(), before + 1);
  // What had the name goes only when the new file is there; it passes on its mode, and a link to it
  // stays a link.
  folder.write("kept.bin", "before");
  fs::permissions(folder.path("kept.bin"), fs::perms::owner_all);
  fs::create_symlink("kept.bin", folder.path("link.bin"));
  EXPECT_EQ(run({"apply", "old.bin", "diff.out", "-o", "link.bin"}).status, 0);
  EXPECT_TRUE(fs::is_symlink(folder.path("link.bin")));
  EXPECT_EQ(folder.read("kept.bin"), worked_new_file());
  EXPECT_EQ(fs::status(folder.path("kept.bin")).permissions(), fs::perms::owner_all);
}

TEST_F(Kelpatch, GivesStatus1WhereSomethingDoesNotMatch) {
  EXPECT_EQ(run({"verify", "old.bin", "new.bin", "diff.out"}).status, 0);
  expect_failure({"apply", "new.bin", "diff.out", "-o", "out"}, 1,
                 "error: 'new.bin' is not the old file of 'diff.out': it has 68 bytes, not 64");
  std::string other = worked_old_file();
  other[63] = 'x';
  folder.write("other.bin", other);
  expect_failure(
      {"verify", "other.bin", "new.bin", "diff.out"}, 1,
      "error: 'other.bin' is not the old file of 'diff.out': its checksum is 0x125dcf24, "
      "not 0x125dceeb");
  expect_failure({"verify", "old.bin", "old.bin", "diff.out"}, 1,
                 "error: 'old.bin' is not the new file of 'diff.out': it has 64 bytes, not 68");
  // Bytes 32 apart weigh the same in the checksum.
  std::string wrong = worked_new_file();
  ++wrong[0x20];
  folder.write("wrong.bin", wrong);
  EXPECT_THAT(run({"verify", "old.bin", "wrong.bin", "diff.out"}).errors,
              HasSubstr("'wrong.bin' is not the new file of 'diff.out': its checksum is 0x"));
  --wrong[0x40];
  folder.write("wrong.bin", wrong);
  expect_failure({"verify", "old.bin", "wrong.bin", "diff.out"}, 1,
                 "error: 'wrong.bin' differs from the result of 'diff.out' at offset 32");
  PatchBuilder commands(Order::kLittle);
  commands.move({}).substitute(2, {{0, "b"}});
  write_version1(commands, "a", "c");
  folder.write("kept", "before");
  expect_failure({"apply", "old.bin", "diff.out", "-o", "kept"}, 1,
                 "error: the result of 'diff.out' has the checksum 0x00000062, not 0x00000063");
  EXPECT_EQ(folder.read("kept"), "before");
}

TEST_F(Kelpatch, GivesStatus2ForTroubleWithAnInput) {
  expect_failure({"apply", "old.bin", "missing", "-o", "out"}, 2,
                 "fatal: unable to open input file 'missing': No such file or directory");
  expect_failure({"show", "."}, 2, "fatal: error reading input file '.': Is a directory");
  folder.write("cut", worked_patch().substr(0, 162));
  expect_failure({"show", "cut"}, 2,
                 "fatal: patch file 'cut' is damaged at offset 20: the patch has not the size that "
                 "its header states");
  folder.write("empty", "");
  expect_failure({"show", "empty"}, 2,
                 "fatal: patch file 'empty' is damaged at offset 0: the patch is shorter than its "
                 "header");
  folder.write("huge", "");
  fs::resize_file(folder.path("huge"), 2147483648);
  expect_failure({"show", "huge"}, 2, "fatal: input file 'huge' has more than 2147483647 bytes");
  PatchBuilder commands(Order::kBig);
  commands.move({}).fill({{3, 2, 0}});
  write_version1(commands, "abcd", "abcd");
  expect_failure(
      {"verify", "old.bin", "new.bin", "diff.out"}, 2,
      "fatal: 'diff.out' changes the address 0x3 (at offset 54), outside the old and the "
      "new file");
  std::string large = worked_patch();
  large[36] = '\x80';
  folder.write("large", large);
  expect_failure({"apply", "old.bin", "large", "-o", "out"}, 2,
                 "fatal: 'large' is for a file of more than 2147483647 bytes");
}

TEST_F(Kelpatch, GivesStatus2ForTroubleWithAnOutput) {
  for (const char* const input : {"old.bin", "diff.out"}) {
    expect_failure({"apply", "old.bin", "diff.out", "-o", input}, 2,
                   std::string("fatal: output file '") + input + "' is also an input file");
  }
  expect_failure({"apply", "old.bin", "diff.out", "-o", "missing/out"}, 2,
                 "fatal: unable to open output file 'missing/out': No such file or directory");
  expect_failure({"apply", "old.bin", "diff.out", "-o", "."}, 2,
                 "fatal: output file '.' exists and is not a regular file");
  EXPECT_EQ(folder.read("old.bin"), worked_old_file());
  EXPECT_EQ(folder.read("diff.out"), worked_patch());

  const ProgramResult full = shell("\"$K\" show diff.out >/dev/full");
  EXPECT_EQ(full.status, 2);
  EXPECT_EQ(full.errors,
            "kelpatch: fatal: error writing standard output: No space left on device\n");
}

// A file that can't be written whole leaves what was there, and nothing beside it.
TEST_F(Kelpatch, LeavesNoHalfWrittenOutput) {
  PatchBuilder commands(Order::kLittle);
  commands.move({}).fill({{0, 5000, 'x'}});
  write_version1(commands, "", std::string(5000, 'x'));
  folder.write("kept", "before");
  const size_t before = entries();
  const ProgramResult result =
      shell("trap '' XFSZ; ulimit -f 2; exec \"$K\" apply old.bin diff.out -o kept");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "kelpatch: fatal: error writing output file 'kept': File too large\n");
  EXPECT_EQ(folder.read("kept"), "before");
  EXPECT_EQ(entries(), before);
}

#if !defined(__SANITIZE_ADDRESS__)
TEST_F(Kelpatch, SaysThatMemoryIsExhausted) {
  std::string large = worked_patch();
  large.replace(36, 4, from_hex("7FFFFFFF"));
  folder.write("large", large);
  const ProgramResult result = shell("ulimit -v 500000; exec \"$K\" apply old.bin large -o out");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "kelpatch: fatal: out of memory\n");
}
#endif

}  // namespace
}  // namespace kelvane
