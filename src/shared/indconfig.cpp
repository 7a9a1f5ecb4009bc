#include "indconfig.h"

namespace kelvane {}  // namespace kelvane
