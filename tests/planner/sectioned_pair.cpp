#include "sectioned_pair.h"

#include <algorithm>
#include <numeric>

#include "applier.h"

namespace kelvane {
namespace {

constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

// Room in front of a section: mostly little, sometimes none or a great deal.
uint32_t any_gap(Random& random) {
  static constexpr uint32_t kGaps[] = {1, 1, 8, 24, 600, 6000, 0x1000000};
  return random.below(kGaps[random.below(7)]);
}

// Where sections of these sizes lie, in this order.
std::vector<uint32_t> addresses_of(const std::vector<uint32_t>& sizes,
                                   const std::vector<uint32_t>& order,
                                   const std::vector<uint32_t>& gaps, uint64_t base,
                                   bool at_the_end) {
  uint64_t all = 0;
  for (size_t i = 0; i < sizes.size(); ++i) {
    all += gaps[i] + sizes[i];
  }
  uint64_t at = at_the_end ? kAddressEnd - all : base;
  std::vector<uint32_t> addresses(sizes.size());
  for (size_t i = 0; i < order.size(); ++i) {
    at += gaps[i];
    addresses[order[i]] = static_cast<uint32_t>(at);
    at += sizes[order[i]];
  }
  return addresses;
}

// Sections without bytes in their files, where none of the others lie.
void add_zeros(SectionedPair& made, bool at_the_end, Random& random) {
  uint64_t end = 0;
  for (const auto& [old_section, new_section] : made.sections) {
    end = std::max({end, old_section.address + uint64_t{old_section.bytes.size()},
                    new_section.address + uint64_t{new_section.bytes.size()}});
  }
  made.zeros.assign(12000, 0);
  memory_section_pair pair;
  for (memory_section* const section : {&pair.old_section, &pair.new_section}) {
    section->address =
        (at_the_end ? 0x1000 : static_cast<uint32_t>(end)) + random.below(any_gap(random) + 1);
    section->bytes = std::span(made.zeros).first(random.below(12000));
    section->is_zero = true;
  }
  made.sections.push_back(pair);
}

class Target {
 public:
  explicit Target(const SectionedPair& pair) : pair_(pair) {
    for (const auto& [old_section, new_section] : pair.sections) {
      add_room({new_section.address, static_cast<uint32_t>(new_section.bytes.size())});
      add_room({old_section.address, static_cast<uint32_t>(old_section.bytes.size())});
    }
    add_room(pair.spare);
    for (const auto& [section, unused] : pair.sections) {
      for (uint32_t i = 0; i < section.bytes.size(); ++i) {
        cells_[section.address + i] = section.bytes[i];
      }
    }
  }

  kelvane_memory access() {
    return {
        this, read, write, room_.data(), static_cast<uint32_t>(room_.size()), KELVANE_SIZE_UNKNOWN,
        0};
  }
  const std::string& fault() const { return fault_; }
  bool is_new() const {
    return std::all_of(pair_.sections.begin(), pair_.sections.end(), [&](const auto& pair) {
      const memory_section& section = pair.new_section;
      for (uint32_t i = 0; i < section.bytes.size(); ++i) {
        if (cells_.at(section.address + i) != section.bytes[i]) {
          return false;
        }
      }
      return true;
    });
  }

 private:
  static constexpr int kUnknown = -1;

  void add_room(const memory_range& range) {
    room_.push_back({range.address, range.size});
    for (uint32_t i = 0; i < range.size; ++i) {
      cells_[range.address + i] = kUnknown;
    }
  }
  static int read(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    auto& self = *static_cast<Target*>(context);
    for (uint32_t i = 0; i < count; ++i) {
      const auto cell = self.cells_.find(address + i);
      if (cell == self.cells_.end() || cell->second == kUnknown) {
        self.fault_ = "reads unknown memory at " + std::to_string(address + i);
        return 1;
      }
      bytes[i] = static_cast<uint8_t>(cell->second);
    }
    return 0;
  }
  static int write(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
    auto& self = *static_cast<Target*>(context);
    for (uint32_t i = 0; i < count; ++i) {
      const auto cell = self.cells_.find(address + i);
      if (cell == self.cells_.end()) {
        self.fault_ = "writes outside at " + std::to_string(address + i);
        return 1;
      }
      cell->second = bytes[i];
    }
    return 0;
  }

