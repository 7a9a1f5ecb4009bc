#include "increment_coder.h"

namespace kelvane {}  // namespace kelvane
