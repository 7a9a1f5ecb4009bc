#pragma once

// Puts the units of this folder back to where a new process has them, for the tests.

namespace kelvane {

// Releases the loaded files.
void reset_run_sequence();

// Forgets the lists of the run.
void reset_kelvane();

}  // namespace kelvane
