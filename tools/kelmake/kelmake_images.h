#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "image.h"
#include "kelmake_options.h"
#include "kelmake_report.h"
#include "memory_target.h"
#include "section_pairs.h"

namespace kelmake {

// Two linked images as memory mode compares them, read by the same readers as kelvane's: sections
// paired by name, exclusions and aliases, compressed sections and copies in ROM, the swap region,
// the start-up code. Pairs may stand in any order. What can't be compared ends the run in kelvane's
// words. One at a time, since the readers have process-wide state.
class MemoryImages {
 public:
  // Reads the images and the exclude file that the options name. Warnings are for those who don't
  // ask for quiet.
  explicit MemoryImages(const Options& options);

  kelvane::ByteOrder order() const { return order_; }
  // What the planner is handed; the bytes stay with this object.
  std::span<const kelvane::memory_section_pair> pairs() const { return pairs_; }
  kelvane::memory_range spare() const { return spare_; }
  const kelvane::patch_header& header() const { return header_; }
  // The sections for people, in the order of the pairs.
  const std::vector<ComparedSection>& sections() const { return sections_; }

 private:
  struct LoadedFile {
    kelvane::file_data record = {};
    LoadedFile() = default;
    ~LoadedFile();
    LoadedFile(const LoadedFile&) = delete;
    LoadedFile& operator=(const LoadedFile&) = delete;
  };
  void pair_sections();
  void refuse_overlaps(bool of_new, const char* file_name) const;

  LoadedFile old_file_;
  LoadedFile new_file_;
  std::deque<kelvane::section_pair> contents_;
  kelvane::ByteOrder order_ = kelvane::ByteOrder::kLittle;
  std::vector<kelvane::memory_section_pair> pairs_;
  kelvane::memory_range spare_;
  kelvane::patch_header header_;
  std::vector<ComparedSection> sections_;
};

}  // namespace kelmake
