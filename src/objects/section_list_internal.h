#pragma once

namespace kelvane {

// Ends the load at hand and releases the symbols that were read. Lists belong to their files.
void reset_section_list();

}  // namespace kelvane
