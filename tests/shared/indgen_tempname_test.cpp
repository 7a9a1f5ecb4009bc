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
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

constexpr int32_t kLastNumber = 1'048'575;
using Buffer = std::array<char, 512>;

class TemporaryNames : public testing::Test {
 protected:
  TemporaryNames() { reset_all_state(); }
  ~TemporaryNames() override { reset_all_state(); }

  // The name in `directory` that has this running number, with its dot and no suffix.
  static std::string stem(const std::string& directory, uint32_t number) {
    return directory + "/qv_" + base32_digits(static_cast<uint32_t>(::getpid()), 30) +
           base32_digits(number, 15) + ".";
  }
  std::string stem(uint32_t number) const { return stem(tree.name(), number); }

  // The text of a name from malloc, which is released; "" for null.
  static std::string taken(char* name) {
    const std::string text = name == nullptr ? "" : name;
    std::free(name);
    return text;
  }
  std::string one_name(const char* suffix) const {
    return taken(
        xxtmp3names(tree.name().c_str(), nullptr, suffix, nullptr, nullptr, nullptr, nullptr));
  }
  static void occupy(const std::string& name) {
    ASSERT_EQ(::close(::open(name.c_str(), O_CREAT | O_WRONLY, 0600)), 0) << name;
  }
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

TEST_F(TemporaryNames, WritesNumbersInBase32WithoutLeadingZeros) {
  EXPECT_EQ(base32_digits(4660, 30), "4hk");
  EXPECT_EQ(base32_digits(1, 15), "1");
  EXPECT_EQ(base32_digits(0xfffff, 15), "vvvv");
  EXPECT_EQ(base32_digits(0x7fffffff, 30), "1vvvvvv");
  EXPECT_EQ(base32_digits(32, 15), "10");
  EXPECT_EQ(base32_digits(0, 15), "");
}

TEST_F(TemporaryNames, PrefersTheEnvironmentForTheDirectory) {
  const TemporaryDirectory preferred;
  tmpdir.set(tree.name());
  EXPECT_EQ(gen_temp_dir(preferred.name().c_str()), tree.name());
  tmpdir.set(preferred.name());
  EXPECT_EQ(gen_temp_dir(nullptr), tree.name()) << "the answer is kept";
  EXPECT_EQ(gen_temp_dir(tree.name().c_str()), preferred.name());
  tmpdir.set(tree.path("missing"));
  EXPECT_EQ(gen_temp_dir(gen_temp_dir(nullptr)), preferred.name());
  const std::string fallback = ::access("/var/tmp/", W_OK | X_OK) == 0 ? "/var/tmp/" : "/tmp";
  EXPECT_EQ(gen_temp_dir(tree.path("missing").c_str()), fallback);
  reset_all_state();
  EXPECT_EQ(gen_temp_dir(nullptr), fallback);
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

TEST_F(TemporaryNames, CountsOnFromNameToName) {
  EXPECT_EQ(one_name("c"), stem(1) + "c");
  EXPECT_EQ(one_name(".c"), stem(2) + "c");
  EXPECT_EQ(one_name(nullptr), stem(3));
  cnt = 31;
  EXPECT_EQ(one_name(""), stem(32));
}

TEST_F(TemporaryNames, MakesThreeRelatedNamesAndKeepsAcceptedOnes) {
  const std::string directory = tree.name();
  Buffer one{};
  Buffer two{};
  Buffer three{};
  const auto three_names = [&] {
    return xxtmp3names(directory.c_str(), one.data(), ".c", two.data(), "o", three.data(), "s");
  };
  EXPECT_EQ(three_names(), one.data());
  EXPECT_EQ(one.data(), stem(1) + "c");
  EXPECT_EQ(two.data(), stem(1) + "o");
  EXPECT_EQ(three.data(), stem(1) + "s");

  occupy(stem(2) + "c");
  occupy(stem(3) + "o");
  occupy(stem(4) + "s");
  EXPECT_EQ(three_names(), one.data());
  EXPECT_EQ(one.data(), stem(3) + "c");
  EXPECT_EQ(two.data(), stem(4) + "o");
  EXPECT_EQ(three.data(), stem(5) + "s");
  EXPECT_EQ(cnt, 5);
  EXPECT_EQ(xxtmp3names(directory.c_str(), one.data(), "c", nullptr, "o", three.data(), "s"),
            one.data());
  EXPECT_EQ(three.data(), stem(6) + "s");
}

TEST_F(TemporaryNames, EndsWithoutANameWhenTheNumbersAreUsedUp) {
  cnt = kLastNumber - 1;
  EXPECT_EQ(one_name("c"), stem(0xfffff) + "c");
  EXPECT_EQ(one_name("c"), "");
  EXPECT_EQ(one_name("c"), "");

  Buffer one{};
  Buffer two{};
  occupy(stem(0xfffff) + "c");
  cnt = kLastNumber - 1;
  EXPECT_EQ(one_name("c"), "");
  cnt = kLastNumber - 1;
  EXPECT_EQ(xxtmp3names(tree.name().c_str(), one.data(), "o", two.data(), "c", nullptr, nullptr),
            one.data())
      << "the first name was accepted before";
}

TEST_F(TemporaryNames, LiveInTheChosenDirectory) {
  tmpdir.set(tree.name());
  Buffer name{};
  EXPECT_EQ(tmp1name(nullptr, name.data(), "c"), name.data());
  EXPECT_EQ(name.data(), stem(1) + "c");
  Buffer second{};
  EXPECT_EQ(xtmp3names(nullptr, name.data(), "c", second.data(), "o", nullptr, nullptr),
            name.data());
  EXPECT_EQ(second.data(), stem(2) + "o");
  EXPECT_EQ(taken(gen_tempname(nullptr, "tmp")), stem(3) + "tmp");
  gen_temp_dir = [](const char*) -> const char* { return "/replaced"; };
  EXPECT_EQ(taken(tmp1name("/preferred", nullptr, "c")), stem("/replaced", 4) + "c");
}

TEST_F(TemporaryNames, LieBesideAFile) {
  EXPECT_EQ(taken(gen_tempname(tree.path("file").c_str(), "tmp")), stem(1) + "tmp");
  EXPECT_EQ(taken(gen_tempname("dir/file", ".tmp")), stem("dir", 2) + "tmp");
  EXPECT_EQ(taken(gen_tempname("file", "tmp")), stem("", 3).substr(1) + "tmp");
}

TEST_F(TemporaryNames, AreTestedInASecondDirectoryForOneCall) {
  const TemporaryDirectory other;
  tmpdir.set(tree.name());
  occupy(stem(other.name(), 1) + "o");
  Buffer name{};
  EXPECT_EQ(tmp2name(nullptr, name.data(), "c", other.name().c_str(), ".o"), name.data());
  EXPECT_EQ(name.data(), stem(1) + "c") << "accepted before the second name was tried";
  EXPECT_EQ(cnt, 2);

  Buffer second{};
  EXPECT_NE(xtmp3names(nullptr, name.data(), "c", second.data(), "o", nullptr, nullptr), nullptr);
  EXPECT_EQ(second.data(), stem(3) + "o") << "the second directory is forgotten";
}

TEST_F(TemporaryNames, ComeFromTheEnvironmentWhereItGivesAStem) {
  given_stem.set("build");
  Buffer one{};
  Buffer two{};
  const auto two_names = [&] {
    return xxtmp3names(tree.name().c_str(), one.data(), "c", two.data(), ".o", nullptr, nullptr);
  };
  EXPECT_EQ(two_names(), one.data());
  EXPECT_EQ(one.data(), tree.path("build.c"));
  EXPECT_EQ(two.data(), tree.path("build.o"));
  given_stem.set("build.");
  EXPECT_EQ(one_name(nullptr), tree.path("build."));
  EXPECT_EQ(cnt, 0);

  occupy(tree.path("build.o"));
  EXPECT_EQ(two_names(), nullptr);
  EXPECT_EQ(one_name("o"), "");
  const TemporaryDirectory other;
  tmpdir.set(tree.name());
  EXPECT_EQ(tmp2name(nullptr, one.data(), "c", other.name().c_str(), "o"), one.data());
  occupy(other.path("build.o"));
  EXPECT_EQ(tmp2name(nullptr, one.data(), "c", other.name().c_str(), "o"), nullptr);
}

TEST_F(TemporaryNames, AreInUseOnceAFileHasThem) {
  errno = EAGAIN;
  EXPECT_FALSE(gen_alreadyused(tree.path("none").c_str()));
  EXPECT_TRUE(gen_alreadyused(tree.name().c_str()));
  EXPECT_FALSE(gen_alreadyused(nullptr));
  EXPECT_EQ(errno, EAGAIN);
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
