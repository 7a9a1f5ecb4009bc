// SPDX-License-Identifier: Apache-2.0
#include "flash_apply.h"

#include "flash_apply_internal.h"

static uint32_t smaller(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

static void alive(void* context) {
  const kelvane_update* const update = (const kelvane_update*)context;
  if (update->flash->alive != NULL) {
    update->flash->alive(update->flash->driver.context);
  }
}

// ---- The flash ----------------------------------------------------------------------------------

static int read_flash(const kelvane_update* update, uint32_t address, uint8_t* bytes,
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

static uint32_t home_of(const kelvane_update* update, uint32_t page) {
  return update->flash->image + (page << update->shift);
}

// ---- What a payload reads -----------------------------------------------------------------------

static int read_old(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const kelvane_update* const update = (const kelvane_update*)context;
  const uint32_t size = update->flash->driver.page_size;
  while (count > 0) {
    const uint32_t page = address >> update->shift;
    const uint32_t in_page = address & (size - 1);
    const uint32_t step = smaller(count, size - in_page);
    uint32_t place;
    int code;
    if (page >= update->flash->image_pages) {
      return KELVANE_APPLY_OUTSIDE;
    }
    place = kelvane_plan_old(update, page);
    if (place == PAGE_GONE) {
      return KELVANE_UPDATE_BAD_PLAN;
    }
    // A rehearsal asks whether the page would be there, and reads it where it still lies.
    code = read_flash(update, (update->rehearsing ? home_of(update, page) : place) + in_page, bytes,
                      step);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    address += step;
    bytes += step;
    count -= step;
  }
  return KELVANE_APPLY_OK;
}

static int read_new(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const kelvane_update* const update = (const kelvane_update*)context;
  if (update->rehearsing || address > update->decoded || count > update->decoded - address) {
    return KELVANE_APPLY_OUTSIDE;
  }
  return read_flash(update, update->flash->image + address, bytes, count);
}

// ---- Steps --------------------------------------------------------------------------------------

// Erases a page and fills it with a copy of another one.
static int save_page(kelvane_update* update) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t from = home_of(update, update->page);
  const uint32_t into = kelvane_plan_saved(update, update->page);
  uint32_t at;
  int code = into == PAGE_GONE ? KELVANE_UPDATE_BAD_PLAN : erase_flash(update, into);
  for (at = 0; at < flash->driver.page_size && code == KELVANE_APPLY_OK; at += flash->work_size) {
    code = read_flash(update, from + at, flash->work, flash->work_size);
    if (code == KELVANE_APPLY_OK) {
      code = program_flash(update, into + at, flash->work, flash->work_size);
    }
    alive(update);
  }
  return code;
}

// Computes the window at `address`.
static int compute(kelvane_update* update, uint32_t address) {
  const kelvane_flash* const flash = update->flash;
  int code;
  update->decoded = address;
  code = (update->rehearsing ? update->kind->rehearse : update->kind->window)(
      flash->state, address, flash->work, flash->work_size);
  if (code != KELVANE_APPLY_OK) {
    update->error = address;
  }
  update->decoded = address + flash->work_size;
  alive(update);
  return code;
}

// A payload with a state goes on to `address`; what it gives on the way is there already.
static int decode_up_to(kelvane_update* update, uint32_t address) {
  int code = KELVANE_APPLY_OK;
  while (update->kind->state_size != 0 && update->decoded < address && code == KELVANE_APPLY_OK) {
    code = compute(update, update->decoded);
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
    code = compute(update, start + at);
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
    alive(update);
  }
  return code;
}

// What a step does.
enum step_kind { SAVE, WRITE, CHECKPOINT };

// Takes step `k`: its page becomes the page at hand. `group` counts the checkpoints ahead of it.
static enum step_kind take_step(kelvane_update* update, uint32_t k, uint32_t* group) {
  uint32_t index = 0;
  *group = 0;
  while (update->every > 0 && k > 2 * update->every) {
    k -= 2 * update->every + 1;
    index += update->every;
    ++*group;
  }
  if (update->every > 0 && k == 2 * update->every) {
    kelvane_plan_at(update, kelvane_plan_page(update, index + update->every - 1));
    update->writing = 1;
    return CHECKPOINT;
  }
  kelvane_plan_at(update, kelvane_plan_page(update, index + (k >> 1)));
  update->writing = k & 1u;
  return update->writing ? WRITE : SAVE;
}

// Brings the payload to where the journal says that the update stands.
static int start_payload(kelvane_update* update) {
  uint32_t group;
  int code = update->kind->restart(update->flash->state);
  update->decoded = 0;
  if (code != KELVANE_APPLY_OK || update->kind->state_size == 0 ||
      update->journal.value >= update->steps) {
    return code;
  }
  take_step(update, update->journal.value, &group);
  if (group > 0) {
    code = read_flash(update, checkpoint_place(update, group - 1), (uint8_t*)update->flash->state,
                      update->kind->state_size);
    update->decoded = (kelvane_plan_page(update, group * update->every - 1) + 1) << update->shift;
    if (code == KELVANE_APPLY_OK) {
      code = update->kind->resume(update->flash->state);
    }
  }
  return code;
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
    const int code = read_flash(update, flash->image + at, flash->work, flash->work_size);
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    sum = add_window(update, sum, at, size);
    alive(update);
  }
  return sum == checksum ? KELVANE_APPLY_OK : mismatch;
}

static int verify_new(kelvane_update* update) {
  return verify(update, update->images.new_size, update->images.new_checksum,
                KELVANE_APPLY_NEW_CHECKSUM);
}

