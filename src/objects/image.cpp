#include "image.h"

namespace kelvane {}  // namespace kelvane
