// SPDX-License-Identifier: Apache-2.0
#include "dense_proof.h"

#include <algorithm>

namespace kelvane {
namespace {

constexpr int kRefused = 1;
constexpr uint32_t kMapEntryBytes = 14;

// The flash of a device, and what an update keeps beside it.
class device_flash {
 public:
  device_flash(std::span<const uint8_t> old_image, uint32_t new_size,
               std::span<const uint8_t> payload, std::span<const kept_page> kept,
               const flash_geometry& geometry)
      : old_size_(static_cast<uint32_t>(old_image.size())),
        payload_(payload),
        kept_(kept),
        geometry_(geometry),
        image_(old_image.begin(), old_image.end()) {
    const uint32_t page_size = geometry.page_size;
    const uint32_t pages = std::max(old_size_, new_size) / page_size + 1;
    image_.resize(size_t{pages} * page_size, 0xFF);
    ring_pages_ = geometry.ring_pages == 0 ? pages : std::min(geometry.ring_pages, pages);
    ring_.resize(size_t{ring_pages_} * page_size);
    slots_.resize(geometry.slots);
    slot_page_.assign(geometry.slots, kNoPage);
  }

  // Saves the page that is written next.
  void begin_page(uint32_t page) {
    page_ = page;
    const auto begin = image_.begin() + static_cast<ptrdiff_t>(size_t{page} * geometry_.page_size);
    std::copy_n(
        begin, geometry_.page_size,
        ring_.begin() + static_cast<ptrdiff_t>(size_t{page % ring_pages_} * geometry_.page_size));
    for (; next_kept_ < kept_.size() && kept_[next_kept_].page <= page; ++next_kept_) {
      const kept_page& kept = kept_[next_kept_];
      if (kept.page == page && kept.slot < slots_.size()) {
        slots_[kept.slot].assign(begin, begin + geometry_.page_size);
        slot_page_[kept.slot] = page;
      }
    }
  }

  void write(uint32_t address, std::span<const uint8_t> bytes) {
    std::copy(bytes.begin(), bytes.end(), image_.begin() + address);
    written_ = address + static_cast<uint32_t>(bytes.size());
  }

  std::span<const uint8_t> image() const { return image_; }

  static int read_payload(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<const device_flash*>(context);
    if (position > self.payload_.size() || count > self.payload_.size() - position) {
      return kRefused;
    }
    std::copy_n(self.payload_.begin() + position, count, bytes);
    return 0;
  }

  static int read_old(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<const device_flash*>(context);
    if (address > self.old_size_ || count > self.old_size_ - address) {
      return kRefused;
    }
    while (count != 0) {
      const uint32_t offset = address % self.geometry_.page_size;
      const uint32_t part = std::min(count, self.geometry_.page_size - offset);
      const uint8_t* const page = self.old_page(address / self.geometry_.page_size);
      if (page == nullptr) {
        return kRefused;
      }
      bytes = std::copy_n(page + offset, part, bytes);
      address += part;
      count -= part;
    }
    return 0;
  }

  static int read_new(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<const device_flash*>(context);
    if (address > self.written_ || count > self.written_ - address) {
      return kRefused;
    }
    std::copy_n(self.image_.begin() + address, count, bytes);
    return 0;
  }

 private:
  static constexpr uint32_t kNoPage = 0xFFFFFFFF;

  const uint8_t* old_page(uint32_t page) const {
    const size_t page_size = geometry_.page_size;
    if (page > page_) {
      return image_.data() + page * page_size;
    }
    if (page_ - page < ring_pages_) {
      return ring_.data() + page % ring_pages_ * page_size;
    }
    const auto slot = std::find(slot_page_.begin(), slot_page_.end(), page);
    return slot == slot_page_.end() ? nullptr
                                    : slots_[static_cast<size_t>(slot - slot_page_.begin())].data();
  }

