#include "indgeninit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <bit>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "child_process.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indview.h"
#include "reset_state.h"
#include "scenario.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

namespace fs = std::filesystem;

// Start-up in the test's own process: without signal handlers and without a viewpath.
class StartUp : public testing::Test {
 protected:
  StartUp() {
    reset_all_state();
    gen_skip_trapsetup = 1;
  }
  ~StartUp() override { reset_all_state(); }

 private:
  ChangedVariable no_viewpath_{"NVPATH", std::nullopt};
};

TEST_F(StartUp, KnowsTheProgramByItsStartNameAndAVersionWord) {
  using Text = const char*;
  EXPECT_EQ(gen_getprogname(), nullptr);
  // clang-format off
  check_table({
      {"init", [](Text name) {
        gen_init(name, 0, 1);
        EXPECT_EQ(gen_getprogname(), gen_progname);
        return text_of(gen_progname) + ":" + text_of(gen_execname);
      }},
      {"init_again", [](Text) { gen_init(gen_execname, 0, 1); return text_of(gen_execname); }},
      {"changed", [](Text name) {
        gen_changeprogname(name);
        gen_changeprogname(gen_getprogname());
        return text_of(gen_progname) + ":" + text_of(gen_execname);
      }},
      {"set_version", [](int32_t number) { gen_set_version(number); return gen_get_version(); }},
      KELVANE_OPERATION(gen_is_at_least_version), KELVANE_OPERATION(gen_is_at_most_version),
  }, KELVANE_TABLES "indgeninit_names.table");
  // clang-format on
}

TEST_F(StartUp, LetsContainersThatFindNoMemoryEndTheRun) {
  gen_init("kelvane", 0, 1);
  const std::new_handler handler = std::get_new_handler();
  ASSERT_NE(handler, nullptr);
  const CapturedRun run = capture([handler] { handler(); });
  EXPECT_EQ(run.errors, "kelvane: fatal: Out of memory\n");
  EXPECT_EQ(run.status, 3);
}

TEST_F(StartUp, FindsTheByteOrderOfTheHost) {
  constexpr uint8_t kBig = std::endian::native == std::endian::big ? 1 : 0;
  bigendian_host = 7;
  EXPECT_EQ(gen_endian_init(), kBig);
  bigendian_host = 7;
  gen_init("kelvane", 0, 1);
  EXPECT_EQ(bigendian_host, kBig);
}

TEST_F(StartUp, BringsUpTheViewpathOfItsThirdArgument) {
  const TemporaryDirectory tree;
  const ChangedVariable viewpath("NVPATH", tree.name());
  gen_init("kelvane", 0, 0);
  EXPECT_FALSE(gen_isviewpathing());
  gen_init("kelvane", 0, 1);
  EXPECT_TRUE(gen_isviewpathing());
}

TEST_F(StartUp, IsTakenBackOnce) {
  const TemporaryDirectory tree;
  const ChangedVariable viewpath("NVPATH", tree.name());
  gen_init("dir/prog", 0, 1);
  gen_changeprogdir(tree.name().c_str());
  char** roots = nullptr;
  gen_sourceroot_init(tree.name().c_str());
  gen_destruct();
  EXPECT_EQ(gen_progname, nullptr);
  EXPECT_EQ(gen_execname, nullptr);
  EXPECT_EQ(gen_progdir, nullptr);
  EXPECT_FALSE(gen_isviewpathing());
  EXPECT_EQ(gen_sourceroot_getroots(&roots, nullptr), 0);
  EXPECT_EQ(capture([] { gen_error("text"); }).errors, "error: text\n");
  gen_init("again", 0, 1);
  gen_destruct();
  EXPECT_STREQ(gen_progname, "again");
}

// A fresh directory with programs, in which the test works.
class Executables : public StartUp {
 protected:
  std::string program(const std::string& entry) {
    const std::string name = tree_.write(entry, "#!/bin/sh\n");
    fs::permissions(name, fs::perms::owner_all);
    return name;
  }

  TemporaryDirectory tree_;
  ChangedDirectory here_{tree_.name()};
  ChangedVariable path_{"PATH", std::nullopt};
};

TEST_F(Executables, AreFoundAsTheTableTells) {
  using Text = const char*;
  // clang-format off
  go_through(KELVANE_TABLES "indgeninit.table", tree_, {
      {"found", gen_findexec}, KELVANE_OPERATION(gen_findexecdir),
      {"program", [this](Text entry) { program(entry); return ""; }},
      {"progdir", [](Text directory) { gen_changeprogdir(directory); return gen_getprogdir(); }},
      {"path", [this](Text list) {
        path_.set(list == nullptr ? std::nullopt : std::optional<std::string>(list));
        return "";
      }},
  });
  // clang-format on
}

