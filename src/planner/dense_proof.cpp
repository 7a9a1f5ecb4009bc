// SPDX-License-Identifier: Apache-2.0
#include "dense_proof.h"

#include <algorithm>

namespace kelvane {
namespace {

constexpr int kRefused = 1;
constexpr uint32_t kMapEntryBytes = 14;

constexpr uint32_t kNone = 0xFFFFFFFF;

// The pages of a device while an update runs: which old ones can still be read.
class device_flash {
 public:
  // With a geometry whose ring has no pages, all of them, always.
  device_flash(const plan_images& images, std::span<const uint8_t> payload,
               std::span<const kept_page> kept, const flash_geometry& geometry)
      : images_(images),
        payload_(payload),
        kept_(kept),
        geometry_(geometry),
        slot_of_(
            pages_of(std::max(images.old_image.size(), images.new_image.size())) + geometry.raise,
            kNone),
        changes_(slot_of_.size()),
        slot_page_(geometry.slots, kNone) {
    for (uint32_t page = 0; page < pages_of(images.new_image.size()); ++page) {
      const size_t at = size_t{page} * geometry.page_size;
      const auto after = part_of(images.new_image, at, geometry.page_size);
      const auto before = part_of(images.old_image, at, after.size());
      const bool stays = std::equal(after.begin(), after.end(), before.begin(), before.end());
      if (geometry.raise != 0 ? !after.empty() : !stays) {
        changes_[page] = true;
        changed_.push_back(page);
      }
    }
    image_.reserve(images.new_image.size());
    for (const kept_page& each : kept) {
      if (each.page < slot_of_.size()) {
        slot_of_[each.page] = each.slot;
      }
    }
  }

  // A page is computed. With checkpoints the last page that changes ahead of the next one is at
  // hand, since all pages since the last checkpoint may have to be computed again.
  void begin_page(uint32_t page) {
    at_hand_ = page;
    if (geometry_.checkpoint != 0) {
      while (page >= group_end_ && group_ < changed_.size()) {
        group_ = std::min<size_t>(changed_.size(), group_ + geometry_.checkpoint);
        group_end_ = changed_[group_ - 1] + 1;
      }
      at_hand_ = std::max(page + 1, group_end_) - 1;
    }
    for (; next_kept_ < kept_.size() && kept_[next_kept_].page <= at_hand_; ++next_kept_) {
      if (kept_[next_kept_].slot < slot_page_.size()) {
        slot_page_[kept_[next_kept_].slot] = kept_[next_kept_].page;
      }
    }
  }

  void write(std::span<const uint8_t> bytes) {
    image_.insert(image_.end(), bytes.begin(), bytes.end());
  }

  std::span<const uint8_t> image() const { return image_; }

  static int read_payload(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
    return copy(static_cast<const device_flash*>(context)->payload_, position, bytes, count);
  }

  static int read_old(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<const device_flash*>(context);
    if (self.geometry_.ring_pages != 0) {
      const uint32_t page_size = self.geometry_.page_size;
      for (uint32_t page = address / page_size; page <= (address + count - 1) / page_size; ++page) {
        if (!self.has_old_page(page)) {
          return kRefused;
        }
      }
    }
    return copy(self.images_.old_image, address, bytes, count);
  }

  static int read_new(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    return copy(static_cast<const device_flash*>(context)->image_, address, bytes, count);
  }

 private:
  size_t pages_of(size_t size) const { return size / geometry_.page_size + 1; }

  static std::span<const uint8_t> part_of(std::span<const uint8_t> image, size_t at, size_t size) {
    at = std::min(at, image.size());
    return image.subspan(at, std::min(size, image.size() - at));
  }

  static int copy(std::span<const uint8_t> from, uint32_t address, uint8_t* bytes, uint32_t count) {
    if (address > from.size() || count > from.size() - address) {
      return kRefused;
    }
    std::copy_n(from.begin() + address, count, bytes);
    return 0;
  }

  // A kept page is in its slot and nowhere else. The others that change go through the ring.
  bool has_old_page(uint32_t page) const {
    page += geometry_.raise;
    if (page > at_hand_ || !changes_[page]) {
      return true;
    }
    const uint32_t slot = slot_of_[page];
    if (slot != kNone) {
      return slot < slot_page_.size() && slot_page_[slot] == page;
    }
    const auto next = std::upper_bound(changed_.begin(), changed_.end(), page);
    return std::upper_bound(next, changed_.end(), at_hand_) - next < geometry_.ring_pages;
  }

  plan_images images_;
  std::span<const uint8_t> payload_;
  std::span<const kept_page> kept_;
  const flash_geometry& geometry_;
  std::vector<uint32_t> slot_of_;
  std::vector<bool> changes_;
  std::vector<uint32_t> changed_;
  std::vector<uint32_t> slot_page_;
  std::vector<uint8_t> image_;  // the new one, as far as it is
  size_t next_kept_ = 0;
  size_t group_ = 0;  // changed pages up to the end of the group at hand
  uint32_t group_end_ = 0;
  uint32_t at_hand_ = 0;
};

// An open decoder of a payload on such a device.
struct device {
  device(const plan_images& images, uint32_t largest, std::span<const uint8_t> payload,
         std::span<const kept_page> kept, const flash_geometry& geometry)
      : flash(images, payload, kept, geometry),
        input{&flash,
              static_cast<uint32_t>(payload.size()),
              device_flash::read_payload,
              device_flash::read_old,
              device_flash::read_new,
              std::max(static_cast<uint32_t>(images.old_image.size()), largest)} {
    code = kelvane_dense_open(&decoder, &input, nullptr, 0, &info);
    if (code == KELVANE_DENSE_NO_ROOM && info.new_size <= input.largest_image &&
        info.old_size <= input.largest_image) {
      map.resize(size_t{info.map_entries} * kMapEntryBytes / sizeof(uint32_t) + 1);
      code = kelvane_dense_open(&decoder, &input, map.data(),
                                static_cast<uint32_t>(map.size() * sizeof(uint32_t)), &info);
    }
    if (code == KELVANE_DENSE_OK && info.old_size != images.old_image.size()) {
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
      flash.write(std::span(window).first(count));
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
  device target(images, static_cast<uint32_t>(images.new_image.size()), payload, kept, geometry);
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
  if (!std::equal(images.new_image.begin(), images.new_image.end(), image.begin(), image.end())) {
    return "it makes another image";
  }
  return {};
}

std::vector<uint8_t> decode_dense(std::span<const uint8_t> old_image,
                                  std::span<const uint8_t> payload, uint32_t largest) {
  flash_geometry anything;
  anything.ring_pages = 0;
  device target({old_image, {}}, largest, payload, {}, anything);
  target.run(anything.page_size);
  const std::span<const uint8_t> image = target.flash.image();
  if (target.code != KELVANE_DENSE_OK || target.info.old_checksum != checksum_of(old_image) ||
      target.info.new_checksum != checksum_of(image)) {
    return {};
  }
  return {image.begin(), image.end()};
}

}  // namespace kelvane
