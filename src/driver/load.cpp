#include "load.h"

namespace kelvane {}  // namespace kelvane