  const SectionedPair& pair_;
  std::unordered_map<uint32_t, int> cells_;
  std::vector<kelvane_region> room_;
  std::string fault_;
};

}  // namespace

SectionedPair make_sections(ImagePair pair, Random& random) {
  SectionedPair made = {std::move(pair), {}, {}, {}};
  const std::span<const uint8_t> old_bytes(made.bytes.old_image);
  const std::span<const uint8_t> new_bytes(made.bytes.new_image);
  const uint32_t count = 1 + random.below(6);
  // Words of the images are words of the target, or not.
  const uint32_t word_mask = random.below(2) == 0 ? ~3U : ~0U;
  std::vector<uint32_t> cuts = {0, 1000};
  for (uint32_t i = 1; i < count; ++i) {
    cuts.push_back(random.below(1001));
  }
  std::sort(cuts.begin(), cuts.end());
  std::vector<uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::vector<uint32_t> gaps(count);
  std::generate(gaps.begin(), gaps.end(), [&] { return any_gap(random) & word_mask; });
  const uint64_t base = random.below(0x90000000) & word_mask;
  const bool at_the_end = random.below(8) == 0;
  const auto lay_out = [&](std::span<const uint8_t> bytes, auto section) {
    std::vector<uint32_t> sizes;
    for (uint32_t i = 0; i < count; ++i) {
      const size_t begin = (bytes.size() * cuts[i] / 1000) & word_mask;
      const size_t end =
          i + 1 == count ? bytes.size() : (bytes.size() * cuts[i + 1] / 1000) & word_mask;
      section(made.sections[i]).bytes = bytes.subspan(begin, end - begin);
      sizes.push_back(static_cast<uint32_t>(end - begin));
    }
    const auto addresses = addresses_of(sizes, order, gaps, base, at_the_end);
    for (uint32_t i = 0; i < count; ++i) {
      section(made.sections[i]).address = addresses[i];
    }
  };
  made.sections.resize(count);
  lay_out(
      old_bytes, [](memory_section_pair & each) -> auto& { return each.old_section; });
  if (random.below(3) == 0) {  // sections change places
    std::swap(order[random.below(count)], order[random.below(count)]);
  }
  if (random.below(2) == 0) {
    gaps[random.below(count)] = any_gap(random) & word_mask;
  }
  lay_out(
      new_bytes, [](memory_section_pair & each) -> auto& { return each.new_section; });
  if (random.below(3) == 0) {
    add_zeros(made, at_the_end, random);
  }
  if (random.below(2) == 0) {
    // Anywhere, even over a section.
    const auto near_which = random.below(static_cast<uint32_t>(made.sections.size()));
    const memory_section& near = made.sections[near_which].old_section;
    made.spare.address = near.address + random.below(5000);
    made.spare.size = static_cast<uint32_t>(
        std::min<uint64_t>(random.below(1500), kAddressEnd - made.spare.address));
  }
  return made;
}

std::string fault_on_target(const SectionedPair& pair, const std::vector<uint8_t>& patch,
                            bool big_endian) {
  kelvane_applier applier = {};
  const uint32_t flags =
      KELVANE_V0_MEMORY_MODE | (big_endian ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN);
  Target target(pair);
  int code = kelvane_apply_open(&applier, patch.data(), static_cast<uint32_t>(patch.size()), flags);
  if (code == KELVANE_APPLY_OK) {
    const kelvane_memory memory = target.access();
    code = kelvane_apply_run(&applier, &memory, 0);
  }
  if (code != KELVANE_APPLY_OK) {
    return kelvane_apply_text(code) + (": " + target.fault());
  }
  return target.is_new() ? "" : "leaves other bytes";
}

}  // namespace kelvane
