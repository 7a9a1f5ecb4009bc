// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <memory>

#include "bytes.h"
#include "dense_search.h"

namespace kelvane {

// A device that writes an update page by page and loses power now and then. It has the bytes of
// flash alone: whatever stands where an old page should be is what the decoder gets, so that an
// update that counts on a page that is gone makes another image.
class RestartedDevice {
 public:
  RestartedDevice(const dense_request& request, const dense_update& update)
      : request_(request), update_(update), page_size_(request.geometry.page_size) {
    const auto old_image = request.images.old_image;
    const auto new_image = request.images.new_image;
    image_.resize(
        (std::max(old_image.size() + raised_, new_image.size()) / page_size_ + 1) * page_size_,
        0xFF);
    std::copy(old_image.begin(), old_image.end(), image_.begin() + raised_);
    for (uint32_t at = 0; at < new_image.size(); at += page_size_) {
      const auto after = new_image.subspan(at, std::min(page_size_, new_size() - at));
      if (raised_ != 0 || at + after.size() > old_image.size() ||
          !std::equal(after.begin(), after.end(), old_image.begin() + at)) {
        changed_.push_back(at / page_size_);
      }
    }
    saved_in_.resize(image_.size() / page_size_);
    ring_.resize(request.geometry.ring_pages, Bytes(page_size_));
    slots_.resize(request.geometry.slots, Bytes(page_size_));
    lose_power();
  }

  // Gives the image in the end; one that can't be decoded has other bytes.
  Bytes run(Random& random) {
    for (uint32_t number = 0; number < changed_.size(); ++number) {
      const uint32_t page = changed_[number];
      if (request_.geometry.checkpoint == 0) {
        decode_up_to(page * page_size_, page, random);  // pages that stay wait for nothing
      }
      save(page, number);
      for (bool again = true; again;) {
        std::fill_n(image_.begin() + page * page_size_, page_size_, uint8_t{0xFF});
        decode_up_to((page + 1) * page_size_, page, random);
        again = request_.geometry.checkpoint != 0 && random.below(3) == 0;
        if (again) {
          lose_power();
        }
      }
      if (request_.geometry.checkpoint != 0 && (number + 1) % request_.geometry.checkpoint == 0) {
        checkpoint_ = decoder_->state;
        checkpoint_at_ = at_;
      }
    }
    return {image_.begin(), image_.begin() + new_size()};
  }

 private:
  uint32_t new_size() const { return static_cast<uint32_t>(request_.images.new_image.size()); }

  void save(uint32_t page, uint32_t number) {
    if (ring_.empty()) {
      return;  // every old byte can be read at any time
    }
    const auto kept = std::find_if(update_.kept.begin(), update_.kept.end(),
                                   [&](const kept_page& each) { return each.page == page; });
    Bytes& into = kept == update_.kept.end() ? ring_[number % ring_.size()] : slots_.at(kept->slot);
    std::copy_n(image_.begin() + page * page_size_, page_size_, into.begin());
    saved_in_[page] = &into;
  }

  // The map is read again, and the state is that of the last checkpoint.
  void lose_power() {
    map_.assign(update_.map_entries * 14 / 4 + 1, 0xDEADBEEF);
    decoder_ = std::make_unique<kelvane_dense_decoder>();
    kelvane_dense_open(decoder_.get(), &input_, map_.data(), static_cast<uint32_t>(map_.size() * 4),
                       &info_);
    kelvane_dense_restart(decoder_.get());
    at_ = checkpoint_at_;
    if (at_ != 0) {
      decoder_->state = checkpoint_;
      kelvane_dense_resume(decoder_.get());
    }
  }

  // What lies ahead of `page` is there already.
  void decode_up_to(uint32_t end, uint32_t page, Random& random) {
    Bytes window(page_size_);
    while (at_ < end) {
      const uint32_t count = std::min(1 + random.below(page_size_), page_size_ - at_ % page_size_);
      kelvane_dense_window(decoder_.get(), at_, window.data(), count);
      if (at_ / page_size_ == page) {
        std::copy_n(window.begin(), count, image_.begin() + at_);
      }
      at_ += count;
    }
  }

  static int read_payload(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    std::copy_n(static_cast<RestartedDevice*>(context)->update_.payload.begin() + at, count, bytes);
    return 0;
  }
  static int read_old(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<RestartedDevice*>(context);
    for (; count != 0; --count, ++at) {
      const uint32_t place = at + self.raised_;
      const Bytes* const saved = self.saved_in_[place / self.page_size_];
      *bytes++ = self.ring_.empty() ? self.request_.images.old_image[at]
                 : saved != nullptr ? (*saved)[place % self.page_size_]
                                    : self.image_[place];
    }
    return 0;
  }
  static int read_new(void* context, uint32_t at, uint8_t* bytes, uint32_t count) {
    std::copy_n(static_cast<RestartedDevice*>(context)->image_.begin() + at, count, bytes);
    return 0;
  }

  const dense_request& request_;
  const dense_update& update_;
  uint32_t page_size_;
  uint32_t raised_ = page_size_ * request_.geometry.raise;  // bytes
  kelvane_dense_input input_ = {
      this, static_cast<uint32_t>(update_.payload.size()), read_payload, read_old, read_new, 0};
  Bytes image_;
  std::vector<uint32_t> changed_;       // pages
  std::vector<const Bytes*> saved_in_;  // by page
  std::vector<Bytes> ring_;
  std::vector<Bytes> slots_;
  std::vector<uint32_t> map_;
  std::unique_ptr<kelvane_dense_decoder> decoder_;
  kelvane_dense_info info_ = {};
  kelvane_dense_state checkpoint_ = {};
  uint32_t checkpoint_at_ = 0;
  uint32_t at_ = 0;  // where the next window begins
};

}  // namespace kelvane
