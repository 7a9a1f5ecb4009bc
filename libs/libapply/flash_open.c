// SPDX-License-Identifier: Apache-2.0
#include "flash_apply_internal.h"

static uint32_t smaller(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

// ---- Checks -------------------------------------------------------------------------------------

// Adds to the sum what lies in the work memory of the window at `address`, up to the end of the
// image.
static uint32_t add_window(const kelvane_update* update, uint32_t sum, uint32_t address,
                           uint32_t size) {
  return update->kind->checksum(sum, update->flash->work,
                                smaller(size - address, update->flash->work_size));
}

// Compares the image in flash with the checksum.
static int verify(kelvane_update* update, uint32_t size, uint32_t checksum, int mismatch) {
  const kelvane_flash* const flash = update->flash;
  uint32_t sum = 0;
  uint32_t at;
  for (at = 0; at < size; at += flash->work_size) {
    const int code = kelvane_update_read_image(update, at, flash->work, flash->work_size);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    sum = add_window(update, sum, at, size);
    kelvane_update_alive(update);
  }
  return sum == checksum ? KELVANE_APPLY_OK : mismatch;
}

int kelvane_update_verify_new(kelvane_update* update) {
  return verify(update, update->images.new_size, update->images.new_checksum,
                KELVANE_APPLY_NEW_CHECKSUM);
}

// The last page whose steps are done ahead of the next checkpoint: with it at hand, the windows of
// all pages since the last one may be computed again.
static uint32_t last_of_group(kelvane_update* update, uint32_t group) {
  const uint32_t behind = smaller(update->changed, (group + 1) * update->every);
  return kelvane_plan_page(update, (update->every == 0 ? update->changed : behind) - 1);
}

// Computes the image that the update would leave: the pages of the plan new, the others as they
// are. The page at hand is the one with which the least is left of the old ones. Where the payload
// asks for new bytes, every byte that it reads is held against the plan all the same, but what it
// makes is not known.
static int rehearse(kelvane_update* update) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t size = update->images.new_size;
  const uint32_t pages = flash->image_pages;
  const int sequential = update->kind->state_size != 0;
  uint32_t sum = 0;
  uint32_t group = 0;
  uint32_t page;
  uint32_t left = update->changed;
  int code = update->kind->restart(flash->state);
  for (page = 0; page < pages && code == KELVANE_APPLY_OK; ++page) {
    const uint32_t start = page << update->shift;
    const int changes = kelvane_plan_changes(update, page);
    uint32_t at;
    if (!changes && start >= size) {
      continue;
    }
    kelvane_plan_at(update, page, 1);
    if (sequential && left > 0) {
      group += page > last_of_group(update, group);
      kelvane_plan_at(update, last_of_group(update, group), 1);
    }
    for (at = start; at < start + flash->driver.page_size && code == KELVANE_APPLY_OK;
         at += flash->work_size) {
      if (changes || (sequential && left > 0)) {
        code = kelvane_update_compute(update, at);
      }
      if (!changes && code == KELVANE_APPLY_OK) {
        code = kelvane_update_read_image(update, at, flash->work, flash->work_size);
      }
      if (at < size) {
        sum = add_window(update, sum, at, size);
      }
    }
    left -= changes ? 1 : 0;
  }
  if (code == KELVANE_APPLY_OK) {
    code = update->plan_lost;
  }
  return code == KELVANE_APPLY_OK && update->images.reads_new == 0 &&
                 sum != update->images.new_checksum
             ? KELVANE_APPLY_NEW_CHECKSUM
             : code;
}

// ---- Opening ------------------------------------------------------------------------------------

static int is_power_of_two(uint32_t number) {
  return number != 0 && (number & (number - 1)) == 0;
}

static int check_geometry(kelvane_update* update) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t size = flash->driver.page_size;
  update->shift = 0;
  if (!is_power_of_two(size) || !is_power_of_two(flash->work_size) || flash->work_size > size ||
      flash->work_size < flash->driver.unit || flash->work_size < 4 ||
      flash->image_pages > 0xFFFFu) {
    return KELVANE_UPDATE_BAD_GEOMETRY;
  }
  while ((size >> update->shift) > 1) {
    ++update->shift;
  }
  // The address behind the image must be a number too.
  return flash->image_pages <= (0xFFFFFFFFu >> update->shift) ? KELVANE_APPLY_OK
                                                              : KELVANE_UPDATE_BAD_GEOMETRY;
}

