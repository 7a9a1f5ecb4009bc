#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <span>
#include <string>

namespace kelvane {

// A file that has a name and lies in memory, for what is opened by name many thousand times.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("input", MFD_CLOEXEC)) {}
  ~MemoryFile() { ::close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  // Makes the bytes its contents; tells whether that could be done.
  bool put(std::span<const uint8_t> bytes) const {
    return ::ftruncate(descriptor_, 0) == 0 && ::pwrite(descriptor_, bytes.data(), bytes.size(),
                                                        0) == static_cast<ssize_t>(bytes.size());
  }
  std::string name() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

}  // namespace kelvane
