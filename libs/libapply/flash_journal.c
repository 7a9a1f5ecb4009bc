#include "flash_journal.h"

// The head: sequence, base and identity, each followed by its complement.
enum { HEAD_BYTES = 24, LEAST_RECORDS = 6 };

// Half of a record is its value with these bits changed. Zeros that were cut off may have left
// whole bytes of a unit as they were; so no value in use is made of whole bytes of 0 or 0xFF.
enum { RECORD_MASK = 0x3C5A };

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

static uint32_t page_count(const kelvane_journal* journal) {
  return KELVANE_JOURNAL_PAGES(journal->flash->write_once);
}

static uint32_t page_address(const kelvane_journal* journal, uint32_t page) {
  uint32_t address = journal->address;
  while (page-- > 0) {
    address += journal->flash->page_size;
  }
  return address;
}

static uint32_t next_page(const kelvane_journal* journal, uint32_t page) {
  return page + 1 == page_count(journal) ? 0 : page + 1;
}

// Slots are counted in bytes from the start of the page, so that nothing is divided.
static uint32_t first_slot(const kelvane_journal* journal) {
  const uint32_t unit = journal->flash->unit;
  return (HEAD_BYTES + unit - 1) & ~(unit - 1);
}

static int slot_fits(const kelvane_journal* journal, uint32_t slot) {
  return slot <= journal->flash->page_size - journal->flash->unit;
}

static int program(const kelvane_journal* journal, uint32_t page, uint32_t slot,
                   const uint8_t* bytes, uint32_t count) {
  const kelvane_flash_driver* const flash = journal->flash;
  return flash->program(flash->context, page_address(journal, page) + slot, bytes, count) == 0
             ? KELVANE_JOURNAL_OK
             : KELVANE_JOURNAL_FLASH_FAILED;
}

// Erases a page. Cut off in the middle of that it could still read like a page that counts, with
// units behind its records that look blank and are not. So the third record goes first: without it
// nothing is appended any more (see resume), and then it does no harm to tear the head.
static int erase_page(const kelvane_journal* journal, uint32_t page) {
  static const uint8_t zeros[KELVANE_FLASH_LARGEST_UNIT] = {0};
  const kelvane_flash_driver* const flash = journal->flash;
  const uint32_t head = first_slot(journal);
  int code = KELVANE_JOURNAL_OK;
  if (!flash->write_once) {
    code = program(journal, page, head + 2 * flash->unit, zeros, flash->unit);
    if (code == KELVANE_JOURNAL_OK) {
      code = program(journal, page, 0, zeros, head);
    }
  }
  if (code == KELVANE_JOURNAL_OK &&
      flash->erase(flash->context, page_address(journal, page)) != 0) {
    code = KELVANE_JOURNAL_FLASH_FAILED;
  }
  return code;
}

// Programs one unit: `word`, and bytes of `rest` behind it.
static int put_unit(kelvane_journal* journal, uint32_t word, uint8_t rest) {
  uint8_t bytes[KELVANE_FLASH_LARGEST_UNIT];
  uint32_t i;
  int code;
  put_word(bytes, word);
  for (i = 4; i < journal->flash->unit; ++i) {
    bytes[i] = rest;
  }
  code = program(journal, journal->page, journal->slot, bytes, journal->flash->unit);
  journal->slot += journal->flash->unit;
  return code;
}

static int put_record(kelvane_journal* journal, uint32_t value) {
  const uint32_t half = value ^ RECORD_MASK;
  return put_unit(journal, half | (~half << 16), 0xFF);
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
  return program(journal, journal->page, 0, bytes, first_slot(journal));
}

// ---- Reading ------------------------------------------------------------------------------------

enum unit_state { UNIT_BLANK, UNIT_RECORD, UNIT_TORN };

