#pragma once

namespace kelvane {

// Releases the names and puts all state of start-up back to where a new process has it. The
// installed signal handlers stay.
void reset_indgeninit();

}  // namespace kelvane
