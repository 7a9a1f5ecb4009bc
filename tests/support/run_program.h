#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "temporary_directory.h"

namespace kelvane {

// What a program that has ended leaves.
struct ProgramResult {
  int status = -1;     // exit status, or -1 if a signal ended it
  int signal = 0;      // the signal that ended it, or 0
  std::string output;  // standard output
  std::string errors;  // standard error
};

// A program that runs beside the test.
class StartedProgram {
 public:
  // Starts `arguments[0]` with the other arguments in `directory` (empty: here), with an
  // environment that holds `environment` and nothing else. Standard input is empty. `prepare` is
  // called in the new process when all else is ready: it sets limits, or other descriptors in
  // place of those whose output is kept.
  explicit StartedProgram(const std::vector<std::string>& arguments,
                          const std::string& directory = "",
                          const std::map<std::string, std::string>& environment = {},
                          const std::function<void()>& prepare = nullptr);
  // Ends the program if it still runs.
  ~StartedProgram();
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;

  void send(int signal_number) const;
  // Waits for the program's end; to be called once.
  ProgramResult wait();

 private:
  TemporaryDirectory capture_;
  pid_t child_ = -1;
};

// The same from start to end.
ProgramResult run_program(const std::vector<std::string>& arguments,
                          const std::string& directory = "",
                          const std::map<std::string, std::string>& environment = {},
                          const std::function<void()>& prepare = nullptr);

// The programs of this build, absolute names.
std::string kelvane_program();
std::string kelpatch_program();
std::string kelmake_program();

}  // namespace kelvane
