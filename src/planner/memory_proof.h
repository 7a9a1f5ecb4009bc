#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plan.h"

namespace kelvane {

// As fault_of_patch, for images of target memory.
std::string fault_of_memory_patch(const plan_images& images, const std::vector<uint8_t>& patch,
                                  ByteOrder order);

}  // namespace kelvane
