#pragma once

namespace kelvane {

// Puts the default functions back and releases the ring of temporary buffers.
void reset_indgen_memory();

}  // namespace kelvane
