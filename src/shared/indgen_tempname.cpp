#include "indgen_tempname.h"

namespace kelvane {}  // namespace kelvane