static int read_unit(const kelvane_journal* journal, uint32_t page, uint32_t slot,
                     uint32_t* value) {
  const kelvane_flash_driver* const flash = journal->flash;
  uint8_t bytes[KELVANE_FLASH_LARGEST_UNIT];
  uint32_t word;
  uint32_t i = 0;
  if (flash->read(flash->context, page_address(journal, page) + slot, bytes, flash->unit) != 0) {
    return UNIT_TORN;
  }
  word = get_word(bytes);
  if ((word & 0xFFFFu) == (~word >> 16)) {
    *value = (word & 0xFFFFu) ^ RECORD_MASK;
    return UNIT_RECORD;
  }
  while (i < flash->unit && bytes[i] == 0xFF) {
    ++i;
  }
  return i == flash->unit ? UNIT_BLANK : UNIT_TORN;
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
  found->slot = first;
  found->blank = first;
  for (slot = first; slot_fits(journal, slot); slot += flash->unit) {
    uint32_t value = 0;
    const int state = read_unit(journal, page, slot, &value);
    if (state != UNIT_BLANK) {
      found->blank = slot + flash->unit;
    }
    // The value goes up by one each time. Anything else is chance in zeros that were cut off.
    if (state == UNIT_RECORD &&
        (slot == first || value - found->value <= 1 || value == KELVANE_JOURNAL_FINISHED)) {
      found->value = value;
      found->slot = slot + flash->unit;
      counts = slot > first;
      found->solid = slot > first + flash->unit;
    }
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
  journal->blank = 0;
  if (flash->page_size < first_slot(journal) + LEAST_RECORDS * flash->unit) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  for (page = 0; page < page_count(journal); ++page) {
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
  for (*page = 0; *page < page_count(journal); ++*page) {
    if (read_page(journal, *page, &found) && found.sequence == sequence) {
      return 1;
    }
  }
  return 0;
}

// Goes on with the value at hand on another page; or on the same one, where only that is safe.
static int turn_page(kelvane_journal* journal) {
  const uint32_t newest = journal->page;
  const uint32_t next = next_page(journal, newest);
  uint32_t base;
  const int has_base = find_page(journal, journal->base, &base);
  uint32_t into;
  uint32_t other;
  int code;
  into = has_base ? base : next;
  other = next == into ? next_page(journal, next) : next;
  if (has_base && !journal->solid) {
    return fill_page(journal, other);
  }
  // This page will always count (a base that is gone was given up for it). With three pages, what
  // else may count now or later was made from it or from its base, and goes before the base does.
  journal->base = journal->sequence;
  code = other == newest ? KELVANE_JOURNAL_OK : erase_page(journal, other);
  return code == KELVANE_JOURNAL_OK ? fill_page(journal, into) : code;
}

int kelvane_journal_begin(kelvane_journal* journal, uint32_t identity) {
  int code = KELVANE_JOURNAL_OK;
  if (journal->state == KELVANE_JOURNAL_NONE) {
    uint32_t page;
    // Pages that do not count now may do so the next time.
    for (page = 1; page < page_count(journal) && code == KELVANE_JOURNAL_OK; ++page) {
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
  const uint32_t unit = journal->flash->unit;
  uint32_t base;
  int code = KELVANE_JOURNAL_OK;
  if (journal->state == KELVANE_JOURNAL_NONE || journal->writable) {
    return KELVANE_JOURNAL_BAD_ARGUMENT;
  }
  if (journal->flash->write_once || (!journal->solid && find_page(journal, journal->base, &base))) {
    code = turn_page(journal);
  } else {
    while (code == KELVANE_JOURNAL_OK && journal->slot < journal->blank + 2 * unit &&
           slot_fits(journal, journal->slot)) {
      code = put_unit(journal, 0, 0);
    }
    if (code == KELVANE_JOURNAL_OK) {
      code = slot_fits(journal, journal->slot) ? put_record(journal, journal->value)
                                               : turn_page(journal);
    }
  }
  journal->solid = code == KELVANE_JOURNAL_OK;
  journal->writable = code == KELVANE_JOURNAL_OK;
  return code;
}

int kelvane_journal_record(kelvane_journal* journal, uint32_t value) {
  int code;
  if (!journal->writable || (value != KELVANE_JOURNAL_FINISHED &&
                             (value < journal->value || value > journal->value + 1))) {
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
