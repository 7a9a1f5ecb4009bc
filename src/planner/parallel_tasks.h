#pragma once

#include <cstddef>
#include <functional>

namespace kelvane {

// Calls task(0) to task(count - 1), up to `jobs` of them at the same time, and returns when all are
// done. What a task throws is thrown here, of several the one with the least index. Fewer threads
// than wished for are no fault.
void run_tasks(size_t count, size_t jobs, const std::function<void(size_t)>& task);

}  // namespace kelvane
