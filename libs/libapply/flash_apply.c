// SPDX-License-Identifier: Apache-2.0
#include "flash_apply.h"

#include "flash_apply_internal.h"

static uint32_t smaller(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

void kelvane_update_alive(void* context) {
  const kelvane_update* const update = (const kelvane_update*)context;
  if (update->flash->alive != NULL) {
    update->flash->alive(update->flash->driver.context);
  }
}

// ---- The flash ----------------------------------------------------------------------------------

int kelvane_update_read(const kelvane_update* update, uint32_t address, uint8_t* bytes,
                        uint32_t count) {
  const kelvane_flash_driver* const driver = &update->flash->driver;
  return driver->read(driver->context, address, bytes, count) == 0 ? KELVANE_APPLY_OK
                                                                   : KELVANE_UPDATE_FLASH_FAILED;
}

static int erase_flash(const kelvane_update* update, uint32_t address) {
  const kelvane_flash_driver* const driver = &update->flash->driver;
  return driver->erase(driver->context, address) == 0 ? KELVANE_APPLY_OK
                                                      : KELVANE_UPDATE_FLASH_FAILED;
}

static int program_flash(const kelvane_update* update, uint32_t address, const uint8_t* bytes,
                         uint32_t count) {
  const kelvane_flash_driver* const driver = &update->flash->driver;
  return driver->program(driver->context, address, bytes, count) == 0 ? KELVANE_APPLY_OK
                                                                      : KELVANE_UPDATE_FLASH_FAILED;
}

uint32_t kelvane_update_home(const kelvane_update* update, uint32_t page) {
  return update->flash->image + (page << update->shift);
}

static void fill_blank(uint8_t* bytes, uint32_t count) {
  uint32_t i;
  for (i = 0; i < count; ++i) {
    bytes[i] = 0xFF;
  }
}

int kelvane_update_read_image(kelvane_update* update, uint32_t address, uint8_t* bytes,
                              uint32_t count) {
  const int has = kelvane_plan_has(update, address >> update->shift);
  if (update->plan_lost != KELVANE_APPLY_OK) {
    return update->plan_lost;
  }
  if (has) {
    return kelvane_update_read(update, update->flash->image + address, bytes, count);
  }
  fill_blank(bytes, count);
  return KELVANE_APPLY_OK;
}

// How many of the bytes lie in the page of the first.
static uint32_t within_page(const kelvane_update* update, uint32_t address, uint32_t count) {
  const uint32_t size = update->flash->driver.page_size;
  return smaller(count, size - (address & (size - 1)));
}

// ---- What a payload reads -----------------------------------------------------------------------

int kelvane_update_old_image(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  kelvane_update* const update = (kelvane_update*)context;
  while (count > 0) {
    const uint32_t page = address >> update->shift;
    const uint32_t step = within_page(update, address, count);
    uint32_t place;
    int code;
    if (page >= update->flash->image_pages) {
      return KELVANE_APPLY_OUTSIDE;
    }
    place = kelvane_plan_old(update, page);
    if (update->plan_lost != KELVANE_APPLY_OK || place == PAGE_GONE) {
      return update->plan_lost != KELVANE_APPLY_OK ? update->plan_lost : KELVANE_UPDATE_BAD_PLAN;
    }
    code = KELVANE_APPLY_OK;
    if (place == PAGE_BLANK) {
      fill_blank(bytes, step);
    } else {
      // A rehearsal asks whether the page would be there, and reads it where it still lies.
      place = update->rehearsing ? kelvane_update_home(update, page) : place;
      code = kelvane_update_read(update, place + (address & (update->flash->driver.page_size - 1)),
                                 bytes, step);
    }
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    address += step;
    bytes += step;
    count -= step;
  }
  return KELVANE_APPLY_OK;
}

int kelvane_update_new_image(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  kelvane_update* const update = (kelvane_update*)context;
  int code = KELVANE_APPLY_OK;
  if (update->images.reads_new == 0 || address > update->decoded ||
      count > update->decoded - address) {
    return KELVANE_APPLY_OUTSIDE;
  }
  while (count > 0 && code == KELVANE_APPLY_OK) {
    const uint32_t step = within_page(update, address, count);
    if (update->rehearsing) {
      fill_blank(bytes, step);
    } else {
      code = kelvane_update_read_image(update, address, bytes, step);
    }
    address += step;
    bytes += step;
    count -= step;
  }
  return code;
}

// ---- Steps --------------------------------------------------------------------------------------

// Erases a page and fills it with a copy of the page at hand.
static int copy_page(kelvane_update* update, uint32_t into) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t from = kelvane_update_home(update, update->page);
  uint32_t at;
  int code = erase_flash(update, into);
  for (at = 0; at < flash->driver.page_size && code == KELVANE_APPLY_OK; at += flash->work_size) {
    code = kelvane_update_read(update, from + at, flash->work, flash->work_size);
    if (code == KELVANE_APPLY_OK) {
      code = program_flash(update, into + at, flash->work, flash->work_size);
    }
    kelvane_update_alive(update);
  }
  return code;
}

