#include "parallel_tasks.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace kelvane {

void run_tasks(size_t count, size_t jobs, const std::function<void(size_t)>& task) {
  std::atomic<size_t> next = 0;
  std::vector<std::exception_ptr> thrown(count);
  const auto work = [&] {
    for (size_t index = next++; index < count; index = next++) {
      try {
        task(index);
      } catch (...) {
        thrown[index] = std::current_exception();
      }
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(jobs);
  while (threads.size() + 1 < std::min(jobs, count)) {
    try {
      threads.emplace_back(work);
    } catch (const std::system_error&) {
      break;
    } catch (const std::bad_alloc&) {
      break;
    }
  }
  work();
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const std::exception_ptr& each : thrown) {
    if (each) {
      std::rethrow_exception(each);
    }
  }
}

}  // namespace kelvane
