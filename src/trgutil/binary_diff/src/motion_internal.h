#pragma once

namespace kelvane {

// Forgets which block was moved last. For begin_motion and reset_motion.
void forget_last_block();

}  // namespace kelvane
