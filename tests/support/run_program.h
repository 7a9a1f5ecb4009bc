#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelvane {

// What a program that has ended leaves.
struct ProgramResult {
  int status = -1;     // exit status, or -1 if a signal ended it
  int signal = 0;      // the signal that ended it, or 0
  std::string output;  // standard output
  std::string errors;  // standard error
};

// Runs `arguments[0]` with the other arguments in `directory` (empty: here), with an environment
// that holds `environment` and nothing else, and waits for its end. Standard input is empty.
ProgramResult run_program(const std::vector<std::string>& arguments,
                          const std::string& directory = "",
                          const std::map<std::string, std::string>& environment = {});

// The programs of this build, absolute names.
std::string kelvane_program();
std::string kelpatch_program();

}  // namespace kelvane
