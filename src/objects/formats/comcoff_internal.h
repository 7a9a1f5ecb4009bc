#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "byte_order.h"
#include "byte_reader.h"
#include "comcoff.h"

namespace kelvane {

// Puts all settings and `str` back to where a new process has them.
void reset_comcoff();

// The order that `bigendian` says.
ByteOrder coff_order();

// The next bytes of a stream, taken in one piece, and a cursor over as many as there were.
class FileRecord {
 public:
  // `size` up to kMost.
  FileRecord(std::FILE* stream, size_t size)
      : in(std::span(bytes_).first(std::fread(bytes_.data(), 1, size, stream)), coff_order()) {}
  FileRecord(const FileRecord&) = delete;
  FileRecord& operator=(const FileRecord&) = delete;

  static constexpr size_t kMost = 160;

 private:
  std::array<uint8_t, kMost> bytes_{};

 public:
  ByteReader in;

  // What a reader of records gives: 0, or -1 after a read beyond the end.
  int32_t result() const { return in.failed() ? -1 : 0; }
};

// What GETLONGLONG and GETLONG make of their bytes.
uint64_t longlong_from(ByteReader& in);
uint32_t long_from(ByteReader& in);
// Bytes of a field that GETLONG reads.
size_t long_size();

// Writes what was put together and tells whether it went out whole.
bool put_record(const ByteWriter& record, std::FILE* stream);

}  // namespace kelvane
