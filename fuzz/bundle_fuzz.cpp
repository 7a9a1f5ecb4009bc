// SPDX-License-Identifier: Apache-2.0
// Any bundle, held against a small device: what is refused has done nothing, nothing is read or
// programmed outside, and an update that begins ends with the image that its payload promises, or,
// where the payload reads back what it writes, at worst with one that is found to be another. The
// first byte tells whether the checksums of bundle and payload are made to fit.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "flash_bundle.h"
#include "flash_dense.h"
#include "update_simulation.h"

namespace {

constexpr uint32_t kPage = 256;
constexpr uint32_t kOldSize = 1000;
constexpr uint32_t kMapEntries = 40;
constexpr uint32_t kState = sizeof(kelvane_dense_payload) + kMapEntries * KELVANE_DENSE_ENTRY_SIZE;
const kelvane_payload_kind* const kKinds[] = {&kelvane_patch_kind, &kelvane_dense_kind, nullptr};

// The bytes of the old image, which the corpus was made for.
std::string old_image() {
  std::string image;
  for (uint32_t i = 0; i < kOldSize; ++i) {
    image += static_cast<char>(static_cast<uint8_t>(i * 7 + i / 256));
  }
  return image;
}

void put_word(uint8_t* bytes, uint32_t word) {
  for (uint32_t i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(word >> (8 * i));
  }
}

// Where the payload is a patch of a little-endian target, whose header is 48 bytes.
void make_patch_fit(uint8_t* bundle, const kelvane_bundle& parts) {
  if (parts.payload.size < 48) {
    return;
  }
  uint8_t* const patch = bundle + (parts.payload.bytes - bundle);
  put_word(patch + 40, parts.payload.size - 20);
  put_word(patch + 44, kelvane_apply_checksum(0, patch + 48, parts.payload.size - 48));
}

// A dense payload has no checksum of its own, but that of the old image.
void make_dense_fit(uint8_t* bundle, const kelvane_bundle& parts) {
  if (parts.payload.size > 6) {
    const std::string image = old_image();
    put_word(bundle + (parts.payload.bytes - bundle) + 2,
             kelvane_crc32(0, reinterpret_cast<const uint8_t*>(image.data()), kOldSize));
  }
}

void make_fit(uint8_t* bundle, const kelvane_source& source, bool payload_too) {
  kelvane_bundle parts;
  if (kelvane_bundle_read(&parts, &source) != KELVANE_BUNDLE_OK) {
    return;
  }
  if (payload_too && parts.kind == KELVANE_PAYLOAD_DENSE) {
    make_dense_fit(bundle, parts);
  } else if (payload_too) {
    make_patch_fit(bundle, parts);
  }
  put_word(bundle + KELVANE_BUNDLE_CHECKSUM_AT,
           kelvane_crc32(0, bundle + KELVANE_BUNDLE_SUMMED_FROM,
                         parts.summed.size - KELVANE_BUNDLE_SUMMED_FROM));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 8192) {
    return 0;
  }
  const auto bundle_size = static_cast<uint32_t>(size - 1);
  const auto bundle = std::make_unique<uint8_t[]>(bundle_size);
  std::copy_n(data + 1, bundle_size, bundle.get());
  const kelvane_source source = {bundle.get(), nullptr, nullptr, 0, bundle_size};
  if ((data[0] & 1U) != 0) {
    make_fit(bundle.get(), source, (data[0] & 2U) != 0);
  }
  kelvane::DeviceShape shape;
  shape.flash.page_size = kPage;
  shape.image_pages = 6;
  shape.spare_pages = (data[0] & 16U) != 0 ? 64 : 4;  // a dense update needs more
  shape.window = (data[0] & 4U) != 0 ? 64 : kPage;
  shape.kinds = kKinds;
  shape.state_size = kState + ((data[0] & 8U) != 0 ? 2 * sizeof(kelvane_words) : 0);
  kelvane::SimulatedDevice device(shape, old_image(), 1);
  const int opened = device.open(source);
  if (opened != KELVANE_UPDATE_MORE && device.flash().operations() != 0) {
    std::abort();
  }
  int code = opened;
  while (code == KELVANE_UPDATE_MORE) {
    code = device.step();
  }
  const bool may_be_wrong =
      device.update().images.reads_new != 0 && code == KELVANE_APPLY_NEW_CHECKSUM;
  if (device.flash().violations != 0 ||
      (opened == KELVANE_UPDATE_MORE && code != KELVANE_APPLY_OK && !may_be_wrong)) {
    std::abort();
  }
  return 0;
}
