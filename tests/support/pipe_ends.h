#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace kelvane {

// Reads a descriptor until nothing comes any more.
inline std::string drained(int descriptor) {
  std::string text;
  std::array<char, 4096> piece{};
  ssize_t got = 0;
  while ((got = ::read(descriptor, piece.data(), piece.size())) > 0) {
    text.append(piece.data(), static_cast<size_t>(got));
  }
  return text;
}

// A pipe from a child process; other programs don't inherit its ends.
class PipeEnds {
 public:
  PipeEnds() { EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0); }
  ~PipeEnds() {
    close_reader();
    close_writer();
  }
  PipeEnds(const PipeEnds&) = delete;
  PipeEnds& operator=(const PipeEnds&) = delete;

  int writer() const { return ends_[1]; }
  void close_reader() { close(ends_[0]); }
  void close_writer() { close(ends_[1]); }
  // What was written; this process can't write any more then.
  std::string drain() {
    close_writer();
    return drained(ends_[0]);
  }

 private:
  static void close(int& descriptor) {
    if (descriptor >= 0) {
      ::close(descriptor);
      descriptor = -1;
    }
  }

  std::array<int, 2> ends_ = {-1, -1};
};

}  // namespace kelvane
