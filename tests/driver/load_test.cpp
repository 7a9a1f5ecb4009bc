#include "load.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

#include "archive_builder.h"
#include "captured_run.h"
#include "changed_surroundings.h"
#include "child_process.h"
#include "debug_print.h"
#include "image_builder.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "ordinary_user.h"
#include "reset_state.h"
#include "section_filter.h"
#include "section_list.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

namespace fs = std::filesystem;

class Loading : public testing::Test {
 protected:
  Loading() {
    reset_all_state();
    gen_changeprogname("kelvane");
  }
  ~Loading() override { reset_all_state(); }

  TemporaryDirectory tree_;
  ChangedDirectory here_{tree_.name()};
};

TEST_F(Loading, TakesAFileWholeWithItsChecksum) {
  tree_.write("abc", "abc");
  file_data record;
  record.crt1 = 7;
  const char* const name = "abc";
  ASSERT_EQ(load_file(&record, name), 1);
  EXPECT_EQ(record.name, name);
  EXPECT_EQ(record.size, 3);
  EXPECT_EQ(std::string(record.bytes, record.bytes + 3), "abc");
  EXPECT_EQ(record.checksum, 0x187163U);
  EXPECT_EQ(record.big_endian, 0);
  EXPECT_EQ(record.crt1, 0U);
  EXPECT_EQ(record.sections, record.sections_end);
  release_file(&record);
}

TEST_F(Loading, TakesFilesOfManyPieces) {
  for (const size_t size : {1023U, 1024U, 1025U, 262144U, 300001U}) {
    std::string contents(size, '\0');
    for (size_t i = 0; i < size; ++i) {
      contents[i] = static_cast<char>(static_cast<uint8_t>(i * 7 + i / 1024));
    }
    tree_.write("file", contents);
    uint8_t* read = nullptr;
    ASSERT_EQ(read_file(&read, "file"), static_cast<int32_t>(size));
    const gen_ptr<uint8_t> bytes(read);
    EXPECT_TRUE(std::string(read, read + size) == contents) << size;
  }
}

TEST_F(Loading, GivesTheByteOrderOfTheImageReadLast) {
  tree_.write("abc", "abc");
  for (const int32_t order : {0, 1, 2}) {
    endian = order;
    file_data record = {};
    ASSERT_EQ(load_file(&record, "abc"), 1);
    EXPECT_EQ(record.big_endian, order == 1 ? 1 : 0);
    release_file(&record);
  }
}

TEST_F(Loading, RefusesAFileThatTheUserMayNotRead) {
  tree_.write("secret", "abc");
  fs::permissions(tree_.name(), fs::perms::all);
  fs::permissions("secret", fs::perms::none);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(as_ordinary_user([] {
    file_data record = {};
    return load_file(&record, "secret") == 0;
  }));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kelvane: fatal: unable to open input file 'secret': Permission denied\n");
}

TEST_F(Loading, MeasuresAStreamAndPutsItBackToItsStart) {
  tree_.write("file", "abcde");
  const file_ptr stream(std::fopen("file", "r"));
  std::fgetc(stream.get());
  EXPECT_EQ(file_size(stream.get()), 5);
  EXPECT_EQ(std::ftell(stream.get()), 0);
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const file_ptr pipe(::fdopen(ends[0], "r"));
  EXPECT_EQ(file_size(pipe.get()), -1);
  ::close(ends[1]);
}

// Lets every read of this process fail from now on.
bool let_reads_fail() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_read, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog filter = {std::size(program), program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(Loading, NeverTakesPartOfAFileThatCannotBeRead) {
  tree_.write("file", "abc");
  const ChildResult child = in_child([] {
    uint8_t* bytes = nullptr;
    if (let_reads_fail() && read_file(&bytes, "file") == -1 && bytes == nullptr) {
      file_data record = {};
      ::_exit(load_file(&record, "file"));
    }
  });
  EXPECT_EQ(child.status, 0);
  const std::string line =
      "kelvane: fatal: error while reading input file 'file': Input/output error\n";
  EXPECT_EQ(child.words, line + line);
}

Image big_endian_image() {
  Image image;
  image.order = ByteOrder::kBig;
  image.sections = {{.name = ".text", .addr = 0x1000, .content = Bytes(16)}};
  image.symbols = {crt1_symbol(0x1008, ".text")};
  return image;
}

TEST_F(Loading, TakesAnImageApart) {
  tree_.write("image", text_of(build_image(big_endian_image())));
  fDiffMemory = 1;
  file_data record = {};
  ASSERT_EQ(load_file(&record, "image"), 1);
  EXPECT_EQ(record.big_endian, 1);
  EXPECT_EQ(record.crt1, 0x1008U);
  ASSERT_EQ(record.sections_end - record.sections, 1);
  EXPECT_STREQ(record.sections->name, ".text");
  EXPECT_EQ(record.sections->offset.low, 52U);
  EXPECT_EQ(table.count, 2);
  const elf32::symbol* const symbols = table.records;

  tree_.write("plain", "abc");
  file_data plain = {};
  ASSERT_EQ(load_file(&plain, "plain"), 1);
  EXPECT_EQ(plain.big_endian, 1) << "that of the image read before";
  EXPECT_EQ(plain.crt1, 0U);
  EXPECT_EQ(plain.sections, plain.sections_end);
  EXPECT_EQ(table.records, symbols) << "and its symbols";
  release_file(&record);
  release_file(&plain);
}

TEST_F(Loading, TakesEachObjectOfALibraryIntoOneList) {
  Image second = big_endian_image();
  second.sections[0].name = ".data";
  second.symbols.push_back({.name = "more"});
  const std::string one = text_of(build_image(big_endian_image()));
  const std::string two = text_of(build_image(second));
  tree_.write("lib.a", common_archive({{"one.o/", one}, {"two.o/", two}}));
  fDiffMemory = 1;
  debug_level = 1;
  add_section_exclusion(".data");
  file_data record = {};
  EXPECT_EQ(capture([&] { load_file(&record, "lib.a"); }).errors,
            "Skipping section '.data' in file 'lib.a(two.o)' because of exclusion '.data'\n");
  ASSERT_EQ(record.sections_end - record.sections, 1);
  EXPECT_EQ(record.sections->object_start, 68U);
  EXPECT_EQ(record.sections->offset.low, 52U);
  EXPECT_EQ(table.count, 3) << "the last object's";
  release_file(&record);
}

TEST_F(Loading, LeavesNothingBehindWhereAnImageEndsTheRun) {
  add_section_exclusion(".ROM.data");
  Image image = big_endian_image();
  image.sections.push_back({.name = ".ROM.data", .content = {1}});
  tree_.write("image", text_of(build_image(image)));
  fDiffMemory = 1;
  file_data record = {};
  const CapturedRun run = capture([&] { load_file(&record, "image"); });
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(sym_addr_list, nullptr);
  EXPECT_EQ(sym_addrp, nullptr);
  EXPECT_EQ(current_data, nullptr);
  EXPECT_EQ(record.sections, nullptr);
  release_file(&record);
}

TEST_F(Loading, NeedsBothFilesInOneByteOrder) {
  file_data first = {};
  file_data second = {};
  EXPECT_FALSE(capture([&] { check_byte_orders(&first, &second); }).ended);
  second.big_endian = 1;
  const CapturedRun run = capture([&] { check_byte_orders(&first, &second); });
  EXPECT_EQ(run.errors, "kelvane: fatal: files have different endianness\n");
  EXPECT_EQ(run.status, 1);
}

}  // namespace
}  // namespace kelvane
