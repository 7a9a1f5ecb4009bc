// SPDX-License-Identifier: Apache-2.0
#include "flash_apply_internal.h"

// The plan is read where it lies. A pair of halves is an entry of it; what can't be fetched is a
// page that the image does not have.
typedef struct pair {
  uint32_t first;
  uint32_t second;
} pair;

enum { PAIR_SIZE = 4, HALF_SIZE = 2 };

static pair pair_at(const kelvane_update* update, uint32_t position) {
  uint8_t bytes[PAIR_SIZE] = {0xFF, 0xFF, 0xFF, 0xFF};
  pair entry;
  if (kelvane_source_read(&update->plan, position, bytes, PAIR_SIZE) != 0) {
    bytes[0] = bytes[1] = 0xFF;
  }
  entry.first = bytes[0] | (uint32_t)bytes[1] << 8;
  entry.second = bytes[2] | (uint32_t)bytes[3] << 8;
  return entry;
}

static pair run_at(const kelvane_update* update, uint32_t index) {
  return pair_at(update, HALF_SIZE + PAIR_SIZE * index);
}

static pair kept_at(const kelvane_update* update, uint32_t index) {
  return pair_at(update, 2 * HALF_SIZE + PAIR_SIZE * (update->run_count + index));
}

static int read_half(const kelvane_update* update, uint32_t position, uint32_t* value) {
  uint8_t bytes[HALF_SIZE];
  if (kelvane_source_read(&update->plan, position, bytes, HALF_SIZE) != 0) {
    return 1;
  }
  *value = bytes[0] | (uint32_t)bytes[1] << 8;
  return 0;
}

int kelvane_plan_open(kelvane_update* update, uint32_t slots) {
  uint32_t next = 0;
  uint32_t i;
  update->changed = 0;
  if (read_half(update, 0, &update->run_count) != 0 ||
      read_half(update, HALF_SIZE + PAIR_SIZE * update->run_count, &update->kept_count) != 0 ||
      update->plan.size != 2 * HALF_SIZE + PAIR_SIZE * (update->run_count + update->kept_count)) {
    return KELVANE_UPDATE_BAD_PLAN;
  }
  for (i = 0; i < update->run_count; ++i) {
    const pair run = run_at(update, i);
    if (run.second == 0 || run.first < next ||
        run.first + run.second > update->flash->image_pages) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
    next = run.first + run.second;
    update->changed += run.second;
  }
  next = 0;
  for (i = 0; i < update->kept_count; ++i) {
    const pair kept = kept_at(update, i);
    if (kept.first < next || kept.second >= slots) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
    next = kept.first + 1;
  }
  return KELVANE_APPLY_OK;
}

uint32_t kelvane_plan_page(const kelvane_update* update, uint32_t index) {
  uint32_t i = 0;
  pair run = run_at(update, 0);
  while (index >= run.second && i < update->run_count) {
    index -= run.second;
    run = run_at(update, ++i);
  }
  return run.first + index;
}

void kelvane_plan_at(kelvane_update* update, uint32_t page) {
  if (page < update->ring_base) {
    update->ring_base = 0;
  }
  while (page - update->ring_base >= update->ring) {
    update->ring_base += update->ring;
  }
  update->page = page;
}

int kelvane_plan_changes(const kelvane_update* update, uint32_t page) {
  uint32_t i;
  for (i = 0; i < update->run_count; ++i) {
    const pair run = run_at(update, i);
    if (page - run.first < run.second) {
      return 1;
    }
  }
  return 0;
}

uint32_t kelvane_plan_saved(const kelvane_update* update, uint32_t page) {
  uint32_t place = PAGE_GONE;
  uint32_t i;
  for (i = 0; i < update->kept_count; ++i) {
    const pair kept = kept_at(update, i);
    if (kept.first > update->page) {
      break;
    }
    if (kept.first == page) {
      place = update->ring + kept.second;
    } else if (place == update->ring + kept.second) {
      return PAGE_GONE;  // another page has taken the slot
    }
  }
  if (place == PAGE_GONE) {
    if (update->page - page >= update->ring) {
      return PAGE_GONE;
    }
    place = page >= update->ring_base ? page - update->ring_base
                                      : page + update->ring - update->ring_base;
  }
  return update->flash->spare + (place << update->shift);
}

uint32_t kelvane_plan_old(const kelvane_update* update, uint32_t page) {
  return page > update->page || (page == update->page && !update->writing) ||
                 !kelvane_plan_changes(update, page)
             ? update->flash->image + (page << update->shift)
             : kelvane_plan_saved(update, page);
}
