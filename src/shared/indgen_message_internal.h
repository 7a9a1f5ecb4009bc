#pragma once

namespace kelvane {

// Puts the default functions back and clears the counters and flags.
void reset_indgen_message();

}  // namespace kelvane
