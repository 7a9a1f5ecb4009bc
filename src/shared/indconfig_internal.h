#pragma once

namespace kelvane {

// Releases the three directories.
void reset_indconfig();

}  // namespace kelvane
