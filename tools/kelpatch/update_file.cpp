// SPDX-License-Identifier: Apache-2.0
#include "update_file.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "flash_dense.h"

namespace kelpatch {
namespace {

constexpr uint32_t kMostPages = 65535;

int read_payload(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
  return kelvane_source_read(static_cast<const kelvane_source*>(context), position, bytes, count);
}

// The numbers of a plan. Behind its end come zeros; what is wrong counts as 0 and is noted.
class PlanReader {
 public:
  explicit PlanReader(const kelvane_source& plan) : plan_(plan) {}
  bool failed() const { return failed_; }
  bool at_end() const { return position_ == plan_.size; }

  uint32_t number() {
    uint32_t value = 0;
    if (at_end()) {
      return 0;
    }
    if (failed_ || kelvane_bundle_number(&plan_, &position_, &value) != KELVANE_BUNDLE_OK) {
      failed_ = true;
      return 0;
    }
    return value;
  }

  // `count` stretches of the first `pages` pages.
  std::vector<PageRange> stretches(uint32_t count, uint32_t pages) {
    std::vector<PageRange> all;
    uint64_t next = 0;
    for (uint32_t i = 0; i < count && !failed_; ++i) {
      const uint64_t first = next + number();
      const uint64_t size = uint64_t{number()} + 1;
      if (first + size > pages) {
        failed_ = true;
        break;
      }
      all.push_back({static_cast<uint32_t>(first), static_cast<uint32_t>(size)});
      next = first + size + 1;
    }
    return all;
  }

 private:
  const kelvane_source& plan_;
  uint32_t position_ = 0;
  bool failed_ = false;
};

const char* fault_of_bundle(kelvane_bundle& bundle, const Bytes& bytes) {
  const kelvane_source source = source_of(bytes);
  switch (kelvane_bundle_read(&bundle, &source)) {
    case KELVANE_BUNDLE_OK:
      break;
    case KELVANE_BUNDLE_VERSIONS:
      return "its version is not known here";
    default:
      return "it is shorter than its header says, or has no header";
  }
  Bytes work(4096);
  return kelvane_bundle_check(&bundle, work.data(), static_cast<uint32_t>(work.size()), nullptr,
                              nullptr) == KELVANE_BUNDLE_OK
             ? nullptr
             : "its checksum is wrong";
}

}  // namespace

kelvane_source source_of(const Bytes& bytes) {
  return {bytes.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bytes.size())};
}

bool is_update(const Bytes& bytes) {
  if (bytes.size() < KELVANE_BUNDLE_FIXED_SIZE || bytes[0] != 'K' || bytes[1] != 'B') {
    return false;
  }
  kelvane_bundle bundle;
  if (fault_of_bundle(bundle, bytes) == nullptr) {
    return true;
  }
  kelvane_applier applier;
  const auto size = static_cast<uint32_t>(bytes.size());
  return kelvane_apply_open(&applier, bytes.data(), size, KELVANE_V0_LITTLE_ENDIAN) !=
             KELVANE_APPLY_OK &&
         kelvane_apply_open(&applier, bytes.data(), size, KELVANE_V0_BIG_ENDIAN) !=
             KELVANE_APPLY_OK;
}

uint32_t dense_state_size(uint8_t model) {
  using Model = kelvane_dense_model;
  const auto by_model = [](uint32_t m) {
    return static_cast<uint32_t>(KELVANE_DENSE_FLAGS(m) * sizeof(Model::flags[0]) +
                                 KELVANE_DENSE_LITERALS(m) * sizeof(Model::literals[0]) +
                                 KELVANE_DENSE_LEARNED(m) * sizeof(Model::learned[0]));
  };
  return static_cast<uint32_t>(KELVANE_DENSE_SAVED) - by_model(KELVANE_DENSE_LARGEST_MODEL) +
         by_model(model);
}

uint32_t dense_memory(uint8_t model, uint32_t map_entries) {
  return static_cast<uint32_t>(sizeof(kelvane_dense_payload) - KELVANE_DENSE_SAVED) +
         dense_state_size(model) + map_entries * KELVANE_DENSE_ENTRY_SIZE;
}

UpdateFile::UpdateFile(const std::string& name, Bytes bytes)
    : name_(name), bytes_(std::move(bytes)) {
  if (const char* const fault = fault_of_bundle(bundle_, bytes_)) {
    damaged(fault);
  }
  if (bundle_.kind == KELVANE_PAYLOAD_PATCH) {
    patch_.emplace(name_, payload());
    const kelvane_patch_info& info = patch_->info();
    images_ = {info.old_size, info.new_size, info.old_checksum, info.new_checksum, 0};
  } else if (bundle_.kind == KELVANE_PAYLOAD_DENSE) {
    read_dense();
  } else {
    damaged("its kind of payload is not known here");
  }
  read_plan();
}

