// SPDX-License-Identifier: Apache-2.0
#include "flash_apply_internal.h"

// The plan is read where it lies. What could not be fetched once the plan was opened is told by
// `plan_lost`, for what comes of it must not be used.

static uint32_t number_at(kelvane_update* update, uint32_t* position) {
  uint32_t value;
  const int code = kelvane_bundle_number(&update->plan, position, &value);
  if (code != KELVANE_BUNDLE_OK) {
    update->plan_lost =
        code == KELVANE_BUNDLE_FETCH ? KELVANE_APPLY_FETCH_FAILED : KELVANE_UPDATE_BAD_PLAN;
    value = 0;
  }
  return value;
}

// ---- Stretches of pages -------------------------------------------------------------------------

// Takes the next stretch of a list: pages from the end of the last one (behind the first stretch
// one less, for there are some between them), pages less 1.
static void next_stretch(kelvane_update* update, kelvane_plan_stretch* at) {
  const uint32_t gap = number_at(update, &at->next);
  at->before += at->pages;
  at->first += at->pages + gap + (at->pages > 0);
  at->pages = number_at(update, &at->next) + 1;
  --at->left;
}

static kelvane_plan_stretch start_of(const kelvane_plan_list* list) {
  const kelvane_plan_stretch start = {list->at, list->count, 0, 0, 0};
  return start;
}

// The stretch at hand of those whose pages all change, as far as the new image goes.
static void cut_to_new_image(const kelvane_update* update, kelvane_plan_stretch* at) {
  if (at->first + at->pages > update->new_pages) {
    at->pages = at->first < update->new_pages ? update->new_pages - at->first : 0;
    at->left = 0;
  }
}

static void next_run(kelvane_update* update) {
  next_stretch(update, &update->run);
  if (update->all_change) {
    cut_to_new_image(update, &update->run);
  }
}

static void first_run(kelvane_update* update) {
  if (update->all_change && update->ranges.count == 0) {
    update->run.left = 0;
    update->run.first = 0;
    update->run.pages = update->new_pages;
    update->run.before = 0;
    return;
  }
  update->run = start_of(update->all_change ? &update->ranges : &update->runs);
  if (update->run.left > 0) {
    next_run(update);
  }
}

int kelvane_plan_has(kelvane_update* update, uint32_t page) {
  kelvane_plan_stretch range = start_of(&update->ranges);
  while (range.left > 0) {
    next_stretch(update, &range);
    if (page < range.first + range.pages) {
      return page >= range.first;
    }
  }
  return update->ranges.count == 0;
}

// ---- Opening ------------------------------------------------------------------------------------

// Checks a list of stretches and goes behind it. Gives a code.
static int open_stretches(kelvane_update* update, uint32_t* position, kelvane_plan_list* list) {
  const uint32_t pages = update->flash->image_pages;
  kelvane_plan_stretch at;
  list->at = *position;
  at = start_of(list);
  while (at.left > 0) {
    uint32_t peek = at.next;
    const uint32_t gap = number_at(update, &peek);
    const uint32_t count = number_at(update, &peek);
    if (update->plan_lost != KELVANE_APPLY_OK) {
      return update->plan_lost;
    }
    if (gap >= pages || count >= pages) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
    next_stretch(update, &at);
    if (at.first + at.pages > pages) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
  }
  *position = at.next;
  return KELVANE_APPLY_OK;
}

static int open_kept(kelvane_update* update, uint32_t* position) {
  uint32_t page = 0;
  uint32_t i;
  update->slots = update->kept.count > 0 ? number_at(update, position) : 0;
  update->kept.at = *position;
  for (i = 0; i < update->kept.count; ++i) {
    const uint32_t gap = number_at(update, position);
    const uint32_t slot = number_at(update, position);
    if (update->plan_lost != KELVANE_APPLY_OK) {
      return update->plan_lost;
    }
    page += gap;
    if (gap >= update->flash->image_pages || page >= update->flash->image_pages ||
        slot >= update->slots) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
    ++page;
  }
  return KELVANE_APPLY_OK;
}

