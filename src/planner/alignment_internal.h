#pragma once

#include <vector>

#include "alignment.h"
#include "word_costs.h"

namespace kelvane {

// Moves each border between two stretches to the place where what is left of it under the first
// shift and right of it under the second costs least: by words up to 4096 bytes each way, then by
// bytes up to 4. Stretches that become empty are dropped, neighbours of one shift joined.
void settle_borders(const alignment_input& input, const word_costs& costs,
                    std::vector<shift_stretch>& stretches);

}  // namespace kelvane
