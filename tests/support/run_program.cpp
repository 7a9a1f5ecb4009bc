#include "run_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "temporary_directory.h"

namespace kelvane {

ProgramResult run_program(const std::vector<std::string>& arguments, const std::string& directory,
                          const std::map<std::string, std::string>& environment) {
  const TemporaryDirectory capture;
  const std::string output = capture.path("output");
  const std::string errors = capture.path("errors");
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<std::string> settings;
  for (const auto& [name, value] : environment) {
    settings.push_back(name + "=" + value);
  }
  std::vector<char*> envp;
  for (std::string& setting : settings) {
    envp.push_back(setting.data());
  }
  envp.push_back(nullptr);
  ProgramResult result;
  const pid_t child = ::fork();
  if (child == 0) {
    const int input_fd = ::open("/dev/null", O_RDONLY);
    const int output_fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int errors_fd = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if ((directory.empty() || ::chdir(directory.c_str()) == 0) && ::dup2(input_fd, 0) == 0 &&
        ::dup2(output_fd, 1) == 1 && ::dup2(errors_fd, 2) == 2) {
      ::execve(argv[0], argv.data(), envp.data());
    }
    ::_exit(127);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) {
    ADD_FAILURE() << "can't run " << arguments.front();
    return result;
  }
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  result.output = read_whole_file(output);
  result.errors = read_whole_file(errors);
  return result;
}

std::string kelvane_program() {
  return KELVANE_PROGRAM;
}

std::string kelpatch_program() {
  return KELPATCH_PROGRAM;
}

}  // namespace kelvane
