#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "changed_surroundings.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "scenario.h"

namespace kelvane {
namespace {

class Directories : public testing::Test {
 protected:
  TemporaryDirectory root_;
  ChangedDirectory here_{root_.name()};
};

// The names that are left under restrictions, in order, with a slash behind each directory.
std::string entries(const char* directory, uint8_t no_files, const char* suffix, uint8_t no_dirs,
                    uint8_t skip_dots, uint8_t skip_cvs, uint8_t guess) {
  gen_dir_handle handle;
  if (gen_dir_open(&handle, directory) == 0) {
    EXPECT_EQ(handle.directory, nullptr);
    return kNullText;
  }
  EXPECT_EQ(handle.skip_dots, 1);
  gen_dir_restrict_files(&handle, 1, ".h");  // the next ones replace it
  gen_dir_restrict_files(&handle, no_files, suffix);
  gen_dir_restrict_dirs(&handle, no_dirs, skip_dots, skip_cvs);
  gen_dir_optimize_search(&handle, guess);
  std::set<std::string> names;
  while (const char* const name = gen_dir_next_entry(&handle)) {
    EXPECT_STREQ(name, handle.name);
    EXPECT_EQ(handle.path, taken(gen_dconcat(directory, name)));
    EXPECT_EQ(handle.path, handle.owned_path);
    EXPECT_EQ(handle.status.st_ino == 0, guess != 0 || handle.name == std::string("dangling"));
    names.insert(name + std::string(handle.is_dir != 0 ? "/" : ""));
  }
  gen_dir_close(&handle);
  EXPECT_EQ(handle.stream, nullptr);
  EXPECT_EQ(gen_dir_next_entry(&handle), nullptr);
  std::string all;
  for (const std::string& name : names) {
    all += (all.empty() ? "" : ":") + name;
  }
  return all;
}

TEST_F(Directories, GiveWhatTheTableTells) {
  go_through(KELVANE_TABLES "indgen_dir.table", root_,
             {KELVANE_OPERATION(entries), KELVANE_OPERATION(gen_isemptydir),
              KELVANE_OPERATION(gen_find_file)});
}

TEST_F(Directories, TheWholeListHoldsTheDotsAndGrows) {
  for (int number = 0; number < 98; ++number) {
    root_.write("tree/f" + std::to_string(number), "");
  }
  char** list = nullptr;
  EXPECT_EQ(gen_read_directory("tree", &list), 100);
  EXPECT_EQ(gen_read_directory("tree", nullptr), 100);
  ASSERT_NE(list, nullptr);
  std::set<std::string> names;
  int32_t count = 0;
  for (; list[count] != nullptr; ++count) {
    names.insert(list[count]);
    gen_free(list[count]);
  }
  EXPECT_EQ(count, 100);
  EXPECT_EQ(names.size(), 100u);
  EXPECT_EQ(names.count(".."), 1u);
  EXPECT_EQ(names.count("f92"), 1u);
  gen_free(list);
  EXPECT_EQ(gen_read_directory("missing", &list), 0);
  EXPECT_EQ(list, nullptr);
}

}  // namespace
}  // namespace kelvane
