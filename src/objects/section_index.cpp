#include "section_index.h"

#include <algorithm>

namespace kelvane {

namespace {

// Below this many records a walk costs less than the index, and an ordinary image has fewer.
constexpr ptrdiff_t kWalked = 64;

}  // namespace

// The list may have been exchanged for another since the last question, one at the same place even.
bool SectionIndex::follows(const sym_addr* first, const sym_addr* end) const {
  const size_t count = names_.size();
  return first == first_ && static_cast<size_t>(end - first) >= count &&
         (count == 0 || (names_.front() == first->name && names_.back() == first[count - 1].name));
}

sym_addr* SectionIndex::find(sym_addr* first, sym_addr* end, std::string_view name) {
  if (end - first <= kWalked) {
    clear();  // every list starts here, so that none inherits what belonged to another
    sym_addr* const found =
        std::find_if(first, end, [name](const sym_addr& record) { return name == record.name; });
    return found != end ? found : nullptr;
  }
  if (!follows(first, end)) {
    clear();
    first_ = first;
  }
  while (first + names_.size() != end) {
    const char* const next = first[names_.size()].name;
    positions_.emplace(next, names_.size());  // of two with one name the first stays
    names_.push_back(next);
  }
  const auto known = positions_.find(name);
  return known != positions_.end() ? first + known->second : nullptr;
}

void SectionIndex::clear() {
  if (!names_.empty()) {
    first_ = nullptr;
    names_.clear();
    positions_.clear();
  }
}

}  // namespace kelvane
