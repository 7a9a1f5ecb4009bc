#include "indview.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "indgen_path.h"
#include "indview_internal.h"
#include "scenario.h"
#include "viewpath_fixture.h"

namespace kelvane {
namespace {

class Viewpathing : public ViewpathFixture {
 protected:
  // What stands before a test: the trees, the current directory, the environment, the state.
  void start_afresh() {
    for (const char* const entry : {"third", "link", "near", "far"}) {
      std::filesystem::remove_all(trees_.path(entry));
    }
    std::filesystem::create_directory(near_);
    std::filesystem::create_directory(far_);
    std::filesystem::current_path(near_);
    clear();
  }
  std::vector<Operation> operations();
};

std::string result_of_open(int descriptor) {
  return descriptor >= 0 && ::close(descriptor) == 0 ? "ok" : "-1";
}

std::string contents_of(std::FILE* opened) {
  const file_ptr stream(opened);
  std::array<char, 16> text{};
  if (stream != nullptr && std::fgets(text.data(), text.size(), stream.get()) == nullptr) {
    text[0] = '\0';
  }
  return stream == nullptr ? kNullText : text.data();
}

int flags_of(const std::string& text) {
  return text == "r" ? O_RDONLY : text == "rw" ? O_RDWR : O_WRONLY | O_CREAT;
}

// True if opening a stream brings the file into the local tree.
bool copies(const char* name, const char* mode) {
  std::filesystem::remove(name);
  contents_of(gen_fopen(name, mode));
  return std::filesystem::exists(name) && !std::filesystem::is_empty(name);
}

// Opens "f" for plain writing in one of four ways.
void write_plainly(const std::string& way) {
  std::filesystem::remove("f");
  if (way == "fopen") {
    file_ptr(gen_fopen("f", "wb"));
  } else if (way == "freopen") {
    file_ptr(gen_freopen("f", "w", std::fopen("/dev/null", "r")));
  } else {
    ::close(gen_open("f", O_WRONLY | O_CREAT | (way == "open" ? O_TRUNC : O_APPEND), 0600));
  }
}

std::vector<Operation> Viewpathing::operations() {
  using Text = const char*;
  // clang-format off
  return {
      KELVANE_OPERATION(gen_viewpathfilename), KELVANE_OPERATION(gen_viewpathnextname),
      KELVANE_OPERATION(gen_viewpathlocalname), KELVANE_OPERATION(V_getrel), KELVANE_OPERATION(V_getf),
      KELVANE_OPERATION(gen_access), KELVANE_OPERATION(gen_diraccess), KELVANE_OPERATION(gen_chdir),
      KELVANE_OPERATION(gen_link), KELVANE_OPERATION(gen_unlink), KELVANE_OPERATION(gen_sys_access),
      KELVANE_OPERATION(gen_sys_link), KELVANE_OPERATION(gen_sys_unlink), KELVANE_OPERATION(copies),
      {"gen_isviewpathing", [](Text) { return gen_isviewpathing(); }},
      {"gen_viewpathing_cleanup", [](Text) { gen_viewpathing_cleanup(); return ""; }},
      {"gen_getcwd", [](Text) { return gen_getcwd(); }},
      {"V_changed", [](Text) { return V_changed; }},
      {"V_cwd", [](Text) { return text_of(V_cwd); }},
      {"V_compath", [](const std::string& path) { std::string room = path + "  "; room.resize(path.size()); return std::string(V_compath(room.data())); }},
      {"V2_compath", [](const std::string& path) { std::string room = path; return std::string(V2_compath(room.data())); }},
      {"V2_stat", [](Text name) { struct stat status {}; return V2_stat(name, &status); }},
      {"write_bits", [](int32_t on) { V_wrstat = on; return ""; }},
      {"stat", [](Text name) {
        struct stat status {};
        const bool found = gen_stat(name, &status) == 0;
        return (found ? std::to_string(status.st_size) + "/" + octal(status.st_mode) : "-1") + "/" + std::to_string(V_node);
      }},
      {"state", [](Text) {
        const bool any = V_nodes != nullptr;
        return std::to_string(V_ndir) + ":" + text_of(any ? V_nodes[0] : nullptr) + ":" +
               text_of(V_root) + ":" + text_of(V_alt_root) + ":" + std::to_string(V_wrcopy);
      }},
      {"open", [](Text name, const std::string& flags, mode_t mode) { return result_of_open(gen_open(name, flags_of(flags), mode)); }},
      {"creat", [](Text name, mode_t mode) { return result_of_open(gen_creat(name, mode)); }},
      {"fopen", [](Text name, Text mode) { return contents_of(gen_fopen(name, mode)); }},
      {"freopen", [](Text name, Text mode) { return contents_of(gen_freopen(name, mode, std::fopen("/dev/null", "r"))); }},
      {"sys_open", [](Text name) { return result_of_open(gen_sys_open(name, O_RDONLY, 0)); }},
      {"sys_creat", [](Text name) { return result_of_open(gen_sys_creat(name, 0600)); }},
      {"sys_fopen", [](Text name) { return contents_of(gen_sys_fopen(name, "r")); }},
      {"sys_stat", [](Text name) { struct stat status {}; return gen_sys_stat(name, &status); }},
      {"mode_after", [](const std::string& way) { write_plainly(way); return octal(mode_of("f")); }},
      {"up", [](const std::string& list, int32_t mode) { return bring_up(list, mode); }},
      {"quiet_up", [](const std::string& list, int32_t mode) { bring_up(list, mode); return ""; }},
      {"say_up", [](Text list, int32_t mode) { ::setenv("NVPATH", list, 1); gen_viewpathing_init(mode); return ""; }},
      {"no_list", [](Text) { int32_t count = 7; const bool none = gen_getviewpathnodes(&count) == nullptr; return none && count == 0; }},
      {"debug", [](int32_t on) { V_debug_info = on; return ""; }},
      {"V2_of", [](Text path) { std::string room = path; errno = ENOENT; return std::string(V2_compath(room.data())); }},
      {"scenario", [this](Text) { start_afresh(); return ""; }},
  };
  // clang-format on
}

TEST_F(Viewpathing, GivesWhatTheTableTells) {
  go_through(KELVANE_TABLES "indview.table", trees_, operations());
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

TEST_F(Viewpathing, RefusesANameThatDoesNotFitWhereItWouldBeJoined) {
  bring_up_both();
  std::string longer;
  while (longer.size() < 1024) {
    longer += "long/";
  }
  EXPECT_EQ(gen_chdir(longer.c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(Viewpathing, CopiesMoreThanOneBlock) {
  std::string contents;
  for (int line = 0; contents.size() < 20000; ++line) {
    contents += std::to_string(line);
  }
  trees_.write("far/f", contents);
  bring_up_both();
  EXPECT_EQ(V_getf("f"), 0);
  EXPECT_TRUE(trees_.read("near/f") == contents);
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
