#pragma once

namespace kelvane {

// Puts mode, symbol tables and byte order back to program start. Nothing is released.
void reset_image();

}  // namespace kelvane
