#pragma once

namespace kelvane {

// Forgets the current directory, the home directory and the name of the current device.
void reset_indgen_path();

}  // namespace kelvane
