#include "substitution.h"

namespace kelvane {}  // namespace kelvane
