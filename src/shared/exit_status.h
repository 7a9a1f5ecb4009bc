#pragma once

#include <cstdint>

namespace kelvane {

// The statuses with which a run ends. No status tells whether the two inputs differ.
inline constexpr int32_t kStatusSuccess = 0;      // the patch was written, or help was asked for
inline constexpr int32_t kStatusFailure = 1;      // every failure that the tool reports
inline constexpr int32_t kStatusSignal = 2;       // a trapped signal ended the run
inline constexpr int32_t kStatusOutOfMemory = 3;  // memory is exhausted

}  // namespace kelvane
