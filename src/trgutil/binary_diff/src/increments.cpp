#include "increments.h"

namespace kelvane {}  // namespace kelvane
