#include "binshared.h"

namespace kelvane {}  // namespace kelvane
