#include "diffshared.h"

#include <algorithm>
#include <cstdlib>

#include "debug_print.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "substitution.h"

namespace kelvane {

namespace {

// Makes a move, prints its line and hangs it behind the list.
void append_move(uint32_t address, int32_t size, command_record** first, command_record** last) {
  command_record* const move = gen_alloc_array<command_record>(1);
  move->address = address;
  move->size = size;
  append_command(move, first, last);
  if (size == 0) {
    dprintf(2, " CMD: end at %p", address_for_print(address));
  } else if (size < 0) {
    dprintf(2, " CMD: rem %i at %p", size,
            address_for_print(address + static_cast<uint32_t>(size)));
  } else {
    dprintf(2, " CMD: ins %i at %p", size, address_for_print(address));
  }
}

}  // namespace

void add_move(uint32_t address, int32_t size) {
  append_move(address, size, &first_move, &last_move);
  ++num_moves;
}

void add_abs_move(uint32_t address, int32_t size) {
  append_move(address, size, &first_abs_move, &last_abs_move);
  ++num_abs_moves;
}

void add_checksum(command_record** first, command_record** last, uint32_t address, uint32_t size) {
  command_record* const region = gen_alloc_array<command_record>(1);
  region->address = address;
  region->size = static_cast<int32_t>(size);
  append_command(region, first, last);
  dprintf(2, " CMD: cksum region %p - %p", address_for_print(address),
          address_for_print(address + size - 1));
}

void diff(const file_data* first, const file_data* second, uint16_t blocksize, int32_t max_scan) {
  do_diff(first->bytes, 0, static_cast<uint32_t>(first->size), second->bytes, 0,
          static_cast<uint32_t>(second->size), blocksize, max_scan, 1);
}

void do_diff(const uint8_t* buffer1, uint32_t address1, uint32_t size1, const uint8_t* buffer2,
             uint32_t address2, uint32_t size2, uint16_t blocksize, int32_t max_scan,
             int32_t fatal) {
  const uint32_t end_address = address1 + size1;
  if (size1 == 0 && size2 == 0) {
    add_move(end_address, 0);
    return;
  }
  // A tail that ends higher in the old image than in the new one is left to the walk.
  if (end_address <= address2 + size2) {
    const auto tail = static_cast<uint32_t>(
        common_tail(buffer1 + size1, buffer2 + size2, std::min(size1, size2)));
    size1 -= tail;
    size2 -= tail;
  }
  uint32_t position1 = 0;
  uint32_t position2 = 0;
  while (size1 - position1 > blocksize && size2 - position2 > blocksize) {
    const uint32_t walk = std::min(size1 - position1, size2 - position2) - blocksize;
    const auto equal =
        static_cast<uint32_t>(first_difference(buffer1 + position1, buffer2 + position2, walk));
    position1 += equal;
    position2 += equal;
    if (equal == walk) {
      break;
    }
    const Agreement agreement =
        find_agreement({buffer1 + position1, size1 - position1},
                       {buffer2 + position2, size2 - position2}, blocksize, max_scan);
    if (agreement.result < 0) {
      dprintf(1, " No reasonable match found between %p-%p and %p-%p",
              address_for_print(position1 + address1), address_for_print(size1 + address1 - 1),
              address_for_print(position2 + address2), address_for_print(size2 + address2 - 1));
      if (fatal != 0) {
        std::exit(kStatusFailure);
      }
      break;
    }
    process_change(buffer1, address1, position1, agreement.offset1, buffer2, address2, position2,
                   agreement.offset2);
    position1 += agreement.offset1;
    position2 += agreement.offset2;
    if (agreement.result == 0) {
      position1 += blocksize;  // the block is known to be equal
      position2 += blocksize;
    }
  }
  if (position1 < size1 || position2 < size2) {
    process_change(buffer1, address1, position1, size1 - position1, buffer2, address2, position2,
                   size2 - position2);
  }
  add_move(end_address, 0);
}

void process_change(const uint8_t* buffer1, uint32_t address1, uint32_t position1, uint32_t length1,
                    const uint8_t* buffer2, uint32_t address2, uint32_t position2,
                    uint32_t length2) {
  const uint32_t common = std::min(length1, length2);
  if (common != 0) {
    process_substitution({buffer1 + position1, buffer2 + position2, address2 + position2, common,
                          address1 + position1, address2 + position2});
    position1 += common;
    position2 += common;
    length1 -= common;
    length2 -= common;
  }
  if (length1 != 0) {
    add_move(address1 + position1 + length1, -static_cast<int32_t>(length1));
  } else if (length2 != 0) {
    add_move(address1 + position1, static_cast<int32_t>(length2));
    add_substitution(address2 + position2, length2, buffer2 + position2);
  }
}

}  // namespace kelvane
