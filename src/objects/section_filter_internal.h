#pragma once

namespace kelvane {

// Releases the exclusions and the aliases.
void reset_section_filter();

}  // namespace kelvane
