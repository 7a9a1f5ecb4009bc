#pragma once

#include <gtest/gtest.h>

#include <cinttypes>

#include "bytes.h"
#include "captured_run.h"
#include "comcoff_internal.h"
#include "format_walks.h"
#include "operation_table.h"
#include "reset_state.h"

namespace kelvane {

class FormatTest : public testing::Test {
 protected:
  FormatTest() {
    reset_all_state();
    reset_comcoff();
    setenv("TZ", "UTC", 1);
  }
  ~FormatTest() override {
    reset_all_state();
    reset_comcoff();
  }
};

inline file_ptr stream_of(const Bytes& bytes) {
  return stream_of(bytes.data(), bytes.size());
}

// What `write` puts into a fresh file.
template <typename Write>
Bytes written_by(Write write) {
  const file_ptr stream = stream_of(Bytes{});
  write(stream.get());
  return bytes_at(stream.get(), 0, 100000);
}

// What `print` puts on standard output.
template <typename Print>
std::string printed_by(Print print) {
  testing::internal::CaptureStdout();
  print();
  return testing::internal::GetCapturedStdout();
}

// Bytes that a table tells by two digits each, and back. Line ends stand for nothing.
inline Bytes bytes_from(const std::string& digits) {
  Bytes bytes;
  for (size_t place = 0; place + 1 < digits.size(); place += 2) {
    place += digits[place] == '\n' ? 1 : 0;
    if (place + 1 < digits.size()) {
      bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(place, 2), nullptr, 16)));
    }
  }
  return bytes;
}

inline std::string digits_of(const Bytes& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    text += "0123456789abcdef"[byte / 16];
    text += "0123456789abcdef"[byte % 16];
  }
  return text;
}

// The values of fields in hexadecimal.
inline std::string fields(std::initializer_list<uint64_t> values) {
  std::string all;
  for (const uint64_t value : values) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%s%" PRIx64, all.empty() ? "" : ":", value);
    all += text.data();
  }
  return all;
}

// The result of a reader and where it left the stream.
inline std::string ending(int32_t result, std::FILE* stream) {
  return "/" + std::to_string(result) + "@" + std::to_string(std::ftell(stream));
}

}  // namespace kelvane
