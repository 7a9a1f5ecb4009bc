#pragma once

namespace kelvane {

// Forgets the sections, the swap region and the last block of the run.
void reset_motion();

// Forgets which block was moved last. For begin_motion and reset_motion.
void forget_last_block();

}  // namespace kelvane
