#pragma once

#include <gtest/gtest.h>

#include "bytes.h"
#include "captured_run.h"
#include "comcoff_internal.h"
#include "format_walks.h"
#include "reset_state.h"

namespace kelvane {

class FormatTest : public testing::Test {
 protected:
  FormatTest() {
    reset_all_state();
    reset_comcoff();
  }
};

inline file_ptr stream_of(const Bytes& bytes) {
  return stream_of(bytes.data(), bytes.size());
}

inline Bytes contents_of(const file_ptr& stream) {
  return bytes_at(stream.get(), 0, 100000);
}

// What `write` puts into a fresh file.
template <typename Write>
Bytes written_by(Write write) {
  const file_ptr stream = stream_of(Bytes{});
  write(stream.get());
  return contents_of(stream);
}

// What `print` puts on standard output.
template <typename Print>
std::string printed_by(Print print) {
  testing::internal::CaptureStdout();
  print();
  return testing::internal::GetCapturedStdout();
}

// `first`, `first` + 1, ..., `count` bytes.
inline Bytes counting(size_t count, uint8_t first = 0) {
  Bytes bytes(count);
  for (uint8_t& byte : bytes) {
    byte = first++;
  }
  return bytes;
}

}  // namespace kelvane
