#pragma once

// Each unit of the engine that keeps state puts it back to where a new process has it. reset_engine
// calls them all; one alone is for tests.
namespace kelvane {

// Releases the buffer that pieces are compressed into.
void reset_substitution();

// Forgets the sections, the swap region and the last block of the run.
void reset_motion();

}  // namespace kelvane
