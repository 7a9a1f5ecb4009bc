#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "indgfile.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {

inline constexpr uint32_t kVariable = 5;  // a file version that selects the variable forms
inline constexpr size_t kHeaderSize = 20;

inline std::string text(std::initializer_list<uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

// A header, correct as it stands: type 9, fixed forms, 32-bit addresses.
inline std::vector<uint8_t> header() {
  return {0x7F, 'Q', 'V', 'R', 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0, 4, 0, 0, 0};
}

// Writes structured files into a directory of its own and reads them back.
class StructuredFile : public testing::Test {
 protected:
  StructuredFile() { reset_all_state(); }

  // Writes a file by `put` and gives what stands behind its header.
  template <typename Put>
  std::string written(uint32_t file_version, int32_t address_mode, Put put,
                      uint8_t raw_arrays = 0) {
    GFile file{};
    const std::string name = folder.path("written");
    EXPECT_EQ(gf_open_for_write(&file, nullptr, name.c_str(), 9, file_version, address_mode, 0,
                                raw_arrays),
              &file);
    put(&file);
    EXPECT_EQ(gf_got_error(&file), 0);
    EXPECT_EQ(gf_close(&file), 1);
    return folder.read("written").substr(kHeaderSize);
  }

  // Opens what `written` left, or a file of these contents.
  GFile* reopen() { return gf_open_for_read(nullptr, nullptr, folder.path("written").c_str()); }
  GFile* open(std::vector<uint8_t> start, const std::string& rest = "") {
    folder.write("written", std::string(start.begin(), start.end()) + rest);
    return reopen();
  }
  GFile* open_variable(const std::string& rest) {
    std::vector<uint8_t> start = header();
    start[15] = kVariable;
    return open(start, rest);
  }

  // One value there and back: what is stored, and what is read.
  template <typename Value, typename Put, typename Get>
  void expect_stored(uint32_t file_version, Put put, Get get, Value value,
                     std::initializer_list<uint8_t> stored) {
    EXPECT_EQ(written(file_version, 2, [&](GFile* file) { put(file, value); }), text(stored));
    GFile* const file = reopen();
    EXPECT_EQ(get(file), value);
    EXPECT_EQ(gf_tell(file, nullptr), static_cast<int32_t>(kHeaderSize + stored.size()));
    gf_close(file);
  }

  TemporaryDirectory folder;
};

}  // namespace kelvane
