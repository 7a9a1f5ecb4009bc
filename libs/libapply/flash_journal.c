// SPDX-License-Identifier: Apache-2.0
#include "flash_journal.h"

// The head: sequence, base and identity, each followed by its complement.
enum { HEAD_BYTES = 24, LEAST_RECORDS = 6 };

static uint32_t get_word(const uint8_t* bytes) {
  return bytes[0] | (uint32_t)bytes[1] << 8 | (uint32_t)bytes[2] << 16 | (uint32_t)bytes[3] << 24;
}

static void put_word(uint8_t* bytes, uint32_t value) {
  uint32_t i;
  for (i = 0; i < 4; ++i) {
    bytes[i] = (uint8_t)(value >> (8 * i));
  }
}

// A number and its complement behind it.
static int take_pair(const uint8_t* bytes, uint32_t* value) {
  *value = get_word(bytes);
  return *value == ~get_word(bytes + 4);
}

static void put_pair(uint8_t* bytes, uint32_t value) {
  put_word(bytes, value);
  put_word(bytes + 4, ~value);
}

static uint32_t page_address(const kelvane_journal* journal, uint32_t page) {
  uint32_t address = journal->address;
  while (page-- > 0) {
    address += journal->flash->page_size;
  }
  return address;
}

static uint32_t next_page(uint32_t page) {
  return page + 1 == KELVANE_JOURNAL_PAGES ? 0 : page + 1;
}

// Slots are counted in bytes from the start of the page, so that nothing is divided.
static uint32_t first_slot(const kelvane_journal* journal) {
  const uint32_t unit = journal->flash->unit;
  return (HEAD_BYTES + unit - 1) & ~(unit - 1);
}

static int slot_fits(const kelvane_journal* journal, uint32_t slot) {
  return slot <= journal->flash->page_size - journal->flash->unit;
}

static int program(const kelvane_journal* journal, uint32_t slot, const uint8_t* bytes,
                   uint32_t count) {
  const kelvane_flash_driver* const flash = journal->flash;
  return flash->program(flash->context, page_address(journal, journal->page) + slot, bytes,
                        count) == 0
             ? KELVANE_JOURNAL_OK
             : KELVANE_JOURNAL_FLASH_FAILED;
}

static int erase_page(const kelvane_journal* journal, uint32_t page) {
  const kelvane_flash_driver* const flash = journal->flash;
  return flash->erase(flash->context, page_address(journal, page)) == 0
             ? KELVANE_JOURNAL_OK
             : KELVANE_JOURNAL_FLASH_FAILED;
}

static int put_record(kelvane_journal* journal, uint32_t value) {
  uint8_t bytes[KELVANE_FLASH_LARGEST_UNIT];
  uint32_t i;
  int code;
  put_word(bytes, value | (~value << 16));
  for (i = 4; i < journal->flash->unit; ++i) {
    bytes[i] = 0xFF;
  }
  code = program(journal, journal->slot, bytes, journal->flash->unit);
  journal->slot += journal->flash->unit;
  return code;
}

static int put_head(const kelvane_journal* journal) {
  uint8_t bytes[KELVANE_FLASH_LARGEST_UNIT];
  uint32_t i;
  for (i = HEAD_BYTES; i < KELVANE_FLASH_LARGEST_UNIT; ++i) {
    bytes[i] = 0xFF;
  }
  put_pair(bytes, journal->sequence);
  put_pair(bytes + 8, journal->base);
  put_pair(bytes + 16, journal->identity);
  return program(journal, 0, bytes, first_slot(journal));
}

// ---- Reading ------------------------------------------------------------------------------------

// Gives 1 and stores the value if the unit holds a record.
static int read_record(const kelvane_journal* journal, uint32_t page, uint32_t slot,
                       uint32_t* value) {
  const kelvane_flash_driver* const flash = journal->flash;
  uint8_t bytes[4];
  uint32_t word;
  if (flash->read(flash->context, page_address(journal, page) + slot, bytes, 4) != 0) {
    return 0;
  }
  word = get_word(bytes);
  if ((word & 0xFFFFu) != (~word >> 16)) {
    return 0;
  }
  *value = word & 0xFFFFu;
  return 1;
}

// Reads the page. Gives 1 if it counts, and then `found` holds what it says.
static int read_page(const kelvane_journal* journal, uint32_t page, kelvane_journal* found) {
  const kelvane_flash_driver* const flash = journal->flash;
  const uint32_t first = first_slot(journal);
  uint8_t head[HEAD_BYTES];
  uint32_t slot;
  int counts = 0;
  *found = *journal;
  if (flash->read(flash->context, page_address(journal, page), head, HEAD_BYTES) != 0 ||
      !take_pair(head, &found->sequence) || !take_pair(head + 8, &found->base) ||
      !take_pair(head + 16, &found->identity)) {
    return 0;
  }
  found->page = (uint8_t)page;
  found->solid = 0;
  for (slot = first; slot_fits(journal, slot) && read_record(journal, page, slot, &found->value);
       slot += flash->unit) {
    counts = slot > first;
    found->solid = slot > first + flash->unit;
  }
  return counts;
}

