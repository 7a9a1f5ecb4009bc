#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pipe_ends.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

const std::string kReport =
    "kelvane: fatal: unable to open input file 'missing': No such file or directory\n";
const std::string kSuffix = "\x1b[00m";

// The program itself, with its reports on a pseudo terminal or in a file.
class Terminal : public testing::Test {
 protected:
  // The options, and two inputs of which the first is missing.
  std::string on_terminal(const std::vector<std::string>& options = {}) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_TRUE(master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0);
    const int terminal = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_TRUE(::isatty(terminal));
    termios settings{};
    ::tcgetattr(terminal, &settings);
    ::cfmakeraw(&settings);  // line ends as they are written
    ::tcsetattr(terminal, TCSANOW, &settings);
    const ProgramResult result = run(options, [terminal] { ::dup2(terminal, STDERR_FILENO); });
    EXPECT_EQ(result.status, 1);
    ::close(terminal);
    std::string shown = drained(master);
    ::close(master);
    return shown;
  }
  std::string in_file(const std::vector<std::string>& options = {}) {
    return run(options, nullptr).errors;
  }

  TemporaryDirectory home_;

 private:
  ProgramResult run(const std::vector<std::string>& options, const std::function<void()>& prepare) {
    std::vector<std::string> words = {kelvane_program()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"missing", "missing"});
    return run_program(words, home_.name(), {{"HOME", home_.name()}}, prepare);
  }
};

TEST_F(Terminal, ShowsReportsInColour) {
  EXPECT_EQ(on_terminal(), "\x1b[1;31m" + kReport + kSuffix);
  EXPECT_EQ(in_file(), kReport);
}

TEST_F(Terminal, ShowsThemPlainOnDemand) {
  EXPECT_EQ(on_terminal({"-nocolor"}), kReport);
  // What the options themselves are found wanting in comes before the colours.
  EXPECT_EQ(on_terminal({"-nonsense"}).substr(0, 44),
            "kelvane: error: invalid option '-nonsense'\nU");
}

TEST_F(Terminal, ShowsThemInTheColoursOfTheUser) {
  home_.write(".qvr/colors.ini", "[error]\nattribute = 4\nbackground = 0\nforeground = 0x2\n");
  EXPECT_EQ(on_terminal(), "\x1b[4;32;40m" + kReport + kSuffix);
  home_.write(".qvr/colors.ini", "[ERROR]\nforeground = 9\n");
  EXPECT_EQ(on_terminal(), kReport + kSuffix);
  EXPECT_EQ(in_file(), kReport);
}

TEST_F(Terminal, ShowsTheFaultsOfTheConfigurationPlain) {
  home_.write(".qvr/colors.ini", "[BLUE]\n[ERROR]\nforeground = 3\n");
  EXPECT_EQ(on_terminal(),
            "kelvane: error: line 1: invalid heading 'BLUE'\n\x1b[1;33m" + kReport + kSuffix);
}

}  // namespace
}  // namespace kelvane
