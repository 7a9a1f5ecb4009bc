#include "indgfile.h"

namespace kelvane {}  // namespace kelvane
