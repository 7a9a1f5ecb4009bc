#include "indgen_path.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "indgen_memory.h"
#include "indgen_string.h"
#include "operation_table.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

std::string canonical(const char* name, uint8_t msw) {
  std::string path = name;
  canonicalizefilename(path.data(), msw);
  return path.c_str();
}

// True if `check`, called in a child process, gives true.
bool in_child(const std::function<bool()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(check() ? 0 : 1);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

class Paths : public testing::Test {
 protected:
  Paths() { reset_all_state(); }
  ~Paths() override { reset_all_state(); }
};

TEST_F(Paths, GiveWhatTheTableTells) {
  check_table({KELVANE_OPERATION(gen_sconcat),
               KELVANE_OPERATION(gen_dconcat),
               KELVANE_OPERATION(gen_sconcatf),
               KELVANE_OPERATION(gen_dconcatf),
               KELVANE_OPERATION(gen_ddconcat),
               KELVANE_OPERATION(gen_dsconcat),
               KELVANE_OPERATION(gen_ddsconcat),
               KELVANE_OPERATION(gen_basename),
               KELVANE_OPERATION(gen_basename_anyhost),
               KELVANE_OPERATION(gen_msw_basename),
               KELVANE_OPERATION(gen_dirname),
               KELVANE_OPERATION(gen_dirname_anyhost),
               KELVANE_OPERATION(gen_topdir),
               KELVANE_OPERATION(gen_popdir),
               KELVANE_OPERATION(gen_dirmatch),
               KELVANE_OPERATION(gen_dir_contains_file),
               KELVANE_OPERATION(gen_tree_contains_file),
               KELVANE_OPERATION(gen_isDirSubdirOfDir),
               KELVANE_OPERATION(gen_FilenameTailCmp),
               KELVANE_OPERATION(gen_getsuffix),
               KELVANE_OPERATION(gen_issuffix),
               KELVANE_OPERATION(gen_changesuffix),
               KELVANE_OPERATION(gen_addsuffix),
               KELVANE_OPERATION(gen_makeshort),
               KELVANE_OPERATION(gen_basenamelen),
               KELVANE_OPERATION(gen_basenamematch),
               KELVANE_OPERATION(canonical),
               KELVANE_OPERATION(gen_absolutefilename),
               KELVANE_OPERATION(gen_absolute_msw_filename),
               KELVANE_OPERATION(gen_is_basename),
               KELVANE_OPERATION(gen_changedirandsuffix),
               KELVANE_OPERATION(gen_manglefilename_hashfunc),
               KELVANE_OPERATION(gen_manglefilename),
               KELVANE_OPERATION(gen_manglefilename_length),
               KELVANE_OPERATION(gen_relative_filename)},
              KELVANE_TABLES "indgen_path.table");
  canonicalizefilename(nullptr, 0);
}

TEST_F(Paths, AreReducedByTheRulesOfThisHostOrTheOther) {
  std::string host = "a\\..//b";
  gen_canonicalfilename(host.data());
  EXPECT_STREQ(host.c_str(), "a\\../b");
  host = "a/../b";
  gen_unix_canonicalfilename(host.data());
  EXPECT_STREQ(host.c_str(), "b");
  host = "d:\\..\\b\\";
  gen_msw_canonicalfilename(host.data());
  EXPECT_STREQ(host.c_str(), "D:/../b/");
}

TEST_F(Paths, NamesAProductOfAFile) {
  const ChangedVariable variable("TARVOSYM", std::nullopt);
  EXPECT_EQ(taken(gen_symfilename("a.out")), "a.out.sym");
  variable.set("dbg");
  EXPECT_EQ(taken(gen_symfilename("a.out")), "a.out.dbg");
}

TEST_F(Paths, WalksAListOfPaths) {
  std::array<char, 4> buffer{};
  const char* rest = gen_getpath("::abcde:f::", buffer.data(), 3);
  EXPECT_STREQ(buffer.data(), "abc");
  EXPECT_STREQ(rest, ":f::");
  rest = gen_getpath(rest, buffer.data(), 3);
  EXPECT_STREQ(buffer.data(), "f");
  EXPECT_STREQ(rest, "::");
  EXPECT_EQ(gen_getpath(rest, buffer.data(), 3), nullptr);
}

TEST_F(Paths, ShortensNamesInAListing) {
  char* current = nullptr;
  EXPECT_STREQ(gen_addpath("x", &current), "x");
  EXPECT_EQ(current, nullptr);
  EXPECT_STREQ(gen_addpath("d/x", &current), "d/x");
  EXPECT_STREQ(current, "d/x");
  EXPECT_STREQ(gen_addpath("d/y", &current), "y");
  EXPECT_STREQ(current, "d/x");
  EXPECT_STREQ(gen_addpath("z", &current), "./z");
  EXPECT_STREQ(current, "./z");
  EXPECT_STREQ(gen_addpath("y", &current), "y");
  EXPECT_STREQ(current, "./z");
  EXPECT_STREQ(gen_addpath("./w", &current), "w");
  EXPECT_STREQ(gen_addpath("e/f/x", &current), "e/f/x");
  EXPECT_EQ(gen_addpath(nullptr, &current), nullptr);
  gen_free(current);
  for (const char* const here : {"", "."}) {
    current = gen_copy(here);
    EXPECT_STREQ(gen_addpath(".x", &current), ".x");
    EXPECT_STREQ(current, here);
    gen_free(current);
  }
}

TEST_F(Paths, ManglesAPathIntoOneFlatName) {
  EXPECT_EQ(taken(gen_manglefilename("c:\\a/b")).substr(8), "c@@a@b");
  const std::string long_name =
      taken(gen_manglefilename(("/" + std::string(99, 'd') + "/e").c_str()));
  EXPECT_EQ(long_name.size(), 63U);
  EXPECT_EQ(long_name.substr(8), std::string(53, 'd') + "@e");
}

TEST_F(Paths, GivesNullForNull) {
  EXPECT_EQ(gen_realpath(nullptr), nullptr);
  EXPECT_EQ(gen_expand_filename(nullptr), nullptr);
  EXPECT_EQ(gen_expand_filename_using_cwd("/", nullptr), nullptr);
  EXPECT_EQ(gen_symfilename(nullptr), nullptr);
  EXPECT_EQ(gen_getpath(nullptr, nullptr, 0), nullptr);
  EXPECT_FALSE(gen_samefile(nullptr, nullptr));
}

TEST_F(Paths, KeepsTheCurrentDirectoryUntilItIsToldOfAChange) {
  const TemporaryDirectory first;
  const TemporaryDirectory second;
  const ChangedDirectory in_first(first.name());
  EXPECT_EQ(gen_getcwd(), first.name());
  const ChangedDirectory in_second(second.name());
  EXPECT_EQ(gen_getcwd(), first.name());
  gen_invalidate_cwd();
  EXPECT_EQ(gen_getcwd(), second.name());
  EXPECT_STREQ(gen_getdot(), ".");
  EXPECT_STREQ(gen_getdevdot(), ".");
  EXPECT_EQ(gen_getdevice(), nullptr);
}

TEST_F(Paths, TakesTheHomeDirectoryForACurrentOneThatIsGone) {
  const TemporaryDirectory parent;
  const std::string gone = parent.path("gone");
  std::filesystem::create_directory(gone);
  const ChangedDirectory here(gone);
  std::filesystem::remove(gone);
  const std::string home = "/" + std::string(2000, 'h');
  const ChangedVariable variable("HOME", home);
  EXPECT_EQ(gen_getcwd(), home.substr(0, 1024));
  if (::geteuid() != 0) {
    return;  // only root can become a user that the system doesn't know
  }
  EXPECT_TRUE(in_child([&] {
    constexpr uid_t kUnknownUser = 54321;
    reset_all_state();
    variable.set("");
    const CapturedRun run = capture([&] {
      EXPECT_EQ(::setreuid(kUnknownUser, static_cast<uid_t>(-1)), 0);
      gen_getcwd();
    });
    return run.ended && run.status == 1 &&
           run.errors == "fatal: Could not get current working directory.\n";
  }));
}

TEST_F(Paths, FindsTheHomeDirectoryOnce) {
  const ChangedVariable variable("HOME", "/home/one");
  EXPECT_STREQ(gen_gethomedir(), "/home/one");
  variable.set("/home/two");
  EXPECT_STREQ(gen_gethomedir(), "/home/one");
  reset_all_state();
  variable.set("");
  const struct passwd* const user = ::getpwuid(::getuid());
  EXPECT_STREQ(gen_gethomedir(), user == nullptr ? nullptr : user->pw_dir);
}

TEST_F(Paths, ExpandsNamesFromHomesAndTheCurrentDirectory) {
  const TemporaryDirectory directory;
  const ChangedDirectory here(directory.name());
  const ChangedVariable variable("HOME", "/home/./one");
  EXPECT_EQ(taken(gen_expand_filename("~")), "/home/one");
  EXPECT_EQ(taken(gen_expand_filename("~/")), "/home/one");
  EXPECT_EQ(taken(gen_expand_filename("~/a/../b")), "/home/one/b");
  EXPECT_EQ(taken(gen_expand_filename("~no-such-user/a//b")), "~no-such-user/a/b");
  const struct passwd* const root = ::getpwnam("root");
  ASSERT_NE(root, nullptr);
  const std::string root_home = root->pw_dir;
  EXPECT_EQ(taken(gen_expand_filename("~root")), root_home);
  EXPECT_EQ(taken(gen_expand_filename("~root/x")), root_home + "/x");
  EXPECT_EQ(taken(gen_expand_filename("/a/./b")), "/a/b");
  EXPECT_EQ(taken(gen_expand_filename("x/../y")), directory.path("y"));
  EXPECT_EQ(taken(gen_expand_filename("")), "");

  EXPECT_EQ(taken(gen_expand_filename_using_cwd("/w", "x/../y")), "/w/y");
  EXPECT_EQ(taken(gen_expand_filename_using_cwd("/w", "/a/./b")), "/a/b");
  EXPECT_EQ(taken(gen_expand_filename_using_cwd("/w", "~/b")), "/home/one/b");
  EXPECT_EQ(taken(gen_expand_filename_using_cwd(nullptr, "y")), directory.path("y"));
  EXPECT_EQ(taken(gen_expand_filename_using_cwd("/w", "")), "");
}

TEST_F(Paths, FindsThePartOfANameBehindADirectory) {
  const TemporaryDirectory tree;
  const std::string file = tree.write("real/f", "");
  std::filesystem::create_symlink("real", tree.path("link"));
  EXPECT_EQ(taken(gen_relative_filename(tree.path("link").c_str(), file.c_str(), 0)), kNullText);
  EXPECT_EQ(taken(gen_relative_filename(tree.path("link").c_str(), file.c_str(), 1)), "f");
  EXPECT_EQ(taken(gen_realpath(tree.path("link/f").c_str())), file);
  EXPECT_EQ(taken(gen_realpath(tree.path("none").c_str())), tree.path("none"));
  EXPECT_EQ(taken(gen_realpath("no/such/file")), "no/such/file");
}

TEST_F(Paths, TellsWhetherTwoNamesAreOneFile) {
  const TemporaryDirectory tree;
  const ChangedDirectory here(tree.name());
  tree.write("real/f", "");
  tree.write("other/f", "");
  std::filesystem::create_symlink("real", "link");
  std::filesystem::create_hard_link("real/f", "real/g");
  EXPECT_TRUE(gen_samefile("real/f", "link/f"));
  EXPECT_TRUE(gen_samefile("real/.", "link/"));
  EXPECT_FALSE(gen_samefile("real/f", "other/f"));
  EXPECT_FALSE(gen_samefile("real/f", "real/g")) << "last components that differ";
  EXPECT_FALSE(gen_samefile("real/f", "none/f"));
  EXPECT_TRUE(gen_samefile("none/f", "none/f"));
  EXPECT_TRUE(gen_samefile("real/none", "link/none")) << "by their directories";
  EXPECT_FALSE(gen_samefile("real/none", "other/none"));
  EXPECT_FALSE(gen_samefile("none", "./none")) << "only one of them has a directory";
  EXPECT_FALSE(gen_samefile("no/none", "na/none")) << "neither directory exists";
}

}  // namespace
}  // namespace kelvane
