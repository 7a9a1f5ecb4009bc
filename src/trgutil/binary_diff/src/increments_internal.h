#pragma once

namespace kelvane {

// Releases the records and forgets all classes.
void reset_increments();

}  // namespace kelvane
