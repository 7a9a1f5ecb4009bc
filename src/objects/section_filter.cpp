#include "section_filter.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "debug_print.h"
#include "elf32.h"
#include "exit_status.h"
#include "image.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "section_filter_internal.h"
#include "section_index.h"
#include "section_list.h"

namespace kelvane {

char** section_exclusions = nullptr;
memory_alias* memory_aliases = nullptr;

namespace {

struct State {
  SectionIndex index;  // beside the list of the load at hand
};
State state;

// The name that all sections of the linker's own share.
constexpr std::string_view kFolded = "@#$%";

// A beginning of a section's name in memory mode, and what it becomes.
struct Mapping {
  std::string_view prefix;
  std::string_view replacement;
  bool whole;       // the prefix is the whole name
  bool compressed;  // what stands in the file is compressed
};

// The first that fits counts.
constexpr Mapping kMappings[] = {
    // clang-format off
    // prefix           replacement  whole  compressed
    {".romfl1",         ".rflow1",   true,  false},
    {".romfl2",         ".rflow2",   true,  false},
    {".romfl3",         ".rflow3",   true,  false},
    {".UNCOMPRESSED",   "",          false, false},
    {".ROM",            "",          false, false},
    {".rom",            ".",         false, false},
    {".cromt_",         ".text_",    false, true},
    {".crom",           ".",         false, true},
    // clang-format on
};

// Never compared in memory mode: names that begin so, and whole names.
constexpr std::array<std::string_view, 2> kDroppedPrefixes = {".patch", ".CROM"};
constexpr std::array<std::string_view, 7> kDroppedNames = {
    ".heap", ".stack", ".reset", ".syscall", ".fixaddr", ".fixtype", ".secinfo"};

// A name as the list will have it.
struct MappedName {
  std::string name;
  bool compressed = false;
};

// The name to work with; none for a section that is dropped.
std::optional<std::string_view> working_name(std::string_view name) {
  if (name.starts_with("..lx")) {
    return std::nullopt;
  }
  if (name.starts_with("..") || name.starts_with("%%")) {
    if (name.substr(2).starts_with("lin")) {
      return std::nullopt;
    }
    return kFolded;
  }
  if (name.starts_with("__caller.") || name.starts_with("__callee.")) {
    return std::nullopt;
  }
  return name;
}

std::optional<MappedName> mapped_name(std::string_view working, uint32_t flags) {
  if (fDiffMemory == 0) {
    return MappedName{std::string(working)};
  }
  for (const Mapping& mapping : kMappings) {
    if (mapping.whole ? working == mapping.prefix : working.starts_with(mapping.prefix)) {
      std::string name(mapping.replacement);
      name += working.substr(mapping.prefix.size());
      return MappedName{name, mapping.compressed};
    }
  }
  if ((flags & elf32::SHF_ALLOC) == 0) {
    return std::nullopt;
  }
  return MappedName{std::string(working)};
}

// Whether an exclusion names the section. One that names a copy in ROM ends the run.
bool is_excluded(const std::string& mapped, const std::string& working, const char* file_name) {
  for (char** entry = section_exclusions; entry != nullptr && *entry != nullptr; ++entry) {
    if (mapped == *entry) {
      dprintf(1, "Skipping section '%s' in file '%s' because of exclusion '%s'", working.c_str(),
              file_name, *entry);
      return true;
    }
    if (working == *entry) {
      gen_errorexit(kStatusFailure,
                    "Exclusion '%s' should use RAM section name instead for file '%s'",
                    working.c_str(), file_name);
    }
  }
  return false;
}

bool is_never_compared(std::string_view mapped) {
  return std::any_of(kDroppedPrefixes.begin(), kDroppedPrefixes.end(),
                     [mapped](std::string_view prefix) { return mapped.starts_with(prefix); }) ||
         std::find(kDroppedNames.begin(), kDroppedNames.end(), mapped) != kDroppedNames.end();
}

// Each alias sees what the one before it made.
uint32_t canonical_address(uint32_t addr) {
  for (const memory_alias* alias = memory_aliases;
       alias != nullptr && (alias->address != 0 || alias->mask != 0); ++alias) {
    const uint32_t compared = get_region_mask(alias->address) & ~alias->mask;
    if ((addr & compared) == (alias->address & ~alias->mask)) {
      const uint32_t mapped = (addr & ~alias->mask) | (alias->address & alias->mask);
      dprintf(1, "Mapping address %#x to %#x", addr, mapped);
      addr = mapped;
    }
  }
  return addr;
}

void assign(gadr* address, uint32_t value) {
  gadr_assign32(address, static_cast<int32_t>(value));
}

uint32_t count_exclusions() {
  uint32_t count = 0;
  while (section_exclusions != nullptr && section_exclusions[count] != nullptr) {
    ++count;
  }
  return count;
}

uint32_t count_aliases() {
  uint32_t count = 0;
  while (memory_aliases != nullptr &&
         (memory_aliases[count].address != 0 || memory_aliases[count].mask != 0)) {
    ++count;
  }
  return count;
}

}  // namespace

void add_section_exclusion(const char* name) {
  const uint32_t count = count_exclusions();
  section_exclusions =
      static_cast<char**>(gen_allocate(section_exclusions, count + 2, sizeof(char*)));
  section_exclusions[count] = gen_copy(name);
  section_exclusions[count + 1] = nullptr;
}

void add_memory_alias(uint32_t address, uint32_t mask) {
  dprintf(2, "Adding memory alias for address %#x with mask %#x", address, mask);
  const uint32_t count = count_aliases();
  memory_aliases =
      static_cast<memory_alias*>(gen_allocate(memory_aliases, count + 2, sizeof(memory_alias)));
  memory_aliases[count] = {address, mask};
  memory_aliases[count + 1] = {0, 0};
}

uint32_t get_region_mask(uint32_t x) {
  return 0U - (x & (0U - x));
}

void add_symbol(const char* name, uint32_t addr, uint32_t offset, uint32_t size, uint32_t type,
                uint32_t flags, const char* file_name) {
  const std::optional<std::string_view> kept = working_name(name);
  if (!kept) {
    return;
  }
  const std::string working(*kept);
  const std::optional<MappedName> mapped = mapped_name(working, flags);
  if (!mapped || is_excluded(mapped->name, working, file_name)) {
    return;
  }
  if (fDiffMemory != 0 && is_never_compared(mapped->name)) {
    dprintf(1, "Skipping section '%s' in file '%s'", working.c_str(), file_name);
    return;
  }

  sym_addr* record = state.index.find(sym_addr_list, sym_addrp, mapped->name);
  const bool is_new = record == nullptr;
  if (is_new) {
    record = sym_addrp;
  }
  addr = canonical_address(addr);
  if (record >= sym_addr_list + kMostSections) {
    gen_errorexit(kStatusFailure, "more than %d symbols found in '%s'", kMostSections, file_name);
  }
  if (is_new) {
    record->name = gen_copy(mapped->name.c_str());
  }
  if (is_new || mapped->name == working) {
    assign(&record->addr, addr);
  }
  const bool has_contents = type != elf32::SHT_NOBITS;
  if (is_new || has_contents) {
    assign(&record->offset, offset);
    record->object_start = object_start;
    record->type = type;
  }
  if (is_new || !mapped->compressed) {
    record->size = size;
  }
  if (is_new || has_contents) {
    record->compressed_size = mapped->compressed ? size : 0;
  }
  if (is_new) {
    ++sym_addrp;
  }
}

void reset_section_filter() {
  state.index.clear();
  for (uint32_t i = count_exclusions(); i-- > 0;) {
    gen_free(section_exclusions[i]);
  }
  gen_free(section_exclusions);
  section_exclusions = nullptr;
  gen_free(memory_aliases);
  memory_aliases = nullptr;
}

}  // namespace kelvane
