#include "indgen_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>

#include "child_process.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "scenario.h"

namespace kelvane {
namespace {

// What a process of its own answers, for calls that change the process for good.
int answer_of_child(const std::function<int()>& question) {
  return in_child([&] { ::_exit(question()); }).status;
}

class Process : public testing::Test {
 protected:
  Process() { reset_all_state(); }
  ~Process() override { reset_all_state(); }
};

TEST_F(Process, GivesWhatTheTableTells) {
  using Text = const char*;
  const TemporaryDirectory directory;
  const auto variable = [](Text name) { return text_of(std::getenv(name)); };
  // clang-format off
  go_through(KELVANE_TABLES "indgen_process.table", directory, {
      KELVANE_OPERATION(gen_getenv), KELVANE_OPERATION(gen_get_env_variable), KELVANE_OPERATION(gen_put_env_variable),
      {"variable", variable}, {"unset", [](Text name) { ::unsetenv(name); return ""; }},
      KELVANE_OPERATION(gen_binarydifffiles),
      {"development_tree", [](Text) { return gen_is_qv_dev_program(); }},
      {"afresh", [](Text programs) { reset_all_state(); gen_changeprogdir(programs); return ""; }},
  });
  // clang-format on
}

TEST_F(Process, RunsCommandsQuietlyOnRequest) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(WEXITSTATUS(gen_system("echo loud; exit 3")), 3);
  EXPECT_EQ(gen_systemex("echo plain", "xQ"), 0);
  EXPECT_EQ(gen_systemex("echo none", nullptr), 0);
  EXPECT_EQ(gen_systemex("echo quiet", "xq"), 0);
  // The text goes right behind the command, so of two commands only the last is quiet.
  EXPECT_EQ(gen_systemex("echo first; echo second", "q"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "loud\nplain\nnone\nfirst\n");
}

TEST_F(Process, ReplacesItselfByAnotherProgram) {
  EXPECT_EQ(answer_of_child([] {
              std::array<std::string, 3> words = {"sh", "-c", "exit 7"};
              const std::array<char*, 4> arguments = {words[0].data(), words[1].data(),
                                                      words[2].data(), nullptr};
              return gen_execvp("sh", arguments.data());
            }),
            7);
  const std::array<char*, 1> none = {nullptr};
  EXPECT_EQ(gen_execvp("/nowhere/program", none.data()), -1);
}

TEST_F(Process, SleepsAndYields) {
  EXPECT_EQ(gen_sleep(0), 0U);
  EXPECT_EQ(gen_millisleep(1), 0);
  EXPECT_EQ(gen_millisleep(-5), 0);
  EXPECT_EQ(gen_yield(), 0);
  EXPECT_EQ(answer_of_child([] { return gen_nice(0) == ::nice(0) ? gen_nice(1) - ::nice(0) : 9; }),
            0);
}

TEST_F(Process, SleepsUntilADescriptorCanBeRead) {
  std::array<int, 2> quiet{};
  std::array<int, 2> ready{};
  ASSERT_EQ(::pipe(quiet.data()), 0);
  ASSERT_EQ(::pipe(ready.data()), 0);
  ASSERT_EQ(::write(ready[1], "x", 1), 1);
  const std::array<int32_t, 3> both = {-1, quiet[0], ready[0]};
  const int32_t spent = gen_millisleep_or_select(600000, 3, both.data());
  EXPECT_GE(spent, 1);
  EXPECT_LT(spent, 600000);
  EXPECT_EQ(gen_millisleep_or_select(2, 2, both.data()), 2);  // the ready one is not among these
  EXPECT_EQ(gen_millisleep_or_select(3, 1, both.data()), 3);
  EXPECT_EQ(gen_millisleep_or_select(4, 0, nullptr), 4);
  for (const int descriptor : {quiet[0], quiet[1], ready[0], ready[1]}) {
    ::close(descriptor);
  }
  // A descriptor that isn't open ends the wait at once.
  EXPECT_EQ(gen_millisleep_or_select(600000, 1, quiet.data()), 1);
}

TEST_F(Process, KnowsWhetherAProcessExists) {
  EXPECT_TRUE(gen_doeslocalprocessexist(::getpid()));
  EXPECT_TRUE(gen_doeslocalprocessexist(1));  // whether or not it may be signalled
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(gen_doeslocalprocessexist(child));
}

struct Limit {
  int32_t (*set)(int32_t value);
  int32_t value;
  int32_t used;
};

TEST_F(Process, LimitsProcessorTimeAndAddressSpace) {
  for (const Limit& limit :
       {Limit{gen_set_cpu_time_limit, 1000, 1000}, Limit{gen_set_cpu_time_limit, 0, 0x7fffffff},
        Limit{gen_set_memory_limit, 0x7ffff000, 0x7ffff000},
        Limit{gen_set_memory_limit, -1, 0x7fffffff}}) {
    EXPECT_EQ(answer_of_child([&limit] {
                const bool cpu = limit.set == gen_set_cpu_time_limit;
                if (limit.set(limit.value) != limit.used) {
                  return 1;
                }
                rlimit now{};
                if (cpu ? ::getrlimit(RLIMIT_CPU, &now) : ::getrlimit(RLIMIT_AS, &now)) {
                  return 2;
                }
                return now.rlim_cur == static_cast<rlim_t>(limit.used) && now.rlim_max == 0x7fffffff
                           ? 0
                           : 3;
              }),
              0)
        << limit.value;
  }
}

TEST_F(Process, KnowsUserAndHost) {
  const passwd* const user = ::getpwuid(::getuid());
  for (int call = 0; call < 2; ++call) {
    const gen_ptr<char> name(gen_getusername());
    EXPECT_STREQ(name.get(), user == nullptr ? nullptr : user->pw_name);
  }
  utsname system{};
  ASSERT_EQ(::uname(&system), 0);
  EXPECT_STREQ(gen_gethostname(), system.nodename);
  const gen_ptr<char> os(gen_gethostosname());
  EXPECT_EQ(std::string(os.get()),
            std::string(system.sysname) + " " + system.release + " " + system.version);
  const std::string qualified = gen_getfullyqualifiedhostname();
  if (qualified.find('.') == std::string::npos) {
    const hostent* const host = ::gethostbyname(system.nodename);
    EXPECT_EQ(qualified, host == nullptr ? system.nodename : host->h_name);
  }
  EXPECT_EQ(gen_getfullyqualifiedhostname(), qualified);
}

TEST_F(Process, TellsFilesApartByIdentityAndNotByName) {
  const TemporaryDirectory directory;
  const std::string one = directory.write("one", "");
  const std::string two = directory.write("two", "");
  ASSERT_EQ(::link(one.c_str(), directory.path("again").c_str()), 0);
  const gen_ptr<gen_fileid> first(gen_duplicate_fileid(gen_fileid_from_filename(one.c_str())));
  ASSERT_NE(first, nullptr);
  struct stat status {};
  ASSERT_EQ(::stat(one.c_str(), &status), 0);
  EXPECT_EQ(first->inode, static_cast<uint32_t>(status.st_ino));
  EXPECT_EQ(first->device, static_cast<uint32_t>(status.st_dev));
  const gen_fileid* const other = gen_fileid_from_filename(two.c_str());
  EXPECT_FALSE(gen_compare_fileids(first.get(), other));
  const gen_fileid* const again = gen_fileid_from_filename(directory.path("again").c_str());
  EXPECT_EQ(again, other);  // the one static record
  EXPECT_TRUE(gen_compare_fileids(first.get(), again));
  const gen_fileid elsewhere = {first->inode, first->device + 1};
  EXPECT_FALSE(gen_compare_fileids(first.get(), &elsewhere));
  EXPECT_FALSE(gen_compare_fileids(first.get(), nullptr));
  EXPECT_FALSE(gen_compare_fileids(nullptr, nullptr));
  EXPECT_EQ(gen_duplicate_fileid(nullptr), nullptr);
  EXPECT_EQ(gen_fileid_from_filename(directory.path("missing").c_str()), nullptr);
}

TEST_F(Process, ComparesFilesByteByByte) {
  const TemporaryDirectory directory;
  const auto compare = [&](const std::string& a, const std::string& b) {
    directory.write("a", a);
    directory.write("b", b);
    return gen_binarydifffiles(directory.path("a").c_str(), directory.path("b").c_str());
  };
  const std::string text(3000, 'x');
  EXPECT_EQ(compare("", ""), 0);
  EXPECT_EQ(compare(text, text), 0);
  EXPECT_EQ(compare(text, text + "x"), 1);
  EXPECT_EQ(compare(text + "x", text + "y"), 1);
  EXPECT_EQ(compare("y" + text, "x" + text), 1);
  EXPECT_EQ(compare(std::string("\0a", 2), std::string("\0b", 2)), 1);
}

}  // namespace
}  // namespace kelvane
