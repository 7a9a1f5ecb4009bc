#pragma once

#include <vector>

#include "linear_map.h"
#include "stores.h"

namespace kelvane {

// Where a store may write what is there already.
class idle_bytes {
 public:
  idle_bytes(const plan_images& images, const moved_image& moved, const plan& planned);
  // Whether the byte is right as the moves and fills left it, and nothing else changes it.
  bool is_idle(int64_t address) const {
    return address >= 0 && address < static_cast<int64_t>(changed_.size()) &&
           !changed_[static_cast<size_t>(address)];
  }
  // Whether an empty store may stand there.
  bool is_of_image(uint32_t address) const {
    return map_ == nullptr || map_->new_bytes().has(address, 1);
  }
  void set_used(uint32_t address) { changed_[address] = true; }
  void set_idle(uint32_t address) { changed_[address] = false; }

 private:
  std::vector<bool> changed_;
  const linear_map* map_;
};

// Turns single bytes into short plain stores where that is cheaper, and adds stores that link
// lists. `stores`: all stores that are not compressed, by address; so they come out.
void link_stores(bool short_stores, idle_bytes& idle, std::vector<planned_store>& stores);

}  // namespace kelvane
