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
