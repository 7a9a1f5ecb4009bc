#include "byte_reader.h"

#include <algorithm>

namespace kelvane {

int64_t stream_rest(std::FILE* stream) {
  const long start = std::ftell(stream);
  if (start < 0 || std::fseek(stream, 0, SEEK_END) != 0) {
    return -1;
  }
  const long end = std::ftell(stream);
  if (std::fseek(stream, start, SEEK_SET) != 0 || end < 0) {
    return -1;
  }
  // A stream may stand behind its end, where nothing is left.
  return std::max(end - start, 0L);
}

ByteReader::ByteReader(std::FILE* stream, ByteOrder order)
    : ByteReader(stream, UINT64_MAX, order) {}

ByteReader::ByteReader(std::FILE* stream, uint64_t size, ByteOrder order)
    : stream_(stream), order_(order) {
  const int64_t rest = stream_rest(stream);
  if (rest >= 0) {
    start_ = static_cast<uint64_t>(std::ftell(stream));
    size_ = std::min(size, static_cast<uint64_t>(rest));
  }
}

bool ByteReader::fail() {
  failed_ = true;
  return false;
}

bool ByteReader::read(std::span<uint8_t> bytes) {
  if (!failed_ && bytes.size() <= rest()) {
    if (stream_ == nullptr) {
      std::copy_n(memory_ + position_, bytes.size(), bytes.data());
    } else if (std::fread(bytes.data(), 1, bytes.size(), stream_) != bytes.size()) {
      fail();  // an error of the medium, or a file that has become shorter
    }
  } else {
    fail();
  }
  if (failed_) {
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    return false;
  }
  position_ += bytes.size();
  return true;
}

std::vector<uint8_t> ByteReader::bytes(uint64_t count) {
  if (failed_ || count > rest()) {
    fail();
    return {};
  }
  std::vector<uint8_t> result(count);
  if (!read(result)) {
    return {};
  }
  return result;
}

bool ByteReader::skip(uint64_t count) {
  return count <= rest() ? seek(position_ + count) : fail();
}

bool ByteReader::seek(uint64_t position) {
  if (failed_ || position > size_) {
    return fail();
  }
  if (stream_ != nullptr &&
      std::fseek(stream_, static_cast<long>(start_ + position), SEEK_SET) != 0) {
    return fail();
  }
  position_ = position;
  return true;
}

}  // namespace kelvane
