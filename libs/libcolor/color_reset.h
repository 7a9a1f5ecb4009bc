#pragma once

namespace kelvane {

// Puts the default configurations back. The message function stays what it is.
void reset_color_format();

}  // namespace kelvane
