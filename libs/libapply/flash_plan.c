// SPDX-License-Identifier: Apache-2.0
#include "flash_apply_internal.h"

// The plan is read where it lies. What is wrong with it, or could not be fetched later on, is told
// by `plan_lost`, for what comes of it must not be used.

static void lose(kelvane_update* update, int code) {
  update->plan_lost = (uint8_t)code;
}

// Behind its end the plan goes on with zeros, which the writer leaves out.
static uint32_t number_at(kelvane_update* update, uint32_t* position) {
  uint32_t value;
  if (*position >= update->plan.size) {
    return 0;
  }
  const int code = kelvane_bundle_number(&update->plan, position, &value);
  if (code != KELVANE_BUNDLE_OK) {
    lose(update,
         code == KELVANE_BUNDLE_FETCH ? KELVANE_APPLY_FETCH_FAILED : KELVANE_UPDATE_BAD_PLAN);
    return 0;
  }
  return value;
}

// ---- Lists --------------------------------------------------------------------------------------

// Takes the next entry of a list: its first page lies so many pages behind that of the last entry
// and as many as its first number says. Gives its second number. Both are less than the pages of
// the image, which are what all entries lie in.
static uint32_t next_entry(kelvane_update* update, kelvane_plan_stretch* at, uint32_t behind) {
  const uint32_t pages = update->flash->image_pages;
  const uint32_t gap = number_at(update, &at->next);
  const uint32_t second = number_at(update, &at->next);
  at->first += behind + gap;
  --at->left;
  if (gap >= pages || second >= pages || at->first >= pages) {
    lose(update, KELVANE_UPDATE_BAD_PLAN);
  }
  return second;
}

// A stretch: pages between the last one and this one (behind the first one less, for there are
// some), pages less 1.
static void next_stretch(kelvane_update* update, kelvane_plan_stretch* at) {
  const uint32_t behind = at->pages + (at->pages > 0);
  at->before += at->pages;
  at->pages = next_entry(update, at, behind) + 1;
  if (at->pages > update->flash->image_pages - at->first) {
    lose(update, KELVANE_UPDATE_BAD_PLAN);
  }
}

// A kept page: pages between the last one and this one, slot.
static uint32_t next_kept(kelvane_update* update, kelvane_plan_stretch* at) {
  const uint32_t behind = at->pages;
  at->pages = 1;
  return next_entry(update, at, behind);
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

// Checks a list and goes behind it.
static void open_list(kelvane_update* update, uint32_t* position, kelvane_plan_list* list,
                      int is_kept) {
  kelvane_plan_stretch at;
  list->at = *position;
  at = start_of(list);
  while (at.left > 0 && update->plan_lost == KELVANE_APPLY_OK) {
    if (!is_kept) {
      next_stretch(update, &at);
    } else if (next_kept(update, &at) >= update->slots) {
      lose(update, KELVANE_UPDATE_BAD_PLAN);
    }
  }
  *position = at.next;
}

// Every page that changes or is kept has to lie in a range. Counts those that change.
static void check_pages(kelvane_update* update) {
  kelvane_plan_stretch kept = start_of(&update->kept);
  int inside = 1;
  uint32_t i;
  while (kept.left > 0) {
    next_kept(update, &kept);
    inside &= kelvane_plan_has(update, kept.first);
  }
  first_run(update);
  for (;;) {
    // Where all pages change, the runs are the ranges.
    for (i = update->all_change ? update->run.pages : 0; i < update->run.pages; ++i) {
      kelvane_update_alive(update);
      inside &= kelvane_plan_has(update, update->run.first + i);
    }
    if (update->run.left == 0) {
      break;
    }
    next_run(update);
  }
  update->changed = update->run.before + update->run.pages;
  if (!inside && update->plan_lost == KELVANE_APPLY_OK) {
    lose(update, KELVANE_UPDATE_BAD_PLAN);
  }
}

int kelvane_plan_open(kelvane_update* update) {
  uint32_t position = 0;
  update->runs.count = number_at(update, &position);
  update->all_change = update->runs.count == 0;
  if (!update->all_change) {
    --update->runs.count;
  }
  open_list(update, &position, &update->runs, 0);
  update->kept.count = number_at(update, &position);
  update->slots = update->kept.count > 0 ? number_at(update, &position) : 0;
  open_list(update, &position, &update->kept, 1);
  update->ranges.count = number_at(update, &position);
  open_list(update, &position, &update->ranges, 0);
  update->raise = number_at(update, &position);
  // Raising overwrites all pages, so none may stay as it is or be another's.
  if (update->plan_lost == KELVANE_APPLY_OK &&
      (position != update->plan.size ||
       (update->raise > 0 && (!update->all_change || update->ranges.count > 0)))) {
    lose(update, KELVANE_UPDATE_BAD_PLAN);
  }
  if (update->plan_lost == KELVANE_APPLY_OK) {
    check_pages(update);
  }
  return update->plan_lost;
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

// How many pages that change lie below `page`.
static uint32_t changed_below(kelvane_update* update, uint32_t page) {
  const kelvane_plan_stretch* const run = &update->run;
  const int changes = kelvane_plan_changes(update, page);
  return run->before + (changes ? page - run->first : page < run->first ? 0 : run->pages);
}

void kelvane_plan_at(kelvane_update* update, uint32_t page, int writing) {
  // That of the last page that changes up to this one, counted in those that change.
  const uint32_t below = changed_below(update, page + 1);
  update->number = below == 0 ? 0 : below - 1;
  if (update->number < update->ring_base) {
    update->ring_base = 0;
  }
  while (update->number - update->ring_base >= update->ring) {
    update->ring_base += update->ring;
  }
  update->page = page;
  update->writing = (uint8_t)writing;
  update->found_page = PAGE_GONE;
}

uint32_t kelvane_plan_saved(kelvane_update* update, uint32_t page) {
  uint32_t place = PAGE_GONE;
  kelvane_plan_stretch kept = start_of(&update->kept);
  while (kept.left > 0) {
    const uint32_t slot = update->ring + next_kept(update, &kept);
    if (kept.first > update->page) {
      break;
    }
    if (kept.first == page) {
      place = slot;
    } else if (place == slot) {
      return PAGE_GONE;  // another page has taken the slot
    }
  }
  if (place == PAGE_GONE) {
    const uint32_t number = changed_below(update, page);
    if (update->number - number >= update->ring) {
      return PAGE_GONE;
    }
    place = number - update->ring_base + (number < update->ring_base ? update->ring : 0);
  }
  return update->flash->spare + (place << update->shift);
}

static uint32_t find_old(kelvane_update* update, uint32_t page) {
  // Behind an image that is raised lies nothing of it.
  if (!kelvane_plan_has(update, page) || (update->raise > 0 && page >= update->old_pages)) {
    return PAGE_BLANK;
  }
  page += update->raise;
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
