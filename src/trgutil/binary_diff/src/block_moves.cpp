#include "block_moves.h"

namespace kelvane {}  // namespace kelvane