// Every page that changes or is kept has to lie in a range.
static int check_ranges(kelvane_update* update) {
  uint32_t position = update->kept.at;
  uint32_t page = 0;
  uint32_t i;
  if (update->ranges.count == 0) {
    return KELVANE_APPLY_OK;
  }
  for (i = 0; i < update->kept.count; ++i, ++page) {
    page += number_at(update, &position);
    number_at(update, &position);
    if (!kelvane_plan_has(update, page)) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
  }
  first_run(update);
  for (;;) {
    for (i = 0; i < update->run.pages; ++i) {
      if (!kelvane_plan_has(update, update->run.first + i)) {
        return KELVANE_UPDATE_BAD_PLAN;
      }
    }
    if (update->run.left == 0) {
      return KELVANE_APPLY_OK;
    }
    next_run(update);
  }
}

int kelvane_plan_open(kelvane_update* update) {
  const uint32_t size = update->plan.size;
  uint32_t position = 0;
  uint32_t count = size == 0 ? 0 : number_at(update, &position);
  int code;
  update->all_change = count == 0;
  update->runs.count = count == 0 ? 0 : count - 1;
  code = open_stretches(update, &position, &update->runs);
  update->kept.count = 0;
  if (code == KELVANE_APPLY_OK) {
    update->kept.count = position < size ? number_at(update, &position) : 0;
    code = open_kept(update, &position);
  }
  update->ranges.count = 0;
  if (code == KELVANE_APPLY_OK) {
    update->ranges.count = position < size ? number_at(update, &position) : 0;
    code = open_stretches(update, &position, &update->ranges);
  }
  if (code == KELVANE_APPLY_OK && position != size) {
    code = KELVANE_UPDATE_BAD_PLAN;
  }
  if (code == KELVANE_APPLY_OK) {
    code = check_ranges(update);
  }
  if (code == KELVANE_APPLY_OK) {
    first_run(update);
    while (update->run.left > 0) {
      next_run(update);
    }
    update->changed = update->run.before + update->run.pages;
    code = update->plan_lost;
  }
  return code;
}

// ---- Pages --------------------------------------------------------------------------------------

uint32_t kelvane_plan_page(kelvane_update* update, uint32_t index) {
  if (index < update->run.before) {
    first_run(update);
  }
  while (index - update->run.before >= update->run.pages && update->run.left > 0) {
    next_run(update);
  }
  return update->run.first + (index - update->run.before);
}

int kelvane_plan_changes(kelvane_update* update, uint32_t page) {
  if (page < update->run.first) {
    first_run(update);
  }
  while (page >= update->run.first + update->run.pages && update->run.left > 0) {
    next_run(update);
  }
  return page - update->run.first < update->run.pages;
}

void kelvane_plan_at(kelvane_update* update, uint32_t page, int writing) {
  if (page < update->ring_base) {
    update->ring_base = 0;
  }
  while (page - update->ring_base >= update->ring) {
    update->ring_base += update->ring;
  }
  update->page = page;
  update->writing = (uint8_t)writing;
  update->found_page = PAGE_GONE;
}

uint32_t kelvane_plan_saved(kelvane_update* update, uint32_t page) {
  uint32_t place = PAGE_GONE;
  uint32_t position = update->kept.at;
  uint32_t kept = 0;
  uint32_t i;
  for (i = 0; i < update->kept.count; ++i, ++kept) {
    uint32_t slot;
    kept += number_at(update, &position);
    slot = number_at(update, &position);
    if (kept > update->page) {
      break;
    }
    if (kept == page) {
      place = update->ring + slot;
    } else if (place == update->ring + slot) {
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

static uint32_t find_old(kelvane_update* update, uint32_t page) {
  if (!kelvane_plan_has(update, page)) {
    return PAGE_BLANK;
  }
  return page > update->page || (page == update->page && !update->writing) ||
                 !kelvane_plan_changes(update, page)
             ? update->flash->image + (page << update->shift)
             : kelvane_plan_saved(update, page);
}

uint32_t kelvane_plan_old(kelvane_update* update, uint32_t page) {
  if (page != update->found_page) {
    update->found_place = find_old(update, page);
    update->found_page = page;
  }
  return update->found_place;
}
