#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "changed_surroundings.h"
#include "indgen_file.h"
#include "indgen_file_internal.h"
#include "indgen_memory.h"
#include "indview.h"
#include "ordinary_user.h"
#include "reset_state.h"
#include "scenario.h"
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

class Files : public testing::Test {
 protected:
  std::string path(const std::string& entry) const { return root_.path(entry); }
  // An entry that is there, dangling links included.
  static bool exists(const std::string& entry) { return fs::exists(fs::symlink_status(entry)); }

  TemporaryDirectory root_;
  ChangedDirectory here_{root_.name()};
};

std::string octal_with_type(mode_t mode) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%o", mode);
  return text.data();
}

struct stat status_of(const char* name) {
  struct stat status {};
  EXPECT_EQ(::lstat(name, &status), 0) << name;
  return status;
}

// The mode of a file that has `own`, behind the operation of that name, started from `start`.
std::string changed(mode_t own, const std::string& operation, mode_t start) {
  const std::pair<const char*, mode_t (*)(const char*, mode_t)> changes[] = {
      {"minusw", gen_chmod_minusw},
      {"plusw", gen_chmod_plusw},
      {"plusrw", gen_chmod_plusrw},
      {"pluswu", gen_chmod_pluswu},
      {"plusx", [](const char* name, mode_t) { return gen_chmod_plusx(name); }}};
  for (const auto& [name, change] : changes) {
    if (operation == name) {
      ::chmod("file", own);
      EXPECT_EQ(change("file", start), S_IFREG | own);
      EXPECT_EQ(change("missing", start), 0U);
    }
  }
  return octal(mode_of("file"));
}

TEST_F(Files, GiveWhatTheTableTells) {
  using Text = const char*;
  // clang-format off
  go_through(KELVANE_TABLES "indgen_file.table", root_, {
      KELVANE_OPERATION(gen_filesize), KELVANE_OPERATION(gen_truncate), KELVANE_OPERATION(gen_isdir),
      KELVANE_OPERATION(gen_isvcdir), KELVANE_OPERATION(gen_symlink), KELVANE_OPERATION(gen_islink),
      KELVANE_OPERATION(gen_canexec), KELVANE_OPERATION(gen_newerthan),
      KELVANE_OPERATION(gen_sametimeas), KELVANE_OPERATION(gen_utime),
      KELVANE_OPERATION(gen_createdir), KELVANE_OPERATION(gen_mkdir),
      KELVANE_OPERATION(gen_createdir_recursive), KELVANE_OPERATION(gen_removefile),
      KELVANE_OPERATION(gen_removedir_recursive), KELVANE_OPERATION(gen_removestar_recursive),
      KELVANE_OPERATION(gen_renamefile), KELVANE_OPERATION(gen_copyfile),
      KELVANE_OPERATION(gen_movefile), KELVANE_OPERATION(gen_touchfile),
      {"gen_getmode", [](Text name, mode_t mode) {
        const mode_t own = gen_getmode(name, &mode);
        return octal_with_type(own) + "/" + octal_with_type(mode);
      }},
      {"own_mode", [](Text name) { return octal_with_type(gen_getmode(name, nullptr)); }},
      {"gen_chmod_sameas", [](Text name, Text other) { return octal_with_type(gen_chmod_sameas(name, other)); }},
      {"changed_from_0656", [](const std::string& how, mode_t start) { return changed(0656, how, start); }},
      {"changed_from_0604", [](const std::string& how, mode_t start) { return changed(0604, how, start); }},
      {"times", [](Text name, time_t access, time_t seconds, long nanoseconds) {
        const timespec times[] = {{access, 0}, {seconds, nanoseconds}};
        return ::utimensat(AT_FDCWD, name, times, 0) == 0 ? "" : "refused";
      }},
      {"time_of", [](Text name) {
        const struct stat status = status_of(name);
        return std::to_string(status.st_atime) + "/" + std::to_string(status.st_mtime) + "." +
               std::to_string(status.st_mtim.tv_nsec);
      }},
      {"touched_anew", [](Text name) {
        return gen_utime(name, 1000, 2000) == 0 && gen_touchfile(name) == 0 && status_of(name).st_mtime > 1000000;
      }},
      {"gen_readlink", [](Text name, size_t length) {
        std::array<char, 200> buffer{};
        return text_of(gen_readlink(name, buffer.data(), length) == 1 ? buffer.data() : nullptr);
      }},
  });
  // clang-format on
}

