// SPDX-License-Identifier: Apache-2.0
// Any bytes as a dense payload for an old image of 4096 bytes. The first byte of the input chooses
// the size of the windows, the rest is the payload. A read outside payload, old image or what is
// there of the new one is a fault.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "dense_decoder.h"

namespace {

constexpr uint32_t kLargestImage = 1U << 16U;

struct Device {
  std::vector<uint8_t> payload;
  std::vector<uint8_t> old_image;
  std::vector<uint8_t> new_image;
};

int copy(const std::vector<uint8_t>& from, uint32_t at, uint8_t* bytes, uint32_t count) {
  if (count == 0 || at > from.size() || count > from.size() - at) {
    std::abort();
  }
  std::copy_n(from.begin() + at, count, bytes);
  return 0;
}

int read_payload(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
  return copy(static_cast<Device*>(context)->payload, at, bytes, count);
}

int read_old(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
  return copy(static_cast<Device*>(context)->old_image, at, bytes, count);
}

int read_new(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
  return copy(static_cast<Device*>(context)->new_image, at, bytes, count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 65536) {
    return 0;
  }
  Device device;
  device.payload.assign(data + 1, data + size);
  const kelvane_dense_input input = {
      &device, static_cast<uint32_t>(size - 1), read_payload, read_old, read_new, kLargestImage};
  const auto decoder = std::make_unique<kelvane_dense_decoder>();
  std::array<uint32_t, 1024> map = {};
  kelvane_dense_info info = {};
  if (kelvane_dense_open(decoder.get(), &input, map.data(), sizeof map, &info) !=
      KELVANE_DENSE_OK) {
    return 0;
  }
  // Words that are addresses and instructions of each machine now and then.
  constexpr std::array<uint32_t, 8> kWords = {0xF800F000, 0xEBFFFFF0, 0x3D201000, 0x0C000010,
                                              0x00000517, 0x4900E0EF, 0x00F2F240, 0x80690010};
  device.old_image.resize(info.old_size);
  for (uint32_t i = 0; i < info.old_size; ++i) {
    const uint32_t word = i % 64 < 32 ? kWords[i / 4 % kWords.size()] : info.base + i % 4096 / 4;
    device.old_image[i] = static_cast<uint8_t>(word >> 8 * (i % 4));
  }
  int code = kelvane_dense_restart(decoder.get());
  std::vector<uint8_t> window(1U + data[0]);
  while (code == KELVANE_DENSE_OK && device.new_image.size() < info.new_size) {
    const auto at = static_cast<uint32_t>(device.new_image.size());
    const auto count = static_cast<uint32_t>(window.size());
    code = kelvane_dense_window(decoder.get(), at, window.data(), count);
    device.new_image.insert(device.new_image.end(), window.begin(), window.end());
  }
  return 0;
}
