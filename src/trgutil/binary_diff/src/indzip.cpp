#include "indzip.h"

namespace kelvane {}  // namespace kelvane
