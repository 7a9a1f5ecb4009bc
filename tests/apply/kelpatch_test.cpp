// The program, run for real, on patches that need a builder or a limit; what can be said in a
// shell's words stands in tests/cli.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "patch_builder.h"
#include "run_program.h"
#include "temporary_directory.h"
#include "worked_patch.h"

namespace kelvane {
namespace {

using Order = PatchBuilder::Order;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Kelpatch : public ::testing::Test {
 protected:
  Kelpatch() {
    folder.write("old.bin", worked_old_file());
    folder.write("new.bin", worked_new_file());
  }

  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kelpatch_program());
    return run_program(arguments, folder.name());
  }
  // One line on standard error, nothing on standard output.
  void expect_failure(const std::vector<std::string>& arguments, int status,
                      const std::string& message) const {
    const ProgramResult result = run(arguments);
    EXPECT_EQ(result.errors, "kelpatch: " + message + "\n");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, status);
  }

  TemporaryDirectory folder;
};

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

#if !defined(__SANITIZE_ADDRESS__)
TEST_F(Kelpatch, SaysThatMemoryIsExhausted) {
  PatchBuilder commands(Order::kBig);
  commands.fill({{0x7FFFFFFE, 1, 'x'}});
  std::string large = commands.version1(worked_old_file(), "");
  large.replace(36, 4, from_hex("7FFFFFFF"));
  folder.write("large", large);
  const ProgramResult result = run_program(
      {"/bin/sh", "-c",
       "ulimit -v 500000; exec \"$K\" apply old.bin large -o out --max-size 2147483647"},
      folder.name(), {{"K", kelpatch_program()}});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "kelpatch: fatal: out of memory\n");
}
#endif

}  // namespace
}  // namespace kelvane
