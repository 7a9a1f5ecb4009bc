#pragma once

namespace kelvane {

// Puts all settings back to their values at program start.
void reset_engine_settings();

}  // namespace kelvane
