#include "genrand.h"

namespace kelvane {}  // namespace kelvane
