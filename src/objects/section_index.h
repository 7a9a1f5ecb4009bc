#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "image.h"

namespace kelvane {

// Finds a record of a section list by its name without walking the list: an index beside it, which
// follows wherever the list is put. Gives what a walk from the first record would give.
class SectionIndex {
 public:
  // The first record from `first` to `end` of that name; null if there is none.
  sym_addr* find(sym_addr* first, sym_addr* end, std::string_view name);

  void clear();

 private:
  bool follows(const sym_addr* first, const sym_addr* end) const;

  const sym_addr* first_ = nullptr;
  std::vector<const char*> names_;                          // of the records taken in
  std::unordered_map<std::string_view, size_t> positions_;  // by those names, which the records own
};

}  // namespace kelvane
