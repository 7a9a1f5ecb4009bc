#pragma once

namespace kelvane {

// Puts the mode of addresses back to where a new process has it.
void reset_indgadr();

}  // namespace kelvane
