#include "indgadr.h"

namespace kelvane {}  // namespace kelvane
