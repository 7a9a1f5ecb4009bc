#include "section_filter.h"

#include "debug_print.h"
#include "indgen_memory.h"
#include "indgen_string.h"
#include "section_filter_internal.h"

namespace kelvane {

char** section_exclusions = nullptr;
memory_alias* memory_aliases = nullptr;

namespace {

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

void reset_section_filter() {
  for (uint32_t i = count_exclusions(); i-- > 0;) {
    gen_free(section_exclusions[i]);
  }
  gen_free(section_exclusions);
  section_exclusions = nullptr;
  gen_free(memory_aliases);
  memory_aliases = nullptr;
}

}  // namespace kelvane
