#pragma once

namespace kelvane {

// Releases the exclusions and the aliases, and forgets the list that was searched last.
void reset_section_filter();

}  // namespace kelvane
