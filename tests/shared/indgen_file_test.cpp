#include "indgen_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "indgen_file_internal.h"
#include "ordinary_user.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

class FileStatus : public testing::Test {
 protected:
  mode_t permissions() const {
    struct stat status {};
    EXPECT_EQ(::stat(file_.c_str(), &status), 0);
    return status.st_mode & 07777;
  }
  void permit(mode_t mode) const { ASSERT_EQ(::chmod(file_.c_str(), mode), 0); }

  TemporaryDirectory root_;
  std::string file_ = root_.write("file", "12345");
  std::string missing_ = root_.path("missing");
  const char* name_ = file_.c_str();
};

TEST_F(FileStatus, SizeIsThatOfTheContentsWhereASigned32BitNumberHoldsIt) {
  EXPECT_EQ(gen_filesize(name_), 5);
  EXPECT_EQ(gen_filesize(missing_.c_str()), -1);
  EXPECT_EQ(gen_filesize(nullptr), -1);
  ASSERT_EQ(gen_truncate(name_, 2147483647), 0);
  EXPECT_EQ(gen_filesize(name_), 2147483647);
  ASSERT_EQ(gen_truncate(name_, 2147483648), 0);
  EXPECT_EQ(gen_filesize(name_), -1);
  EXPECT_EQ(errno, EOVERFLOW);
}

TEST_F(FileStatus, DirectoriesAreToldFromEverythingElse) {
  EXPECT_EQ(gen_isdir(root_.name().c_str()), 1);
  EXPECT_EQ(gen_isdir(name_), 0);
  EXPECT_EQ(gen_isdir(missing_.c_str()), 0);
  EXPECT_EQ(gen_isdir(nullptr), 0);
  EXPECT_EQ(gen_isvcdir("CVS"), 1);
  EXPECT_EQ(gen_isvcdir("mvc.log"), 1);
  EXPECT_EQ(gen_isvcdir("cvs"), 0);
  EXPECT_EQ(gen_isvcdir("a/CVS"), 0);
  EXPECT_EQ(gen_isvcdir(nullptr), 0);
}

TEST_F(FileStatus, LinksAreSymbolicOrHard) {
  const std::string link = root_.path("link");
  ASSERT_EQ(gen_symlink(missing_.c_str(), link.c_str()), 0);
  EXPECT_EQ(gen_islink(link.c_str()), 1);
  EXPECT_EQ(gen_islink(name_), 0);
  ASSERT_EQ(::link(name_, root_.path("second").c_str()), 0);
  EXPECT_EQ(gen_islink(name_), 2);
  EXPECT_EQ(gen_islink(missing_.c_str()), 0);
  std::filesystem::create_directories(root_.path("parent/child"));
  // A directory has as many hard links as its file system counts for it.
  struct stat status {};
  ASSERT_EQ(::lstat(root_.path("parent").c_str(), &status), 0);
  EXPECT_EQ(gen_islink(root_.path("parent").c_str()), status.st_nlink > 1 ? 2 : 0);
}

TEST_F(FileStatus, OnlyAFileThatMayBeExecutedCanBe) {
  EXPECT_EQ(gen_canexec(nullptr), -1);
  EXPECT_EQ(gen_canexec(""), -1);
  EXPECT_EQ(gen_canexec(missing_.c_str()), -1);
  EXPECT_EQ(gen_canexec(root_.name().c_str()), 0);
  permit(0644);
  EXPECT_EQ(gen_canexec(name_), 0);
  permit(0755);
  EXPECT_EQ(gen_canexec(name_), 1);
  permit(0744);
  ASSERT_EQ(::chmod(root_.name().c_str(), 0755), 0);
  if (::geteuid() == 0) {  // the owner's bit isn't everybody's
    EXPECT_TRUE(as_ordinary_user([this] { return gen_canexec(name_) == 0; }));
  }
}

TEST_F(FileStatus, ModeFillsInAZeroOnly) {
  permit(0640);
  mode_t mode = 0;
  EXPECT_EQ(gen_getmode(name_, &mode), S_IFREG | 0640u);
  EXPECT_EQ(mode, S_IFREG | 0640u);
  mode = 0111;
  EXPECT_EQ(gen_getmode(name_, &mode), S_IFREG | 0640u);
  EXPECT_EQ(mode, 0111u);
  mode = 0;
  EXPECT_EQ(gen_getmode(missing_.c_str(), &mode), 0u);
  EXPECT_EQ(mode, 0664u);
  EXPECT_EQ(gen_getmode(name_, nullptr), S_IFREG | 0640u);
}

