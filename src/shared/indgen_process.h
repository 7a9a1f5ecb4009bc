#pragma once

#include <cstdint>

namespace kelvane {

// Gives the value of the environment variable if it is set and not empty, else `default_value`.
const char* gen_getenv(const char* name, const char* default_value);

}  // namespace kelvane
