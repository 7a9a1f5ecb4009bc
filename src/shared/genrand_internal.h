#pragma once

namespace kelvane {

// Forgets the numbers given so far: the next one seeds itself from the clock.
void reset_genrand();

}  // namespace kelvane
