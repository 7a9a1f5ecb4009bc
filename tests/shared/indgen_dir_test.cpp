#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

class Directories : public testing::Test {
 protected:
  Directories() {
    root_.write("tree/a.c", "12");
    root_.write("tree/b.h", "");
    root_.write("tree/plain", "");
    std::filesystem::create_directories(root_.path("tree/CVS"));
    std::filesystem::create_directories(root_.path("tree/sub.c"));
  }
  ~Directories() override { gen_dir_close(&handle_); }

  void open() { ASSERT_EQ(gen_dir_open(&handle_, tree_.c_str()), 1); }
  // The names that are left, each with a slash behind it if it counts as a directory.
  std::set<std::string> rest() {
    std::set<std::string> names;
    while (const char* const name = gen_dir_next_entry(&handle_)) {
      EXPECT_STREQ(name, handle_.name);
      names.insert(name + std::string(handle_.is_dir != 0 ? "/" : ""));
    }
    return names;
  }

  TemporaryDirectory root_;
  std::string tree_ = root_.path("tree");
  gen_dir_handle handle_{};
};

TEST_F(Directories, EntriesComeWithoutTheDotsAndWithTheirStatus) {
  open();
  EXPECT_STREQ(handle_.directory, tree_.c_str());
  EXPECT_EQ(handle_.skip_dots, 1);
  EXPECT_THAT(rest(), ElementsAre("CVS/", "a.c", "b.h", "plain", "sub.c/"));
  gen_dir_close(&handle_);
  EXPECT_EQ(handle_.stream, nullptr);
  EXPECT_EQ(handle_.directory, nullptr);
  EXPECT_EQ(gen_dir_next_entry(&handle_), nullptr);

  open();
  while (std::string(gen_dir_next_entry(&handle_)) != "a.c") {
  }
  EXPECT_EQ(handle_.path, tree_ + "/a.c");
  EXPECT_EQ(handle_.path, handle_.owned_path);
  EXPECT_EQ(handle_.status.st_size, 2);
}

TEST_F(Directories, OpeningWhatIsNoDirectoryFailsAndLeavesAnEmptyRecord) {
  handle_.skip_cvs = 1;
  EXPECT_EQ(gen_dir_open(&handle_, root_.path("missing").c_str()), 0);
  EXPECT_EQ(handle_.skip_cvs, 0);
  EXPECT_EQ(handle_.directory, nullptr);
  EXPECT_EQ(gen_dir_open(&handle_, root_.path("tree/plain").c_str()), 0);
}

TEST_F(Directories, RestrictionsLeaveOutWhatTheyName) {
  open();
  gen_dir_restrict_files(&handle_, 1, nullptr);
  EXPECT_THAT(rest(), ElementsAre("CVS/", "sub.c/"));
  gen_dir_close(&handle_);

  open();
  gen_dir_restrict_files(&handle_, 0, ".h");
  gen_dir_restrict_files(&handle_, 0, ".c");
  EXPECT_THAT(rest(), ElementsAre("a.c", "sub.c/"));
  gen_dir_close(&handle_);

  open();
  gen_dir_restrict_dirs(&handle_, 1, 1, 0);
  EXPECT_THAT(rest(), ElementsAre("a.c", "b.h", "plain"));
  gen_dir_close(&handle_);

  open();
  gen_dir_restrict_dirs(&handle_, 0, 0, 1);
  EXPECT_THAT(rest(), ElementsAre("../", "./", "a.c", "b.h", "plain", "sub.c/"));
}

TEST_F(Directories, TheOptimizedSearchGuessesFromTheNameAlone) {
  open();
  gen_dir_optimize_search(&handle_, 1);
  gen_dir_restrict_dirs(&handle_, 0, 0, 0);
  EXPECT_THAT(rest(), ElementsAre("../", "./", "CVS/", "a.c", "b.h", "plain/", "sub.c"));
  EXPECT_EQ(handle_.status.st_ino, 0u);
}

TEST_F(Directories, ALinkCountsAsWhatItLeadsTo) {
  ASSERT_EQ(::symlink("sub.c", (tree_ + "/dirlink").c_str()), 0);
  ASSERT_EQ(::symlink("missing", (tree_ + "/dangling").c_str()), 0);
  open();
  EXPECT_THAT(rest(), ElementsAre("CVS/", "a.c", "b.h", "dangling", "dirlink/", "plain", "sub.c/"));
}

TEST_F(Directories, OnlyAReadableDirectoryWithNothingInItIsEmpty) {
  EXPECT_EQ(gen_isemptydir(root_.path("tree/CVS").c_str()), 1);
  EXPECT_EQ(gen_isemptydir(tree_.c_str()), 0);
  EXPECT_EQ(gen_isemptydir(root_.path("missing").c_str()), 0);
}

TEST_F(Directories, TheWholeListHoldsTheDotsAndGrows) {
  for (int number = 0; number < 93; ++number) {
    root_.write("tree/f" + std::to_string(number), "");
  }
  char** list = nullptr;
  EXPECT_EQ(gen_read_directory(tree_.c_str(), &list), 100);
  EXPECT_EQ(gen_read_directory(tree_.c_str(), nullptr), 100);
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
  EXPECT_EQ(gen_read_directory(root_.path("missing").c_str(), &list), 0);
  EXPECT_EQ(list, nullptr);
}

TEST_F(Directories, AFileIsFoundInTheDirectoryAndBelowItIfAskedFor) {
  const std::string deep = root_.write("tree/sub.c/deeper/wanted", "");
  std::filesystem::create_directories(root_.path("tree/CVS/wanted"));  // no file
  const auto find = [this](const char* name, uint8_t recurse) {
    const gen_ptr<char> found(gen_find_file(tree_.c_str(), name, R_OK, recurse));
    return std::string(found ? found.get() : "none");
  };
  EXPECT_EQ(find("a.c", 0), tree_ + "/a.c");
  EXPECT_EQ(find("wanted", 0), "none");
  EXPECT_EQ(find("wanted", 1), deep);
  EXPECT_EQ(find("CVS", 1), "none");
  EXPECT_EQ(find("sub.c/deeper/wanted", 0), "none");
  EXPECT_EQ(find(nullptr, 1), "none");
  EXPECT_EQ(gen_find_file(nullptr, "a.c", R_OK, 1), nullptr);
  EXPECT_EQ(gen_find_file(root_.path("tree/a.c").c_str(), "a.c", R_OK, 1), nullptr);
  ASSERT_EQ(::chmod((tree_ + "/a.c").c_str(), 0644), 0);
  EXPECT_EQ(gen_find_file(tree_.c_str(), "a.c", X_OK, 0), nullptr);
}

TEST_F(Directories, ASearchEndsWhereLinksLeadBackUp) {
  ASSERT_EQ(::symlink("..", (tree_ + "/CVS/up").c_str()), 0);
  ASSERT_EQ(::symlink(tree_.c_str(), (tree_ + "/sub.c/top").c_str()), 0);
  EXPECT_EQ(gen_find_file(tree_.c_str(), "nowhere", F_OK, 1), nullptr);
  const std::string wanted = root_.write("tree/CVS/wanted", "");
  const gen_ptr<char> found(gen_find_file(tree_.c_str(), "wanted", F_OK, 1));
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(std::filesystem::equivalent(found.get(), wanted));
}

}  // namespace
}  // namespace kelvane