// The last page whose steps are done ahead of the next checkpoint: with it at hand, the windows of
// all pages since the last one may be computed again.
static uint32_t last_of_group(const kelvane_update* update, uint32_t group) {
  const uint32_t behind = smaller(update->changed, (group + 1) * update->every);
  return kelvane_plan_page(update, (update->every == 0 ? update->changed : behind) - 1);
}

// Computes the image that the update would leave: the pages of the plan new, the others as they
// are. The page at hand is the one with which the least is left of the old ones.
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
  update->writing = 1;
  for (page = 0; page < pages && code == KELVANE_APPLY_OK; ++page) {
    const uint32_t start = page << update->shift;
    const int changes = kelvane_plan_changes(update, page);
    uint32_t at;
    if (!changes && start >= size) {
      continue;
    }
    kelvane_plan_at(update, page);
    if (sequential && left > 0) {
      group += page > last_of_group(update, group);
      kelvane_plan_at(update, last_of_group(update, group));
    }
    for (at = start; at < start + flash->driver.page_size && code == KELVANE_APPLY_OK;
         at += flash->work_size) {
      if (changes || (sequential && left > 0)) {
        code = compute(update, at);
      }
      if (!changes && code == KELVANE_APPLY_OK) {
        code = read_flash(update, flash->image + at, flash->work, flash->work_size);
      }
      if (at < size) {
        sum = add_window(update, sum, at, size);
      }
    }
    left -= changes ? 1 : 0;
  }
  return code == KELVANE_APPLY_OK && sum != update->images.new_checksum ? KELVANE_APPLY_NEW_CHECKSUM
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
  return code_of_bundle(kelvane_bundle_check(bundle, flash->work, flash->work_size, alive, update));
}

// Shares the spare pages out: checkpoints at their end, slots ahead of those, and all that is left
// is the ring.
static int share_out(kelvane_update* update, const kelvane_bundle* bundle) {
  const kelvane_flash* const flash = update->flash;
  const uint32_t size = flash->driver.page_size;
  const uint32_t unit = flash->driver.unit;
  const uint32_t state_size = update->kind->state_size;
  uint32_t taken = bundle->slots;
  update->state_pages = state_size == 0 ? 0 : ((state_size - 1) >> update->shift) + 1;
  if (bundle->state_size != state_size || (bundle->checkpoint != 0) != (state_size != 0) ||
      ((state_size + unit - 1) & ~(unit - 1)) > flash->state_size) {
    return KELVANE_UPDATE_OTHER_KIND;
  }
  taken += 2 * update->state_pages;
  if (bundle->page_size != size || bundle->ring == 0 || taken > flash->spare_pages ||
      bundle->ring > flash->spare_pages - taken) {
    return KELVANE_UPDATE_OTHER_FLASH;
  }
  update->ring = flash->spare_pages - taken;
  update->states = flash->spare + ((update->ring + bundle->slots) << update->shift);
  return KELVANE_APPLY_OK;
}

static void count_steps(kelvane_update* update, const kelvane_bundle* bundle) {
  uint32_t left = update->changed;
  update->every = bundle->checkpoint;
  update->steps = 2 * update->changed;
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
  update->kind = *kind;
  update->plan = bundle->plan;
  update->input.payload = bundle->payload;
  update->input.image_size = flash->image_pages << update->shift;
  update->input.update = update;
  update->input.old_image = read_old;
  update->input.new_image = read_new;
  update->input.alive = alive;
  code = share_out(update, bundle);
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_plan_open(update, bundle->slots);
  }
  if (code == KELVANE_APPLY_OK) {
    count_steps(update, bundle);
    code = update->steps < KELVANE_JOURNAL_FINISHED ? KELVANE_APPLY_OK : KELVANE_UPDATE_BAD_PLAN;
  }
  if (code == KELVANE_APPLY_OK) {
    code = update->kind->open(flash->state, flash->state_size, &update->input, &update->images);
  }
  if (code == KELVANE_APPLY_OK && (update->images.old_size > update->input.image_size ||
                                   update->images.new_size > update->input.image_size)) {
    code = KELVANE_APPLY_NO_ROOM;
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
  if (code == KELVANE_APPLY_OK && update->kind->rehearse != NULL) {
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
  if (state == KELVANE_UPDATE_FINISHED && verify_new(update) == KELVANE_APPLY_OK) {
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
  update->decoded = 0;
  update->rehearsing = 0;
  update->steps = 0;
  update->done = 0;
  code = open_update(update, bundle);
  update->code = (uint32_t)code;
  return code;
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
  uint32_t group;
  int code;
  if (!journal->writable) {
    code = begin_or_resume(update);
    return code == KELVANE_APPLY_OK ? KELVANE_UPDATE_MORE : code;
  }
  if (journal->value >= update->steps) {
    code = verify_new(update);
    return code == KELVANE_APPLY_OK
               ? code_of_journal(kelvane_journal_record(journal, KELVANE_JOURNAL_FINISHED))
               : code;
  }
  switch (take_step(update, journal->value, &group)) {
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
    code = code_of_journal(kelvane_journal_record(journal, journal->value + 1));
    update->done = journal->value;
  }
  return code == KELVANE_APPLY_OK ? KELVANE_UPDATE_MORE : code;
}

int kelvane_update_step(kelvane_update* update) {
  if (update->code == KELVANE_UPDATE_MORE) {
    update->code = (uint32_t)do_step(update);
  }
  return (int)update->code;
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
      "an update by another bundle is unfinished",
      "the flash failed",
  };
  return code >= KELVANE_UPDATE_MORE && code < KELVANE_UPDATE_CODES
             ? texts[code - KELVANE_UPDATE_MORE]
             : kelvane_apply_text(code);
}
