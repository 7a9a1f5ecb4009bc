#pragma once

namespace kelvane {

// Forgets all lists and clears the tallies and checksums. The records themselves are released.
void reset_diffshared();

}  // namespace kelvane
