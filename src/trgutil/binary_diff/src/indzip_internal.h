#pragma once

namespace kelvane {

// Puts the encoder back to where a new process has it.
void reset_indzip();

}  // namespace kelvane
