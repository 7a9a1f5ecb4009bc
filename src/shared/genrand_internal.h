#pragma once

namespace kelvane {

// Forgets the seed.
void reset_genrand();

}  // namespace kelvane
