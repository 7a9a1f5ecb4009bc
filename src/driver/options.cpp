#include "options.h"

namespace kelvane {}  // namespace kelvane