static int code_of_bundle(int code) {
  switch (code) {
    case KELVANE_BUNDLE_OK:
      return KELVANE_APPLY_OK;
    case KELVANE_BUNDLE_VERSIONS:
      return KELVANE_UPDATE_BAD_VERSION;
    case KELVANE_BUNDLE_FETCH:
      return KELVANE_APPLY_FETCH_FAILED;
    default:
      return KELVANE_UPDATE_NO_BUNDLE;
  }
}

static int check_bundle(kelvane_update* update, const kelvane_bundle* bundle) {
  const kelvane_flash* const flash = update->flash;
  if (flash->authentic != NULL &&
      flash->authentic(flash->driver.context, &bundle->summed, &bundle->signature) != 0) {
    return KELVANE_UPDATE_NOT_AUTHENTIC;
  }
  return code_of_bundle(
      kelvane_bundle_check(bundle, flash->work, flash->work_size, kelvane_update_alive, update));
}

static uint32_t pages_of(const kelvane_update* update, uint32_t size) {
  return size == 0 ? 0 : ((size - 1) >> update->shift) + 1;
}

// Shares the spare pages out: checkpoints at their end, slots ahead of those, and all that is left
// is the ring.
static int share_out(kelvane_update* update, const kelvane_bundle* bundle) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t unit = flash->driver.unit;
  const uint32_t state_size = update->kind->state_size;
  uint32_t taken;
  update->state_pages = pages_of(update, state_size);
  if ((bundle->checkpoint != 0) != (state_size != 0)) {
    return KELVANE_UPDATE_OTHER_KIND;
  }
  if (((state_size + unit - 1) & ~(unit - 1)) > flash->state_size) {
    return KELVANE_UPDATE_NO_MEMORY;
  }
  if (update->slots > flash->spare_pages) {
    return KELVANE_UPDATE_OTHER_FLASH;
  }
  taken = update->slots + 2 * update->state_pages;
  if (bundle->ring == 0 || taken > flash->spare_pages ||
      bundle->ring > flash->spare_pages - taken) {
    return KELVANE_UPDATE_OTHER_FLASH;
  }
  update->ring = flash->spare_pages - taken;
  update->states = flash->spare + ((update->ring + update->slots) << update->shift);
  return KELVANE_APPLY_OK;
}

static void count_steps(kelvane_update* update, const kelvane_bundle* bundle) {
  uint32_t left = update->changed;
  update->every = bundle->checkpoint;
  update->raisings = update->raise > 0 ? update->old_pages : 0;
  update->steps = update->raisings + 2 * update->changed;
  while (update->every > 0 && left > update->every) {
    left -= update->every;
    ++update->steps;
  }
}

static int open_payload(kelvane_update* update, const kelvane_bundle* bundle) {
  const kelvane_flash* const flash = update->flash;
  const kelvane_payload_kind* const* kind = flash->kinds;
  int code;
  while (*kind != NULL && (*kind)->number != bundle->kind) {
    ++kind;
  }
  if (*kind == NULL) {
    return KELVANE_UPDATE_OTHER_KIND;
  }
  if (bundle->page_size != flash->driver.page_size) {
    return KELVANE_UPDATE_OTHER_FLASH;
  }
  update->kind = *kind;
  update->plan = bundle->plan;
  update->input.payload = bundle->payload;
  update->input.image_size = flash->image_pages << update->shift;
  update->input.update = update;
  update->input.old_image = kelvane_update_old_image;
  update->input.new_image = kelvane_update_new_image;
  update->input.alive = kelvane_update_alive;
  update->images.reads_new = 0;
  code = update->kind->open(flash->state, flash->state_size, &update->input, &update->images);
  if (code == KELVANE_APPLY_OK && (update->images.old_size > update->input.image_size ||
                                   update->images.new_size > update->input.image_size)) {
    code = KELVANE_APPLY_NO_ROOM;
  }
  if (code == KELVANE_APPLY_OK) {
    update->old_pages = pages_of(update, update->images.old_size);
    update->new_pages = pages_of(update, update->images.new_size);
    code = kelvane_plan_open(update);
  }
  if (code == KELVANE_APPLY_OK && update->raise > flash->image_pages - update->old_pages) {
    code = KELVANE_APPLY_NO_ROOM;
  }
  if (code == KELVANE_APPLY_OK) {
    code = share_out(update, bundle);
  }
  if (code == KELVANE_APPLY_OK) {
    count_steps(update, bundle);
    code = update->steps < KELVANE_JOURNAL_FINISHED ? KELVANE_APPLY_OK : KELVANE_UPDATE_BAD_PLAN;
  }
  return code;
}

