// Symbols of a.out files sorted, made sizes, and filtered.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "indbsdio.h"
#include "indbsdio_internal.h"
#include "indsort.h"

namespace kelvane {

namespace {

constexpr std::string_view kLinePrefix = "..lin.";

std::span<aout::symbol> symbols_of(const bsd_info& info) {
  return info.symbols == nullptr ? std::span<aout::symbol>()
                                 : std::span(info.symbols, static_cast<size_t>(info.symbol_count));
}

void sort_symbols(bsd_info* info, void* context, sort_compare compare) {
  const std::span<aout::symbol> symbols = symbols_of(*info);
  qvr_sort(context, symbols.data(), static_cast<uint32_t>(symbols.size()), sizeof(aout::symbol),
           compare, nullptr);
}

bool has_name_in_table(const bsd_info& info, const aout::symbol& symbol) {
  return info.strings != nullptr && info.string_size > 0 &&
         symbol.n_strx < static_cast<uint32_t>(info.string_size);
}

// The order by name where not all names lie in the string table. `context` is the record.
int32_t compare_bounded_names(void* context, const void* first, const void* second) {
  const bsd_info& info = *static_cast<const bsd_info*>(context);
  return std::strcmp(bsd_symbol_name(info, *static_cast<const aout::symbol*>(first)),
                     bsd_symbol_name(info, *static_cast<const aout::symbol*>(second)));
}

}  // namespace

bool is_common_symbol(const aout::symbol& symbol) {
  const bool undefined = symbol.n_type == aout::N_UNDF || symbol.n_type == aout::N_UNDF + 1;
  return symbol.n_type == aout::N_COMM || symbol.n_type == aout::N_COMM + 1 ||
         (undefined && symbol.n_value != 0);
}

const char* bsd_symbol_name(const bsd_info& info, const aout::symbol& symbol) {
  return has_name_in_table(info, symbol) ? info.strings + symbol.n_strx : "";
}

aout::symbol* Bsd_Symbol(const bsd_info* info, int32_t index) {
  const std::span<aout::symbol> symbols = symbols_of(*info);
  return index >= 0 && static_cast<size_t>(index) < symbols.size()
             ? &symbols[static_cast<size_t>(index)]
             : nullptr;
}

int32_t Bsd_ValueCmp(void*, const void* first, const void* second) {
  return static_cast<const aout::symbol*>(first)->n_value >
                 static_cast<const aout::symbol*>(second)->n_value
             ? 1
             : -1;
}

int32_t Bsd_AddressCmp(void* context, const void* first, const void* second) {
  const bool first_is_common = is_common_symbol(*static_cast<const aout::symbol*>(first));
  const bool second_is_common = is_common_symbol(*static_cast<const aout::symbol*>(second));
  if (first_is_common != second_is_common) {
    return first_is_common ? 1 : -1;
  }
  return Bsd_ValueCmp(context, first, second);
}

int32_t Bsd_NameCmp(void* context, const void* first, const void* second) {
  const char* const strings = static_cast<const char*>(context);
  return std::strcmp(strings + static_cast<const aout::symbol*>(first)->n_strx,
                     strings + static_cast<const aout::symbol*>(second)->n_strx);
}

void Bsd_SortSymbolsByValue(bsd_info* info) {
  sort_symbols(info, nullptr, Bsd_ValueCmp);
}

void Bsd_SortSymbolsByAddress(bsd_info* info) {
  sort_symbols(info, nullptr, Bsd_AddressCmp);
}

void Bsd_SortSymbolsByName(bsd_info* info) {
  const bool all_in_table = std::ranges::all_of(
      symbols_of(*info),
      [info](const aout::symbol& symbol) { return has_name_in_table(*info, symbol); });
  if (all_in_table) {
    sort_symbols(info, info->strings, Bsd_NameCmp);
  } else {
    sort_symbols(info, info, compare_bounded_names);
  }
}

void Bsd_SetSymbolValuesToSize(bsd_info* info) {
  aout::symbol* before = nullptr;
  for (aout::symbol& symbol : symbols_of(*info)) {
    if (symbol.n_type > aout::kLastOrdinaryType || is_common_symbol(symbol)) {
      continue;
    }
    if (before != nullptr) {
      before->n_value = symbol.n_value - before->n_value;
    }
    before = &symbol;
  }
  if (before != nullptr) {
    before->n_value = info->load_addresses[bsd_address::kBssEnd] - before->n_value;
  }
}

void Bsd_SortSymbolsBySizeAndSetToValue(bsd_info* info) {
  Bsd_SortSymbolsByValue(info);
  Bsd_SetSymbolValuesToSize(info);
  Bsd_SortSymbolsByValue(info);
}

bool xIsDebugSymbol(const bsd_info*, const aout::symbol* symbol) {
  return symbol->n_type > aout::kLastOrdinaryType;
}

bool xIsDebugOrQVRLineSymbol(const bsd_info* info, const aout::symbol* symbol) {
  return xIsDebugSymbol(info, symbol) ||
         std::string_view(bsd_symbol_name(*info, *symbol)).starts_with(kLinePrefix);
}

int32_t Bsd_FilterSymbols(bsd_info* info, bsd_predicate predicate) {
  const std::span<aout::symbol> symbols = symbols_of(*info);
  if (predicate == nullptr || symbols.empty()) {
    return info->symbol_count;
  }
  const auto end = std::remove_if(
      symbols.begin(), symbols.end(),
      [info, predicate](const aout::symbol& symbol) { return predicate(info, &symbol); });
  const auto kept = static_cast<size_t>(end - symbols.begin());
  if (kept == symbols.size()) {
    return info->symbol_count;
  }
  info->symbol_count = static_cast<int32_t>(kept);
  if (kept == 0) {
    std::free(info->symbols);
    info->symbols = nullptr;
  } else if (void* const smaller = std::realloc(info->symbols, kept * sizeof(aout::symbol))) {
    info->symbols = static_cast<aout::symbol*>(smaller);
  }
  return info->symbol_count;
}

int32_t Bsd_FilterDebugSymbols(bsd_info* info) {
  return Bsd_FilterSymbols(info, xIsDebugSymbol);
}

int32_t Bsd_FilterDebugAndQVRLineSymbols(bsd_info* info) {
  return Bsd_FilterSymbols(info, xIsDebugOrQVRLineSymbol);
}

}  // namespace kelvane
