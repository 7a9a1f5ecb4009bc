#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

// What owns a thing of the platform's, so that it is given back on every road out of a function,
// also on one that ends the run. gen_ptr and file_ptr stand with the memory operations.
namespace kelvane {

// Owns what the platform's library has allocated.
struct PlatformDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
using platform_ptr = std::unique_ptr<char, PlatformDeleter>;

// Owns a directory stream.
struct DirCloser {
  void operator()(DIR* stream) const { ::closedir(stream); }
};
using dir_ptr = std::unique_ptr<DIR, DirCloser>;

// Owns a file descriptor, or none when negative.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  ~FileDescriptor() { close(); }
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  int get() const { return descriptor_; }
  bool is_open() const { return descriptor_ >= 0; }
  // Gives it up to an owner of another kind.
  int release() { return std::exchange(descriptor_, -1); }
  // Closes it and gives the result of close, or 0 if there is nothing to close. As the destructor
  // does it on roads of failure, errno stays unless close fails.
  int close() {
    if (descriptor_ < 0) {
      return 0;
    }
    const int reason = errno;
    const int result = ::close(std::exchange(descriptor_, -1));
    if (result == 0) {
      errno = reason;
    }
    return result;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace kelvane