static int save_page(kelvane_update* update) {
  uint32_t into;
  if (update->page < update->raise) {
    return KELVANE_APPLY_OK;  // what it held has been moved up
  }
  into = kelvane_plan_saved(update, update->page);
  if (update->plan_lost != KELVANE_APPLY_OK || into == PAGE_GONE) {
    return update->plan_lost != KELVANE_APPLY_OK ? update->plan_lost : KELVANE_UPDATE_BAD_PLAN;
  }
  return copy_page(update, into);
}

// Computes the window at `address`.
int kelvane_update_compute(kelvane_update* update, uint32_t address) {
  const kelvane_flash* const flash = update->flash;
  int code;
  update->decoded = address;
  code = (update->rehearsing ? update->kind->rehearse : update->kind->window)(
      flash->state, address, flash->work, flash->work_size);
  if (code != KELVANE_APPLY_OK) {
    update->error = address;
  }
  update->decoded = address + flash->work_size;
  kelvane_update_alive(update);
  return code;
}

// A payload with a state goes on to `address`; what it gives on the way is there already.
static int decode_up_to(kelvane_update* update, uint32_t address) {
  int code = KELVANE_APPLY_OK;
  while (update->kind->state_size != 0 && update->decoded < address && code == KELVANE_APPLY_OK) {
    code = kelvane_update_compute(update, update->decoded);
  }
  return code;
}

static int write_page(kelvane_update* update) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t start = update->page << update->shift;
  uint32_t at;
  int code = decode_up_to(update, start);
  if (code == KELVANE_APPLY_OK) {
    code = erase_flash(update, flash->image + start);
  }
  for (at = 0; at < flash->driver.page_size && code == KELVANE_APPLY_OK; at += flash->work_size) {
    code = kelvane_update_compute(update, start + at);
    if (code == KELVANE_APPLY_OK) {
      code = program_flash(update, flash->image + start + at, flash->work, flash->work_size);
    }
  }
  return code;
}

// ---- Checkpoints --------------------------------------------------------------------------------

// Two places take turns, so that the last one stays until the next is whole.
static uint32_t checkpoint_place(const kelvane_update* update, uint32_t number) {
  return update->states + ((number & 1u ? update->state_pages : 0) << update->shift);
}

static int save_state(kelvane_update* update, uint32_t number) {
  const uint32_t unit = update->flash->driver.unit;
  const uint32_t size = (update->kind->state_size + unit - 1) & ~(unit - 1);
  const uint32_t place = checkpoint_place(update, number);
  uint32_t at;
  int code = decode_up_to(update, (update->page + 1) << update->shift);
  for (at = 0; at < size && code == KELVANE_APPLY_OK; at += update->flash->driver.page_size) {
    code = erase_flash(update, place + at);
    if (code == KELVANE_APPLY_OK) {
      code = program_flash(update, place + at, (const uint8_t*)update->flash->state + at,
                           smaller(size - at, update->flash->driver.page_size));
    }
    kelvane_update_alive(update);
  }
  return code;
}

// What a step does.
enum step_kind { RAISE, SAVE, WRITE, CHECKPOINT };

// Takes step `k`: its page becomes the page at hand. `group` counts the checkpoints ahead of it.
static enum step_kind take_step(kelvane_update* update, uint32_t k, uint32_t* group) {
  uint32_t index = 0;
  *group = 0;
  if (k < update->raisings) {
    update->page = update->raisings - 1 - k;
    return RAISE;
  }
  k -= update->raisings;
  while (update->every > 0 && k > 2 * update->every) {
    k -= 2 * update->every + 1;
    index += update->every;
    ++*group;
  }
  if (update->every > 0 && k == 2 * update->every) {
    kelvane_plan_at(update, kelvane_plan_page(update, index + update->every - 1), 1);
    return CHECKPOINT;
  }
  kelvane_plan_at(update, kelvane_plan_page(update, index + (k >> 1)), (int)(k & 1u));
  return update->writing ? WRITE : SAVE;
}

