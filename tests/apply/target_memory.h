#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "applier.h"

namespace kelvane {

// A target's memory: regions with guard bytes around each. It takes note of every access, and can
// be told to fail.
class TargetMemory {
 public:
  // File mode: `contents` at offset 0, and room up to `capacity` bytes.
  TargetMemory(std::string_view contents, uint32_t capacity)
      : TargetMemory({{0, std::string(contents) + room(capacity - contents.size())}}) {
    memory_.old_size = static_cast<uint32_t>(contents.size());
  }

  // Memory mode: the bytes of each region by its address.
  explicit TargetMemory(const std::vector<std::pair<uint32_t, std::string>>& contents)
      : memory_{this, read, write, nullptr, 0, KELVANE_SIZE_UNKNOWN, 0} {
    for (const auto& [address, bytes] : contents) {
      regions_.push_back({address, static_cast<uint32_t>(bytes.size())});
      bytes_.push_back(kGuard + bytes + kGuard);
    }
    memory_.regions = regions_.data();
    memory_.region_count = static_cast<uint32_t>(regions_.size());
  }

  TargetMemory(const TargetMemory&) = delete;
  TargetMemory& operator=(const TargetMemory&) = delete;

  kelvane_memory* access() { return &memory_; }
  std::string contents(size_t region = 0) const {
    return bytes_[region].substr(kGuard.size(), regions_[region].size);
  }
  bool guards_stand() const {
    for (const std::string& bytes : bytes_) {
      if (!bytes.starts_with(kGuard) || !bytes.ends_with(kGuard)) {
        return false;
      }
    }
    return true;
  }

  uint32_t reads = 0;
  uint32_t writes = 0;
  uint32_t outside = 0;     // accesses that left the regions; each of them fails
  uint32_t fail_read = 0;   // the number of the read that fails, from 1
  uint32_t fail_write = 0;  // and of the write
  uint32_t write_page = 0;  // a write over the end of a page of this size fails

 private:
  static std::string room(size_t size) { return std::string(size, '\xEE'); }

  char* byte_at(uint32_t address) {
    for (size_t i = 0; i < regions_.size(); ++i) {
      if (address - regions_[i].address < regions_[i].size) {
        return &bytes_[i][kGuard.size() + (address - regions_[i].address)];
      }
    }
    return nullptr;
  }

  static int read(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    auto* const self = static_cast<TargetMemory*>(context);
    if (++self->reads == self->fail_read) {
      return 1;
    }
    for (uint32_t i = 0; i < count; ++i) {
      const char* const place = self->byte_at(address + i);
      if (place == nullptr) {
        ++self->outside;
        return 1;
      }
      bytes[i] = static_cast<uint8_t>(*place);
    }
    return 0;
  }

  static int write(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
    auto* const self = static_cast<TargetMemory*>(context);
    if (++self->writes == self->fail_write ||
        (self->write_page != 0 &&
         address / self->write_page != (address + count - 1) / self->write_page)) {
      return 1;
    }
    for (uint32_t i = 0; i < count; ++i) {
      char* const place = self->byte_at(address + i);
      if (place == nullptr) {
        ++self->outside;
        return 1;
      }
      *place = static_cast<char>(bytes[i]);
    }
    return 0;
  }

  inline static const std::string kGuard = std::string(32, '\xA5');

  std::vector<kelvane_region> regions_;
  std::vector<std::string> bytes_;
  kelvane_memory memory_;
};

// A patch in a block of exactly its size, with an applier of its own: an access behind the end of
// either is seen by a checking allocator.
class OpenedPatch {
 public:
  explicit OpenedPatch(std::string_view patch, uint32_t version0_flags = 0)
      : size_(static_cast<uint32_t>(patch.size())),
        bytes_(std::make_unique<uint8_t[]>(patch.size())),
        applier_(std::make_unique<kelvane_applier>()) {
    patch.copy(reinterpret_cast<char*>(bytes_.get()), patch.size());
    code = kelvane_apply_open(applier_.get(), bytes_.get(), size_, version0_flags);
  }

  kelvane_applier* applier() { return applier_.get(); }

  int code;  // what opening it gave

 private:
  uint32_t size_;
  std::unique_ptr<uint8_t[]> bytes_;
  std::unique_ptr<kelvane_applier> applier_;
};

// Opens the patch and carries it out.
inline int apply_patch(std::string_view patch, TargetMemory& memory, uint32_t version0_flags = 0,
                       uint32_t skip = 0) {
  OpenedPatch opened(patch, version0_flags);
  return opened.code != KELVANE_APPLY_OK
             ? opened.code
             : kelvane_apply_run(opened.applier(), memory.access(), skip);
}

}  // namespace kelvane
