#pragma once

namespace kelvane {

// Forgets the lists and releases the contents that commands of the run may have pointed to.
void reset_kelvane();

}  // namespace kelvane
