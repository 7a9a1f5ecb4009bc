#include "scenario.h"
#include "viewpath_fixture.h"

namespace kelvane {
namespace {

class SourceRoots : public ViewpathFixture {};

TEST_F(SourceRoots, AreReadFromAList) {
  const std::string link = trees_.path("link");
  std::filesystem::create_directory_symlink(near_, link);
  EXPECT_EQ(gen_sourceroot_init((near_ + "//;" + link + "/,.:c:/gone/:d:\\x\\,/").c_str()), 6);
  char** roots = nullptr;
  char** alternates = nullptr;
  EXPECT_EQ(gen_sourceroot_getroots(&roots, &alternates), 6);
  const std::vector<const char*> expected = {near_.c_str(), near_.c_str(), near_.c_str(),
                                             "c:/gone",     "d:\\x",       "/"};
  for (size_t root = 0; root < expected.size(); ++root) {
    EXPECT_STREQ(roots[root], expected[root]);
  }
  EXPECT_EQ(roots[6], nullptr);
  EXPECT_EQ(alternates[0], nullptr);
  EXPECT_EQ(alternates[1], link);
  EXPECT_EQ(alternates[2], nullptr);  // another spelling, but not an absolute one
  EXPECT_EQ(alternates[3], nullptr);
  EXPECT_EQ(allow_fake_roots, 1);
  EXPECT_EQ(gen_sourceroot_init(""), 0);
  EXPECT_EQ(gen_sourceroot_init(nullptr), 0);
  EXPECT_EQ(nsourceroots, 6);
  EXPECT_EQ(gen_sourceroot_init(roots[0]), 1);  // a new list replaces the old one, even its owner
  EXPECT_EQ(allow_fake_roots, 0);
  gen_sourceroot_cleanup();
  EXPECT_EQ(gen_sourceroot_getroots(&roots, nullptr), 0);
  EXPECT_EQ(roots, nullptr);
}

TEST_F(SourceRoots, AreAtMost128) {
  std::string list = near_;
  for (int root = 1; root < 130; ++root) {
    list += ":" + near_;
  }
  EXPECT_EQ(gen_sourceroot_init(list.c_str()), 128);
  EXPECT_EQ(sourceroots[128], nullptr);
}

TEST_F(SourceRoots, MakeNamesRelativeAsTheTableTells) {
  using Text = const char*;
  int32_t index = 5;
  go_through(KELVANE_TABLES "indview_sourceroot.table", trees_,
             {{"roots", gen_sourceroot_init},
              {"relative",
               [&](Text name) {
                 char* const relative = gen_sourceroot_getrelname(name, &index);
                 EXPECT_EQ(taken(gen_sourceroot_getrelname(name, nullptr)), text_of(relative));
                 return taken(relative) + ":" + std::to_string(index);
               }},
              {"viewpath_roots",
               [](Text) {
                 gen_sourceroot_initfromviewpath();
                 return "";
               }},
              {"up", [](Text list) { return bring_up(list); }}});
}

}  // namespace
}  // namespace kelvane
