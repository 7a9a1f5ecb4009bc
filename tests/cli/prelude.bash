# Words that the cases share; read before each of them.
# shellcheck shell=bash

# run COMMAND ...: runs it and notes its exit status behind what it said on standard error.
run() {
  local status=0
  "$@" || status=$?
  echo "exit $status" >&2
}

# quietly COMMAND ...: runs it with what it says on standard error put away in the file `words`.
quietly() {
  "$@" 2>words
}

# hex FILE [SKIPPED]: the bytes of a file as hexadecimal digits, 16 a line, behind the first SKIPPED.
hex() {
  od -An -v -tx1 -j "${2:-0}" "$1" | sed 's/^ //'
}

# old_and_new: two files of three bytes that are equal, `old` and `new`.
old_and_new() {
  printf abc >old
  printf abc >new
}

# bytes DIGITS ...: the bytes of these hexadecimal digits.
bytes() {
  local digits=$*
  digits=${digits//[[:space:]]/}
  while [[ -n $digits ]]; do
    printf '%b' "\\x${digits:0:2}"
    digits=${digits:2}
  done
}

# sum_of FILE: the checksum that the format has for its bytes, as 8 hexadecimal digits.
sum_of() {
  local sum=0 byte
  for byte in $(od -An -v -tu1 "$1"); do
    sum=$((((sum << 7 | sum >> 25) + byte) & 0xFFFFFFFF))
  done
  printf '%08x' "$sum"
}

# patch_by_hand VERSION OLD NEW DIGITS ...: a big-endian patch in file mode between two files, with the
# commands that the digits tell.
patch_by_hand() {
  local version=$1 header
  header=$(sum_of "$2")$(sum_of "$3")$(printf '%08x%08x' "$(stat -c %s "$2")" "$(stat -c %s "$3")")
  bytes "${@:4}" >commands
  if ((version == 1)); then
    header="7F515652 00000001 00000007 00000000 04000000 00000001 $header"
    header+=$(printf '%08x' $((28 + $(stat -c %s commands))))$(sum_of commands)
  fi
  bytes "$header"
  cat commands
  rm commands
}

# worked_patch: the files old.bin and new.bin of 64 and 68 bytes, and the patch diff.out between them,
# which has every command of file mode.
worked_patch() {
  bytes 00001000 00001040 00002000 00000000 4142434445464748494A4B4C4D4E4F50 \
    6162636465666768696A6B6C6D6E6F70 303132333435363738393A3B3C3D3E3F >old.bin
  bytes 00001004 00001044 00002004 00000000 4E455721414221444546474849 4A4B4C \
    4D4E4F5061787964657A6768692D6B6C 2B6E6F70 FFFFFFFFFFFFFFFF 616263616263 6162 >new.bin
  patch_by_hand 1 old.bin new.bin 03 0001 00000010 00000030 00000004 \
    01 0002 0001 00000010 00000004 4E455721 0002 00000025 00 02 7879 04 01 7A \
    05 0001 0001 0000003C 00000006 07616263EEF2 02 0001 0001 00000016 21 \
    02 0002 0000 0002 0000002D 00 2D 03 2B 06 0001 00000034 0008 FF \
    07 0000000B 0600C2D158D1FDFDFF0710 >diff.out
}
