#pragma once

namespace kelvane {

// Closes the stream on the null device and releases the spare buffer.
void reset_indgen_quote();

}  // namespace kelvane
