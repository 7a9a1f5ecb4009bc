#pragma once

#include <cstdint>

namespace kelvane {

// The life of the tool: reads the command line, loads the two files, compares them and writes the
// patch. Gives 0; a failure is reported where it is found and ends the run there, with the statuses
// of exit_status.h. A search of diff without a match ends the process, without a word. Both files
// stay in memory. To be called once in a process.
int32_t run_sequence(int32_t argc, char* const* argv);

}  // namespace kelvane
