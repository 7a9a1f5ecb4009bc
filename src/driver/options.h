#pragma once

namespace kelvane {}  // namespace kelvane