// What tells this update, on this flash, from others.
static uint32_t identity_of(const kelvane_flash* flash, const kelvane_bundle* bundle) {
  const uint32_t words[6] = {bundle->checksum, flash->image,       flash->image_pages,
                             flash->spare,     flash->spare_pages, flash->driver.page_size};
  uint32_t crc = 0;
  uint32_t i;
  for (i = 0; i < 24; ++i) {
    const uint8_t byte = (uint8_t)(words[i >> 2] >> (8 * (i & 3u)) & 0xFFu);
    crc = kelvane_crc32(crc, &byte, 1);
  }
  return crc;
}

static enum kelvane_update_state state_of(const kelvane_journal* journal, uint32_t identity) {
  if (journal->state == KELVANE_JOURNAL_UNFINISHED) {
    return journal->identity == identity ? KELVANE_UPDATE_UNFINISHED : KELVANE_UPDATE_OTHER;
  }
  return journal->state == KELVANE_JOURNAL_COMPLETE && journal->identity == identity
             ? KELVANE_UPDATE_FINISHED
             : KELVANE_UPDATE_NONE;
}

enum kelvane_update_state kelvane_update_state(const kelvane_flash* flash,
                                               const kelvane_source* source) {
  kelvane_bundle bundle;
  kelvane_journal journal;
  if (kelvane_journal_open(&journal, &flash->driver, flash->journal) != KELVANE_JOURNAL_OK) {
    return KELVANE_UPDATE_NONE;
  }
  if (kelvane_bundle_read(&bundle, source) != KELVANE_BUNDLE_OK) {
    return journal.state == KELVANE_JOURNAL_UNFINISHED ? KELVANE_UPDATE_OTHER : KELVANE_UPDATE_NONE;
  }
  return state_of(&journal, identity_of(flash, &bundle));
}

// What has to be right before anything is written.
static int check_before(kelvane_update* update) {
  int code = verify(update, update->images.old_size, update->images.old_checksum,
                    KELVANE_APPLY_OLD_CHECKSUM);
  if (code == KELVANE_APPLY_OK) {
    update->rehearsing = 1;
    code = rehearse(update);
    update->rehearsing = 0;
  }
  return code;
}

static int open_update(kelvane_update* update, const kelvane_source* source) {
  const kelvane_flash* const flash = update->flash;
  kelvane_bundle bundle;
  enum kelvane_update_state state;
  int code = check_geometry(update);
  if (code == KELVANE_APPLY_OK && kelvane_journal_open(&update->journal, &flash->driver,
                                                       flash->journal) != KELVANE_JOURNAL_OK) {
    code = KELVANE_UPDATE_BAD_GEOMETRY;
  }
  if (code == KELVANE_APPLY_OK) {
    code = code_of_bundle(kelvane_bundle_read(&bundle, source));
  }
  if (code == KELVANE_APPLY_OK) {
    code = check_bundle(update, &bundle);
  }
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  update->identity = identity_of(flash, &bundle);
  state = state_of(&update->journal, update->identity);
  if (state == KELVANE_UPDATE_OTHER) {
    return KELVANE_UPDATE_OTHER_UPDATE;
  }
  code = open_payload(update, &bundle);
  if (code != KELVANE_APPLY_OK) {
    return code;
  }
  if (state == KELVANE_UPDATE_UNFINISHED) {
    update->done = update->journal.value;
    return update->journal.value <= update->steps ? KELVANE_UPDATE_MORE : KELVANE_UPDATE_BAD_PLAN;
  }
  if (state == KELVANE_UPDATE_FINISHED && kelvane_update_verify_new(update) == KELVANE_APPLY_OK) {
    update->done = update->steps;
    return KELVANE_APPLY_OK;
  }
  // Finished, and not there: somebody has put the old image back.
  code = check_before(update);
  return code == KELVANE_APPLY_OK ? KELVANE_UPDATE_MORE : code;
}

int kelvane_update_open(kelvane_update* update, const kelvane_flash* flash,
                        const kelvane_source* bundle) {
  int code;
  update->flash = flash;
  update->error = 0;
  update->ring_base = 0;
  update->found_page = PAGE_GONE;
  update->plan_lost = KELVANE_APPLY_OK;
  update->decoded = 0;
  update->rehearsing = 0;
  update->steps = 0;
  update->done = 0;
  code = open_update(update, bundle);
  update->code = (uint8_t)code;
  return code;
}
