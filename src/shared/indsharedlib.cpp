#include "indsharedlib.h"

namespace kelvane {}  // namespace kelvane
