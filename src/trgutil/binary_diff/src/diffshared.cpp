#include "diffshared.h"

namespace kelvane {}  // namespace kelvane
