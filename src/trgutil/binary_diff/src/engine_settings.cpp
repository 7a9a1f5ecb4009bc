#include "engine_settings.h"

namespace kelvane {}  // namespace kelvane