int kelvane_journal_open(kelvane_journal* journal, const kelvane_flash_driver* flash,
                         uint32_t address) {
  kelvane_journal found;
  uint32_t page;
  if (flash->unit < 4 || flash->unit > KELVANE_FLASH_LARGEST_UNIT ||
      (flash->unit & (flash->unit - 1)) != 0 || (flash->page_size & (flash->unit - 1)) != 0) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  journal->flash = flash;
  journal->address = address;
  journal->state = KELVANE_JOURNAL_NONE;
  journal->writable = 0;
  journal->page = 0;
  journal->solid = 0;
  journal->value = 0;
  journal->identity = 0;
  journal->sequence = 0;
  journal->base = 0;
  journal->slot = 0;
  if (flash->page_size < first_slot(journal) + LEAST_RECORDS * flash->unit) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  for (page = 0; page < KELVANE_JOURNAL_PAGES; ++page) {
    if (read_page(journal, page, &found) && found.sequence > journal->sequence) {
      *journal = found;
      journal->state = found.value == KELVANE_JOURNAL_FINISHED ? KELVANE_JOURNAL_COMPLETE
                                                               : KELVANE_JOURNAL_UNFINISHED;
    }
  }
  return KELVANE_JOURNAL_OK;
}

// ---- Writing ------------------------------------------------------------------------------------

// Starts `page`, which is not the only one that is known to be finished, with the value at hand.
static int fill_page(kelvane_journal* journal, uint32_t page) {
  int code = erase_page(journal, page);
  journal->page = (uint8_t)page;
  journal->slot = first_slot(journal);
  ++journal->sequence;
  if (code == KELVANE_JOURNAL_OK) {
    code = put_record(journal, journal->value);
  }
  if (code == KELVANE_JOURNAL_OK) {
    code = put_head(journal);
  }
  if (code == KELVANE_JOURNAL_OK) {
    code = put_record(journal, journal->value);
  }
  if (code == KELVANE_JOURNAL_OK) {
    // What tells a later restart that the second record was finished.
    code = put_record(journal, journal->value);
  }
  journal->solid = code == KELVANE_JOURNAL_OK;
  return code;
}

// Gives 1 and stores the page with this sequence, if one counts.
static int find_page(const kelvane_journal* journal, uint32_t sequence, uint32_t* page) {
  kelvane_journal found;
  for (*page = 0; *page < KELVANE_JOURNAL_PAGES; ++*page) {
    if (read_page(journal, *page, &found) && found.sequence == sequence) {
      return 1;
    }
  }
  return 0;
}

// Goes on with the value at hand on another page.
static int turn_page(kelvane_journal* journal) {
  const uint32_t newest = journal->page;
  const uint32_t next = next_page(newest);
  uint32_t base;
  const int has_base = find_page(journal, journal->base, &base);
  const uint32_t into = has_base ? base : next;
  const uint32_t other = next == into ? next_page(next) : next;
  int code;
  if (has_base && !journal->solid) {
    return fill_page(journal, other);
  }
  // This page will always count (a base that is gone was given up for it). What else may count now
  // or later was made from it or from its base, and goes before the base does.
  journal->base = journal->sequence;
  code = erase_page(journal, other);
  return code == KELVANE_JOURNAL_OK ? fill_page(journal, into) : code;
}

int kelvane_journal_begin(kelvane_journal* journal, uint32_t identity) {
  int code = KELVANE_JOURNAL_OK;
  if (journal->state == KELVANE_JOURNAL_NONE) {
    uint32_t page;
    // Pages that do not count now may do so the next time.
    for (page = 1; page < KELVANE_JOURNAL_PAGES && code == KELVANE_JOURNAL_OK; ++page) {
      code = erase_page(journal, page);
    }
    journal->solid = 0;
    journal->page = 0;
  } else if (!journal->writable) {
    code = kelvane_journal_resume(journal);
  }
  journal->value = 0;
  journal->identity = identity;
  if (code == KELVANE_JOURNAL_OK) {
    code = journal->state == KELVANE_JOURNAL_NONE ? fill_page(journal, 0) : turn_page(journal);
  }
  journal->state = KELVANE_JOURNAL_UNFINISHED;
  journal->writable = code == KELVANE_JOURNAL_OK;
  return code;
}

int kelvane_journal_resume(kelvane_journal* journal) {
  int code;
  if (journal->state == KELVANE_JOURNAL_NONE || journal->writable) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  code = turn_page(journal);
  journal->writable = code == KELVANE_JOURNAL_OK;
  return code;
}

int kelvane_journal_record(kelvane_journal* journal, uint32_t value) {
  int code;
  if (!journal->writable || value > KELVANE_JOURNAL_FINISHED) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  journal->value = value;
  code = slot_fits(journal, journal->slot) ? put_record(journal, value) : turn_page(journal);
  journal->writable = code == KELVANE_JOURNAL_OK;
  if (code == KELVANE_JOURNAL_OK && value == KELVANE_JOURNAL_FINISHED) {
    journal->state = KELVANE_JOURNAL_COMPLETE;
  }
  return code;
}
