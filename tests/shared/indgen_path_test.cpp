#include "indgen_path.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "child_process.h"
#include "indgen_memory.h"
#include "indgen_string.h"
#include "reset_state.h"
#include "scenario.h"

namespace kelvane {
namespace {

std::string canonical(const char* name, uint8_t msw) {
  std::string path = name;
  canonicalizefilename(path.data(), msw);
  return path.c_str();
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

TEST_F(Paths, WalksAListOfPaths) {
  std::array<char, 4> buffer{};
  const char* rest = gen_getpath("::abcde:f::", buffer.data(), 3);
  EXPECT_STREQ(buffer.data(), "abc");
  EXPECT_STREQ(rest, ":f::");
  rest = gen_getpath(rest, buffer.data(), 3);
  EXPECT_STREQ(buffer.data(), "f");
  EXPECT_STREQ(rest, "::");
  EXPECT_EQ(gen_getpath(rest, buffer.data(), 3), nullptr);
  EXPECT_EQ(gen_getpath(nullptr, nullptr, 0), nullptr);
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
  EXPECT_EQ(in_child([&] {
              constexpr uid_t kUnknownUser = 54321;
              reset_all_state();
              variable.set("");
              const CapturedRun run = capture([&] {
                EXPECT_EQ(::setreuid(kUnknownUser, static_cast<uid_t>(-1)), 0);
                gen_getcwd();
              });
              ::_exit(run.ended && run.errors == "fatal: Could not get current working directory.\n"
                          ? run.status
                          : 0);
            }).status,
            1);
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

TEST_F(Paths, OfEntriesAreAsTheTableTells) {
  using Text = const char*;
  const TemporaryDirectory tree;
  const ChangedDirectory here(tree.name());
  const ChangedVariable home("HOME", "/home/./one");
  const ChangedVariable suffix("TARVOSYM", std::nullopt);
  const struct passwd* const root = ::getpwnam("root");
  ASSERT_NE(root, nullptr);
  char* current = nullptr;
  // clang-format off
  go_through(KELVANE_TABLES "indgen_path_entries.table", tree, {
      KELVANE_OPERATION(gen_expand_filename_using_cwd), KELVANE_OPERATION(gen_relative_filename),
      KELVANE_OPERATION(gen_realpath), KELVANE_OPERATION(gen_samefile), KELVANE_OPERATION(gen_symfilename),
      {"listed", [&current](Text name) {
        const std::string shortened = text_of(gen_addpath(name, &current));
        return shortened + ":" + text_of(current);
      }},
      {"current", [&current](Text name) { gen_free(current); current = gen_copy(name); return ""; }},
      {"expanded", [](Text name) { return gen_expand_filename(name); }},
      {"of_root", [&](Text name) {
        const std::string expanded = taken(gen_expand_filename(name));
        return expanded.substr(0, std::string(root->pw_dir).size()) == root->pw_dir ? expanded.substr(std::string(root->pw_dir).size()) : "elsewhere";
      }},
      {"reduced", [](const std::string& text) { std::string name = text; gen_canonicalfilename(name.data()); return std::string(name.c_str()); }},
      {"reduced_unix", [](const std::string& text) { std::string name = text; gen_unix_canonicalfilename(name.data()); return std::string(name.c_str()); }},
      {"reduced_msw", [](const std::string& text) { std::string name = text; gen_msw_canonicalfilename(name.data()); return std::string(name.c_str()); }},
      {"mangled", [](Text name) { return taken(gen_manglefilename(name)).substr(8); }},
  });
  // clang-format on
  gen_free(current);
}

}  // namespace
}  // namespace kelvane
