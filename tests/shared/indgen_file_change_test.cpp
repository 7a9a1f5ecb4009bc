#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "changed_surroundings.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indview.h"
#include "ordinary_user.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace {

// Called once, behind the next look at an entry of a directory.
std::function<void()> after_next_look;
int error_of_renames = 0;

}  // namespace

// Stand in the way of the platform's calls, to bring about what else needs luck or another disk.
extern "C" int fstatat(int directory, const char* name, struct stat* status, int flags) noexcept {
  static const auto real = reinterpret_cast<decltype(&::fstatat)>(::dlsym(RTLD_NEXT, "fstatat"));
  const int result = real(directory, name, status, flags);
  if (after_next_look) {
    std::exchange(after_next_look, nullptr)();
  }
  return result;
}

extern "C" int rename(const char* from, const char* to) noexcept {
  if (error_of_renames != 0) {
    errno = error_of_renames;
    return -1;
  }
  return ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace kelvane {
namespace {

namespace fs = std::filesystem;

class FileChanges : public testing::Test {
 protected:
  std::string path(const std::string& entry) const { return root_.path(entry); }
  struct stat status(const std::string& entry) const {
    struct stat result {};
    EXPECT_EQ(::lstat(path(entry).c_str(), &result), 0) << entry;
    return result;
  }
  // An entry that is there, dangling links included.
  bool exists(const std::string& entry) const {
    return fs::exists(fs::symlink_status(path(entry)));
  }
  int32_t rename(const std::string& from, const std::string& to) const {
    return gen_renamefile(path(from).c_str(), path(to).c_str());
  }
  int32_t copy(const std::string& from, const std::string& to) const {
    return gen_copyfile(path(from).c_str(), path(to).c_str());
  }

  TemporaryDirectory root_;
};

TEST_F(FileChanges, ADirectoryIsMadeOnceAndNotOverAFile) {
  const std::string directory = path("made");
  EXPECT_EQ(gen_createdir(directory.c_str(), 0700), 0);
  EXPECT_EQ(status("made").st_mode & 0777, 0700u);  // which a usual umask leaves alone
  EXPECT_EQ(gen_createdir(directory.c_str(), 0700), 0);
  EXPECT_EQ(gen_mkdir(directory.c_str(), 0700), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(gen_createdir(root_.write("file", "").c_str(), 0750), -1);
  EXPECT_EQ(gen_createdir(path("no/parent").c_str(), 0750), -1);
}

TEST_F(FileChanges, MissingParentsAreMadeOnTheWayDown) {
  EXPECT_EQ(gen_createdir_recursive(path("a/b//c/").c_str(), 0755), 0);
  EXPECT_TRUE(fs::is_directory(path("a/b/c")));
  EXPECT_EQ(gen_createdir_recursive(path("a/b/c").c_str(), 0755), 0);
  EXPECT_EQ(gen_createdir_recursive("/", 0755), 0);
  root_.write("file", "");
  EXPECT_EQ(gen_createdir_recursive(path("file/x/y").c_str(), 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FileChanges, RemovingAFileSparesDirectories) {
  EXPECT_EQ(gen_removefile(root_.write("file", "").c_str()), 0);
  EXPECT_FALSE(exists("file"));
  EXPECT_EQ(gen_removefile(path("file").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(gen_removefile(root_.name().c_str()), -1);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(FileChanges, ATreeIsRemovedWithoutFollowingItsLinks) {
  root_.write("outside/kept", "");
  root_.write("tree/a/~user", "");
  root_.write("tree/.hidden", "");
  fs::create_directories(path("tree/a/b/c"));
  fs::create_symlink(path("outside"), path("tree/link"));
  fs::create_symlink("nowhere", path("tree/a/dangling"));
  EXPECT_EQ(gen_removestar_recursive(path("tree").c_str()), 0);
  EXPECT_TRUE(fs::is_empty(path("tree")));
  EXPECT_TRUE(exists("outside/kept"));

  root_.write("tree/a/b", "");
  fs::create_symlink("../../outside", path("tree/a/link"));
  EXPECT_EQ(gen_removedir_recursive(path("tree").c_str()), 0);
  EXPECT_FALSE(exists("tree"));
  EXPECT_TRUE(exists("outside/kept"));
  EXPECT_EQ(gen_removedir_recursive(path("tree").c_str()), -1);
  EXPECT_EQ(gen_removestar_recursive(path("tree").c_str()), 0);
  EXPECT_EQ(gen_removedir_recursive(nullptr), -1);
  EXPECT_EQ(gen_removestar_recursive(nullptr), 0);

  fs::create_symlink("outside", path("link"));
  EXPECT_EQ(gen_removestar_recursive(path("link").c_str()), 0);
  EXPECT_TRUE(exists("link"));
  EXPECT_EQ(gen_removedir_recursive(path("link").c_str()), 0);
  EXPECT_FALSE(exists("link"));
  EXPECT_TRUE(exists("outside/kept"));
}

TEST_F(FileChanges, ALinkNamedWithASlashIsNoWayIntoATree) {
  root_.write("outside/kept", "");
  fs::create_symlink("outside", path("link"));
  EXPECT_EQ(gen_removedir_recursive(path("link//").c_str()), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(gen_removestar_recursive(path("link/").c_str()), 0);
  EXPECT_TRUE(exists("outside/kept"));
  EXPECT_TRUE(exists("link"));
  EXPECT_EQ(gen_removedir_recursive(path("outside/").c_str()), 0);
  EXPECT_FALSE(exists("outside"));
}

TEST_F(FileChanges, ADirectoryExchangedForALinkLeadsNowhere) {
  root_.write("outside/kept", "");
  fs::create_directories(path("tree/directory"));
  after_next_look = [this] {
    fs::remove(path("tree/directory"));
    fs::create_symlink(path("outside"), path("tree/directory"));
  };
  gen_removestar_recursive(path("tree").c_str());
  EXPECT_EQ(after_next_look, nullptr);
  EXPECT_TRUE(exists("outside/kept"));
}

TEST_F(FileChanges, ATreeDeeperThanAPathIsRemoved) {
  constexpr int kLevels = 60;
  const std::string level(200, 'd');
  {
    const ChangedDirectory here(root_.name());
    for (int depth = 0; depth < kLevels; ++depth) {
      ASSERT_EQ(::mkdir(level.c_str(), 0755), 0);
      ASSERT_EQ(::mkdir("beside", 0755), 0);
      ASSERT_EQ(::chdir(level.c_str()), 0);
    }
    file_ptr(std::fopen("file", "w"));
  }
  EXPECT_EQ(gen_removedir_recursive(path(level).c_str()), 0);
  EXPECT_FALSE(exists(level));
}

TEST_F(FileChanges, WhatCantBeRemovedIsPassedOver) {
  root_.write("tree/locked/file", "");
  root_.write("tree/open/file", "");
  fs::permissions(path("tree/locked"), fs::perms(0555));
  for (const char* const open : {"", "tree", "tree/open"}) {
    fs::permissions(path(open), fs::perms(0777));
  }
  EXPECT_TRUE(as_ordinary_user([this] {
    return gen_removedir_recursive(path("tree").c_str()) == -1 && errno == ENOTEMPTY;
  }));
  EXPECT_TRUE(exists("tree/locked/file"));
  EXPECT_FALSE(exists("tree/open"));
  fs::permissions(path("tree/locked"), fs::perms(0755));
}

TEST_F(FileChanges, RenamingReplacesAFileAndSparesDirectories) {
  root_.write("from", "new");
  root_.write("to", "old");
  fs::create_directories(path("directory"));
  EXPECT_EQ(rename("from", "directory"), -1);
  EXPECT_EQ(rename("directory", "to"), -1);
  EXPECT_EQ(rename("missing", "to"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(root_.read("from"), "new");
  EXPECT_EQ(root_.read("to"), "old");
  EXPECT_EQ(rename("from", "to"), 0);
  EXPECT_EQ(root_.read("to"), "new");
  EXPECT_FALSE(exists("from"));
  EXPECT_EQ(rename("to", "no/parent"), -1);
  fs::create_symlink("nowhere", path("dangling"));
  EXPECT_EQ(rename("dangling", "link"), 0);
  EXPECT_TRUE(exists("link"));
}

TEST_F(FileChanges, ACopyHasTheContentsAndTheMode) {
  const std::string contents(5000, 'x');
  root_.write("from", contents);
  fs::permissions(path("from"), fs::perms(0751));
  EXPECT_EQ(copy("from", "to"), 0);
  EXPECT_EQ(root_.read("to"), contents);
  EXPECT_EQ(status("to").st_mode & 07777, 0751u);
  EXPECT_EQ(copy("missing", "to"), -1);
  EXPECT_EQ(copy("from", "no/parent"), -1);
  EXPECT_EQ(root_.read("to"), contents);
}

TEST_F(FileChanges, AFileIsNotCopiedOntoItself) {
  root_.write("file", "precious");
  fs::create_hard_link(path("file"), path("other"));
  EXPECT_EQ(copy("file", "other"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(root_.read("file"), "precious");

  const ChangedDirectory here(root_.name());
  const ChangedVariable viewpath("NVPATH", root_.name());
  reset_all_state();
  gen_viewpathing_init(1);
  EXPECT_EQ(gen_copyfile("file", "^/file"), -1);
  EXPECT_EQ(root_.read("file"), "precious");
  reset_all_state();
}

TEST_F(FileChanges, ACopyThatFallsShortIsRemoved) {
  root_.write("from", std::string(5000, 'x'));
  ASSERT_EQ(::chmod(root_.name().c_str(), 0777), 0);
  EXPECT_TRUE(as_ordinary_user([this] {
    const rlimit limit = {1500, 1500};
    std::signal(SIGXFSZ, SIG_IGN);
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && copy("from", "to") == -1;
  }));
  EXPECT_FALSE(exists("to"));
}

TEST_F(FileChanges, MovingFallsBackToCopying) {
  root_.write("from", "moved");
  EXPECT_EQ(gen_movefile(path("from").c_str(), path("to").c_str()), 0);
  EXPECT_EQ(root_.read("to"), "moved");
  EXPECT_FALSE(exists("from"));
  fs::create_directories(path("directory"));
  EXPECT_EQ(gen_movefile(path("to").c_str(), path("directory").c_str()), -1);
  EXPECT_EQ(gen_movefile(path("directory").c_str(), path("other").c_str()), -1);
  EXPECT_FALSE(exists("other"));
  EXPECT_EQ(gen_movefile(path("missing").c_str(), path("to").c_str()), -1);
  EXPECT_EQ(root_.read("to"), "moved");
}

TEST_F(FileChanges, MovingReachesAnotherFileSystem) {
  root_.write("from", "moved");
  root_.write("to", "old");
  error_of_renames = EXDEV;
  EXPECT_EQ(gen_movefile(path("from").c_str(), path("to").c_str()), 0);
  error_of_renames = 0;
  EXPECT_EQ(root_.read("to"), "moved");
  EXPECT_FALSE(exists("from"));
}

TEST_F(FileChanges, AFileIsCopiedToAStreamWhichIsFlushed) {
  const std::string contents = std::string(2000, 'x') + '\0' + "\r\n";
  const std::string from = root_.write("from", contents);
  const file_ptr stream(std::fopen(path("to").c_str(), "w"));
  ASSERT_TRUE(stream);
  EXPECT_EQ(gen_catfile(from.c_str(), stream.get()), 0);
  EXPECT_EQ(root_.read("to"), contents);
  EXPECT_EQ(gen_cattextfile(from.c_str(), stream.get()), 0);
  EXPECT_EQ(root_.read("to"), contents + contents);
  EXPECT_EQ(gen_catfile(path("missing").c_str(), stream.get()), -1);
  const file_ptr full(std::fopen("/dev/full", "w"));
  ASSERT_TRUE(full);
  EXPECT_EQ(gen_catfile(from.c_str(), full.get()), -1);
}

TEST_F(FileChanges, TouchingMakesAFileOrItsTimeNewAndKeepsTheContents) {
  EXPECT_EQ(gen_touchfile(path("fresh").c_str()), 0);
  EXPECT_EQ(status("fresh").st_size, 0);
  for (const char* const contents : {"", "contents"}) {
    const std::string file = root_.write("file", contents);
    ASSERT_EQ(gen_utime(file.c_str(), 1000, 2000), 0);
    EXPECT_EQ(status("file").st_atime, 1000);
    EXPECT_EQ(status("file").st_mtime, 2000);
    EXPECT_EQ(gen_touchfile(file.c_str()), 0);
    EXPECT_GT(status("file").st_mtime, 1000000);
    EXPECT_EQ(root_.read("file"), contents);
  }
  EXPECT_EQ(gen_touchfile(root_.name().c_str()), -1);
  EXPECT_EQ(gen_touchfile(path("no/parent").c_str()), -1);
}

TEST_F(FileChanges, TimesOfAnotherFileAreRoundedUpToSeconds) {
  const std::string from = root_.write("from", "");
  const std::string to = root_.write("to", "");
  const timespec times[] = {{1000, 0}, {2000, 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, from.c_str(), times, 0), 0);
  errno = EXDEV;
  EXPECT_EQ(gen_sametimeas(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(status("to").st_atim.tv_sec, 1000);
  EXPECT_EQ(status("to").st_mtim.tv_sec, 2001);
  EXPECT_EQ(status("to").st_mtim.tv_nsec, 0);
  EXPECT_EQ(gen_sametimeas(path("missing").c_str(), to.c_str()), -1);
  EXPECT_EQ(gen_sametimeas(from.c_str(), path("missing").c_str()), -1);
  EXPECT_EQ(errno, EXDEV);
}

class Links : public FileChanges {
 protected:
  void link(const std::string& target, const std::string& entry) const {
    ASSERT_EQ(gen_symlink(target.c_str(), path(entry).c_str()), 0);
  }
  // Where a chain ends, or "none".
  std::string end_of(const std::string& entry) const {
    std::string buffer(1024, '?');
    const int32_t result = gen_readlink(path(entry).c_str(), buffer.data(), buffer.size());
    return result == 1 ? std::string(buffer.c_str()) : "none";
  }
};

TEST_F(Links, AChainIsFollowedToItsEnd) {
  fs::create_directories(path("sub"));
  root_.write("sub/file", "");
  link("file", "sub/last");
  link(path("sub/last"), "middle");
  link("middle", "first");
  EXPECT_EQ(end_of("sub/last"), path("sub/file"));
  EXPECT_EQ(end_of("first"), path("sub/file"));
  link("nowhere", "dangling");
  EXPECT_EQ(end_of("dangling"), path("nowhere"));
  errno = EXDEV;
  EXPECT_EQ(end_of("sub/file"), "none");
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(end_of("missing"), "none");
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(Links, ACircleEndsAfter257Steps) {
  link("second", "first");
  link("third", "second");
  link("first", "third");
  EXPECT_EQ(end_of("first"), path("third"));  // 257 = 3 * 85 + 2
}

TEST_F(Links, ATargetTooLongEndsTheWalk) {
  link(std::string(1024 - path("").size(), 'x'), "exceeding");
  link(std::string(1023 - path("").size(), 'x'), "fitting");
  EXPECT_EQ(end_of("exceeding"), "none");
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(end_of("fitting").size(), 1023u);
  link("exceeding", "before");
  EXPECT_EQ(end_of("before"), path("exceeding"));
}

TEST_F(Links, AShortBufferIsFilledAndNotTerminated) {
  link("/abc", "link");
  char buffer[] = "?????????";
  EXPECT_EQ(gen_readlink(path("link").c_str(), buffer, 3), 1);
  EXPECT_STREQ(buffer, "/ab??????");
}

}  // namespace
}  // namespace kelvane