  uint32_t old_size_;
  std::span<const uint8_t> payload_;
  std::span<const kept_page> kept_;
  const flash_geometry& geometry_;
  std::vector<uint8_t> image_;
  std::vector<uint8_t> ring_;
  uint32_t ring_pages_ = 0;
  std::vector<std::vector<uint8_t>> slots_;
  std::vector<uint32_t> slot_page_;
  size_t next_kept_ = 0;
  uint32_t page_ = 0;
  uint32_t written_ = 0;
};

// An open decoder of a payload on such a device.
struct device {
  device(std::span<const uint8_t> old_image, uint32_t new_size, std::span<const uint8_t> payload,
         std::span<const kept_page> kept, const flash_geometry& geometry)
      : flash(old_image, new_size, payload, kept, geometry),
        input{&flash,
              static_cast<uint32_t>(payload.size()),
              device_flash::read_payload,
              device_flash::read_old,
              device_flash::read_new,
              std::max(static_cast<uint32_t>(old_image.size()), new_size)} {
    code = kelvane_dense_open(&decoder, &input, nullptr, 0, &info);
    if (code == KELVANE_DENSE_NO_ROOM && info.new_size <= input.largest_image &&
        info.old_size <= input.largest_image) {
      map.resize(size_t{info.map_entries} * kMapEntryBytes / sizeof(uint32_t) + 1);
      code = kelvane_dense_open(&decoder, &input, map.data(),
                                static_cast<uint32_t>(map.size() * sizeof(uint32_t)), &info);
    }
    if (code == KELVANE_DENSE_OK && info.old_size != old_image.size()) {
      code = KELVANE_DENSE_BAD_HEADER;
    }
    if (code == KELVANE_DENSE_OK) {
      code = kelvane_dense_restart(&decoder);
    }
  }
  device(const device&) = delete;
  device& operator=(const device&) = delete;

  // The whole pass, in windows of a size that divides no word.
  void run(uint32_t page_size) {
    constexpr uint32_t kWindow = 509;
    std::vector<uint8_t> window(kWindow);
    for (uint32_t at = 0; code == KELVANE_DENSE_OK && at < info.new_size;) {
      if (at % page_size == 0) {
        flash.begin_page(at / page_size);
      }
      const uint32_t count = std::min({kWindow, page_size - at % page_size, info.new_size - at});
      code = kelvane_dense_window(&decoder, at, window.data(), count);
      flash.write(at, std::span(window).first(count));
      at += count;
    }
  }

  device_flash flash;
  kelvane_dense_input input;
  kelvane_dense_decoder decoder = {};
  kelvane_dense_info info = {};
  std::vector<uint32_t> map;
  int code = 0;
};

uint32_t checksum_of(std::span<const uint8_t> image) {
  return kelvane_dense_checksum(0, image.data(), static_cast<uint32_t>(image.size()));
}

}  // namespace

std::string fault_of_dense(const plan_images& images, std::span<const uint8_t> payload,
                           std::span<const kept_page> kept, const flash_geometry& geometry) {
  const auto new_size = static_cast<uint32_t>(images.new_image.size());
  device target(images.old_image, new_size, payload, kept, geometry);
  target.run(geometry.page_size);
  if (target.code != KELVANE_DENSE_OK) {
    return target.code == kRefused ? "it reads what the device has not kept"
                                   : "the decoder refuses it";
  }
  if (target.info.old_checksum != checksum_of(images.old_image) ||
      target.info.new_checksum != checksum_of(images.new_image)) {
    return "its checksums are not those of the images";
  }
  const auto image = target.flash.image();
  if (target.info.new_size != new_size ||
      !std::equal(images.new_image.begin(), images.new_image.end(), image.begin())) {
    return "it makes another image";
  }
  return {};
}

std::vector<uint8_t> decode_dense(std::span<const uint8_t> old_image,
                                  std::span<const uint8_t> payload, uint32_t largest) {
  flash_geometry anything;
  anything.ring_pages = 0;
  device target(old_image, largest, payload, {}, anything);
  target.run(anything.page_size);
  std::span<const uint8_t> image = target.flash.image();
  if (target.code != KELVANE_DENSE_OK || target.info.old_checksum != checksum_of(old_image) ||
      target.info.new_checksum != checksum_of(image.first(target.info.new_size))) {
    return {};
  }
  image = image.first(target.info.new_size);
  return {image.begin(), image.end()};
}

}  // namespace kelvane
