#include "section_pairs.h"

#include <algorithm>
#include <cstring>

#include "byte_reader.h"
#include "debug_print.h"
#include "elf32.h"
#include "exit_status.h"
#include "indgen_message.h"
#include "indzip.h"
#include "kelvane.h"

namespace kelvane {
namespace {

constexpr char kNotCompared[] = "XXX.starttext";
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

uint32_t count_of(const file_data* file) {
  return static_cast<uint32_t>(file->sections_end - file->sections);
}

void sort_by_address(sym_addr* list, uint32_t count) {
  std::stable_sort(list, list + count,
                   [](const sym_addr& a, const sym_addr& b) { return sym_addr_cmp(&a, &b) < 0; });
}

const uint8_t* stored_bytes(const sym_addr& section, uint32_t size, const file_data& file) {
  const uint64_t start = uint64_t{section.object_start} + section.offset.low;
  if (!fits(start, size, static_cast<uint32_t>(file.size))) {
    gen_errorexit(kStatusFailure, "section '%s' lies outside file '%s'", section.name, file.name);
  }
  return file.bytes + start;
}

section_contents contents_of(const sym_addr& section, const file_data& file) {
  section_contents contents;
  if (uint64_t{address_of(section)} + section.size > kAddressEnd) {
    gen_errorexit(kStatusFailure, "section '%s' in file '%s' runs past the end of the addresses",
                  section.name, file.name);
  }
  if (section.compressed_size != 0) {
    const uint8_t* const stored = stored_bytes(section, section.compressed_size, file);
    contents.buffer.reset(gen_alloc_array<uint8_t>(section.size));
    dprintf(1, "Uncompressing section '%s' from file '%s'", section.name, file.name);
    // Where it holds less than the section does, the rest stays zero.
    const Expanded expanded =
        expand_bounded(contents.buffer.get(), section.size, stored, section.compressed_size);
    if (expanded.end != ExpandEnd::kComplete) {
      gen_errorexit(kStatusFailure, "compressed section '%s' in file '%s' is damaged", section.name,
                    file.name);
    }
  } else if (section.type == elf32::SHT_NOBITS) {
    if (section.size != 0 && std::strstr(section.name, "bss") == nullptr) {
      gen_warning("SHT_NOBITS for possibly non-BSS section '%s' in file '%s'", section.name,
                  file.name);
    }
    contents.buffer.reset(gen_alloc_array<uint8_t>(section.size));
    contents.is_zero = true;
  } else {
    contents.bytes = stored_bytes(section, section.size, file);
    return contents;
  }
  contents.bytes = contents.buffer.get();
  return contents;
}

}  // namespace

section_pairing::section_pairing(const file_data* first, const file_data* second)
    : first_(first), second_(second) {
  for (const file_data* const file : {first, second}) {
    sort_by_address(file->sections, count_of(file));
  }
  for (const file_data* const file : {first, second}) {
    check_overlap(file->sections, count_of(file), file->name);
  }
  by_name_.reserve(count_of(first));
  for (uint32_t i = 0; i < count_of(first); ++i) {
    by_name_.push_back(&first->sections[i]);
  }
  std::stable_sort(by_name_.begin(), by_name_.end(), [](const sym_addr* a, const sym_addr* b) {
    return std::strcmp(a->name, b->name) < 0;
  });
}

uint32_t section_pairing::count() const {
  return count_of(second_);
}

const sym_addr* section_pairing::partner_of(const char* name) const {
  const auto place = std::lower_bound(by_name_.begin(), by_name_.end(), name,
                                      [](const sym_addr* section, const char* text) {
                                        return std::strcmp(section->name, text) < 0;
                                      });
  return place != by_name_.end() && std::strcmp((*place)->name, name) == 0 ? *place : nullptr;
}

std::optional<section_pair> section_pairing::pair_at(uint32_t index) const {
  const sym_addr& section = second_->sections[index];
  const sym_addr* const partner = partner_of(section.name);
  if (partner == nullptr) {
    gen_errorexit(kStatusFailure, "could not find section '%s' in first file", section.name);
  }
  section_pair pair = {section.name,
                       address_of(*partner),
                       partner->size,
                       contents_of(*partner, *first_),
                       address_of(section),
                       section.size,
                       contents_of(section, *second_)};
  if (std::strcmp(section.name, kNotCompared) == 0) {
    return std::nullopt;
  }
  return pair;
}

std::vector<address_range> section_pairing::compared() const {
  std::vector<address_range> ranges;
  for (uint32_t k = 0; k < count(); ++k) {
    const char* const name = second_->sections[k].name;
    const sym_addr* const section = partner_of(name);
    if (section != nullptr && section->size != 0 && std::strcmp(name, kNotCompared) != 0) {
      ranges.push_back({address_of(*section), section->size});
    }
  }
  return ranges;
}

void refuse_far_pair(const section_pair& pair) {
  const uint32_t distance =
      pair.address1 < pair.address2 ? pair.address2 - pair.address1 : pair.address1 - pair.address2;
  if (distance != 0 &&
      uint64_t{distance} + std::max(pair.size1, pair.size2) >= kHalfOfTheAddresses) {
    gen_errorexit(kStatusFailure, "section '%s' moves too far", pair.name);
  }
}

}  // namespace kelvane