// Brings the payload to where the journal says that the update stands: to its start, or to the last
// checkpoint.
static int start_payload(kelvane_update* update) {
  uint32_t group = 0;
  int code;
  update->decoded = 0;
  if (update->kind->state_size != 0 && update->journal.value < update->steps) {
    take_step(update, update->journal.value, &group);
  }
  if (group == 0) {
    return update->kind->restart(update->flash->state);
  }
  code = kelvane_update_read(update, checkpoint_place(update, group - 1),
                             (uint8_t*)update->flash->state, update->kind->state_size);
  update->decoded = (kelvane_plan_page(update, group * update->every - 1) + 1) << update->shift;
  return code == KELVANE_APPLY_OK ? update->kind->resume(update->flash->state) : code;
}

// ---- The update ---------------------------------------------------------------------------------

static int code_of_journal(int code) {
  return code == KELVANE_JOURNAL_OK ? KELVANE_APPLY_OK : KELVANE_UPDATE_FLASH_FAILED;
}

static int begin_or_resume(kelvane_update* update) {
  kelvane_journal* const journal = &update->journal;
  const int code = code_of_journal(journal->state == KELVANE_JOURNAL_UNFINISHED
                                       ? kelvane_journal_resume(journal)
                                       : kelvane_journal_begin(journal, update->identity));
  return code == KELVANE_APPLY_OK ? start_payload(update) : code;
}

static int do_step(kelvane_update* update) {
  kelvane_journal* const journal = &update->journal;
  enum step_kind step;
  uint32_t group;
  int code;
  if (!journal->writable) {
    code = begin_or_resume(update);
    return code == KELVANE_APPLY_OK ? KELVANE_UPDATE_MORE : code;
  }
  if (journal->value >= update->steps) {
    code = kelvane_update_verify_new(update);
    return code == KELVANE_APPLY_OK
               ? code_of_journal(kelvane_journal_record(journal, KELVANE_JOURNAL_FINISHED))
               : code;
  }
  step = take_step(update, journal->value, &group);
  if (update->plan_lost != KELVANE_APPLY_OK) {
    return update->plan_lost;
  }
  switch (step) {
    case RAISE:
      code = copy_page(update, kelvane_update_home(update, update->page + update->raise));
      break;
    case SAVE:
      code = save_page(update);
      break;
    case WRITE:
      code = write_page(update);
      break;
    default:
      code = save_state(update, group);
      break;
  }
  if (code == KELVANE_APPLY_OK) {
    code = update->plan_lost;  // what came of a plan that could not be read is not done
  }
  if (code == KELVANE_APPLY_OK) {
    code = code_of_journal(kelvane_journal_record(journal, journal->value + 1));
    update->done = journal->value;
  }
  return code == KELVANE_APPLY_OK ? KELVANE_UPDATE_MORE : code;
}

int kelvane_update_step(kelvane_update* update) {
  if (update->code == KELVANE_UPDATE_MORE) {
    update->code = (uint8_t)do_step(update);
  }
  return update->code;
}

uint32_t kelvane_update_done(const kelvane_update* update) {
  return update->done;
}

uint32_t kelvane_update_all(const kelvane_update* update) {
  return update->steps;
}

int kelvane_update_back(const kelvane_source* source, kelvane_source* back) {
  kelvane_bundle bundle;
  if (kelvane_bundle_read(&bundle, source) != KELVANE_BUNDLE_OK || bundle.back.size == 0) {
    return 1;
  }
  *back = bundle.back;
  return 0;
}

const char* kelvane_update_text(int code) {
  static const char* const texts[KELVANE_UPDATE_CODES - KELVANE_UPDATE_MORE] = {
      "the update goes on",
      "the description of the flash does not serve",
      "the bundle is damaged, or no bundle",
      "the version of the bundle is not known",
      "the signature of the bundle is not right",
      "the bundle has a payload of another kind",
      "the bundle was made for another flash",
      "the plan of the bundle does not keep what is needed",
      "the patch is of version 0 or for target memory",
      "the patch moves behind another command",
      "the payload of the bundle is damaged, or of another version",
      "the payload is for a machine that the device does not know",
      "the payload needs more memory than the device gives",
      "an update by another bundle is unfinished",
      "the flash failed",
  };
  return code >= KELVANE_UPDATE_MORE && code < KELVANE_UPDATE_CODES
             ? texts[code - KELVANE_UPDATE_MORE]
             : kelvane_apply_text(code);
}
