#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "indgen_path.h"
#include "indview.h"
#include "indview_internal.h"
#include "viewpath_fixture.h"

namespace kelvane {
namespace {

class ViewpathAccess : public ViewpathFixture {
 protected:
  // True if opening a stream brings the file into the local tree.
  static bool copies(const char* name, const char* mode) {
    std::filesystem::remove(name);
    const file_ptr stream(gen_fopen(name, mode));
    return exists(name) && !std::filesystem::is_empty(name);
  }
};

TEST_F(ViewpathAccess, ReadsAFileOfALaterNodeWhereItIs) {
  trees_.write("far/f", "far");
  bring_up_both();
  const int descriptor = gen_open("^/f", O_RDONLY, 0);
  std::array<char, 4> text{};
  EXPECT_EQ(::read(descriptor, text.data(), 3), 3);
  ::close(descriptor);
  EXPECT_STREQ(text.data(), "far");
  file_ptr stream(gen_fopen("f", "rb"));
  ASSERT_NE(stream, nullptr);
  trees_.write("far/g", "G");
  stream.reset(gen_freopen("g", "r", stream.release()));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fgetc(stream.get()), 'G');
  EXPECT_EQ(gen_freopen(nullptr, "r", stream.get()), nullptr);
  EXPECT_EQ(gen_fopen(nullptr, "r"), nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(near_));
  errno = 0;
  EXPECT_EQ(gen_open("nowhere", O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ViewpathAccess, BringsAFileInBeforeItIsWritten) {
  ::chmod(trees_.write("far/f", "far").c_str(), 0450);
  ::chmod(trees_.write("far/sub/deep", "deep").c_str(), 0640);
  ::chmod((far_ + "/sub").c_str(), 0750);
  ::setenv("QVR_VP_DEBUG", "1", 1);
  bring_up_both();
  EXPECT_EQ(capture([] { EXPECT_EQ(V_getf("f"), 0); }).errors,
            "info: Located file: " + far_ + "/f\ninfo: Copied file to f\n");
  EXPECT_EQ(trees_.read("near/f"), "far");
  EXPECT_EQ(mode_of("f"), 0650U);  // 0450 with write bits, less the umask
  V_debug_info = 0;
  ::close(gen_open("sub/deep", O_RDWR, 0));
  EXPECT_EQ(trees_.read("near/sub/deep"), "deep");
  EXPECT_EQ(mode_of("sub"), 0750U);
  ::close(gen_open("sub/new", O_WRONLY | O_CREAT, 0600));
  EXPECT_FALSE(exists(far_ + "/sub/new"));
}

TEST_F(ViewpathAccess, CopiesMoreThanOneBlock) {
  std::string contents;
  for (int line = 0; contents.size() < 20000; ++line) {
    contents += std::to_string(line);
  }
  trees_.write("far/f", contents);
  bring_up_both();
  EXPECT_EQ(V_getf("f"), 0);
  EXPECT_TRUE(trees_.read("near/f") == contents);
}

TEST_F(ViewpathAccess, BringsInNoMoreThanOneLevel) {
  trees_.write("far/a/b/f", "far");
  bring_up_both();
  EXPECT_EQ(V_getf("a/b/f"), -1);
  EXPECT_EQ(V_getf("missing/f"), -1);
  EXPECT_EQ(V_getf("missing"), -1);
  EXPECT_TRUE(std::filesystem::is_empty(near_));
}

TEST_F(ViewpathAccess, LeavesNoPartOfAFileThatCannotBeCopied) {
  std::filesystem::create_directory(far_ + "/d");
  bring_up_both();
  V_debug_info = 1;
  EXPECT_EQ(
      capture([] { EXPECT_EQ(V_getf("d"), -1); }).errors,
      "info: Located file: " + far_ + "/d\nfatal: Unable to copy file to d: Is a directory\n");
  EXPECT_FALSE(exists("d"));
}

TEST_F(ViewpathAccess, LooksStreamsUpByTheirMode) {
  trees_.write("far/f", "far");
  bring_up_both(1);
  EXPECT_FALSE(copies("f", "rb"));
  EXPECT_FALSE(copies("f", "rtnc"));
  EXPECT_TRUE(copies("f", "r+"));
  EXPECT_TRUE(copies("f", "ab"));
  EXPECT_TRUE(copies("f", "re"));  // a character unknown here
  gen_viewpathing_init(2);
  EXPECT_FALSE(copies("f", "rb"));
  EXPECT_TRUE(copies("f", "r+"));
  EXPECT_TRUE(copies("f", "a"));
}

TEST_F(ViewpathAccess, CopiesForPlainWritingInTheSlowModeOnly) {
  // The copy shows in the mode: what a plain open creates has that of the umask.
  ::chmod(trees_.write("far/f", "far").c_str(), 0700);
  bring_up_both(1);
  const auto mode_after = [](auto open) {
    std::filesystem::remove("f");
    open();
    return mode_of("f");
  };
  const auto by_stream = [] { file_ptr(gen_fopen("f", "wb")); };
  const auto by_reopening = [] { file_ptr(gen_freopen("f", "w", std::fopen("/dev/null", "r"))); };
  const auto by_descriptor = [] { ::close(gen_open("f", O_WRONLY | O_CREAT | O_TRUNC, 0600)); };
  const auto by_append = [] { ::close(gen_open("f", O_WRONLY | O_CREAT | O_APPEND, 0600)); };
  EXPECT_EQ(mode_after(by_stream), 0700U);
  EXPECT_EQ(mode_after(by_reopening), 0700U);
  EXPECT_EQ(mode_after(by_descriptor), 0700U);
  gen_viewpathing_init(2);
  EXPECT_EQ(mode_after(by_stream), 0644U);
  EXPECT_EQ(mode_after(by_reopening), 0644U);
  EXPECT_EQ(mode_after(by_descriptor), 0600U);
  EXPECT_EQ(mode_after(by_append), 0700U);
  EXPECT_EQ(trees_.read("far/f"), "far");
}

TEST_F(ViewpathAccess, GrantsAccessInTheUnion) {
  trees_.write("far/f", "far");
  std::filesystem::create_symlink("loop", trees_.path("far/loop"));
  trees_.write("third/loop", "");
  trees_.write("third/x", "");
  ::chmod(trees_.path("third/x").c_str(), 0755);
  bring_up(near_ + ":" + far_ + ":" + trees_.path("third"));
  EXPECT_EQ(gen_access("f", R_OK), 0);
  EXPECT_EQ(gen_access("^/f", F_OK), 0);
  EXPECT_EQ(gen_access("f", W_OK), 0);
  EXPECT_EQ(gen_diraccess("x", X_OK), 0);
  EXPECT_EQ(gen_access("f", X_OK), -1);  // EACCES ends the search
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(gen_access("loop", F_OK), -1);
  EXPECT_EQ(errno, ELOOP);
  for (const int mode : {F_OK, W_OK}) {
    errno = 0;
    EXPECT_EQ(gen_access("nowhere", mode), -1);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_EQ(gen_sys_access("f", F_OK), -1);
  EXPECT_EQ(gen_access(trees_.path("nowhere").c_str(), F_OK), -1);
}

TEST_F(ViewpathAccess, TellsTheStatusOfWhatTheUnionHolds) {
  ::chmod(trees_.write("far/f", "far").c_str(), 0400);
  ::chmod(trees_.write("near/g", "near").c_str(), 0400);
  bring_up(near_ + ":" + far_ + ":" + trees_.name());
  struct stat status {};
  EXPECT_EQ(gen_stat("^/f", &status), 0);
  EXPECT_EQ(status.st_size, 3);
  EXPECT_EQ(status.st_mode & 07777U, 0400U);
  EXPECT_EQ(V_node, 1);
  V_wrstat = 1;
  EXPECT_EQ(gen_stat("f", &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0622U);
  EXPECT_EQ(gen_stat("g", &status), 0);
  EXPECT_EQ(V_node, 0);
  EXPECT_EQ(status.st_mode & 07777U, 0400U);
  EXPECT_EQ(gen_stat("nowhere", &status), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(V_node, 2);
  EXPECT_EQ(gen_sys_stat("f", &status), -1);
}

TEST_F(ViewpathAccess, EntersADirectoryOfALaterNode) {
  std::filesystem::create_directories(far_ + "/sub/deeper");
  ::chmod((far_ + "/sub").c_str(), 0750);
  trees_.write("far/file", "");
  bring_up_both();
  EXPECT_STREQ(gen_getcwd(), near_.c_str());
  EXPECT_EQ(gen_chdir("sub/../sub"), -1);  // can't be made: "sub" is not here yet
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(gen_chdir("sub"), 0);
  EXPECT_EQ(mode_of(near_ + "/sub"), 0750U);
  EXPECT_EQ(V_cwd, near_ + "/sub");
  EXPECT_EQ(gen_getcwd(), near_ + "/sub");  // the cached name was dropped
  EXPECT_EQ(shown(V_getrel("x")), "sub/x");
  EXPECT_EQ(gen_chdir("deeper"), 0);
  EXPECT_EQ(gen_chdir("../.."), 0);
  EXPECT_EQ(V_cwd, near_);
  EXPECT_EQ(gen_chdir("^/sub"), 0);
  EXPECT_EQ(V_cwd, near_ + "/sub");
  EXPECT_EQ(gen_chdir("^"), 0);
  EXPECT_EQ(std::filesystem::current_path(), near_);
}

TEST_F(ViewpathAccess, SaysWhyADirectoryCannotBeEntered) {
  trees_.write("far/file", "");
  std::filesystem::create_directories(far_ + "/a/b");
  bring_up_both();
  const auto reason = [](const std::string& name) {
    errno = 0;
    return gen_chdir(name.c_str()) == -1 ? errno : 0;
  };
  EXPECT_EQ(reason("nowhere"), ENOENT);
  EXPECT_EQ(reason("file"), ENOTDIR);
  EXPECT_EQ(reason("a/b"), EPERM);
  EXPECT_EQ(reason("../outside"), ENOENT);
  EXPECT_EQ(reason(""), ENOENT);
  EXPECT_EQ(gen_chdir(nullptr), -1);
  // A name that doesn't fit the room in which it would be joined.
  std::string longer;
  while (longer.size() < 1024) {
    longer += "long/";
  }
  EXPECT_EQ(reason(longer), ENAMETOOLONG);
  EXPECT_EQ(V_cwd, near_);
  EXPECT_TRUE(std::filesystem::is_empty(near_));
}

TEST_F(ViewpathAccess, ChangesDirectoryWithoutAViewpath) {
  std::filesystem::create_directory("sub");
  EXPECT_STREQ(gen_getcwd(), near_.c_str());
  EXPECT_EQ(gen_chdir("sub"), 0);
  EXPECT_EQ(gen_getcwd(), near_ + "/sub");
  EXPECT_EQ(gen_sys_chdir(".."), 0);
}

TEST_F(ViewpathAccess, LooksForTheStatusOfADirectoryUnderTheRealRootOnly) {
  const std::string link = trees_.path("link");
  std::filesystem::create_directory_symlink(near_, link);
  std::filesystem::create_directory(far_ + "/sub");
  bring_up(link + ":" + far_);
  struct stat status {};
  EXPECT_EQ(V2_stat((near_ + "//sub").c_str(), &status), 0);
  EXPECT_EQ(V2_stat("./sub", &status), 0);
  EXPECT_EQ(V2_stat("^", &status), 0);
  EXPECT_EQ(V2_stat((link + "/sub").c_str(), &status), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ViewpathAccess, CreatesAFileInADirectoryOfALaterNode) {
  std::filesystem::create_directories(far_ + "/sub/deeper");
  bring_up_both();
  const int descriptor = gen_creat("^/sub/f", 0600);
  EXPECT_GE(descriptor, 0);
  ::close(descriptor);
  EXPECT_TRUE(exists(near_ + "/sub/f"));
  EXPECT_FALSE(exists(far_ + "/sub/f"));
  EXPECT_EQ(gen_creat("nowhere/f", 0600), -1);
  EXPECT_EQ(errno, ENOENT);
  std::filesystem::remove_all("sub");
  EXPECT_EQ(gen_creat("sub/deeper/f", 0600), -1);  // more than one level is missing
}

TEST_F(ViewpathAccess, LinksAFileOfALaterNodeByItsCopy) {
  trees_.write("far/f", "far");
  bring_up_both();
  EXPECT_EQ(gen_link("^/f", "g"), 0);
  EXPECT_TRUE(std::filesystem::equivalent("f", "g"));
  EXPECT_EQ(trees_.read("near/g"), "far");
  EXPECT_EQ(gen_link("f", "g"), -1);  // the copy is there; the second try tells why
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(trees_.read("near/f"), "far");
  EXPECT_EQ(gen_link("nowhere", "h"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ViewpathAccess, RemovesNothingOfALaterNode) {
  trees_.write("far/f", "far");
  trees_.write("near/f", "near");
  bring_up_both();
  EXPECT_EQ(gen_unlink("^/f"), 0);
  EXPECT_FALSE(exists("f"));
  EXPECT_EQ(gen_unlink("f"), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(trees_.read("far/f"), "far");
  EXPECT_EQ(gen_unlink("nowhere"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ViewpathAccess, DirectCallsSeeTheRealFilesOnly) {
  trees_.write("far/f", "far");
  bring_up_both();
  EXPECT_EQ(gen_sys_open("f", O_RDONLY, 0), -1);
  EXPECT_EQ(gen_sys_fopen("f", "r"), nullptr);
  EXPECT_EQ(gen_sys_link("f", "g"), -1);
  const int descriptor = gen_sys_creat("^", 0600);
  EXPECT_GE(descriptor, 0);
  ::close(descriptor);
  trees_.write("near/^", "caret");
  file_ptr stream(gen_sys_freopen("^", "r", std::fopen("/dev/null", "r")));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fgetc(stream.get()), 'c');
  EXPECT_EQ(gen_sys_unlink("^"), 0);
}

TEST_F(ViewpathAccess, WrappersWithoutAViewpathAreThePlatformsCalls) {
  ::close(gen_creat("^", 0600));
  ::close(gen_open("f", O_WRONLY | O_CREAT, 0600));
  struct stat status {};
  EXPECT_EQ(gen_stat("^", &status), 0);
  EXPECT_EQ(gen_access("^", W_OK), 0);
  EXPECT_EQ(gen_link("^", "g"), 0);
  EXPECT_EQ(gen_unlink("^"), 0);
  EXPECT_FALSE(exists("^"));
  EXPECT_NE(file_ptr(gen_freopen("g", "r", std::fopen("f", "r"))), nullptr);
}

}  // namespace
}  // namespace kelvane
