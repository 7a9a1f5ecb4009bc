#include "block_search.h"

namespace kelvane {}  // namespace kelvane
