#include "indview.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "indview_internal.h"
#include "shared_reset.h"
#include "viewpath_fixture.h"

namespace kelvane {
namespace {

class Viewpathing : public ViewpathFixture {};

TEST_F(Viewpathing, WithoutAListIsThePlatform) {
  trees_.write("near/^", "caret");
  EXPECT_EQ(capture([] { gen_viewpathing_init(1); }).errors, "");
  EXPECT_FALSE(gen_isviewpathing());
  EXPECT_EQ(gen_getviewpathenv(), nullptr);
  EXPECT_NE(file_ptr(gen_fopen("^", "r")), nullptr);
  EXPECT_EQ(shown(gen_viewpathfilename("^/x", 0)), "^/x");
  EXPECT_EQ(shown(gen_viewpathfilename(nullptr, 0)), "(null)");
  EXPECT_EQ(V_changed, 0);
}

TEST_F(Viewpathing, ComesUpWithEitherSeparatorAndKeepsErrno) {
  for (const char* const separator : {":", ";"}) {
    reset_all_state();
    errno = ERANGE;
    EXPECT_EQ(bring_up(near_ + separator + far_ + separator), "");
    EXPECT_EQ(errno, ERANGE);
    EXPECT_TRUE(gen_isviewpathing());
    ASSERT_EQ(V_ndir, 2);
    EXPECT_EQ(V_nodes[0], near_);
    EXPECT_EQ(V_nodes[1], far_);
    EXPECT_EQ(V_root, near_);
    EXPECT_EQ(V_cwd, near_);
    EXPECT_EQ(V_alt_root, nullptr);
  }
  EXPECT_EQ(gen_getviewpathenv(), near_ + ";" + far_ + ";");
}

TEST_F(Viewpathing, ReadsTheListOnceInAProcess) {
  bring_up_both();
  gen_viewpathing_init(2);  // changes the mode only
  EXPECT_EQ(V_wrcopy, 0);
  EXPECT_EQ(V_ndir, 2);
  gen_viewpathing_cleanup();
  EXPECT_FALSE(gen_isviewpathing());
  EXPECT_EQ(V_nodes, nullptr);
  EXPECT_EQ(V_root, nullptr);
  EXPECT_EQ(V_cwd, nullptr);
  gen_viewpathing_init(1);
  EXPECT_FALSE(gen_isviewpathing());
  reset_indview();
  gen_viewpathing_init(1);
  EXPECT_TRUE(gen_isviewpathing());
  gen_viewpathing_init(0);
  EXPECT_FALSE(gen_isviewpathing());
}

TEST_F(Viewpathing, RefusesAnUnknownMode) {
  EXPECT_EQ(bring_up_both(3), "error: Illegal viewpath option passed to gen_viewpathing\n");
  EXPECT_FALSE(gen_isviewpathing());
  int32_t count = 7;
  EXPECT_EQ(capture([&] { EXPECT_EQ(gen_getviewpathnodes(&count), nullptr); }).errors,
            "error: [gen_getviewpathnodes]: not implemented\n");
  EXPECT_EQ(count, 0);
}

TEST_F(Viewpathing, TellsItsProgressWhenAsked) {
  ::setenv("QVR_VP_DEBUG", "1", 1);
  const std::string nodes =
      "info: Adding viewpath node 1: " + near_ + "\ninfo: Adding viewpath node 2: " + far_ + "\n";
  EXPECT_EQ(bring_up_both(1), "info: Viewpathing support is ON (SLOW).\n" + nodes);
  EXPECT_EQ(V_wrcopy, 1);
  EXPECT_EQ(bring_up_both(0), "info: Viewpathing support is OFF.\n");
  reset_all_state();
  EXPECT_EQ(bring_up_both(2), "info: Viewpathing support is ON (FAST).\n" + nodes);
  EXPECT_EQ(V_wrcopy, 0);
  EXPECT_EQ(bring_up_both(4),
            "error: Illegal viewpath option passed to gen_viewpathing\n"
            "info: Viewpathing support is OFF.\n");
}

TEST_F(Viewpathing, ObeysTheSlowAndOffSwitches) {
  ::setenv("QVR_VP_SLOW", "1", 1);
  EXPECT_EQ(bring_up_both(2), "");
  EXPECT_EQ(V_wrcopy, 1);
  reset_all_state();
  ::setenv("QVR_VP_DEBUG", "1", 1);
  EXPECT_EQ(bring_up("/", 2),
            "info: Disabling FAST viewpathing mode \n"
            "\tbecause environment variable (QVR_VP_SLOW) is set.\n"
            "info: Viewpathing support is ON (SLOW).\n"
            "info: Adding viewpath node 1: /\n");
  reset_all_state();
  ::setenv("QVR_VP_OFF", "1", 1);
  EXPECT_EQ(bring_up_both(3),
            "info: Disabling viewpathing mode \n"
            "\tbecause environment variable (QVR_VP_OFF) is set.\n"
            "info: Viewpathing support is OFF.\n");
  EXPECT_FALSE(gen_isviewpathing());
  ::setenv("QVR_VP_OFF", "", 1);  // empty counts as unset
  bring_up_both();
  EXPECT_TRUE(gen_isviewpathing());
}

TEST_F(Viewpathing, LeavesOutNodesThatCannotBeResolved) {
  std::filesystem::create_symlink("loop", trees_.path("loop"));
  const std::string missing = trees_.path("missing");
  const std::string loop = trees_.path("loop");
  EXPECT_EQ(bring_up(missing + "/a/b:" + near_ + "::" + loop),
            "warning: V_get_vpath:  Cannot resolve vpath node '" + missing + "/a/b', error near '" +
                missing +
                "'\n"
                "warning: V_get_vpath:  Cannot resolve vpath node '', error near ''\n"
                "warning: V_get_vpath:  Cannot resolve vpath node '" +
                loop + "', error near '" + loop + "'\n");
  EXPECT_EQ(V_ndir, 1);
  EXPECT_EQ(V_root, near_);
  EXPECT_EQ(V_alt_root, loop);  // any element read while there is one node may spell the root
}

TEST_F(Viewpathing, LeavesOutWhatDoesNotFitTheBuffer) {
  const std::string filling(1023 - near_.size() - 1 - far_.size() - 1, '/');
  const std::string fitting = near_ + ":" + far_ + ":" + filling;
  EXPECT_EQ(bring_up(fitting), "");
  EXPECT_EQ(V_ndir, 3);
  reset_all_state();
  EXPECT_EQ(bring_up(fitting + ":"), "");
  EXPECT_EQ(V_ndir, 3);
  reset_all_state();
  EXPECT_EQ(bring_up(fitting + "/;" + far_),
            "warning: V_get_vpath:  viewpath is too long, ignoring '" + filling + "/'\n");
  EXPECT_EQ(V_ndir, 2);
  reset_all_state();
  const std::string huge(1024, '/');
  EXPECT_EQ(bring_up(huge),
            "warning: V_get_vpath:  viewpath is too long, ignoring '" + huge + "'\n");
  EXPECT_FALSE(gen_isviewpathing());
}

TEST_F(Viewpathing, TakesNoMoreThan128Nodes) {
  std::string list = ".";
  for (int element = 1; element < 130; ++element) {
    list += ":.";
  }
  EXPECT_EQ(bring_up(list), "");
  EXPECT_EQ(V_ndir, 128);
}

TEST_F(Viewpathing, KnowsTheRootByItsOtherSpelling) {
  const std::string link = trees_.path("link");
  std::filesystem::create_directory_symlink(near_, link);
  ::setenv("QVR_VP_DEBUG", "1", 1);
  EXPECT_EQ(bring_up(link + ":" + far_),
            "info: Viewpathing support is ON (SLOW).\ninfo: Adding viewpath node 1: " + near_ +
                "\ninfo: Using alternate root: " + link +
                "\ninfo: Adding viewpath node 2: " + far_ + "\n");
  EXPECT_EQ(V_alt_root, link);
  EXPECT_EQ(shown(V_getrel((link + "/a").c_str())), "a");
  reset_all_state();
  ::setenv("QVR_VP_XSW", "3", 1);
  EXPECT_EQ(bring_up(link + ":" + far_),
            "info: Viewpathing support is ON (SLOW).\ninfo: Adding viewpath node 1: " + near_ +
                "\ninfo: Ignoring alternate root: " + link +
                "\ninfo: Adding viewpath node 2: " + far_ + "\n");
  EXPECT_EQ(V_xsw_flags, 3);
  EXPECT_EQ(shown(V_getrel((link + "/a").c_str())), "(null)");
  reset_all_state();
  ::setenv("QVR_VP_XSW", "2", 1);
  bring_up(link + ":.");  // the second element is a node: the spelling of the first one stays
  EXPECT_EQ(V_alt_root, link);
  reset_all_state();
  bring_up(link + ":missing");  // a relative element that is none takes it away
  EXPECT_EQ(V_alt_root, nullptr);
}

TEST_F(Viewpathing, GivesNamesRelativeToTheRoot) {
  bring_up_both();
  EXPECT_EQ(shown(V_getrel(near_.c_str())), ".");
  EXPECT_EQ(shown(V_getrel((near_ + "//").c_str())), ".");
  EXPECT_EQ(shown(V_getrel((near_ + "//a/../b").c_str())), "a/../b");
  EXPECT_EQ(shown(V_getrel("./a/../b")), "b");
  EXPECT_EQ(shown(V_getrel("..")), "(null)");
  EXPECT_EQ(shown(V_getrel((near_ + "by/x").c_str())), "(null)");
  EXPECT_EQ(shown(V_getrel(near_.substr(0, near_.size() - 1).append("/x").c_str())), "(null)");
}

TEST_F(Viewpathing, SearchesTheNodesForAFileToRead) {
  trees_.write("near/both", "near");
  trees_.write("far/both", "far");
  trees_.write("far/sub/deep", "far");
  trees_.write("third/last", "third");
  std::filesystem::create_symlink("loop", trees_.path("far/loop"));
  trees_.write("third/loop", "third");
  ::setenv("QVR_VP_DEBUG", "1", 1);
  bring_up(near_ + ":" + far_ + ":" + trees_.path("third"));
  const std::string third = trees_.path("third");
  const auto located = [](const char* name) {
    return capture([name] { gen_free(gen_viewpathfilename(name, 0)); }).errors;
  };
  EXPECT_EQ(located("both"), "");
  EXPECT_EQ(located("sub/deep"), "info: Located file: " + far_ + "/sub/deep\n");
  EXPECT_EQ(located("loop"), "info: Located file: " + far_ + "/loop\n");  // there, out of reach
  EXPECT_EQ(located("nowhere"), "");
  V_debug_info = 0;
  EXPECT_EQ(shown(gen_viewpathfilename("both", 0)), "both");
  EXPECT_EQ(shown(gen_viewpathfilename("^/both", 0)), near_ + "/both");
  EXPECT_EQ(shown(gen_viewpathfilename("^/last", 0)), third + "/last");
  EXPECT_EQ(shown(gen_viewpathfilename("^", 0)), near_);
  EXPECT_EQ(shown(gen_viewpathfilename("^x", 0)), third + "/^x");
  EXPECT_EQ(shown(gen_viewpathfilename("nowhere", 0)), third + "/nowhere");
  EXPECT_EQ(shown(gen_viewpathfilename("../nowhere", 0)), "../nowhere");
  EXPECT_EQ(shown(gen_viewpathfilename("last", 2)), "last");
  EXPECT_EQ(shown(gen_viewpathfilename("last", 9)), "last");
  EXPECT_FALSE(exists(near_ + "/last"));
  EXPECT_EQ(shown(gen_viewpathfilename("last", 1)), "last");
  EXPECT_EQ(trees_.read("near/last"), "third");
}

TEST_F(Viewpathing, WithOneNodeGivesTheNameItself) {
  bring_up(near_);
  EXPECT_EQ(shown(gen_viewpathfilename("nowhere", 0)), "nowhere");
}

TEST_F(Viewpathing, WalksAFileThroughTheNodes) {
  const std::string third = trees_.path("third");
  for (const char* const tree : {"near/f", "far/f", "third/f", "third/only"}) {
    trees_.write(tree, tree);
  }
  bring_up(near_ + ":" + far_ + ":" + third);
  EXPECT_EQ(shown(gen_viewpathnextname("f")), far_ + "/f");
  EXPECT_EQ(shown(gen_viewpathnextname((far_ + "/f").c_str())), third + "/f");
  EXPECT_EQ(shown(gen_viewpathnextname((third + "/f").c_str())), "(null)");
  EXPECT_EQ(shown(gen_viewpathnextname("missing")), "(null)");
  trees_.write("near/only", "");  // in the third node, but not directly behind
  EXPECT_EQ(shown(gen_viewpathnextname("only")), "(null)");

  EXPECT_EQ(shown(gen_viewpathlocalname("f")), near_ + "/f");
  EXPECT_EQ(shown(gen_viewpathlocalname((third + "/only").c_str())), near_ + "/only");
  EXPECT_EQ(shown(gen_viewpathlocalname("missing")), "missing");
  EXPECT_EQ(shown(gen_viewpathlocalname("/")), "(null)");
  EXPECT_EQ(shown(gen_viewpathlocalname(far_.c_str())), "(null)");  // a node is not below itself
}

TEST_F(Viewpathing, TakesWhatLiesDirectlyBelowTheFileSystemsRoot) {
  bring_up(near_ + ":/");
  EXPECT_EQ(shown(gen_viewpathlocalname("/dev")), near_ + "/dev");
}

TEST(CompressPath, ResolvesDots) {
  const auto compressed = [](std::string path) {
    path.resize(path.size() + 2);
    return std::string(V_compath(path.data()));
  };
  EXPECT_EQ(compressed(""), ".");
  EXPECT_EQ(compressed("a/b/../c"), "a/c");
  EXPECT_EQ(compressed("../../x"), "../../x");
  EXPECT_EQ(compressed("a/../../x"), "../x");
  EXPECT_EQ(compressed("./a//b/."), "a/b");
  EXPECT_EQ(compressed("a/.."), ".");
  EXPECT_EQ(compressed("/../x"), "/../x");
  EXPECT_EQ(compressed("/a/.."), "/");
  EXPECT_EQ(compressed("//"), "/");
  EXPECT_EQ(compressed("/a/b//"), "/a/b");
  EXPECT_EQ(compressed("..a/.b"), "..a/.b");
}

TEST(CompressPath, StopsResolvingBehindTheJoinOfADirectoryAndAName) {
  const auto compressed = [](std::string path) { return std::string(V2_compath(path.data())); };
  EXPECT_EQ(compressed("/a/b/../c/../d"), "/a/c/../d");
  EXPECT_EQ(compressed("//a//b/./../..//../c/./d/"), "/c/./d");
  EXPECT_EQ(compressed("/a/./"), "/a");
  EXPECT_EQ(compressed("/.."), "/");
  const CapturedRun run = capture([] {
    std::array<char, 4> relative{"a/b"};
    errno = ENOENT;
    V2_compath(relative.data());
  });
  EXPECT_EQ(run.errors,
            "fatal: INTERNAL ERROR: libvp: chdir: compath2: (1) [a/b] not absolute path: "
            "No such file or directory\n");
  EXPECT_EQ(run.status, 1);
}

TEST(CompressPath, ReportsThe129thComponent) {
  std::string fitting;
  for (int component = 0; component < 128; ++component) {
    fitting += "/a";
  }
  const std::string longer = fitting + "/b";
  std::string path = fitting;
  EXPECT_EQ(capture([&] { EXPECT_EQ(V_compath(path.data()), fitting); }).errors, "");
  path = longer;
  EXPECT_EQ(capture([&] { EXPECT_EQ(V_compath(path.data()), fitting); }).errors,
            "error: [V_compath]: too many directory components for \"" + longer + "\"\n");
  path = longer;
  EXPECT_EQ(capture([&] { EXPECT_EQ(V2_compath(path.data()), fitting); }).errors,
            "error: [V2_compath]: too many directory components for \"" + longer + "\"\n");
}

TEST(CompressPath, JoinsAListOfStrings) {
  std::array<char, 8> buffer{"xxxxxxx"};
  V_cat(buffer.data(), "ab", "", "/", "c", nullptr);
  EXPECT_STREQ(buffer.data(), "ab/c");
  V_cat(buffer.data(), nullptr, nullptr);
  EXPECT_STREQ(buffer.data(), "");
}

}  // namespace
}  // namespace kelvane
