#pragma once

#include <string>

#include "patch_builder.h"

namespace kelvane {

// The worked patch of docs/patch-format.md: two files of a big-endian target and the patch between
// them, in version 1 and file mode, with every command of the set.
inline std::string worked_old_file() {
  return from_hex(
      "00 00 10 00 00 00 10 40 00 00 20 00 00 00 00 00"
      "41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50"
      "61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70"
      "30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F");
}

inline std::string worked_new_file() {
  return from_hex(
      "00 00 10 04 00 00 10 44 00 00 20 04 00 00 00 00"
      "4E 45 57 21 41 42 21 44 45 46 47 48 49 4A 4B 4C"
      "4D 4E 4F 50 61 78 79 64 65 7A 67 68 69 2D 6B 6C"
      "2B 6E 6F 70 FF FF FF FF FF FF FF FF 61 62 63 61"
      "62 63 61 62");
}

inline std::string worked_patch() {
  return from_hex(
      // The frame.
      "7F 51 56 52  00 00 00 01  00 00 00 07  00 00 00 00  04 00 00 00"
      // version, old_checksum, new_checksum, old_size, new_size, patch_size, patch_checksum
      "00 00 00 01  12 5D CE EB  A0 56 BB CF  00 00 00 40  00 00 00 44  00 00 00 8F  CB 9A D2 A5"
      // CM_MOVE: one block of 48 bytes from 0x10 up by 4.
      "03 00 01  00 00 00 10 00 00 00 30 00 00 00 04"
      // CM_SUBSTITUTE: 4 bytes at 0x10, then 2 bytes at 0x25 and 1 byte at 0x29 as a relative list.
      "01 00 02  00 01  00 00 00 10 00 00 00 04 4E 45 57 21"
      "00 02 00 00 00 25  00 02 78 79  04 01 7A"
      // CM_SUB_COMP: 6 bytes that expand to the 8 bytes at 0x3C.
      "05 00 01  00 01  00 00 00 3C 00 00 00 06 07 61 62 63 EE F2"
      // CM_SUB_ONE: a byte at 0x16.
      "02 00 01  00 01  00 00 00 16 21"
      // CM_SUB_ONE again, with an empty absolute list: bytes at 0x2D and 0x30.
      "02 00 02  00 00  00 02 00 00 00 2D  00 2D  03 2B"
      // CM_FILL: 8 bytes of 0xFF at 0x34.
      "06 00 01  00 00 00 34 00 08 FF"
      // CM_INCRS: 4 added to the words at 0, 4 and 8.
      "07 00 00 00 0B  06 00 C2 D1 58 D1 FD FD FF 07 10");
}

}  // namespace kelvane
