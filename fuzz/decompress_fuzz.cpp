// Expansion of any bytes stays inside its room, and what Encode makes of any bytes expands to them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "indzip.h"
#include "writer_reset.h"

namespace kelvane {
namespace {

std::vector<uint8_t> stream;

void append(int32_t byte) {
  stream.push_back(static_cast<uint8_t>(byte));
}

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

// The first two bytes choose the room, the others are the stream.
void expand_any(const uint8_t* data, size_t size) {
  if (size < 2) {
    return;
  }
  const size_t room = data[0] + size_t{16} * data[1];
  std::vector<uint8_t> output(room);
  const Expanded expanded = expand_bounded(output.data(), room, data + 2, size - 2);
  require(expanded.size <= room);
  require(expanded.end != ExpandEnd::overrun || expanded.size == room);
}

void encode_and_expand(const uint8_t* data, size_t size) {
  stream.clear();
  Encode(data, static_cast<uint32_t>(size), append);
  std::vector<uint8_t> output(size);
  const Expanded expanded = expand_bounded(output.data(), size, stream.data(), stream.size());
  require(expanded.end == ExpandEnd::complete && expanded.size == size);
  require(output == std::vector<uint8_t>(data, data + size));
}

}  // namespace
}  // namespace kelvane

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelvane::reset_indzip();
  kelvane::expand_any(data, size);
  kelvane::encode_and_expand(data, size);
  return 0;
}
