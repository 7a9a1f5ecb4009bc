#pragma once

namespace kelvane {

// Puts the identification back to program start.
void reset_indmagic();

}  // namespace kelvane
