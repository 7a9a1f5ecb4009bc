#pragma once

namespace kelvane {

// Puts the state of every unit back to where a new process has it.
void reset_all_state();

}  // namespace kelvane