TEST_F(Files, ADirectoryExchangedForALinkLeadsNowhere) {
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

TEST_F(Files, ATreeDeeperThanAPathIsRemoved) {
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

TEST_F(Files, WhatCantBeRemovedIsPassedOver) {
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

TEST_F(Files, AreNotCopiedOntoThemselvesThroughAViewpath) {
  root_.write("file", "precious");
  const ChangedVariable viewpath("NVPATH", root_.name());
  reset_all_state();
  gen_viewpathing_init(1);
  EXPECT_EQ(gen_copyfile("file", "^/file"), -1);
  EXPECT_EQ(root_.read("file"), "precious");
  reset_all_state();
}

TEST_F(Files, ACopyHasAllBlocks) {
  const std::string contents = std::string(4999, 'x') + "y";
  root_.write("from", contents);
  EXPECT_EQ(gen_copyfile("from", "to"), 0);
  EXPECT_EQ(root_.read("to"), contents);
}

TEST_F(Files, ACopyThatFallsShortIsRemoved) {
  root_.write("from", std::string(5000, 'x'));
  ASSERT_EQ(::chmod(root_.name().c_str(), 0777), 0);
  EXPECT_TRUE(as_ordinary_user([] {
    const rlimit limit = {1500, 1500};
    std::signal(SIGXFSZ, SIG_IGN);
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && gen_copyfile("from", "to") == -1;
  }));
  EXPECT_FALSE(exists("to"));
}

TEST_F(Files, MovingReachesAnotherFileSystem) {
  root_.write("from", "moved");
  root_.write("to", "old");
  error_of_renames = EXDEV;
  EXPECT_EQ(gen_movefile(path("from").c_str(), path("to").c_str()), 0);
  error_of_renames = 0;
  EXPECT_EQ(root_.read("to"), "moved");
  EXPECT_FALSE(exists("from"));
}

TEST_F(Files, AFileIsCopiedToAStreamWhichIsFlushed) {
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

TEST_F(Files, ALinkTooLongForTheRoomEndsTheWalk) {
  ASSERT_EQ(gen_symlink(std::string(1024, 'x').c_str(), "exceeding"), 0);
  ASSERT_EQ(gen_symlink(std::string(1023, 'x').c_str(), "fitting"), 0);
  ASSERT_EQ(gen_symlink("exceeding", "before"), 0);
  std::string buffer(1024, '?');
  EXPECT_EQ(gen_readlink("exceeding", buffer.data(), buffer.size()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(gen_readlink("./fitting", buffer.data(), buffer.size()), -1);  // with its directory
  EXPECT_EQ(gen_readlink("fitting", buffer.data(), buffer.size()), 1);
  EXPECT_EQ(std::strlen(buffer.c_str()), 1023U);
  EXPECT_EQ(gen_readlink("before", buffer.data(), buffer.size()), 1);
  EXPECT_STREQ(buffer.c_str(), "exceeding");
  // A short buffer is filled and not terminated.
  EXPECT_EQ(gen_readlink("before", buffer.data(), 3), 1);
  EXPECT_STREQ(buffer.c_str(), "exceeding");
}

TEST_F(Files, CanBeExecutedByWhomTheirModeLetsOnly) {
  ::chmod(root_.write("file", "").c_str(), 0744);
  ASSERT_EQ(::chmod(root_.name().c_str(), 0755), 0);
  if (::geteuid() == 0) {  // the owner's bit isn't everybody's
    EXPECT_TRUE(as_ordinary_user([] { return gen_canexec("file") == 0; }));
  }
}

TEST_F(Files, FileSystemsAreMeasuredAndTheirTypeIsFoundByDevice) {
  EXPECT_GT(gen_freediskspace(root_.name().c_str()), 0u);
  EXPECT_EQ(gen_freediskspace("missing"), 0u);
  EXPECT_FALSE(gen_in_clearcase_mvfs(root_.name().c_str()));
  EXPECT_FALSE(gen_in_clearcase_mvfs("missing"));

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
