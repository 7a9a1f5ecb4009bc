#pragma once

#include <cstdint>

namespace kelvane {

// Prints `label`, `value` (from 0 to 9 once, otherwise in hexadecimal and in decimal) and behind a
// blank `suffix`, in whose place a null or empty one puts a line end. A null label is empty.
void print_num_line(const char* label, uint32_t value, const char* suffix);

}  // namespace kelvane
