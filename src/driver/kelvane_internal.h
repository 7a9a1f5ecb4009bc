#pragma once

namespace kelvane {

// Forgets the lists of the run.
void reset_kelvane();

}  // namespace kelvane
