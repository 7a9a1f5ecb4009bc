#pragma once

#include "indbsdio.h"

namespace kelvane {

// Whether the symbol stands for room that the linker still has to give.
bool is_common_symbol(const aout::symbol& symbol);

// The name of a symbol; empty if it lies outside the string table.
const char* bsd_symbol_name(const bsd_info& info, const aout::symbol& symbol);

}  // namespace kelvane
