#include "indgen_tempname.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "changed_surroundings.h"
#include "indgen_memory.h"
#include "indgen_tempname_internal.h"
#include "ordinary_user.h"
#include "owners.h"
#include "reset_state.h"
#include "scenario.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using Buffer = std::array<char, 512>;

class TemporaryNames : public testing::Test {
 protected:
  TemporaryNames() { reset_all_state(); }
  ~TemporaryNames() override { reset_all_state(); }

  // The name of the directory that gen_tmpdirname tries with these last two characters.
  std::string directory_name(const std::string& counter) const {
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "qv%04X", static_cast<unsigned>(::getpid()) & 0xffffU);
    return tree.path(name.data() + counter);
  }

  TemporaryDirectory tree;
  ChangedVariable tmpdir{"TMPDIR", std::nullopt};
  ChangedVariable given_stem{"BUILDER_TEMPORARY_NAME", std::nullopt};
};

// The text of a name from malloc, which is released.
std::string released(char* name) {
  const platform_ptr owned(name);
  return text_of(name);
}

TEST_F(TemporaryNames, AreGivenAsTheTableTells) {
  using Text = const char*;
  const std::string process = "qv_" + base32_digits(static_cast<uint32_t>(::getpid()), 30);
  const auto shown = [&process](const std::string& name) { return replaced(name, process, "$"); };
  const auto fallback = [](const std::string& name) {
    const char* const expected = ::access("/var/tmp/", W_OK | X_OK) == 0 ? "/var/tmp/" : "/tmp";
    return name == expected ? "fallback" : name;
  };
  Buffer one{};
  Buffer two{};
  Buffer three{};
  // All names that a call has given.
  const auto all = [&](const char* given, Text second, Text third) {
    EXPECT_TRUE(given == nullptr || given == one.data());
    std::string names = text_of(given);
    if (given != nullptr) {
      names += second == nullptr ? "" : ":" + text_of(two.data());
      names += third == nullptr ? "" : ":" + text_of(three.data());
    }
    return shown(names);
  };
  // clang-format off
  go_through(KELVANE_TABLES "indgen_tempname.table", tree, {
      {"base32", base32_digits}, KELVANE_OPERATION(gen_alreadyused),
      {"temp_dir", [&](const std::string& preferred) {
        const char* const name = preferred == "kept" ? gen_temp_dir(nullptr) : preferred == kNullText ? nullptr : preferred.c_str();
        return fallback(gen_temp_dir(name));
      }},
      {"afresh", [](Text) { reset_all_state(); return ""; }},
      {"count", [](int32_t last) { cnt = last; return ""; }},
      {"counted", [](Text) { return cnt; }},
      {"occupy", [&](const std::string& entry) { tree.write(replaced(entry, "$", process), ""); return ""; }},
      {"vacate", [&](const std::string& entry) { std::filesystem::remove(tree.path(replaced(entry, "$", process))); return ""; }},
      {"three", [&](Text directory, Text a, Text b, Text c) {
        if (b == nullptr && c == nullptr) {
          return shown(released(xxtmp3names(directory, nullptr, a, nullptr, nullptr, nullptr, nullptr)));
        }
        return all(xxtmp3names(directory, one.data(), a, b == nullptr ? nullptr : two.data(), b == nullptr ? "o" : b,
                               c == nullptr ? nullptr : three.data(), c), b, c);
      }},
      {"first", [&](Text directory, Text a, Text b) {
        return all(xxtmp3names(directory, one.data(), a, two.data(), b, nullptr, nullptr), nullptr, nullptr);
      }},
      {"tmp1", [&](Text preferred, Text a) { return all(tmp1name(preferred, one.data(), a), nullptr, nullptr); }},
      {"xtmp3", [&](Text a, Text b) { return all(xtmp3names(nullptr, one.data(), a, two.data(), b, nullptr, nullptr), b, nullptr); }},
      {"tmp2", [&](Text a, Text directory, Text b) { return all(tmp2name(nullptr, one.data(), a, directory, b), nullptr, nullptr); }},
      {"tempname", [&](Text near, Text a) { return shown(released(gen_tempname(near, a))); }},
      {"replaced", [&](Text preferred, Text a) {
        gen_temp_dir = [](const char*) -> const char* { return "/replaced"; };
        return shown(released(tmp1name(preferred, nullptr, a)));
      }},
  });
  // clang-format on
}

