#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "pipe_ends.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

// The program itself, which waits for an exclude file that nobody writes.
class SignalRoad : public testing::Test {
 protected:
  SignalRoad() {
    tree_.write("old", "abc");
    tree_.write("new", "abc");
    EXPECT_EQ(::mkfifo(tree_.path("names").c_str(), 0600), 0);
  }

  // Starts the program, sends it the signal while it waits, and gives what it left.
  ProgramResult interrupted_by(int signal_number, const std::function<void()>& prepare = nullptr) {
    StartedProgram program({kelvane_program(), "-exclude", "names", "old", "new"}, tree_.name(), {},
                           prepare);
    const int writer = reader_met();
    program.send(signal_number);
    ProgramResult result = program.wait();
    ::close(writer);
    EXPECT_FALSE(std::filesystem::exists(tree_.path("diff.out")));
    return result;
  }

  TemporaryDirectory tree_;

 private:
  // Gives the writing end of the pipe as soon as the program reads from it.
  int reader_met() const {
    for (int attempt = 0; attempt < 10000; ++attempt) {
      const int writer = ::open(tree_.path("names").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (writer >= 0) {
        return writer;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    ADD_FAILURE() << "the program doesn't read its exclude file";
    return -1;
  }
};

TEST_F(SignalRoad, LeavesOtherSignalsAlone) {
  const ProgramResult result = interrupted_by(SIGUSR1);
  EXPECT_EQ(result.signal, SIGUSR1);
  EXPECT_EQ(result.errors, "");
}

TEST_F(SignalRoad, EndsWhereTheReportOfABrokenPipeMeetsOneItself) {
  PipeEnds errors;
  errors.close_reader();
  const auto into_pipe = [&errors] { ::dup2(errors.writer(), STDERR_FILENO); };
  EXPECT_EQ(interrupted_by(SIGPIPE, into_pipe).status, 2);
  // The same when the first one comes from a report.
  EXPECT_EQ(run_program({kelvane_program(), "-nonsense"}, tree_.name(), {}, into_pipe).status, 2);
}

}  // namespace
}  // namespace kelvane
