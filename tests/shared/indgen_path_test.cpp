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
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

constexpr char kNull[] = "(null)";

// The text of an owned name, which is released.
std::string taken(char* name) {
  const gen_ptr<char> owned(name);
  return name == nullptr ? kNull : name;
}

std::string canonical(const std::string& name, uint8_t msw = 0) {
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

TEST_F(Paths, JoinsADirectoryAndAName) {
  EXPECT_EQ(taken(gen_sconcat("a", "/b")), "/b");
  EXPECT_EQ(taken(gen_sconcat("a", "/b//c")), "/b//c") << "an absolute name is only copied";
  EXPECT_EQ(taken(gen_sconcat("a", "~/b")), "a/~/b");
  EXPECT_EQ(taken(gen_sconcat("a/", "b")), "a/b");
  EXPECT_EQ(taken(gen_sconcat("a", "")), "a");
  EXPECT_EQ(taken(gen_sconcat("a", nullptr)), "a");
  EXPECT_EQ(taken(gen_sconcat("a", "..")), ".");
  EXPECT_EQ(taken(gen_sconcat("a/b", "../c/./d")), "a/c/d");
  EXPECT_EQ(taken(gen_sconcat("", "b/../c")), "b/../c");
  EXPECT_EQ(taken(gen_sconcat(nullptr, "b")), "b");
  EXPECT_EQ(taken(gen_sconcat("", nullptr)), kNull);
}

TEST_F(Paths, JoinsWithANameThatCountsAsAbsoluteOrEmpty) {
  EXPECT_EQ(taken(gen_dconcat("a", "~/b")), "~/b");
  EXPECT_EQ(taken(gen_dconcat("a", "b/..")), "a");
  EXPECT_EQ(taken(gen_dconcat("a//b", "")), "a//b");
  EXPECT_EQ(taken(gen_dconcat("a//b", nullptr)), "a//b");
  EXPECT_EQ(taken(gen_dconcat("", "b")), "b");
  EXPECT_EQ(taken(gen_dconcat(nullptr, nullptr)), kNull);
}

TEST_F(Paths, JoinsWhileReleasingTheDirectoryAndJoinsSeveral) {
  EXPECT_EQ(taken(gen_sconcatf(gen_copy("a"), "~b")), "a/~b");
  EXPECT_EQ(taken(gen_dconcatf(gen_copy("a"), "~b")), "~b");
  EXPECT_EQ(taken(gen_ddconcat("a", "b", "~c")), "~c");
  EXPECT_EQ(taken(gen_ddconcat("a", nullptr, "c")), "a/c");
  EXPECT_EQ(taken(gen_dsconcat("a", "b", "~c")), "a/b/~c");
  EXPECT_EQ(taken(gen_dsconcat("a", "~b", "c")), "~b/c");
  EXPECT_EQ(taken(gen_ddsconcat("a", "b", "c", "~d")), "a/b/c/~d");
  EXPECT_EQ(taken(gen_ddsconcat("a", "b", "~c", "d")), "~c/d");
}

TEST_F(Paths, ReducesANameToItsCanonicalForm) {
  const std::array<std::array<const char*, 2>, 22> examples = {{{"a//b", "a/b"},
                                                                {"a/./b", "a/b"},
                                                                {"a/../b", "b"},
                                                                {"a/b/..", "a"},
                                                                {"a/..", ""},
                                                                {"a/../", ""},
                                                                {"./a//b", "./a/b"},
                                                                {"./../x", "../x"},
                                                                {"./b/../..", ".."},
                                                                {"x/../../y", "../y"},
                                                                {"a/b/../../c", "c"},
                                                                {"/a/../b", "/b"},
                                                                {"/a/..", "/"},
                                                                {"///a", "/a"},
                                                                {"///", "/"},
                                                                {"a//", "a/"},
                                                                {"a/./", "a/"},
                                                                {"a/b/c/../", "a/b/"},
                                                                {"a/b/.", "a/b"},
                                                                {"a/..b/...", "a/..b/..."},
                                                                {"../a/../../b", "../../b"},
                                                                {"C:\\a\\..", "C:\\a\\.."}}};
  for (const auto& [name, expected] : examples) {
    EXPECT_EQ(canonical(name), expected) << name;
  }
  for (const char* const name :
       {"/../a", "/..", "../../x", ".", "..", "./", "//a", "a/b/", "./a", "a.b/c", "", "/"}) {
    EXPECT_EQ(canonical(name), name);
  }
  canonicalizefilename(nullptr, 0);
}

TEST_F(Paths, LeavesDrivesAndServersAlone) {
  EXPECT_EQ(canonical("c:\\x\\..\\y", 1), "C:/y");
  EXPECT_EQ(canonical("\\\\srv\\share\\a\\..\\b", 1), "//srv/share/b");
  EXPECT_EQ(canonical("\\\\srv\\..\\..\\b", 1), "//srv/../../b");
  EXPECT_EQ(canonical("c:/x/..", 1), "C:/");
  EXPECT_EQ(canonical("//srv/a/..", 1), "//srv/");
  EXPECT_EQ(canonical("//srv", 1), "//srv");
  EXPECT_EQ(canonical("z:x/../y", 1), "Z:y");
  EXPECT_EQ(canonical("1:x", 1), "1:x");
  EXPECT_EQ(canonical("/a\\b", 1), "/a/b");
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

TEST_F(Paths, TellsAbsoluteAndBareNames) {
  for (const char* const name : {"/", "/a", "~", "~a"}) {
    EXPECT_TRUE(gen_absolutefilename(name)) << name;
    EXPECT_TRUE(gen_absolute_msw_filename(name)) << name;
  }
  for (const char* const name : {"c:", "c:x", "\\a"}) {
    EXPECT_FALSE(gen_absolutefilename(name)) << name;
    EXPECT_TRUE(gen_absolute_msw_filename(name)) << name;
  }
  for (const char* const name : {"", "a", "a/b", "ab:"}) {
    EXPECT_FALSE(gen_absolutefilename(name)) << name;
    EXPECT_FALSE(gen_absolute_msw_filename(name)) << name;
  }
  EXPECT_TRUE(gen_is_basename("a\\b"));
  EXPECT_FALSE(gen_is_basename("a/"));
  EXPECT_FALSE(gen_is_basename(""));
}

TEST_F(Paths, CutsTheLastComponentAndTheDirectory) {
  EXPECT_STREQ(gen_basename("a/b"), "b");
  EXPECT_STREQ(gen_basename("x/"), "");
  EXPECT_STREQ(gen_basename("c:\\x"), "c:\\x");
  EXPECT_STREQ(gen_basename_anyhost("c:\\x"), "x");
  EXPECT_STREQ(gen_basename_anyhost("a\\b/c"), "c");
  EXPECT_STREQ(gen_msw_basename("c:x"), "x");
  EXPECT_STREQ(gen_msw_basename("x"), "x");
  EXPECT_EQ(taken(gen_dirname("x")), kNull);
  EXPECT_EQ(taken(gen_dirname("/x")), "/");
  EXPECT_EQ(taken(gen_dirname("a/b/c")), "a/b");
  EXPECT_EQ(taken(gen_dirname("a/b/")), "a/b");
  EXPECT_EQ(taken(gen_dirname_anyhost("c:\\x")), "c:\\");
  EXPECT_EQ(taken(gen_dirname_anyhost("c:x")), "c:");
  EXPECT_EQ(taken(gen_dirname_anyhost("c:\\x\\y")), "c:\\x");
  EXPECT_EQ(taken(gen_dirname_anyhost("\\x")), "\\");
  EXPECT_EQ(taken(gen_dirname_anyhost("a\\b/c")), "a\\b");
  EXPECT_EQ(taken(gen_dirname_anyhost("x")), kNull);
}

TEST_F(Paths, CutsTheFirstComponent) {
  EXPECT_EQ(taken(gen_topdir("//a/b")), "a");
  EXPECT_EQ(taken(gen_topdir("a\\b")), "a");
  EXPECT_EQ(taken(gen_topdir("/c:x")), "c:");
  EXPECT_EQ(taken(gen_topdir("a")), "a");
  EXPECT_EQ(taken(gen_topdir("//")), "");
  EXPECT_STREQ(gen_popdir("//a/b/c"), "/b/c");
  EXPECT_STREQ(gen_popdir("a/b"), "/b");
  EXPECT_STREQ(gen_popdir("//a"), "/a");
  EXPECT_EQ(gen_popdir("a"), nullptr);
}

TEST_F(Paths, ComparesDirectoriesAsText) {
  EXPECT_TRUE(gen_dirmatch("a/x", "a/y"));
  EXPECT_TRUE(gen_dirmatch("x", ""));
  EXPECT_FALSE(gen_dirmatch("a/x", "b/x"));
  EXPECT_FALSE(gen_dirmatch("a/x", "a/b/x"));
  EXPECT_TRUE(gen_dir_contains_file("/a", "/a/b"));
  EXPECT_TRUE(gen_dir_contains_file("/a", "/a//b"));
  EXPECT_FALSE(gen_dir_contains_file("/a", "/a/b/c"));
  EXPECT_FALSE(gen_dir_contains_file("/b", "/a/b"));
  EXPECT_TRUE(gen_tree_contains_file("/a", "/a/b/c"));
  EXPECT_TRUE(gen_tree_contains_file("/a/", "/a/b/c"));
  EXPECT_FALSE(gen_tree_contains_file("/a", "/ab"));
  EXPECT_FALSE(gen_tree_contains_file("/a", "/a"));
  EXPECT_FALSE(gen_tree_contains_file("", "a"));
  EXPECT_TRUE(gen_isDirSubdirOfDir("/a//b/c", "/x/../a/b"));
  EXPECT_TRUE(gen_isDirSubdirOfDir("a/./b", "a/b"));
  EXPECT_TRUE(gen_isDirSubdirOfDir("a\\b", "a"));
  EXPECT_TRUE(gen_isDirSubdirOfDir("/a", "/"));
  EXPECT_TRUE(gen_isDirSubdirOfDir("ab", "a")) << "one character contains all behind it";
  EXPECT_FALSE(gen_isDirSubdirOfDir("ab", "a/.")) << "given as more than one character";
  EXPECT_FALSE(gen_isDirSubdirOfDir("/abc", "/ab"));
  EXPECT_FALSE(gen_isDirSubdirOfDir("/a", "/a/b"));
}

TEST_F(Paths, ComparesTheEndOfANameAtAComponent) {
  EXPECT_TRUE(gen_FilenameTailCmp("dir/z.c", "z.c", 1));
  EXPECT_FALSE(gen_FilenameTailCmp("dir/xz.c", "z.c", 1));
  EXPECT_TRUE(gen_FilenameTailCmp("z.c", "z.c", 1));
  EXPECT_TRUE(gen_FilenameTailCmp("/a/b/../c/z.c", "c//z.c", 1));
  EXPECT_TRUE(gen_FilenameTailCmp("dir/z.c", "/z.c", 1));
  EXPECT_FALSE(gen_FilenameTailCmp("z.c", "/z.c", 1)) << "shorter as it stands";
  EXPECT_FALSE(gen_FilenameTailCmp("/z.c", "xz.c", 1));
  EXPECT_FALSE(gen_FilenameTailCmp("dir/Z.c", "z.c", 1));
  EXPECT_TRUE(gen_FilenameTailCmp("dir/Z.c", "z.C", 0));
}

TEST_F(Paths, FindsSuffixes) {
  EXPECT_STREQ(gen_getsuffix("a.b.c"), "c");
  EXPECT_STREQ(gen_getsuffix("a."), "");
  EXPECT_EQ(gen_getsuffix("d.x/a"), nullptr);
  EXPECT_STREQ(gen_getsuffix("libc.so.1.9"), "so");
  EXPECT_STREQ(gen_getsuffix("d/x.sa.12.345"), "sa");
  EXPECT_STREQ(gen_getsuffix("libc.so.1"), "1");
  EXPECT_STREQ(gen_getsuffix("libc.so.1.a"), "a");
  EXPECT_STREQ(gen_getsuffix("libc.sx.1.9"), "9");
  EXPECT_STREQ(gen_getsuffix("d/.so.1.9"), "9");
  EXPECT_STREQ(gen_getsuffix("12345678.9"), "9");
  EXPECT_TRUE(gen_issuffix("a.c", ".c"));
  EXPECT_TRUE(gen_issuffix("a.c", "c"));
  EXPECT_TRUE(gen_issuffix("a.c", nullptr));
  EXPECT_FALSE(gen_issuffix("a.C", "c"));
  EXPECT_FALSE(gen_issuffix("a", nullptr));
}

TEST_F(Paths, ReplacesAndAddsSuffixes) {
  EXPECT_EQ(taken(gen_changesuffix("d.x/a", "c")), "d.x/a.c");
  EXPECT_EQ(taken(gen_changesuffix("d.x/a.b.o", ".c")), "d.x/a.b.c");
  EXPECT_EQ(taken(gen_changesuffix("a.o", nullptr)), "a");
  EXPECT_EQ(taken(gen_changesuffix("a.o", "..c")), "a..c");
  EXPECT_EQ(taken(gen_changesuffix("a.o", "")), "a.");
  EXPECT_EQ(taken(gen_changesuffix(nullptr, ".c")), "c");
  EXPECT_EQ(taken(gen_addsuffix("a.o", ".c")), "a.o.c");
  EXPECT_EQ(taken(gen_addsuffix("a", nullptr)), "a");
  EXPECT_EQ(taken(gen_addsuffix(nullptr, ".c")), "c");
  EXPECT_EQ(taken(gen_makeshort("d/a.o", "c")), "a.c");
  EXPECT_EQ(gen_basenamelen("a.b.c"), 3);
  EXPECT_EQ(gen_basenamelen("abc"), 3);
  EXPECT_TRUE(gen_basenamematch("d/a.b.c", "e/a.b.o"));
  EXPECT_FALSE(gen_basenamematch("a.c", "ab.c"));
  EXPECT_FALSE(gen_basenamematch("a.c", "b.c"));
}

TEST_F(Paths, NamesAProductOfAFile) {
  EXPECT_EQ(taken(gen_changedirandsuffix("out", "src/a.c", "_dbg", ".o")), "out/a_dbg.o");
  EXPECT_EQ(taken(gen_changedirandsuffix("out/x/..", "a.b.c", nullptr, nullptr)), "out/a.b");
  EXPECT_EQ(taken(gen_changedirandsuffix(nullptr, "src/a", "/../b", "o")), "a/../b.o");
  EXPECT_EQ(taken(gen_changedirandsuffix("", "src/a", "/../b", "o")), "b.o");
  EXPECT_EQ(taken(gen_changedirandsuffix("out", nullptr, "x", ".o")), "out/o");
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
  EXPECT_EQ(gen_manglefilename_hashfunc("abc"), 0x187163U);
  EXPECT_EQ(gen_manglefilename_hashfunc("abcdef"), 0x2c7931e8U);
  EXPECT_EQ(gen_manglefilename_hashfunc("\xff"), 0xffU);
  EXPECT_EQ(gen_manglefilename_hashfunc(nullptr), 0U);
  EXPECT_EQ(taken(gen_manglefilename("abc")), "00187163abc");
  EXPECT_EQ(taken(gen_manglefilename_length("xxabc", 12, 1)), "00187163abc");
  EXPECT_EQ(taken(gen_manglefilename_length("ab", 10, 0)), "000030e2b");
  EXPECT_EQ(taken(gen_manglefilename_length("ab", 9, 0)), kNull);
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
  EXPECT_EQ(gen_relative_filename(nullptr, "/a", 1), nullptr);
  EXPECT_EQ(gen_relative_filename("/a", nullptr, 1), nullptr);
  EXPECT_EQ(gen_basename(nullptr), nullptr);
  EXPECT_EQ(gen_msw_basename(nullptr), nullptr);
  EXPECT_EQ(gen_dirname(nullptr), nullptr);
  EXPECT_EQ(gen_dirname_anyhost(nullptr), nullptr);
  EXPECT_EQ(gen_topdir(nullptr), nullptr);
  EXPECT_EQ(gen_popdir(nullptr), nullptr);
  EXPECT_EQ(gen_getsuffix(nullptr), nullptr);
  EXPECT_EQ(gen_makeshort(nullptr, nullptr), nullptr);
  EXPECT_EQ(gen_symfilename(nullptr), nullptr);
  EXPECT_EQ(gen_getpath(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(gen_manglefilename(nullptr), nullptr);
  EXPECT_EQ(gen_basenamelen(nullptr), 0);
  EXPECT_FALSE(gen_absolutefilename(nullptr) || gen_absolute_msw_filename(nullptr) ||
               gen_is_basename(nullptr) || gen_basenamematch(nullptr, "a") ||
               gen_issuffix(nullptr, nullptr) || gen_dirmatch(nullptr, "") ||
               gen_dir_contains_file(nullptr, "a") || gen_tree_contains_file("a", nullptr) ||
               gen_FilenameTailCmp(nullptr, "a", 0) || gen_samefile(nullptr, nullptr));
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
  EXPECT_EQ(taken(gen_relative_filename("/a", "/a/b/c", 0)), "b/c");
  EXPECT_EQ(taken(gen_relative_filename("/a/", "/a/b", 0)), "b");
  EXPECT_EQ(taken(gen_relative_filename("/a/", "/a/", 0)), "");
  EXPECT_EQ(taken(gen_relative_filename("/a", "/a", 0)), kNull);
  EXPECT_EQ(taken(gen_relative_filename("/a", "/ab", 0)), kNull);
  EXPECT_EQ(taken(gen_relative_filename("a", "a/b", 0)), kNull);
  EXPECT_EQ(taken(gen_relative_filename("", "a", 0)), kNull);

  const TemporaryDirectory tree;
  const std::string file = tree.write("real/f", "");
  std::filesystem::create_symlink("real", tree.path("link"));
  EXPECT_EQ(taken(gen_relative_filename(tree.path("link").c_str(), file.c_str(), 0)), kNull);
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
