#pragma once

namespace kelvane {

// Puts the coder back to program start. The rejected records are forgotten, not released.
void reset_increment_coder();

}  // namespace kelvane
