#pragma once

namespace kelvane {

// Releases the loaded files.
void reset_run_sequence();

}  // namespace kelvane
