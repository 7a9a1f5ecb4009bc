#include "motion.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "block_pass.h"
#include "debug_print.h"
#include "engine_reset.h"
#include "engine_settings.h"
#include "image.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "motion_internal.h"

namespace kelvane {

const char* srch_strtab = nullptr;

namespace {

constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

struct State {
  std::vector<address_range> compared;
  std::optional<address_range> swap_region;  // found when the first section asks for it
};
State state;

uint64_t end_of(const address_range& range) {
  return uint64_t{range.start} + range.size;
}

bool overlap(const address_range& a, const address_range& b) {
  return a.start < end_of(b) && b.start < end_of(a);
}

// Where the symbol ".heap" lies; nothing without such a symbol.
std::optional<address_range> heap_of(const symbol_table& symbols) {
  for (int32_t i = 0; i < symbols.count; ++i) {
    const elf32::symbol& symbol = symbols.records[i];
    if (std::strcmp(symbol_name(symbols, symbol), ".heap") == 0) {
      return address_range{symbol.st_value, symbol.st_size};
    }
  }
  return std::nullopt;
}

struct Section {
  std::span<const uint8_t> bytes;
  uint32_t address;
};

bool lies_in(const elf32::symbol& symbol, const Section& section) {
  return symbol.st_value - section.address < section.bytes.size();
}

const elf32::symbol* find_in_table2(const char* name) {
  return static_cast<const elf32::symbol*>(std::bsearch(name, table2.records,
                                                        static_cast<size_t>(table2.relevant),
                                                        sizeof(elf32::symbol), symtab_search));
}

// Inserts a piece for each symbol that has another place in the section. Sizes are cut where they
// reach out of a section.
void symbol_pass(map_list& list, const Section& old_section, const Section& new_section) {
  srch_strtab = table2.strings;
  for (int32_t i = 0; i < table1.relevant; ++i) {
    const elf32::symbol& symbol = table1.records[i];
    if (!lies_in(symbol, old_section)) {
      continue;
    }
    const char* const name = symbol_name(table1, symbol);
    const elf32::symbol* const found = find_in_table2(name);
    if (found == nullptr || !lies_in(*found, new_section)) {
      continue;
    }
    const uint32_t from = symbol.st_value - old_section.address;
    const uint32_t to = found->st_value - new_section.address;
    if (from == to) {
      continue;
    }
    dprintf(3, "Symbol %s moved", name);
    const size_t size = std::min({size_t{symbol.st_size}, size_t{found->st_size},
                                  old_section.bytes.size() - from, new_section.bytes.size() - to});
    insert_map(list, new_map(from, to, static_cast<uint32_t>(size)));
  }
}

// Cuts `piece` to what lies inside the range from `start` up to `end`; the rest becomes pieces of
// their own.
void split(map_list& list, memory_map* piece, uint32_t start, uint32_t end) {
  if (piece->from < start) {
    const uint32_t excess = start - piece->from;
    memory_map* const front = new_map(piece->from, piece->to, excess);
    piece->from = start;
    piece->to += excess;
    piece->size -= excess;
    list.source_changed(piece);
    insert_split(list, front);
  }
  if (piece->from + piece->size > end) {
    const uint32_t excess = piece->from + piece->size - end;
    piece->size -= excess;
    list.source_changed(piece);
    insert_split(list, new_map(end, piece->to + piece->size, excess));
  }
}

// Takes up as children the pieces that have to move before `piece` may be written.
void collect_children(memory_map* piece, map_list& list) {
  const uint32_t start = piece->to;
  const uint32_t end = piece->to + piece->size;
  for (memory_map* met = list.next_overlap(nullptr, start, end); met != nullptr;
       met = list.next_overlap(met, start, end)) {
    if (met == piece) {
      continue;
    }
    if (met->built != 0) {
      if (met->root != 0 && met->level < 0) {
        met->level = -2;
      } else {
        met->swap = 1;
      }
    } else if (met->is_child == 0) {
      split(list, met, start, end);
      addChild(piece, met);
    }
  }
}

// Builds the trees of one pass and gives the swap that their roots need, or `need` if that is more.
uint32_t build_trees(map_list& list, uint32_t need) {
  for (memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
    if (piece->built != 0 || piece->level != -1) {
      continue;
    }
    piece->root = 1;
    buildTree(piece, list, 0);
    piece->level = -1;
    if (piece->swap != 0) {
      need = std::max(need, piece->size);
    }
  }
  return need;
}

bool has_touched_root(const map_list& list) {
  for (const memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
    if (piece->level == -2) {
      return true;
    }
  }
  return false;
}

void work_forest(const map_list& list, uint32_t need, const address_range& swap_region,
                 motion_target target) {
  if (need > swap_region.size) {
    gen_warning("Unable to perform memory swapping pass.  Not enough memory.");
    return;
  }
  if (swap_maxtrees == 0) {
    return;
  }
  // The region counts in full, but nothing is parked behind the end of the addresses.
  target.swap_room = static_cast<uint32_t>(
      std::min({uint64_t{swap_region.size}, kAddressEnd - swap_region.start, most_parked(list)}));
  const gen_ptr<uint8_t> buffer(gen_alloc_array<uint8_t>(target.swap_room));
  target.swap_buffer = buffer.get();
  target.swap_offset = swap_region.start - target.base;
  processForest(list, target);
}

}  // namespace

address_range find_swap_region(const symbol_table& old_symbols, const symbol_table& new_symbols,
                               std::span<const address_range> compared) {
  address_range region = heap_of(old_symbols).value_or(address_range{0, 0});
  const std::optional<address_range> other = heap_of(new_symbols);
  if (other.has_value() && overlap(region, *other)) {
    const uint32_t start = std::max(region.start, other->start);
    const uint64_t end = std::min(end_of(region), end_of(*other));
    region = {start, static_cast<uint32_t>(end - start)};
  }
  // What is parked in a section would destroy bytes that its comparison counts on.
  if (std::any_of(compared.begin(), compared.end(),
                  [&region](const address_range& section) { return overlap(region, section); })) {
    region.size = 0;
  }
  return region;
}

void begin_motion(std::span<const address_range> compared) {
  state = {};
  state.compared.assign(compared.begin(), compared.end());
  forget_last_block();
}

void reset_motion() {
  state = {};
  srch_strtab = nullptr;
  forget_last_block();
}

void do_sym_diff(uint8_t* const& old_bytes, uint32_t old_address, const uint32_t& old_size,
                 const uint8_t* new_bytes, uint32_t new_address, uint32_t new_size,
                 int32_t deconstruct) {
  if (swap_enabled == 0 && swap_block_enabled == 0) {
    return;
  }
  if (!state.swap_region.has_value()) {
    state.swap_region = find_swap_region(table1, table2, state.compared);
  }
  const address_range swap_region = *state.swap_region;
  if (swap_region.size == 0) {
    gen_warning("No usable swap region found for memory swapping pass");
  }
  const Section old_section = {{old_bytes, old_size}, old_address};
  const Section new_section = {{new_bytes, new_size}, new_address};
  map_list list;
  if (swap_enabled != 0) {
    symbol_pass(list, old_section, new_section);
  }
  if (swap_block_enabled != 0) {
    block_pass(list, old_section.bytes, old_address, new_section.bytes, new_address);
  }
  if (list.first() != nullptr) {
    const uint32_t need = build_forest(list, swap_region.size, deconstruct);
    work_forest(list, need, swap_region,
                {old_bytes, new_bytes, nullptr, 0, 0, old_address, old_size});
  }
}

int32_t symtab_search(const void* name, const void* record) {
  const uint32_t place = static_cast<const elf32::symbol*>(record)->st_name;
  return std::strcmp(static_cast<const char*>(name),
                     place < table2.strings_size ? srch_strtab + place : "");
}

uint32_t build_forest(map_list& list, uint32_t available, int32_t deconstruct) {
  constexpr char kNeed[] = "Need %d bytes of swap to move symbols, %d avail";
  constexpr char kAttempt[] = "Attempting to deconstruct memory motion tree.";
  void (*const report)(const char*, ...) = deconstruct < 0 ? gen_warning : gen_info;
  uint32_t need = 0;
  for (;;) {
    need = build_trees(list, need);
    dprintf(3, kNeed, need, available);
    if (need > available || deconstruct > 0) {
      report(kNeed, need, available);
      report(kAttempt);
    }
    if (deconstruct <= 0 || !has_touched_root(list)) {
      return need;
    }
    for (memory_map* piece = list.first(); piece != nullptr; piece = piece->next) {
      clear_map_tree(piece);
    }
    --deconstruct;
  }
}

void buildTree(memory_map* piece, map_list& list, int32_t level) {
  struct Visit {
    memory_map* piece;
    int32_t level;
  };
  // A stack of our own, since a chain may have a million pieces. The rest of a chain of children
  // lies below the first child and all that hangs on it.
  std::vector<Visit> ahead = {{piece, level}};
  while (!ahead.empty()) {
    const Visit visit = ahead.back();
    ahead.pop_back();
    visit.piece->built = 1;
    visit.piece->level = visit.level;
    collect_children(visit.piece, list);
    if (visit.piece != piece && visit.piece->sibling != nullptr) {
      ahead.push_back({visit.piece->sibling, visit.level});
    }
    if (visit.piece->child != nullptr) {
      ahead.push_back({visit.piece->child, visit.level + 1});
    }
  }
}

}  // namespace kelvane