TEST_F(Executables, StartedThroughALinkOrThePathLieWhereTheRealFileLies) {
  program("real/prog-1");
  fs::create_directory("bin");
  fs::create_symlink("../real/prog-1", "bin/prog");
  path_.set(tree_.path("bin"));
  for (const char* const start_name : {"prog", "bin/prog"}) {
    reset_all_state();
    gen_skip_trapsetup = 1;
    gen_init(start_name, 0, 1);
    EXPECT_EQ(gen_progdir, nullptr);
    EXPECT_STREQ(gen_getprogdir(), tree_.path("real").c_str()) << start_name;
    path_.set(std::nullopt);
    EXPECT_EQ(gen_getprogdir(), gen_progdir);  // found once
    path_.set(tree_.path("bin"));
  }
}

// ---- Signals.

using Handler = void (*)(int);

Handler handler_of(int signal_number) {
  struct sigaction action {};
  ::sigaction(signal_number, nullptr, &action);
  return action.sa_handler;
}

TEST_F(StartUp, InstallsTheHandlersTheFirstTimeOnly) {
  const ChildResult run = in_child([] {
    constexpr std::array kTaken = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGXCPU};
    for (const int signal_number : kTaken) {
      std::signal(signal_number, SIG_DFL);
    }
    gen_init("kelvane", 0, 1);  // the flag is set
    bool right = handler_of(SIGINT) == SIG_DFL;
    gen_skip_trapsetup = 0;
    gen_init("kelvane", 0, 1);
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
      right = right && handler_of(signal_number) == sigtrap;
    }
    right = right && handler_of(SIGPIPE) == sigpipetrap;
    right = right && handler_of(SIGXCPU) == siglimitexceeded;
    right = right && gen_skip_trapsetup == 1;
    std::signal(SIGINT, SIG_DFL);
    gen_init("kelvane", 0, 1);
    right = right && handler_of(SIGINT) == SIG_DFL;
    ::_exit(right ? 0 : 1);
  });
  EXPECT_EQ(run.status, 0);
}

TEST_F(StartUp, HandlersReportAndEndTheRunWithStatus2) {
  gen_changeprogname("kelvane");
  const auto taken = [](Handler handler, int signal_number) {
    const CapturedRun run = capture([&] { handler(signal_number); });
    EXPECT_EQ(run.status, 2);
    return run.errors;
  };
  EXPECT_EQ(taken(sigtrap, SIGINT), "kelvane: error: Halted\n");
  EXPECT_EQ(gen_sigtrap_value, SIGINT);
  EXPECT_EQ(taken(sigtrap, SIGTERM), "");
  EXPECT_EQ(gen_sigtrap_value, SIGTERM);
  EXPECT_EQ(taken(sigtrap, 1), "kelvane: error: Interrupt (1)\n");
  EXPECT_EQ(taken(siglimitexceeded, SIGXCPU), "kelvane: error: Cpu Limit Exceeded\n");
  EXPECT_EQ(gen_sigtrap_value, SIGXCPU);
  EXPECT_EQ(taken(siglimitexceeded, SIGXFSZ), "kelvane: error: Resource Limit exceeded\n");
  EXPECT_EQ(gen_sigtrap_value, SIGXFSZ);
}

TEST_F(StartUp, ASecondBrokenPipeClosesTheOutputsInsteadOfTelling) {
  gen_changeprogname("kelvane");
  static int32_t ends = 0;
  const ChildResult run = in_child([] {
    gen_exit = [](int32_t status) {
      if (++ends == 1) {
        sigpipetrap(SIGPIPE);
      }
      const bool closed = ::fcntl(1, F_GETFD) == -1 && ::fcntl(2, F_GETFD) == -1;
      ::_exit(closed && handler_of(SIGPIPE) == sigpipetrap ? status : 1);
    };
    sigpipetrap(SIGPIPE);
  });
  EXPECT_EQ(run.words, "kelvane: error: Halted by a SIGPIPE.\n");
  EXPECT_EQ(run.status, 2);
}

TEST_F(StartUp, ASignalDuringTheExitEndsTheProcessWithoutWords) {
  const ChildResult run = in_child([] {
    gen_skip_trapsetup = 0;
    gen_init("kelvane", 0, 1);
    std::atexit([] { std::raise(SIGINT); });
    gen_exit(0);
  });
  EXPECT_EQ(run.words, "");
  EXPECT_EQ(run.status, 2);
}

}  // namespace
}  // namespace kelvane
