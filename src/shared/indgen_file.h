#pragma once

#include <cstdint>

namespace kelvane {

int32_t gen_canexec(const char* name);

}  // namespace kelvane
