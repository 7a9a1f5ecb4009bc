#include "indsort.h"

namespace kelvane {}  // namespace kelvane