TEST_F(FileStatus, ModeChangesStartFromTheFilesOwnModeOrTheGivenOne) {
  struct Change {
    mode_t (*change)(const char*, mode_t);
    mode_t from_own;    // the file has 0656
    mode_t from_given;  // 0102
  };
  const Change changes[] = {{gen_chmod_minusw, 0454, 0100},
                            {gen_chmod_plusw, 0676, 0322},
                            {gen_chmod_plusrw, 0676, 0762},
                            {gen_chmod_pluswu, 0654, 0300}};
  for (const Change& row : changes) {
    permit(0656);
    EXPECT_EQ(row.change(name_, 0), S_IFREG | 0656u);
    EXPECT_EQ(permissions(), row.from_own);
    permit(0656);
    EXPECT_EQ(row.change(name_, 0102), S_IFREG | 0656u);
    EXPECT_EQ(permissions(), row.from_given);
    EXPECT_EQ(row.change(missing_.c_str(), 0102), 0u);
  }
  permit(0604);
  EXPECT_EQ(gen_chmod_plusx(name_), S_IFREG | 0604u);
  EXPECT_EQ(permissions(), 0714u);
}

TEST_F(FileStatus, ModeOfAnotherFileIsTakenOverIfThereIsOne) {
  const std::string other = root_.write("other", "");
  ASSERT_EQ(::chmod(other.c_str(), 0751), 0);
  EXPECT_EQ(gen_chmod_sameas(name_, other.c_str()), S_IFREG | 0751u);
  EXPECT_EQ(permissions(), 0751u);
  EXPECT_EQ(gen_chmod_sameas(name_, missing_.c_str()), 0u);
  EXPECT_EQ(permissions(), 0751u);
}

TEST_F(FileStatus, NewerLooksAtSecondsAndThenAtNanoseconds) {
  const std::string other = root_.write("other", "");
  const auto compare = [&](timespec mine, timespec others) {
    const timespec my_times[] = {{0, 0}, mine};
    const timespec other_times[] = {{0, 0}, others};
    EXPECT_EQ(::utimensat(AT_FDCWD, name_, my_times, 0), 0);
    EXPECT_EQ(::utimensat(AT_FDCWD, other.c_str(), other_times, 0), 0);
    return gen_newerthan(name_, other.c_str());
  };
  EXPECT_EQ(compare({1001, 0}, {1000, 999}), 1);
  EXPECT_EQ(compare({1000, 999}, {1001, 0}), 0);
  EXPECT_EQ(compare({1000, 6}, {1000, 5}), 1);
  EXPECT_EQ(compare({1000, 5}, {1000, 5}), 0);
  EXPECT_EQ(gen_newerthan(missing_.c_str(), name_), -1);
  EXPECT_EQ(gen_newerthan(missing_.c_str(), missing_.c_str()), -1);
  EXPECT_EQ(gen_newerthan(name_, missing_.c_str()), 1);
}

TEST_F(FileStatus, FileSystemsAreMeasuredAndTheirTypeIsFoundByDevice) {
  EXPECT_GT(gen_freediskspace(root_.name().c_str()), 0u);
  EXPECT_EQ(gen_freediskspace(missing_.c_str()), 0u);
  EXPECT_FALSE(gen_in_clearcase_mvfs(root_.name().c_str()));
  EXPECT_FALSE(gen_in_clearcase_mvfs(missing_.c_str()));

  const char* const table =
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/root rw\n"
      "40 22 0:31 / /vobs/a rw,nosuid shared:7 master:2 - mvfs vob rw\n"
      "41 22 0:3 / /proc rw - proc proc rw\n";
  EXPECT_EQ(mounted_type(table, makedev(8, 1)), "ext4");
  EXPECT_EQ(mounted_type(table, makedev(0, 31)), "mvfs");
  EXPECT_EQ(mounted_type(table, makedev(0, 3)), "proc");
  EXPECT_EQ(mounted_type(table, makedev(0, 30)), "");
}

}  // namespace
}  // namespace kelvane
