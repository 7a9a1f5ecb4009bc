#include "diffout.h"

namespace kelvane {}  // namespace kelvane
