#include "symbol_list.h"

#include <algorithm>
#include <cstring>

#include "debug_print.h"

namespace kelvane {

namespace {

bool is_eligible(const elf32::symbol& symbol) {
  const uint8_t type = elf32::symbol_type(symbol);
  return (type == elf32::STT_OBJECT || type == elf32::STT_FUNC) &&
         symbol.st_shndx != elf32::SHN_UNDEF;
}

// Eligible records first; 0 if both are or neither is.
int32_t compare_eligibility(const elf32::symbol& a, const elf32::symbol& b) {
  return static_cast<int32_t>(is_eligible(b)) - static_cast<int32_t>(is_eligible(a));
}

const char* name_of(const elf32::symbol& symbol) {
  return symbol_name(table, symbol);
}

void delete_duplicate(elf32::symbol& symbol) {
  dprintf(5, "Deleting dup: %s", name_of(symbol));
  symbol.st_info = 0;
}

}  // namespace

int32_t symtab_addr(const void* a, const void* b) {
  const auto& first = *static_cast<const elf32::symbol*>(a);
  const auto& second = *static_cast<const elf32::symbol*>(b);
  if (!is_eligible(first) || !is_eligible(second)) {
    return compare_eligibility(first, second);
  }
  if (first.st_value == second.st_value) {
    return 0;
  }
  return first.st_value < second.st_value ? -1 : 1;
}

int32_t symtab_cmp(const void* a, const void* b) {
  const auto& first = *static_cast<const elf32::symbol*>(a);
  const auto& second = *static_cast<const elf32::symbol*>(b);
  if (!is_eligible(first) || !is_eligible(second)) {
    return compare_eligibility(first, second);
  }
  if ((first.st_size != 0) != (second.st_size != 0)) {
    return first.st_size != 0 ? -1 : 1;
  }
  return std::strcmp(name_of(first), name_of(second));
}

void sort_symbols(int32_t (*compare)(const void*, const void*)) {
  std::stable_sort(
      table.records, table.records + table.count,
      [compare](const elf32::symbol& a, const elf32::symbol& b) { return compare(&a, &b) < 0; });
}

void symtab_del_dup(elf32::symbol* records, int32_t count) {
  int32_t i = 0;
  while (i < count) {
    if (!is_eligible(records[i])) {
      ++i;
      continue;
    }
    int32_t survivor = i;
    int32_t j = i + 1;
    for (; j < count && records[j].st_value == records[i].st_value; ++j) {
      if (records[j].st_size > records[survivor].st_size) {
        delete_duplicate(records[survivor]);
        survivor = j;
      } else {
        delete_duplicate(records[j]);
      }
    }
    i = j;
  }
}

int32_t count_defined_with_size() {
  int32_t count = 0;
  while (count < table.count && is_eligible(table.records[count]) &&
         table.records[count].st_size != 0) {
    ++count;
  }
  return count;
}

int32_t count_with_size() {
  int32_t count = 0;
  while (count < table.count && table.records[count].st_size != 0) {
    ++count;
  }
  return count;
}

void print_symbol_names(int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    dprintf(5, "%s", name_of(table.records[i]));
  }
}

}  // namespace kelvane
