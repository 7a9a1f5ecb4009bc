#pragma once

namespace kelvane {

// Puts mode and symbol tables back to program start. Nothing is released.
void reset_image();

}  // namespace kelvane
