#include "run_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>

namespace kelvane {

namespace {

// The pointers to the strings, ended by null, as exec takes them.
std::vector<char*> pointers_to(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

StartedProgram::StartedProgram(const std::vector<std::string>& arguments,
                               const std::string& directory,
                               const std::map<std::string, std::string>& environment,
                               const std::function<void()>& prepare) {
  std::vector<std::string> words = arguments;
  std::vector<std::string> settings;
  for (const auto& [name, value] : environment) {
    settings.push_back(name + "=" + value);
  }
  const std::vector<char*> argv = pointers_to(words);
  const std::vector<char*> envp = pointers_to(settings);
  const std::string output = capture_.write("output", "");
  const std::string errors = capture_.write("errors", "");
  child_ = ::fork();
  if (child_ == 0) {
    const int input_fd = ::open("/dev/null", O_RDONLY);
    const int output_fd = ::open(output.c_str(), O_WRONLY);
    const int errors_fd = ::open(errors.c_str(), O_WRONLY);
    if ((directory.empty() || ::chdir(directory.c_str()) == 0) && ::dup2(input_fd, 0) == 0 &&
        ::dup2(output_fd, 1) == 1 && ::dup2(errors_fd, 2) == 2) {
      if (prepare != nullptr) {
        prepare();
      }
      ::execve(argv[0], argv.data(), envp.data());
    }
    ::_exit(127);
  }
  if (child_ < 0) {
    ADD_FAILURE() << "can't run " << arguments.front();
  }
}

StartedProgram::~StartedProgram() {
  if (child_ > 0) {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
}

void StartedProgram::send(int signal_number) const {
  EXPECT_EQ(::kill(child_, signal_number), 0);
}

ProgramResult StartedProgram::wait() {
  ProgramResult result;
  int status = 0;
  if (child_ < 0 || ::waitpid(child_, &status, 0) != child_) {
    ADD_FAILURE() << "can't wait for the program";
    return result;
  }
  child_ = -1;
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  result.output = capture_.read("output");
  result.errors = capture_.read("errors");
  return result;
}

ProgramResult run_program(const std::vector<std::string>& arguments, const std::string& directory,
                          const std::map<std::string, std::string>& environment,
                          const std::function<void()>& prepare) {
  return StartedProgram(arguments, directory, environment, prepare).wait();
}

std::string kelvane_program() {
  return KELVANE_PROGRAM;
}

std::string kelpatch_program() {
  return KELPATCH_PROGRAM;
}

std::string kelmake_program() {
  return KELMAKE_PROGRAM;
}

}  // namespace kelvane