Bytes UpdateFile::payload() const {
  Bytes bytes(bundle_.payload.size);
  if (!bytes.empty()) {
    kelvane_source_read(&bundle_.payload, 0, bytes.data(), bundle_.payload.size);
  }
  return bytes;
}

ToldFile UpdateFile::told(const char* what, uint32_t size, uint32_t checksum) const {
  return {what, size, checksum, dense_ ? kelvane_dense_checksum : kelvane_apply_checksum};
}

void UpdateFile::read_dense() {
  kelvane_dense_input input = {};
  input.context = &bundle_.payload;
  input.payload_size = bundle_.payload.size;
  input.read_payload = read_payload;
  const auto decoder = std::make_unique<kelvane_dense_decoder>();
  kelvane_dense_info info = {};
  // Without room for a map it tells how large that is.
  int code = kelvane_dense_open(decoder.get(), &input, nullptr, 0, &info);
  std::vector<uint32_t> room(size_t{info.map_entries} * KELVANE_DENSE_ENTRY_SIZE / 4 + 1);
  if (code == KELVANE_DENSE_NO_ROOM) {
    code = kelvane_dense_open(decoder.get(), &input, room.data(),
                              static_cast<uint32_t>(room.size() * 4), &info);
  }
  if (code == KELVANE_DENSE_OK) {
    code = kelvane_dense_restart(decoder.get());
  }
  if (code != KELVANE_DENSE_OK) {
    damaged("its payload is unsound");
  }
  map_.assign(decoder->entries, decoder->entries + info.map_entries);
  dense_ = info;
  images_ = {info.old_size, info.new_size, info.old_checksum, info.new_checksum, info.reads_new};
}

void UpdateFile::read_plan() {
  PlanReader reader(bundle_.plan);
  const uint32_t page_size = bundle_.page_size;
  const auto pages_of = [page_size](uint32_t size) {
    return static_cast<uint32_t>((uint64_t{size} + page_size - 1) / page_size);
  };
  plan_.page_size = page_size;
  plan_.pages = pages_of(std::max(images_.old_size, images_.new_size));
  plan_.old_pages = pages_of(images_.old_size);
  plan_.new_pages = pages_of(images_.new_size);
  plan_.ring = bundle_.ring;
  if (plan_.pages > kMostPages || uint64_t{plan_.pages} * page_size > kLargestFile) {
    damaged("its images have more than 65535 pages");
  }
  const uint32_t count = reader.number();
  const std::vector<PageRange> runs = reader.stretches(count == 0 ? 0 : count - 1, plan_.pages);
  const uint32_t kept = reader.number();
  plan_.slots = kept == 0 ? 0 : reader.number();
  uint64_t next = 0;
  for (uint32_t i = 0; i < kept && !reader.failed() && next <= kMostPages; ++i) {
    const uint64_t page = next + reader.number();
    plan_.kept.push_back({static_cast<uint32_t>(page), reader.number()});
    next = page + 1;
  }
  plan_.ranges = reader.stretches(reader.number(), plan_.pages);
  plan_.raise = reader.number();
  const uint64_t raised_pages = uint64_t{plan_.raised()} + plan_.raise;
  if (plan_.raise != 0 && (count != 0 || !plan_.ranges.empty() || raised_pages > kMostPages ||
                           raised_pages * page_size > kLargestFile)) {
    damaged("its plan is unsound");
  }
  plan_.pages = std::max(plan_.pages, static_cast<uint32_t>(raised_pages));
  if (reader.failed() || !reader.at_end() || next > plan_.pages || plan_.slots > kMostPages) {
    damaged("its plan is unsound");
  }
  for (const PageRange& run : runs) {
    for (uint32_t i = 0; i < run.pages; ++i) {
      plan_.changed.push_back(run.first + i);
    }
  }
  for (uint32_t page = 0; count == 0 && page < plan_.new_pages; ++page) {
    if (plan_.has(page)) {
      plan_.changed.push_back(page);
    }
  }
}

uint32_t UpdateFile::checkpoint_pages() const {
  return dense_ ? (dense_state_size(dense_->model) - 1) / plan_.page_size + 1 : 0;
}

void UpdateFile::damaged(const char* what) const {
  fatal("update file '%s' is damaged: %s", name_.c_str(), what);
}

}  // namespace kelpatch