TEST_F(TemporaryNames, PassesOverADirectoryThatMayNotBeWrittenToOrSearched) {
  const std::string closed = tree.path("closed");
  std::filesystem::create_directory(closed);
  const std::string open = tree.path("open");
  std::filesystem::create_directory(open);
  ASSERT_EQ(::chmod(tree.name().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
  for (const mode_t mode : {mode_t{0555}, mode_t{0666}}) {
    ASSERT_EQ(::chmod(closed.c_str(), mode), 0);
    EXPECT_TRUE(as_ordinary_user([&] {
      tmpdir.set(closed);
      const bool environment_refused = gen_default_temp_dir(open.c_str()) == open;
      tmpdir.set(std::nullopt);
      return environment_refused && gen_default_temp_dir(closed.c_str()) != closed;
    })) << mode;
  }
}

TEST_F(TemporaryNames, AreReservedByMakingTheFile) {
  std::string name = tree.path("fXXXXXX");
  const int descriptor = gen_mkstemp(name.data());
  EXPECT_GE(descriptor, 0);
  EXPECT_EQ(::close(descriptor), 0);
  EXPECT_TRUE(std::filesystem::exists(name));

  name = tree.path("gXXXXXX");
  {
    const file_ptr stream(gen_mkstempfp(name.data(), "w+"));
    ASSERT_NE(stream, nullptr);
    EXPECT_GE(std::fputs("text", stream.get()), 0);
  }
  EXPECT_EQ(read_whole_file(name), "text");
  std::string bad_template = tree.path("missing/XXXXXX");
  EXPECT_EQ(gen_mkstempfp(bad_template.data(), "w"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  name = tree.path("hXXXXXX");
  EXPECT_EQ(gen_mkstempfp(name.data(), "?"), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(TemporaryNames, AreFoundForDirectoriesByACounterOfTwoPlaces) {
  tmpdir.set(tree.name());
  const auto next_directory = [] {
    const gen_ptr<char> name(gen_tmpdirname(nullptr));
    return std::string(name == nullptr ? "" : name.get());
  };
  const std::string file = tree.write("file", "");
  const std::string looked_up = "aa ab az a0 a9 ba z9 0a 9a 99";
  const std::string digits = "abcdefghijklmnopqrstuvwxyz0123456789";
  for (const char first : digits) {
    for (const char second : digits) {
      const std::string counter = {first, second};
      const std::string expected = directory_name(counter);
      // Each look-up walks from the first name to here, so only some are made.
      if (looked_up.find(counter) != std::string::npos) {
        ASSERT_EQ(next_directory(), expected);
      }
      std::filesystem::create_hard_link(file, expected);  // far cheaper than a directory
    }
  }
  EXPECT_EQ(next_directory(), "");
  EXPECT_EQ(gen_createtmpdir(nullptr, 0700), nullptr);
}

TEST_F(TemporaryNames, AreMadeIntoDirectories) {
  const std::string preferred = tree.name();
  const gen_ptr<char> name(gen_createtmpdir(preferred.c_str(), 0700));
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(name.get(), directory_name("aa"));
  struct stat status {};
  ASSERT_EQ(::stat(name.get(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  gen_temp_dir = [](const char*) -> const char* { return "/no/such/directory"; };
  EXPECT_EQ(gen_createtmpdir(nullptr, 0700), nullptr);
}

}  // namespace
}  // namespace kelvane
